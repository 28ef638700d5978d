#include "core/log_prune.h"

#include <cctype>
#include <chrono>

namespace qx {

namespace {

bool IsDigit(char c) { return std::isdigit(static_cast<unsigned char>(c)) != 0; }

// A date text starts at i: two digits, "-", three letters, "-", four digits.
bool DateTextAt(std::string_view s, size_t i) {
  if (i + 11 > s.size()) return false;
  return IsDigit(s[i]) && IsDigit(s[i + 1]) && s[i + 2] == '-' && s[i + 6] == '-' &&
         IsDigit(s[i + 7]) && IsDigit(s[i + 8]) && IsDigit(s[i + 9]) && IsDigit(s[i + 10]);
}

}  // namespace

std::optional<SysTime> LogFileDay(std::string_view file_name) {
  for (size_t i = 0; i + 11 <= file_name.size(); ++i) {
    if (!DateTextAt(file_name, i)) continue;
    SpotDate d;
    if (!ParseSpotDate(file_name.substr(i, 11), d)) continue;
    return MakeUtc(d.year, d.month, d.day);
  }
  return std::nullopt;
}

bool LogExpired(SysTime day, SysTime now, int keep_days) {
  if (keep_days <= 0) return false;
  const auto today = std::chrono::floor<std::chrono::days>(now);
  return day < today - std::chrono::days(keep_days - 1);
}

const std::vector<std::string>& DailyLogFolders() {
  static const std::vector<std::string> kFolders = {
      "log",         "log/conn", "debug",       "badspots", "badspotsIP",
      "badspotsTor", "badinfo",  "badspotters", "badnodes",
  };
  return kFolders;
}

PruneResult PruneDailyLogs(const ProgramDir& dir, SysTime now, int keep_days) {
  PruneResult result;
  if (keep_days <= 0) return result;
  for (const std::string& folder : DailyLogFolders()) {
    std::error_code ec;
    std::filesystem::directory_iterator it(dir.Data(folder), ec);
    if (ec) continue;
    for (const auto& entry : it) {
      std::error_code type_ec;
      if (!entry.is_regular_file(type_ec)) continue;
      const auto day = LogFileDay(entry.path().filename().string());
      if (!day || !LogExpired(*day, now, keep_days)) continue;
      std::error_code rm_ec;
      if (std::filesystem::remove(entry.path(), rm_ec)) {
        ++result.removed;
      } else if (rm_ec) {
        result.errors.push_back(entry.path().string() + ": " + rm_ec.message());
      }
    }
  }
  return result;
}

}  // namespace qx
