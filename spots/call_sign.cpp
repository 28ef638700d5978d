#include "spots/call_sign.h"

#include "core/text_util.h"
#include "spots/country.h"

namespace qx {
namespace {

bool IsLetter(char c) { return c >= 'A' && c <= 'Z'; }
bool IsDigit(char c) { return c >= '0' && c <= '9'; }
unsigned char Code(char c) { return static_cast<unsigned char>(c); }

// Position (0-based) from which a "-" counts as the SSID separator: the fourth character.
constexpr size_t kFirstSsidSeparator = 3;

// The shape of an ordinary amateur call: at most two letters before the first digit, a
// letter second when the first is a digit, a digit somewhere after the first character, a
// trailing digit only in a compound or SSID call, and an SSID of one or two digits.
bool ShapeValid(std::string_view call) {
  const size_t n = call.size();
  if (n < 3 || Code(call[0]) < '1' || Code(call[n - 1]) < '0') return false;
  if (!IsLetter(call[0]) && !IsLetter(call[1])) return false;

  const bool compound = call.find_first_of("/-") != std::string_view::npos;
  bool leading = true;
  int leading_letters = 0;
  bool has_digit = false;
  bool has_letter = false;
  bool seen_hyphen = false;
  for (size_t i = 0; i < n; ++i) {
    const char c = call[i];
    if (IsLetter(c)) {
      has_letter = true;
      if (leading && ++leading_letters >= 3) return false;
      continue;
    }
    leading = false;
    if (IsDigit(c)) {
      if (i > 0) has_digit = true;
      if (i == n - 1 && !compound) return false;
    } else if (c == '-') {
      if (seen_hyphen) return false;
      seen_hyphen = true;
      const size_t ssid_len = n - i - 1;
      if (i < kFirstSsidSeparator || ssid_len < 1 || ssid_len > 2) return false;
      for (size_t j = i + 1; j < n; ++j) {
        if (!IsDigit(call[j])) return false;
      }
    } else if (c != '/') {
      return false;
    }
  }
  return has_digit && has_letter;
}

// Two long parts that both resolve to the same country ("K1ABC/W1XYZ") are not a station
// operating away from home; log-in refuses them.
bool SameCountryCompound(std::string_view call, const CountryLookup& countries) {
  const size_t slash = call.find('/');
  if (slash == std::string_view::npos) return false;
  const std::string_view first = call.substr(0, slash);
  const std::string_view second = call.substr(slash + 1);
  if (second.find('/') != std::string_view::npos) return false;  // not exactly two parts
  if (first.size() <= 3 || second.size() <= 3) return false;
  const CountryInfo* a = countries.Find(first);
  const CountryInfo* b = countries.Find(second);
  return a != nullptr && b != nullptr && a->country == b->country;
}

}  // namespace

bool ValidCall(std::string& call, bool strict, const CallCheckContext& ctx) {
  if (call.empty()) return false;
  ToUpperInPlace(call);
  if (call[0] == 'Q') return false;
  if (Code(call[0]) < '1') return false;

  // The first character is not blank, so trimming only removes trailing blanks and line
  // ends.  Doing it before the list checks keeps "N0CALL\r\n" or a locked-out call with a
  // trailing blank from slipping past them.
  const std::string_view trimmed = Trim(call);
  if (trimmed.size() != call.size()) call.resize(trimmed.size());

  if (strict) {
    if (call.size() > kMaxLoginCallLength) return false;
    if (call.find("/Q") != std::string::npos) return false;
    if (call == "N0CALL") return false;
  }
  if (call.starts_with("ECHO")) return false;
  if (strict && ctx.locked_out != nullptr && IsLockedOut(call, *ctx.locked_out)) return true;

  if (call.find(' ') != std::string::npos) return false;
  if (call.empty()) return false;

  if (strict && !ctx.node_call.empty() && EqualsIgnoreCase(call, ctx.node_call)) return false;

  if (call.find('/') != std::string::npos) {
    // A command typed at the call prompt.
    if (call.starts_with("SHOW/") || call.starts_with("SH/")) return false;
    if (strict && ctx.countries != nullptr && SameCountryCompound(call, *ctx.countries)) {
      if (ctx.on_bad_compound != nullptr) ctx.on_bad_compound(ctx.on_bad_compound_user, call);
      return false;
    }
  }

  if (ctx.special_calls != nullptr && ctx.special_calls->contains(call)) return true;

  return ShapeValid(call);
}

std::string_view BaseCall(std::string_view call) {
  if (call.size() <= kFirstSsidSeparator) return call;
  const size_t hyphen = call.find('-', kFirstSsidSeparator);
  return hyphen == std::string_view::npos ? call : call.substr(0, hyphen);
}

bool MatchAbbrev(std::string_view keyword, size_t min_len, std::string_view typed) {
  if (typed.size() < min_len || typed.size() > keyword.size()) return false;
  return EqualsIgnoreCase(keyword.substr(0, typed.size()), typed);
}

std::string_view StripTelnetPrefix(std::string_view line) {
  for (size_t i = 0; i < line.size(); ++i) {
    const unsigned char c = Code(line[i]);
    if (c >= 49 && c < 240) return line.substr(i);
  }
  return {};
}

bool IsLockedOut(std::string_view call, const std::unordered_set<std::string>& locked_out) {
  if (locked_out.empty()) return false;
  std::string key(BaseCall(call));  // short calls stay in the string's own buffer
  ToUpperInPlace(key);
  return locked_out.contains(key);
}

}  // namespace qx
