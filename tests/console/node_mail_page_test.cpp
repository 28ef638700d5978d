// The console's mail API on the real node: a bulletin whose forward to a scripted legacy peer
// failed is shown queued with its failed attempt, sent again at once on the sysop's request,
// shown acknowledged once the peer confirmed it, and deleted.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "tests/console/console_client.h"
#include "tests/testlib/node_sites.h"

namespace qx::testing {
namespace {

using nlohmann::json;
using namespace std::chrono_literals;

constexpr std::string_view kPasswordLine = "Console password: ";

TEST(NodeMailPageTest, StuckForwardIsShownSentAgainAndDeleted) {
  if (!std::filesystem::exists(kSystemCountryFile)) GTEST_SKIP() << "no country file";
  NodeSite node("K1QXA");
  node.Define("K7LEG", "ARC");
  node.Start();
  ASSERT_TRUE(node.WaitOutput(kPasswordLine)) << node.node().Output();
  const std::string output = node.node().Output();
  const size_t at = output.find(kPasswordLine) + kPasswordLine.size();
  ConsoleClient console(node.console_port());
  const ConsoleLogin login = console.LogIn(output.substr(at, output.find('\n', at) - at));
  ASSERT_FALSE(login.csrf.empty());
  const auto mail = [&] { return json::parse(console.Get("/api/mail", &login).body()); };

  auto peer = node.Connect();
  peer->SendLine("K7LEG");
  ASSERT_TRUE(peer->ReadUntil("PC18^")) << peer->received();
  peer->SendLine("PC19^1^K7LEG^0^5455^H25^");
  peer->SendLine("PC20^");
  ASSERT_TRUE(peer->ReadUntil("PC22^\r\n")) << peer->received();
  ASSERT_TRUE(node.WaitOutput("Node link up: K7LEG (legacy)")) << node.node().Output();

  auto user = node.LogIn("W1AAA");
  user->SendLine("SEND ALL");
  ASSERT_TRUE(user->ReadUntil("Enter the subject")) << user->received();
  user->SendLine("Field day");
  user->SendLine("Saturday");
  user->SendLine("/EX");
  ASSERT_TRUE(peer->ReadUntil("PC28^K7LEG^K1QXA^ALL^W1AAA^")) << peer->received();
  EXPECT_EQ(mail()["messages"][0]["forwards"],
            json::parse(R"([{"node":"K7LEG","state":"sending","attempts":0}])"));
  // The peer abandons it: the node would wait five minutes before the next attempt.
  peer->ClearReceived();
  peer->SendLine("PC30^K1QXA^K7LEG^4^");
  ASSERT_TRUE(peer->ReadUntil("PC32^K7LEG^K1QXA^4^\r\n")) << peer->received();
  peer->SendLine("PC42^K1QXA^K7LEG^4^");
  ASSERT_TRUE(WaitFor([&] { return mail()["messages"][0]["forwards"][0]["attempts"] == 1; }))
      << mail().dump();
  EXPECT_EQ(mail()["messages"][0]["forwards"][0]["state"], "queued");

  const ConsoleReply again = console.Post("/api/mail/requeue", json{{"number", 1}}, &login);
  ASSERT_EQ(again.result_int(), 200u) << again.body();
  peer->ClearReceived();
  ASSERT_TRUE(peer->ReadUntil("PC28^K7LEG^K1QXA^ALL^W1AAA^")) << peer->received();
  peer->SendLine("PC30^K1QXA^K7LEG^5^");
  ASSERT_TRUE(peer->ReadUntil("PC32^K7LEG^K1QXA^5^\r\n")) << peer->received();
  peer->SendLine("PC33^K1QXA^K7LEG^5^");
  ASSERT_TRUE(WaitFor([&] {
    return mail()["messages"][0]["forwards"] ==
           json::parse(R"([{"node":"K7LEG","state":"acknowledged","attempts":0}])");
  })) << mail().dump();
  const json read = json::parse(console.Get("/api/mail/read?number=1", &login).body());
  EXPECT_EQ(read["text"], json::parse(R"(["Saturday"])"));
  EXPECT_EQ(console.Post("/api/mail/requeue", json{{"number", 1}}, &login).result_int(), 400u);

  ASSERT_EQ(console.Post("/api/mail/delete", json{{"number", 1}}, &login).result_int(), 200u);
  EXPECT_TRUE(mail()["messages"].empty());
  EXPECT_EQ(console.Get("/api/mail/read?number=1", &login).result_int(), 404u);
}

}  // namespace
}  // namespace qx::testing
