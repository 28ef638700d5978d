// Skimmer and reporter feeds end to end: a scripted feed server that the node calls through
// the front-end, a broker that publishes reporter reports, and users who did and did not
// ask for machine-made spots.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fmt/format.h>

#include <chrono>
#include <ctime>
#include <thread>

#include "tests/testlib/node_sites.h"

namespace qx::testing {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;
using namespace std::chrono_literals;

std::string NowHHnnZ() {
  const std::time_t t = std::time(nullptr);
  std::tm tm{};
  gmtime_r(&t, &tm);
  return fmt::format("{:02}{:02}Z", tm.tm_hour, tm.tm_min);
}

// Three skimmers agree on a call: the verification stage lets it through.
void SendAgreeingReports(PeerListener& feed, std::string_view dx, std::string_view khz) {
  for (std::string_view skimmer : {"DL1AAA-#", "OH2BBB-#", "G3CCC-#"}) {
    feed.SendLine(
        fmt::format("DX de {}:  {}  {}  CW  18 dB  26 WPM  CQ  {}", skimmer, khz, dx, NowHHnnZ()));
  }
}

using FeedsSystemTest = NodeSiteTest;

TEST_F(FeedsSystemTest, SkimmerSpotsReachOnlyUsersWhoAskAndTheFeedOutlivesANodeRestart) {
  NodeSite site("K1QXA");
  PeerListener server;
  ASSERT_TRUE(server.bound());
  site.Setting("Feed Name", "RBN");
  site.Setting("Feed Kind", "RBN");
  site.Setting("Feed Address", "127.0.0.1");
  site.Setting("Feed Port", std::to_string(server.port()));
  site.Setting("Feed Call", "K1QXA");
  site.Setting("Feed Active", "True");
  site.Start();

  // The node answers the server's prompt, which comes without a line end.
  ASSERT_TRUE(server.Accept()) << site.node().Output();
  server.Send("Please enter your call: ");
  ASSERT_TRUE(server.ReadUntil("K1QXA\r\n")) << server.received();
  server.SendLine("Hello K1QXA, this is the feed");

  auto wants = site.LogIn("W1SKM");
  wants->SendLine("SET/SKIMMERSPOTS");
  ASSERT_TRUE(wants->ReadUntil("Skimmer spots enabled")) << wants->received();
  auto plain = site.LogIn("W2PLN");
  wants->ClearReceived();

  SendAgreeingReports(server, "K9ZZT", "14025.0");
  ASSERT_TRUE(wants->ReadUntil("K9ZZT", 10s)) << wants->received() << Logs(site);
  EXPECT_THAT(wants->received(), HasSubstr("V3"));
  EXPECT_THAT(wants->received(), HasSubstr("G3CCC-#"));
  EXPECT_EQ(CountAfterDrain(*plain, "K9ZZT"), 0u) << plain->received();

  // A report that is no skimmer line is counted, and the feed goes on.
  server.SendLine("DX de DL1AAA-#: 14O25.1 K1ABC CW 18 dB 1854Z");
  EXPECT_THAT(Command(*wants, "WHO"), HasSubstr("RBN"));
  const std::string status = Command(*wants, "SHOW/SKIMMER/STATUS K9ZZT");
  EXPECT_THAT(status, HasSubstr("connected"));
  EXPECT_THAT(status, HasSubstr("Recent skimmer reports of K9ZZT"));
  EXPECT_THAT(status, HasSubstr("OH2BBB-#"));

  // The node restarts; the front-end keeps the feed connection and the node takes it back.
  ASSERT_EQ(site.node().Stop(), 0);
  site.StartNode();
  ASSERT_TRUE(site.WaitOutput("Recovery complete")) << site.node().Output();
  wants->ClearReceived();
  SendAgreeingReports(server, "K8YYT", "7012.5");
  EXPECT_TRUE(wants->ReadUntil("K8YYT", 10s)) << wants->received() << site.node().Output();
  EXPECT_EQ(CountAfterDrain(*plain, "K8YYT"), 0u) << plain->received();
  // Still the first connection: the node never called the server again.
  EXPECT_FALSE(server.WaitClosed(500ms));
}

TEST_F(FeedsSystemTest, AFeedThatSendsOnlyGarbageIsDroppedAndCalledAgain) {
  NodeSite site("K1QXA");
  PeerListener server;
  site.Setting("Feed Name", "Own skimmer");
  site.Setting("Feed Kind", "SKIMMER");
  site.Setting("Feed Address", "127.0.0.1");
  site.Setting("Feed Port", std::to_string(server.port()));
  site.Setting("Feed Active", "True");
  site.Start();
  ASSERT_TRUE(server.Accept()) << site.node().Output();
  server.SendLine("login:");
  ASSERT_TRUE(server.ReadUntil("K1QXA\r\n")) << server.received();  // the node's own call
  for (int i = 0; i < 250; ++i)
    server.SendLine("To ALL de XX1XX: nothing but chatter " + std::to_string(i));
  EXPECT_TRUE(server.WaitClosed(10s));
  // Called again after the first pause (5 s), and the node goes on serving users.
  EXPECT_TRUE(server.Accept(15s)) << site.node().Output();
  EXPECT_THAT(site.node().Output(), HasSubstr("sends no skimmer reports"));
  auto user = site.LogIn("W1USR");
  EXPECT_THAT(Command(*user, "SHOW/SKIMMER/STATUS"), HasSubstr("Own skimmer"));
}

// The health limits are settings: a silent feed and a flooding one are both cut and said why.
TEST_F(FeedsSystemTest, ASilentFeedAndAFloodingFeedAreCutAndCalledAgain) {
  NodeSite site("K1QXA");
  PeerListener server;
  site.Setting("Feed Name", "RBN");
  site.Setting("Feed Kind", "RBN");
  site.Setting("Feed Address", "127.0.0.1");
  site.Setting("Feed Port", std::to_string(server.port()));
  site.Setting("Feed Active", "True");
  site.Setting("Feed Stall Seconds", "2");
  site.Setting("Feed Max Lines Per Second", "20");
  site.Setting("Feed Flood Seconds", "2");
  site.Start();
  ASSERT_TRUE(server.Accept()) << site.node().Output();
  server.SendLine("login:");
  ASSERT_TRUE(server.ReadUntil("K1QXA\r\n")) << server.received();
  EXPECT_TRUE(server.WaitClosed(8s));
  EXPECT_TRUE(site.WaitOutput("nothing received for")) << site.node().Output();

  ASSERT_TRUE(server.Accept(15s)) << site.node().Output();
  server.SendLine("login:");
  ASSERT_TRUE(server.ReadUntil("K1QXA\r\n")) << server.received();
  // Some 500 reports a second, every second, until the node has had enough.
  bool cut = false;
  for (int round = 0; round < 100 && !cut; ++round) {
    std::string burst;
    for (int i = 0; i < 50; ++i) {
      burst += fmt::format("DX de DL1AAA-#:  {}.0  K{}AB  CW  18 dB  26 WPM  CQ  {}\r\n", 7000 + i,
                           i % 10, NowHHnnZ());
    }
    cut = !server.Send(burst) ||
          site.node().Output().find("more than 20 lines a second for 2 s") != std::string::npos;
    std::this_thread::sleep_for(100ms);
  }
  EXPECT_TRUE(cut) << site.node().Output();
}

TEST_F(FeedsSystemTest, ASkimmerLoggingInAsANodeOfKindSkmIsAFeed) {
  NodeSite site("K1QXA");
  site.Define("DL9SKM", "SKM");
  // One skimmer alone can never verify a call: this one needs no verification.
  site.Setting("SkimmerDoNotVerify", "K7QQT");
  site.Start();
  auto user = site.LogIn("W1SKM");
  user->SendLine("SET/SKIMMERSPOTS");
  ASSERT_TRUE(user->ReadUntil("Skimmer spots enabled")) << user->received();
  auto skimmer = site.Connect();
  skimmer->SendLine("DL9SKM");
  ASSERT_TRUE(skimmer->ReadUntil("skimmer reports welcome")) << skimmer->received();
  user->ClearReceived();
  skimmer->SendLine(fmt::format("DX de DL9SKM-#: 14010.2 K7QQT CW 12 dB 22 WPM CQ {}", NowHHnnZ()));
  ASSERT_TRUE(user->ReadUntil("K7QQT", 10s)) << user->received() << Logs(site);
  EXPECT_THAT(user->received(), HasSubstr("?1"));
  const std::string who = Command(*user, "WHO");
  EXPECT_THAT(who, HasSubstr("SKIMMER"));
  EXPECT_THAT(who, HasSubstr("DL9SKM"));
}

// The broker the reporter feed subscribes to, on a loopback port of its own.
class Broker {
 public:
  explicit Broker(const std::filesystem::path& dir) : port_(FreePort()) {
    WriteFile(dir / "mosquitto.conf",
              fmt::format("listener {} 127.0.0.1\nallow_anonymous true\n", port_));
    process_ = std::make_unique<ChildProcess>(
        kBrokerPath, std::vector<std::string>{"-c", (dir / "mosquitto.conf").string()}, dir,
        "mosquitto");
  }
  int port() const { return port_; }
  // One report published with mosquitto_pub.
  bool Publish(std::string_view topic, std::string_view payload) {
    const std::string command =
        fmt::format("{} -h 127.0.0.1 -p {} -t '{}' -m '{}'", kPublisher, port_, topic, payload);
    return std::system(command.c_str()) == 0;
  }
  static bool Installed() {
    return std::filesystem::exists(kBrokerPath) && std::filesystem::exists(kPublisher);
  }

