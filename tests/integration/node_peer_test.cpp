// A real node linked with scripted peers that speak the sentences other node software sends:
// a legacy peer and a PC9x peer, each calling the node and called by it.
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <ctime>

#include "core/time_text.h"
#include "tests/testlib/node_sites.h"

namespace qx::testing {
namespace {

using ::testing::HasSubstr;
using namespace std::chrono_literals;

constexpr std::string_view kOurPc18 = "PC18^QX Cluster Version: 5457 Build: 0.001 pc9x^5457^";

// Time stamps for the scripted PC9x peer: the seconds of the UTC day, rising.
class Stamps {
 public:
  std::string Next() { return fmt::format("{}.{:02d}", base_, ++n_); }

 private:
  long base_ = long(std::time(nullptr) % 86400);
  int n_ = 0;
};

// A spot sentence of this minute (older spots are refused).
std::string SpotNow(std::string_view type, std::string_view freq, std::string_view dx,
                    std::string_view spotter, std::string_view origin, std::string_view tail) {
  const SysTime now = SystemClock().Now();
  return fmt::format("{}^{}^{}^{}^{}^scripted peer^{}^{}^{}", type, freq, dx, DateText(now),
                     TimeHHnnZ(now), spotter, origin, tail);
}

class NodePeerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!std::filesystem::exists(kSystemCountryFile)) GTEST_SKIP() << "no country file";
    node_.Setting("Connection Retry", "2");
    node_.Setting("Node First Ping", "1");
  }
  // The user's SHOW/USERS answer names call within a few seconds.
  bool UserListed(LineClient& user, std::string_view call) {
    return WaitFor(
        [&] {
          user.ClearReceived();
          user.SendLine("SHOW/USERS");
          return user.ReadUntil("QXC >", 3s) && user.received().find(call) != std::string::npos;
        },
        10s);
  }
  NodeSite node_{"K1QXA"};
};

