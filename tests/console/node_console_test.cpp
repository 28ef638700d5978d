#include <gtest/gtest.h>

#include "apps/node_console.h"
#include "apps/node_stats.h"

namespace qx {
namespace {

TEST(NodeConsoleSettings, ValuesAreCheckedBeforeTheyReachTheFile) {
  struct Case {
    const char* key;
    const char* value;
    bool ok;
  };
  const Case cases[] = {
      {"Winsock Port", "7399", true},
      {"Winsock Port", "0", false},
      {"Winsock Port", "70000", false},
      {"Winsock Port", "73x", false},
      {"Frontend Ports", "7300,7301", true},
      {"Frontend Ports", "7300,,7301", false},
      {"Frontend Ports", "1,2,3,4,5,6,7,8,9,10", false},
      {"Cluster Call", "GB7QX-2", true},
      {"Cluster Call", "ABC1", false},
      {"Default Display Dx", "30", true},
      {"Default Display Dx", "-1", false},
      {"Console Address", "127.0.0.1", true},
      {"Console Address", "", false},
      {"Console Address", "foo", false},  // the console would not come back after a restart
      {"Console Public Address", "https://cluster.example.org", true},
      {"Console Public Address", "cluster.example.org/console", false},
      {"Console Trusted Proxy", "True", true},
      {"Console Trusted Proxy", "maybe", false},
      {"Help Address", "www.example.org", false},
      {"FT8 Port", "", true},  // the reporter feed is off
      {"FT8 Port", "0", false},
      {"Help Address", "https://x^y", false},  // a caret would split the line in the file
      {"HighestSpotsPerMin", "5", false},      // kept by the node itself
      {"No Such Key", "1", false},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(NodeConsoleModel::ValidateSetting(c.key, c.value).empty(), c.ok)
        << c.key << " = " << c.value;
  }
}

TEST(NodeStats, SpotsPerMinuteRollOverAndKeepTheHighest) {
  NodeStats stats;
  const SysTime t0 = MakeUtc(2026, 11, 22, 10, 0, 5);
  for (int i = 0; i < 3; ++i) stats.SpotIn("user", t0);
  stats.SpotIn("node", t0 + std::chrono::minutes(1));
  EXPECT_EQ(stats.SpotsThisMinute(t0 + std::chrono::minutes(1)), 1);
  EXPECT_EQ(stats.highest_per_minute(), 3);
  const std::vector<int> history = stats.History(t0 + std::chrono::minutes(2));
  ASSERT_EQ(history.size(), NodeStats::kMinutesKept);
  EXPECT_EQ(history[history.size() - 1], 0);
  EXPECT_EQ(history[history.size() - 2], 1);
  EXPECT_EQ(history[history.size() - 3], 3);
  // After more than the kept window, nothing old remains.
  stats.SpotIn("user", t0 + std::chrono::hours(7));
  const std::vector<int> later = stats.History(t0 + std::chrono::hours(7));
  int total = 0;
  for (int v : later) total += v;
  EXPECT_EQ(total, 1);
  EXPECT_EQ(stats.spots_in().at("user"), 4u);
}

TEST(NodeStats, DelayHistogramIsCumulative) {
  NodeStats stats;
  stats.Delay(std::chrono::microseconds(200));  // <= 0.5 ms
  stats.Delay(std::chrono::milliseconds(20));   // <= 50 ms
  const auto& b = stats.delay_buckets();
  EXPECT_EQ(b[0], 0u);  // 0.1 ms
  EXPECT_EQ(b[1], 1u);  // 0.5 ms
  EXPECT_EQ(b[5], 2u);  // 50 ms
  EXPECT_EQ(stats.delay_count(), 2u);
}

}  // namespace
}  // namespace qx
