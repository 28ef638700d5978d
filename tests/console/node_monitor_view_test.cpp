// The monitor view selector end to end: the real node and front-end, a scripted legacy peer
// on a node link, the view changed through the web console's API, and the monitor lines read
// from the console's WebSocket as the page reads them.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <optional>
#include <string>

#include "core/time_text.h"
#include "tests/console/console_client.h"
#include "tests/testlib/node_sites.h"

namespace qx::testing {
namespace {

using nlohmann::json;
using namespace std::chrono_literals;

constexpr std::string_view kPasswordLine = "Console password: ";

TEST(NodeMonitorViewTest, Pc11WithoutTerminatorIsTakenAndReportedOnlyOnTheNodeTrafficView) {
  NodeSite node("K1QXA");
  node.Define("K7LEG", "ARC");
  node.Start();
  ASSERT_TRUE(node.WaitOutput(kPasswordLine)) << node.node().Output();
  const std::string output = node.node().Output();
  const size_t at = output.find(kPasswordLine) + kPasswordLine.size();
  const std::string password = output.substr(at, output.find('\n', at) - at);

  ConsoleClient console(node.console_port());
  const ConsoleLogin login = console.LogIn(password);
  ASSERT_FALSE(login.csrf.empty());
  const ConsoleReply initial = console.Get("/api/monitor/view", &login);
  ASSERT_EQ(initial.result_int(), 200u) << initial.body();
  EXPECT_EQ(json::parse(initial.body())["view"], 0);  // a started node shows all traffic
  WsClient ws;
  ASSERT_EQ(ws.Connect(node.console_port(), login.cookie), 101);

  auto peer = node.Connect();
  peer->SendLine("K7LEG");
  ASSERT_TRUE(peer->ReadUntil("PC18^")) << peer->received();
  peer->SendLine("PC19^1^K7LEG^0^5455^H25^");
  peer->SendLine("PC20^");
  ASSERT_TRUE(peer->ReadUntil("PC22^\r\n")) << peer->received();
  ASSERT_TRUE(node.WaitOutput("Node link up: K7LEG (legacy)")) << node.node().Output();
  int peer_stream = 0;
  const json streams = json::parse(console.Get("/api/streams", &login).body());
  for (const json& st : streams["streams"]) {
    if (st["call"] == "K7LEG") peer_stream = st["number"];
  }
  ASSERT_GT(peer_stream, 0);

  // On the all-traffic view a PC11 without its terminator is a spot like any other, and
  // nothing is said about it.
  const SysTime now = SystemClock().Now();
  const std::string stamp = DateText(now) + "^" + TimeHHnnZ(now);
  const auto spot_listed = [&](std::string_view dx, std::vector<json>& seen) {
    while (true) {
      const auto m = ws.Next(15s);
      if (!m) return false;
      if ((*m)["t"] != "line") continue;
      seen.push_back(*m);
      if ((*m)["ch"] == "spots" && (*m)["x"].get<std::string>().find(dx) != std::string::npos) {
        return true;
      }
    }
  };
  std::vector<json> seen;
  peer->SendLine("PC11^14025.0^JA1AAA^" + stamp + "^short^W7OLD^K7LEG^H24");
  ASSERT_TRUE(spot_listed("JA1AAA", seen)) << "the spot never reached the spot list";
  for (const json& m : seen) EXPECT_NE(m["x"], " Protocol Violation") << m.dump();

  // The sysop switches to the node-traffic view: the next such PC11 is reported, and taken.
  const ConsoleReply set = console.Post("/api/monitor/view", json{{"view", 1}}, &login);
  ASSERT_EQ(set.result_int(), 200u) << set.body();
  EXPECT_EQ(json::parse(console.Get("/api/monitor/view", &login).body())["view"], 1);
  seen.clear();
  peer->SendLine("PC11^14026.0^JA1BBB^" + stamp + "^short^W7OLD^K7LEG^H24");
  ASSERT_TRUE(spot_listed("JA1BBB", seen)) << "the spot never reached the spot list";
  const json* violation = nullptr;
  for (const json& m : seen) {
    if (m["x"] == " Protocol Violation") violation = &m;
  }
  ASSERT_TRUE(violation) << "no violation line on the node-traffic view";
  EXPECT_EQ((*violation)["c"], "blue");
  EXPECT_EQ((*violation)["ch"], "raw");
  EXPECT_EQ((*violation)["s"], peer_stream);
}

// What the Monitor and Spots pages read after the fact: a user's input beside the node's
// answers, a spot once with the number of users it reached (not once per user), and a
// refused spot with its reason in words.
TEST(NodeMonitorViewTest, HistoryHoldsInputOneLinePerSpotAndRefusalsWithReasons) {
  NodeSite node("K1QXA");
  node.Start();
  ASSERT_TRUE(node.WaitOutput(kPasswordLine)) << node.node().Output();
  const std::string output = node.node().Output();
  const size_t at = output.find(kPasswordLine) + kPasswordLine.size();
  ConsoleClient console(node.console_port());
  const ConsoleLogin login = console.LogIn(output.substr(at, output.find('\n', at) - at));
  ASSERT_FALSE(login.csrf.empty());
  ASSERT_EQ(console.Post("/api/lists/DxNok/add", json{{"item", "K9BAD"}}, &login).result_int(),
            200u);

  auto a = node.LogIn("DL1ABC");
  auto b = node.LogIn("K1XYZ");
  a->SendLine("DX 14025 K1ABC test");
  ASSERT_TRUE(b->ReadUntil("K1ABC")) << b->received();
  a->SendLine("DX 14030 K9BAD hello");  // refused without a word to the spotter
  a->Drain(1s);

  const json lines =
      json::parse(console.Get("/api/monitor/history?q=K1ABC", &login).body())["lines"];
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

  const json spots = json::parse(console.Get("/api/spots", &login).body())["spots"];
  const json* taken = nullptr;
  const json* refused = nullptr;
  for (const json& s : spots) {
    if (s["dx"] == "K1ABC") taken = &s;
    if (s["dx"] == "K9BAD") refused = &s;
  }
  ASSERT_TRUE(taken && refused) << spots.dump();
  EXPECT_EQ((*taken)["refused"], false);
  EXPECT_EQ((*taken)["band"], "20m");
  EXPECT_EQ((*taken)["spotter"], "DL1ABC");
  EXPECT_EQ((*refused)["refused"], true);
  EXPECT_EQ((*refused)["reason"], "DX call refused");
  EXPECT_EQ((*refused)["rule"], "DX call refused: K9BAD (DxNok list)");
}

}  // namespace
}  // namespace qx::testing