// A legacy peer calls the node, traffic goes both ways, the node restarts unnoticed, and the
// peer says goodbye.
TEST_F(NodePeerTest, LegacyPeerCallsTheNodeAndSeesNoRestart) {
  node_.Define("K7LEG", "ARC");
  node_.Start();
  auto user = node_.LogIn("W1AAA");
  auto peer = node_.Connect();
  peer->SendLine("K7LEG");
  ASSERT_TRUE(peer->ReadUntil(kOurPc18)) << peer->received();
  peer->SendLine("PC19^1^K7LEG^0^5455^H25^");
  peer->SendLine("PC16^K7LEG^W7OLD - 1^H25^");
  peer->SendLine("PC20^");
  ASSERT_TRUE(peer->ReadUntil("PC22^\r\n")) << peer->received();
  EXPECT_THAT(peer->received(), HasSubstr("PC19^1^K1QXA^0^5457^H99^\r\n"));
  EXPECT_THAT(peer->received(), HasSubstr("PC16^K1QXA^W1AAA - 1^H99^\r\n"));
  ASSERT_TRUE(node_.WaitOutput("Node link up: K7LEG (legacy)")) << node_.node().Output();
  EXPECT_TRUE(UserListed(*user, "W7OLD")) << user->received();

  // What the node's users do reaches the legacy peer in its own sentences.
  user->SendLine("DX 14025.0 JA1ABC to the old node");
  ASSERT_TRUE(peer->ReadUntil("PC11^14025.0^JA1ABC^")) << peer->received();
  user->SendLine("ANNOUNCE FULL to the old node");
  ASSERT_TRUE(peer->ReadUntil("PC12^W1AAA^*^to the old node^ ^K1QXA^0^H99^~\r\n"))
      << peer->received();
  user->SendLine("TALK W7OLD hello old friend");
  ASSERT_TRUE(peer->ReadUntil("PC10^W1AAA^W7OLD^hello old friend^*^ ^K1QXA^~\r\n"))
      << peer->received();
  EXPECT_THAT(peer->received(), ::testing::Not(HasSubstr("PC61^")));
  EXPECT_THAT(peer->received(), ::testing::Not(HasSubstr("PC93^")));

  // And what the peer sends reaches the users.
  user->ClearReceived();
  peer->SendLine("PC12^W7OLD^*^legacy news^ ^K7LEG^0^H30^~");
  ASSERT_TRUE(user->ReadUntil("To ALL de W7OLD: legacy news")) << user->received();
  peer->SendLine("PC10^W7OLD^W1AAA^hi from afar^*^ ^K7LEG^~");
  ASSERT_TRUE(user->ReadUntil("W1AAA de W7OLD: hi from afar")) << user->received();
  peer->SendLine(SpotNow("PC11", "21025.0", "JA2XYZ", "W7OLD", "K7LEG", "H24^~"));
  ASSERT_TRUE(user->ReadUntil("JA2XYZ")) << user->received();
  EXPECT_THAT(user->received(), HasSubstr("DX de W7OLD:"));

  // The node restarts: the peer sees no new start but hears our whole list again and of the
  // user who left meanwhile, and what it sent meanwhile arrives.
  auto leaver = node_.LogIn("W1GONE");
  ASSERT_TRUE(peer->ReadUntil("PC16^K1QXA^W1GONE - 1^")) << peer->received();
  ASSERT_EQ(node_.node().Stop(), 0);
  leaver->Close();
  peer->SendLine(SpotNow("PC11", "21030.0", "JA2QRP", "W7OLD", "K7LEG", "H24^~"));
  peer->SendLine("PC12^W7OLD^*^news while down^ ^K7LEG^0^H30^~");
  peer->SendLine("PC10^W7OLD^W1AAA^talk while down^*^ ^K7LEG^~");
  peer->ClearReceived();
  user->ClearReceived();
  node_.StartNode();
  ASSERT_TRUE(peer->ReadUntil("PC17^W1GONE^K1QXA^", 20s)) << peer->received();
  EXPECT_THAT(peer->received(), HasSubstr("PC19^1^K1QXA^0^5457^H99^\r\n"));
  EXPECT_THAT(peer->received(), HasSubstr("PC16^K1QXA^W1AAA - 1^H99^\r\n"));
  for (std::string_view start : {"PC18^", "PC20^", "PC22^"}) {
    EXPECT_THAT(peer->received(), ::testing::Not(HasSubstr(start))) << start;
  }
  EXPECT_THAT(node_.node().Output(), ::testing::Not(HasSubstr("Node link up")));
  for (std::string_view what :
       {"JA2QRP", "To ALL de W7OLD: news while down", "W1AAA de W7OLD: talk while down"}) {
    EXPECT_TRUE(user->ReadUntil(what)) << what << "\n" << user->received();
  }
  EXPECT_TRUE(UserListed(*user, "W7OLD")) << user->received();
  user->SendLine("DX 14030.0 JA1QRP after the restart");
  ASSERT_TRUE(peer->ReadUntil("PC11^14030.0^JA1QRP^")) << peer->received();

  // Link checks both ways, then the peer says goodbye.
  ASSERT_TRUE(peer->ReadUntil("PC51^K7LEG^K1QXA^1^\r\n")) << peer->received();
  peer->SendLine("PC51^K1QXA^K7LEG^1^");
  ASSERT_TRUE(peer->ReadUntil("PC51^K7LEG^K1QXA^0^\r\n")) << peer->received();
  peer->SendLine("PC39^K7LEG^Disconnected by System Op^H30^");
  EXPECT_TRUE(peer->WaitClosed());
  EXPECT_TRUE(node_.WaitOutput("Node link closed: K7LEG"));
}

