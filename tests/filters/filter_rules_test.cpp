#include "filters/filter_rules.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/filters/filter_fixture.h"

namespace qx {
namespace {

class FilterRulesTest : public ::testing::Test {
 protected:
  // The compiled expression of a spot line, or a failure naming the error.
  Predicate Expr(std::string_view text, FilterKind kind = FilterKind::kSpots) {
    FilterError error;
    std::optional<Predicate> p = ParseFilterExpr(text, kind, ctx_, error);
    EXPECT_TRUE(p.has_value()) << text << ": " << error.Text();
    return p ? std::move(*p) : Predicate();
  }
  FilterError Error(std::string_view typed) {
    FilterParseResult r = ParseFilterCommand(typed, ctx_);
    EXPECT_FALSE(r.command.has_value()) << typed;
    return r.error;
  }
  bool Matches(std::string_view text, const SpotFacts& f, int minute = 0) {
    return Expr(text).Matches(f, minute);
  }

  testing::FilterWorld w_;
  FilterParseContext ctx_{&w_.bands, &w_.countries};
};

TEST_F(FilterRulesTest, TermsMatchTheirFields) {
  const SpotFacts f = w_.Facts(14025.0, "K1ABC", "DL1AAA-2", "Loud in EU", "XX0QX");
  struct Case {
    std::string_view expr;
    bool match;
  };
  const Case cases[] = {
      {"on 20m", true},         {"on 20", true},
      {"on hf", true},          {"on vhf", false},
      {"on 40m,20m/cw", true},  {"on 20m/ssb", false},
      {"on 14000/14030", true}, {"on 14030/14100", false},
      {"on 20m/beacon", false}, {"call K1ABC", true},
      {"call k1", true},        {"call =K1AB", false},
      {"call =k1abc", true},    {"call *1A?C", true},
      {"call *X", false},       {"by =DL1AAA", true},
      {"by DL1AAA-3", false},   {"origin XX0*", true},
      {"info eu", true},        {"info USA", false},
      {"call_dxcc W", true},    {"call_dxcc DL,JA", false},
      {"by_dxcc dl", true},     {"call_zone 3-6", true},
      {"call_zone 14", false},  {"call_itu 8", true},
      {"by_itu 28", true},      {"by_zone 14", true},
      {"call_cont na", true},   {"by_cont NA,AS", false},
      {"call_state MA", true},  {"call_state NH,VT", false},
      {"by_state MA", false},
  };
  for (const Case& c : cases) EXPECT_EQ(Matches(c.expr, f), c.match) << c.expr;
}

TEST_F(FilterRulesTest, AndBindsTighterThanOrAndBracketsAndNotWork) {
  const SpotFacts f = w_.Facts(7025.0, "JA1XYZ", "K1ABC");
  EXPECT_TRUE(Matches("on 20m and call JA or by K", f));
  EXPECT_FALSE(Matches("on 20m and (call JA or by K)", f));
  EXPECT_TRUE(Matches("not on 20m and not (call_cont EU or by_cont EU)", f));
  EXPECT_FALSE(Matches("NOT NOT on 20m", f));
  EXPECT_TRUE(Matches("on 40m and call_dxcc JA and by_state MA", f));
  EXPECT_TRUE(Matches("call_dxcc K, JA and on 40m", f));  // a list over blanks after commas
  // Groups stop at the first term that settles them; what follows must still be reached.
  EXPECT_TRUE(Matches("(on 20m and call JA) or (on 40m and not by DL) or call K", f));
  EXPECT_FALSE(Matches("(on 40m or call K) and (by DL or call_cont EU or not on 40m)", f));
  EXPECT_TRUE(Matches("not (on 20m or by DL) and (info x or on 40m) and call =JA1XYZ", f));
  EXPECT_FALSE(Matches("not ((on 40m and by K) or on 20m)", f));
}

TEST_F(FilterRulesTest, SourceTellsHumanSpotsFromFeeds) {
  Spot spot = w_.MakeSpot(14025.0, "K1ABC");
  const SpotFacts human = MakeSpotFacts(spot, w_.bands, nullptr);
  spot.SourceTag = SourceTagText(SpotSource::kSkimmer);
  const SpotFacts skimmer = MakeSpotFacts(spot, w_.bands, nullptr);
  spot.SourceTag = SourceTagText(SpotSource::kReporter);
  const SpotFacts reporter = MakeSpotFacts(spot, w_.bands, nullptr);
  EXPECT_TRUE(Matches("source human", human));
  EXPECT_FALSE(Matches("source human", skimmer));
  EXPECT_TRUE(Matches("source Skimmer,reporter", skimmer));
  EXPECT_TRUE(Matches("source skimmer, reporter", reporter));
  EXPECT_FALSE(Matches("not source reporter", reporter));
  EXPECT_EQ(Error("rej/spots source robot").word, "robot");
  EXPECT_EQ(Error("rej/ann source skimmer").word, "source");  // announcements have no source
}

TEST_F(FilterRulesTest, BadInputNamesTheWord) {
  struct Case {
    std::string_view typed;
    std::string_view word;
    size_t position;
  };
  const Case cases[] = {
      {"ACC/SPOTS on 21x", "21x", 13},
      {"acc/spots on hf and nonsense K", "nonsense", 20},
      {"acc/spots on hf K", "K", 16},
      {"acc/spots (on hf", "(", 10},
      {"acc/spots on hf and", "", 19},
      {"acc/spots call_zone 41", "41", 20},
      {"acc/spots call_cont XX", "XX", 20},
      {"acc/spots by K1^ABC", "^", 15},
      {"rej/ann on hf", "on", 8},
      {"acc/bogus on hf", "bogus", 4},
      {"clear/spots 12", "12", 12},
      {"set/filter DOC/MAYBE K", "MAYBE", 15},
      {"set/filter XYZ/PASS K", "XYZ", 11},
      {"set/filter BANDTIME/PASS 160:2500-0800", "2500-0800", 29},
      {"set/dxbm 12/x", "x", 12},
      {"set/dxbm 4294967296", "4294967296", 9},
  };
  for (const Case& c : cases) {
    const FilterError e = Error(c.typed);
    EXPECT_EQ(e.word, c.word) << c.typed << ": " << e.Text();
    EXPECT_EQ(e.position, c.position) << c.typed << ": " << e.Text();
    EXPECT_FALSE(e.message.empty());
  }
}

TEST_F(FilterRulesTest, NestingListsAndLengthAreBounded) {
  std::string deep = "acc/spots ";
  for (int i = 0; i < 100000; ++i) deep += "(";
  EXPECT_EQ(Error(deep).message, "the filter is too long");
  deep = "acc/spots " + std::string(kMaxFilterDepth, '(') + "on hf" +
         std::string(kMaxFilterDepth, ')');
  EXPECT_NE(Error(deep).message.find("nested"), std::string::npos);
  EXPECT_TRUE(ParseFilterCommand("acc/spots ((((((( on hf )))))))", ctx_).command);
  std::string nots = "acc/spots ";
  for (int i = 0; i < kMaxFilterDepth; ++i) nots += "not ";
  EXPECT_NE(Error(nots + "on hf").message.find("nested"), std::string::npos);

  std::string list = "acc/spots call K1";
  for (size_t i = 0; i < kMaxListItems; ++i) list += ",K1";
  EXPECT_EQ(Error(list).message, "too many items in the list");
  std::string terms = "acc/spots on hf";
  for (size_t i = 0; i < kMaxFilterTerms; ++i) terms += " or on hf";
  EXPECT_EQ(Error(terms).message, "too many terms");
}

TEST_F(FilterRulesTest, CommandsParseIntoTheirActions) {
  auto cmd = ParseFilterCommand("  rej/spot 0 on 60m  ", ctx_).command;
  ASSERT_TRUE(cmd);
  EXPECT_EQ(cmd->action, FilterCommand::Action::kSetRule);
  EXPECT_EQ(cmd->rule.id, "R0");
  EXPECT_FALSE(cmd->rule.pass);
  EXPECT_EQ(cmd->rule.text, "rej/spot 0 on 60m");
  cmd = ParseFilterCommand("ACCEPT/ANNOUNCE by_dxcc DL", ctx_).command;
  ASSERT_TRUE(cmd);
  EXPECT_EQ(cmd->rule.id, "A1");
  EXPECT_EQ(cmd->rule.kind, FilterKind::kAnnounce);
  cmd = ParseFilterCommand("CLEAR/WWV all", ctx_).command;
  ASSERT_TRUE(cmd);
  EXPECT_EQ(cmd->action, FilterCommand::Action::kClearLines);
  EXPECT_EQ(cmd->line, -1);
  cmd = ParseFilterCommand("SET/DXBANDMODE 5", ctx_).command;
  ASSERT_TRUE(cmd);
  EXPECT_EQ(cmd->mask, 5u);
  EXPECT_FALSE(cmd->has_mask2);
  cmd = ParseFilterCommand("SET/FILTER WOS/OFF", ctx_).command;
  ASSERT_TRUE(cmd);
  EXPECT_EQ(cmd->action, FilterCommand::Action::kRemoveRule);
  EXPECT_EQ(cmd->kind, FilterKind::kWwv);
  EXPECT_EQ(cmd->id, "WOS");
}

}  // namespace
}  // namespace qx
