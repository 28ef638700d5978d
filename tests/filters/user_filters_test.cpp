#include "filters/user_filters.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/filters/filter_fixture.h"

namespace qx {
namespace {

class UserFiltersTest : public ::testing::Test {
 protected:
  void Run(std::vector<std::string_view> commands) {
    for (std::string_view c : commands) {
      const UserFilters::Reply r = f_.Apply(c);
      EXPECT_TRUE(r.ok) << c << ": " << r.text;
    }
  }
  FilterDecision Check(double khz, std::string_view dx, std::string_view spotter = "DL1AAA",
                       std::string_view comment = "", int minute = 12 * 60) {
    return f_.Check(w_.Facts(khz, dx, spotter, comment), minute);
  }

  testing::FilterWorld w_;
  UserFilters f_{w_.bands, &w_.countries};
};

TEST_F(UserFiltersTest, RejectLinesComeFirstAndAnAcceptLineMustMatch) {
  EXPECT_TRUE(Check(14025.0, "K1ABC").pass);
  EXPECT_TRUE(Check(14025.0, "K1ABC").rule_id.empty());
  Run({"acc/spots 2 on hf", "rej/spots 5 call_dxcc JA", "acc/spots 1 by_cont NA"});
  FilterDecision d = Check(14025.0, "K1ABC");
  EXPECT_TRUE(d.pass);
  EXPECT_EQ(d.rule_id, "A2");  // A1 is tested first but does not match
  EXPECT_EQ(d.rule_text, "acc/spots 2 on hf");
  d = Check(14025.0, "JA1XYZ");
  EXPECT_FALSE(d.pass);
  EXPECT_EQ(d.rule_id, "R5");
  d = Check(50100.0, "K1ABC");
  EXPECT_FALSE(d.pass);
  EXPECT_EQ(d.rule_id, "ACCEPT");
  EXPECT_TRUE(Check(50100.0, "K1ABC", "W1AW").pass);  // A1: spotter in NA

  // Typing a line again replaces it; CLEAR takes one line or all.
  Run({"acc/spots 2 on vhf"});
  EXPECT_FALSE(Check(14025.0, "K1ABC").pass);
  Run({"clear/spots 2"});
  EXPECT_EQ(f_.Apply("clear/spots 2").text, "No SPOTS filter line 2");
  EXPECT_EQ(f_.Apply("clear/spots all").text, "2 SPOTS filter lines cleared");
  EXPECT_TRUE(Check(14025.0, "JA1XYZ").pass);
  EXPECT_FALSE(f_.HasRules());
}

TEST_F(UserFiltersTest, KeywordRulesPassOrRejectByCountryStateAndWords) {
  Run({"SET/FILTER DXCTY/PASS K,JA", "set/filter dos/rej ON",
       "SET/FILTER KEYWORD/REJ CW,ROS,PSK,IOTA,JT65,JT9"});
  EXPECT_TRUE(Check(21300.0, "W1AW").pass);  // "W" is the United States, main prefix K
  FilterDecision d = Check(21300.0, "DL1XYZ");
  EXPECT_FALSE(d.pass);
  EXPECT_EQ(d.rule_id, "DXCTY");
  EXPECT_EQ(d.rule_text, "SET/FILTER DXCTY/PASS K,JA");
  EXPECT_EQ(Check(21300.0, "JA1XYZ", "VE3XYZ").rule_id, "DOS");
  EXPECT_EQ(Check(21300.0, "JA1XYZ", "DL1AAA", "iota AS-007").rule_id, "KEYWORD");
  EXPECT_EQ(Check(21300.0, "JA1XYZ", "DL1AAA", "psk31 up").rule_id, "KEYWORD");
  EXPECT_TRUE(Check(21300.0, "JA1XYZ", "DL1AAA", "Rostock? no: cwt").pass);
  Run({"set/filter DXCTY/OFF", "SET/FILTER DXSTATE/PASS ma"});
  EXPECT_TRUE(Check(21300.0, "K1ABC").pass);
  EXPECT_EQ(Check(21300.0, "DL1XYZ").rule_id, "DXSTATE");  // no state known: not in MA

  // Announcement and WX origin filters work on the announcer alone.
  Run({"SET/FILTER AOC/REJ DL", "SET/FILTER WOS/PASS MA", "rej/ann by =K1ABC"});
  auto ann = [&](std::string_view call) {
    return MakeOriginFacts(call, "hello", "XX0QX", &w_.countries, &w_.states);
  };
  EXPECT_EQ(f_.CheckAnnounce(ann("DL1AAA")).rule_id, "AOC");
  EXPECT_EQ(f_.CheckAnnounce(ann("K1ABC")).rule_id, "R1");
  EXPECT_TRUE(f_.CheckAnnounce(ann("JA1XYZ")).pass);
  EXPECT_TRUE(f_.CheckWwv(ann("K1ABC")).pass);
  EXPECT_EQ(f_.CheckWwv(ann("JA1XYZ")).rule_id, "WOS");
  EXPECT_TRUE(Check(21300.0, "K1ABC", "DL1AAA").pass);  // AOC leaves spots alone
}

TEST_F(UserFiltersTest, BandTimeWindowsWrapMidnightAndLeaveOtherBandsAlone) {
  Run({"SET/FILTER BANDTIME/PASS 160:2000-0800,80:1900-0900"});
  EXPECT_TRUE(Check(1825.0, "K1ABC", "DL1AAA", "", 23 * 60).pass);
  EXPECT_TRUE(Check(1825.0, "K1ABC", "DL1AAA", "", 7 * 60 + 59).pass);
  EXPECT_FALSE(Check(1825.0, "K1ABC", "DL1AAA", "", 8 * 60).pass);
  EXPECT_EQ(Check(3525.0, "K1ABC", "DL1AAA", "", 12 * 60).rule_id, "BANDTIME");
  EXPECT_TRUE(Check(3525.0, "K1ABC", "DL1AAA", "", 19 * 60).pass);
  EXPECT_TRUE(Check(14025.0, "K1ABC", "DL1AAA", "", 12 * 60).pass);
  Run({"SET/FILTER BANDTIME/REJ 20:1200-1300"});
  EXPECT_FALSE(Check(14025.0, "K1ABC", "DL1AAA", "", 12 * 60 + 30).pass);
  EXPECT_TRUE(Check(14025.0, "K1ABC", "DL1AAA", "", 13 * 60).pass);
  EXPECT_TRUE(Check(1825.0, "K1ABC", "DL1AAA", "", 12 * 60).pass);
}

TEST_F(UserFiltersTest, PresetsAndBandModeMask) {
  // A new user holds the wide numbers and misses nothing an unfiltered user gets.
  EXPECT_EQ(f_.dxbm(), kDxbmNewUser);
  for (double khz : {1825.0, 5357.0, 10120.0, 18100.0, 24950.0, 28500.0, 50313.0, 144300.0}) {
    EXPECT_TRUE(Check(khz, "K1ABC").pass) << khz;
  }
  Run({"SET/DXBM 1610792964/65535", "SET/FILTER KEYWORD/REJ CW,ROS,PSK,IOTA,JT65,JT9",
       "SET/FILTER BANDTIME/OFF"});
  EXPECT_TRUE(Check(28500.0, "K1ABC").pass);
  const FilterDecision d = Check(18100.0, "K1ABC");
  EXPECT_FALSE(d.pass);
  EXPECT_EQ(d.rule_id, "DXBM");
  EXPECT_EQ(d.rule_text, "SET/DXBM 1610792964/65535 (160m,80m,40m,20m,15m,10m)");
  Run({"SET/FILTER DOC/OFF", "SET/FILTER DOS/OFF", "SET/FILTER DXCTY/OFF", "SET/FILTER DXSTATE/OFF",
       "SET/FILTER WOC/OFF", "SET/FILTER WOS/OFF", "SET/FILTER AOC/OFF", "SET/FILTER AOS/OFF",
       "SET/DXBM 1006827524/15370", "SET/FILTER KEYWORD/OFF"});
  EXPECT_TRUE(Check(18100.0, "K1ABC", "DL1AAA", "cw").pass);
  EXPECT_FALSE(f_.HasRules());

  // The words form wins until the numbers are set again; a second mask alone keeps the first.
  Run({"SET/FILTER DXBM/PASS 160-CW,20,40-FT8"});
  EXPECT_TRUE(Check(7075.0, "K1ABC").pass);
  EXPECT_FALSE(Check(7025.0, "K1ABC").pass);
  EXPECT_FALSE(Check(1900.0, "K1ABC").pass);
  EXPECT_EQ(f_.Describe().front(),
            "DXBM: 160m-CW,40m-FT8,20m (SET/FILTER DXBM/PASS 160-CW,20,40-FT8)");
  Run({"SET/FILTER DXBM/OFF"});
  EXPECT_TRUE(Check(1900.0, "K1ABC").pass);
  Run({"SET/DXBM 1610792964"});
  EXPECT_EQ(f_.dxbm2(), kDxbmNewUser2);
  f_.SetDxbm(0, 0);
  EXPECT_EQ(f_.dxbm(), kDxbmStoredZero);
  EXPECT_EQ(f_.dxbm2(), kDxbmStoredZero2);
}

TEST_F(UserFiltersTest, RulesSurviveTheRecordAndBadInputChangesNothing) {
  Run({"Acc/Spots 3 on hf/cw and (call_dxcc JA or call_zone 25)", "REJECT/SPOTS by K1ABC",
       "SET/FILTER DXBM/REJ 60", "set/filter keyword/pass DX", "ACC/WWV by_cont EU"});
  const std::vector<std::string> lines = f_.RecordLines();
  const std::vector<std::string> described = f_.Describe();
  EXPECT_EQ(lines.size(), 5u);
  EXPECT_EQ(lines[0], "SPOTS^DXBM^SET/FILTER DXBM/REJ 60");

  const UserFilters::Reply bad = f_.Apply("acc/spots 3 on hf and call_dxcc");
  EXPECT_FALSE(bad.ok);
  EXPECT_EQ(bad.text, "Filter error at the end: \"call_dxcc\" needs a value");
  EXPECT_FALSE(f_.Apply("set/filter doc/pass K,,DL").ok);
  EXPECT_EQ(f_.RecordLines(), lines);

  UserFilters loaded(w_.bands, &w_.countries);
  std::vector<std::string> stored = lines;
  stored.push_back("SPOTS^A4^acc/spots on 99m");
  stored.push_back("SPOTS^A5^clear/spots all");
  stored.push_back("junk");
  EXPECT_EQ(loaded.Load(stored).size(), 3u);
  EXPECT_EQ(loaded.RecordLines(), lines);
  EXPECT_EQ(loaded.Describe(), described);
  for (double khz : {14025.0, 14200.0, 5357.0}) {
    for (std::string_view dx : {"JA1XYZ", "K1ABC"}) {
      for (std::string_view comment : {"dx", "tnx"}) {
        const SpotFacts facts = w_.Facts(khz, dx, "DL1AAA", comment);
        EXPECT_EQ(loaded.Check(facts, 0).pass, f_.Check(facts, 0).pass);
        EXPECT_EQ(loaded.Check(facts, 0).rule_id, f_.Check(facts, 0).rule_id);
      }
    }
  }
  EXPECT_EQ(loaded.Check(w_.Facts(14025.0, "JA1XYZ", "DL1AAA", "dx"), 0).rule_id, "A3");
}

}  // namespace
}  // namespace qx
