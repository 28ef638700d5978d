#include "users/announce_history.h"

#include <gtest/gtest.h>

#include "tests/testlib/test_util.h"

namespace qx {
namespace {

using qx::testing::TempDir;
using qx::testing::WriteFile;

// Today's file may hold what an older version or a hand edit left: only whole lines are taken,
// without terminal controls, and the newest win when there are more than are kept.
TEST(AnnounceHistoryTest, TodaysFileIsReadCleanAndTheNewestAreKept) {
  TempDir tmp;
  AnnounceHistory history(2, tmp.path());
  const SysTime now = MakeUtc(2026, 11, 22, 12, 0, 0);
  const std::string t = std::to_string(std::chrono::duration_cast<std::chrono::seconds>(
                                           MakeUtc(2026, 11, 22, 3, 15).time_since_epoch())
                                           .count());
  WriteFile(history.DayFile(now),
            t + "^K1ABC^*^first\r\n" + t + "^K2ABC^WX^rain\x1b[2J\r\n" + "x^K3ABC^*^bad time\r\n" +
                t + "^K4ABC^NOBODY^bad target\r\n" + t + "^K5ABC^*^a^b with a caret\r\n");
  EXPECT_EQ(history.LoadToday(now), 3u);
  const auto newest = history.Newest(5);
  ASSERT_EQ(newest.size(), 2u);
  EXPECT_EQ(newest[0]->ListLine(), "22-Nov-2026 0315Z To ALL de K5ABC: a^b with a caret");
  EXPECT_EQ(newest[1]->ListLine(), "22-Nov-2026 0315Z WX de K2ABC: rain[2J");

  // A new one is appended to the file of its day and read back after a restart.
  history.Add({now, "K6ABC", "SYSOP", "hello"});
  AnnounceHistory again(10, tmp.path());
  EXPECT_EQ(again.LoadToday(now), 4u);
  EXPECT_EQ(again.Show("1", 5, 100).front(), "22-Nov-2026 1200Z To SYSOP de K6ABC: hello");
  EXPECT_EQ(again.Show("", 2, 100).size(), 2u);
  EXPECT_EQ(again.Show("50", 5, 3).size(), 3u);
  EXPECT_TRUE(again.Show("0", 5, 100).empty());
  EXPECT_TRUE(again.Show("two", 5, 100).empty());
}

TEST(AnnounceHistoryTest, BadAnnouncersMatchWithAndWithoutSsidAndByPrefix) {
  AnnounceHistory h(10, {});
  h.SetBadAnnouncers({"K9BAD", "DL1X*", " "});
  EXPECT_TRUE(h.IsBadAnnouncer("k9bad"));
  EXPECT_TRUE(h.IsBadAnnouncer("K9BAD-2"));
  EXPECT_TRUE(h.IsBadAnnouncer("DL1XYZ"));
  EXPECT_FALSE(h.IsBadAnnouncer("K9BADD"));
  EXPECT_FALSE(h.IsBadAnnouncer("DL1ABC"));
}

}  // namespace
}  // namespace qx
