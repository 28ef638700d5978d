#include "node/pc9x_time.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <vector>

#include "core/text_util.h"

namespace qx {

Pc9xTimeCheck::Verdict Pc9xTimeCheck::Check(std::string_view origin, std::string_view stamp,
                                            int now_seconds_of_day, bool is_pc92) {
  if (is_pc92 && origin == our_call_) return Verdict::kOwnOrigin;
  double t = 0;
  if (!ParseDouble(stamp, t) || !(t >= 0) || !(t < kDay)) return Verdict::kBadStamp;

  double skew = std::fabs(t - now_seconds_of_day);
  if (skew > kDay / 2) skew = kDay - skew;
  if (skew > kMaxSkew) return Verdict::kClockSkew;

  auto it = last_.find(std::string(origin));
  if (it != last_.end()) {
    const double last = it->second.stamp;
    if (t > last) {
      // Just before the last one, yesterday: "t" sits shortly before midnight while the last
      // accepted stamp came shortly after it.
      if (last + kDay - t < kWrapWindow) return Verdict::kNotNewer;
    } else {
      // Smaller (or equal): only a new day when the step forward across midnight is short.
      if (t + kDay - last >= kWrapWindow) return Verdict::kNotNewer;
    }
    it->second = Heard{t, ++accepts_};
  } else {
    if (last_.size() >= kMaxOrigins) EvictOldest();
    last_.emplace(std::string(origin), Heard{t, ++accepts_});
  }
  return Verdict::kAccept;
}

void Pc9xTimeCheck::EvictOldest() {
  std::vector<uint64_t> used;
  used.reserve(last_.size());
  for (const auto& [origin, l] : last_) used.push_back(l.used);
  const auto quarter = used.begin() + static_cast<std::ptrdiff_t>(used.size() / 4);
  std::nth_element(used.begin(), quarter, used.end());
  const uint64_t limit = *quarter;
  std::erase_if(last_, [limit](const auto& e) { return e.second.used <= limit; });
}

double Pc9xTimeCheck::Last(std::string_view origin) const {
  auto it = last_.find(std::string(origin));
  return it == last_.end() ? -1 : it->second.stamp;
}

void Pc9xTimeCheck::Remember(std::string_view origin, double stamp) {
  if (!(stamp >= 0) || !(stamp < kDay) || origin == our_call_) return;
  auto it = last_.find(std::string(origin));
  if (it != last_.end()) return;  // heard since the restart: that one is newer
  if (last_.size() >= kMaxOrigins) EvictOldest();
  last_.emplace(std::string(origin), Heard{stamp, ++accepts_});
}

std::vector<std::pair<std::string, double>> Pc9xTimeCheck::Entries() const {
  std::vector<std::pair<std::string, double>> out;
  out.reserve(last_.size());
  for (const auto& [origin, heard] : last_) out.emplace_back(origin, heard.stamp);
  return out;
}

std::string Pc9xStampGenerator::Last() const {
  if (second_ < 0) return {};
  if (counter_ == 0) return std::to_string(second_);
  char buf[24];
  std::snprintf(buf, sizeof buf, "%d.%02d", second_, counter_);
  return buf;
}

void Pc9xStampGenerator::ResumeAfter(std::string_view stamp) {
  const size_t dot = stamp.find('.');
  long long second = 0, counter = 0;
  if (!ParseInt(stamp.substr(0, dot), second) || second < 0 || second >= 86400) return;
  if (dot != std::string_view::npos && !ParseInt(stamp.substr(dot + 1), counter)) return;
  if (counter < 0 || counter > 99) return;
  second_ = int(second);
  counter_ = int(counter);
}

std::string Pc9xStampGenerator::Next(int now_seconds_of_day) {
  int s = now_seconds_of_day;
  // Never go back within the day (a clock step) and never reuse a stamp: stay on the last
  // second and count on.
  const bool same_day_back = second_ >= 0 && s < second_ && second_ - s < 137 * 60;
  if (s == second_ || same_day_back) {
    s = second_;
    if (++counter_ > 99) {
      s = (second_ + 1) % 86400;
      counter_ = 0;
    }
  } else {
    counter_ = 0;
  }
  second_ = s;
  if (counter_ == 0) return std::to_string(s);
  char buf[24];
  std::snprintf(buf, sizeof buf, "%d.%02d", s, counter_);
  return buf;
}

}  // namespace qx
