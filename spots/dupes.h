// Duplicate detection.  A spot is a duplicate when the same DX call was spotted within a few
// kHz inside the window, whoever spotted it, or when the same sentence (hop count aside)
// arrives again, as it does when two links carry it.  Memory is bounded: the records live in
// a ring of fixed size, and the indexes take their nodes from a pool, so a spot costs no
// allocation once the detector has warmed up.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory_resource>
#include <unordered_map>
#include <vector>

#include "core/time_text.h"
#include "spots/spot.h"

namespace qx {

struct DupeOptions {
  double khz_tolerance = 3.0;                     // "the same frequency": within +-3 kHz
  std::chrono::seconds call_window{10 * 60};      // same DX call on that frequency
  std::chrono::seconds sentence_window{60 * 60};  // the same sentence again (slow relays)
  size_t max_records = 1u << 17;                  // the oldest record goes first when full
};

class DupeDetector {
 public:
  explicit DupeDetector(DupeOptions options = {});

  // True for a duplicate.  A spot that is not one is remembered unless remember is false (a
  // trial).  now is the receive time.
  bool DupeFound(const Spot& spot, SysTime now, bool remember = true);

  size_t size() const { return count_; }
  void Clear();

 private:
  struct Record {
    uint64_t call_hash;
    uint64_t sentence_hash;
    int64_t t;  // seconds
  };
  struct Recent {
    double khz;
    int64_t t;
  };
  struct CallEntry {
    static constexpr int kKept = 4;
    Recent recent[kKept];
    uint8_t next = 0;  // where the next sighting goes
    uint8_t used = 0;
    uint32_t refs = 0;  // ring records that name this call
  };

  void Expire(int64_t now);
  void DropOldest();

  DupeOptions options_;
  std::vector<Record> ring_;
  size_t head_ = 0;  // oldest record
  size_t count_ = 0;
  std::pmr::unsynchronized_pool_resource pool_;
  std::pmr::unordered_map<uint64_t, CallEntry> calls_;
  std::pmr::unordered_map<uint64_t, uint32_t> sentences_;
};

}  // namespace qx
