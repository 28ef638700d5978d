#include "core/error_log.h"

#include "core/file_util.h"

namespace qx {

ErrorLog::ErrorLog(std::filesystem::path log_dir, const Clock& clock)
    : dir_(std::move(log_dir)), clock_(clock) {}

std::string ErrorLog::FormatLine(SysTime t, std::string_view heading, std::string_view message) {
  std::string line = DateText(t);
  line += ' ';
  line += TimeHHnnssZ(t);
  line += ' ';
  line += heading;
  line += ' ';
  line += message;
  return line;
}

std::filesystem::path ErrorLog::TodayFile() const {
  return dir_ / ("error-" + DateText(clock_.Now()) + ".log");
}

void ErrorLog::Write(std::string_view heading, std::string_view message) {
  const SysTime now = clock_.Now();
  std::string line = FormatLine(now, heading, message);
  line += "\r\n";
  AppendToFile(dir_ / ("error-" + DateText(now) + ".log"), line);
}

void ErrorLog::WriteCoded(int code, std::string_view tag, std::string_view text) {
  std::string message = std::to_string(code);
  message += ' ';
  message += text;
  Write(tag, message);
}

}  // namespace qx
