#include "feeds/skimmer_line.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace qx {
namespace {

struct LineCase {
  std::string line;
  std::string spotter, skimmer, freq, dx, mode_text;
  SkimmerMode mode;
  int snr;
  int speed;
  bool bps;
  SkimmerKind kind;
  std::string grid;
  int hhmm;
};

TEST(SkimmerLineTest, ReadsTheLinesOfEveryModeByWords) {
  const std::vector<LineCase> cases = {
      {"DX de DL1ABC-#:  14025.1  K1ABC          CW    18 dB  26 WPM  CQ      1854Z", "DL1ABC-#",
       "DL1ABC", "14025.1", "K1ABC", "CW", SkimmerMode::kCw, 18, 26, false, SkimmerKind::kCq, "",
       1854},
      {"DX de W3LPL-2-#:  7003.52  ok1abc/p  CW 5 dB 31 WPM DX 0001Z", "W3LPL-2-#", "W3LPL-2",
       "7003.52", "OK1ABC/P", "CW", SkimmerMode::kCw, 5, 31, false, SkimmerKind::kDx, "", 1},
      // A long spotter call pushes the frequency against the colon.
      {"DX de VE2WU/VE3-#:14080.12 K1ABC RTTY 25 dB 45 BPS CQ 2359Z", "VE2WU/VE3-#", "VE2WU/VE3",
       "14080.12", "K1ABC", "RTTY", SkimmerMode::kRtty, 25, 45, true, SkimmerKind::kCq, "", 2359},
      {"DX de G4ABC-#:\t14070.5\tJA1XYZ\tPSK31\t-3 dB\t31 BPS\tCQ\t1200Z", "G4ABC-#", "G4ABC",
       "14070.5", "JA1XYZ", "PSK31", SkimmerMode::kPsk, -3, 31, true, SkimmerKind::kCq, "", 1200},
      {"DX de DL8LAS-#: 14074.0 K1ABC FT8 -12 dB FN42 CQ 1854Z", "DL8LAS-#", "DL8LAS", "14074.0",
       "K1ABC", "FT8", SkimmerMode::kFt8, -12, 0, false, SkimmerKind::kCq, "FN42", 1854},
      {"DX de KO7SS-#: 7047.5 VK3ABC FT4 -7dB QF22lb 0615Z", "KO7SS-#", "KO7SS", "7047.5", "VK3ABC",
       "FT4", SkimmerMode::kFt4, -7, 0, false, SkimmerKind::kOther, "QF22lb", 615},
      {"DX de OH6BG-#: 28200.0 4U1UN CW 20 dB 22 WPM NCDXF B 1854Z", "OH6BG-#", "OH6BG", "28200.0",
       "4U1UN", "CW", SkimmerMode::kCw, 20, 22, false, SkimmerKind::kNcdxfBeacon, "", 1854},
      {"DX de EA5WU-#: 10144.0 DK0WCY CW 9 dB 20 WPM BEACON 0800Z", "EA5WU-#", "EA5WU", "10144.0",
       "DK0WCY", "CW", SkimmerMode::kCw, 9, 20, false, SkimmerKind::kBeacon, "", 800},
  };
  for (const LineCase& c : cases) {
    SCOPED_TRACE(c.line);
    SkimmerReport r;
    ASSERT_EQ(ParseSkimmerLine(c.line, r), SkimmerLineError::kNone);
    EXPECT_EQ(r.spotter, c.spotter);
    EXPECT_EQ(r.skimmer, c.skimmer);
    EXPECT_EQ(r.freq_text, c.freq);
    EXPECT_NEAR(r.khz, std::stod(c.freq), 1e-9);
    EXPECT_EQ(r.dx_call, c.dx);
    EXPECT_EQ(r.mode_text, c.mode_text);
    EXPECT_EQ(r.mode, c.mode);
    EXPECT_TRUE(r.has_snr);
    EXPECT_EQ(r.snr_db, c.snr);
    EXPECT_EQ(r.speed, c.speed);
    EXPECT_EQ(r.speed_is_bps, c.bps);
    EXPECT_EQ(r.kind, c.kind);
    EXPECT_EQ(r.grid, c.grid);
    EXPECT_EQ(r.hhmm, c.hhmm);
  }
}

TEST(SkimmerLineTest, RefusesWhatIsNoReport) {
  const std::vector<std::pair<std::string, SkimmerLineError>> cases = {
      {"Please enter your call:", SkimmerLineError::kNotASpot},
      {"", SkimmerLineError::kNotASpot},
      {"DX de DL1ABC-# 14025.1 K1ABC CW 18 dB 1854Z", SkimmerLineError::kNotASpot},
      {"To ALL de DL1ABC: hello", SkimmerLineError::kNotASpot},
      {"DX de : 14025.1 K1ABC CW 18 dB 1854Z", SkimmerLineError::kBadSpotter},
      {"DX de DL1^BC-#: 14025.1 K1ABC CW 18 dB 1854Z", SkimmerLineError::kBadSpotter},
      {"DX de DL1ABC-#: 14O25.1 K1ABC CW 18 dB 1854Z", SkimmerLineError::kBadFrequency},
      {"DX de DL1ABC-#: 14025.1.2 K1ABC CW 18 dB 1854Z", SkimmerLineError::kBadFrequency},
      {"DX de DL1ABC-#: 3.5 K1ABC CW 18 dB 1854Z", SkimmerLineError::kBadFrequency},
      {"DX de DL1ABC-#: 14025.1", SkimmerLineError::kBadDxCall},
      {"DX de DL1ABC-#: 14025.1 K1A^C CW 18 dB 1854Z", SkimmerLineError::kBadDxCall},
      {"DX de DL1ABC-#: 14025.1 KABC CW 18 dB 1854Z", SkimmerLineError::kBadDxCall},
      {"DX de DL1ABC-#: 14025.1 K1ABC CW dB 26 WPM 1854Z", SkimmerLineError::kBadSnr},
      {"DX de DL1ABC-#: 14025.1 K1ABC CW 180 dB 26 WPM 1854Z", SkimmerLineError::kBadSnr},
      {"DX de DL1ABC-#: 14025.1 K1ABC CW 18 dB WPM 1854Z", SkimmerLineError::kBadSpeed},
  };
  for (const auto& [line, error] : cases) {
    SkimmerReport r;
    EXPECT_EQ(ParseSkimmerLine(line, r), error) << line;
  }
  // A word holding a control character is never taken for the mode, which goes to users.
  SkimmerReport r;
  ASSERT_EQ(ParseSkimmerLine("DX de DL1ABC-#: 14025.1 K1ABC C\aW 18 dB 1854Z", r),
            SkimmerLineError::kNone);
  EXPECT_EQ(r.mode_text, "");
}

TEST(SkimmerLineTest, ModeColumnsAlignTheRatioBeforeDb) {
  EXPECT_EQ(ModeColumn("CW", true, 18), "CW    18 dB");
  EXPECT_EQ(ModeColumn("FT8", true, -12), "FT8  -12 dB");
  EXPECT_EQ(ModeColumn("RTTY", true, 5), "RTTY   5 dB");
  EXPECT_EQ(ModeColumn("PSK125", true, -15), "PSK125 -15 dB");
  EXPECT_EQ(ModeColumn("CW", false, 0), "CW");
}

TEST(SkimmerLineTest, LinesFedInPiecesReadAsWhole) {
  const std::string stream =
      "login: \r\nDX de DL1ABC-#:  14025.1  K1ABC  CW  18 dB  26 WPM  CQ  1854Z\r\n"
      "DX de DL8LAS-#: 14074.0 K1ABC FT8 -12 dB FN42 CQ 1854Z\n\n"
      "DX de W3LPL-#:  7003.52  OK1ABC  CW 5 dB 31 WPM DX 0001Z\r";
  std::vector<std::string> whole;
  FeedLineSplitter once;
  once.Feed(stream, [&](std::string_view l) { whole.emplace_back(l); });
  ASSERT_EQ(whole.size(), 4u);
  EXPECT_EQ(whole[0], "login: ");
  for (size_t piece = 1; piece <= 7; ++piece) {
    FeedLineSplitter split;
    std::vector<std::string> lines;
    for (size_t at = 0; at < stream.size(); at += piece) {
      split.Feed(stream.substr(at, piece), [&](std::string_view l) { lines.emplace_back(l); });
    }
    EXPECT_EQ(lines, whole) << "pieces of " << piece;
    SkimmerReport r;
    ASSERT_EQ(ParseSkimmerLine(lines[3], r), SkimmerLineError::kNone);
    EXPECT_EQ(r.freq_text, "7003.52");
    EXPECT_EQ(r.hhmm, 1);
  }
}

TEST(SkimmerLineTest, AnOverlongLineIsDroppedWholeAndTheNextOneKept) {
  FeedLineSplitter split(40);
  std::vector<std::string> lines;
  auto keep = [&](std::string_view l) { lines.emplace_back(l); };
  split.Feed(std::string(30, 'x'), keep);
  split.Feed(std::string(30, 'y'), keep);  // now past the bound, still no line end
  split.Feed(std::string(100, 'z') + "\nshort\n" + std::string(50, 'w') + "\nend\n", keep);
  EXPECT_EQ(lines, (std::vector<std::string>{"short", "end"}));
  EXPECT_EQ(split.dropped_lines(), 2u);
}

}  // namespace
}  // namespace qx
