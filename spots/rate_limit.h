// Spot-rate limits: at most so many spots a minute in all, per DX call and per spotter
// (NewMaxSpotsPerMin, NewMaxSpotsPerMinPerDx, NewMaxSpotsPerMinPerSpotter; 0 = no limit).
// The highest rates seen (HighestSpotsPerMin...) are kept up to date here; the caller saves
// them to the configuration when highest_changed() says so.
#pragma once

#include <cstdint>
#include <memory_resource>
#include <string_view>
#include <unordered_map>

#include "core/time_text.h"

namespace qx {

struct SpotRates {
  int per_minute = 0;
  int per_dx = 0;
  int per_spotter = 0;
};

enum class RateVerdict : uint8_t { kAdmitted, kTooManySpots, kTooManyForDx, kTooManyBySpotter };

class SpotRateLimiter {
 public:
  explicit SpotRateLimiter(SpotRates limits = {}, SpotRates highest = {});

  // Counts the spot in the current minute (UTC clock minute) and says whether it may pass.
  RateVerdict Admit(std::string_view dx_call, std::string_view spotter, SysTime now);

  void set_limits(SpotRates limits) { limits_ = limits; }
  const SpotRates& limits() const { return limits_; }
  const SpotRates& highest() const { return highest_; }
  // True once after a highest rate rose; the caller then saves highest().
  bool TakeHighestChanged();

 private:
  void Raise(int& highest, int count);

  SpotRates limits_;
  SpotRates highest_;
  bool highest_changed_ = false;
  int64_t minute_ = -1;
  int total_ = 0;
  std::pmr::unsynchronized_pool_resource pool_;
  std::pmr::unordered_map<uint64_t, int> per_dx_;
  std::pmr::unordered_map<uint64_t, int> per_spotter_;
};

}  // namespace qx
