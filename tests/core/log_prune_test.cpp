#include "core/log_prune.h"

#include <gtest/gtest.h>

#include "core/file_util.h"
#include "tests/testlib/test_util.h"

namespace qx {
namespace {

namespace fs = std::filesystem;

TEST(LogPrune, ReadsTheDayFromTheName) {
  EXPECT_EQ(LogFileDay("error-05-Nov-2026.log"), MakeUtc(2026, 11, 5));
  EXPECT_EQ(LogFileDay("29-Feb-2028.log"), MakeUtc(2028, 2, 29));
  EXPECT_EQ(LogFileDay("Bad-01-Jan-2027"), MakeUtc(2027, 1, 1));
  // A run of digits before the date does not hide it.
  EXPECT_EQ(LogFileDay("badfreq1205-Nov-2026.txt"), MakeUtc(2026, 11, 5));
  EXPECT_FALSE(LogFileDay("Newpc61.log"));
  EXPECT_FALSE(LogFileDay("31-Feb-2026.log"));  // a day the month does not have
  EXPECT_FALSE(LogFileDay("05-Xyz-2026.log"));
  EXPECT_FALSE(LogFileDay("5-Nov-2026"));
}

TEST(LogPrune, KeepsTodayAndTheDaysBefore) {
  const SysTime now = MakeUtc(2026, 11, 10, 0, 0, 5);
  EXPECT_FALSE(LogExpired(MakeUtc(2026, 11, 10), now, 1));
  EXPECT_TRUE(LogExpired(MakeUtc(2026, 11, 9), now, 1));
  EXPECT_FALSE(LogExpired(MakeUtc(2026, 11, 4), now, 7));
  EXPECT_TRUE(LogExpired(MakeUtc(2026, 11, 3), now, 7));
  // Across a year's end, and just before midnight.
  EXPECT_FALSE(LogExpired(MakeUtc(2026, 12, 31), MakeUtc(2027, 1, 1, 23, 59, 59), 2));
  EXPECT_TRUE(LogExpired(MakeUtc(2026, 12, 30), MakeUtc(2027, 1, 1, 23, 59, 59), 2));
  EXPECT_FALSE(LogExpired(MakeUtc(2000, 1, 1), now, 0));  // 0 keeps everything
}

TEST(LogPrune, RemovesOnlyExpiredDailyLogsInTheLogFolders) {
  testing::TempDir tmp;
  const ProgramDir dir(tmp.path());
  std::string error;
  ASSERT_TRUE(dir.CreateTree(&error)) << error;
  const std::vector<fs::path> old_logs = {
      dir.Data("log") / "error-01-Oct-2026.log", dir.Data("log/conn") / "01-Oct-2026.log",
      dir.Data("badspotsIP") / "Bad-30-Sep-2026", dir.Data("badspots") / "bad-01-Oct-2026.txt"};
  const std::vector<fs::path> kept = {
      dir.Data("log") / "error-05-Nov-2026.log",  // within the 30 days
      dir.Data("badinfo") / "Newpc61.log",        // no day in its name
      dir.Data("dx") / "01-Oct-2026.dat",         // spot history, not a log
      dir.home() / "01-Oct-2026.log"};            // outside the data tree
  for (const auto& p : old_logs) ASSERT_TRUE(AtomicWriteFile(p, "x\n"));
  for (const auto& p : kept) ASSERT_TRUE(AtomicWriteFile(p, "x\n"));
  fs::create_directory(dir.Data("log") / "old-01-Jan-2020.log");  // a folder is left alone

  const PruneResult r = PruneDailyLogs(dir, MakeUtc(2026, 11, 10, 12), 30);
  EXPECT_EQ(r.removed, int(old_logs.size()));
  EXPECT_TRUE(r.errors.empty());
  for (const auto& p : old_logs) EXPECT_FALSE(fs::exists(p)) << p;
  for (const auto& p : kept) EXPECT_TRUE(fs::exists(p)) << p;
  EXPECT_TRUE(fs::is_directory(dir.Data("log") / "old-01-Jan-2020.log"));
  EXPECT_EQ(PruneDailyLogs(dir, MakeUtc(2030, 1, 1), 0).removed, 0);
  EXPECT_TRUE(fs::exists(kept[0]));
}

}  // namespace
}  // namespace qx
