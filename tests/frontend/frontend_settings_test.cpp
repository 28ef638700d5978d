#include "frontend/frontend_settings.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/testlib/test_util.h"

namespace qx {
namespace {

using ::testing::ElementsAre;

TEST(FrontendSettingsTest, EmptyTextGivesDefaults) {
  const FrontendSettingsResult r = ParseFrontendSettings("");
  EXPECT_EQ(r.settings.link_ip, "127.0.0.1");
  EXPECT_EQ(r.settings.link_port, 7399);
  EXPECT_EQ(r.settings.user_ports, std::vector<int>{7300});
  EXPECT_EQ(r.settings.station_text, "QX Cluster node");
  EXPECT_EQ(r.settings.max_connections, 10000);
  EXPECT_EQ(r.settings.max_per_address, 20);
  EXPECT_EQ(r.settings.max_connects_per_minute, 10);
  EXPECT_EQ(r.settings.login_timeout_seconds, 180);
  EXPECT_EQ(r.settings.threads, 0);  // one per core
  EXPECT_TRUE(r.warnings.empty());
}

TEST(FrontendSettingsTest, ConnectionLimitsAreReadAndZeroTurnsOneOff) {
  const FrontendSettingsResult r = ParseFrontendSettings(
      "Max Connections^500\r\nMax Connections Per Address^0\r\n"
      "Max Connects Per Minute^ 3 \r\nLogin Timeout^-5\r\nFrontend Threads^500\r\n");
  EXPECT_EQ(r.settings.max_connections, 500);
  EXPECT_EQ(r.settings.threads, kMaxFrontendThreads);
  EXPECT_TRUE(r.settings.link_fanout);  // offered unless turned off
  EXPECT_FALSE(ParseFrontendSettings("Link Fanout^0\r\n").settings.link_fanout);
  EXPECT_EQ(r.settings.max_per_address, 0);
  EXPECT_EQ(r.settings.max_connects_per_minute, 3);
  EXPECT_EQ(r.settings.login_timeout_seconds, 180);
  EXPECT_EQ(r.warnings,
            (std::vector<std::string>{"Login Timeout \"-5\" is not a whole number from 0 up",
                                      "Frontend Threads: at most 64 are used"}));
}

TEST(FrontendSettingsTest, WebSocketListenerIsOffUnlessAPortIsGiven) {
  const FrontendSettings defaults = ParseFrontendSettings("").settings;
  EXPECT_EQ(defaults.websocket_port, 0);
  EXPECT_EQ(defaults.websocket_per_address, 4);
  const FrontendSettingsResult on =
      ParseFrontendSettings("WebSocket Port^ 7373\nWebSocket Max Per Address^0\n");
  EXPECT_EQ(on.settings.websocket_port, 7373);
  EXPECT_EQ(on.settings.websocket_per_address, 0);
  EXPECT_TRUE(on.warnings.empty());
  const FrontendSettingsResult bad =
      ParseFrontendSettings("WebSocket Port^70000\nWebSocket Max Per Address^x\n");
  EXPECT_EQ(bad.settings.websocket_port, 0);
  EXPECT_EQ(bad.settings.websocket_per_address, 4);
  EXPECT_EQ(bad.warnings.size(), 2u);
}

// Keys are compared exactly, as the node compares them: a key in other letters is not the key.
TEST(FrontendSettingsTest, ReadsKeysWithEitherLineEndAndIgnoresOthers) {
  const FrontendSettingsResult r = ParseFrontendSettings(
      "Call^GB7QX\r\n"
      "Winsock IP^10.1.2.3\r\n"
      "winsock port^7401\n"
      "Winsock Port^ 7400\n"
      "Frontend Ports^7300, 7301,8000\r\n"
      "Station Text^GB7QX front end\n"
      "no caret here\n");
  EXPECT_EQ(r.settings.link_ip, "10.1.2.3");
  EXPECT_EQ(r.settings.link_port, 7400);
  EXPECT_EQ(r.settings.user_ports, (std::vector<int>{7300, 7301, 8000}));
  EXPECT_EQ(r.settings.station_text, "GB7QX front end");
  EXPECT_TRUE(r.warnings.empty());
}

TEST(FrontendSettingsTest, BadValuesKeepTheDefaultAndWarnAndAtMostNinePortsAreUsed) {
  const FrontendSettingsResult r = ParseFrontendSettings(
      "Winsock IP^localhost\n"
      "Winsock Port^70000\n"
      "Frontend Ports^7300,abc\n");
  EXPECT_EQ(r.settings.link_ip, "127.0.0.1");
  EXPECT_EQ(r.settings.link_port, 7399);
  EXPECT_EQ(r.settings.user_ports, std::vector<int>{7300});
  EXPECT_EQ(r.warnings.size(), 3u);
  const FrontendSettingsResult many =
      ParseFrontendSettings("Frontend Ports^1,2,3,4,5,6,7,8,9,10,11\n");
  EXPECT_THAT(many.settings.user_ports, ElementsAre(1, 2, 3, 4, 5, 6, 7, 8, 9));
  EXPECT_EQ(many.warnings.size(), 1u);
}

TEST(FrontendSettingsTest, ReadsTheFileOrReportsItMissing) {
  testing::TempDir dir;
  const FrontendSettingsResult missing = ReadFrontendSettings(dir / "cluster.cfg");
  EXPECT_FALSE(missing.file_found);
  EXPECT_EQ(missing.settings.link_port, 7399);

  testing::WriteFile(dir / "cluster.cfg", "Winsock Port^7411\r\nFrontend Ports^7412\r\n");
  const FrontendSettingsResult found = ReadFrontendSettings(dir / "cluster.cfg");
  EXPECT_TRUE(found.file_found);
  EXPECT_EQ(found.settings.link_port, 7411);
  EXPECT_EQ(found.settings.user_ports, std::vector<int>{7412});
}

}  // namespace
}  // namespace qx
