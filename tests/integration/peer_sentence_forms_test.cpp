// A scripted PC9x peer that passes on what older nodes behind it send, in the shapes those
// sentences take on the way: spots without their trailer, and legacy announcements.
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <ctime>

#include "core/time_text.h"
#include "tests/testlib/node_sites.h"

namespace qx::testing {
namespace {

using ::testing::HasSubstr;
using namespace std::chrono_literals;

std::string Stamp(int step) {
  return std::to_string(long(std::time(nullptr) % 86400)) + "." + fmt::format("{:02d}", step);
}

// A PC11 of this minute (older spots are refused) ending in tail.
std::string Pc11Now(std::string_view freq, std::string_view dx, std::string_view spotter,
                    std::string_view origin, std::string_view tail) {
  const SysTime now = SystemClock().Now();
  return fmt::format("PC11^{}^{}^{}^{}^from behind^{}^{}^{}", freq, dx, DateText(now),
                     TimeHHnnZ(now), spotter, origin, tail);
}

class PeerSentenceFormsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!std::filesystem::exists(kSystemCountryFile)) GTEST_SKIP() << "no country file";
    node_.Define("K9PCX");
    node_.Start();
    user_ = node_.LogIn("W1AAA");
    peer_ = node_.Connect();
    peer_->SendLine("K9PCX");
    ASSERT_TRUE(peer_->ReadUntil("PC18^")) << peer_->received();
    peer_->SendLine("PC92^K9PCX^" + Stamp(1) + "^C^5K9PCX:5300^7K7LEG^1W9USR:198.51.100.9^H99^");
    peer_->SendLine("PC20^");
    ASSERT_TRUE(peer_->ReadUntil("PC22^\r\n")) << peer_->received();
    ASSERT_TRUE(node_.WaitOutput("Node link up: K9PCX (PC9x)")) << node_.node().Output();
  }
  // The peer pings and waits for the answer that only a line standing alone gets.
  bool PingAnswered() {
    peer_->ClearReceived();
    peer_->SendLine("PC51^K1QXA^K9PCX^1^");
    return peer_->ReadUntil("PC51^K9PCX^K1QXA^0^\r\n").has_value();
  }

  NodeSite node_{"K1QXA"};
  std::unique_ptr<LineClient> user_;
  std::unique_ptr<LineClient> peer_;
};

TEST_F(PeerSentenceFormsTest, SpotsWithoutTerminatorArriveAndTheLinkStaysResponsive) {
  peer_->SendLine(Pc11Now("14025.0", "JA1AAA", "W9USR", "K9PCX", "H29"));
  ASSERT_TRUE(PingAnswered()) << peer_->received();
  peer_->SendLine(Pc11Now("21030.0", "JA2BBB", "W7OLD", "K7LEG", "H7^"));
  ASSERT_TRUE(PingAnswered()) << peer_->received();
  // A whole line that no check passes costs only itself.
  peer_->SendLine(Pc11Now("7010.0", "JA3CCC", "W7OLD", "K7LEG", "~"));
  peer_->SendLine(Pc11Now("28040.0", "JA4DDD", "W7OLD", "K7LEG", "H24^~"));
  ASSERT_TRUE(PingAnswered()) << peer_->received();

  ASSERT_TRUE(user_->ReadUntil("JA4DDD")) << user_->received();
  const std::string& seen = user_->received();
  EXPECT_THAT(seen, HasSubstr("DX de W9USR:"));
  EXPECT_THAT(seen, HasSubstr("JA1AAA"));
  EXPECT_THAT(seen, HasSubstr("JA2BBB"));
  EXPECT_THAT(seen, ::testing::Not(HasSubstr("JA3CCC")));
  EXPECT_EQ(NodeSite::Occurrences(seen, "DX de W7OLD:"), 2u) << seen;
  EXPECT_TRUE(WaitFor([&] { return Logs(node_).find("JA3CCC") != std::string::npos; }, 5s))
      << Logs(node_);
}

TEST_F(PeerSentenceFormsTest, LegacyAnnouncementsArriveOnceWhicheverWayTheyCome) {
  peer_->SendLine("PC12^W7OLD^*^band open to JA^ ^K7LEG^0^H29^~");
  ASSERT_TRUE(user_->ReadUntil("To ALL de W7OLD: band open to JA")) << user_->received();
  // The same announcement the peer also turned into PC93, in either order.
  peer_->SendLine("PC93^K9PCX^" + Stamp(2) + "^*^W7OLD^*^band open to JA^K7LEG^^H99^");
  peer_->SendLine("PC93^K9PCX^" + Stamp(3) + "^*^W7OLD^*^six metres too^K7LEG^^H99^");
  peer_->SendLine("PC12^W7OLD^*^six metres too^ ^K7LEG^0^H29^~");
  ASSERT_TRUE(PingAnswered()) << peer_->received();
  user_->Drain(1s);
  EXPECT_EQ(NodeSite::Occurrences(user_->received(), "band open to JA"), 1u) << user_->received();
  EXPECT_EQ(NodeSite::Occurrences(user_->received(), "six metres too"), 1u) << user_->received();
}

}  // namespace
}  // namespace qx::testing
