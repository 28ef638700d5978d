// Remembers what was relayed recently so that a ring of nodes delivers every sentence once.
// Bounded: when full, the oldest keys go first, whatever their lifetime.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>
#include <string_view>
#include <unordered_map>

namespace qx {

class RelayDupCache {
 public:
  static constexpr int64_t kLegacyWindow = 60;           // line minus hop field
  static constexpr int64_t kPc41Window = 18 * 3600;      // call + type
  static constexpr int64_t kPc93Window = 45;             // from | text | origin
  static constexpr int64_t kAnnounceWindow = 18 * 3600;  // from | to | text start

  explicit RelayDupCache(size_t capacity = 50000) : capacity_(capacity) {}

  // Each returns true when the key was seen within its window (a duplicate); otherwise it
  // records the key and returns false.  now is in seconds on any steady scale.
  bool SeenLegacy(std::string_view line, int64_t now);
  bool SeenPc41(std::string_view call, std::string_view type, int64_t now);
  bool SeenPc93(std::string_view from, std::string_view text, std::string_view origin, int64_t now);
  // Announcements: from, to and the first 30 letters and digits of the text.
  bool SeenAnnounce(std::string_view from, std::string_view to, std::string_view text, int64_t now);
  bool Seen(std::string key, int64_t window, int64_t now);

  size_t size() const { return expiry_.size(); }

  // The line without its hop field (the last non-empty field when it is "H" and digits) and
  // without line ends: two copies of one sentence with different hops give the same key.
  static std::string LegacyKey(std::string_view line);

 private:
  void Evict(int64_t now);

  size_t capacity_;
  std::unordered_map<std::string, int64_t> expiry_;
  std::deque<std::pair<std::string, int64_t>> order_;  // insertion order with expiry
};

}  // namespace qx
