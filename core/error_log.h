// The error log: one line per event appended to data/log/error-<date text>.log.  A line is
// the date text, the UTC time "HHnn:ssZ", a heading and the message, joined by single blanks.
#pragma once

#include <filesystem>
#include <string>
#include <string_view>

#include "core/time_text.h"

namespace qx {

class ErrorLog {
 public:
  ErrorLog(std::filesystem::path log_dir, const Clock& clock);

  void Write(std::string_view heading, std::string_view message);
  // Node-side entries carry a numeric code and a place tag: "<tag> <code> <text>".
  void WriteCoded(int code, std::string_view tag, std::string_view text);

  std::filesystem::path TodayFile() const;
  const std::filesystem::path& dir() const { return dir_; }

  // The line as it is written, without the line end (exposed for tests and the console).
  static std::string FormatLine(SysTime t, std::string_view heading, std::string_view message);

 private:
  std::filesystem::path dir_;
  const Clock& clock_;
};

}  // namespace qx
