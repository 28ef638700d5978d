// Either program may die: a front-end killed and started again leaves no ghost users or
// links in the node, and the node calls its neighbours again at once.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/testlib/node_sites.h"

namespace qx::testing {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;
using namespace std::chrono_literals;

using RestartRecoveryTest = NodeSiteTest;

TEST_F(RestartRecoveryTest, AKilledFrontEndLeavesNoGhostsAndTheNeighbourIsCalledAgainAtOnce) {
  NodeSite a("K1QXA"), b("K2QXB");
  a.Define(b.call());
  b.Define(a.call());
  // Far longer than the test waits: the call after the front-end's return must not wait for it.
  a.Setting("Connection Retry", "300");
  a.Outgoing(b.call(), b.user_port());
  b.Start();
  a.Start();
  ASSERT_TRUE(a.WaitOutput("Node link up: K2QXB (PC9x)")) << a.node().Output();
  auto old1 = a.LogIn("W1OLD");
  auto old2 = a.LogIn("W1GONE");
  auto ub = b.LogIn("W2BBB");
  ASSERT_TRUE(WaitUntilListed(*ub, "W1GONE")) << ub->received();

  a.front().Kill();
  EXPECT_TRUE(old1->WaitClosed());
  a.StartFront();
  ASSERT_TRUE(a.WaitOutput("Node link up: K2QXB (PC9x)", 2, 20s)) << a.node().Output();

  // A new user may get the number of the old link's stream: it sees users, not sentences.
  auto fresh = a.LogIn("W1NEW");
  EXPECT_TRUE(WaitFor(
      [&] {
        fresh->ClearReceived();
        fresh->SendLine("SHOW/USERS");
        return fresh->ReadUntil("QXC >", 3s) &&
               fresh->received().find("W1OLD") == std::string::npos &&
               fresh->received().find("W1GONE") == std::string::npos &&
               fresh->received().find("W1NEW") != std::string::npos;
      },
      10s))
      << fresh->received();
  fresh->Drain(1s);
  EXPECT_THAT(fresh->received(), Not(HasSubstr("PC9"))) << fresh->received();
  // The neighbour hears the old users leave and the new one arrive.
  EXPECT_TRUE(WaitUntilListed(*ub, "W1NEW")) << ub->received();
  EXPECT_THAT(ub->received(), Not(HasSubstr("W1OLD")));
}

TEST_F(RestartRecoveryTest, ASysopKeepsRightsAcrossANodeRestart) {
  NodeSite a("K1QXA");
  a.Password("K1SYS", "secret", 5);
  a.Start();
  auto sysop = a.LogIn("K1SYS", "secret");
  auto user = a.LogIn("W1USR");
  ASSERT_EQ(a.node().Stop(), 0);
  a.StartNode();
  ASSERT_TRUE(a.WaitOutput("Recovery complete")) << a.node().Output();
  sysop->ClearReceived();
  sysop->SendLine("SET/LOCKOUTS K9BAD");
  EXPECT_TRUE(sysop->ReadUntil("K9BAD added to list.")) << sysop->received();
  user->ClearReceived();
  user->SendLine("SET/LOCKOUTS K9EVIL");  // rights come with the password, not the restart
  EXPECT_TRUE(user->ReadUntil("sysop command error")) << user->received();
}

// Every user of every node is listed at once, talk reaches each of them, and a spot and an
// announcement from one node arrive once everywhere.
void ExpectWholeNetwork(std::initializer_list<NodeSite*> sites,
                        std::initializer_list<LineClient*> users,
                        std::initializer_list<std::string_view> user_calls, std::string_view tag) {
  std::vector<std::string_view> all(user_calls);
  for (NodeSite* s : sites) all.push_back(s->call());
  for (LineClient* u : users) {
    std::string missing;
    for (std::string_view call : all) {
      if (!ConfigurationMissing(*u, {call}).empty()) missing += std::string(call) + " ";
    }
    EXPECT_EQ(missing, "") << tag;
  }
  LineClient& first = **users.begin();
  const std::string_view first_call = *user_calls.begin();
  size_t n = 0;
  for (LineClient* u : users) {
    const std::string_view call = *(user_calls.begin() + n++);
    if (u == &first) continue;
    u->ClearReceived();
    first.SendLine("TALK " + std::string(call) + " " + std::string(tag) + " talk");
    EXPECT_TRUE(u->ReadUntil(std::string(call) + " de " + std::string(first_call) + ": " +
                             std::string(tag) + " talk"))
        << tag << u->received();
    first.ClearReceived();
    u->SendLine("TALK " + std::string(first_call) + " " + std::string(tag) + " answer");
    EXPECT_TRUE(first.ReadUntil(std::string(tag) + " answer")) << tag << first.received();
  }
  for (LineClient* u : users) u->ClearReceived();
  first.SendLine("ANNOUNCE FULL " + std::string(tag) + " news");
  for (LineClient* u : users) {
    if (u == &first) continue;
    EXPECT_TRUE(u->ReadUntil(std::string(tag) + " news")) << tag << u->received();
    EXPECT_EQ(CountAfterDrain(*u, std::string(tag) + " news"), 1u) << tag;
  }
}

class NodeRestartInRingTest : public RestartRecoveryTest {
 protected:
  static void Prepare(std::initializer_list<NodeSite*> sites) {
    for (NodeSite* s : sites) {
      s->Setting("Connection Retry", "2");
      s->Setting("Node First Ping", "1");
      for (NodeSite* o : sites) {
        if (o != s) s->Define(o->call());
      }
    }
  }
  // Restarts the node of s; the others' links must not notice.
  static void RestartNode(NodeSite& s, std::initializer_list<NodeSite*> others) {
    ASSERT_EQ(s.node().Stop(), 0);
    s.StartNode();
    ASSERT_TRUE(s.WaitOutput("Recovery complete")) << s.node().Output();
    ASSERT_TRUE(s.WaitOutput("Network view taken back")) << s.node().Output();
    EXPECT_EQ(s.node().Output().find("Node link up"), std::string::npos) << s.node().Output();
    for (NodeSite* o : others) {
      const std::string out = o->node().Output();
      EXPECT_EQ(out.find("Node link closed"), std::string::npos) << o->call() << out;
      EXPECT_EQ(out.find("starts the link again"), std::string::npos) << o->call() << out;
    }
  }
};

TEST_F(NodeRestartInRingTest, TwoNodesEachRestartWithoutTheOtherNoticing) {
  NodeSite a("K1QXA"), b("K2QXB");
  Prepare({&a, &b});
  a.Outgoing(b.call(), b.user_port());
  b.Start();
  a.Start();
  ASSERT_TRUE(a.WaitOutput("Node link up: K2QXB (PC9x)")) << a.node().Output();
  ASSERT_TRUE(b.WaitOutput("Node link up: K1QXA (PC9x)")) << b.node().Output();
  auto ua = a.LogIn("W1AAA");
  auto ub = b.LogIn("W2BBB");
  ASSERT_TRUE(WaitUntilListed(*ua, "W2BBB")) << ua->received();
  ASSERT_TRUE(WaitUntilListed(*ub, "W1AAA")) << ub->received();

  RestartNode(a, {&b});  // the calling side
  ExpectWholeNetwork({&a, &b}, {ua.get(), ub.get()}, {"W1AAA", "W2BBB"}, "first");
  RestartNode(b, {&a});  // the accepting side
  ExpectWholeNetwork({&a, &b}, {ub.get(), ua.get()}, {"W2BBB", "W1AAA"}, "second");
  ua->ClearReceived();
  ub->SendLine("DX 14025.0 JA1ABC after two restarts");
  ASSERT_TRUE(ua->ReadUntil("JA1ABC")) << ua->received();
  EXPECT_EQ(CountAfterDrain(*ua, "JA1ABC"), 1u);
}

TEST_F(NodeRestartInRingTest, ThreeNodeRingSurvivesARestartOfOneNode) {
  NodeSite a("K1QXA"), b("K2QXB"), c("K3QXC");
  Prepare({&a, &b, &c});
  a.Outgoing(b.call(), b.user_port());
  b.Outgoing(c.call(), c.user_port());
  c.Outgoing(a.call(), a.user_port());
  for (NodeSite* s : {&a, &b, &c}) s->Start();
  for (NodeSite* s : {&a, &b, &c}) {
    ASSERT_TRUE(s->WaitOutput("Node link up: ", 2)) << s->call() << s->node().Output();
  }
  auto ua = a.LogIn("W1AAA");
  auto ub = b.LogIn("W2BBB");
  auto uc = c.LogIn("W3CCC");
  ASSERT_TRUE(WaitUntilListed(*ub, "W3CCC")) << ub->received();
  ASSERT_TRUE(WaitUntilListed(*ub, "W1AAA")) << ub->received();

  RestartNode(b, {&a, &c});
  ExpectWholeNetwork({&a, &b, &c}, {ub.get(), ua.get(), uc.get()}, {"W2BBB", "W1AAA", "W3CCC"},
                     "ring");
  ua->ClearReceived();
  uc->ClearReceived();
  ub->SendLine("DX 7012.0 JA1XYZ after the restart");
  for (LineClient* u : {ua.get(), uc.get()}) {
    ASSERT_TRUE(u->ReadUntil("JA1XYZ")) << u->received();
    EXPECT_EQ(CountAfterDrain(*u, "JA1XYZ"), 1u);
  }
}

}  // namespace
}  // namespace qx::testing
