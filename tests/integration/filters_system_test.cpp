// Users' filters through the real programs: one stream of spots reaches each user as their
// rules say, rules survive a node restart, and a client that types its rules straight after
// its call has them applied.
#include <regex>
#include <set>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/integration/system_fixture.h"

namespace qx::testing {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;
using namespace std::chrono_literals;

class FiltersSystemTest : public SystemFixture {
 protected:
  // The DX calls of the "DX de" lines a client has received.
  static std::set<std::string> DxCalls(const std::string& text) {
    static const std::regex kLine("DX de [A-Z0-9/-]+: +[0-9.]+ +([A-Z0-9/]+)");
    std::set<std::string> calls;
    for (std::sregex_iterator it(text.begin(), text.end(), kLine), end; it != end; ++it) {
      calls.insert((*it)[1]);
    }
    return calls;
  }
  // Sends the spots in turn, then waits until an unfiltered observer has them all, so that
  // every user's share has been written before anyone's is read.
  void SendSpots(const std::vector<std::pair<LineClient*, std::string>>& spots,
                 LineClient& observer) {
    for (const auto& [who, line] : spots) Command(*who, line);
    const std::string last = spots.back().second.substr(spots.back().second.rfind(' ') + 1);
    ASSERT_TRUE(WaitFor(
        [&] {
          observer.Drain(20ms);
          return DxCalls(observer.received()).size() == spots.size();
        },
        10s))
        << observer.received();
  }
  std::string ReadMetrics() {
    LineClient http;
    EXPECT_TRUE(http.Connect(console_port()));
    http.Send("GET /metrics HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: close\r\n\r\n");
    EXPECT_TRUE(http.WaitClosed());
    return http.received();
  }
  static std::set<std::string> Received(LineClient& c) {
    c.Drain(200ms);
    std::set<std::string> calls = DxCalls(c.received());
    c.ClearReceived();
    return calls;
  }
};

TEST_F(FiltersSystemTest, EachUserGetsExactlyTheSpotsTheirRulesLetThroughUntilNoFilters) {
  StartAll();
  auto eu = LogIn("DL1ABC", "Hans");
  auto na = LogIn("K1XYZ", "Joe");
  auto observer = LogIn("W9OBS", "Obs");
  auto band = LogIn("W1AAA", "Al");
  auto cont = LogIn("W2BBB", "Bo");
  auto words = LogIn("W3CCC", "Cy");
  EXPECT_THAT(Command(*band, "ACC/SPOTS on 20m"), HasSubstr("SPOTS filter A1 set"));
  EXPECT_THAT(Command(*cont, "REJ/SPOTS by_cont eu"), HasSubstr("SPOTS filter R1 set"));
  Command(*words, "SET/FILTER KEYWORD/REJ IOTA");
  EXPECT_THAT(Command(*words, "set/filter dxbm/pass 20-CW,40-CW"), HasSubstr("DXBM: "));

  const std::vector<std::pair<LineClient*, std::string>> spots = {
      {eu.get(), "DX 14025 K1AA cq"}, {na.get(), "DX 14200 W6BB"},
      {eu.get(), "DX 7025 K2CC"},     {na.get(), "DX 14030 K3DD Iota NA-001"},
      {na.get(), "DX 21025 K4EE"},    {na.get(), "DX 7030 K5FF"},
  };
  SendSpots(spots, *observer);
  using Calls = std::set<std::string>;
  EXPECT_EQ(Received(*band), (Calls{"K1AA", "W6BB", "K3DD"}));
  EXPECT_EQ(Received(*cont), (Calls{"W6BB", "K3DD", "K4EE", "K5FF"}));
  EXPECT_EQ(Received(*words), (Calls{"K1AA", "K2CC", "K5FF"}));
  // The spotter sees their own spot whatever their rules say.
  Command(*eu, "REJ/SPOTS 5 by DL1ABC");
  // SH/DX shows what the rules let through unless ALL is asked for.
  const std::string show = Command(*band, "SH/DX 3");
  EXPECT_THAT(show, HasSubstr("K3DD"));
  EXPECT_THAT(show, HasSubstr("W6BB"));
  EXPECT_THAT(show, HasSubstr("K1AA"));
  EXPECT_THAT(show, Not(HasSubstr("K5FF")));
  EXPECT_THAT(Command(*band, "SH/DX ALL 1"), HasSubstr("K5FF"));
  const std::string why = Command(*band, "SH/FILTER WHY");
  EXPECT_THAT(why, HasSubstr("K5FF"));
  EXPECT_THAT(why, HasSubstr("ACCEPT: no accept line matched"));

  for (LineClient* c : {band.get(), cont.get(), words.get()}) {
    EXPECT_THAT(Command(*c, "SET/NOFILTERS"), HasSubstr("All filters off"));
  }
  observer->ClearReceived();
  const std::vector<std::pair<LineClient*, std::string>> more = {
      {eu.get(), "DX 21030 K6GG iota"}, {na.get(), "DX 3525 K7HH"}, {eu.get(), "DX 14250 K8II"}};
  SendSpots(more, *observer);
  const Calls all{"K6GG", "K7HH", "K8II"};
  EXPECT_EQ(Received(*band), all);
  EXPECT_EQ(Received(*cont), all);
  EXPECT_EQ(Received(*words), all);
  EXPECT_THAT(Command(*eu, "DX 10105 K9JJ"), HasSubstr("DX de DL1ABC:    10105.0  K9JJ"));

  // What the filters held back is counted.
  const std::string metrics = ReadMetrics();
  EXPECT_THAT(metrics, HasSubstr("qx_spots_filtered_total{source=\"user\"} 8\n")) << metrics;
}

// Rules survive a node restart, TEST/FILTER names the rule, and rules a logging program sends
// straight after its call are applied.
TEST_F(FiltersSystemTest, RulesSurviveARestartTestFilterNamesTheRuleAndEarlyRulesApply) {
  StartAll();
  auto spotter = LogIn("K1XYZ", "Joe");
  auto user = LogIn("W1AAA", "Al");
  auto other = LogIn("W2BBB", "Bo");
  Command(*user, "SET/FILTER DXCTY/PASS DL");
  Command(*user, "REJ/SPOTS 3 on 40m");
  Command(*other, "SET/DXBM 1610792964/65535");
  ASSERT_EQ(node().Stop(), 0);
  StartNode();
  ASSERT_TRUE(
      WaitFor([&] { return node().Output().find("Recovery complete") != std::string::npos; }, 20s))
      << node().Output();

  // The recovered streams have their filters compiled again at once.
  Command(*spotter, "DX 14025 K1AA");
  Command(*spotter, "DX 7025 DL1BB");
  Command(*spotter, "DX 14030 DL2CC");
  Command(*spotter, "DX 18080 DL3DD");
  EXPECT_EQ(Received(*user), (std::set<std::string>{"DL2CC", "DL3DD"}));
  EXPECT_EQ(Received(*other), (std::set<std::string>{"K1AA", "DL1BB", "DL2CC"}));
  EXPECT_THAT(Command(*user, "TEST/FILTER 7025 DL1BB by K1XYZ"),
              HasSubstr("7025.0 DL1BB by K1XYZ: drop by R3: REJ/SPOTS 3 on 40m"));
  EXPECT_THAT(Command(*user, "TEST/FILTER 14025 K1AA"),
              HasSubstr("drop by DXCTY: SET/FILTER DXCTY/PASS DL"));

  // And a new log-in after the restart reads the same rules from the record.
  user->SendLine("BYE");
  ASSERT_TRUE(user->WaitClosed());
  auto again = LogIn("W1AAA");
  const std::string shown = Command(*again, "SH/FILTER");
  EXPECT_THAT(shown, HasSubstr("SPOTS DXCTY: SET/FILTER DXCTY/PASS DL"));
  EXPECT_THAT(shown, HasSubstr("SPOTS R3: REJ/SPOTS 3 on 40m"));
  EXPECT_THAT(Command(*other, "SH/DXBM"),
              HasSubstr("DXBM 1610792964/65535: 160m,80m,40m,20m,15m,10m"));

  auto c = Connect();
  // A logging program sends its call and its set-up at once, without reading a prompt.
  c->Send("W4NEW\r\nACC/SPOTS on 20m\r\nREJ/SPOTS by_cont na and info iota\r\nSH/FILTER\r\n");
  ASSERT_TRUE(c->ReadUntil("SPOTS R1: REJ/SPOTS by_cont na and info iota")) << c->received();
  ASSERT_TRUE(c->ReadUntil("QXC >"));
  c->Drain(200ms);
  c->ClearReceived();
  Command(*spotter, "DX 14027 K4AA dxpedition");
  Command(*spotter, "DX 14028 K5BB iota EU-005");
  Command(*spotter, "DX 7027 K6CC");
  EXPECT_EQ(Received(*c), (std::set<std::string>{"K4AA"}));
}

}  // namespace
}  // namespace qx::testing
