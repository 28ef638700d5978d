#include "feeds/feed_streams.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "core/stream_table.h"

namespace qx {
namespace {

using ::testing::HasSubstr;

TEST(FeedStreamsTest, KindsStatesAndWhoTypes) {
  const std::vector<std::tuple<std::string, int, std::string>> cases = {
      {"SKIMMER", kStateFeedSkimmer, "SKIMMER"},
      {"skm", kStateFeedSkimmer, "SKIMMER"},
      {" RBN ", kStateFeedRbn, "RBN"},
      {"rbn  cw", kStateFeedRbn, "RBN"},
      {"RBN FT8", kStateFeedReporter, "RBN FT8"},
      {"Rbn Digital", kStateFeedReporter, "RBN FT8"}};
  for (const auto& [text, state, who] : cases) {
    FeedStreamKind kind;
    ASSERT_TRUE(FeedStreamKindFromText(text, kind)) << text;
    EXPECT_EQ(FeedStreamState(kind), state) << text;
    FeedStreamKind back;
    ASSERT_TRUE(FeedStreamKindOfState(state, back));
    EXPECT_EQ(back, kind);
    EXPECT_EQ(FeedWhoType(kind), who);
  }
  FeedStreamKind kind;
  EXPECT_FALSE(FeedStreamKindFromText("QXC", kind));
  EXPECT_FALSE(FeedStreamKindFromText("RBNFT8", kind));
  EXPECT_FALSE(FeedStreamKindOfState(kStateNodePc9x, kind));
}

TEST(FeedStreamsTest, CallPromptsAndBrokerAddresses) {
  EXPECT_TRUE(IsCallPrompt("Please enter your call: "));
  EXPECT_TRUE(IsCallPrompt("login:"));
  EXPECT_FALSE(IsCallPrompt("Welcome to the reverse beacon network"));
  EXPECT_FALSE(IsCallPrompt("DX de DL1ABC-#: 14025.1 K1CALL CW 18 dB 1854Z"));

  std::string host;
  int port = 0;
  for (const auto& [address, default_port, expected] :
       std::vector<std::tuple<std::string, std::string, std::string>>{
           {"mqtt.example.org", "", "mqtt.example.org:1883"},
           {"mqtt://10.0.0.1:1884/", "1999", "10.0.0.1:1884"},
           {"tcp://[::1]:1885", "", "::1:1885"},
           {" broker ", "2883", "broker:2883"}}) {
    ASSERT_TRUE(ParseBrokerAddress(address, default_port, host, port)) << address;
    EXPECT_EQ(host + ":" + std::to_string(port), expected);
  }
  EXPECT_FALSE(ParseBrokerAddress("", "1883", host, port));
  EXPECT_FALSE(ParseBrokerAddress("broker", "70000", host, port));
}

TEST(FeedStreamsTest, BackoffDoublesToItsCapAndStartsOver) {
  FeedBackoff b;
  std::vector<int> delays;
  for (int i = 0; i < 8; ++i) delays.push_back(b.NextDelay());
  EXPECT_EQ(delays, (std::vector<int>{5, 10, 20, 40, 80, 160, 300, 300}));
  b.Reset();
  EXPECT_EQ(b.NextDelay(), 5);
}

TEST(FeedStreamsTest, RateCountsTheLastMinuteOnly) {
  FeedRate r;
  r.Add(1000, 5);
  r.Add(1000);
  r.Add(1030, 4);
  EXPECT_EQ(r.InSecond(1030), 4u);
  EXPECT_EQ(r.PerMinute(1030), 10u);
  EXPECT_EQ(r.PerMinute(1059), 10u);
  EXPECT_EQ(r.PerMinute(1060), 4u);  // the second 1000 has left the window
  EXPECT_EQ(r.InSecond(1031), 0u);
  EXPECT_EQ(r.PerMinute(5000), 0u);  // a long silence clears everything
  r.Add(4000, 3);                    // a clock that went back counts in the current second
  EXPECT_EQ(r.PerMinute(5000), 3u);

  // The second just past, asked while the next one already counts (the flood check).
  FeedRate flood;
  flood.Add(2000, 4);
  flood.Add(2001, 2);
  EXPECT_EQ(flood.InSecond(2000), 4u);
  EXPECT_EQ(flood.InSecond(2001), 2u);
  EXPECT_EQ(flood.InSecond(2070), 0u);
  EXPECT_EQ(flood.InSecond(2000), 0u);  // left the minute
}

TEST(FeedStreamsTest, CountsFollowTheDecisions) {
  FeedCounts c;
  for (const auto& [outcome, verdict] : std::vector<std::pair<SkimmerOutcome, SkimmerVerdict>>{
           {SkimmerOutcome::kPass, SkimmerVerdict::kQsy},
           {SkimmerOutcome::kBustedDropped, SkimmerVerdict::kBusted},
           {SkimmerOutcome::kHeld, SkimmerVerdict::kUnverified},
           {SkimmerOutcome::kRefusedDx, SkimmerVerdict::kUnverified}}) {  // refused: no verdict
    SkimmerDecision d;
    d.outcome = outcome;
    d.verdict = verdict;
    c.Count(d);
  }
  EXPECT_EQ(c.verified, 1u);
  EXPECT_EQ(c.busted, 1u);
  EXPECT_EQ(c.unverified, 1u);
  EXPECT_EQ(c.refused, 1u);
  EXPECT_EQ(c.passed, 1u);
}

TEST(FeedStreamsTest, RecentReportsAreBoundedAndShownNewestFirst) {
  RecentReports recent(3);
  const SysTime t0{std::chrono::seconds(1773514440)};  // 14-Mar-2026 18:54Z
  for (int i = 0; i < 4; ++i) {
    recent.Add({t0 + std::chrono::seconds(i), i == 2 ? "K2OTHER" : "K1ABC",
                "DL" + std::to_string(i) + "AAA-#", "14025.0", "CW    18 dB",
                SkimmerVerdict::kVerified, i + 1});
  }
  const auto mine = recent.Of("K1ABC", 10);
  ASSERT_EQ(mine.size(), 2u);  // the first report has left the ring
  EXPECT_EQ(mine[0]->spotter, "DL3AAA-#");
  EXPECT_EQ(recent.Of("K1ABC", 1).size(), 1u);

  FeedStatus s;
  s.name = "RBN";
  s.type = "RBN";
  s.state = "connected";
  s.lines_per_minute = 600;
  s.counts.verified = 7;
  const auto lines = FeedStatusLines({s}, "K1ABC", mine);
  ASSERT_EQ(lines.size(), 5u);
  EXPECT_THAT(lines[1], HasSubstr("connected"));
  EXPECT_THAT(lines[1], HasSubstr("600"));
  EXPECT_THAT(lines[2], HasSubstr("K1ABC"));
  EXPECT_THAT(lines[3], HasSubstr("14-Mar-2026 1854Z"));
  EXPECT_THAT(lines[3], HasSubstr("verified (4)"));
  EXPECT_THAT(FeedStatusLines({}, "K9NONE", {}).back(), HasSubstr("No recent skimmer reports"));
}

TEST(FeedStreamsTest, EveryJudgedReportCarriesTheSpotItWouldBe) {
  const BandTable bands = BandTable::SetupFreqRanges();
  VerifierSettings settings;
  settings.origin_node = "XX0QX";
  SkimmerVerifier v(bands, settings);
  SkimmerReport r;
  ASSERT_EQ(ParseSkimmerLine("DX de DL1ABC-#: 14025.1 K1ABC CW 18 dB 26 WPM CQ 1854Z", r),
            SkimmerLineError::kNone);
  const SysTime now{std::chrono::seconds(1773514440)};
  const SkimmerDecision& held = v.Decide(r, now);
  EXPECT_EQ(held.outcome, SkimmerOutcome::kHeld);
  EXPECT_THAT(held.sentence, HasSubstr("^K1ABC^"));
  EXPECT_THAT(held.sentence, HasSubstr("?1^DL1ABC-#^XX0QX^"));
}

}  // namespace
}  // namespace qx
