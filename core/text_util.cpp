#include "core/text_util.h"

#include <cctype>
#include <charconv>

namespace qx {

std::vector<std::string_view> Split(std::string_view text, char sep) {
  std::vector<std::string_view> out;
  SplitInto(text, sep, out);
  return out;
}

void SplitInto(std::string_view text, char sep, std::vector<std::string_view>& out) {
  out.clear();
  size_t start = 0;
  while (true) {
    const size_t pos = text.find(sep, start);
    if (pos == std::string_view::npos) {
      out.push_back(text.substr(start));
      return;
    }
    out.push_back(text.substr(start, pos - start));
    start = pos + 1;
  }
}

size_t StripControlChars(std::string& text) {
  size_t out = 0;
  const size_t n = text.size();
  while (out < n && !IsControlChar(text[out])) ++out;
  if (out == n) return 0;
  for (size_t in = out + 1; in < n; ++in) {
    if (!IsControlChar(text[in])) text[out++] = text[in];
  }
  text.resize(out);
  return n - out;
}

std::vector<std::string_view> SplitLimit(std::string_view text, char sep, size_t max_parts) {
  std::vector<std::string_view> out;
  size_t start = 0;
  while (out.size() + 1 < max_parts) {
    const size_t pos = text.find(sep, start);
    if (pos == std::string_view::npos) break;
    out.push_back(text.substr(start, pos - start));
    start = pos + 1;
  }
  out.push_back(text.substr(start));
  return out;
}

std::vector<std::string_view> SplitLines(std::string_view text) {
  std::vector<std::string_view> out;
  size_t start = 0;
  size_t i = 0;
  while (i < text.size()) {
    const char c = text[i];
    if (c == '\r' || c == '\n') {
      out.push_back(text.substr(start, i - start));
      if (c == '\r' && i + 1 < text.size() && text[i + 1] == '\n') ++i;
      start = i + 1;
    }
    ++i;
  }
  if (start < text.size()) out.push_back(text.substr(start));
  return out;
}

std::string ToUpper(std::string_view text) {
  std::string s(text);
  ToUpperInPlace(s);
  return s;
}

void ToUpperInPlace(std::string& text) {
  for (char& c : text) {
    if (c >= 'a' && c <= 'z') c = char(c - 'a' + 'A');
  }
}

bool EqualsIgnoreCase(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i) {
    if (std::toupper(static_cast<unsigned char>(a[i])) !=
        std::toupper(static_cast<unsigned char>(b[i]))) {
      return false;
    }
  }
  return true;
}

bool StartsWithIgnoreCase(std::string_view text, std::string_view prefix) {
  return text.size() >= prefix.size() && EqualsIgnoreCase(text.substr(0, prefix.size()), prefix);
}

bool ContainsIgnoreCase(std::string_view text, std::string_view word) {
  if (word.size() > text.size()) return false;
  for (size_t i = 0; i + word.size() <= text.size(); ++i) {
    if (EqualsIgnoreCase(text.substr(i, word.size()), word)) return true;
  }
  return false;
}

std::string_view Trim(std::string_view text) {
  const auto blank = [](char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; };
  while (!text.empty() && blank(text.front())) text.remove_prefix(1);
  while (!text.empty() && blank(text.back())) text.remove_suffix(1);
  return text;
}

std::string Join(const std::vector<std::string_view>& parts, std::string_view sep) {
  std::string out;
  for (size_t i = 0; i < parts.size(); ++i) {
    if (i) out += sep;
    out += parts[i];
  }
  return out;
}

std::string Join(const std::vector<std::string>& parts, std::string_view sep) {
  std::string out;
  for (size_t i = 0; i < parts.size(); ++i) {
    if (i) out += sep;
    out += parts[i];
  }
  return out;
}

std::string CollapseBlanks(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (char c : text) {
    if (c == ' ' && !out.empty() && out.back() == ' ') continue;
    out.push_back(c);
  }
  return out;
}

bool ParseInt(std::string_view text, long long& out) {
  if (!text.empty() && text.front() == '+') text.remove_prefix(1);
  if (text.empty()) return false;
  const auto [ptr, ec] = std::from_chars(text.data(), text.data() + text.size(), out);
  return ec == std::errc() && ptr == text.data() + text.size();
}

int ParseIntOr(std::string_view text, int fallback) {
  long long v = 0;
  if (!ParseInt(Trim(text), v) || v < INT32_MIN || v > INT32_MAX) return fallback;
  return int(v);
}

bool ParseDouble(std::string_view text, double& out) {
  if (!text.empty() && text.front() == '+') text.remove_prefix(1);
  if (text.empty()) return false;
  const auto [ptr, ec] =
      std::from_chars(text.data(), text.data() + text.size(), out, std::chars_format::fixed);
  return ec == std::errc() && ptr == text.data() + text.size();
}

}  // namespace qx
