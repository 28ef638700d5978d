// What the Monitor, Spots and Mail pages show of the real node and front-end, with a scripted
// legacy peer on a node link: the view changed through the console's API, the live lines read
// from its WebSocket as the page reads them, and the mail queue acted on.  One node run for
// all of it, the programs being slow to start.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/console/node_console_site.h"

namespace qx::testing {
namespace {

using nlohmann::json;
using namespace std::chrono_literals;

// The first element of list whose key holds value, or nullptr.
template <typename List>
const json* Find(const List& list, std::string_view key, std::string_view value) {
  for (const json& e : list) {
    if (e[key] == value) return &e;
  }
  return nullptr;
}

TEST_F(NodeConsoleTest, MonitorSpotsAndMailPagesFollowTheNodeAndItsLegacyPeer) {
  NodeSite node("K1QXA");
  node.Define("K7LEG", "ARC");
  StartNode(node);
  EXPECT_EQ(Get("monitor/view")["view"], 0);  // a started node shows all traffic
  Post("lists/DxNok/add", {{"item", "K9BAD"}});
  WsClient ws;
  ASSERT_EQ(ws.Connect(node.console_port(), login_.cookie), 101);
  auto peer = LinkLegacyPeer(node, "K7LEG");
  ASSERT_TRUE(peer);
  const json streams = Get("streams")["streams"];
  const json* peer_stream = Find(streams, "call", "K7LEG");
  ASSERT_TRUE(peer_stream) << streams.dump();

  // The history holds a user's input beside the node's answers, a spot once with the number
  // of users it reached (not once per user), and a refused spot with its reason in words.
  auto a = node.LogIn("DL1ABC");
  auto b = node.LogIn("K1XYZ");
  a->SendLine("DX 14025 K1ABC test");
  ASSERT_TRUE(b->ReadUntil("K1ABC")) << b->received();
  a->SendLine("DX 14030 K9BAD hello");  // refused without a word to the spotter
  a->Drain(1s);
  const json lines = Get("monitor/history?q=K1ABC")["lines"];
  int typed = 0, sent = 0;
  for (const json& l : lines) {
    const std::string x = l["x"];
    EXPECT_GT(l["ts"].get<int64_t>(), 0);
    if (l["d"] == "in" && x == "DX 14025 K1ABC test") ++typed;
    if (l["d"] == "out" && x.starts_with("DX de DL1ABC:")) {
      ++sent;
      EXPECT_TRUE(x.ends_with("[sent to 2 users]")) << x;
    }
  }
  EXPECT_EQ(typed, 1) << lines.dump();
  EXPECT_EQ(sent, 1) << lines.dump();
  const json spots = Get("spots")["spots"];
  const json* taken = Find(spots, "dx", "K1ABC");
  const json* refused = Find(spots, "dx", "K9BAD");
  ASSERT_TRUE(taken && refused) << spots.dump();
  EXPECT_EQ((*taken)["refused"], false);
  EXPECT_EQ((*taken)["band"], "20m");
  EXPECT_EQ((*taken)["spotter"], "DL1ABC");
  EXPECT_EQ((*refused)["refused"], true);
  EXPECT_EQ((*refused)["reason"], "DX call refused");
  EXPECT_EQ((*refused)["rule"], "DX call refused: K9BAD (DxNok list)");

  // A PC11 without its terminator is a spot like any other; only the node-traffic view
  // reports it, on the raw channel of the peer's stream.
  const SysTime now = SystemClock().Now();
  const std::string stamp = DateText(now) + "^" + TimeHHnnZ(now);
  const auto lines_until_spot = [&](std::string_view dx) {
    std::vector<json> seen;
    while (const auto m = ws.Next(15s)) {
      if ((*m)["t"] != "line") continue;
      seen.push_back(*m);
      if ((*m)["ch"] == "spots" && (*m)["x"].get<std::string>().find(dx) != std::string::npos) {
        return seen;
      }
    }
    ADD_FAILURE() << dx << " never reached the spot list";
    return seen;
  };
  peer->SendLine("PC11^14025.0^JA1AAA^" + stamp + "^short^W7OLD^K7LEG^H24");
  for (const json& m : lines_until_spot("JA1AAA")) {
    EXPECT_NE(m["x"], " Protocol Violation") << m.dump();
  }
  EXPECT_EQ(Post("monitor/view", {{"view", 1}})["view"], 1);
  EXPECT_EQ(Get("monitor/view")["view"], 1);
  peer->SendLine("PC11^14026.0^JA1BBB^" + stamp + "^short^W7OLD^K7LEG^H24");
  const std::vector<json> seen = lines_until_spot("JA1BBB");
  const json* violation = Find(seen, "x", " Protocol Violation");
  ASSERT_TRUE(violation) << "no violation line on the node-traffic view";
  EXPECT_EQ((*violation)["c"], "blue");
  EXPECT_EQ((*violation)["ch"], "raw");
  EXPECT_EQ((*violation)["s"], (*peer_stream)["number"]);

  // A bulletin whose forward the peer abandoned is shown queued with its failed attempt, sent
  // again at once on the sysop's request, shown acknowledged once confirmed, and deleted.
  const auto forwards = [&] { return Get("mail")["messages"][0]["forwards"]; };
  auto user = node.LogIn("W1AAA");
  user->SendLine("SEND ALL");
  ASSERT_TRUE(user->ReadUntil("Enter the subject")) << user->received();
  user->SendLine("Field day");
  user->SendLine("Saturday");
  user->SendLine("/EX");
  ASSERT_TRUE(peer->ReadUntil("PC28^K7LEG^K1QXA^ALL^W1AAA^")) << peer->received();
  EXPECT_EQ(forwards(), json::parse(R"([{"node":"K7LEG","state":"sending","attempts":0}])"));
  peer->ClearReceived();
  peer->SendLine("PC30^K1QXA^K7LEG^4^");
  ASSERT_TRUE(peer->ReadUntil("PC32^K7LEG^K1QXA^4^\r\n")) << peer->received();
  peer->SendLine("PC42^K1QXA^K7LEG^4^");  // the node would wait five minutes to try again
  ASSERT_TRUE(WaitFor([&] { return forwards()[0]["attempts"] == 1; })) << forwards().dump();
  EXPECT_EQ(forwards()[0]["state"], "queued");

  peer->ClearReceived();
  Post("mail/requeue", {{"number", 1}});
  ASSERT_TRUE(peer->ReadUntil("PC28^K7LEG^K1QXA^ALL^W1AAA^")) << peer->received();
  peer->SendLine("PC30^K1QXA^K7LEG^5^");
  ASSERT_TRUE(peer->ReadUntil("PC32^K7LEG^K1QXA^5^\r\n")) << peer->received();
  peer->SendLine("PC33^K1QXA^K7LEG^5^");
  ASSERT_TRUE(WaitFor([&] {
    return forwards() == json::parse(R"([{"node":"K7LEG","state":"acknowledged","attempts":0}])");
  })) << forwards().dump();
  EXPECT_EQ(Get("mail/read?number=1")["text"], json::parse(R"(["Saturday"])"));
  Post("mail/requeue", {{"number", 1}}, 400);
  Post("mail/delete", {{"number", 1}});
  EXPECT_TRUE(Get("mail")["messages"].empty());
  Get("mail/read?number=1", 404);
}

}  // namespace
}  // namespace qx::testing
