#include "core/memory_ceiling.h"

#include <unistd.h>

#include "core/file_util.h"
#include "core/text_util.h"

namespace qx {
namespace {

std::string Megabytes(size_t bytes) { return std::to_string((bytes + (1u << 19)) >> 20) + " MB"; }

}  // namespace

size_t ResidentBytesFromStatm(std::string_view statm, size_t page_size) {
  const auto fields = Split(Trim(statm), ' ');
  long long pages = 0;
  if (fields.size() < 2 || !ParseInt(fields[1], pages) || pages < 0) return 0;
  return size_t(pages) * page_size;
}

size_t ResidentBytes() {
  const auto text = ReadFileText("/proc/self/statm");
  const long page = sysconf(_SC_PAGESIZE);
  if (!text || page <= 0) return 0;
  return ResidentBytesFromStatm(*text, size_t(page));
}

void MemoryCeiling::set_ceiling_mb(long long mb) {
  ceiling_ = mb > 0 ? size_t(mb) << 20 : 0;
  if (ceiling_ == 0) over_ = false;
}

MemoryDecision MemoryCeiling::Check(size_t resident, const std::vector<Backlog>& backlogs,
                                    SysTime now) {
  MemoryDecision d;
  if (ceiling_ == 0 || resident == 0) return d;
  const double share = double(resident) / double(ceiling_);
  if (share < kRelaxShare) {
    if (over_)
      d.note = "memory back to " + Megabytes(resident) + " of MaxMem " + Megabytes(ceiling_);
    over_ = false;
    return d;
  }
  if (share < kActShare || (over_ && now - last_shed_ < kShedGap)) return d;
  over_ = true;
  last_shed_ = now;
  size_t largest = 0;
  for (size_t i = 0; i < backlogs.size(); ++i) {
    if (backlogs[i].can_shed && backlogs[i].bytes > largest) {
      largest = backlogs[i].bytes;
      d.shed = int(i);
    }
  }
  d.note = "memory " + Megabytes(resident) + " of MaxMem " + Megabytes(ceiling_) + ";";
  for (const Backlog& b : backlogs) d.note += " " + b.name + " " + Megabytes(b.bytes) + ",";
  d.note.pop_back();
  d.note += d.shed < 0 ? "; nothing left to shed" : "; shedding the " + backlogs[d.shed].name;
  return d;
}

}  // namespace qx
