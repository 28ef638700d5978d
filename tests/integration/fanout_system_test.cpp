// Spot lines for many users travel from the node to the front-end as one message; each user
// must still get every spot once, in order with the other lines the node sends them.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "core/text_util.h"
#include "tests/integration/system_fixture.h"

namespace qx::testing {
namespace {

using ::testing::HasSubstr;

class FanoutSystemTest : public SystemFixture {
 protected:
  std::string ReadMetrics() {
    LineClient http;
    EXPECT_TRUE(http.Connect(console_port()));
    http.Send("GET /metrics HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: close\r\n\r\n");
    EXPECT_TRUE(http.WaitClosed());
    return http.received();
  }
  // The spot and announcement lines in what a user received, in order, by their marker.
  static std::vector<std::string> Markers(const std::string& text) {
    std::vector<std::string> out;
    for (std::string_view line : Split(text, '\n')) {
      const size_t at = line.find("MARK");
      if (at == std::string_view::npos) continue;
      const std::string kind = line.starts_with("DX de") ? "spot" : "ann";
      out.push_back(kind + std::string(line.substr(at + 4, 1)));
    }
    return out;
  }
};

TEST_F(FanoutSystemTest, EveryUserGetsEachSpotOnceInOrderWithOtherLines) {
  StartAll();
  auto spotter = LogIn("DL1ABC", "Hans");
  std::vector<std::unique_ptr<LineClient>> users;
  for (const char* call : {"K1XYZ", "W1AAA", "N1BBB"}) users.push_back(LogIn(call, "Joe"));
  constexpr int kSpots = 4;
  std::vector<std::string> expected;
  for (int n = 0; n < kSpots; ++n) {
    const std::string mark = "MARK" + std::to_string(n);
    Command(*spotter,
            "DX 1402" + std::to_string(n) + " K1AB" + std::string(1, char('C' + n)) + " " + mark);
    Command(*spotter, "ANNOUNCE " + mark);
    expected.push_back("spot" + std::to_string(n));
    expected.push_back("ann" + std::to_string(n));
  }
  for (auto& u : users) {
    ASSERT_TRUE(u->ReadUntil("MARK" + std::to_string(kSpots - 1) + "\r\n")) << u->received();
    u->Drain(std::chrono::milliseconds(200));
    EXPECT_EQ(Markers(u->received()), expected) << u->received();
  }
  // Each spot reached the listeners and the spotter in one message.
  const std::string metrics = ReadMetrics();
  EXPECT_THAT(metrics, HasSubstr("qx_link_fanout_lines_total " + std::to_string(kSpots * 4) + "\n"))
      << metrics;
  EXPECT_THAT(metrics, HasSubstr("qx_link_fanout_messages_total " + std::to_string(kSpots) + "\n"));
}

}  // namespace
}  // namespace qx::testing
