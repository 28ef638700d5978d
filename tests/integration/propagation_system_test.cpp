// WWV and WCY in running nodes: entered on one node and seen on another, received from a
// scripted peer and kept across a restart, and fetched from a local HTTP server.
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <ctime>
#include <thread>

#include "core/time_text.h"
#include "tests/testlib/http_server.h"
#include "tests/testlib/node_sites.h"

namespace qx::testing {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;
using namespace std::chrono_literals;

using PropagationSystemTest = NodeSiteTest;

int HourNow() { return SecondsOfDay(SystemClock().Now()) / 3600; }

TEST_F(PropagationSystemTest, AWwvEnteredOnOneNodeReachesTheOthersUsers) {
  NodeSite a("K1QXA"), b("K2QXB");
  for (NodeSite* s : {&a, &b}) s->Setting("Connection Retry", "2");
  a.Define(b.call());
  b.Define(a.call());
  b.Outgoing(a.call(), a.user_port());
  a.Password("K1SYS", "secret", 5);
  a.Start();
  b.Start();
  ASSERT_TRUE(b.WaitOutput("Node link up: K1QXA (PC9x)")) << b.node().Output();
  ASSERT_TRUE(a.WaitOutput("Node link up: K2QXB (PC9x)")) << a.node().Output();
  auto sysop = a.LogIn("K1SYS", "secret");
  auto user_a = a.LogIn("W1AAA");
  auto user_b = b.LogIn("W2BBB");
  // A user whose WWV rules refuse the United States, and whose announcement rules North
  // America, sees neither the WWV nor the announcement from there.
  auto choosy = b.LogIn("DL1CCC");
  choosy->SendLine("SET/FILTER WOC/REJ K");
  ASSERT_TRUE(choosy->ReadUntil("WWV filter WOC set")) << choosy->received();
  choosy->SendLine("REJ/ANN by_cont NA");
  ASSERT_TRUE(choosy->ReadUntil("ANNOUNCE filter R1 set")) << choosy->received();

  user_a->SendLine("WWV SF=150,A=8,K=2,Quiet");
  ASSERT_TRUE(user_a->ReadUntil("sysop command error")) << user_a->received();
  sysop->SendLine("WWV SF=150,A=8,K=12,Quiet");
  ASSERT_TRUE(sysop->ReadUntil("K must be a number from 0 to 9")) << sysop->received();
  sysop->SendLine("WWV SF=150,A=8,K=2,No Storms -> Minor w/G1");
  const std::string line =
      fmt::format("WWV de K1SYS <{:02}>: SFI=150, A=8, K=2, No Storms -> Minor w/G1", HourNow());
  ASSERT_TRUE(user_b->ReadUntil(line)) << user_b->received() << Logs(b);
  ASSERT_TRUE(user_a->ReadUntil(line)) << user_a->received();
  EXPECT_EQ(CountAfterDrain(*user_b, "WWV de"), 1u);
  user_a->SendLine("ANNOUNCE hello from W1AAA");
  ASSERT_TRUE(user_b->ReadUntil("To ALL de W1AAA: hello from W1AAA")) << user_b->received();
  EXPECT_EQ(CountAfterDrain(*choosy, "WWV de"), 0u);
  EXPECT_EQ(CountAfterDrain(*choosy, "To ALL de"), 0u);
  for (auto* u : {user_a.get(), user_b.get()}) {
    u->ClearReceived();
    u->SendLine("SH/WWV");
    ASSERT_TRUE(u->ReadUntil("<K1SYS>")) << u->received();
    EXPECT_THAT(u->received(), HasSubstr("Forecast"));
  }
}

TEST_F(PropagationSystemTest, ReportsFromAPeerAreShownOnceAndSurviveARestart) {
  NodeSite node("K1QXA");
  node.Define("K9PCX");
  node.Start();
  auto user = node.LogIn("W1AAA");
  auto peer = node.Connect();
  peer->SendLine("K9PCX");
  ASSERT_TRUE(peer->ReadUntil("PC18^")) << peer->received();
  peer->SendLine(fmt::format("PC92^K9PCX^{}^C^5K9PCX:5300^H99^", std::time(nullptr) % 86400));
  peer->SendLine("PC20^");
  ASSERT_TRUE(peer->ReadUntil("PC22^\r\n")) << peer->received();

  const std::string date = DateText(SystemClock().Now());
  const int hour = HourNow();
  peer->SendLine(fmt::format("PC23^{}^{}^160^  9^ 3^Minor^Q4LOG^K9PCX^H20^~", date, hour));
  peer->SendLine(fmt::format("PC23^{}^{}^160^9^12^Broken^Q4LOG^K9PCX^H20^~", date, hour));
  peer->SendLine(
      fmt::format("PC73^{}^{}^160^  9^  3^2^120^act^qui^no^Q4WCY^K9PCX^H20^", date, hour));
  peer->SendLine(fmt::format("PC23^{}^{}^160^9^3^Minor^Q4LOG^K9PCX^H19^", date, hour));
  ASSERT_TRUE(
      user->ReadUntil(fmt::format("WCY de Q4WCY <{:02}> : K=3 expK=2 A=9 R=120 SFI=160 "
                                  "SA=act GMF=qui Au=no",
                                  hour)))
      << user->received();
  EXPECT_THAT(user->received(),
              HasSubstr(fmt::format("WWV de Q4LOG <{:02}>: SFI=160, A=9, K=3, Minor", hour)));
  EXPECT_EQ(CountAfterDrain(*user, "WWV de"), 1u);
  EXPECT_THAT(user->received(), Not(HasSubstr("Broken")));

  ASSERT_EQ(node.node().Stop(), 0);
  node.StartNode();
  ASSERT_TRUE(node.WaitOutput("Recovery complete")) << node.node().Output();
  EXPECT_THAT(node.node().Output(), HasSubstr("Loading WWV"));
  user->ClearReceived();
  user->SendLine("SH/WWV");
  ASSERT_TRUE(user->ReadUntil("<Q4LOG>")) << user->received();
  user->SendLine("SH/WCY");
  ASSERT_TRUE(user->ReadUntil("<Q4WCY>")) << user->received();
  user->SendLine("SH/WWV lots");
  ASSERT_TRUE(user->ReadUntil("SH/WWV lots command error")) << user->received();
}

TEST_F(PropagationSystemTest, AtStartUpTheNodeFetchesTheAlertTextAndSendsAWwv) {
  // The agency's text for this hour (so it is neither stale nor of another period).
  const SysTime now = SystemClock().Now();
  const std::time_t t = std::chrono::system_clock::to_time_t(now);
  std::tm tm{};
  gmtime_r(&t, &tm);
  const int hour = tm.tm_hour;
  const std::string text = fmt::format(
      ":Product: Geophysical Alert Message wwv.txt\n:Issued: {} {} {:02} {:02}05 UTC\n"
      "Solar flux 142 and estimated planetary A-index 7.\n"
      "The estimated planetary K-index at {:02}00 UTC on {:02} {} was 1.67.\n\n"
      "No space weather storms were observed for the past 24 hours.\n\n"
      "No space weather storms are predicted for the next 24 hours.\n",
      tm.tm_year + 1900, MonthAbbrev(tm.tm_mon + 1), tm.tm_mday, hour, hour, tm.tm_mday,
      MonthAbbrev(tm.tm_mon + 1));
  HttpTestServer server;
  server.Serve("/text/wwv.txt", {text});
  NodeSite node("K1QXA");
  node.Setting("Get WWV", "True");
  node.Setting("WWV URL", fmt::format("http://127.0.0.1:{}/text/wwv.txt", server.port()));
  node.Start();
  ASSERT_TRUE(node.WaitOutput("WWV fetch: sent")) << node.node().Output();
  EXPECT_EQ(server.requests().size(), 1u);
  auto user = node.LogIn("W1AAA");
  user->SendLine("SH/WWV");
  ASSERT_TRUE(user->ReadUntil("<K1QXA>")) << user->received();
  EXPECT_THAT(user->received(), HasSubstr("No Storms -> No Storms"));

  // An empty address turns the fetch off: no attempt, no failure in the log.
  NodeSite quiet("K1QXB");
  quiet.Setting("Get WWV", "True");
  quiet.Setting("WWV URL", "");
  quiet.Start();
  EXPECT_FALSE(quiet.WaitOutput("WWV fetch", 1, std::chrono::seconds(2))) << quiet.node().Output();
}

}  // namespace
}  // namespace qx::testing