TEST_F(NodePeerTest, NodeCallsALegacyPeer) {
  PeerListener peer;
  ASSERT_TRUE(peer.bound());
  node_.Define("K7LEG", "ARC");
  node_.Outgoing("K7LEG", peer.port(), true, "ARC");
  node_.Start();
  ASSERT_TRUE(peer.Accept()) << node_.node().Output();
  peer.Send("Old node here\r\n\r\nlogin: ");
  ASSERT_TRUE(peer.ReadUntil("K1QXA\r\n")) << peer.received();
  peer.SendLine("PC38^K7LEG^~");
  peer.SendLine("PC18^ 1 nodes, 0 local / 1 total users  Max users 0  Uptime 0 00:00^5447^~");
  ASSERT_TRUE(peer.ReadUntil("PC20^\r\n")) << peer.received();
  EXPECT_THAT(peer.received(), HasSubstr("PC19^1^K1QXA^0^5457^H99^\r\n"));
  peer.SendLine("PC19^1^K7LEG^0^5455^H25^");
  peer.SendLine("PC16^K7LEG^W7OLD - 1^H25^");
  peer.SendLine("PC22^");
  ASSERT_TRUE(node_.WaitOutput("Node link up: K7LEG (legacy)")) << node_.node().Output();
  auto user = node_.LogIn("W1AAA");
  ASSERT_TRUE(peer.ReadUntil("PC16^K1QXA^W1AAA - 1^H99^\r\n")) << peer.received();
  EXPECT_TRUE(UserListed(*user, "W7OLD")) << user->received();
}

TEST_F(NodePeerTest, Pc9xPeerCallsTheNode) {
  Stamps t;
  node_.Define("K9PCX");
  node_.Start();
  auto user = node_.LogIn("W1AAA");
  auto peer = node_.Connect();
  peer->SendLine("K9PCX");
  ASSERT_TRUE(peer->ReadUntil(kOurPc18)) << peer->received();
  peer->SendLine("PC92^K9PCX^" + t.Next() + "^C^5K9PCX:5300^1W9USR:198.51.100.9^H99^");
  peer->SendLine("PC92^K9PCX^" + t.Next() + "^K^5K9PCX:5300:46^1^1^H99^");
  peer->SendLine("PC20^");
  ASSERT_TRUE(peer->ReadUntil("PC22^\r\n")) << peer->received();
  EXPECT_THAT(peer->received(), HasSubstr("^C^5K1QXA:5457^1W1AAA:127.0.0.1^H99^\r\n"));
  EXPECT_THAT(peer->received(), HasSubstr("^K^5K1QXA:5457:1^1^1^H99^\r\n"));
  ASSERT_TRUE(node_.WaitOutput("Node link up: K9PCX (PC9x)")) << node_.node().Output();
  EXPECT_TRUE(UserListed(*user, "W9USR")) << user->received();

  user->ClearReceived();
  const std::string stamp = t.Next();
  peer->SendLine("PC93^K9PCX^" + stamp + "^W1AAA^W9USR^*^#12 talk over pc93^^198.51.100.9^H99^");
  ASSERT_TRUE(user->ReadUntil("W1AAA de W9USR: #12 talk over pc93")) << user->received();
  // A replayed sentence (its stamp is no newer than the last) is not shown.  The same stamp,
  // not a small one: shortly before midnight a small stamp is tomorrow's, and new.
  peer->SendLine("PC93^K9PCX^" + stamp + "^*^W9USR^*^replayed^^198.51.100.9^H99^");
  user->Drain(1s);
  EXPECT_THAT(user->received(), ::testing::Not(HasSubstr("replayed")));
}

