// Real nodes linked on loopback: each with its own front-end, linked through outgoing
// connections; users on each node see what users on the others do, exactly once, also after a
// node restarts (which its neighbours must not notice) and after a link is cut and comes back.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "core/file_util.h"
#include "tests/testlib/node_sites.h"

namespace qx::testing {
namespace {

using ::testing::HasSubstr;
using namespace std::chrono_literals;

class NodeRingTest : public NodeSiteTest {
 protected:
  // Every site defines every other one as a PC9x node, with short timers so that links come
  // back within the test's patience.
  static void DefineAll(std::initializer_list<NodeSite*> sites) {
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
  // Every user of every node is listed at each user, talk between the first user and each
  // other one arrives both ways, and an announcement of the first arrives once everywhere.
  static void ExpectWholeNetwork(std::initializer_list<NodeSite*> sites,
                                 std::initializer_list<LineClient*> users,
                                 std::initializer_list<std::string_view> user_calls,
                                 std::string_view tag) {
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
    const std::string first_call(*user_calls.begin());
    const std::string t(tag);
    for (size_t n = 1; n < users.size(); ++n) {
      LineClient& u = **(users.begin() + n);
      const std::string call(*(user_calls.begin() + n));
      u.ClearReceived();
      first.SendLine("TALK " + call + " " + t + " talk");
      EXPECT_TRUE(u.ReadUntil(call + " de " + first_call + ": " + t + " talk"))
          << t << u.received();
      first.ClearReceived();
      u.SendLine("TALK " + first_call + " " + t + " answer");
      EXPECT_TRUE(first.ReadUntil(t + " answer")) << t << first.received();
    }
    for (LineClient* u : users) u->ClearReceived();
    first.SendLine("ANNOUNCE FULL " + t + " news");
    for (LineClient* u : users) {
      if (u == &first) continue;
      EXPECT_TRUE(u->ReadUntil(t + " news")) << t << u->received();
      EXPECT_EQ(CountAfterDrain(*u, t + " news"), 1u) << t;
    }
  }
};

TEST_F(NodeRingTest, TwoNodesShareEverythingAndEachRestartsWithoutTheOtherNoticing) {
  NodeSite a("K1QXA"), b("K2QXB");
  DefineAll({&a, &b});
  b.Outgoing(a.call(), a.user_port());
  a.Start();
  b.Start();
  ASSERT_TRUE(b.WaitOutput("Node link up: K1QXA (PC9x)"))
      << b.node().Output() << a.node().Output() << Logs(a);
  ASSERT_TRUE(a.WaitOutput("Node link up: K2QXB (PC9x)")) << a.node().Output();

  auto ua = a.LogIn("W1AAA");
  auto ub = b.LogIn("W2BBB");
  ASSERT_TRUE(WaitUntilListed(*ub, "W1AAA")) << ub->received();
  ub->ClearReceived();
  // The greeting counts the other node and its user.
  auto probe = b.Connect();
  probe->SendLine("W2CCC");
  ASSERT_TRUE(probe->ReadUntil("Please enter your name")) << probe->received();
  probe->SendLine("Cy");
  ASSERT_TRUE(probe->ReadUntil("(Y or N) >")) << probe->received();
  probe->SendLine("y");
  ASSERT_TRUE(probe->ReadUntil("Cluster: 2 nodes  2 Locals  3 Total users")) << probe->received();
  probe.reset();

  ua->SendLine("DX 14025.0 JA1ABC loopback test");
  ASSERT_TRUE(ub->ReadUntil("JA1ABC"))
      << ub->received() << (ua->Drain(500ms), ua->received()) << Logs(a) << Logs(b);
  EXPECT_THAT(ub->received(), HasSubstr("DX de W1AAA:"));
  EXPECT_EQ(CountAfterDrain(*ub, "JA1ABC"), 1u);
  ExpectWholeNetwork({&a, &b}, {ua.get(), ub.get()}, {"W1AAA", "W2BBB"}, "fresh");

  ua->SendLine("SET/NAME Bertram");
  ASSERT_TRUE(ua->ReadUntil(">"));
  EXPECT_TRUE(WaitFor([&] {
    for (const char* dir : {"data/user/W1AAA.dat", "data/userRemote/W1AAA.dat"}) {
      const auto text = ReadFileText(b.home() / dir);
      if (text && text->find("Bertram") != std::string::npos) return true;
    }
    return false;
  })) << "no record of W1AAA on the other node";

  RestartNode(a, {&b});  // the accepting side
  ExpectWholeNetwork({&a, &b}, {ua.get(), ub.get()}, {"W1AAA", "W2BBB"}, "first");
  RestartNode(b, {&a});  // the calling side
  ExpectWholeNetwork({&a, &b}, {ub.get(), ua.get()}, {"W2BBB", "W1AAA"}, "second");
  ua->ClearReceived();
  ub->SendLine("DX 14025.0 JA1XYZ after two restarts");
  ASSERT_TRUE(ua->ReadUntil("JA1XYZ")) << ua->received();
  EXPECT_EQ(CountAfterDrain(*ua, "JA1XYZ"), 1u);
}

TEST_F(NodeRingTest, ThreeNodeRingDeliversOnceOverARestartAndHealsAfterADisconnect) {
  NodeSite a("K1QXA"), b("K2QXB"), c("K3QXC");
  DefineAll({&a, &b, &c});
  // A calls B again only after a few seconds: time to look at the network without that link.
  a.Setting("Connection Retry", "6");
  a.Outgoing(b.call(), b.user_port());
  b.Outgoing(c.call(), c.user_port());
  c.Outgoing(a.call(), a.user_port());
  a.Password("K1SYS", "secret", 1);
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
  for (LineClient* u : {ua.get(), ub.get(), uc.get()}) u->ClearReceived();
  ub->SendLine("DX 7012.0 JA1XYZ ring spot");
  for (LineClient* u : {ua.get(), uc.get()}) {
    ASSERT_TRUE(u->ReadUntil("JA1XYZ")) << u->received();
    EXPECT_EQ(CountAfterDrain(*u, "JA1XYZ"), 1u);
  }
  EXPECT_EQ(CountAfterDrain(*ub, "JA1XYZ"), 1u);  // the spotter's own node shows it once
  uc->SendLine("TALK W1AAA over the ring");
  ASSERT_TRUE(ua->ReadUntil("W1AAA de W3CCC: over the ring")) << ua->received();
  EXPECT_EQ(CountAfterDrain(*ua, "over the ring"), 1u);
  EXPECT_EQ(CountAfterDrain(*ub, "over the ring"), 0u);

  // The sysop drops A's link to B; A calls B again after the retry interval.
  auto sysop = a.LogIn("K1SYS", "secret");
  sysop->SendLine("SHOW/LINKS");
  ASSERT_TRUE(sysop->ReadUntil("K3QXC")) << sysop->received();
  EXPECT_THAT(sysop->received(), HasSubstr("K2QXB"));
  sysop->ClearReceived();
  sysop->SendLine("DISCONNECT K2QXB");
  ASSERT_TRUE(sysop->ReadUntil("Disconnecting K2QXB")) << sysop->received();
  ASSERT_TRUE(a.WaitOutput("Node link closed: K2QXB")) << a.node().Output();
  ASSERT_TRUE(b.WaitOutput("Node link closed: K1QXA")) << b.node().Output();
  // At once, with no full configuration sent since: every node still knows every node and
  // user, the ones behind the lost link through the third node.
  for (LineClient* u : {ua.get(), ub.get(), uc.get()}) {
    EXPECT_EQ(ConfigurationMissing(*u, {"K1QXA", "K2QXB", "K3QXC", "W1AAA", "W2BBB", "W3CCC"}), "");
  }
  // The talk between the nodes that lost their link goes round.
  ub->SendLine("TALK W1AAA the long way");
  ASSERT_TRUE(ua->ReadUntil("W1AAA de W2BBB: the long way")) << ua->received();
  const std::string so_far = a.node().Output();
  EXPECT_EQ(so_far.find("Node link up: K2QXB", so_far.find("Node link closed: K2QXB")),
            std::string::npos)
      << "the link came back before the checks";
  ASSERT_TRUE(a.WaitOutput("Node link up: K2QXB", 2)) << a.node().Output();

  // After the reconnect B sees A's user again and messages still arrive once.
  ASSERT_TRUE(WaitUntilListed(*ub, "W1AAA")) << ub->received();
  ub->ClearReceived();
  ua->ClearReceived();
  uc->SendLine("ANNOUNCE FULL after the repair");
  ASSERT_TRUE(ua->ReadUntil("after the repair")) << ua->received();
  ASSERT_TRUE(ub->ReadUntil("after the repair")) << ub->received();
  EXPECT_EQ(CountAfterDrain(*ua, "after the repair"), 1u);
  EXPECT_EQ(CountAfterDrain(*ub, "after the repair"), 1u);
}

}  // namespace
}  // namespace qx::testing
