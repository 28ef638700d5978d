// Counters the sysop reads in the console and in /metrics.  Updated on the node's thread;
// reading them costs nothing on the spot path.
#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "core/time_text.h"

namespace qx {

class NodeStats {
 public:
  static constexpr size_t kMinutesKept = 6 * 60;
  // Upper bounds of the spot delivery delay histogram, in seconds.
  static constexpr std::array<double, 8> kDelayBounds = {0.0001, 0.0005, 0.001, 0.005,
                                                         0.01,   0.05,   0.1,   1.0};

  void SpotIn(std::string_view source, SysTime now);
  void SpotRefused(std::string_view reason) { ++refusals_[std::string(reason)]; }
  void LinesOut(std::string_view source, uint64_t lines) {
    spots_out_[std::string(source)] += lines;
  }
  // Spots a user's filters held back (one per user and spot), by source.
  void Filtered(std::string_view source, uint64_t users) {
    if (users) spots_filtered_[std::string(source)] += users;
  }
  void Delay(std::chrono::nanoseconds d);

  int SpotsThisMinute(SysTime now) const;
  int highest_per_minute() const { return highest_per_minute_; }
  // Spots per minute for the kept minutes, oldest first, ending with the current one.
  std::vector<int> History(SysTime now) const;

  const std::map<std::string, uint64_t>& refusals() const { return refusals_; }
  const std::map<std::string, uint64_t>& spots_in() const { return spots_in_; }
  const std::map<std::string, uint64_t>& spots_out() const { return spots_out_; }
  const std::map<std::string, uint64_t>& spots_filtered() const { return spots_filtered_; }
  const std::array<uint64_t, kDelayBounds.size()>& delay_buckets() const { return delay_buckets_; }
  uint64_t delay_count() const { return delay_count_; }
  double delay_sum_seconds() const { return delay_sum_; }

 private:
  static int64_t MinuteOf(SysTime t);
  void Roll(int64_t minute);

  std::array<int, kMinutesKept> per_minute_{};
  int64_t last_minute_ = -1;
  int highest_per_minute_ = 0;
  std::map<std::string, uint64_t> refusals_;
  std::map<std::string, uint64_t> spots_in_;
  std::map<std::string, uint64_t> spots_out_;
  std::map<std::string, uint64_t> spots_filtered_;
  std::array<uint64_t, kDelayBounds.size()> delay_buckets_{};
  uint64_t delay_count_ = 0;
  double delay_sum_ = 0;
};

}  // namespace qx
