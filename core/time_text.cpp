#include "core/time_text.h"

#include <algorithm>

#include <array>
#include <cctype>
#include <cstdio>

namespace qx {
namespace {

constexpr std::array<std::string_view, 12> kMonths = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                                      "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};

struct Civil {
  int year, month, day, hour, minute, second;
};

Civil ToCivil(SysTime t) {
  using namespace std::chrono;
  const auto secs = floor<seconds>(t);
  const auto day_point = floor<days>(secs);
  const year_month_day ymd{day_point};
  const hh_mm_ss hms{secs - day_point};
  return Civil{int(ymd.year()),          int(unsigned(ymd.month())), int(unsigned(ymd.day())),
               int(hms.hours().count()), int(hms.minutes().count()), int(hms.seconds().count())};
}

void Put2(char* out, int v) {
  out[0] = char('0' + (v / 10) % 10);
  out[1] = char('0' + v % 10);
}

}  // namespace

SysTime MakeUtc(int year, int month, int day, int hour, int minute, int second) {
  using namespace std::chrono;
  const sys_days d =
      year_month_day{std::chrono::year{std::min(year, kLatestYear)},
                     std::chrono::month{unsigned(month)}, std::chrono::day{unsigned(day)}};
  return SysTime{d} + hours{hour} + minutes{minute} + seconds{second};
}

bool PastEpochSeconds(long long seconds, SysTime now, SysTime& out) {
  const long long now_s =
      std::chrono::duration_cast<std::chrono::seconds>(now.time_since_epoch()).count();
  if (seconds <= 0 || seconds > now_s) return false;
  out = SysTime{std::chrono::seconds(seconds)};
  return true;
}

void WriteDateText(SysTime t, char* out) {
  const Civil c = ToCivil(t);
  Put2(out, c.day);
  out[2] = '-';
  const std::string_view m = MonthAbbrev(c.month);
  out[3] = m[0];
  out[4] = m[1];
  out[5] = m[2];
  out[6] = '-';
  int y = c.year;
  for (int i = 10; i >= 7; --i) {
    out[i] = char('0' + y % 10);
    y /= 10;
  }
}

std::string DateText(SysTime t) {
  std::string s(11, ' ');
  WriteDateText(t, s.data());
  return s;
}

void WriteTimeHHnnZ(SysTime t, char* out) {
  const Civil c = ToCivil(t);
  Put2(out, c.hour);
  Put2(out + 2, c.minute);
  out[4] = 'Z';
}

std::string TimeHHnnZ(SysTime t) {
  std::string s(5, ' ');
  WriteTimeHHnnZ(t, s.data());
  return s;
}

std::string TimeHHnnssZ(SysTime t) {
  const Civil c = ToCivil(t);
  std::string s(8, ' ');
  Put2(s.data(), c.hour);
  Put2(s.data() + 2, c.minute);
  s[4] = ':';
  Put2(s.data() + 5, c.second);
  s[7] = 'Z';
  return s;
}

std::string TimeHHnn(SysTime t) {
  const Civil c = ToCivil(t);
  std::string s(4, ' ');
  Put2(s.data(), c.hour);
  Put2(s.data() + 2, c.minute);
  return s;
}

int SecondsOfDay(SysTime t) {
  const Civil c = ToCivil(t);
  return c.hour * 3600 + c.minute * 60 + c.second;
}

std::string_view MonthAbbrev(int month) {
  if (month < 1 || month > 12) return "???";
  return kMonths[size_t(month - 1)];
}

int MonthFromAbbrev(std::string_view text) {
  if (text.size() != 3) return 0;
  for (size_t i = 0; i < kMonths.size(); ++i) {
    bool same = true;
    for (size_t k = 0; k < 3; ++k) {
      if (std::toupper(static_cast<unsigned char>(text[k])) !=
          std::toupper(static_cast<unsigned char>(kMonths[i][k]))) {
        same = false;
      }
    }
    if (same) return int(i) + 1;
  }
  return 0;
}

namespace {

// The value of text when it is one or two decimal digits, -1 otherwise.
int SmallNumber(std::string_view text) {
  if (text.empty() || text.size() > 2) return -1;
  int v = 0;
  for (char c : text) {
    if (c < '0' || c > '9') return -1;
    v = v * 10 + (c - '0');
  }
  return v;
}

}  // namespace

bool ParseSpotDate(std::string_view text, SpotDate& out) {
  if (!text.empty() && text.front() == ' ') text.remove_prefix(1);
  const size_t dash = text.find('-');
  if (dash == std::string_view::npos || text.size() != dash + 9 || text[dash + 4] != '-') {
    return false;
  }
  const int day = SmallNumber(text.substr(0, dash));
  const int month = MonthFromAbbrev(text.substr(dash + 1, 3));
  int year = 0;
  for (char c : text.substr(dash + 5)) {
    if (c < '0' || c > '9') return false;
    year = year * 10 + (c - '0');
  }
  if (day < 1 || month == 0 || year < 1970 || year > kLatestYear) return false;
  const std::chrono::year_month_day ymd{std::chrono::year{year},
                                        std::chrono::month{unsigned(month)},
                                        std::chrono::day{unsigned(day)}};
  if (!ymd.ok()) return false;
  out = SpotDate{year, month, day};
  return true;
}

bool ParseSpotTime(std::string_view text, int& hour, int& minute) {
  if (text.size() != 5 || text[4] != 'Z') return false;
  const int h = SmallNumber(text.substr(0, 2));
  const int m = SmallNumber(text.substr(2, 2));
  if (h < 0 || h > 23 || m < 0 || m > 59) return false;
  hour = h;
  minute = m;
  return true;
}

bool IsSpotDateTime(std::string_view date, std::string_view time) {
  SpotDate d;
  int hour = 0;
  int minute = 0;
  return ParseSpotDate(date, d) && ParseSpotTime(time, hour, minute);
}

bool SpotAge(std::string_view date, std::string_view time, SysTime now, std::chrono::seconds& age) {
  using namespace std::chrono;
  SpotDate d;
  int hour = 0;
  int minute = 0;
  if (!ParseSpotDate(date, d) || !ParseSpotTime(time, hour, minute)) return false;
  const sys_days today = floor<days>(now);
  const int now_minute = int(duration_cast<minutes>(now - today).count());
  const int spot_minute = hour * 60 + minute;
  constexpr int kLateEvening = 23 * 60 + 45;
  constexpr int kEarlyMorning = 15;
  sys_days day = sys_days(
      year_month_day(year(d.year), month(unsigned(d.month)), std::chrono::day(unsigned(d.day))));
  if (now_minute < kEarlyMorning && spot_minute >= kLateEvening) {
    day = today - days(1);
  } else if (now_minute >= kLateEvening && spot_minute < kEarlyMorning) {
    day = today + days(1);
  }
  age = duration_cast<seconds>(now - (day + minutes(spot_minute)));
  return true;
}

std::string UptimeText(std::chrono::seconds up) {
  const long long total = up.count() < 0 ? 0 : up.count();
  const long long d = total / 86400;
  const long long h = (total % 86400) / 3600;
  const long long m = (total % 3600) / 60;
  char buf[48];
  std::snprintf(buf, sizeof buf, "%lldd %02lld:%02lld", d, h, m);
  return buf;
}

}  // namespace qx
