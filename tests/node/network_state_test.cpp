// The saved view survives the trip through its file, and through the view of a restarted
// node: what a surviving link reached comes back, what only a lost link reached does not.
#include "node/network_state.h"

#include <gtest/gtest.h>

#include "node/pc9x_time.h"
#include "tests/node/node_test_util.h"

namespace qx {
namespace {

constexpr int kKept = 4;
constexpr int kLost = 6;

// A view reached over two links: Q9ZZZ-2 (with Q8YYY behind it) on kKept, Q6WWW on kLost.
NetworkView TwoLinkView() {
  NetworkView v("Q1AAA");
  v.LinkUp(kKept, "Q9ZZZ-2", true);
  v.LinkUp(kLost, "Q6WWW", false);
  const auto apply = [&](std::string_view line, int stream) {
    EXPECT_TRUE(v.ApplyPc92(test::MakeSentence(line, stream).fields, stream)) << line;
  };
  apply("PC92^Q9ZZZ-2^81598^C^5Q9ZZZ-2:5300^5Q8YYY:198.51.100.1^1Q5USR:198.51.100.7^H99^", kKept);
  apply("PC92^Q8YYY^81599^C^5Q8YYY:5457^1Q8USR^H98^", kKept);
  apply("PC92^Q6WWW^81600^C^5Q6WWW^1Q6USR^H99^", kLost);
  return v;
}

std::vector<NetworkView::Node> SavedNodes() {
  const NetworkView v = TwoLinkView();
  std::vector<NetworkView::Node> out;
  for (const auto& [call, n] : v.nodes()) out.push_back(n);
  return out;
}

TEST(NetworkStateTest, RoundTripKeepsEveryFactAndRefusesACutFile) {
  NetworkState s;
  s.saved_at = 1795000000;
  s.our_stamp = "81601.03";
  s.links = {{kKept, 1795000001, "Q9ZZZ-2"}};
  s.nodes = SavedNodes();
  s.origins = {{"Q9ZZZ-2", 81598}, {"Q8YYY", 81599.01}};
  s.local_users = {"Q1USR", "Q1SYS-2"};
  const std::string text = FormatNetworkState(s);

  NetworkState back;
  std::string error;
  ASSERT_TRUE(ParseNetworkState(text, &back, &error)) << error << text;
  EXPECT_EQ(FormatNetworkState(back), text);
  EXPECT_EQ(back.our_stamp, "81601.03");
  ASSERT_EQ(back.links.size(), 1u);
  EXPECT_EQ(back.links[0].tag, 1795000001);
  ASSERT_EQ(back.nodes.size(), 3u);
  const NetworkView::Node& q8 = back.nodes[1];
  EXPECT_EQ(q8.call, "Q8YYY");
  EXPECT_EQ(q8.users, std::set<std::string>{"Q8USR"});
  EXPECT_EQ(q8.version, "5457");
  EXPECT_DOUBLE_EQ(back.origins[1].second, 81599.01);
  EXPECT_EQ(back.local_users, s.local_users);

  // A file cut anywhere, or that is something else, is not taken.
  EXPECT_FALSE(ParseNetworkState(text.substr(0, text.size() - 4), &back, &error));
  EXPECT_FALSE(ParseNetworkState(text.substr(0, text.find("user")), &back, &error));
  EXPECT_FALSE(ParseNetworkState("Cluster Call^Q1AAA\n", &back, &error));
  std::string bad = text;
  bad.replace(bad.find("route Q8YYY"), 11, "route Q8YYY x");
  EXPECT_FALSE(ParseNetworkState(bad, &back, &error));
  EXPECT_TRUE(test::Has(error, "line"));
}

TEST(NetworkStateTest, RestoredViewKeepsOnlyWhatSurvivingLinksReach) {
  const std::vector<NetworkView::Node> saved = SavedNodes();

  NetworkView v("Q1AAA");
  v.LinkUp(kKept, "Q9ZZZ-2", true);  // the only link the front-end still holds
  const std::vector<std::string> lost = v.Restore(saved, {kKept});
  EXPECT_EQ(lost, std::vector<std::string>{"Q6WWW"});
  EXPECT_EQ(v.RouteTo("Q8USR"), kKept);
  EXPECT_EQ(v.RouteTo("Q5USR"), kKept);
  EXPECT_EQ(v.RouteTo("Q6USR"), 0);
  EXPECT_EQ(v.UserCount(), 2);
  EXPECT_EQ(v.FindNode("Q8YYY")->version, "5457");
}

TEST(NetworkStateTest, StampsGoOnAfterARestart) {
  Pc9xStampGenerator before;
  before.Next(81600);
  before.Next(81600);
  Pc9xStampGenerator after;
  after.ResumeAfter(before.Last());
  EXPECT_EQ(before.Last(), "81600.01");
  EXPECT_EQ(after.Next(81600), "81600.02");  // the same second: never the same stamp

  Pc9xTimeCheck check("Q1AAA");
  check.Remember("Q9ZZZ-2", 81600);
  EXPECT_EQ(check.Check("Q9ZZZ-2", "81600", 81600, true), Pc9xTimeCheck::Verdict::kNotNewer);
  EXPECT_EQ(check.Check("Q9ZZZ-2", "81601", 81601, true), Pc9xTimeCheck::Verdict::kAccept);
  check.Remember("Q9ZZZ-2", 81000);  // an older saved stamp never replaces a newer one
  EXPECT_EQ(check.Last("Q9ZZZ-2"), 81601);
}

}  // namespace
}  // namespace qx
