// Who may speak for a neighbour node: a node call at the log-in prompt must give the node's
// password or come from an address configured for it, and a stranger using the call never
// disturbs the real link.
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <ctime>

#include "tests/testlib/node_sites.h"

namespace qx::testing {
namespace {

using ::testing::HasSubstr;
using namespace std::chrono_literals;

constexpr std::string_view kOurPc18 = "PC18^QX Cluster Version: 5457 Build: 0.001 pc9x^5457^";

class NodeAdmissionTest : public NodeSiteTest {
 protected:
  // A connection that types call (and then password, when given) at the prompt; what it
  // received once the node answered.
  std::unique_ptr<LineClient> Knock(std::string_view call, std::string_view password = {}) {
    auto c = node_.Connect();
    c->SendLine(call);
    if (!password.empty()) {
      EXPECT_TRUE(c->ReadUntil("password: ")) << c->received();
      c->SendLine(password);
    }
    return c;
  }
  // PC9x time stamps of now, rising.
  std::string Stamp() { return fmt::format("{}.{:02d}", std::time(nullptr) % 86400, ++stamps_); }
  NodeSite node_{"K1QXA"};
  int stamps_ = 0;
};

TEST_F(NodeAdmissionTest, APasswordNodeMustGiveItAndStrangersLeaveTheLiveLinkAlone) {
  node_.Define("K9PCX", "QXC", /*addresses=*/"");
  node_.Password("K9PCX", "link-secret", 0);
  node_.Start();
  auto user = node_.LogIn("W1AAA");

  auto peer = Knock("K9PCX", "link-secret");
  ASSERT_TRUE(peer->ReadUntil(kOurPc18)) << peer->received();
  peer->SendLine("PC92^K9PCX^" + Stamp() + "^C^5K9PCX:5300^1W9USR:198.51.100.9^H99^");
  peer->SendLine("PC20^");
  ASSERT_TRUE(peer->ReadUntil("PC22^\r\n")) << peer->received();
  ASSERT_TRUE(node_.WaitOutput("Node link up: K9PCX (PC9x)")) << node_.node().Output();

  // Strangers: a wrong password, and node sentences where the password belongs.
  for (std::string_view guess : {"guess", "PC92^K9PCX^100.02^K^5K9PCX:5300:46^1^1^H99^"}) {
    auto stranger = Knock("K9PCX", guess);
    EXPECT_TRUE(stranger->ReadUntil("Login refused.")) << stranger->received();
    EXPECT_TRUE(stranger->WaitClosed()) << guess;
    EXPECT_THAT(stranger->received(), ::testing::Not(HasSubstr("PC18^")));
  }
  EXPECT_TRUE(node_.WaitOutput("Node log-in refused: K9PCX", 2)) << node_.node().Output();

  // The real link carries on.
  peer->SendLine("PC93^K9PCX^" + Stamp() + "^*^W9USR^*^still the real one^^198.51.100.9^H99^");
  EXPECT_TRUE(user->ReadUntil("To ALL de W9USR: still the real one")) << user->received();
  EXPECT_THAT(node_.node().Output(), ::testing::Not(HasSubstr("Node link closed: K9PCX")));
}

TEST_F(NodeAdmissionTest, AddressesAdmitANodeAndNothingConfiguredAdmitsNone) {
  node_.Define("K8ADR", "QXC", "192.0.2.0/24");  // not where the test connects from
  node_.Define("K7NON", "QXC", "");              // neither a password nor an address
  node_.Define("K6NODE1");                       // loopback; a call no user could have
  node_.Start();

  for (std::string_view call : {"K8ADR", "K7NON"}) {
    auto c = Knock(call);
    EXPECT_TRUE(c->ReadUntil("Login refused.")) << call << ": " << c->received();
    EXPECT_TRUE(c->WaitClosed()) << call;
  }
  EXPECT_THAT(node_.node().Output(), HasSubstr("K8ADR from 127.0.0.1:"));
  auto node = Knock("K6NODE1");
  EXPECT_TRUE(node->ReadUntil(kOurPc18)) << node->received();
}

}  // namespace
}  // namespace qx::testing
