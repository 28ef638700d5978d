#include "node/network_view.h"

#include <gtest/gtest.h>

#include <map>
#include <set>
#include <string>
#include <vector>

#include "tests/node/node_test_util.h"

namespace qx {
namespace {

constexpr int kPeer = 1;
constexpr int kOther = 2;
constexpr int kLegacy = 3;

class NetworkViewTest : public ::testing::Test {
 protected:
  bool Pc92(std::string_view line, int stream = kPeer) {
    return view_.ApplyPc92(test::MakeSentence(line, stream).fields, stream);
  }
  // The legacy sentences, applied as if they came in on stream.
  bool Pc16(std::string_view line, int stream) {
    return view_.ApplyPc16(test::MakeSentence(line).fields, stream);
  }
  bool Pc17(std::string_view line, int stream) {
    return view_.ApplyPc17(test::MakeSentence(line).fields, stream);
  }
  bool Pc19(std::string_view line, int stream, std::string_view neighbour) {
    return view_.ApplyPc19(test::MakeSentence(line).fields, stream, neighbour);
  }
  bool Pc21(std::string_view line, int stream) {
    return view_.ApplyPc21(test::MakeSentence(line).fields, stream);
  }
  bool Repeat(std::string_view line, int stream) {
    return view_.NotePc92Route(test::MakeSentence(line, stream).fields, stream);
  }
  NetworkView view_{"Q1AAA"};
};

TEST_F(NetworkViewTest, Pc92ConfigAddAndDelete) {
  view_.LinkUp(kPeer, "Q9ZZZ-2", true);
  EXPECT_TRUE(
      Pc92("PC92^Q9ZZZ-2^81598^C^5Q9ZZZ-2:5300^7Q7XXX:127.0.0.1^5Q8YYY:127.0.0.1^"
           "1Q5USR:198.51.100.7^H99^"));
  EXPECT_EQ(view_.NodeCount(), 3);
  EXPECT_EQ(view_.UserCount(), 1);
  EXPECT_EQ(view_.FindNode("Q9ZZZ-2")->version, "5300");
  EXPECT_EQ(view_.RouteTo("Q5USR"), kPeer);
  EXPECT_EQ(view_.RouteTo("Q7XXX"), kPeer);

  // A: slot 1 empty means the origin itself.
  EXPECT_TRUE(Pc92("PC92^Q9ZZZ-2^81600^A^^1Q6USR:198.51.100.8^0Q6AWY^H99^"));
  EXPECT_EQ(view_.UserCount(), 3);
  // A about a legacy node the origin owns.
  EXPECT_TRUE(Pc92("PC92^Q9ZZZ-2^81608^A^7Q7XXX^1Q7USR^H99^"));
  EXPECT_EQ(view_.FindNode("Q7XXX")->users.count("Q7USR"), 1u);

  EXPECT_TRUE(Pc92("PC92^Q9ZZZ-2^81610^D^^1Q6USR^H99^"));
  EXPECT_EQ(view_.UserCount(), 3);
  EXPECT_EQ(view_.RouteTo("Q6USR"), 0);

  // C replaces the whole list: Q5USR and Q6AWY are gone, Q8YYY is no longer listed.
  EXPECT_TRUE(Pc92("PC92^Q9ZZZ-2^81700^C^5Q9ZZZ-2^7Q7XXX^1Q9USR^H99^"));
  const auto who = view_.Users();
  ASSERT_EQ(who.size(), 2u);
  EXPECT_EQ(who[0], (std::pair<std::string, std::string>{"Q7USR", "Q7XXX"}));
  EXPECT_EQ(who[1], (std::pair<std::string, std::string>{"Q9USR", "Q9ZZZ-2"}));
  EXPECT_EQ(view_.FindNode("Q9ZZZ-2")->child_nodes.count("Q8YYY"), 0u);
  // Nothing else reached Q8YYY: it left with the list that dropped it.
  EXPECT_EQ(view_.FindNode("Q8YYY"), nullptr);
  EXPECT_NE(view_.FindNode("Q7XXX"), nullptr);
}

TEST_F(NetworkViewTest, Pc92IgnoresWhatItMustNotTake) {
  EXPECT_FALSE(Pc92("PC92^Q1AAA^100^A^^1Q5USR^H99^"));  // our own call as origin
  EXPECT_FALSE(Pc92("PC92^Q6WWW^100^D^^1Q5USR^H99^"));  // D for an unknown origin
  EXPECT_EQ(view_.NodeCount(), 0);
  EXPECT_FALSE(Pc92("PC92^Q6WWW^100^Z^^1Q5USR^H99^"));
  EXPECT_FALSE(Pc92("PC92^Q6WWW^100^"));
  EXPECT_TRUE(Pc92("PC92^Q6WWW^100^A^^1Q1AAA^9BAD^H99^"));  // our call as a child is skipped
  EXPECT_EQ(view_.UserCount(), 0);
}

TEST_F(NetworkViewTest, DeleteThatNamesTheListOwnerItself) {
  EXPECT_TRUE(Pc92("PC92^Q9ZZZ-2^100^A^7Q7XXX^5Q6WWW^1Q7USR^H99^"));
  EXPECT_TRUE(Pc92("PC92^Q9ZZZ-2^101^D^7Q7XXX^7Q7XXX^5Q6WWW^5Q9ZZZ-2^H99^"));
  ASSERT_NE(view_.FindNode("Q7XXX"), nullptr);
  EXPECT_EQ(view_.FindNode("Q6WWW"), nullptr);
  EXPECT_EQ(view_.FindNode("Q7XXX")->users.count("Q7USR"), 1u);
  EXPECT_NE(view_.FindNode("Q9ZZZ-2"), nullptr);  // the origin does not delete itself
}

TEST_F(NetworkViewTest, KeepaliveRecordsVersionAndRoute) {
  EXPECT_TRUE(Pc92("PC92^Q8YYY^80562.01^K^5Q8YYY:5457:46^1^1^H97^", kOther));
  EXPECT_TRUE(Pc92("PC92^Q8YYY^80563^K^5Q8YYY:5457:46^1^1^H99^", kPeer));
  const NetworkView::Node* n = view_.FindNode("Q8YYY");
  ASSERT_NE(n, nullptr);
  EXPECT_EQ(n->version, "5457");
  EXPECT_EQ(n->build, "46");
  EXPECT_TRUE(n->pc9x);
  // Talk goes the way with the most hops left.
  EXPECT_EQ(view_.RouteTo("Q8YYY"), kPeer);
}

TEST_F(NetworkViewTest, RoutesThroughTheNodeAUserIsOn) {
  view_.LinkUp(kPeer, "Q9ZZZ-2", true);
  view_.LinkUp(kOther, "Q8YYY", true);
  EXPECT_TRUE(Pc92("PC92^Q6WWW^100^A^^1Q6USR^H95^", kOther));
  EXPECT_TRUE(Pc92("PC92^Q6WWW^101^A^^1Q6USR^H97^", kPeer));
  EXPECT_EQ(view_.RouteTo("Q6USR"), kPeer);
  view_.LinkDown(kPeer);
  EXPECT_EQ(view_.RouteTo("Q6USR"), kOther);
  EXPECT_EQ(view_.FindNode("Q9ZZZ-2"), nullptr);
  view_.LinkDown(kOther);
  EXPECT_EQ(view_.RouteTo("Q6USR"), 0);
  EXPECT_EQ(view_.NodeCount(), 0);
}

// A peer can describe a chain of nodes, each under the one before, as long as it likes, and
// loops in it: finding a route must neither recurse that deep nor go round.
TEST_F(NetworkViewTest, RoutesThroughLongChainsAndLoopsOfParents) {
  view_.LinkUp(kPeer, "Q9ZZZ-2", true);
  constexpr int kChain = 20000;
  const auto name = [](int k) { return "Q" + std::to_string(k) + "AA"; };
  ASSERT_TRUE(Pc92("PC92^Q9ZZZ-2^100^A^^7" + name(0) + "^H99^"));
  for (int k = 0; k < kChain; ++k) {
    ASSERT_TRUE(Pc92("PC92^Q9ZZZ-2^100^A^7" + name(k) + "^7" + name(k + 1) + "^H99^"));
  }
  ASSERT_TRUE(Pc92("PC92^Q9ZZZ-2^100^A^7" + name(kChain) + "^1Q5END^H99^"));
  // The last node closes a loop back to the first.
  ASSERT_TRUE(Pc92("PC92^Q9ZZZ-2^100^A^7" + name(kChain) + "^7" + name(0) + "^H99^"));
  EXPECT_EQ(view_.RouteTo(name(kChain)), kPeer);
  EXPECT_EQ(view_.RouteTo("Q5END"), kPeer);
  EXPECT_EQ(view_.RouteTo("Q0NOBODY"), 0);
}

// A node may speak for the legacy nodes it owns, not for other PC9x nodes nor for our own
// neighbours.
TEST_F(NetworkViewTest, ListsOnBehalfOfOthersAreTakenOnlyForTheirLegacyNodes) {
  view_.LinkUp(kPeer, "Q9ZZZ-2", true);
  view_.LinkUp(kLegacy, "Q7XXX", false);
  ASSERT_TRUE(Pc16("PC16^Q7XXX^Q7USR - 1^H25^", kLegacy));
  EXPECT_TRUE(Pc92("PC92^Q9ZZZ-2^100^C^7Q7XXX^1Q7FAKE^H99^"));
  EXPECT_EQ(view_.FindNode("Q7XXX")->users, std::set<std::string>{"Q7USR"});
  EXPECT_FALSE(Pc92("PC92^Q9ZZZ-2^101^A^5Q8YYY^1Q8FAKE^H99^"));
  EXPECT_EQ(view_.RouteTo("Q8FAKE"), 0);
  // Its own legacy node is fine.
  EXPECT_TRUE(Pc92("PC92^Q9ZZZ-2^102^A^7Q6OLD^1Q6USR^H99^"));
  EXPECT_EQ(view_.RouteTo("Q6USR"), kPeer);
}

// Healing: what another link still reaches stays when one goes ------------------------------

TEST_F(NetworkViewTest, RepeatOnASecondLinkKeepsTheOriginWhenTheFirstGoes) {
  view_.LinkUp(kPeer, "Q9ZZZ-2", true);
  view_.LinkUp(kOther, "Q8YYY", true);
  EXPECT_TRUE(Pc92("PC92^Q6WWW^100^C^5Q6WWW:5457^7Q5OLD^1Q6USR^H97^", kPeer));
  EXPECT_TRUE(Pc92("PC92^Q6WWW^101^A^7Q5OLD^1Q5USR^H97^", kPeer));
  // The same sentence over the other neighbour: a second route, nothing applied twice.
  EXPECT_TRUE(Repeat("PC92^Q6WWW^101^A^7Q5OLD^1Q5USR^H95^", kOther));
  const NetworkView::Node* origin = view_.FindNode("Q6WWW");
  ASSERT_NE(origin, nullptr);
  EXPECT_EQ(origin->routes, (std::map<int, int>{{kPeer, 97}, {kOther, 95}}));
  // The legacy node hangs under its owner and has no route of its own.
  EXPECT_TRUE(view_.FindNode("Q5OLD")->routes.empty());
  EXPECT_EQ(view_.RouteTo("Q5USR"), kPeer);
  // An unknown origin is not created by a repeat.
  EXPECT_FALSE(Repeat("PC92^Q4VVV^101^K^5Q4VVV^1^1^H95^", kOther));
  EXPECT_EQ(view_.FindNode("Q4VVV"), nullptr);

  EXPECT_EQ(view_.LinkDown(kPeer), std::vector<std::string>{"Q9ZZZ-2"});
  ASSERT_NE(view_.FindNode("Q6WWW"), nullptr);
  ASSERT_NE(view_.FindNode("Q5OLD"), nullptr);
  EXPECT_EQ(view_.UserCount(), 2);
  EXPECT_EQ(view_.RouteTo("Q6USR"), kOther);
  EXPECT_EQ(view_.RouteTo("Q5USR"), kOther);
  EXPECT_EQ(view_.RouteTo("Q5OLD"), kOther);

  EXPECT_EQ(view_.LinkDown(kOther), (std::vector<std::string>{"Q5OLD", "Q6WWW", "Q8YYY"}));
  EXPECT_EQ(view_.NodeCount(), 0);
  EXPECT_EQ(view_.UserCount(), 0);
}

TEST_F(NetworkViewTest, ChildStaysWhileOneOfItsParentsIsReached) {
  view_.LinkUp(kPeer, "Q9ZZZ-2", true);
  view_.LinkUp(kOther, "Q8YYY", true);
  // Q5OLD is reported by two owners, each reached over one link only.
  EXPECT_TRUE(Pc92("PC92^Q4VVV^100^A^^7Q5OLD^H97^", kPeer));
  EXPECT_TRUE(Pc92("PC92^Q6WWW^100^A^^7Q5OLD^H96^", kOther));
  EXPECT_TRUE(Pc92("PC92^Q6WWW^101^A^7Q5OLD^1Q5USR^H96^", kOther));
  EXPECT_EQ(view_.LinkDown(kPeer), (std::vector<std::string>{"Q4VVV", "Q9ZZZ-2"}));
  ASSERT_NE(view_.FindNode("Q5OLD"), nullptr);
  EXPECT_EQ(view_.RouteTo("Q5USR"), kOther);
}

TEST_F(NetworkViewTest, NeighbourListedByAnotherNeighbourOutlivesItsLink) {
  view_.LinkUp(kPeer, "Q9ZZZ-2", true);
  view_.LinkUp(kOther, "Q8YYY", true);
  // A ring: each neighbour lists the other.
  EXPECT_TRUE(Pc92("PC92^Q9ZZZ-2^100^C^5Q9ZZZ-2^5Q8YYY^5Q1AAA^1Q9USR^H99^", kPeer));
  EXPECT_TRUE(Pc92("PC92^Q8YYY^100^C^5Q8YYY^5Q9ZZZ-2^5Q1AAA^1Q8USR^H99^", kOther));
  EXPECT_TRUE(view_.LinkDown(kPeer).empty());
  ASSERT_NE(view_.FindNode("Q9ZZZ-2"), nullptr);
  EXPECT_EQ(view_.RouteTo("Q9USR"), kOther);
  EXPECT_EQ(view_.UserCount(), 2);
  // Listing each other keeps nothing alive once no link reaches either.
  EXPECT_EQ(view_.LinkDown(kOther), (std::vector<std::string>{"Q8YYY", "Q9ZZZ-2"}));
  EXPECT_EQ(view_.NodeCount(), 0);
}

TEST_F(NetworkViewTest, DeleteKeepsANodeSomebodyElseStillLists) {
  view_.LinkUp(kPeer, "Q9ZZZ-2", true);
  EXPECT_TRUE(Pc92("PC92^Q9ZZZ-2^100^C^5Q9ZZZ-2^5Q6WWW^H99^"));
  EXPECT_TRUE(Pc92("PC92^Q8YYY^100^C^5Q8YYY^5Q6WWW^H98^"));
  EXPECT_TRUE(Pc92("PC92^Q6WWW^100^C^5Q6WWW^7Q5OLD^1Q6USR^H97^"));
  EXPECT_TRUE(Pc92("PC92^Q6WWW^101^A^7Q5OLD^1Q5USR^H97^"));
  // Q9ZZZ-2 lost its link to Q6WWW; Q8YYY still has one.
  EXPECT_TRUE(Pc92("PC92^Q9ZZZ-2^101^D^^5Q6WWW^H99^"));
  ASSERT_NE(view_.FindNode("Q6WWW"), nullptr);
  EXPECT_EQ(view_.UserCount(), 2);
  // Now nobody lists it: it goes although its old route remains, and so does what it owned.
  EXPECT_TRUE(Pc92("PC92^Q8YYY^101^D^^5Q6WWW^H98^"));
  EXPECT_EQ(view_.FindNode("Q6WWW"), nullptr);
  EXPECT_EQ(view_.FindNode("Q5OLD"), nullptr);
  EXPECT_EQ(view_.UserCount(), 0);
  EXPECT_EQ(view_.Nodes(), (std::vector<std::string>{"Q8YYY", "Q9ZZZ-2"}));
}

// Expiry ----------------------------------------------------------------------------------------

TEST_F(NetworkViewTest, QuietNodesExpireAfterThreeKeepaliveTicks) {
  view_.LinkUp(kPeer, "Q9ZZZ-2", true);
  view_.LinkUp(kLegacy, "Q7XXX", false);
  EXPECT_TRUE(Pc92("PC92^Q6WWW^100^C^5Q6WWW^7Q5OLD^1Q6USR^H97^"));
  EXPECT_TRUE(Pc92("PC92^Q8YYY^100^K^5Q8YYY:5457:1^1^0^H98^"));
  EXPECT_EQ(view_.FindNode("Q6WWW")->life, NetworkView::kLife);
  EXPECT_TRUE(view_.KeepaliveTick().empty());
  EXPECT_TRUE(view_.KeepaliveTick().empty());
  EXPECT_EQ(view_.FindNode("Q6WWW")->life, 1);
  // A K from one of them in between, and a sign of life, give back the full count.
  EXPECT_TRUE(Pc92("PC92^Q8YYY^200^K^5Q8YYY:5457:1^1^0^H98^"));
  EXPECT_EQ(view_.FindNode("Q8YYY")->life, NetworkView::kLife);
  // The third silent tick: the node goes with its users and the legacy node it owned.
  EXPECT_EQ(view_.KeepaliveTick(), (std::vector<std::string>{"Q6WWW", "Q5OLD"}));
  EXPECT_EQ(view_.UserCount(), 0);
  ASSERT_NE(view_.FindNode("Q8YYY"), nullptr);
  EXPECT_EQ(view_.FindNode("Q8YYY")->life, 2);
  view_.Refresh("Q8YYY");
  EXPECT_EQ(view_.FindNode("Q8YYY")->life, NetworkView::kLife);
  // A C counts as well as a K.
  EXPECT_TRUE(view_.KeepaliveTick().empty());
  EXPECT_TRUE(Pc92("PC92^Q8YYY^300^C^5Q8YYY^H98^"));
  EXPECT_EQ(view_.FindNode("Q8YYY")->life, NetworkView::kLife);
  // Neighbours on a live link and legacy nodes never run out.
  for (int i = 0; i < 3; ++i) view_.KeepaliveTick();
  EXPECT_EQ(view_.Nodes(), (std::vector<std::string>{"Q7XXX", "Q9ZZZ-2"}));
  EXPECT_EQ(view_.FindNode("Q9ZZZ-2")->life, NetworkView::kLife);
}

TEST_F(NetworkViewTest, LegacySentences) {
  view_.LinkUp(kLegacy, "Q7XXX", false);
  const std::string_view f19 = "PC19^1^Q7XXX^0^5455^1^Q6WWW^0^5447^0^Q5OLD^0^4000^H25^";
  EXPECT_TRUE(Pc19(f19, kLegacy, "Q7XXX"));
  EXPECT_EQ(view_.Nodes(), (std::vector<std::string>{"Q6WWW", "Q7XXX"}));  // old version skipped
  EXPECT_EQ(view_.FindNode("Q7XXX")->version, "5455");

  const std::string_view f16 = "PC16^Q6WWW^Q6USR - 1^Q6ABC * 0^H24^";
  EXPECT_TRUE(Pc16(f16, kLegacy));
  EXPECT_EQ(view_.UserCount(), 2);
  const auto config = view_.Configuration();
  ASSERT_EQ(config.size(), 2u);
  EXPECT_EQ(config[0].node, "Q6WWW");
  EXPECT_EQ(config[0].users, (std::vector<std::string>{"Q6ABC", "Q6USR"}));
  EXPECT_EQ(view_.RouteTo("Q6ABC"), kLegacy);

  EXPECT_TRUE(Pc17("PC17^Q6ABC^Q6WWW^H24^", kLegacy));
  EXPECT_FALSE(Pc17("PC17^Q6ABC^Q6WWW^H24^", kLegacy));
  EXPECT_EQ(view_.UserCount(), 1);

  // The neighbour itself can only be declared gone on its own link.
  EXPECT_FALSE(Pc21("PC21^Q7XXX^Gone^H15^", kPeer));
  EXPECT_TRUE(Pc21("PC21^Q6WWW^Gone^H15^", kLegacy));
  EXPECT_EQ(view_.NodeCount(), 1);
  EXPECT_EQ(view_.UserCount(), 0);
  EXPECT_FALSE(Pc16("PC16^Q1AAA^Q1USR - 1^H24^", kLegacy));
}

TEST_F(NetworkViewTest, LegacyWordsNeverOverrideAPc92Node) {
  constexpr int kLegacy2 = 4;
  view_.LinkUp(kPeer, "Q9ZZZ-2", true);
  view_.LinkUp(kLegacy, "Q7XXX", false);
  view_.LinkUp(kLegacy2, "Q4OLD", false);
  ASSERT_TRUE(Pc92("PC92^Q9ZZZ-2^81598^C^5Q9ZZZ-2:5300^5Q8YYY^7Q7LEG^1Q5USR^H99^"));
  // A node flagged PC9x in a list is described by PC92, a legacy one is not.
  EXPECT_TRUE(view_.FindNode("Q8YYY")->pc9x);
  EXPECT_FALSE(view_.FindNode("Q7LEG")->pc9x);
  EXPECT_FALSE(Pc19("PC19^1^Q8YYY^0^5457^H14^", kLegacy, "Q7XXX"));
  EXPECT_EQ(view_.FindNode("Q8YYY")->routes.count(kLegacy), 0u);
  EXPECT_EQ(view_.FindNode("Q7XXX")->child_nodes.count("Q8YYY"), 0u);
  EXPECT_FALSE(Pc21("PC21^Q9ZZZ-2^Gone^H14^", kLegacy));
  EXPECT_NE(view_.FindNode("Q9ZZZ-2"), nullptr);
  EXPECT_FALSE(Pc17("PC17^Q5USR^Q9ZZZ-2^H14^", kLegacy));
  EXPECT_EQ(view_.UserCount(), 1);

  // A legacy node reported by two legacy neighbours: one losing it leaves the other's way.
  const std::string_view f19 = "PC19^1^Q6WWW^0^5455^H14^";
  EXPECT_TRUE(Pc19(f19, kLegacy, "Q7XXX"));
  EXPECT_TRUE(Pc19(f19, kLegacy2, "Q4OLD"));
  EXPECT_TRUE(Pc21("PC21^Q6WWW^Gone^H14^", kLegacy));
  ASSERT_NE(view_.FindNode("Q6WWW"), nullptr);
  EXPECT_EQ(view_.RouteTo("Q6WWW"), kLegacy2);
  EXPECT_EQ(view_.FindNode("Q7XXX")->child_nodes.count("Q6WWW"), 0u);
  EXPECT_TRUE(Pc21("PC21^Q6WWW^Gone^H14^", kLegacy2));
  EXPECT_EQ(view_.FindNode("Q6WWW"), nullptr);
}

}  // namespace
}  // namespace qx
