#include "node/link_handshake.h"

#include <gtest/gtest.h>

namespace qx {
namespace {

using Role = NodeLinkHandshake::Role;
using State = NodeLinkHandshake::State;

NodeLinkHandshake::Config MakeConfig(std::string us, std::string peer, bool pc9x = true) {
  NodeLinkHandshake::Config c;
  c.our_call = us;
  c.peer_call = peer;
  c.version = "5457";
  c.we_speak_pc9x = pc9x;
  c.our_config = [us](bool style_pc9x) {
    if (style_pc9x) {
      return std::vector<std::string>{
          "PC92^" + us + "^80562^C^5" + us + ":5457^H99^\r\n",
          "PC92^" + us + "^80562.01^K^5" + us + ":5457:46^1^1^H99^\r\n"};
    }
    return std::vector<std::string>{"PC19^1^" + us + "^0^5457^H99^\r\n"};
  };
  return c;
}

// Feeds lines and collects everything the handshake sends.
struct Driver {
  explicit Driver(NodeLinkHandshake h) : hs(std::move(h)) {}
  NodeLinkHandshake hs;
  std::vector<std::string> sent;
  int established = 0;

  void Feed(std::initializer_list<std::string_view> lines) {
    for (std::string_view l : lines) {
      auto step = hs.OnLine(l);
      for (auto& s : step.send) sent.push_back(s);
      established += step.established;
    }
  }
};

TEST(NodeLinkHandshake, CallingAPc9xPeer) {
  Driver d(NodeLinkHandshake(Role::kCall, MakeConfig("Q8YYY", "Q9ZZZ-2")));
  d.Feed({"Welcome to the example node", "", "login: "});
  ASSERT_EQ(d.sent, std::vector<std::string>{"Q8YYY\r\n"});
  d.Feed({"0", "PC18^ExampleNode Version: 2.3 Build: 120 pc9x 91^5300^"});
  ASSERT_EQ(d.sent.size(), 4u);
  EXPECT_EQ(d.sent[1].substr(0, 18), "PC92^Q8YYY^80562^C");
  EXPECT_EQ(d.sent[3], "PC20^\r\n");
  EXPECT_EQ(d.hs.state(), State::kAwaitPc22);
  d.Feed({"PC92^Q9ZZZ-2^80562^A^^5Q8YYY:127.0.0.1^H99^",
          "PC92^Q9ZZZ-2^80562.01^K^5Q9ZZZ-2:5300:^1^0^127.0.0.1^none/none^H99^", "PC22^"});
  EXPECT_TRUE(d.hs.up());
  EXPECT_TRUE(d.hs.peer_pc9x());
  EXPECT_EQ(d.established, 1);
  EXPECT_EQ(d.sent.size(), 4u);
  // Later lines change nothing.
  d.Feed({"PC22^", "PC51^Q8YYY^Q9ZZZ-2^1^"});
  EXPECT_EQ(d.established, 1);
}

TEST(NodeLinkHandshake, CallingALegacyPeerWithoutTrailers) {
  Driver d(NodeLinkHandshake(Role::kCall, MakeConfig("Q8YYY", "Q7XXX")));
  d.Feed({"CALL:"});  // prompt without line end, upper case
  d.Feed({"PC38^Q7XXX^~",
          "PC18^ 1 nodes, 0 local / 1 total users  Max users 0  Uptime 0 00:00^5447^~"});
  ASSERT_EQ(d.sent.size(), 3u);
  EXPECT_EQ(d.sent[1], "PC19^1^Q8YYY^0^5457^H99^\r\n");
  EXPECT_EQ(d.sent[2], "PC20^\r\n");
  EXPECT_FALSE(d.hs.peer_pc9x());
  d.Feed({"PC19^1^Q7XXX^0^5455^H25^", "PC16^Q7XXX^Q7USR - 1^H25^", "PC22"});
  EXPECT_TRUE(d.hs.up());
  EXPECT_FALSE(d.hs.peer_pc9x());
}

TEST(NodeLinkHandshake, CallerWhosePc9xPeerNeverDescribesItselfFallsBack) {
  Driver d(NodeLinkHandshake(Role::kCall, MakeConfig("Q8YYY", "Q9ZZZ-2")));
  d.Feed({"Please enter your call: ", "PC18^Other pc9x^5300^", "PC22^"});
  EXPECT_TRUE(d.hs.up());
  EXPECT_FALSE(d.hs.peer_pc9x());
  EXPECT_EQ(d.sent.back().substr(0, 9), "Resetting");
}

TEST(NodeLinkHandshake, CallerThatSpeaksOnlyLegacy) {
  Driver d(NodeLinkHandshake(Role::kCall, MakeConfig("Q8YYY", "Q9ZZZ-2", false)));
  d.Feed({"LOGIN:", "PC18^ExampleNode Version: 2.3 Build: 120 pc9x 91^5300^", "PC22^"});
  EXPECT_EQ(d.sent[1], "PC19^1^Q8YYY^0^5457^H99^\r\n");
  EXPECT_TRUE(d.hs.up());
  EXPECT_FALSE(d.hs.peer_pc9x());
}

TEST(NodeLinkHandshake, AcceptingAPc9xCaller) {
  Driver d(NodeLinkHandshake(Role::kAccept, MakeConfig("Q9ZZZ-2", "Q8YYY")));
  d.Feed({"", "Q6WRONG", "Q8YYY"});
  ASSERT_EQ(d.sent.size(), 1u);
  EXPECT_EQ(d.sent[0], "PC18^QX Cluster Version: 5457 Build: 0.001 pc9x^5457^\r\n");
  d.Feed({"PC92^Q8YYY^80562^C^5Q8YYY:5457^1Q8USR:198.51.100.20^H99^",
          "PC92^Q8YYY^80562.01^K^5Q8YYY:5457:46^1^1^H99^"});
  EXPECT_TRUE(d.hs.peer_pc9x());
  EXPECT_FALSE(d.hs.up());
  d.Feed({"PC20^"});
  ASSERT_EQ(d.sent.size(), 4u);
  EXPECT_EQ(d.sent[1].substr(0, 20), "PC92^Q9ZZZ-2^80562^C");
  EXPECT_EQ(d.sent[3], "PC22^\r\n");
  EXPECT_TRUE(d.hs.up());
  EXPECT_EQ(d.established, 1);
}

TEST(NodeLinkHandshake, AcceptingALegacyCaller) {
  Driver d(NodeLinkHandshake(Role::kAccept, MakeConfig("Q9ZZZ-2", "Q7XXX")));
  d.Feed({"q7xxx\r"});
  d.Feed({"PC19^1^Q7XXX^0^5455^H25^", "PC16^Q7XXX^Q7USR - 1^H25^",
          "PC92^Q6WWW^80562^K^5Q6WWW:5457:46^1^1^H99^",  // someone else's PC92 relayed early
          "PC20^"});
  EXPECT_TRUE(d.hs.up());
  EXPECT_FALSE(d.hs.peer_pc9x());
  ASSERT_EQ(d.sent.size(), 3u);
  EXPECT_EQ(d.sent[1], "PC19^1^Q9ZZZ-2^0^5457^H99^\r\n");
  EXPECT_EQ(d.sent[2], "PC22^\r\n");
}

TEST(NodeLinkHandshake, CallerAnswersAPasswordPromptOnce) {
  auto config = MakeConfig("Q8YYY", "Q7XXX");
  config.password = "secret";
  Driver d(NodeLinkHandshake(Role::kCall, std::move(config)));
  d.Feed({"login: ", "password: ", "Password: ", "PC18^Old node^5447^"});
  ASSERT_EQ(d.sent.size(), 4u);
  EXPECT_EQ(d.sent[0], "Q8YYY\r\n");
  EXPECT_EQ(d.sent[1], "secret\r\n");
  EXPECT_EQ(d.sent[2], "PC19^1^Q8YYY^0^5457^H99^\r\n");
}

// Remote nodes prompt in several ways, and some introduce themselves without a prompt.
TEST(NodeLinkHandshake, CallerAnswersEveryPromptFormAndAPc18WithoutPrompt) {
  for (std::string_view prompt : {"login: ", "LOGIN:", "Your call: ", "*** Connected to Q7XXX"}) {
    Driver d(NodeLinkHandshake(Role::kCall, MakeConfig("Q8YYY", "Q7XXX")));
    d.Feed({"Connected", prompt});
    EXPECT_EQ(d.sent, std::vector<std::string>{"Q8YYY\r\n"}) << prompt;
  }
  // "Connected" alone (no stars) is a banner, not a prompt.
  EXPECT_FALSE(NodeLinkHandshake::IsLoginPrompt("Connected to the node"));

  Driver d(NodeLinkHandshake(Role::kCall, MakeConfig("Q8YYY", "Q9ZZZ-2")));
  d.Feed({"Welcome", "PC18^ExampleNode Version: 2.3 Build: 120 pc9x 91^5300^"});
  ASSERT_EQ(d.sent.size(), 3u);
  EXPECT_EQ(d.sent[0].substr(0, 18), "PC92^Q8YYY^80562^C");
  EXPECT_EQ(d.sent[2], "PC20^\r\n");
  EXPECT_EQ(d.hs.state(), State::kAwaitPc22);
  d.Feed({"PC92^Q9ZZZ-2^80562^A^^5Q8YYY^H99^", "PC22^"});
  EXPECT_TRUE(d.hs.up());
  EXPECT_TRUE(d.hs.peer_pc9x());
}

TEST(NodeKindOf, ConfigurationFirstThenTheHandshake) {
  EXPECT_EQ(NodeKindOf("DXS pc9x", "PC18^Other Version: 2.3 pc9x^5300^", true), "DXS");
  EXPECT_EQ(NodeKindOf("arc", "", false), "ARC");
  EXPECT_EQ(NodeKindOf("PC9X", "PC18^QX Cluster Version: 5457 Build: 0.001 pc9x^5457^", true),
            "QXC");
  EXPECT_EQ(NodeKindOf("", "PC18^Other Version: 2.3 pc9x^5300^", true), "PC9X");
  EXPECT_EQ(NodeKindOf("", "", false), "LEGACY");
}

}  // namespace
}  // namespace qx
