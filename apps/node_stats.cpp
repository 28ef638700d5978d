#include "apps/node_stats.h"

#include <algorithm>

namespace qx {

int64_t NodeStats::MinuteOf(SysTime t) {
  return std::chrono::duration_cast<std::chrono::minutes>(t.time_since_epoch()).count();
}

void NodeStats::Roll(int64_t minute) {
  if (last_minute_ < 0) {
    last_minute_ = minute;
    return;
  }
  if (minute <= last_minute_) return;
  const int64_t steps = std::min<int64_t>(minute - last_minute_, int64_t(kMinutesKept));
  for (int64_t i = 1; i <= steps; ++i) {
    per_minute_[size_t((last_minute_ + i) % int64_t(kMinutesKept))] = 0;
  }
  last_minute_ = minute;
}

void NodeStats::SpotIn(std::string_view source, SysTime now) {
  const int64_t minute = MinuteOf(now);
  Roll(minute);
  int& slot = per_minute_[size_t(minute % int64_t(kMinutesKept))];
  ++slot;
  highest_per_minute_ = std::max(highest_per_minute_, slot);
  ++spots_in_[std::string(source)];
}

void NodeStats::Delay(std::chrono::nanoseconds d) {
  const double s = std::chrono::duration<double>(d).count();
  for (size_t i = 0; i < kDelayBounds.size(); ++i) {
    if (s <= kDelayBounds[i]) ++delay_buckets_[i];
  }
  ++delay_count_;
  delay_sum_ += s;
}

int NodeStats::SpotsThisMinute(SysTime now) const {
  const int64_t minute = MinuteOf(now);
  if (minute != last_minute_) return 0;
  return per_minute_[size_t(minute % int64_t(kMinutesKept))];
}

std::vector<int> NodeStats::History(SysTime now) const {
  const int64_t minute = MinuteOf(now);
  std::vector<int> out(kMinutesKept, 0);
  if (last_minute_ < 0) return out;
  for (size_t i = 0; i < kMinutesKept; ++i) {
    const int64_t m = minute - int64_t(kMinutesKept) + 1 + int64_t(i);
    if (m > last_minute_ || m <= last_minute_ - int64_t(kMinutesKept)) continue;
    out[i] = per_minute_[size_t(m % int64_t(kMinutesKept))];
  }
  return out;
}

}  // namespace qx
