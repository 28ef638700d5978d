// The memory ceiling ("MaxMem", in megabytes of resident memory; 0: none).  The node measures
// its resident size now and then; from nine tenths of the ceiling on it names the largest of
// its backlogs that can be shed, so that the node gives up old data before the ceiling (or
// the system's out-of-memory killer) takes everything.  The decision is pure; the node
// measures and sheds.
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "core/time_text.h"

namespace qx {

// Resident memory of this process from /proc/self/statm; 0 when it cannot be read.
size_t ResidentBytes();
// The resident size from the text of /proc/<pid>/statm (pages, the second field).
size_t ResidentBytesFromStatm(std::string_view statm, size_t page_size);

struct Backlog {
  std::string name;
  size_t bytes = 0;
  bool can_shed = false;  // some backlogs are bounded elsewhere and only reported
};

struct MemoryDecision {
  int shed = -1;     // index of the backlog to shed now, -1 for none
  std::string note;  // for the log when not empty
};

class MemoryCeiling {
 public:
  static constexpr double kActShare = 0.9;             // act from here on
  static constexpr double kRelaxShare = 0.8;           // an episode ends below this
  static constexpr std::chrono::seconds kShedGap{30};  // between two sheds

  // ceiling_mb 0: no ceiling, Check never acts.
  explicit MemoryCeiling(long long ceiling_mb = 0) { set_ceiling_mb(ceiling_mb); }
  void set_ceiling_mb(long long mb);
  size_t ceiling_bytes() const { return ceiling_; }

  MemoryDecision Check(size_t resident, const std::vector<Backlog>& backlogs, SysTime now);

 private:
  size_t ceiling_ = 0;
  bool over_ = false;
  SysTime last_shed_{};
};

}  // namespace qx
