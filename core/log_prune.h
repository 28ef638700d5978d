// Pruning of the daily log files, so that a node that runs for years does not fill its disk.
// A daily log carries its day in its name as a date text ("error-05-Nov-2026.log",
// "conn/05-Nov-2026.log"); the day is read from the name, not from the file's time, so that
// a copied or restored file is judged by the day it describes.  Files without a date text in
// their name (cumulative logs) are never touched.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/program_dir.h"
#include "core/time_text.h"

namespace qx {

// The day a log file's name describes, as a UTC midnight; nullopt when the name holds no real
// date text.
std::optional<SysTime> LogFileDay(std::string_view file_name);

// Whether a log of that day is past keeping at now with keep_days days kept: today's file
// and those of the keep_days - 1 days before stay.  keep_days <= 0 keeps everything.
bool LogExpired(SysTime day, SysTime now, int keep_days);

// The folders (relative to data/) whose dated files are daily logs.
const std::vector<std::string>& DailyLogFolders();

struct PruneResult {
  int removed = 0;
  std::vector<std::string> errors;  // "<path>: <reason>" for files that could not be removed
};

// Removes the expired daily logs from the folders of DailyLogFolders under the program
// directory: every regular file there whose name holds a date text ("Bad-05-Nov-2026",
// "bad-05-Nov-2026.txt" and "05-Nov-2026.log" alike).  Sub-folders and missing folders are
// skipped.
PruneResult PruneDailyLogs(const ProgramDir& dir, SysTime now, int keep_days);

}  // namespace qx
