// Call sign rules shared by log-in, spot intake and the node network: the validity test,
// the base call, the abbreviation rule of command words, and the telnet prefix strip.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <unordered_set>

namespace qx {

class CountryLookup;

// The longest call that log-in accepts.
inline constexpr size_t kMaxLoginCallLength = 30;

// What ValidCall consults besides the call itself.  Any pointer may be null (no list).
struct CallCheckContext {
  const std::unordered_set<std::string>* special_calls = nullptr;  // upper case, exact
  const std::unordered_set<std::string>* locked_out = nullptr;     // base calls, upper case
  const CountryLookup* countries = nullptr;
  std::string_view node_call;
  // Called with the call when the cross-country compound rule refuses it (the caller logs
  // "Bad UserCallsign = " with the call and the date).
  void (*on_bad_compound)(void* user, std::string_view call) = nullptr;
  void* on_bad_compound_user = nullptr;
};

// The call-sign validity test.  Upper-cases, trims and strips line ends from call in place.
// strict is true at log-in; with strict false the checks that only log-in needs are skipped
// (length, "/Q", N0CALL, the locked-out pass, the node's own call, the compound-call
// country test).  A call on the locked-out list counts as valid in strict mode so that
// log-in refuses it as locked out rather than as a bad call.
bool ValidCall(std::string& call, bool strict, const CallCheckContext& ctx);

// The call without its SSID: the text before the first "-" at position 4 or later
// (1-based), the whole call when there is none.  "K1ABC-5" gives "K1ABC"; "K1-5" stays.
std::string_view BaseCall(std::string_view call);

// True when typed is at least min_len long, not longer than keyword, and equal (ignoring
// case) to that many leading characters of keyword.
bool MatchAbbrev(std::string_view keyword, size_t min_len, std::string_view typed);

// The line from its first character whose code is at least 49 and below 240; empty when
// there is none.
std::string_view StripTelnetPrefix(std::string_view line);

// True when BaseCall(call) equals a locked-out entry, ignoring case.  The entries must be
// held in upper case (the call may be in any case).
bool IsLockedOut(std::string_view call, const std::unordered_set<std::string>& locked_out);

}  // namespace qx
