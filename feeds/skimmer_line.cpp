#include "feeds/skimmer_line.h"

#include <algorithm>
#include <array>
#include <cstdio>

namespace qx {

namespace {

bool IsDigit(char c) { return c >= '0' && c <= '9'; }
bool IsAlpha(char c) { return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z'); }
char Upper(char c) { return (c >= 'a' && c <= 'z') ? char(c - 'a' + 'A') : c; }

bool EqualsUpper(std::string_view text, std::string_view upper) {
  if (text.size() != upper.size()) return false;
  for (size_t i = 0; i < text.size(); ++i) {
    if (Upper(text[i]) != upper[i]) return false;
  }
  return true;
}

// Words of the rest of the line; blanks and tabs separate them.
class Words {
 public:
  explicit Words(std::string_view text) : text_(text) {}
  bool Next(std::string_view& word) {
    while (pos_ < text_.size() && (text_[pos_] == ' ' || text_[pos_] == '\t')) ++pos_;
    if (pos_ >= text_.size()) return false;
    const size_t start = pos_;
    while (pos_ < text_.size() && text_[pos_] != ' ' && text_[pos_] != '\t') ++pos_;
    word = text_.substr(start, pos_ - start);
    return true;
  }

 private:
  std::string_view text_;
  size_t pos_ = 0;
};

// A whole signed decimal integer of at most four digits.
bool SmallInt(std::string_view text, int& out) {
  bool negative = false;
  if (!text.empty() && (text.front() == '-' || text.front() == '+')) {
    negative = text.front() == '-';
    text.remove_prefix(1);
  }
  if (text.empty() || text.size() > 4) return false;
  int v = 0;
  for (char c : text) {
    if (!IsDigit(c)) return false;
    v = v * 10 + (c - '0');
  }
  out = negative ? -v : v;
  return true;
}

// "14025.1", "14025.12", "1840": digits with at most one point, at most two decimals after
// it being what feeds send (more are accepted and kept in the text).
bool Frequency(std::string_view text, double& khz) {
  if (text.empty() || text.size() > 12) return false;
  double whole = 0;
  double fraction = 0;
  double scale = 1;
  bool point = false;
  bool digits = false;
  for (char c : text) {
    if (c == '.') {
      if (point) return false;
      point = true;
    } else if (IsDigit(c)) {
      digits = true;
      if (point) {
        scale /= 10;
        fraction += (c - '0') * scale;
      } else {
        whole = whole * 10 + (c - '0');
      }
    } else {
      return false;
    }
  }
  khz = whole + fraction;
  // From the longwave broadcast band to the top of the microwave bands.
  return digits && khz >= 100 && khz <= 300e6;
}

// A call as skimmers decode it: letters, digits and "/", with at least one of each of the
// first two, 3 to 15 characters.
bool CallShape(std::string_view text) {
  if (text.size() < 3 || text.size() > 15) return false;
  bool digit = false;
  bool alpha = false;
  for (char c : text) {
    if (IsDigit(c)) {
      digit = true;
    } else if (IsAlpha(c)) {
      alpha = true;
    } else if (c != '/') {
      return false;
    }
  }
  return digit && alpha && text.front() != '/' && text.back() != '/';
}

bool SpotterShape(std::string_view text) {
  if (text.size() < 3 || text.size() > 30) return false;
  for (char c : text) {
    if (!IsDigit(c) && !IsAlpha(c) && c != '-' && c != '#' && c != '/') return false;
  }
  return true;
}

// A mode word: a letter, then letters and digits, at most 8 ("CW", "PSK31").
bool ModeShape(std::string_view t) {
  if (t.empty() || t.size() > 8 || !IsAlpha(t.front())) return false;
  return std::all_of(t.begin(), t.end(), [](char c) { return IsAlpha(c) || IsDigit(c); });
}

// "FN42" or "FN42ab": the field letters A-R, two digits, optionally the subsquare a-x.
bool GridShape(std::string_view t) {
  if (t.size() != 4 && t.size() != 6) return false;
  if (Upper(t[0]) < 'A' || Upper(t[0]) > 'R' || Upper(t[1]) < 'A' || Upper(t[1]) > 'R') {
    return false;
  }
  if (!IsDigit(t[2]) || !IsDigit(t[3])) return false;
  if (t.size() == 6) {
    for (char c : t.substr(4)) {
      if (Upper(c) < 'A' || Upper(c) > 'X') return false;
    }
  }
  return true;
}

// "1854Z": hours 00-23, minutes 00-59.
bool TimeWord(std::string_view t, int& hhmm) {
  if (t.size() != 5 || Upper(t[4]) != 'Z') return false;
  for (int i = 0; i < 4; ++i) {
    if (!IsDigit(t[size_t(i)])) return false;
  }
  const int h = (t[0] - '0') * 10 + (t[1] - '0');
  const int m = (t[2] - '0') * 10 + (t[3] - '0');
  if (h > 23 || m > 59) return false;
  hhmm = h * 100 + m;
  return true;
}

// A number with its unit either as the next word ("18 dB") or glued to it ("18dB").
enum class Unit : uint8_t { kNone, kDb, kWpm, kBps };

Unit UnitOf(std::string_view word) {
  if (EqualsUpper(word, "DB")) return Unit::kDb;
  if (EqualsUpper(word, "WPM")) return Unit::kWpm;
  if (EqualsUpper(word, "BPS")) return Unit::kBps;
  return Unit::kNone;
}

bool GluedUnit(std::string_view word, int& value, Unit& unit) {
  for (std::string_view suffix : {"DB", "WPM", "BPS"}) {
    if (word.size() > suffix.size() &&
        EqualsUpper(word.substr(word.size() - suffix.size()), suffix) &&
        SmallInt(word.substr(0, word.size() - suffix.size()), value)) {
      unit = UnitOf(suffix);
      return true;
    }
  }
  return false;
}

}  // namespace

std::string_view SkimmerLineErrorName(SkimmerLineError error) {
  switch (error) {
    case SkimmerLineError::kNone:
      return "ok";
    case SkimmerLineError::kNotASpot:
      return "not a spot";
    case SkimmerLineError::kBadSpotter:
      return "bad spotter";
    case SkimmerLineError::kBadFrequency:
      return "bad frequency";
    case SkimmerLineError::kBadDxCall:
      return "bad DX call";
    case SkimmerLineError::kBadSnr:
      return "bad signal-to-noise ratio";
    case SkimmerLineError::kBadSpeed:
      return "bad speed";
  }
  return "?";
}

SkimmerMode SkimmerModeOf(std::string_view m) {
  if (m == "CW") return SkimmerMode::kCw;
  if (m == "RTTY") return SkimmerMode::kRtty;
  if (m == "FT8") return SkimmerMode::kFt8;
  if (m == "FT4") return SkimmerMode::kFt4;
  if (m.starts_with("PSK") || m.starts_with("BPSK") || m.starts_with("QPSK")) {
    return SkimmerMode::kPsk;
  }
  return SkimmerMode::kUnknown;
}

std::string_view SkimmerModeFolder(SkimmerMode mode) {
  switch (mode) {
    case SkimmerMode::kCw:
      return "cw";
    case SkimmerMode::kRtty:
      return "rtty";
    case SkimmerMode::kPsk:
      return "psk";
    case SkimmerMode::kFt8:
      return "ft8";
    case SkimmerMode::kFt4:
      return "ft4";
    case SkimmerMode::kUnknown:
      break;
  }
  return "unknown";
}

std::string ModeColumn(std::string_view mode_text, bool has_snr, int snr_db) {
  std::string out(mode_text);
  if (!has_snr) return out;
  char number[8];
  const int n = std::snprintf(number, sizeof number, "%d", std::clamp(snr_db, -999, 999));
  constexpr size_t kWidth = 11;  // "CW    18 dB"
  const size_t used = out.size() + size_t(n) + 3;
  out.append(used < kWidth ? kWidth - used : 1, ' ');
  out.append(number, size_t(n));
  out += " dB";
  return out;
}

SkimmerLineError ParseSkimmerLine(std::string_view line, SkimmerReport& out) {
  size_t start = 0;
  while (start < line.size() && (line[start] == ' ' || line[start] == '\t')) ++start;
  line.remove_prefix(start);
  if (line.size() < 6 || !EqualsUpper(line.substr(0, 6), "DX DE ")) {
    return SkimmerLineError::kNotASpot;
  }
  line.remove_prefix(6);
  while (!line.empty() && line.front() == ' ') line.remove_prefix(1);
  const size_t colon = line.find(':');
  if (colon == std::string_view::npos) return SkimmerLineError::kNotASpot;
  std::string_view spotter = line.substr(0, colon);
  while (!spotter.empty() && spotter.back() == ' ') spotter.remove_suffix(1);
  if (!SpotterShape(spotter)) return SkimmerLineError::kBadSpotter;
  out.spotter.assign(spotter);
  for (char& c : out.spotter) c = Upper(c);
  std::string_view identity = out.spotter;
  if (identity.ends_with("-#")) identity.remove_suffix(2);
  if (identity.empty()) return SkimmerLineError::kBadSpotter;
  out.skimmer.assign(identity);

  Words words(line.substr(colon + 1));
  std::string_view w;
  if (!words.Next(w) || !Frequency(w, out.khz)) return SkimmerLineError::kBadFrequency;
  out.freq_text.assign(w);
  if (!words.Next(w) || !CallShape(w)) return SkimmerLineError::kBadDxCall;
  out.dx_call.assign(w);
  for (char& c : out.dx_call) c = Upper(c);

  out.mode_text.clear();
  out.mode = SkimmerMode::kUnknown;
  out.has_snr = false;
  out.snr_db = 0;
  out.speed = 0;
  out.speed_is_bps = false;
  out.kind = SkimmerKind::kOther;
  out.grid.clear();
  out.hhmm = -1;

  // The rest: a mode word, numbers with their units, the kind, a locator, the time.  Each
  // word is looked at once; a number waits for the word after it to learn its unit.
  bool have_number = false;
  int number = 0;
  bool first = true;
  while (words.Next(w)) {
    int value = 0;
    Unit unit = UnitOf(w);
    if (unit == Unit::kNone && GluedUnit(w, value, unit)) {
      have_number = true;
      number = value;
    }
    if (unit != Unit::kNone) {
      if (!have_number) {
        return unit == Unit::kDb ? SkimmerLineError::kBadSnr : SkimmerLineError::kBadSpeed;
      }
      if (unit == Unit::kDb) {
        if (number < -99 || number > 99) return SkimmerLineError::kBadSnr;
        out.has_snr = true;
        out.snr_db = number;
      } else {
        if (number < 1 || number > 999) return SkimmerLineError::kBadSpeed;
        out.speed = number;
        out.speed_is_bps = unit == Unit::kBps;
      }
      have_number = false;
      first = false;
      continue;
    }
    have_number = SmallInt(w, number);
    if (have_number) {
      first = false;
      continue;
    }
    if (first && ModeShape(w)) {
      out.mode_text.assign(w);
      for (char& c : out.mode_text) c = Upper(c);
      out.mode = SkimmerModeOf(out.mode_text);
      first = false;
      continue;
    }
    first = false;
    int hhmm = 0;
    if (TimeWord(w, hhmm)) {
      out.hhmm = hhmm;
    } else if (EqualsUpper(w, "CQ")) {
      out.kind = SkimmerKind::kCq;
    } else if (EqualsUpper(w, "DX")) {
      out.kind = SkimmerKind::kDx;
    } else if (EqualsUpper(w, "BEACON")) {
      out.kind = SkimmerKind::kBeacon;
    } else if (EqualsUpper(w, "NCDXF")) {
      out.kind = SkimmerKind::kNcdxfBeacon;
    } else if (GridShape(w) && out.grid.empty()) {
      out.grid.assign(w);
      for (size_t i = 0; i < 2; ++i) out.grid[i] = Upper(out.grid[i]);
    }
  }
  return SkimmerLineError::kNone;
}

void FeedLineSplitter::Feed(std::string_view bytes,
                            const std::function<void(std::string_view line)>& on_line) {
  size_t start = 0;
  for (size_t i = 0; i < bytes.size(); ++i) {
    if (bytes[i] != '\r' && bytes[i] != '\n') continue;
    const std::string_view piece = bytes.substr(start, i - start);
    start = i + 1;
    if (overflow_) {
      overflow_ = false;
      carry_.clear();
      continue;
    }
    if (carry_.empty()) {
      if (piece.size() > max_line_) {
        ++dropped_;
      } else if (!piece.empty()) {
        on_line(piece);
      }
      continue;
    }
    carry_ += piece;
    if (carry_.size() > max_line_) {
      ++dropped_;
    } else {
      on_line(carry_);
    }
    carry_.clear();
  }
  if (overflow_ || start >= bytes.size()) return;
  carry_.append(bytes.substr(start));
  if (carry_.size() > max_line_) {
    // Keep nothing of a line that cannot be used: memory stays bounded by max_line_.
    overflow_ = true;
    ++dropped_;
    carry_.clear();
  }
}

}  // namespace qx
