#include "spots/dx_command.h"

#include <cmath>

#include "core/text_util.h"

namespace qx {

bool IsReallyNumeric(std::string_view text) {
  int digits = 0;
  int separators = 0;
  for (char c : text) {
    if (c >= '0' && c <= '9') {
      ++digits;
    } else if (c == '.' || c == ',') {
      if (++separators > 1) return false;
    } else {
      return false;
    }
  }
  return digits > 0;
}

std::string CommaToDecimalPoint(std::string_view text) {
  std::string out(text);
  if (out.find('.') != std::string::npos) return out;
  const size_t comma = out.find(',');
  if (comma != std::string::npos) out[comma] = '.';
  return out;
}

size_t RoundedFrequencyText(double value, char* out) {
  // Hundredths as an integer so that the text never shows binary noise (14025.12 must not
  // come out as 14025.119999).
  long long hundredths = std::llround(value * 100.0);
  size_t n = 0;
  if (hundredths < 0) {
    out[n++] = '-';
    hundredths = -hundredths;
  }
  const unsigned long long whole = static_cast<unsigned long long>(hundredths / 100);
  const int frac = int(hundredths % 100);
  char digits[24];
  size_t k = 0;
  unsigned long long w = whole;
  do {
    digits[k++] = char('0' + w % 10);
    w /= 10;
  } while (w != 0);
  while (k > 0) out[n++] = digits[--k];
  if (frac != 0) {
    out[n++] = '.';
    out[n++] = char('0' + frac / 10);
    if (frac % 10 != 0) out[n++] = char('0' + frac % 10);
  }
  return n;
}

namespace {

constexpr std::string_view kCrLf = "\r\n";
// Frequencies from here on are no frequency of any band; refusing them also keeps the
// rounding to hundredths inside the range of a 64-bit integer.
constexpr double kHighestFrequencyKHz = 1e9;

DxCommandResult Reply(std::string_view a, std::string_view b = {}) {
  DxCommandResult r;
  r.text.reserve(a.size() + b.size() + 2);
  r.text += a;
  r.text += b;
  r.text += kCrLf;
  return r;
}

}  // namespace

DxCommandResult DxCommand(std::string_view line, std::string_view user_call,
                          std::string_view node_call, std::string_view user_ip, SysTime now) {
  // The line reaches every user as the spot's comment: control characters (a bell, an
  // escape sequence) are left out here even where the front-end did not remove them.
  std::string cleaned(line);
  StripControlChars(cleaned);
  const std::string_view typed = Trim(cleaned);
  const std::string collapsed = CollapseBlanks(typed);
  const std::vector<std::string_view> words = SplitLimit(collapsed, ' ', 4);
  if (words.size() < 3) return Reply("Error - ", typed);
  if (words[1].find(',') != std::string_view::npos ||
      words[2].find(',') != std::string_view::npos) {
    return Reply("Error - Commas not allowed");
  }
  // Numbers are read with "." whatever the host's locale, so the separator swap that a
  // locale-bound conversion would need is not done here.
  std::string_view freq_word;
  std::string_view call_word;
  if (IsReallyNumeric(words[1])) {
    freq_word = words[1];
    call_word = words[2];
  } else if (IsReallyNumeric(words[2])) {
    freq_word = words[2];
    call_word = words[1];
  } else {
    return Reply("Error - ", typed);
  }
  double value = 0;
  if (!ParseDouble(freq_word, value)) return Reply("Error - ", typed);
  value = std::round(value * 100.0) / 100.0;
  if (value < 130.0 || !(value < kHighestFrequencyKHz)) return Reply("Error - invalid frequency");

  char buf[40];
  size_t len = RoundedFrequencyText(value, buf);
  const std::string_view rounded(buf, len);
  const size_t point = rounded.find('.');
  if (point == std::string_view::npos) {
    buf[len++] = '.';
    buf[len++] = '0';
  } else if (len > point + 3) {
    len = point + 3;
  }
  const std::string_view freq_text(buf, len);

  std::string comment = words.size() > 3 ? std::string(Trim(words[3])) : std::string();
  if (comment.empty()) comment.assign(1, ' ');
  // "^" separates the sentence's fields; senders write it as "~" inside text.
  for (char& c : comment) {
    if (c == '^') c = '~';
  }

  DxCommandResult r;
  r.ok = true;
  std::string& s = r.text;
  s.reserve(96 + comment.size());
  s += "PC61^";
  s += freq_text;
  s += '^';
  s += ToUpper(call_word);
  s += '^';
  s += DateText(now);
  s += '^';
  s += TimeHHnnZ(now);
  s += '^';
  s += comment;
  s += '^';
  s += user_call;
  s += '^';
  s += node_call;
  s += '^';
  s += user_ip;
  s += "^H100^~";
  return r;
}

}  // namespace qx
