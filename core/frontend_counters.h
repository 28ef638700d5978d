// The front-end's counters as the node keeps them.  The front-end sends
// "AA20^<name>=<value>^<name>=<value>..." every few seconds; the node keeps the last value of
// every name, also of names it does not know (a newer front-end may count more), and shows
// them on /metrics.  Names ending in "_total" are counters, the others gauges.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <string_view>

namespace qx {

class FrontendCounterValues {
 public:
  // More names than this are not taken on, so a confused front-end cannot grow the table.
  static constexpr size_t kMaxNames = 100;
  static constexpr size_t kMaxNameLength = 64;

  // Takes the values of one "AA20" record.  Returns how many pairs could not be used (no
  // "=", a name other than a-z, 0-9 and "_", a value that is not a whole number, or a new
  // name past kMaxNames); the others are kept.
  size_t Take(std::string_view record);

  const std::map<std::string, uint64_t, std::less<>>& values() const { return values_; }

 private:
  std::map<std::string, uint64_t, std::less<>> values_;
};

}  // namespace qx
