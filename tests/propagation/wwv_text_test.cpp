#include "propagation/wwv_text.h"

#include <gtest/gtest.h>

namespace qx {
namespace {

// As issued today: a fractional K index, quiet conditions.
constexpr std::string_view kQuiet =
    ":Product: Geophysical Alert Message wwv.txt\n"
    ":Issued: 2024 Jan 05 2105 UTC\n"
    "# Prepared by the US Dept. of Commerce, NOAA, Space Weather Prediction Center\n"
    "#\n"
    "#          Geophysical Alert Message\n"
    "#\n"
    "Solar-terrestrial indices for 05 January follow.\n"
    "Solar flux 135 and estimated planetary A-index 5.\n"
    "The estimated planetary K-index at 2100 UTC on 05 January was 2.67.\n"
    "\n"
    "No space weather storms were observed for the past 24 hours.\n"
    "\n"
    "No space weather storms are predicted for the next 24 hours.\n";

// Unsettled days: storm levels and scales named in the sentences that follow.
constexpr std::string_view kStormy =
    ":Product: Geophysical Alert Message wwv.txt\r\n"
    ":Issued: 2024 May 11 0305 UTC\r\n"
    "# Prepared by the US Dept. of Commerce, NOAA, Space Weather Prediction Center\r\n"
    "Solar-terrestrial indices for 10 May follow.\r\n"
    "Solar flux 206 and estimated planetary A-index 207.\r\n"
    "The estimated planetary K-index at 0300 UTC on 11 May was 8.33.\r\n"
    "\r\n"
    "Space weather for the past 24 hours has been extreme.\r\n"
    "Geomagnetic storms reaching the G5 level occurred.\r\n"
    "Radio blackouts reaching the R3 level occurred.\r\n"
    "\r\n"
    "Space weather for the next 24 hours is predicted to be severe.\r\n"
    "Geomagnetic storms reaching the G4 level are likely.\r\n"
    "Radio blackouts reaching the R1-R2 (Minor-Moderate) range are likely.\r\n";

// The older wording: mid-latitude A index, a whole K index, no outlook at all.
constexpr std::string_view kOlder =
    ":Product: Geophysical Alert Message wwv.txt\n"
    ":Issued: 2009 Mar 02 0005 UTC\n"
    "Solar-terrestrial indices for 01 March follow.\n"
    "Solar flux 69 and mid-latitude A-index 4.\n"
    "The mid-latitude K-index at 2100 UTC on 01 March was 1.\n";

TEST(WwvTextTest, ReadsTheIssuedWordings) {
  const struct {
    std::string_view text;
    std::string date;
    int hour, sfi, a, k;
    std::string forecast;
  } cases[] = {
      {kQuiet, "05-Jan-2024", 21, 135, 5, 3, "No Storms -> No Storms"},  // K 2.67 rounded
      {kStormy, "11-May-2024", 3, 206, 207, 8, "Extreme w/G5,R3 -> Severe w/G4"},
      // Measured at 2100 the day before, issued after midnight: the report is the day before's.
      {kOlder, "01-Mar-2009", 21, 69, 4, 1, ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.date);
    WwvText w;
    std::string error;
    ASSERT_TRUE(ParseWwvText(c.text, w, error)) << error;
    EXPECT_EQ(w.date, c.date);
    EXPECT_EQ(w.hour, c.hour);
    EXPECT_EQ(w.sfi, c.sfi);
    EXPECT_EQ(w.a, c.a);
    EXPECT_EQ(w.k, c.k);
    EXPECT_EQ(w.forecast, c.forecast);
  }
}

TEST(WwvTextTest, MissingOrWrongFiguresAreRefusedByName) {
  const auto refused = [](std::string text, std::string_view from, std::string_view to) {
    text.replace(text.find(from), from.size(), to);
    WwvText w;
    std::string error;
    EXPECT_FALSE(ParseWwvText(text, w, error)) << text;
    return error;
  };
  const std::string quiet(kQuiet);
  EXPECT_EQ(refused(quiet, "was 2.67", "was not available"), "no K index");
  EXPECT_EQ(refused(quiet, "A-index 5", "A-index missing"), "no A index");
  EXPECT_EQ(refused(quiet, "Solar flux 135", "Solar flux"), "no solar flux");
  EXPECT_EQ(refused(quiet, ":Issued: 2024 Jan 05", ":Issued: 2024 Foo 05"), "no issue date");
  EXPECT_EQ(refused(quiet, "was 2.67", "was 12"), "a figure is out of range");
  WwvText w;
  std::string error;
  EXPECT_FALSE(ParseWwvText("<html><body>Service unavailable</body></html>", w, error));
  EXPECT_FALSE(ParseWwvText("", w, error));
}

}  // namespace
}  // namespace qx
