// The node-wide spot numbers.  Every accepted spot gets the next number; numbers increase and
// are never handed out twice, also across restarts, so that a program that saw spot N can ask
// for "every spot after N" at any time.
//
// The counter file (data/spot_id.state) holds a mark no number handed out so far reaches:
// numbers are reserved in blocks, the mark written atomically before the first number of a
// block is used.  A restart therefore goes on after the mark, never below a number that might
// have reached a user, even when the day file lost its last lines in a crash; a block costs
// one small write per thousand spots, not one per spot.
#pragma once

#include <cstdint>
#include <filesystem>

namespace qx {

class SpotIdCounter {
 public:
  static constexpr uint64_t kBlock = 1000;

  // file empty: memory only (tests, tools).
  explicit SpotIdCounter(std::filesystem::path file);

  // Reads the mark of an earlier run; the next number comes after it.  A missing or
  // unreadable file starts from what Observe is told.
  void Load();
  // A number found in a day file at load: the next number comes after it.
  void Observe(uint64_t id);
  // The next number (1 and up).  Reserves a new block first when the last one is used up.
  uint64_t Next();
  // The highest number handed out or observed so far (0: none).
  uint64_t last() const { return last_; }

 private:
  void Reserve();

  std::filesystem::path file_;
  uint64_t last_ = 0;
  uint64_t reserved_ = 0;  // numbers up to here may be handed out without a write
};

}  // namespace qx
