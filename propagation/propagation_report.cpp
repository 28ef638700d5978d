#include "propagation/propagation_report.h"

#include <fmt/format.h>

#include <algorithm>
#include <chrono>

#include "core/text_util.h"

namespace qx {
namespace {

constexpr size_t kMaxTextLength = 100;  // forecast and word fields
constexpr size_t kMaxCallLength = 16;

bool ReadNumber(std::string_view text, int low, int high, int& out) {
  long long v = 0;
  if (!ParseInt(Trim(text), v) || v < low || v > high) return false;
  out = int(v);
  return true;
}

bool LooksLikeCall(std::string_view call) {
  if (call.empty() || call.size() > kMaxCallLength) return false;
  bool digit = false;
  for (char c : call) {
    const bool alnum = (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
    if (!alnum && c != '-' && c != '/') return false;
    digit |= c >= '0' && c <= '9';
  }
  return digit;
}

// A free text field as it may be shown and stored: no control characters, bounded.
bool CleanText(std::string_view in, std::string& out) {
  // Control characters go first: what they stood between may be blanks at either end, which
  // the sentence's next reader would trim, so the report must not keep them either.
  out.assign(in);
  StripControlChars(out);
  out.assign(Trim(out));
  return out.size() <= kMaxTextLength;
}

// The date, the hour and the age window shared by both sentences.
ReportCheck ReadWhen(const std::string& date_field, const std::string& hour_field, SysTime now,
                     bool check_age, std::string& date, int& hour) {
  SpotDate d;
  if (!ParseSpotDate(Trim(date_field), d)) return ReportCheck::kBadDate;
  if (!ReadNumber(hour_field, 0, 23, hour)) return ReportCheck::kBadHour;
  SysTime at;
  date = DateText(MakeUtc(d.year, d.month, d.day));
  ReportTime(date, hour, at);
  if (check_age) {
    const auto age = std::chrono::duration_cast<std::chrono::seconds>(now - at).count();
    if (age > kMaxAgeSeconds) return ReportCheck::kTooOld;
    if (-age > kMaxAheadSeconds) return ReportCheck::kAhead;
  }
  return ReportCheck::kOk;
}

}  // namespace

std::string_view ReportCheckText(ReportCheck check) {
  switch (check) {
    case ReportCheck::kOk:
      return "ok";
    case ReportCheck::kMalformed:
      return "malformed";
    case ReportCheck::kBadDate:
      return "bad date";
    case ReportCheck::kBadHour:
      return "bad hour";
    case ReportCheck::kTooOld:
      return "older than an hour";
    case ReportCheck::kAhead:
      return "too far ahead";
    case ReportCheck::kOutOfRange:
      return "number out of range";
  }
  return "?";
}

bool ReportTime(std::string_view date, int hour, SysTime& out) {
  SpotDate d;
  if (!ParseSpotDate(Trim(date), d) || hour < 0 || hour > 23) return false;
  out = MakeUtc(d.year, d.month, d.day, hour);
  return true;
}

ReportCheck ReadPc23(const std::vector<std::string>& f, SysTime now, bool check_age,
                     WwvReport& out) {
  if (f.size() < 9 || f[0] != "PC23") return ReportCheck::kMalformed;
  WwvReport r;
  const ReportCheck when = ReadWhen(f[1], f[2], now, check_age, r.date, r.hour);
  if (when != ReportCheck::kOk) return when;
  if (!ReadNumber(f[3], 0, kMaxSfi, r.sfi) || !ReadNumber(f[4], 0, kMaxA, r.a) ||
      !ReadNumber(f[5], 0, kMaxK, r.k)) {
    return ReportCheck::kOutOfRange;
  }
  r.logger = ToUpper(Trim(f[7]));
  r.origin = ToUpper(Trim(f[8]));
  if (!CleanText(f[6], r.forecast) || !LooksLikeCall(r.logger) || !LooksLikeCall(r.origin)) {
    return ReportCheck::kMalformed;
  }
  out = std::move(r);
  return ReportCheck::kOk;
}

ReportCheck ReadPc73(const std::vector<std::string>& f, SysTime now, bool check_age,
                     WcyReport& out) {
  if (f.size() < 13 || f[0] != "PC73") return ReportCheck::kMalformed;
  WcyReport r;
  const ReportCheck when = ReadWhen(f[1], f[2], now, check_age, r.date, r.hour);
  if (when != ReportCheck::kOk) return when;
  if (!ReadNumber(f[3], 0, kMaxSfi, r.sfi) || !ReadNumber(f[4], 0, kMaxA, r.a) ||
      !ReadNumber(f[5], 0, kMaxK, r.k) || !ReadNumber(f[6], 0, kMaxK, r.expected_k) ||
      !ReadNumber(f[7], 0, kMaxR, r.r)) {
    return ReportCheck::kOutOfRange;
  }
  r.logger = ToUpper(Trim(f[11]));
  r.origin = ToUpper(Trim(f[12]));
  if (!CleanText(f[8], r.sa) || !CleanText(f[9], r.gmf) || !CleanText(f[10], r.aurora) ||
      r.sa.empty() || r.gmf.empty() || r.aurora.empty() || !LooksLikeCall(r.logger) ||
      !LooksLikeCall(r.origin)) {
    return ReportCheck::kMalformed;
  }
  out = std::move(r);
  return ReportCheck::kOk;
}

std::string BuildPc23(const WwvReport& r, int hops) {
  return fmt::format("PC23^{}^{}^{}^{}^{}^{}^{}^{}^H{}^~\r\n", r.date, r.hour, r.sfi, r.a, r.k,
                     r.forecast, r.logger, r.origin, hops);
}

std::string BuildPc73(const WcyReport& r, int hops) {
  return fmt::format("PC73^{}^{}^{:>3}^{:>3}^{:>3}^{}^{}^{}^{}^{}^{}^{}^H{}^\r\n", r.date, r.hour,
                     r.sfi, r.a, r.k, r.expected_k, r.r, r.sa, r.gmf, r.aurora, r.logger, r.origin,
                     hops);
}

std::string WwvUserLine(const WwvReport& r) {
  std::string line =
      fmt::format("WWV de {} <{:02}>: SFI={}, A={}, K={}", r.logger, r.hour, r.sfi, r.a, r.k);
  if (!r.forecast.empty()) line += ", " + r.forecast;
  return line;
}

std::string WcyUserLine(const WcyReport& r) {
  return fmt::format("WCY de {} <{:02}> : K={} expK={} A={} R={} SFI={} SA={} GMF={} Au={}",
                     r.logger, r.hour, r.k, r.expected_k, r.a, r.r, r.sfi, r.sa, r.gmf, r.aurora);
}

std::string WwvListHeader() {
  return " Date        Hour   SFI   A   K Forecast                               Logger";
}

std::string WwvListRow(const WwvReport& r) {
  return fmt::format(" {:<11}  {:>3}   {:>3} {:>3} {:>3} {:<38} <{}>", r.date, r.hour, r.sfi, r.a,
                     r.k, r.forecast, r.logger);
}

std::string WcyListHeader() {
  return " Date        Hour   SFI   A   K Exp.K   R SA   GMF  Aurora   Logger";
}

std::string WcyListRow(const WcyReport& r) {
  return fmt::format(" {:<11}  {:>3}   {:>3} {:>3} {:>3} {:>5} {:>3} {:<4} {:<4} {:<8} <{}>",
                     r.date, r.hour, r.sfi, r.a, r.k, r.expected_k, r.r, r.sa, r.gmf, r.aurora,
                     r.logger);
}

bool ParseWwvCommand(std::string_view args, WwvReport& out, std::string& error) {
  // SF=<sfi>,A=<a>,K=<k>[,<forecast>]; the forecast is the rest of the line, commas and all.
  const std::vector<std::string_view> parts = SplitLimit(Trim(args), ',', 4);
  if (parts.size() < 3) {
    error = "Syntax: WWV SF=<solar flux>,A=<A index>,K=<K index>,<forecast>";
    return false;
  }
  const struct {
    std::string_view key;
    int high;
    int* value;
  } numbers[] = {{"SF", kMaxSfi, &out.sfi}, {"A", kMaxA, &out.a}, {"K", kMaxK, &out.k}};
  for (size_t i = 0; i < 3; ++i) {
    const std::string_view part = Trim(parts[i]);
    const size_t eq = part.find('=');
    if (eq == std::string_view::npos ||
        !EqualsIgnoreCase(Trim(part.substr(0, eq)), numbers[i].key)) {
      error = "Syntax: WWV SF=<solar flux>,A=<A index>,K=<K index>,<forecast>";
      return false;
    }
    if (!ReadNumber(part.substr(eq + 1), 0, numbers[i].high, *numbers[i].value)) {
      error = fmt::format("{} must be a number from 0 to {}", numbers[i].key, numbers[i].high);
      return false;
    }
  }
  std::string forecast;
  if (parts.size() == 4 && !CleanText(parts[3], forecast)) {
    error = fmt::format("The forecast is longer than {} characters", kMaxTextLength);
    return false;
  }
  std::replace(forecast.begin(), forecast.end(), '^', '~');  // the field separator
  out.forecast = std::move(forecast);
  return true;
}

}  // namespace qx
