#include "core/time_text.h"

#include <gtest/gtest.h>

#include "core/error_log.h"

namespace qx {
namespace {

TEST(DateText, EveryMonthHasItsEnglishAbbreviation) {
  const char* expected[] = {"05-Jan-2026", "05-Feb-2026", "05-Mar-2026", "05-Apr-2026",
                            "05-May-2026", "05-Jun-2026", "05-Jul-2026", "05-Aug-2026",
                            "05-Sep-2026", "05-Oct-2026", "05-Nov-2026", "05-Dec-2026"};
  for (int m = 1; m <= 12; ++m) {
    EXPECT_EQ(DateText(MakeUtc(2026, m, 5, 12)), expected[m - 1]) << "month " << m;
  }
}

TEST(DateText, ChangesAtMidnightUtc) {
  EXPECT_EQ(DateText(MakeUtc(2026, 12, 31, 23, 59, 59)), "31-Dec-2026");
  EXPECT_EQ(DateText(MakeUtc(2026, 12, 31, 23, 59, 59) + std::chrono::seconds(1)), "01-Jan-2027");
  EXPECT_EQ(DateText(MakeUtc(2028, 2, 28, 23, 59, 59) + std::chrono::seconds(1)), "29-Feb-2028");
}

TEST(TimeText, HoursMinutesAndSeconds) {
  const SysTime t = MakeUtc(2026, 11, 5, 7, 3, 9);
  EXPECT_EQ(TimeHHnnZ(t), "0703Z");
  EXPECT_EQ(TimeHHnnssZ(t), "0703:09Z");
  EXPECT_EQ(TimeHHnn(t), "0703");
  EXPECT_EQ(SecondsOfDay(t), 7 * 3600 + 3 * 60 + 9);
}

TEST(TimeText, MonthNamesParseBack) {
  EXPECT_EQ(MonthFromAbbrev("Nov"), 11);
  EXPECT_EQ(MonthFromAbbrev("nov"), 11);
  EXPECT_EQ(MonthFromAbbrev("Nox"), 0);
  EXPECT_EQ(UptimeText(std::chrono::seconds(2 * 86400 + 3 * 3600 + 14 * 60 + 5)), "2d 03:14");
}

TEST(ErrorLog, LineIsDateTimeHeadingMessage) {
  EXPECT_EQ(ErrorLog::FormatLine(MakeUtc(2026, 11, 5, 14, 23, 5), "Form_Load", "x is empty."),
            "05-Nov-2026 1423:05Z Form_Load x is empty.");
}

}  // namespace
}  // namespace qx
