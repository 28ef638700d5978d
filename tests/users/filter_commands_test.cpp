// The filter commands as a user types them: their effect on what distribution, SH/DX and
// TEST/FILTER decide, the record they leave, and the log-in that compiles them again.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "core/file_util.h"
#include "core/text_util.h"
#include "tests/users/user_fixture.h"

namespace qx::testing {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;

class FilterCommandsTest : public LoggedInFixture {
 protected:
  // What distribution decides for this user, through the same calls it makes.
  bool Shown(double khz, std::string_view dx, std::string_view spotter,
             std::string_view comment = "", int stream = 1) {
    const Spot spot = filters_.SampleSpot(khz, dx, spotter, comment, "XX0QX-1");
    filters_.Prepare(spot);
    return filters_.Passes(stream, streams_.at(stream), spot);
  }
  std::string Record(std::string_view call) {
    return ReadFileText(store_.LocalPath(call)).value_or("");
  }
};

TEST_F(FilterCommandsTest, EveryFormTakesEffectAtOnceAndIsStoredOneLinePerRule) {
  EXPECT_TRUE(Shown(14025, "JA1XYZ", "DL1AAA"));
  EXPECT_EQ(Run("SET/FILTER DXCTY/PASS K,JA"), "SPOTS filter DXCTY set\r\n");
  EXPECT_EQ(Run("acc/spots 1 on hf"), "SPOTS filter A1 set\r\n");
  EXPECT_EQ(Run("REJ/SPOTS 2 by_cont EU and info iota"), "SPOTS filter R2 set\r\n");
  EXPECT_EQ(Run("ACCEPT/ANNOUNCE by_cont NA"), "ANNOUNCE filter A1 set\r\n");  // line 1 unless told
  EXPECT_FALSE(Shown(14025, "DL1XYZ", "W1AW"));                                // DXCTY
  EXPECT_FALSE(Shown(50100, "JA1XYZ", "W1AW"));                   // no accept line: not HF
  EXPECT_FALSE(Shown(14025, "JA1XYZ", "DL1AAA", "IOTA AS-007"));  // R2, any case
  EXPECT_TRUE(Shown(14025, "JA1XYZ", "DL1AAA", "cq"));
  EXPECT_TRUE(Shown(50100, "DL1XYZ", "K1ABC-7"));  // the spotter's own spot
  EXPECT_EQ(Run("SET/DXBANDMODE 1610792964/65535"),
            "DXBM set to 1610792964/65535 (160m,80m,40m,20m,15m,10m)\r\n");
  EXPECT_FALSE(Shown(18100, "JA1XYZ", "W1AW"));

  const std::string record = Record("K1ABC");
  EXPECT_THAT(record, HasSubstr("DXBM^0^1610792964/65535\r\n"));
  EXPECT_THAT(record, HasSubstr("FILTER^0^SPOTS^DXCTY^SET/FILTER DXCTY/PASS K,JA\r\n"));
  EXPECT_THAT(record, HasSubstr("FILTER^0^SPOTS^A1^acc/spots 1 on hf\r\n"));
  EXPECT_THAT(record, HasSubstr("FILTER^0^ANNOUNCE^A1^ACCEPT/ANNOUNCE by_cont NA\r\n"));

  // SH/FILTER lists the rules as typed; the mask in words.
  const std::string shown = Run("SH/FILTER");
  EXPECT_THAT(shown, StartsWith("Filters are on.\r\nDXBM 1610792964/65535: 160m,80m,"));
  EXPECT_THAT(shown, HasSubstr("SPOTS R2: REJ/SPOTS 2 by_cont EU and info iota\r\n"));
  EXPECT_THAT(shown, HasSubstr("ANNOUNCE A1: ACCEPT/ANNOUNCE by_cont NA\r\n"));
  EXPECT_EQ(Run("SH/DXBM"), "DXBM 1610792964/65535: 160m,80m,40m,20m,15m,10m\r\n");

  // A log-in on another stream compiles the same rules from the record; an SSID of 16 or
  // more has filters of its own; the stream's filters go at log-out.
  LogIn(2, "K1ABC-3", "Ann");
  LogIn(3, "K1ABC-16", "Ann");
  Take(2);
  EXPECT_EQ(Run("SH/FILTER", 2), shown);
  EXPECT_FALSE(Shown(14025, "DL1XYZ", "W1AW", "", 2));
  EXPECT_TRUE(Shown(14025, "DL1XYZ", "W1AW", "", 3));
  EXPECT_EQ(Run("CLEAR/SPOTS ALL", 2), "2 SPOTS filter lines cleared\r\n");
  EXPECT_THAT(Record("K1ABC"), Not(HasSubstr("SPOTS^A1^")));
  Run("BYE", 2);
  EXPECT_EQ(filters_.Of(2), nullptr);
}

TEST_F(FilterCommandsTest, AMalformedRuleGetsOneLineAndChangesNothing) {
  Run("SET/FILTER DXCTY/PASS K,JA");
  const std::string record = Record("K1ABC");
  const struct {
    const char* line;
    const char* reply;
  } cases[] = {
      {"acc/spots 3 on hf and call_dxcc", "Filter error at the end: \"call_dxcc\" needs a value"},
      {"SET/FILTER DXCTY/PASX K", "Filter error at \"PASX\": expected PASS, REJECT or OFF"},
      {"SET/FILTER NOSUCH/PASS K", "Filter error at \"NOSUCH\": unknown filter name"},
      {"ACC/NEWS on hf", "Filter error at \"NEWS\": expected SPOTS, ANNOUNCE or WWV"},
  };
  for (const auto& c : cases) EXPECT_EQ(Run(c.line), std::string(c.reply) + "\r\n") << c.line;
  EXPECT_EQ(Record("K1ABC"), record);
  EXPECT_FALSE(Shown(14025, "DL1XYZ", "W1AW"));
  EXPECT_TRUE(Shown(14025, "JA1XYZ", "W1AW"));
}

TEST_F(FilterCommandsTest, PresetsAndTheSwitchKeepRulesTheyDoNotName) {
  Run("ACC/SPOTS on 20m");
  const std::string contest = Run("SET/CONTEST");
  EXPECT_THAT(contest, HasSubstr("SPOTS KEYWORD: SET/FILTER KEYWORD/REJ CW,ROS,PSK,IOTA,JT65,JT9"));
  EXPECT_THAT(contest, HasSubstr("Contest settings applied\r\n"));
  EXPECT_FALSE(Shown(14025, "JA1XYZ", "W1AW", "cw"));
  EXPECT_FALSE(Shown(7025, "JA1XYZ", "W1AW"));

  EXPECT_EQ(Run("SET/NOFILTERS"), "All filters off\r\n");
  EXPECT_EQ(streams_.at(1).session.dxbm, 1006827524u);
  EXPECT_EQ(streams_.at(1).session.dxbm2, 15370u);
  EXPECT_TRUE(Shown(7025, "JA1XYZ", "W1AW", "cw"));  // the accept line is kept, not used
  EXPECT_THAT(Run("SH/FILTER"), StartsWith("Filters are off"));
  EXPECT_THAT(Run("REJ/SPOTS by W1AW"), HasSubstr("Filters are off for you"));
  // Off survives a new log-in, and SET/FILTERS brings back what was kept.
  LogIn(2, "K1ABC-2", "Ann");
  EXPECT_TRUE(Shown(7025, "JA1XYZ", "W1AW", "", 2));
  EXPECT_EQ(Run("SET/FILTERS"), "Filters enabled\r\n");
  EXPECT_FALSE(Shown(7025, "JA1XYZ", "DL1AAA"));
  EXPECT_TRUE(Shown(14025, "JA1XYZ", "DL1AAA", "cw"));
  EXPECT_FALSE(Shown(14025, "JA1XYZ", "W1AW"));
}

TEST_F(FilterCommandsTest, TestFilterAndWhyNameTheDecidingRule) {
  Run("SET/FILTER DXCTY/PASS K,JA");
  Run("REJ/SPOTS 4 by DL*");
  EXPECT_EQ(Run("TEST/FILTER 14025 JA1XYZ by DL1AAA up 2"),
            "14025.0 JA1XYZ by DL1AAA \"up 2\": drop by R4: REJ/SPOTS 4 by DL*\r\n");
  EXPECT_EQ(Run("TEST/FILTER 14025 DL1XYZ"),
            "14025.0 DL1XYZ by K1ABC: drop by DXCTY: SET/FILTER DXCTY/PASS K,JA\r\n");
  EXPECT_EQ(Run("TEST/FILTER 14025 K1XYZ"),
            "14025.0 K1XYZ by K1ABC: pass (no filter rule decides)\r\n");
  EXPECT_THAT(Run("TEST/FILTER x"), StartsWith("Usage: TEST/FILTER"));

  EXPECT_EQ(Run("SH/FILTER WHY"), "No spots have been held back by your filters.\r\n");
  for (int i = 0; i < 12; ++i) Shown(14000 + i, "DL" + std::to_string(i) + "XYZ", "W1AW");
  Shown(14025, "JA1XYZ", "DL1AAA");
  const std::string why_text = Run("SH/FILTER WHY");
  const std::vector<std::string_view> why = Split(why_text, '\n');
  ASSERT_EQ(why.size(), 11u);  // the last ten, then what follows the last line end
  EXPECT_THAT(std::string(why[0]), HasSubstr("14003.0 DL3XYZ       by W1AW       DXCTY: SET/"));
  EXPECT_THAT(std::string(why[9]), HasSubstr("JA1XYZ       by DL1AAA     R4: REJ/SPOTS 4 by DL*"));
  Run("CLEAR/SPOTS 4");  // a rule changed since the drop is not quoted from memory
  EXPECT_THAT(Run("SH/FILTER WHY"), HasSubstr("R4: (changed since)"));
}

TEST_F(FilterCommandsTest, AnOldRecordLineIsReadOnceAndABrokenOneDropped) {
  store_.SaveLines("W1OLD", "FILTER", {"DXCTY/PASS K;KEYWORD/REJ CW;DOC/PASS K,,DL"});
  LogIn(2, "W1OLD", "Bob");
  EXPECT_FALSE(Shown(14025, "DL1XYZ", "W1AW", "", 2));
  EXPECT_FALSE(Shown(14025, "K1XYZ", "W1AW", "cw", 2));
  EXPECT_EQ(store_.Load("W1OLD", kStateUser).settings.filter_lines,
            (std::vector<std::string>{"SPOTS^DXCTY^SET/FILTER DXCTY/PASS K",
                                      "SPOTS^KEYWORD^SET/FILTER KEYWORD/REJ CW"}));
  std::string log;
  for (const auto& f : std::filesystem::directory_iterator(tmp_.path() / "data/log")) {
    log += ReadFileText(f.path()).value_or("");
  }
  EXPECT_THAT(log, HasSubstr("W1OLD: stored filter dropped: Filter error"));
}

TEST_F(FilterCommandsTest, AnnouncementsAndWxPassTheirOwnRules) {
  LogIn(2, "DL1XYZ", "Bob");
  LogIn(3, "JA1XYZ", "Cho");
  LogIn(4, "W2XYZ", "Dan");
  Run("REJ/ANN by_cont NA", 2);
  Run("SET/FILTER AOC/REJ K", 3);  // "W" or "K": the United States either way
  Run("SET/FILTER WOC/PASS JA,DL", 4);
  for (int s = 1; s <= 4; ++s) Take(s);
  const auto got = [&](int s, std::string_view text) {
    return Take(s).find(text) != std::string::npos;
  };
  Run("ANNOUNCE QRV on 6m");  // K1ABC in North America
  EXPECT_FALSE(got(2, "To ALL de K1ABC: QRV on 6m"));
  EXPECT_FALSE(got(3, "To ALL de K1ABC"));
  EXPECT_TRUE(got(4, "To ALL de K1ABC: QRV on 6m"));  // WX rules leave announcements alone
  Run("WX sunny", 3);
  EXPECT_TRUE(got(1, "WX de JA1XYZ: sunny"));
  EXPECT_TRUE(got(2, "WX de JA1XYZ: sunny"));
  EXPECT_TRUE(got(4, "WX de JA1XYZ: sunny"));
  Run("WX rain");
  EXPECT_TRUE(got(2, "WX de K1ABC: rain"));
  EXPECT_FALSE(got(4, "WX de K1ABC"));
  Run("SET/FILTER AOC/REJ DL", 2);
  Type(2, "ANNOUNCE hello");
  EXPECT_TRUE(got(2, "To ALL de DL1XYZ: hello"));  // the sender sees their own
  Run("SET/NOFILTERS", 3);
  Run("ANNOUNCE again");
  EXPECT_TRUE(got(3, "To ALL de K1ABC: again"));
}

}  // namespace
}  // namespace qx::testing
