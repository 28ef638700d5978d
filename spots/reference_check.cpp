#include "spots/reference_check.h"

#include "core/text_util.h"
#include "spots/call_sign.h"

namespace qx {

std::string CheckCountryFile(std::string_view text, size_t min_countries, CountryLookup* out) {
  CountryLookup lookup;
  if (!lookup.LoadText(text)) return "not a country file: no country line reads";
  if (lookup.country_count() < min_countries) {
    return "only " + std::to_string(lookup.country_count()) + " countries, fewer than " +
           std::to_string(min_countries);
  }
  if (lookup.skipped_count() > lookup.country_count()) {
    return "not a country file: " + std::to_string(lookup.skipped_count()) +
           " malformed lines and entries";
  }
  if (out) *out = std::move(lookup);
  return {};
}

std::string CheckCallFile(std::string_view text, size_t* calls) {
  static const CallCheckContext kNoLists;
  size_t good = 0, bad = 0;
  std::string call;
  for (std::string_view line : SplitLines(text)) {
    line = Trim(line);
    if (line.empty() || line.front() == '#') continue;
    call.assign(line);
    if (line.find_first_of(" \t") == std::string_view::npos &&
        ValidCall(call, /*strict=*/false, kNoLists)) {
      ++good;
    } else {
      ++bad;
    }
  }
  if (calls) *calls = good;
  if (good == 0) return "not a list of calls: no line holds a call";
  if (bad * 10 > good + bad) {
    return "not a list of calls: " + std::to_string(bad) + " of " + std::to_string(good + bad) +
           " lines are no call";
  }
  return {};
}

}  // namespace qx
