// Announcements kept and listed across a restart of the node, DXTEST, SH/DX, SPOOF and RESTART
// as users and the sysop type them.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/testlib/node_sites.h"

namespace qx::testing {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;
using namespace std::chrono_literals;

using AnnounceCommandsTest = NodeSiteTest;

TEST_F(AnnounceCommandsTest, AnnouncementsAreKeptLimitedAndListedAfterARestart) {
  NodeSite a("K1QXA");
  a.Setting("Maximum Announcements", "3");
  a.Setting("Default Display Ann", "2");
  a.Setting("AnnNok", "K9BAD");
  a.Password("K1SYS", "secret", 5);
  a.Start();
  auto sysop = a.LogIn("K1SYS", "secret");
  auto quiet = a.LogIn("W1QT");
  auto bad = a.LogIn("K9BAD");
  EXPECT_THAT(Command(*quiet, "SET/NOANNOUNCEMENTS"), HasSubstr("Announcements disabled"));

  for (const char* text : {"one", "two", "three", "four"}) {
    EXPECT_THAT(Command(*sysop, std::string("ANNOUNCE ") + text),
                HasSubstr(std::string("To ALL de K1SYS: ") + text));
  }
  EXPECT_THAT(Command(*bad, "ANNOUNCE spam"), HasSubstr("not accepted"));
  EXPECT_THAT(Command(*quiet, "SH/NAME"), Not(HasSubstr("To ALL de")));
  EXPECT_THAT(Command(*sysop, "SET/NOWX"), HasSubstr("Wx announcements disabled"));
  Command(*quiet, "WX sunny");
  EXPECT_THAT(Command(*sysop, "SH/NAME"), Not(HasSubstr("WX de")));

  // Two by default; never more than the three kept; the refused one is not among them.
  std::string shown = Command(*sysop, "SH/ANN");
  EXPECT_THAT(shown, HasSubstr("WX de W1QT: sunny"));
  EXPECT_THAT(shown, HasSubstr("To ALL de K1SYS: four"));
  EXPECT_THAT(shown, Not(HasSubstr("three")));
  shown = Command(*sysop, "SH/ANN 10");
  EXPECT_THAT(shown, HasSubstr("three"));
  EXPECT_THAT(shown, Not(HasSubstr(": two")));
  EXPECT_THAT(shown, Not(HasSubstr("spam")));
  EXPECT_THAT(Command(*sysop, "SH/ANN ten"), HasSubstr("SH/ANN ten command error"));
  const auto error_log = [&] {
    std::string all;
    std::error_code ec;
    for (const auto& f : std::filesystem::directory_iterator(a.home() / "data/log", ec)) {
      if (f.path().filename().string().starts_with("error-")) all += ReadFile(f.path());
    }
    return all;
  };
  EXPECT_THAT(error_log(), HasSubstr("announcement from K9BAD refused"));

  // RESTART: the node runs itself again; the users stay connected and the history is back.
  EXPECT_THAT(Command(*quiet, "RESTART"), HasSubstr("sysop command error"));
  sysop->ClearReceived();
  sysop->SendLine("RESTART");
  EXPECT_TRUE(sysop->ReadUntil("every connection is kept")) << sysop->received();
  ASSERT_TRUE(a.WaitOutput("Recovery complete", 2)) << a.node().Output();
  EXPECT_EQ(NodeSite::Occurrences(a.node().Output(), "Loading Announcements"), 2u);
  EXPECT_TRUE(a.node().Running());
  // Nothing of the last run held on to its ports.
  EXPECT_THAT(a.node().Output(), Not(HasSubstr("could not start"))) << a.node().Output();
  shown = Command(*quiet, "SH/ANN 10");
  EXPECT_THAT(shown, HasSubstr("To ALL de K1SYS: three"));
  EXPECT_THAT(shown, HasSubstr("WX de W1QT: sunny"));
  EXPECT_THAT(shown, Not(HasSubstr(": two")));
  // The switch survived too.
  Command(*sysop, "ANNOUNCE five");
  EXPECT_THAT(Command(*quiet, "SH/NAME"), Not(HasSubstr("five")));
}

TEST_F(AnnounceCommandsTest, DxTestLeavesNoTraceShowDxFormsCombineAndSpoofIsTheSysops) {
  NodeSite a("K1QXA");
  a.Password("K1SYS", "secret", 5);
  a.Start();
  auto tester = a.LogIn("W1TST");
  auto other = a.LogIn("W2OTH");
  const std::string tried = Command(*tester, "DXTEST 14025 K1ABC loud");
  EXPECT_THAT(tried, HasSubstr("DX de W1TST:"));
  EXPECT_THAT(tried, HasSubstr("K1ABC"));
  EXPECT_THAT(tried, HasSubstr("shown to you only"));
  EXPECT_THAT(Command(*tester, "DXTEST 14025 K1ABC PSE QSL"), HasSubstr("would be refused"));
  EXPECT_THAT(Command(*other, "SH/DX"), Not(HasSubstr("K1ABC")));
  // Not remembered as a duplicate: the real spot goes out, to everybody.
  EXPECT_THAT(Command(*tester, "DX 14025 K1ABC loud"), HasSubstr("DX de W1TST:"));
  EXPECT_TRUE(other->ReadUntil("K1ABC")) << other->received();
  Command(*tester, "DX 7025 K2DEF cw");
  Command(*other, "DX 14030 K1ABD ssb");

  // The forms combine; the history in memory and today's file agree.
  for (const char* query : {"SH/DX 5 ON 20M BY W1TST", "SH/DX K1 BY W1TST DAY 0"}) {
    const std::string shown = Command(*other, query);
    EXPECT_THAT(shown, HasSubstr("K1ABC")) << query;
    EXPECT_THAT(shown, Not(HasSubstr("K1ABD"))) << query;
    EXPECT_THAT(shown, Not(HasSubstr("K2DEF"))) << query;
  }
  EXPECT_THAT(Command(*other, "SH/DX INFO SSB"), HasSubstr("K1ABD"));
  EXPECT_THAT(Command(*other, "SH/DX ON 17Q"), HasSubstr("SH/DX ON 17Q command error"));

  // SPOOF runs a command as another user, for the sysop only.
  auto sysop = a.LogIn("K1SYS", "secret");
  auto user = a.LogIn("W1USR");
  std::string reply = Command(*sysop, "SPOOF W1USR SET/NAME Bobby");
  EXPECT_THAT(reply, HasSubstr("Name set to Bobby."));
  EXPECT_THAT(Command(*user, "SH/NAME"), HasSubstr("Name is Bobby"));
  EXPECT_THAT(Command(*sysop, "SH/NAME"), HasSubstr("Name is Ann"));
  // The user's own rights: a sysop command run as a user is refused.
  EXPECT_THAT(Command(*sysop, "SPOOF W1USR SET/LOCKOUTS K9X"), HasSubstr("sysop command error"));
  EXPECT_THAT(Command(*sysop, "SPOOF N0ONE SH/NAME"), HasSubstr("not logged in"));
  EXPECT_THAT(Command(*sysop, "SPOOF W1USR"), HasSubstr("command error"));
  EXPECT_THAT(Command(*user, "SPOOF K1SYS SET/NAME Eve"), HasSubstr("sysop command error"));
  EXPECT_THAT(Command(*sysop, "SH/NAME"), HasSubstr("Name is Ann"));
  EXPECT_THAT(Command(*sysop, "REBUILD"), HasSubstr("Announcement history"));
}

}  // namespace
}  // namespace qx::testing
