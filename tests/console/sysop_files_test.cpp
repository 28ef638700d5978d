#include "console/sysop_files.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "console/user_directory.h"
#include "users/access_lists.h"

namespace qx {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

TEST(SysopFilesTest, EntriesAreCheckedByTheKindOfFile) {
  struct Case {
    SysopFileKind kind;
    const char* typed;
    const char* entry;  // nullptr: refused
  };
  const Case cases[] = {
      {SysopFileKind::kWords, " ft8  spam ", "FT8 SPAM"},
      {SysopFileKind::kWords, "a^b", nullptr},
      {SysopFileKind::kWords, "", nullptr},
      {SysopFileKind::kAddresses, "192.0.2.7", "192.0.2.7"},
      {SysopFileKind::kAddresses, "2001:DB8:0:0::1", "2001:DB8::1"},
      {SysopFileKind::kAddresses, "192.0.2.0/24", nullptr},  // intake matches one address
      {SysopFileKind::kAddresses, "192.0.2.300", nullptr},
      {SysopFileKind::kAddresses, "host.example.org", nullptr},
      {SysopFileKind::kCalls, "4u1itu", "4U1ITU"},
      {SysopFileKind::kCalls, "K1ABC/P", "K1ABC/P"},
      {SysopFileKind::kCalls, "K1ABC K2ABC", nullptr},
      {SysopFileKind::kCalls, "K1<ABC>", nullptr},
  };
  for (const Case& c : cases) {
    const CheckedEntry r = CheckSysopEntry(c.kind, c.typed);
    if (c.entry) {
      EXPECT_EQ(r.error, "") << c.typed;
      EXPECT_EQ(r.entry, c.entry) << c.typed;
    } else {
      EXPECT_NE(r.error, "") << c.typed;
    }
  }
}

TEST(SysopFilesTest, ImportsKeepTheFileAndReportWhatTheyDid) {
  // A published exit list: only its ExitAddress lines hold addresses.
  const std::string exit_list =
      "ExitNode 0011BD2485AD45D984EC4159C88FC066E5E3300E\r\nPublished 2026-11-24 02:53:35\r\n"
      "LastStatus 2026-11-24 04:00:00\r\nExitAddress 198.51.100.7 2026-11-24 04:05:02\r\n";
  EXPECT_THAT(SplitImport(SysopFileKind::kAddresses, exit_list), ElementsAre("198.51.100.7"));
  EXPECT_THAT(SplitImport(SysopFileKind::kAddresses, "# mine\n192.0.2.1, 192.0.2.2\t192.0.2.3"),
              ElementsAre("192.0.2.1", "192.0.2.2", "192.0.2.3"));
  // Phrases hold blanks, so words are split only by lines.
  EXPECT_THAT(SplitImport(SysopFileKind::kWords, "buy now\nspam\n"),
              ElementsAre("buy now", "spam"));
  // The configuration's node lists hold "CALL TYPE": blanks stay inside an item.
  EXPECT_THAT(SplitListItems("GB7AAA DXS, GB7BBB\n# note\n K1ABC \n"),
              ElementsAre("GB7AAA DXS", "GB7BBB", "K1ABC"));

  const std::string file = "# refused by hand\r\n192.0.2.1 flooder\r\n";
  ImportOutcome outcome;
  const std::string next = AddSysopEntries(
      SysopFileKind::kAddresses, file, {"192.0.2.1", "192.0.2.9", "192.0.2.9", "bad"}, &outcome);
  EXPECT_EQ(next, file + "192.0.2.9\r\n");
  EXPECT_THAT(outcome.added, ElementsAre("192.0.2.9"));
  EXPECT_EQ(outcome.already, 2u);
  ASSERT_EQ(outcome.refused.size(), 1u);
  EXPECT_THAT(SysopFileEntries(SysopFileKind::kAddresses, next),
              ElementsAre("192.0.2.1", "192.0.2.9"));

  bool removed = false;
  EXPECT_EQ(RemoveSysopEntry(SysopFileKind::kAddresses, next, "192.0.2.1", &removed),
            "# refused by hand\r\n192.0.2.9\r\n");
  EXPECT_TRUE(removed);
  RemoveSysopEntry(SysopFileKind::kAddresses, next, "192.0.2.77", &removed);
  EXPECT_FALSE(removed);
  // A special call's further columns belong to the skimmer stage; its entry is the call.
  EXPECT_EQ(RemoveSysopEntry(SysopFileKind::kCalls, "4U1ITU,x,y\r\nK1ABC\r\n", "4u1itu", &removed),
            "K1ABC\r\n");

  EXPECT_THAT(FilterEntries({"192.0.2.1", "198.51.100.7"}, "100"), ElementsAre("198.51.100.7"));
  EXPECT_EQ(SettingChangeText("Connection Retry", "60", "120"),
            "Sysop set Connection Retry 60 \u2192 120");
  EXPECT_EQ(SettingChangeText("Help Address", "", "https://x"),
            "Sysop set Help Address (empty) \u2192 https://x");
}

TEST(SysopFilesTest, PasswordRowsAreReplacedInPlaceAndRemovedByCall) {
  const std::string text = "# sysops\r\nG4ABC^old^1\r\nK1XYZ^pw^0\r\n";
  EXPECT_EQ(AccessLists::SetPasswordRow(text, "g4abc", "new", 2),
            "# sysops\r\nG4ABC^new^2\r\nK1XYZ^pw^0\r\n");
  EXPECT_EQ(AccessLists::SetPasswordRow("", "N0NE", "x", 0), "N0NE^x^0\r\n");
  bool removed = false;
  EXPECT_EQ(AccessLists::RemovePasswordRows(text, "K1XYZ", &removed),
            "# sysops\r\nG4ABC^old^1\r\n");
  EXPECT_TRUE(removed);
  const auto rows = AccessLists::ParsePasswords(AccessLists::SetPasswordRow(text, "K1XYZ", "a", 0));
  ASSERT_EQ(rows.size(), 2u);
  EXPECT_EQ(rows[1].password, "a");
}

TEST(UserDirectoryTest, CallsFromFileNamesPagesAndRecordLines) {
  EXPECT_EQ(CallFromUserFileName("K1ABCpP"), "K1ABC/P");
  EXPECT_EQ(CallFromUserFileName("EA8pG4ABC"), "EA8/G4ABC");

  std::vector<std::string> calls;
  for (int i = 0; i < 10000; ++i) calls.push_back("G" + std::to_string(10000 + i));
  CallPage page = PageOfCalls(calls, "", 9950, 100);
  EXPECT_EQ(page.total, 10000u);
  EXPECT_EQ(page.calls.size(), 50u);
  EXPECT_EQ(page.calls.front(), "G19950");
  page = PageOfCalls(calls, "g1999", 0, 5);
  EXPECT_EQ(page.total, 10u);
  EXPECT_THAT(page.calls, ElementsAre("G19990", "G19991", "G19992", "G19993", "G19994"));
  // A page past the end (the list shrank meanwhile) shows the last one.
  page = PageOfCalls(calls, "g1999", 40, 5);
  EXPECT_EQ(page.offset, 5u);
  EXPECT_EQ(page.calls.front(), "G19995");
  EXPECT_THAT(PageOfCalls(calls, "XX", 0, 5).calls, IsEmpty());

  const UserRecordView view = ViewUserRecord(
      "PC41^0^1^Bob\r\nWIDTH^0^80\r\nWIDTH^16^120\r\nFILTER^0^spots^1^accept/spots on hf\r\n"
      "FILTER^16^spots^1^reject/spots on 2m\r\nLASTLOGIN^0^24-Nov-2026 1952Z\r\nSPOTS^0^7\r\n");
  EXPECT_THAT(view.filters, ElementsAre("accept/spots on hf", "reject/spots on 2m (SSID 16)"));
  EXPECT_EQ(view.last_login, "24-Nov-2026 1952Z");
  EXPECT_EQ(view.spots, 7);
  ASSERT_GE(view.settings.size(), 3u);
  EXPECT_EQ(view.settings[0], std::make_pair(std::string("Name"), std::string("Bob")));
  EXPECT_EQ(view.settings[2], std::make_pair(std::string("WIDTH (SSID 16)"), std::string("120")));
}

}  // namespace
}  // namespace qx
