#include "spots/rate_limit.h"

#include "spots/bad_lists.h"

#include <chrono>
#include <functional>

namespace qx {

SpotRateLimiter::SpotRateLimiter(SpotRates limits, SpotRates highest)
    : limits_(limits), highest_(highest), per_dx_(&pool_), per_spotter_(&pool_) {}

bool SpotRateLimiter::TakeHighestChanged() {
  const bool changed = highest_changed_;
  highest_changed_ = false;
  return changed;
}

void SpotRateLimiter::Raise(int& highest, int count) {
  if (count > highest) {
    highest = count;
    highest_changed_ = true;
  }
}

RateVerdict SpotRateLimiter::Admit(std::string_view dx_call, std::string_view spotter,
                                   SysTime now) {
  const int64_t minute =
      std::chrono::duration_cast<std::chrono::minutes>(now.time_since_epoch()).count();
  if (minute != minute_) {
    minute_ = minute;
    total_ = 0;
    per_dx_.clear();  // nodes go back to the pool
    per_spotter_.clear();
  }
  // Every spot offered counts: the highest rates show what arrived, not what was let through.
  const int total = ++total_;
  const int dx = ++per_dx_[HashShortText(dx_call)];
  const int by_spotter = ++per_spotter_[HashShortText(spotter)];
  Raise(highest_.per_minute, total);
  Raise(highest_.per_dx, dx);
  Raise(highest_.per_spotter, by_spotter);
  if (limits_.per_minute > 0 && total > limits_.per_minute) return RateVerdict::kTooManySpots;
  if (limits_.per_dx > 0 && dx > limits_.per_dx) return RateVerdict::kTooManyForDx;
  if (limits_.per_spotter > 0 && by_spotter > limits_.per_spotter) {
    return RateVerdict::kTooManyBySpotter;
  }
  return RateVerdict::kAdmitted;
}

}  // namespace qx
