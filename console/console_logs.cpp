#include "console/console_logs.h"

#include <algorithm>
#include <fstream>

#include "core/text_util.h"

namespace qx {
namespace {

// The last `limit` bytes of the file (all of it when smaller), starting at a whole line.
std::optional<std::string> ReadEnd(const std::filesystem::path& path, size_t limit) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return std::nullopt;
  in.seekg(0, std::ios::end);
  const std::streamoff size = in.tellg();
  const std::streamoff start = size > std::streamoff(limit) ? size - std::streamoff(limit) : 0;
  in.seekg(start);
  std::string text(size_t(size - start), '\0');
  in.read(text.data(), std::streamsize(text.size()));
  text.resize(size_t(in.gcount()));
  if (start > 0) {
    const size_t nl = text.find('\n');
    text.erase(0, nl == std::string::npos ? text.size() : nl + 1);
  }
  return text;
}

bool IsToday(const std::filesystem::path& p, SysTime now) {
  std::error_code ec;
  const auto written = std::filesystem::last_write_time(p, ec);
  if (ec) return false;
  const auto as_sys = std::chrono::time_point_cast<std::chrono::system_clock::duration>(
      std::chrono::file_clock::to_sys(written));
  return DateText(as_sys) == DateText(now);
}

}  // namespace

ConsoleLogFiles::ConsoleLogFiles(std::filesystem::path data_dir, const Clock& clock)
    : data_dir_(std::move(data_dir)), clock_(clock) {}

const std::vector<std::string>& ConsoleLogFiles::RejectionFolders() {
  static const std::vector<std::string> kFolders = {"badspots",    "badspotsIP", "badspotsTOR",
                                                    "badspotters", "badnodes",   "badinfo"};
  return kFolders;
}

std::vector<std::string> ConsoleLogFiles::List() const {
  const SysTime now = clock_.Now();
  const std::string today_error = "log/error-" + DateText(now) + ".log";
  // Today's files first (the error log, then the rejection logs by folder), then earlier days'
  // files, newest first; the node prunes them after "Log Days", so the list stays short.
  std::vector<std::string> today{today_error};
  std::vector<std::pair<std::filesystem::file_time_type, std::string>> earlier;
  auto scan = [&](const std::string& folder, bool errors_only) {
    std::error_code ec;
    std::vector<std::string> found;
    for (const auto& e : std::filesystem::directory_iterator(data_dir_ / folder, ec)) {
      if (!e.is_regular_file(ec)) continue;
      const std::string file = e.path().filename().string();
      if (errors_only && !(file.starts_with("error-") && file.ends_with(".log"))) continue;
      const std::string name = folder + "/" + file;
      if (name == today_error) continue;
      if (file.find(DateText(now)) != std::string::npos || IsToday(e.path(), now)) {
        found.push_back(name);
      } else {
        earlier.emplace_back(e.last_write_time(ec), name);
      }
    }
    std::sort(found.begin(), found.end());
    today.insert(today.end(), found.begin(), found.end());
  };
  scan("log", true);
  for (const std::string& folder : RejectionFolders()) scan(folder, false);
  std::sort(earlier.begin(), earlier.end(), [](const auto& a, const auto& b) {
    return a.first != b.first ? a.first > b.first : a.second < b.second;
  });
  if (earlier.size() > kMaxEarlierFiles) earlier.resize(kMaxEarlierFiles);
  for (auto& [when, name] : earlier) today.push_back(std::move(name));
  return today;
}

std::optional<std::filesystem::path> ConsoleLogFiles::Resolve(std::string_view name) const {
  const auto names = List();
  if (std::find(names.begin(), names.end(), name) == names.end()) return std::nullopt;
  return data_dir_ / std::string(name);
}

std::optional<std::vector<std::string>> ConsoleLogFiles::Tail(std::string_view name,
                                                              size_t max_lines) const {
  const auto path = Resolve(name);
  if (!path) return std::nullopt;
  std::vector<std::string> out;
  const auto text = ReadEnd(*path, kTailBytes);
  if (!text) return out;  // today's error log may not exist yet
  const auto lines = SplitLines(*text);
  const size_t first = lines.size() > max_lines ? lines.size() - max_lines : 0;
  for (size_t i = first; i < lines.size(); ++i) out.emplace_back(lines[i]);
  return out;
}

std::optional<std::vector<std::string>> ConsoleLogFiles::Search(std::string_view name,
                                                                std::string_view needle,
                                                                size_t max_hits) const {
  const auto path = Resolve(name);
  if (!path) return std::nullopt;
  std::vector<std::string> out;
  const auto text = ReadEnd(*path, kSearchBytes);
  if (!text || Trim(needle).empty()) return out;
  const std::string upper_needle = ToUpper(Trim(needle));
  const auto lines = SplitLines(*text);
  std::string upper;
  for (size_t i = lines.size(); i-- > 0 && out.size() < max_hits;) {
    upper.assign(lines[i]);
    ToUpperInPlace(upper);
    if (upper.find(upper_needle) != std::string::npos) out.emplace_back(lines[i]);
  }
  return out;
}

}  // namespace qx
