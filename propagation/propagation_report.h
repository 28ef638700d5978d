// WWV and WCY reports: the solar and geomagnetic figures that nodes pass around in PC23
// (WWV) and PC73 (WCY).  Reading a sentence into a report checks everything a user or a
// logging program will rely on (the hour, the age, the ranges of the numbers), so a report
// that got this far can be shown, kept and passed on as it is.  Pure: time comes in.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "core/time_text.h"

namespace qx {

struct WwvReport {
  std::string date;  // "05-Nov-2026"
  int hour = 0;      // 0-23 UTC
  int sfi = 0;       // solar flux
  int a = 0;         // A index
  int k = 0;         // K index
  std::string forecast;
  std::string logger;  // who entered or fetched it
  std::string origin;  // the node it started from
};

struct WcyReport {
  std::string date;
  int hour = 0;
  int sfi = 0;
  int a = 0;
  int k = 0;
  int expected_k = 0;
  int r = 0;           // sunspot number
  std::string sa;      // solar activity word ("qui", "act", ...)
  std::string gmf;     // geomagnetic field word
  std::string aurora;  // "no" / "yes"
  std::string logger;
  std::string origin;
};

// Why a sentence was not taken; kOk when it was.
enum class ReportCheck { kOk, kMalformed, kBadDate, kBadHour, kTooOld, kAhead, kOutOfRange };
std::string_view ReportCheckText(ReportCheck check);

// The limits of the figures.  Numbers beyond them are typing errors or garbage.
inline constexpr int kMaxSfi = 999;
inline constexpr int kMaxA = 400;
inline constexpr int kMaxK = 9;
inline constexpr int kMaxR = 999;

// How far from now a received report may be: older than an hour is stale news, more than 25
// minutes ahead is a wrong clock.
inline constexpr int kMaxAgeSeconds = 3600;
inline constexpr int kMaxAheadSeconds = 25 * 60;

// fields: a PC23 split on "^" (PC23 ^ date ^ hour ^ SFI ^ A ^ K ^ forecast ^ logger ^ origin
// ^ hops ...).  With check_age false the time window is not applied (today's file at start-up).
ReportCheck ReadPc23(const std::vector<std::string>& fields, SysTime now, bool check_age,
                     WwvReport& out);
// PC73 ^ date ^ hour ^ SFI ^ A ^ K ^ expK ^ R ^ SA ^ GMF ^ Au ^ logger ^ origin ^ hops ...
ReportCheck ReadPc73(const std::vector<std::string>& fields, SysTime now, bool check_age,
                     WcyReport& out);

// The time a report stands for (its date and hour); false when the date is not real.
bool ReportTime(std::string_view date, int hour, SysTime& out);

// The sentences, ending "^H<hops>^" and CR LF.  PC73 numbers are space-padded as the peers
// that read them expect.
std::string BuildPc23(const WwvReport& r, int hops);
std::string BuildPc73(const WcyReport& r, int hops);

// What users see live (no line end):
//   WWV de Q4LOG <15>:   SFI=220, A=4, K=1, R=212 SA:mo=>mo-hi
//   WCY de Q4LOG <15> : K=3 expK=1 A=0 R=212 SFI=220 SA=act GMF=qui Au=no
std::string WwvUserLine(const WwvReport& r);
std::string WcyUserLine(const WcyReport& r);

// The SHOW/WWV and SHOW/WCY listing rows and their headers.
std::string WwvListHeader();
std::string WwvListRow(const WwvReport& r);
std::string WcyListHeader();
std::string WcyListRow(const WcyReport& r);

// The figures of the WWV command: "SF=<sfi>,A=<a>,K=<k>,<forecast>" (blanks around the parts
// and lower case allowed; the forecast may hold commas).  On error, error says what is wrong.
bool ParseWwvCommand(std::string_view args, WwvReport& out, std::string& error);

}  // namespace qx
