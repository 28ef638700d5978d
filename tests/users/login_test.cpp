#include "users/login.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/users/user_fixture.h"

namespace qx::testing {
namespace {

using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;

class LoginTest : public UserFixture {};

TEST_F(LoginTest, BannerEndsWithLoginPromptAndSysopTextsFrameIt) {
  Connect(1);
  std::string banner = Take(1);
  EXPECT_THAT(banner, StartsWith("Welcome to XX0QX-1\r\n"));
  EXPECT_THAT(banner, HasSubstr("Running QX Cluster software version 0.1.0\r\n"));
  EXPECT_THAT(banner, HasSubstr("Please enter your call: \r\n"));
  EXPECT_THAT(banner, EndsWith("\r\nlogin: "));  // no line end after the prompt

  messages_.Set("Logon 1", "Hello from the test node");
  messages_.Set("Logon 2", "Be nice");
  Connect(2);
  banner = Take(2);
  EXPECT_THAT(banner, StartsWith("Hello from the test node\r\nRunning QX Cluster"));
  EXPECT_THAT(banner, HasSubstr("0.1.0\r\nBe nice\r\nPlease enter your call: "));
}

TEST_F(LoginTest, NewUserIsAskedForNameAndConfirms) {
  Connect(1);
  Take(1);
  Type(1, "k1abc");
  EXPECT_EQ(Take(1), "Please enter your name\r\n");
  Type(1, "Ann");
  EXPECT_EQ(Take(1), "Your name is Ann.  Is this correct? (Y or N) >");
  Type(1, "maybe");
  EXPECT_EQ(Take(1), "Your name is Ann.  Is this correct? (Y or N) >");
  Type(1, "n");
  EXPECT_EQ(Take(1), "Please enter your name\r\n");
  Type(1, "Anna");
  EXPECT_EQ(Take(1), "Your name is Anna.  Is this correct? (Y or N) >");
  Type(1, "y");
  const std::string greeting = Take(1);
  EXPECT_THAT(greeting, StartsWith("Name set to Anna.\r\nK1ABC\r\n\r\nHello Anna.\r\n\r\n"));
  EXPECT_THAT(greeting,
              HasSubstr("Cluster: 1 nodes  1 Locals  1 Total users   Uptime 0d 00:00\r\n"));
  EXPECT_THAT(greeting, EndsWith("K1ABC de XX0QX-1 15-Nov-2026 0046Z   QXC >\r\n"));
  EXPECT_TRUE(streams_.at(1).IsUser());
  EXPECT_EQ(store_.Load("K1ABC", kStateUser).settings.name, "Anna");
  ASSERT_GE(relay_.events.size(), 2u);
  EXPECT_EQ(relay_.events[0].kind, "pc41");
  EXPECT_EQ(relay_.events[0].a, "PC41^K1ABC^1^Anna^H99^~\r\n");
  EXPECT_EQ(relay_.events.back().kind, "login");
  EXPECT_TRUE(std::filesystem::exists(dir_.Data("user") / "K1ABC.dat"));
}

// Logging programs answer the name question with commands.  "SET/NAME x" is a name meant as
// given, and a command where the confirmation is expected confirms: neither may hold the
// program in the question, whose lines would all be answered with it.
TEST_F(LoginTest, ProgramsGivingTheNameByCommandAreNotHeldInTheQuestion) {
  Connect(1);
  Take(1);
  Type(1, "k1abc");
  Take(1);
  Type(1, "set/name Al");
  EXPECT_THAT(Take(1), StartsWith("Name set to Al.\r\nK1ABC\r\n"));
  EXPECT_TRUE(streams_.at(1).IsUser());
  EXPECT_EQ(store_.Load("K1ABC", kStateUser).settings.name, "Al");

  Connect(2);
  Take(2);
  Type(2, "k2abc");
  Take(2);
  Type(2, "Bo");
  EXPECT_EQ(Take(2), "Your name is Bo.  Is this correct? (Y or N) >");
  Type(2, "sh/name");
  const std::string text = Take(2);
  EXPECT_THAT(text, StartsWith("Name set to Bo.\r\n"));
  EXPECT_TRUE(streams_.at(2).IsUser());
  EXPECT_THAT(text, HasSubstr("Name is Bo"));
}

// A known user gets no name question; mail notices come after the statistics and before the
// prompt.
TEST_F(LoginTest, KnownUserGoesStraightToGreetingWithMailNotices) {
  ctx_.mail_notices = [this](int stream) {
    return std::vector<std::string>{"notice for " + streams_.at(stream).call};
  };
  LogIn(1, "K1ABC", "Bob");
  const std::string text = Take(1);
  EXPECT_THAT(text, Not(HasSubstr("Please enter your name")));
  EXPECT_THAT(text, HasSubstr("Hello Bob."));
  const size_t stats = text.find("Cluster: ");
  const size_t notice = text.find("notice for K1ABC\r\n");
  const size_t prompt = text.find("K1ABC de XX0QX-1");
  ASSERT_NE(notice, std::string::npos);
  EXPECT_LT(stats, notice);
  EXPECT_LT(notice, prompt);
}

// At the call prompt: an invalid call, a command and a locked-out call (whatever its SSID) are
// refused and closed; an echo probe is ignored without a word.
TEST_F(LoginTest, CallPromptRefusesWhatIsNoCallAndLockedOutCalls) {
  access_.locked_out.insert("K1BAD");
  const struct {
    const char* line;
    const char* reply;
  } refused[] = {{"ABC1", "ABC1 is not a valid callsign\r\n"},
                 {"SH/DX", "SH/DX is not a valid callsign\r\n"},
                 {"K1BAD-3", "LockedOut \r\n"}};
  int stream = 1;
  for (const auto& r : refused) {
    SCOPED_TRACE(r.line);
    Connect(stream);
    Take(stream);
    Type(stream, r.line);
    EXPECT_EQ(Take(stream), r.reply);
    EXPECT_EQ(streams_.at(stream).state, kStateTimedOut);
    EXPECT_EQ(out_.closed.back(), stream);
    ++stream;
  }
  out_.closed.clear();
  Connect(stream);
  Take(stream);
  Type(stream, "echo hello");
  EXPECT_EQ(Take(stream), "");
  EXPECT_TRUE(out_.closed.empty());
  EXPECT_EQ(streams_.at(stream).login_stage, LoginStage::kAwaitingCall);
}

TEST_F(LoginTest, PasswordGivesPrivilegeAndThreeFailuresClose) {
  access_.passwords = {{"K1SYS", "secret", 5}};
  store_.SavePersonal("K1SYS", 1, "Sam");
  Connect(1);
  Type(1, "K1SYS");
  EXPECT_THAT(Take(1), EndsWith("password: \r\n"));
  Type(1, "secret");
  EXPECT_TRUE(streams_.at(1).IsUser());
  EXPECT_EQ(streams_.at(1).privilege, 5);
  // The front-end keeps the rights and the connection's start for a restart of the node.
  const auto since =
      std::chrono::duration_cast<std::chrono::seconds>(streams_.at(1).since.time_since_epoch());
  EXPECT_EQ(out_.attributes[1], "since=" + std::to_string(since.count()) + " priv=5");
  EXPECT_GT(since.count(), 0);

  Connect(2);
  Type(2, "K1SYS-2");
  for (int i = 0; i < 3; ++i) Type(2, "wrong");
  EXPECT_FALSE(streams_.at(2).IsUser());
  EXPECT_THAT(out_.closed, ::testing::Contains(2));
}

TEST_F(LoginTest, SecondConnectionTakesOverTheSession) {
  LogIn(1, "XX9ABC-1", "Ann");
  streams_.at(1).session.Set(kSwBeep, true);
  Take(1);
  relay_.events.clear();
  LogIn(2, "XX9ABC-01", "Ann");
  const std::string old_text = Take(1);
  EXPECT_THAT(old_text, HasSubstr("XX9ABC-1 de XX0QX-1: Connection Problem - Multiple "
                                  "connections, same SSID.\r\n"));
  EXPECT_THAT(old_text, HasSubstr("Reconnected as XX9ABC-01 at 192.0.2.10:5000, this instance "
                                  "is disconnected"));
  EXPECT_THAT(Take(2), HasSubstr("XX9ABC-01 Dupe call and SSID connected from IP address "));
  EXPECT_THAT(out_.closed, ::testing::ElementsAre(1));
  EXPECT_TRUE(streams_.at(2).session.Has(kSwBeep));
  EXPECT_FALSE(streams_.at(1).IsUser());
  for (const auto& ev : relay_.events) EXPECT_NE(ev.kind, "logout");
}

TEST_F(LoginTest, EleventhReconnectInOneBucketIsRefused) {
  LogIn(1, "K1ABC", "Ann");
  int s = 2;
  for (int i = 0; i < 10; ++i, ++s) {
    LogIn(s, "K1ABC", "Ann");
    ASSERT_TRUE(streams_.at(s).IsUser()) << "reconnect " << i + 1;
  }
  LogIn(s, "K1ABC", "Ann");
  EXPECT_THAT(Take(s), HasSubstr("Too many reconnects. \r\n"));
  EXPECT_FALSE(streams_.at(s).IsUser());
  // The user whose session is current is not disturbed by the refused one.
  EXPECT_TRUE(streams_.at(s - 1).IsUser());
}

TEST_F(LoginTest, RunawayGuardStopsPromptsWithinOnePeriod) {
  LogIn(1, "K1ABC");
  for (int i = 0; i < 120; ++i) login_.BuildPrompt(1);
  const std::string text = Take(1);
  EXPECT_THAT(text, HasSubstr("Fatal Error: Runaway problem!.\r\n"));
  // A new period starts a new count.
  clock_.Advance(std::chrono::minutes(1));
  login_.BuildPrompt(1);
  EXPECT_THAT(Take(1), HasSubstr("QXC >"));
}

TEST_F(LoginTest, ConnectionLogRecordsLoginAndLogout) {
  LogIn(1, "K1ABC");
  login_.OnLoggedOut(1);
  const std::string log = ReadFile(dir_.Data("log/conn") / "15-Nov-2026.log");
  EXPECT_THAT(log, HasSubstr("Login K1ABC stream 1"));
  EXPECT_THAT(log, HasSubstr("Logout K1ABC stream 1"));
  EXPECT_EQ(relay_.events.back().kind, "logout");
}

TEST(IsCommandNotName, TellsLoggingProgramCommandsFromNames) {
  for (const char* command : {"set/page 0", "sh/dx", "SH/DX 30", "set/qth Boston", "SET QTH x",
                              "dir", "accept/spots on hf", "unset/beep", "sh dx"}) {
    EXPECT_EQ(IsCommandNotName(command), std::string_view(command) != "dir") << command;
  }
  for (const char* name : {"Ann", "Ann Marie", "Set", "Sharon", "Bob/Rob", "Di Set"}) {
    EXPECT_FALSE(IsCommandNotName(name)) << name;
  }
}

}  // namespace
}  // namespace qx::testing
