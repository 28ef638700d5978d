#include "propagation/propagation_history.h"

#include <fmt/format.h>

#include <algorithm>

#include "core/text_util.h"

namespace qx {
namespace {

int64_t Seconds(SysTime t) {
  return std::chrono::duration_cast<std::chrono::seconds>(t.time_since_epoch()).count();
}

}  // namespace

bool ExpiringKeys::Seen(const std::string& key, int64_t now) {
  std::erase_if(expiry_, [now](const auto& entry) { return entry.second <= now; });
  const auto [it, added] = expiry_.try_emplace(key, now + window_);
  return !added;
}

bool PropagationHistory::AddWwv(const WwvReport& r, SysTime now) {
  const std::string key = fmt::format("{}|{}|{}|{}|{}", r.hour, r.sfi, r.a, r.k, r.logger);
  if (wwv_keys_.Seen(key, Seconds(now))) return false;
  wwv_.Add(r);
  return true;
}

bool PropagationHistory::AddWcy(const WcyReport& r, SysTime now) {
  if (wcy_keys_.Seen(std::to_string(r.hour), Seconds(now))) return false;
  wcy_.Add(r);
  return true;
}

bool PropagationHistory::HasWwvFor(std::string_view date, int hour) const {
  for (const WwvReport* r : wwv_.Newest(wwv_.size())) {
    if (r->hour == hour && r->date == date) return true;
  }
  return false;
}

bool PropagationHistory::HasWwvBetween(SysTime from, SysTime to) const {
  for (const WwvReport* r : wwv_.Newest(wwv_.size())) {
    SysTime at;
    if (ReportTime(r->date, r->hour, at) && at >= from && at < to) return true;
  }
  return false;
}

bool ShowCount(std::string_view args, int default_count, int max_count, size_t& out) {
  args = Trim(args);
  long long n = default_count;
  if (!args.empty() && (!ParseInt(args, n) || n < 1)) return false;
  out = size_t(std::clamp<long long>(n, 1, std::max(1, max_count)));
  return true;
}

}  // namespace qx
