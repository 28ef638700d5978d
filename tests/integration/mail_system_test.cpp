// Mail through the real programs: the editor holds a user's lines until /EX, and two linked
// nodes hand private mail and bulletins on, each told to its addressee at once.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "core/file_util.h"
#include "tests/testlib/node_sites.h"

namespace qx::testing {
namespace {

using ::testing::HasSubstr;
using namespace std::chrono_literals;

TEST(MailSystemTest, MailTravelsBetweenLinkedNodes) {
  if (!std::filesystem::exists(kSystemCountryFile)) GTEST_SKIP() << "no country file";
  NodeSite a("K1QXA"), b("K2QXB");
  for (NodeSite* s : {&a, &b}) {
    s->Setting("Connection Retry", "2");
    s->Setting("Node First Ping", "1");
  }
  a.Define(b.call());
  b.Define(a.call());
  b.Outgoing(a.call(), a.user_port());
  a.Start();
  b.Start();
  ASSERT_TRUE(b.WaitOutput("Node link up: K1QXA (PC9x)")) << b.node().Output() << Logs(b);
  ASSERT_TRUE(a.WaitOutput("Node link up: K2QXB (PC9x)")) << a.node().Output();

  auto ub = b.LogIn("W2BBB");
  ub->SendLine("SET/HOMENODE K2QXB");
  ASSERT_TRUE(ub->ReadUntil("Home node set to K2QXB")) << ub->received();
  // Node A learns where W2BBB is at home from the user information.
  ASSERT_TRUE(WaitFor([&] {
    for (const char* dir : {"data/user/W2BBB.dat", "data/userRemote/W2BBB.dat"}) {
      const auto text = ReadFileText(a.home() / dir);
      if (text && text->find("K2QXB") != std::string::npos) return true;
    }
    return false;
  })) << Logs(a);

  auto ua = a.LogIn("W1AAA");
  ua->ClearReceived();
  ua->SendLine("SP W2BBB");
  ASSERT_TRUE(ua->ReadUntil("Enter the subject")) << ua->received();
  ua->SendLine("Sked tomorrow");
  ASSERT_TRUE(ua->ReadUntil("/EX")) << ua->received();
  ua->ClearReceived();
  ua->SendLine("14.025 at 1400Z");
  ua->SendLine("SH/DX");  // text, not a command
  ua->SendLine("/EX");
  ASSERT_TRUE(ua->ReadUntil("Message no 1 saved and directed to W2BBB")) << ua->received();
  ASSERT_TRUE(ua->ReadUntil("QXC >")) << ua->received();
  EXPECT_EQ(CountAfterDrain(*ua, "QXC >"), 1u);  // no prompt for the text lines

  ASSERT_TRUE(ub->ReadUntil("New mail has arrived for you from W1AAA", 20s))
      << ub->received() << Logs(a) << Logs(b);
  ub->ClearReceived();
  ub->SendLine("READ");
  ASSERT_TRUE(ub->ReadUntil("End of message")) << ub->received();
  EXPECT_THAT(ub->received(), HasSubstr("Subject: Sked tomorrow\r\n14.025 at 1400Z\r\nSH/DX\r\n"));

  // A bulletin written on B reaches A, where it is announced and every user may read it.
  ub->SendLine("SEND ALL");
  ASSERT_TRUE(ub->ReadUntil("Enter the subject")) << ub->received();
  ub->SendLine("Contest rules");
  ub->SendLine("See the web page.");
  ub->SendLine("/EX");
  ASSERT_TRUE(ub->ReadUntil("directed to ALL")) << ub->received();
  ASSERT_TRUE(ua->ReadUntil("New bulletin 2 to ALL from W2BBB: Contest rules\r\n", 20s))
      << ua->received() << Logs(a) << Logs(b);
  ua->ClearReceived();
  ua->SendLine("DIR");
  ASSERT_TRUE(ua->ReadUntil("QXC >")) << ua->received();
  EXPECT_EQ(CountAfterDrain(*ua, "Contest rules"), 1u);
}

// A user in the middle of a message when the node restarts goes on writing it: the front-end
// keeps the connection, and the node takes the editor back from its draft file.
TEST(MailSystemTest, MessageBeingWrittenSurvivesANodeRestart) {
  if (!std::filesystem::exists(kSystemCountryFile)) GTEST_SKIP() << "no country file";
  NodeSite a("K1QXA");
  a.Start();
  auto user = a.LogIn("W1AAA");
  user->SendLine("SP W1XYZ");
  ASSERT_TRUE(user->ReadUntil("Enter the subject")) << user->received();
  user->SendLine("Before and after");
  user->SendLine("written before");
  const std::filesystem::path drafts = a.home() / "data/msg/drafts";
  ASSERT_TRUE(WaitFor([&] {
    std::error_code ec;
    for (const auto& f : std::filesystem::directory_iterator(drafts, ec)) {
      const auto text = ReadFileText(f.path());
      if (text && text->find("written before") != std::string::npos) return true;
    }
    return false;
  })) << user->received()
      << Logs(a);
  ASSERT_EQ(a.node().Stop(), 0);
  user->SendLine("typed while the node was down");
  a.StartNode();
  user->SendLine("written after");
  user->ClearReceived();
  user->SendLine("/EX");
  ASSERT_TRUE(user->ReadUntil("Message no 1 saved and directed to W1XYZ", 20s))
      << user->received() << Logs(a);
  user->SendLine("READ 1");
  ASSERT_TRUE(user->ReadUntil("End of message 1")) << user->received();
  EXPECT_THAT(user->received(), HasSubstr("Subject: Before and after\r\nwritten before\r\n"
                                          "typed while the node was down\r\nwritten after\r\n"));
  EXPECT_TRUE(std::filesystem::is_empty(drafts));
}

}  // namespace
}  // namespace qx::testing
