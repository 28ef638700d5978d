#include "core/time_text.h"

#include <gtest/gtest.h>

#include "core/error_log.h"
#include "core/text_util.h"

namespace qx {
namespace {

TEST(DateText, EnglishMonthsAndTheDayChangesAtMidnightUtc) {
  const std::string_view months = "JanFebMarAprMayJunJulAugSepOctNovDec";
  for (int m = 1; m <= 12; ++m) {
    EXPECT_EQ(DateText(MakeUtc(2026, m, 5, 12)),
              "05-" + std::string(months.substr(m * 3 - 3, 3)) + "-2026");
    EXPECT_EQ(MonthFromAbbrev(months.substr(m * 3 - 3, 3)), m);
  }
  EXPECT_EQ(MonthFromAbbrev("nov"), 11);
  EXPECT_EQ(MonthFromAbbrev("Nox"), 0);
  EXPECT_EQ(DateText(MakeUtc(2026, 12, 31, 23, 59, 59)), "31-Dec-2026");
  EXPECT_EQ(DateText(MakeUtc(2026, 12, 31, 23, 59, 59) + std::chrono::seconds(1)), "01-Jan-2027");
  EXPECT_EQ(DateText(MakeUtc(2028, 2, 28, 23, 59, 59) + std::chrono::seconds(1)), "29-Feb-2028");
}

TEST(TimeText, HoursMinutesSecondsUptimeAndTheErrorLogLine) {
  const SysTime t = MakeUtc(2026, 11, 5, 7, 3, 9);
  EXPECT_EQ(TimeHHnnZ(t), "0703Z");
  EXPECT_EQ(TimeHHnnssZ(t), "0703:09Z");
  EXPECT_EQ(TimeHHnn(t), "0703");
  EXPECT_EQ(SecondsOfDay(t), 7 * 3600 + 3 * 60 + 9);
  EXPECT_EQ(UptimeText(std::chrono::seconds(2 * 86400 + 3 * 3600 + 14 * 60 + 5)), "2d 03:14");
  EXPECT_EQ(ErrorLog::FormatLine(MakeUtc(2026, 11, 5, 14, 23, 5), "Form_Load", "x is empty."),
            "05-Nov-2026 1423:05Z Form_Load x is empty.");
}

TEST(SpotDateTime, RealDatesAndTimesOnly) {
  const struct {
    const char* date;
    bool ok;
  } kDates[] = {
      {"05-Nov-2026", true},   {"5-Nov-2026", true},   {" 5-Nov-2026", true},
      {"31-Dec-2026", true},   {"29-Feb-2028", true},  {"31-Feb-2026", false},
      {"29-Feb-2026", false},  {"31-Apr-2026", false}, {"00-Nov-2026", false},
      {"32-Jan-2026", false},  {"99-Foo-9999", false}, {"05-Nox-2026", false},
      {"005-Nov-2026", false}, {"05-Nov-26", false},   {"05-Nov-20260", false},
      {"05-Nov-1969", false},  {"5/Nov/2026", false},  {"05-Nov-2O26", false},
      {"  5-Nov-2026", false}, {"-Nov-2026", false},   {"", false},
      {"31-Dec-2199", true},   {"01-Jan-2200", false}, {"31-Dec-9999", false},
  };
  for (const auto& c : kDates) {
    SpotDate d;
    EXPECT_EQ(ParseSpotDate(c.date, d), c.ok) << '"' << c.date << '"';
  }
  SpotDate d;
  ASSERT_TRUE(ParseSpotDate(" 5-Nov-2026", d));
  EXPECT_EQ(d.year * 10000 + d.month * 100 + d.day, 20261105);

  const struct {
    const char* time;
    bool ok;
  } kTimes[] = {
      {"0000Z", true},  {"2359Z", true},   {"1423Z", true},   {"2400Z", false},
      {"2561Z", false}, {"1260Z", false},  {"99999Z", false}, {"1423", false},
      {"1423z", false}, {"14:23Z", false}, {"-123Z", false},  {"", false},
  };
  for (const auto& c : kTimes) {
    int hour = -1;
    int minute = -1;
    EXPECT_EQ(ParseSpotTime(c.time, hour, minute), c.ok) << '"' << c.time << '"';
    EXPECT_EQ(IsSpotDateTime("05-Nov-2026", c.time), c.ok) << c.time;
  }
  EXPECT_FALSE(IsSpotDateTime("31-Feb-2026", "1423Z"));
}

TEST(TextUtil, ControlCharactersAreStrippedInPlace) {
  std::string clean = "DX de K1ABC: 14025.0 ~^|{}";
  const char* before = clean.data();
  EXPECT_EQ(StripControlChars(clean), 0u);
  EXPECT_EQ(clean, "DX de K1ABC: 14025.0 ~^|{}");
  EXPECT_EQ(clean.data(), before);

  std::string dirty = "\x01ring\a the\x1b[2J bell\x04\x7f\t\r\n\xe9";
  EXPECT_EQ(StripControlChars(dirty), 8u);
  EXPECT_EQ(dirty, "ring the[2J bell\xe9");  // bytes above DEL (Latin-1) stay
  std::string all(31, '\x01');
  EXPECT_EQ(StripControlChars(all), 31u);
  EXPECT_TRUE(all.empty());
}

TEST(SpotAge, CountsFromTheSpotsTimeAndTakesTheDateFromTheTimeAroundMidnight) {
  const auto age = [](std::string_view date, std::string_view time, SysTime now) {
    std::chrono::seconds a{};
    return SpotAge(date, time, now, a) ? a.count() : -999999;
  };
  const SysTime noon = MakeUtc(2026, 11, 22, 12, 0, 30);
  EXPECT_EQ(age("22-Nov-2026", "1130Z", noon), 30 * 60 + 30);
  EXPECT_EQ(age("22-Nov-2026", "1210Z", noon), -(9 * 60 + 30));
  EXPECT_EQ(age("21-Nov-2026", "1200Z", noon), 24 * 3600 + 30);
  EXPECT_EQ(age("31-Nov-2026", "1200Z", noon), -999999);
  // Just after midnight a spot of 2350Z is from the day before, whatever date it carries.
  const SysTime after = MakeUtc(2026, 11, 23, 0, 5, 0);
  EXPECT_EQ(age("23-Nov-2026", "2350Z", after), 15 * 60);
  EXPECT_EQ(age("22-Nov-2026", "2350Z", after), 15 * 60);
  // Just before midnight a spot of 0005Z is from the day after.
  const SysTime before = MakeUtc(2026, 11, 22, 23, 55, 0);
  EXPECT_EQ(age("22-Nov-2026", "0005Z", before), -10 * 60);
  EXPECT_EQ(age("22-Nov-2026", "0020Z", before), (23 * 60 + 35) * 60);
}

}  // namespace
}  // namespace qx
