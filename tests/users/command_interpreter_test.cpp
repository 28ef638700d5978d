#include "users/command_interpreter.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/users/user_fixture.h"

namespace qx::testing {
namespace {

using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::StartsWith;

using InterpreterTest = LoggedInFixture;

struct DispatchCase {
  const char* line;
  const char* reply;
};

TEST_F(InterpreterTest, DispatchFollowsTableOrderAndAbbreviations) {
  const DispatchCase cases[] = {
      {"HELP", "For Help please go to https://example.org/help \r\n"},
      {"hel", "hel command error\r\n"},      // HELP needs all four letters
      {"HELPS", "HELPS command error\r\n"},  // longer than the keyword
      {"R 12", "mail:READ(12)\r\n"},         // READ is tried before REPLY
      {"REP", "mail:REPLY()\r\n"},
      {"DIR", "mail:DIRECTORY()\r\n"},
      {"l 5", "mail:LIST(5)\r\n"},
      {"SP G4XYZ", "mail:SP(G4XYZ)\r\n"},
      {"S ALL", "mail:SEND(ALL)\r\n"},
      {"DEL 3 4", "mail:DELETE(3 4)\r\n"},
      {"K 3", "mail:KILL(3)\r\n"},
      {"PURGE", "PURGE - sysop command error\r\n"},
      {"INIT", "INIT - sysop command error\r\n"},
      {"SH/VERSION", "QX Cluster version 0.1.0\r\n"},
      {"sh/width", "Width is 75\r\n"},
      {"SH/NAME", "Name is Ann\r\n"},
      {"SET/NOCWSPOTS", "NOCWSPOTS not found!\r\n"},  // only the old spelling switches CW off
      {"SET/NOCWPOTS", "CW spots disabled\r\n"},
      {"SET/NOCW", "CW spots disabled\r\n"},
      {"SET/CW", "CW spots enabled\r\n"},
      {"SET/NORTTY", "RTTY spots disabled\r\n"},
      {"UNSET/BEEP", "Beep disabled\r\n"},
      {"SET/BEEP", "Beep enabled\r\n"},
      {"ECHO", "Echo is disabled\r\n"},
      {"SH/FOO", "SH/FOO command error\r\n"},
      {"XYZZY", "XYZZY command error\r\n"},
      {"SHUTDOWN", "SHUTDOWN - sysop command error\r\n"},
      {"SET/LOCKOUTS K1BAD", "SET/LOCKOUTS K1BAD - sysop command error\r\n"},
      {"TALK", "to callsign is empty.\r\n"},
      {"TALK K9XYZ", "\"Talk Through\" mode not implemented.\r\n"},
      {"TALK K9XYZ hello", "Talk Aborted.  \r\n"},
      {"SET/NAME", "Correct syntax: SET/NAME name\r\n"},
      {"ANNOUNCE", "Command error - ANNOUNCE\r\n"},
  };
  for (const auto& c : cases) EXPECT_EQ(Run(c.line), c.reply) << c.line;
  // An unknown line is echoed cut at sixty characters.
  EXPECT_EQ(Run(std::string(70, 'Z')), std::string(60, 'Z') + " ...  command error\r\n");
  EXPECT_EQ(Run(std::string(60, 'Y')), std::string(60, 'Y') + " command error\r\n");
}

// Every command is followed by the prompt, except while the mail editor has the lines and
// after a client's keep-alive token.
TEST_F(InterpreterTest, PromptFollowsEveryCommandButNotEditorLinesOrKeepAlive) {
  Type(1, "XYZZY");
  EXPECT_THAT(Take(1), EndsWith("K1ABC de XX0QX-1 15-Nov-2026 0046Z   QXC >\r\n"));
  services_.composing = true;
  Type(1, "SEND G4XYZ");
  EXPECT_EQ(Take(1), "mail:SEND(G4XYZ)\r\n");
  services_.composing = false;
  Type(1, "DIR");
  EXPECT_THAT(Take(1), EndsWith("QXC >\r\n"));
  Type(1, "KeepAlive");
  EXPECT_EQ(Take(1), "");
}

TEST_F(InterpreterTest, ByeClosesTheStreamAtOnceWithoutAnotherPrompt) {
  Type(1, "B");
  const std::string text = Take(1);
  EXPECT_THAT(text, HasSubstr("73 K1ABC de XX0QX-1\r\n"));
  EXPECT_THAT(text, ::testing::Not(HasSubstr("QXC >")));
  EXPECT_THAT(out_.closed, ElementsAre(1));
  EXPECT_FALSE(streams_.at(1).IsUser());  // out of WHO and the counts before the close report
}

TEST_F(InterpreterTest, SettingsAreCheckedAndPersistedInTheRecord) {
  Run("SET/NOBEEP");
  Run("SET/NOANN");
  Run("SET/GRIDSQ");
  EXPECT_EQ(Run("SET/WIDTH 80"), "Width set to 80\r\n");
  EXPECT_EQ(Run("SET/WIDTH 5"), "SET/WIDTH 5 command error\r\n");
  EXPECT_EQ(Run("SET/RES 2"), "Resolution set to 2 decimals\r\n");
  EXPECT_EQ(Run("SET/RES 3"), "SET/RES 3 command error\r\n");
  EXPECT_EQ(Run("SET/DXBM 12/34"), "DXBM set to 12/34 (no band)\r\n");
  const SessionSettings loaded = store_.Load("K1ABC-5", kStateUser).settings;
  EXPECT_FALSE(loaded.Has(kSwBeep));
  EXPECT_FALSE(loaded.Has(kSwAnnouncements));
  EXPECT_TRUE(loaded.Has(kSwGridSquare));
  EXPECT_EQ(loaded.switches, streams_.at(1).session.switches);
  EXPECT_EQ(loaded.width, 80);
  EXPECT_EQ(loaded.resolution, 2);
  EXPECT_EQ(loaded.dxbm, 12u);
  EXPECT_EQ(loaded.dxbm2, 34u);
}

// Name, QTH, locator, home node and location go to the record and out as PC41.
TEST_F(InterpreterTest, PersonalSettingsAreCheckedAndProducePc41) {
  const std::string bad = Run("SET/LOCATION somewhere");
  EXPECT_THAT(bad, StartsWith("SET/LOCATION command error\r\n"));
  EXPECT_THAT(bad, HasSubstr("Example:  SET/LOCATION 49 11 N 122 30 W\r\n"));
  relay_.events.clear();
  EXPECT_EQ(Run("SET/NAME Annie"), "Name set to Annie.\r\n");
  EXPECT_EQ(Run("SET/QTH Boston"), "QTH set to Boston\r\n");
  EXPECT_EQ(Run("SET/QRA FN42aa"), "Grid set to FN42AA\r\n");
  EXPECT_EQ(Run("SET/HOMENODE K1NODE-2"), "Home node set to K1NODE-2\r\n");
  EXPECT_EQ(Run("SET/HOMENODE ABC1"), "ABC1 is not a valid DX Cluster Callsign\r\n");
  EXPECT_EQ(Run("SET/LOC 49 11 n 122 30 w"), "Location updated to 49 11 N 122 30 W\r\n");
  // A caret would split the sentence and the record line: it is kept as "~".
  EXPECT_EQ(Run("SET/QTH Bad^Town"), "QTH set to Bad~Town\r\n");
  std::vector<std::string> sent;
  for (const auto& ev : relay_.events) sent.push_back(ev.a);
  EXPECT_THAT(sent, ElementsAre("PC41^K1ABC^1^Annie^H99^~\r\n", "PC41^K1ABC^2^Boston^H99^~\r\n",
                                "PC41^K1ABC^5^FN42AA^H99^~\r\n", "PC41^K1ABC^4^K1NODE-2^H99^~\r\n",
                                "PC41^K1ABC^3^49 11 N 122 30 W^H99^~\r\n",
                                "PC41^K1ABC^2^Bad~Town^H99^~\r\n"));
  EXPECT_EQ(store_.Load("K1ABC", kStateUser).settings.qth, "Bad~Town");
}

TEST_F(InterpreterTest, SysopListCommands) {
  streams_.at(1).privilege = 5;
  EXPECT_EQ(Run("SET/LOCKOUTS k1bad"), "K1BAD added to list.\r\n");
  EXPECT_EQ(Run("SET/LOCKOUTS K1BAD"), "K1BAD already in list.\r\n");
  EXPECT_EQ(Run("SET/NOLOCKOUTS K1BAD"), "K1BAD deleted from list.\r\n");
  EXPECT_EQ(Run("SET/NOLOCKOUTS K1BAD"), "K1BAD not in list.\r\n");
  EXPECT_EQ(Run("SET/BADDX"), "* Command Incomplete *\r\n");
  EXPECT_EQ(Run("SET/BADDX K9XX"), "K9XX added to list.\r\n");
  EXPECT_EQ(Run("SET/DXNOK EQUALS k9yy"), "K9YY added to list.\r\n");
  EXPECT_EQ(Run("SET/DXNOK XX9*"), "XX9* added to list.\r\n");
  EXPECT_THAT(services_.lists["DxNok"], ElementsAre("K9XX", "K9YY", "XX9*"));
  for (const char* junk :
       {"SET/LOCKOUTS SH/DX", "SET/LOCKOUTS two words", "SET/BADDX K9X^Y", "SET/ANNOK HELLO"}) {
    EXPECT_THAT(Run(junk), HasSubstr("is not a call sign; nothing changed.")) << junk;
  }
  Run("SHUTDOWN");
  EXPECT_TRUE(services_.shutdown);
}

TEST_F(InterpreterTest, SpotLinesGoToSpotEntry) {
  Run("DX 14025 K9XYZ test");
  Run("dx/freq 14025 K9XYZ");
  Run("DXTEST 14025 K9XYZ");
  EXPECT_THAT(services_.spots,
              ElementsAre("DX 14025 K9XYZ test", "dx/freq 14025 K9XYZ", "DXTEST 14025 K9XYZ"));
}

TEST_F(InterpreterTest, AnnouncementsReachLocalUsersWhoWantThem) {
  LogIn(2, "K2DEF", "Dan");
  LogIn(3, "K3GHI", "Gil");
  Take(2);
  Take(3);
  Run("SET/NOANN", 3);
  relay_.events.clear();
  Run("ANNOUNCE hello all");
  EXPECT_THAT(Take(2), HasSubstr("To ALL de K1ABC: hello all\r\n"));
  EXPECT_THAT(Take(3), ::testing::Not(HasSubstr("hello all")));
  Run("ANNOUNCE FULL to the world");
  Run("ANNOUNCE LOCAL to the neighbours");
  // Every form reaches the network; LOCAL goes one hop only.
  ASSERT_EQ(relay_.events.size(), 3u);
  EXPECT_EQ(relay_.events[0].kind, "announce");
  EXPECT_EQ(relay_.events[0].c, "hello all");
  EXPECT_EQ(relay_.events[1].kind, "announce");
  EXPECT_EQ(relay_.events[1].c, "to the world");
  EXPECT_EQ(relay_.events[2].kind, "announce/H1");
  EXPECT_EQ(relay_.events[2].c, "to the neighbours");
}

TEST_F(InterpreterTest, TalkBetweenLocalUsers) {
  LogIn(2, "K2DEF", "Dan");
  Take(2);
  Run("TALK K2DEF hi Dan");
  EXPECT_THAT(Take(2), HasSubstr("K2DEF de K1ABC: hi Dan\r\n"));
  Run("SET/NOTALK", 2);
  EXPECT_EQ(Run("TALK K2DEF again"), "K2DEF has talk disabled.\r\n");
}

TEST_F(InterpreterTest, ClientsNameThemselves) {
  Run("/CTCP DXS HRD 6");
  EXPECT_EQ(streams_.at(1).client_type, "HRD 6");
  EXPECT_FALSE(streams_.at(1).WantsEnhancedSpots());
  Run("/CTCP DXS QXU 1.2");
  EXPECT_EQ(streams_.at(1).client_type, "QXU 1.2");
  EXPECT_TRUE(streams_.at(1).WantsEnhancedSpots());
  EXPECT_EQ(Run("Send Enhanced DX Spots"), "Send Enhanced DX Spots QXC >\r\n");
}

// The enhanced format a connection asked for is kept by the front-end, so a restart of the
// node keeps it; it is the connection's, not the record's, and SET/NOXX0QX ends it.
TEST_F(InterpreterTest, EnhancedFormatOutlivesARestartAndCanBeSwitchedOff) {
  Run("Send Enhanced DX Spots");
  StreamEntry& e = streams_.at(1);
  EXPECT_EQ(e.spot_format, kSpotFormatEnhanced);
  EXPECT_FALSE(e.session.Has(kSwEnhanced));
  EXPECT_EQ(StreamAttribute(out_.attributes[1], "fmt"), "6") << out_.attributes[1];
  EXPECT_NE(StreamAttribute(out_.attributes[1], "since"), "");

  e.frontend_attributes = out_.attributes[1];
  e.spot_format = kSpotFormatDxDe;
  login_.OnRecovered(1);
  EXPECT_EQ(e.spot_format, kSpotFormatEnhanced);

  EXPECT_EQ(Run("SET/NOXX0QX"), "Enhanced Spots Disabled\r\n");
  EXPECT_FALSE(e.WantsEnhancedSpots());
  EXPECT_EQ(StreamAttribute(out_.attributes[1], "fmt"), "");
  EXPECT_EQ(Run("SET/XX0QX"), "Enhanced Spots Enabled\r\n");
  EXPECT_TRUE(e.session.Has(kSwEnhanced));
  EXPECT_EQ(StreamAttribute(out_.attributes[1], "fmt"), "6");
}

}  // namespace
}  // namespace qx::testing
