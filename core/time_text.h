// The node's one place for the texts it makes from the clock: the date text used in spot
// sentences, daily file names and the error log, and the UTC time texts.  Times are UTC
// throughout; the clock comes in as a value or through a Clock that tests can set.
#pragma once

#include <chrono>
#include <string>
#include <string_view>

namespace qx {

using SysTime = std::chrono::system_clock::time_point;

class Clock {
 public:
  virtual ~Clock() = default;
  virtual SysTime Now() const = 0;
};

class SystemClock final : public Clock {
 public:
  SysTime Now() const override { return std::chrono::system_clock::now(); }
};

// A clock that stands still until a test moves it.
class ManualClock final : public Clock {
 public:
  explicit ManualClock(SysTime start) : now_(start) {}
  SysTime Now() const override { return now_; }
  void Set(SysTime t) { now_ = t; }
  void Advance(std::chrono::system_clock::duration d) { now_ += d; }

 private:
  SysTime now_;
};

// Builds a UTC time point from calendar fields (for tests and parsers).
// The latest year a date text may name.  SysTime counts nanoseconds in 64 bits and ends in
// 2262, so later years (a peer's "31-Dec-9999") would overflow; no real date is near it.
constexpr int kLatestYear = 2199;
// A moment given as Unix seconds by another program (a stream's "since=" attribute): true and
// out set when it lies after 1970 and not after now.  Compared in seconds, so no value can
// overflow the clock.
bool PastEpochSeconds(long long seconds, SysTime now, SysTime& out);
// Years past kLatestYear are taken as kLatestYear.
SysTime MakeUtc(int year, int month, int day, int hour = 0, int minute = 0, int second = 0);

// "05-Nov-2026": day, English month abbreviation, four-digit year, UTC.
std::string DateText(SysTime t);
// Writes the 11 characters of the date text to out (no terminator); for hot paths.
void WriteDateText(SysTime t, char* out);
// "1423Z"
std::string TimeHHnnZ(SysTime t);
void WriteTimeHHnnZ(SysTime t, char* out);  // 5 characters
// "1423:05Z"
std::string TimeHHnnssZ(SysTime t);
// "1423"
std::string TimeHHnn(SysTime t);
// Seconds since 00:00 UTC of t's day.
int SecondsOfDay(SysTime t);

// "Jan" .. "Dec" for month 1..12; "???" otherwise.
std::string_view MonthAbbrev(int month);
// 1..12 for "Jan".."Dec" (case-insensitive), 0 when unknown.
int MonthFromAbbrev(std::string_view text);

// A calendar date read from a spot's date text.
struct SpotDate {
  int year = 0;
  int month = 0;  // 1..12
  int day = 0;
};

// Reads the date of a spot: the day as one or two digits ("5" or "05"; peers that print the
// day space-padded send " 5"), "-", the English month abbreviation, "-", a four-digit year
// from 1970 on.  False for anything else, and for days the month does not have
// ("31-Feb-2026", "29-Feb-2026").
bool ParseSpotDate(std::string_view text, SpotDate& out);
// Reads the time of a spot, "HHnnZ" with hours 00-23 and minutes 00-59.
bool ParseSpotTime(std::string_view text, int& hour, int& minute);
// Whether a spot's date and time texts are both real; what intake asks of every spot, from
// a user, another node or the day file, before it is shown or kept.
bool IsSpotDateTime(std::string_view date, std::string_view time);

// How old a spot is at now (negative: ahead of now); false when its date or time is not
// real.  Around midnight the date is taken from the time, since nodes and logging programs
// stamp the date carelessly there: judged at 0000-0014Z, a spot of 2345-2359Z belongs to the
// day before, and judged at 2345-2359Z, a spot of 0000-0014Z to the day after.
bool SpotAge(std::string_view date, std::string_view time, SysTime now, std::chrono::seconds& age);

// Uptime as the node shows it: "2d 03:14" style ("0d 00:05" minimum).
std::string UptimeText(std::chrono::seconds up);

}  // namespace qx
