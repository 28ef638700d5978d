#include "spots/spot_ids.h"

#include <string>
#include <system_error>

#include "core/file_util.h"
#include "core/text_util.h"

namespace qx {

SpotIdCounter::SpotIdCounter(std::filesystem::path file) : file_(std::move(file)) {}

void SpotIdCounter::Load() {
  if (file_.empty()) return;
  const std::optional<std::string> text = ReadFileText(file_);
  long long mark = 0;
  if (text && ParseInt(Trim(*text), mark) && mark > 0) Observe(uint64_t(mark));
}

void SpotIdCounter::Observe(uint64_t id) {
  if (id > last_) last_ = id;
  // Numbers up to last_ are taken; the next one needs a block of its own.
  if (reserved_ < last_) reserved_ = last_;
}

void SpotIdCounter::Reserve() {
  reserved_ = last_ + kBlock;
  if (file_.empty()) return;
  const std::string text = std::to_string(reserved_) + "\n";
  if (!AtomicWriteFile(file_, text)) {
    std::error_code ec;
    std::filesystem::create_directories(file_.parent_path(), ec);
    AtomicWriteFile(file_, text);
  }
}

uint64_t SpotIdCounter::Next() {
  if (last_ + 1 > reserved_) Reserve();
  return ++last_;
}

}  // namespace qx
