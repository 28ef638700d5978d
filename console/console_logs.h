// The log files a sysop reads from the console: today's error log and the rejection logs
// written today, then the earlier days' error and rejection logs, newest first.  Names are relative
// to data/ ("log/error-22-Nov-2026.log"); only names in the current list are ever opened, so a
// request can never name another file.  Reads are bounded (the tail reads the end of the file, a
// search looks at most at its last few megabytes) because they run on the node's thread.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/time_text.h"

namespace qx {

class ConsoleLogFiles {
 public:
  // data_dir is the program's data/ folder.
  ConsoleLogFiles(std::filesystem::path data_dir, const Clock& clock);

  static constexpr size_t kTailBytes = 512 * 1024;
  static constexpr size_t kSearchBytes = 8 * 1024 * 1024;
  static constexpr size_t kMaxEarlierFiles = 500;

  std::vector<std::string> List() const;
  std::optional<std::vector<std::string>> Tail(std::string_view name, size_t max_lines) const;
  std::optional<std::vector<std::string>> Search(std::string_view name, std::string_view needle,
                                                 size_t max_hits) const;

  // The folders under data/ that hold rejection logs.
  static const std::vector<std::string>& RejectionFolders();

 private:
  std::optional<std::filesystem::path> Resolve(std::string_view name) const;

  std::filesystem::path data_dir_;
  const Clock& clock_;
};

}  // namespace qx