TEST_F(NodePeerTest, NodeCallsAPc9xPeerAndKeepsTheLinkOverARestart) {
  Stamps t;
  PeerListener peer;
  ASSERT_TRUE(peer.bound());
  node_.Define("K9PCX", "DXS pc9x");
  node_.Outgoing("K9PCX", peer.port());
  node_.Start();
  auto user = node_.LogIn("W1AAA");
  ASSERT_TRUE(peer.Accept()) << node_.node().Output();
  peer.Send("login: ");
  ASSERT_TRUE(peer.ReadUntil("K1QXA\r\n")) << peer.received();
  peer.SendLine("0");  // what a PC9x peer says to a caller on loopback
  peer.SendLine("PC18^ExampleNode Version: 2.3 Build: 120 pc9x 91^5300^");
  ASSERT_TRUE(peer.ReadUntil("PC20^\r\n")) << peer.received();
  EXPECT_THAT(peer.received(), HasSubstr("PC92^K1QXA^"));
  EXPECT_THAT(peer.received(), HasSubstr("^C^5K1QXA:5457^1W1AAA:127.0.0.1^H99^"));
  peer.SendLine("PC92^K9PCX^" + t.Next() + "^A^^5K1QXA:127.0.0.1^H99^");
  peer.SendLine("PC92^K9PCX^" + t.Next() + "^K^5K9PCX:5300:^1^0^127.0.0.1^none/none^H99^");
  peer.SendLine("PC22^");
  ASSERT_TRUE(node_.WaitOutput("Node link up: K9PCX (PC9x)")) << node_.node().Output();
  peer.SendLine("PC92^K9PCX^" + t.Next() + "^A^^1W9USR:198.51.100.9^H99^");
  EXPECT_TRUE(UserListed(*user, "W9USR")) << user->received();

  // PC9x traffic both ways; a loopback spotter's spot travels as PC11.
  user->SendLine("DX 14025.0 JA1ABC to the pc9x peer");
  ASSERT_TRUE(peer.ReadUntil("PC11^14025.0^JA1ABC^")) << peer.received();
  user->SendLine("ANNOUNCE FULL to pc9x");
  ASSERT_TRUE(peer.ReadUntil("^*^W1AAA^*^to pc9x^^H99^\r\n")) << peer.received();
  user->SendLine("TALK W9USR hi pc9x");
  ASSERT_TRUE(peer.ReadUntil("^W9USR^W1AAA^*^hi pc9x^^H99^\r\n")) << peer.received();
  user->ClearReceived();
  peer.SendLine(SpotNow("PC61", "14074.0", "JA3QRS", "W9USR", "K9PCX", "198.51.100.9^H30^~"));
  ASSERT_TRUE(user->ReadUntil("JA3QRS")) << user->received();
  ASSERT_TRUE(peer.ReadUntil("PC51^K9PCX^K1QXA^1^\r\n")) << peer.received();
  peer.SendLine("PC51^K1QXA^K9PCX^0^");

  // A user logs in after the link came up; then the node restarts.  The link stays, and the
  // node, which called, does not introduce itself again: it sends its full list, which names
  // every user it has now.
  auto late = node_.LogIn("W1LATE");
  ASSERT_TRUE(peer.ReadUntil("^A^^1W1LATE")) << peer.received();
  peer.ClearReceived();
  ASSERT_EQ(node_.node().Stop(), 0);
  node_.StartNode();
  ASSERT_TRUE(peer.ReadUntil("^K^5K1QXA", 20s)) << peer.received() << node_.node().Output();
  EXPECT_THAT(peer.received(),
              HasSubstr("^C^5K1QXA:5457^5K9PCX^1W1AAA:127.0.0.1^1W1LATE:127.0.0.1^H99^"));
  EXPECT_THAT(peer.received(), ::testing::Not(HasSubstr("PC18^")));
  ASSERT_TRUE(node_.WaitOutput("Node link recovered: K9PCX")) << node_.node().Output();
  // The peer's user is known at once, without waiting for the peer's next list.
  EXPECT_TRUE(UserListed(*user, "W9USR")) << user->received();
  user->ClearReceived();
  peer.SendLine("PC93^K9PCX^" + t.Next() + "^*^W9USR^*^still linked^^198.51.100.9^H99^");
  ASSERT_TRUE(user->ReadUntil("To ALL de W9USR: still linked", 15s)) << user->received();
  EXPECT_THAT(node_.node().Output(), ::testing::Not(HasSubstr("Connecting to K9PCX")));
  // A peer that starts the link again anyway gets our part of the handshake.
  peer.ClearReceived();
  peer.SendLine("PC18^ExampleNode Version: 2.3 Build: 120 pc9x 91^5300^");
  ASSERT_TRUE(peer.ReadUntil("PC20^\r\n")) << peer.received();
  EXPECT_THAT(peer.received(), HasSubstr("^1W1LATE:127.0.0.1^H99^"));
}

