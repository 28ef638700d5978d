// The lines a skimmer feed sends, one raw report each:
//
//   DX de DL1ABC-#:  14025.1  K1ABC  CW  18 dB  26 WPM  CQ  1854Z
//   DX de W3LPL-2-#: 14080.12 K1ABC  RTTY 25 dB  45 BPS  CQ  1854Z
//   DX de DL8LAS-#:  14074.0  K1ABC  FT8 -12 dB  FN42  CQ  1854Z
//   DX de G4ABC-#:   14100.0  4U1UN  CW  20 dB  22 WPM  NCDXF B  1854Z
//
// Feeds differ in their spacing and a long spotter call pushes the frequency against the
// colon, so the line is read word by word, never by column.  Pure code: no clock, no I/O.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

namespace qx {

// The modes a skimmer reports, as far as the node treats them differently: the folder of
// the busted log, CW against data for the verification switches.
enum class SkimmerMode : uint8_t { kUnknown, kCw, kRtty, kPsk, kFt8, kFt4 };

// What the station was doing, from the words after the speed.
enum class SkimmerKind : uint8_t { kOther, kCq, kDx, kBeacon, kNcdxfBeacon };

struct SkimmerReport {
  std::string spotter;    // as sent, "DL1ABC-#"
  std::string skimmer;    // the spotter without the "-#" ending: the skimmer's identity
  std::string freq_text;  // as sent, "14025.1" or "14025.12"
  double khz = 0;
  std::string dx_call;    // upper case
  std::string mode_text;  // upper case, as sent ("CW", "PSK31"); empty when none was sent
  SkimmerMode mode = SkimmerMode::kUnknown;
  bool has_snr = false;
  int snr_db = 0;
  int speed = 0;              // 0 when none was sent
  bool speed_is_bps = false;  // "BPS" rather than "WPM"
  SkimmerKind kind = SkimmerKind::kOther;
  std::string grid;  // a Maidenhead locator when the line carries one (FT8, FT4)
  int hhmm = -1;     // the "1854Z" at the end, -1 when absent
};

enum class SkimmerLineError : uint8_t {
  kNone,
  kNotASpot,      // no "DX de <call>:" at the start (prompts, banners, announcements)
  kBadSpotter,    // an empty or malformed spotter call
  kBadFrequency,  // not a number, or not a plausible frequency
  kBadDxCall,     // missing or not shaped like a call
  kBadSnr,        // a "dB" without a number before it, or a number out of range
  kBadSpeed,      // a "WPM"/"BPS" without a number before it
};

std::string_view SkimmerLineErrorName(SkimmerLineError error);

// Parses one line (without its line end).  On failure the report may hold parts of the line
// and must not be used.
SkimmerLineError ParseSkimmerLine(std::string_view line, SkimmerReport& out);

// The mode of a mode word ("CW", "RTTY", "PSK31", "BPSK63", "FT8", "FT4"); kUnknown otherwise.
SkimmerMode SkimmerModeOf(std::string_view upper_mode_text);
// The folder name of the busted log for a mode: "cw", "rtty", "psk", "ft4", "ft8", "unknown".
std::string_view SkimmerModeFolder(SkimmerMode mode);

// The mode column of a feed spot's comment: the mode left-aligned and the signal-to-noise
// ratio right-aligned before " dB" in 11 characters ("CW    18 dB", "FT8  -12 dB",
// "RTTY  25 dB"); just the mode without a ratio.  A mode too long for the column keeps one
// blank before the ratio.
std::string ModeColumn(std::string_view mode_text, bool has_snr, int snr_db);

// Cuts a feed's byte stream into lines.  CR, LF and CR LF all end a line; empty lines are
// not reported; a line longer than max_line is dropped whole (counted), since a cut piece of
// a report would be read as a different report.
class FeedLineSplitter {
 public:
  explicit FeedLineSplitter(size_t max_line = 512) : max_line_(max_line) {}

  void Feed(std::string_view bytes, const std::function<void(std::string_view line)>& on_line);
  size_t dropped_lines() const { return dropped_; }

 private:
  size_t max_line_;
  std::string carry_;
  bool overflow_ = false;  // the line in hand has outgrown max_line_; skip to its end
  size_t dropped_ = 0;
};

}  // namespace qx
