#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/integration/system_fixture.h"

namespace qx::testing {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;

class LoginSystemTest : public SystemFixture {};

// The dialogue a person goes through, the calls that are refused, a second log-in with the
// same call, BYE, and a logging program that logs in by itself: all on one node.
TEST_F(LoginSystemTest, DialogueRefusalsTakeOverByeAndALoggingProgram) {
  WriteFile(home() / "data/cfg/LockOuts.cfg",
            "[Form.Top, .Left, .Height, .Width]\r\n0\r\n0\r\n0\r\n0\r\n[Items]\r\nK1BAD\r\n");
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

  // An invalid call and a locked-out one (whatever its SSID) are told why and closed.
  for (const auto& [call, told] :
       {std::pair{"ABC1", "ABC1 is not a valid callsign"}, std::pair{"K1BAD-2", "LockedOut "}}) {
    auto refused = Connect();
    refused->SendLine(call);
    EXPECT_TRUE(refused->ReadUntil(told)) << refused->received();
    EXPECT_TRUE(refused->WaitClosed()) << call;
  }

  // A second connection with the same call and SSID takes over.
  auto first = LogIn("K1ABC-2");
  auto second = LogIn("K1ABC-2");
  EXPECT_TRUE(first->ReadUntil("Connection Problem - Multiple connections, same SSID."));
  EXPECT_TRUE(first->WaitClosed());
  EXPECT_THAT(Command(*second, "SH/NAME"), HasSubstr("Name is Ann"));

  // BYE ends the session at once: gone from the user list before the client closes, and a
  // log-in right after is no dupe.
  auto leaving = LogIn("W1BYE");
  leaving->SendLine("BYE");
  ASSERT_TRUE(leaving->ReadUntil("73 W1BYE de XX0QX-1")) << leaving->received();
  EXPECT_THAT(Command(*second, "SHOW/USERS"), Not(HasSubstr("W1BYE")));
  auto back = LogIn("W1BYE");
  EXPECT_THAT(back->received(), Not(HasSubstr("Dupe call")));
  EXPECT_THAT(Command(*back, "SHOW/USERS"), HasSubstr("W1BYE"));

  // A logging program logs a new user in by itself: the call before the prompt has arrived,
  // its start-up commands straight after, LF-only line ends, bare CRs and "KeepAlive" later.
  LineClient program;
  ASSERT_TRUE(program.Connect(user_port_));
  program.Send("W1LOG\nset/page 0\nsh/dx\nset/name Jim\nset/qth Boston\n");
  ASSERT_TRUE(program.ReadUntil("QTH set to Boston")) << program.received();
  EXPECT_THAT(program.received(), HasSubstr("Your name is not set yet"));
  EXPECT_THAT(program.received(), Not(HasSubstr("Is this correct?")));
  back->SendLine("DX 14025.0 JA1ABC logging program test");
  EXPECT_TRUE(program.ReadUntil("JA1ABC")) << program.received();
  program.Send("\r");
  program.SendLine("KeepAlive");
  program.SendLine("SH/NAME");
  ASSERT_TRUE(program.ReadUntil("Name is Jim")) << program.received();
  EXPECT_THAT(program.received(), Not(HasSubstr("KeepAlive")));

  // A name that merely begins like a command word is still a name.
  auto person = Connect();
  person->SendLine("W1PER");
  ASSERT_TRUE(person->ReadUntil("Please enter your name"));
  person->SendLine("Ann Marie");
  EXPECT_TRUE(person->ReadUntil("Your name is Ann Marie.  Is this correct? (Y or N) >"));
}

}  // namespace
}  // namespace qx::testing
