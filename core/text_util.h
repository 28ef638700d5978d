// Small text helpers used everywhere; kept here so each rule has one home.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace qx {

// Splits on a single character; empty fields are kept ("a^^b" gives three fields).
std::vector<std::string_view> Split(std::string_view text, char sep);
// Splits into out (cleared first) without allocating when out has capacity.
void SplitInto(std::string_view text, char sep, std::vector<std::string_view>& out);
// Splits on sep into at most max_parts; the last part holds the rest, separators included.
std::vector<std::string_view> SplitLimit(std::string_view text, char sep, size_t max_parts);
// Splits on CR LF (also lone CR or LF); a trailing line end gives no empty last line.
std::vector<std::string_view> SplitLines(std::string_view text);

std::string ToUpper(std::string_view text);
void ToUpperInPlace(std::string& text);
bool EqualsIgnoreCase(std::string_view a, std::string_view b);
bool StartsWithIgnoreCase(std::string_view text, std::string_view prefix);
bool ContainsIgnoreCase(std::string_view text, std::string_view word);
std::string_view Trim(std::string_view text);  // blanks, tabs, CR, LF
// Control characters: the bytes below 32 and DEL (127).  Text from another node or typed by a
// user must not carry them to a terminal (BEL, ESC sequences, backspace) nor into the link to
// the front-end, whose messages end with Chr 4.
inline bool IsControlChar(char c) {
  return static_cast<unsigned char>(c) < 32 || static_cast<unsigned char>(c) == 127;
}
// Removes every control character from text in place and returns how many were removed.
// Text without any is only scanned: nothing is moved or allocated.
size_t StripControlChars(std::string& text);
std::string Join(const std::vector<std::string_view>& parts, std::string_view sep);
std::string Join(const std::vector<std::string>& parts, std::string_view sep);
// Replaces runs of two or more blanks by one blank.
std::string CollapseBlanks(std::string_view text);
// Locale-independent parse of a whole decimal integer (optional sign); false on any junk.
bool ParseInt(std::string_view text, long long& out);
int ParseIntOr(std::string_view text, int fallback);
// Locale-independent parse of a decimal number with "." as separator.
bool ParseDouble(std::string_view text, double& out);

}  // namespace qx
