#include "downloads/download_plan.h"

#include <gtest/gtest.h>

namespace qx {
namespace {

using std::chrono::hours;
using std::chrono::minutes;
using std::chrono::seconds;

const SysTime kT0 = SysTime{} + hours(24 * 20000);

TEST(DownloadPlanTest, SourcesNeedAnAddressAndASafeFileName) {
  std::vector<std::string> errors;
  const auto list = ParseDownloadList(
      " https://h.example/lists/MASTER.SCP?v=2 , grid.csv=http://h.example/get?f=a=b,"
      "ftp://h.example/x.dat, https://h.example/, ../evil=https://h.example/x,"
      "https://h.example/.hidden",
      &errors);
  ASSERT_EQ(list.size(), 2u);
  EXPECT_EQ(list[0], (DownloadSource{"MASTER.SCP", "https://h.example/lists/MASTER.SCP?v=2"}));
  // An "=" inside the address's query does not name a file.
  EXPECT_EQ(list[1], (DownloadSource{"grid.csv", "http://h.example/get?f=a=b"}));
  EXPECT_EQ(errors.size(), 4u);
  for (const char* bad : {"", ".", "a/b", "..", "a b", "x\\y"}) EXPECT_FALSE(SafeFileName(bad));
  EXPECT_EQ(UrlFileName("http://h/a/cty.zip#top"), "cty.zip");
  EXPECT_EQ(UrlFileName("http://h"), "");
}

TEST(DownloadPlanTest, ScheduleWaitsTheIntervalAndBacksOffAfterFailures) {
  DownloadTiming t;
  t.interval = hours(24);
  t.first_retry = minutes(5);
  t.max_retry = minutes(30);
  t.max_retries = 4;
  DownloadSchedule s(t);
  EXPECT_TRUE(s.Due(kT0));  // never fetched: at once
  s.Started();
  EXPECT_FALSE(s.Due(kT0));  // not twice at a time
  s.Failed(kT0);
  EXPECT_FALSE(s.Due(kT0 + minutes(4)));
  EXPECT_TRUE(s.Due(kT0 + minutes(5)));
  // Waits of 5, 10, 20, then capped at 30 minutes; after max_retries the interval.
  SysTime now = kT0;
  std::vector<int> waits;
  for (int i = 0; i < 4; ++i) {
    s.Started();
    s.Failed(now);
    waits.push_back(int((*s.next() - now) / minutes(1)));
    now = *s.next();
  }
  EXPECT_EQ(waits, (std::vector<int>{10, 20, 30, 24 * 60}));
  EXPECT_EQ(s.failures(), 0);

  s.Started();
  s.Succeeded(now);
  EXPECT_FALSE(s.Due(now + hours(23)));
  EXPECT_TRUE(s.Due(now + hours(24)));
  s.Request();  // the sysop does not wait
  EXPECT_TRUE(s.Due(now));

  DownloadSchedule restored(t);
  restored.Restore(kT0 - hours(20));
  EXPECT_FALSE(restored.Due(kT0));
  EXPECT_TRUE(restored.Due(kT0 + hours(4)));

  t.interval = seconds(0);  // only when asked, though a failed request is still retried
  DownloadSchedule manual(t);
  manual.Restore(kT0);
  EXPECT_FALSE(manual.Due(kT0 + hours(1000)));
  manual.Request();
  manual.Started();
  manual.Failed(kT0);
  EXPECT_TRUE(manual.Due(kT0 + minutes(5)));
  manual.Started();
  manual.Succeeded(kT0);
  EXPECT_FALSE(manual.next().has_value());
}

TEST(DownloadPlanTest, MuchSmallerOrEmptyFilesAreRefused) {
  EXPECT_EQ(ReplacementVerdict(100, std::nullopt), "");
  EXPECT_EQ(ReplacementVerdict(80, 100), "");
  EXPECT_EQ(ReplacementVerdict(79, 100),
            "the file has 79 bytes, much less than the 100 of the one in use");
  EXPECT_EQ(ReplacementVerdict(0, std::nullopt), "the file is empty");
}

TEST(DownloadPlanTest, StateKeepsValidatorsAndSkipsBadLines) {
  const std::vector<DownloadRecord> records = {
      {"cty_wt_mod.dat", "https://h/cty_wt_mod.dat", "\"abc\"", "Thu, 05 Nov 2026 15:05:00 GMT",
       kT0},
      {"MASTER.SCP", "https://h/MASTER.SCP", "", "", SysTime{}}};
  const std::string text = FormatDownloadState(records) + "../x^u^^^1\nbroken line\n";
  const auto back = ParseDownloadState(text);
  ASSERT_EQ(back.size(), 2u);
  EXPECT_EQ(back[0].etag, "\"abc\"");
  EXPECT_EQ(back[0].last_modified, "Thu, 05 Nov 2026 15:05:00 GMT");
  EXPECT_EQ(back[0].last_success, kT0);
  EXPECT_EQ(back[1].url, "https://h/MASTER.SCP");
  EXPECT_EQ(back[1].last_success, SysTime{});
}

TEST(DownloadPlanTest, VersionsCompareByNumberAndAreToldOnce) {
  EXPECT_EQ(ReadVersionText("\n  v1.10.2  2026-11-05\nnotes\n"), "1.10.2");
  EXPECT_EQ(ReadVersionText("1.5.0-rc1"), "1.5.0-rc1");
  EXPECT_EQ(ReadVersionText("<html><body>404</body>"), std::nullopt);
  EXPECT_EQ(ReadVersionText(""), std::nullopt);
  EXPECT_GT(CompareVersions("1.10", "1.9"), 0);
  EXPECT_EQ(CompareVersions("1.2", "1.2.0"), 0);
  EXPECT_LT(CompareVersions("1.5.0-rc1", "1.5.0"), 0);
  EXPECT_LT(CompareVersions("1.5.0-rc1", "1.5.0-rc2"), 0);

  UpdateVerdict v = DecideUpdate("1.4.0", "1.5.0", "");
  EXPECT_TRUE(v.newer && v.tell);
  v = DecideUpdate("1.4.0", "1.5.0", "1.5.0");  // told already
  EXPECT_TRUE(v.newer);
  EXPECT_FALSE(v.tell);
  v = DecideUpdate("1.4.0", "1.6.0", "1.5.0");
  EXPECT_TRUE(v.tell);
  v = DecideUpdate("1.6.0", "1.5.0", "");
  EXPECT_FALSE(v.newer || v.tell);
}

}  // namespace
}  // namespace qx
