// The information commands through the interpreter: which place each one takes, the replies'
// content, the user statistics, the state table and bad input.  The sun, moon and path
// calculations themselves are tested in tests/info.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "info/call_states.h"
#include "tests/users/user_fixture.h"

namespace qx::testing {
namespace {

using ::testing::HasSubstr;
using ::testing::StartsWith;

class InfoCommandsTest : public LoggedInFixture {
 protected:
  void SetUp() override {
    ctx_.states = &states_;
    LoggedInFixture::SetUp();
  }
  CallStates states_;
};

TEST_F(InfoCommandsTest, SunAndMoonTakeTheRightPlace) {
  // No location yet: the country of the user's call.
  EXPECT_THAT(Run("SH/SUN"), StartsWith("K1ABC      United States            37.60N 91.87W  "
                                        "sunrise "));
  EXPECT_EQ(Run("SHOWSUN SUN"), Run("SH/SUN"));
  Run("SET/QRA FN42");
  EXPECT_THAT(Run("SH/SUN"), HasSubstr("your location            42.50N 71.00W  sunrise "));
  Run("SET/LOCATION 51 30 N 0 7 W");  // a location beats the locator
  EXPECT_THAT(Run("SH/SUN"), HasSubstr("51.50N 0.12W  sunrise "));
  EXPECT_THAT(Run("sh/sun jo01"), StartsWith("JO01       locator                  51.50N 1.00E"));
  EXPECT_THAT(Run("SH/SUN DL1XYZ"),
              StartsWith("DL1XYZ     Germany                  51.00N 10.00E"));
  // A station with a location on record is placed there, not in its country's middle.
  store_.SavePersonal("DL9ZZZ", 3, "48 8 N 11 35 E");
  EXPECT_THAT(Run("SH/SUN DL9ZZZ"), HasSubstr("station's own location   48.13N 11.58E"));
  const std::string moon = Run("SH/MOON JA");
  EXPECT_THAT(moon, StartsWith("JA         Japan                    36.40N 138.38E  moonrise "));
  EXPECT_THAT(moon, HasSubstr("% lit, wa"));
}

TEST_F(InfoCommandsTest, HeadingCountryAndLocalTime) {
  Run("SET/QRA FN42");
  // FN42 (42.5N 71W) to the middle of Japan, worked by hand with the haversine formula.
  EXPECT_EQ(Run("SH/HEADING JA1AA"),
            "JA1AA Japan: short path 337 deg, 10750 km (6679 mi); long path 157 deg, 29281 km "
            "(18194 mi)\r\n");
  EXPECT_EQ(Run("SH/DXCC dl1xyz"),
            "DL1XYZ: DL Germany  CQ 14  ITU 28  EU  51.00N 10.00E  UTC+1\r\n");
  EXPECT_EQ(Run("SH/PREFIX JA"), "JA: JA Japan  CQ 25  ITU 45  AS  36.40N 138.38E  UTC+9\r\n");
  // 0046Z on 15 November is 0946 in Japan and 1946 the day before in the central US.
  EXPECT_EQ(Run("SH/TIME JA"), "JA: JA Japan  local time 15-Nov-2026 0946  (UTC+9)\r\n");
  EXPECT_EQ(Run("SH/TIME W"), "W: K United States  local time 14-Nov-2026 1946  (UTC-5)\r\n");
}

TEST_F(InfoCommandsTest, UserStatisticsFromTheRecord) {
  Run("SET/QTH Boston");
  store_.CountSpot("K1ABC-2");  // an SSID counts for the person
  store_.CountSpot("K1ABC");
  const std::string own = Run("STAT/USER");
  EXPECT_THAT(own, StartsWith("User: K1ABC  (logged in now)\r\n  Name:         Ann\r\n"
                              "  QTH:          Boston\r\n"));
  EXPECT_THAT(own, HasSubstr("  Last log-in:  15-Nov-2026 0046Z\r\n  Spots posted: 2\r\n"));
  EXPECT_EQ(Run("SH/STAT/USER K1ABC"), own);
  EXPECT_THAT(Run("STATUSER k1abc"), StartsWith("User: K1ABC  (logged in now)"));
  EXPECT_EQ(Run("STATUSER W9NOBODY"), "W9NOBODY: no record on this node\r\n");

  // Held in memory until the node writes them (once a minute and at stop); a restarted node
  // reads them back from the record, with nothing else in it lost.
  EXPECT_EQ(store_.WriteBookkeeping(), 1u);
  const SessionSettings after = UserStore(dir_).Load("K1ABC", kStateUser).settings;
  EXPECT_EQ(after.spots_posted, 2);
  EXPECT_EQ(after.last_login, "15-Nov-2026 0046Z");
  EXPECT_EQ(after.qth, "Boston");
}

TEST_F(InfoCommandsTest, StateTableIsTheSysopsAndKeptOnDisk) {
  EXPECT_EQ(Run("SET/STATEADD W1AW CT"), "SET/STATEADD W1AW CT - sysop command error\r\n");
  EXPECT_EQ(states_.size(), 0u);
  streams_.at(1).privilege = 1;
  EXPECT_EQ(Run("SET/STATEADD W1AW-3 ct"), "W1AW CT added to list.\r\n");
  EXPECT_EQ(Run("SET/STATEADD W1AW CT"), "W1AW CT already in list.\r\n");
  EXPECT_EQ(Run("SET/STATEADD"), "* Command Incomplete *\r\n");
  EXPECT_EQ(Run("SET/STATEADD W1AW CONN"), "SET/STATEADD W1AW CONN command error\r\n");
  EXPECT_EQ(states_.Find("W1AW-7"), "CT");
  std::ifstream in(dir_.Data("files") / "states.dat");
  std::ostringstream text;
  text << in.rdbuf();
  CallStates reloaded;
  reloaded.LoadText(text.str());
  EXPECT_EQ(reloaded.Find("W1AW"), "CT");
  EXPECT_EQ(reloaded.skipped(), 0u);
}

TEST_F(InfoCommandsTest, ColumnSwitchesShowAndHintAtTheWidth) {
  EXPECT_EQ(Run("SET/DXSQTH"),
            "DX country enabled\r\nThe column shows on lines wider than 75 "
            "characters, for example SET/WIDTH 100.\r\n");
  EXPECT_EQ(Run("SH/DXSQTH"), "DX spotter state or province is enabled\r\n");
  Run("SET/WIDTH 100");
  EXPECT_EQ(Run("SET/DXCQ"), "DX CQ zone enabled\r\n");
  EXPECT_EQ(Run("SH/DXCQ"), "DX CQ zone is enabled\r\n");
  EXPECT_EQ(Run("SET/NODXSCTY"), "DX spotter state or province or country disabled\r\n");
  EXPECT_EQ(Run("SH/DXSCTY"), "DX spotter country is disabled\r\n");
  EXPECT_EQ(Run("SH/GRIDSQUARE"), "Grid square is disabled\r\n");
}

TEST_F(InfoCommandsTest, BadArgumentsChangeNothing) {
  const char* errors[] = {"SH/HEADING",    "SH/HEADING DL JA", "SH/PREFIX",         "SH/DXCC A B",
                          "SH/PREFIX K$1", "SH/SUN DL JA",     "STATUSER K1ABC K2", "STAT/USER 1"};
  for (const char* line : errors) {
    EXPECT_EQ(Run(line), std::string(line) + " command error\r\n") << line;
  }
  EXPECT_EQ(Run("SH/SUN QQ"), "QQ is not a known call, prefix or locator.\r\n");
  EXPECT_EQ(Run("SH/HEADING ZZ9"), "ZZ9 is not a known call, prefix or locator.\r\n");
  EXPECT_EQ(Run("SH/PREFIX QQ9"), "QQ9: no country found for it in the country file.\r\n");
  // Nothing of the user's settings moved.
  const SessionSettings& s = streams_.at(1).session;
  EXPECT_EQ(s.switches, kDefaultSwitches);
  EXPECT_TRUE(s.location.empty());
  EXPECT_TRUE(s.grid.empty());
}

}  // namespace
}  // namespace qx::testing