// An accepted PC9x peer sees no new start when the node restarts, and nothing it sends right
// before, during or right after the restart is lost: the stopping node answers what reached
// it, and the front-end holds the rest for the next start.
TEST_F(NodePeerTest, AcceptedPc9xPeerLosesNothingAcrossARestartAndCanStartAgain) {
  Stamps t;
  node_.Define("K9PCX", "DXS pc9x");
  node_.Start();
  auto peer = node_.Connect();
  peer->SendLine("K9PCX");
  ASSERT_TRUE(peer->ReadUntil(kOurPc18)) << peer->received();
  peer->SendLine("PC92^K9PCX^" + t.Next() + "^C^5K9PCX:5300^1W9USR:198.51.100.9^H99^");
  peer->SendLine("PC20^");
  ASSERT_TRUE(peer->ReadUntil("PC22^\r\n")) << peer->received();
  auto user = node_.LogIn("W1AAA");
  ASSERT_TRUE(peer->ReadUntil("^A^^1W1AAA")) << peer->received();
  peer->ClearReceived();
  constexpr std::string_view kPing = "PC51^K1QXA^K9PCX^1^", kAnswer = "PC51^K9PCX^K1QXA^0^";
  peer->SendLine(kPing);
  ASSERT_EQ(node_.node().Stop(), 0);
  peer->SendLine(kPing);
  peer->SendLine(SpotNow("PC61", "14074.0", "JA3QRS", "W9USR", "K9PCX", "198.51.100.9^H30^~"));
  peer->SendLine("PC93^K9PCX^" + t.Next() + "^*^W9USR^*^news while down^^198.51.100.9^H99^");
  peer->SendLine("PC93^K9PCX^" + t.Next() + "^W1AAA^W9USR^*^talk while down^^198.51.100.9^H99^");
  user->ClearReceived();
  node_.StartNode();
  ASSERT_TRUE(peer->ReadUntil("^1W1AAA:127.0.0.1^H99^", 20s)) << peer->received();
  EXPECT_THAT(peer->received(), ::testing::Not(HasSubstr("PC18^")));
  peer->SendLine(kPing);
  EXPECT_TRUE(WaitFor([&] {
    peer->Drain(100ms);
    return NodeSite::Occurrences(peer->received(), kAnswer) >= 3;
  })) << peer->received();
  for (std::string_view what :
       {"JA3QRS", "To ALL de W9USR: news while down", "W1AAA de W9USR: talk while down"}) {
    EXPECT_TRUE(user->ReadUntil(what)) << what << "\n" << user->received();
  }
  EXPECT_EQ(CountAfterDrain(*user, "JA3QRS"), 1u);
  EXPECT_EQ(NodeSite::Occurrences(peer->received(), kAnswer), 3u);
  EXPECT_TRUE(UserListed(*user, "W9USR")) << user->received();
  // WHO shows the link with its configured kind and the time it began, not the restart.
  user->ClearReceived();
  user->SendLine("WHO");
  ASSERT_TRUE(user->ReadUntil("K9PCX")) << user->received();
  ASSERT_TRUE(user->ReadUntil("QXC >")) << user->received();
  EXPECT_THAT(user->received(), HasSubstr("NODE DXS"));
  // The peer restarts the handshake itself: PC20 is answered with our list and PC22.
  peer->ClearReceived();
  peer->SendLine("PC92^K9PCX^" + t.Next() + "^C^5K9PCX:5300^1W9USR:198.51.100.9^H99^");
  peer->SendLine("PC20^");
  ASSERT_TRUE(peer->ReadUntil("PC22^\r\n")) << peer->received();
  EXPECT_THAT(peer->received(), HasSubstr("^C^5K1QXA:5457^5K9PCX^1W1AAA:127.0.0.1^H99^"));
}

}  // namespace
}  // namespace qx::testing
