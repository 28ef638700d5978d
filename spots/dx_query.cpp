#include "spots/dx_query.h"

#include <algorithm>
#include <vector>

#include "core/text_util.h"
#include "spots/bands.h"

namespace qx {
namespace {

// Letters, digits and "/", with at least one letter or digit; a trailing "*" is allowed.
bool CallOrPrefix(std::string_view word) {
  if (word.ends_with('*')) word.remove_suffix(1);
  if (word.empty() || word.size() > 20) return false;
  bool alnum = false;
  for (const char c : word) {
    const bool letter = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
    const bool digit = c >= '0' && c <= '9';
    if (!letter && !digit && c != '/') return false;
    alnum = alnum || letter || digit;
  }
  return alnum;
}

bool Fail(std::string* error, std::string text) {
  if (error) *error = std::move(text);
  return false;
}

}  // namespace

bool ParseShowDx(std::string_view args, const BandTable& bands, size_t default_count,
                 size_t max_count, ShowDxRequest& out, std::string* error) {
  ShowDxRequest r;
  r.query.count = default_count;
  bool have_count = false;
  std::vector<std::string_view> words;
  for (std::string_view w : Split(Trim(args), ' ')) {
    if (!w.empty()) words.push_back(w);
  }
  for (size_t i = 0; i < words.size(); ++i) {
    const std::string_view w = words[i];
    const bool has_next = i + 1 < words.size();
    long long n = 0;
    if (EqualsIgnoreCase(w, "ALL")) {
      if (r.all) return Fail(error, "ALL given twice");
      r.all = true;
    } else if (EqualsIgnoreCase(w, "ON")) {
      if (!has_next) return Fail(error, "ON needs a band");
      const uint32_t bit = bands.BitByName(words[++i]);
      if (bit == 0) return Fail(error, "no band " + std::string(words[i]));
      if (r.query.band_bit != 0) return Fail(error, "one band only");
      r.query.band_bit = bit;
    } else if (EqualsIgnoreCase(w, "BY")) {
      if (!has_next || !CallOrPrefix(words[i + 1]) || words[i + 1].ends_with('*')) {
        return Fail(error, "BY needs a spotter's call");
      }
      if (!r.query.spotter.empty()) return Fail(error, "one spotter only");
      r.query.spotter = ToUpper(words[++i]);
    } else if (EqualsIgnoreCase(w, "DAY")) {
      if (!has_next || !ParseInt(words[i + 1], n) || n < 0 || n > kMaxShowDxDays) {
        return Fail(error, "DAY needs a number of days back (0 to 366)");
      }
      if (r.day >= 0) return Fail(error, "one day only");
      r.day = int(n);
      ++i;
    } else if (EqualsIgnoreCase(w, "INFO")) {
      if (!has_next) return Fail(error, "INFO needs a text");
      if (!r.query.info.empty()) return Fail(error, "one INFO text only");
      r.query.info = std::string(words[++i]);
    } else if (ParseInt(w, n)) {
      if (n < 1) return Fail(error, "the count must be 1 or more");
      if (have_count) return Fail(error, "one count only");
      have_count = true;
      r.query.count = size_t(std::min<long long>(n, 1'000'000));
    } else if (const uint32_t bit = bands.BitByName(w); bit != 0) {
      if (r.query.band_bit != 0) return Fail(error, "one band only");
      r.query.band_bit = bit;
    } else if (CallOrPrefix(w)) {
      if (!r.query.call.empty()) return Fail(error, "one call or prefix only");
      r.query.call = ToUpper(w);
      if (!r.query.call.ends_with('*')) r.query.call += '*';
    } else {
      return Fail(error, "not understood: " + std::string(w));
    }
  }
  r.query.count = std::clamp<size_t>(r.query.count, 1, std::max<size_t>(1, max_count));
  out = std::move(r);
  return true;
}

}  // namespace qx
