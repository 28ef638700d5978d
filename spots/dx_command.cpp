#include "spots/dx_command.h"

#include <cmath>
#include <cstdio>

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
  const long long hundredths = std::llround(value * 100.0);
  const long long whole = hundredths / 100;
  const int frac = int(hundredths % 100);
  int n = 0;
  if (frac == 0) {
    n = std::snprintf(out, 32, "%lld", whole);
  } else if (frac % 10 == 0) {
    n = std::snprintf(out, 32, "%lld.%d", whole, frac / 10);
  } else {
    n = std::snprintf(out, 32, "%lld.%02d", whole, frac);
  }
  return n > 0 ? size_t(n) : 0;
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
  const std::string_view typed = Trim(line);
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

  char buf[32];
  std::string freq_text(buf, RoundedFrequencyText(value, buf));
  const size_t point = freq_text.find('.');
  if (point == std::string::npos) {
    freq_text += ".0";
  } else if (freq_text.size() > point + 3) {
    freq_text.resize(point + 3);
  }

  std::string comment = words.size() > 3 ? std::string(Trim(words[3])) : std::string();
  if (comment.empty()) comment = " ";
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