 private:
  static constexpr const char* kBrokerPath = "/usr/sbin/mosquitto";
  static constexpr const char* kPublisher = "/usr/bin/mosquitto_pub";
  int port_;
  std::unique_ptr<ChildProcess> process_;
};

TEST_F(FeedsSystemTest, ReporterSpotsFromTheBrokerReachOnlyUsersWhoAsk) {
  if (!Broker::Installed()) {
    GTEST_SKIP() << "mosquitto and mosquitto_pub are not installed (scripts/bootstrap does it)";
  }
  NodeSite site("K1QXA");
  Broker broker(site.home());
  site.Setting("FT8 URL", "127.0.0.1");
  site.Setting("FT8 Port", std::to_string(broker.port()));
  site.Setting("FT8 Hold", "0");
  site.Start();
  auto wants = site.LogIn("W1PSK");
  wants->SendLine("SET/PSKR");
  ASSERT_TRUE(wants->ReadUntil("PSKReporter spots enabled")) << wants->received();
  auto plain = site.LogIn("W2PLN");

  // The node subscribes when its connection is up; until then a report is lost, so one more
  // is published (from another receiver) until the spot arrives.
  int receiver = 0;
  const bool arrived = WaitFor(
      [&] {
        const std::string payload = fmt::format(
            R"({{"sq":1,"f":14074653,"md":"FT8","rp":-12,"t":{},"sc":"K5RPT","sl":"EM10",)"
            R"("rc":"DL{}XYZ","rl":"JO31","b":"20m"}})",
            std::time(nullptr), ++receiver);
        broker.Publish("pskr/filter/v2/20m/FT8/K5RPT/DL1XYZ/EM10/JO31/291/230", payload);
        return wants->ReadUntil("K5RPT", 1s).has_value();
      },
      20s);
  ASSERT_TRUE(arrived) << wants->received() << site.node().Output() << Logs(site);
  EXPECT_THAT(wants->received(), HasSubstr("FT8  -12 dB EM10 R1"));
  EXPECT_EQ(CountAfterDrain(*plain, "K5RPT"), 0u) << plain->received();
  // One station is one spot however many receivers hear it.
  broker.Publish("pskr/filter/v2/20m/FT8/K5RPT/DL7XYZ/EM10/JO31/291/230",
                 fmt::format(R"({{"f":14074653,"md":"FT8","rp":-3,"t":{},"sc":"K5RPT",)"
                             R"("rc":"DL7XYZ"}})",
                             std::time(nullptr)));
  EXPECT_EQ(CountAfterDrain(*wants, "K5RPT"), 1u) << wants->received();
}

}  // namespace
}  // namespace qx::testing
