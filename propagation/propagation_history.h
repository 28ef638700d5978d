// The WWV and WCY histories: what SHOW/WWV and SHOW/WCY list, and the memory that keeps a
// report that comes in again (over a second link, or entered twice) from being shown and
// passed on twice.  Pure: time comes in.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <string>
#include <vector>

#include "core/time_text.h"
#include "propagation/propagation_report.h"

namespace qx {

// Keys remembered for a while; each Seen() also forgets the keys that expired.
class ExpiringKeys {
 public:
  explicit ExpiringKeys(int64_t window_seconds) : window_(window_seconds) {}
  // True when key was seen within the window; otherwise it is remembered from now.
  bool Seen(const std::string& key, int64_t now);
  size_t size() const { return expiry_.size(); }

 private:
  int64_t window_;
  std::map<std::string, int64_t> expiry_;
};

// A WWV is the same report when its hour, figures and logger are: the same figures from a
// second logger are a second opinion and shown.  A WCY comes from one service, once an hour.
inline constexpr int64_t kWwvRepeatWindow = 12 * 3600;
inline constexpr int64_t kWcyRepeatWindow = 12 * 3600;

template <typename Report>
class ReportHistory {
 public:
  explicit ReportHistory(size_t capacity) : capacity_(capacity) {}
  void Add(const Report& r) {
    reports_.push_back(r);
    if (reports_.size() > capacity_) reports_.pop_front();
  }
  // Newest first, at most count.
  std::vector<const Report*> Newest(size_t count) const {
    std::vector<const Report*> out;
    for (auto it = reports_.rbegin(); it != reports_.rend() && out.size() < count; ++it) {
      out.push_back(&*it);
    }
    return out;
  }
  size_t size() const { return reports_.size(); }

 private:
  size_t capacity_;
  std::deque<Report> reports_;
};

inline constexpr size_t kPropagationHistorySize = 500;

class PropagationHistory {
 public:
  PropagationHistory() = default;

  // Keeps a received or entered report unless it is a repeat.  True when it is new.
  bool AddWwv(const WwvReport& r, SysTime now);
  bool AddWcy(const WcyReport& r, SysTime now);
  // Whether the network already carried a WWV for this date and hour (any logger).
  bool HasWwvFor(std::string_view date, int hour) const;
  // Whether any WWV stands for a time in [from, to).
  bool HasWwvBetween(SysTime from, SysTime to) const;

  const ReportHistory<WwvReport>& wwv() const { return wwv_; }
  const ReportHistory<WcyReport>& wcy() const { return wcy_; }

 private:
  ReportHistory<WwvReport> wwv_{kPropagationHistorySize};
  ReportHistory<WcyReport> wcy_{kPropagationHistorySize};
  ExpiringKeys wwv_keys_{kWwvRepeatWindow};
  ExpiringKeys wcy_keys_{kWcyRepeatWindow};
};

// The SHOW/WWV and SHOW/WCY argument: empty gives the default count, a number up to the
// maximum; anything else is an error (false).
bool ShowCount(std::string_view args, int default_count, int max_count, size_t& out);

}  // namespace qx
