#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/integration/system_fixture.h"

namespace qx::testing {
namespace {

using ::testing::HasSubstr;

class LoginSystemTest : public SystemFixture {};

TEST_F(LoginSystemTest, BannerNameQuestionGreetingAndPrompt) {
  StartAll();
  auto c = std::make_unique<LineClient>();
  ASSERT_TRUE(c->Connect(user_port_));
  ASSERT_TRUE(c->ReadUntil("login: ", std::chrono::seconds(15)));
  EXPECT_THAT(c->received(), HasSubstr("Running QX Cluster software version "));
  c->ClearReceived();
  c->SendLine("k1abc");
  ASSERT_TRUE(c->ReadUntil("Please enter your name"));
  c->SendLine("Ann");
  ASSERT_TRUE(c->ReadUntil("Is this correct? (Y or N) >"));
  c->SendLine("y");
  ASSERT_TRUE(c->ReadUntil("QXC >")) << c->received();
  EXPECT_THAT(c->received(), HasSubstr("Name set to Ann."));
  EXPECT_THAT(c->received(), HasSubstr("Hello Ann."));
  EXPECT_THAT(c->received(), HasSubstr("K1ABC de XX0QX-1 "));
  EXPECT_TRUE(std::filesystem::exists(home() / "data/user/K1ABC.dat"));
}

TEST_F(LoginSystemTest, InvalidCallIsToldAndClosed) {
  StartAll();
  auto c = Connect();
  c->SendLine("ABC1");
  EXPECT_TRUE(c->ReadUntil("ABC1 is not a valid callsign"));
  EXPECT_TRUE(c->WaitClosed());
}

TEST_F(LoginSystemTest, LockedOutCallIsRefused) {
  WriteFile(home() / "data/cfg/LockOuts.cfg",
            "[Form.Top, .Left, .Height, .Width]\r\n0\r\n0\r\n0\r\n0\r\n[Items]\r\nK1BAD\r\n");
  StartAll();
  auto c = Connect();
  c->SendLine("K1BAD-2");
  EXPECT_TRUE(c->ReadUntil("LockedOut "));
  EXPECT_TRUE(c->WaitClosed());
}

TEST_F(LoginSystemTest, SecondConnectionWithSameCallTakesOver) {
  StartAll();
  auto first = LogIn("K1ABC-2");
  auto second = LogIn("K1ABC-2");
  EXPECT_TRUE(first->ReadUntil("Connection Problem - Multiple connections, same SSID."));
  EXPECT_TRUE(first->WaitClosed());
  second->SendLine("SH/NAME");
  EXPECT_TRUE(second->ReadUntil("Name is Ann"));
}

TEST_F(LoginSystemTest, NodeRestartKeepsTheUserConnected) {
  StartAll();
  auto c = LogIn("K1ABC");
  ASSERT_EQ(node_->Stop(), 0);
  StartNode();
  ASSERT_TRUE(WaitFor(
      [&] {
        return ErrorLogText().find("Recovery complete") != std::string::npos ||
               node_->Output().find("Recovery complete") != std::string::npos;
      },
      std::chrono::seconds(20)));
  c->ClearReceived();
  c->SendLine("SH/NAME");
  EXPECT_TRUE(c->ReadUntil("Name is Ann")) << c->received();
}

}  // namespace
}  // namespace qx::testing
