// Either program may die: a front-end killed and started again leaves no ghost users or
// links in the node, and the node calls its neighbours again at once; a restarted node keeps
// what its users were allowed to do.  (Restarts inside linked networks: node_ring_test.)
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

}  // namespace
}  // namespace qx::testing
