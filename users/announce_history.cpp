#include "users/announce_history.h"

#include <algorithm>
#include <system_error>

#include "core/file_util.h"
#include "core/text_util.h"
#include "spots/call_sign.h"

namespace qx {
namespace {

int64_t Seconds(SysTime t) {
  return std::chrono::duration_cast<std::chrono::seconds>(t.time_since_epoch()).count();
}

}  // namespace

std::string Announcement::ListLine() const {
  std::string line = DateText(at) + " " + TimeHHnnZ(at) + " ";
  line += to == "WX" ? "WX de " : to == "SYSOP" ? "To SYSOP de " : "To ALL de ";
  line += from + ": " + text;
  return line;
}

std::string Announcement::FileLine() const {
  return std::to_string(Seconds(at)) + "^" + from + "^" + to + "^" + text;
}

bool Announcement::FromFileLine(std::string_view line, Announcement& out) {
  const std::vector<std::string_view> parts = SplitLimit(Trim(line), '^', 4);
  long long seconds = 0;
  if (parts.size() != 4 || !ParseInt(parts[0], seconds) || seconds <= 0) return false;
  const std::string_view to = parts[2];
  if (to != "*" && to != "SYSOP" && to != "WX") return false;
  std::string from(Trim(parts[1]));
  std::string text(Trim(parts[3]));
  // A hand-edited file must not carry terminal controls to a user.
  StripControlChars(from);
  StripControlChars(text);
  if (from.empty() || text.empty()) return false;
  out.at = SysTime(std::chrono::seconds(seconds));
  out.from = std::move(from);
  out.to = std::string(to);
  out.text = std::move(text);
  return true;
}

AnnounceHistory::AnnounceHistory(size_t capacity, std::filesystem::path ann_dir)
    : capacity_(std::max<size_t>(1, capacity)), dir_(std::move(ann_dir)) {}

std::filesystem::path AnnounceHistory::DayFile(SysTime t) const {
  return dir_ / ("ann-" + DateText(t));
}

void AnnounceHistory::Keep(const Announcement& a) {
  kept_.push_back(a);
  while (kept_.size() > capacity_) kept_.pop_front();
}

void AnnounceHistory::Add(const Announcement& a) {
  Keep(a);
  if (dir_.empty()) return;
  const std::string line = a.FileLine() + "\r\n";
  if (!AppendToFile(DayFile(a.at), line)) {
    std::error_code ec;
    std::filesystem::create_directories(dir_, ec);
    AppendToFile(DayFile(a.at), line);
  }
}

size_t AnnounceHistory::LoadToday(SysTime now) {
  kept_.clear();
  if (dir_.empty()) return 0;
  const std::optional<std::string> text = ReadFileText(DayFile(now));
  if (!text) return 0;
  size_t loaded = 0;
  Announcement a;
  for (std::string_view line : SplitLines(*text)) {
    if (!Announcement::FromFileLine(line, a)) continue;
    Keep(a);
    ++loaded;
  }
  return loaded;
}

std::vector<const Announcement*> AnnounceHistory::Newest(size_t count) const {
  std::vector<const Announcement*> out;
  for (auto it = kept_.rbegin(); it != kept_.rend() && out.size() < count; ++it) {
    out.push_back(&*it);
  }
  return out;
}

std::vector<std::string> AnnounceHistory::Show(std::string_view args, int default_count,
                                               int max_count) const {
  args = Trim(args);
  long long n = default_count;
  if (!args.empty() && (!ParseInt(args, n) || n < 1)) return {};
  n = std::clamp<long long>(n, 1, std::max(1, max_count));
  std::vector<std::string> lines;
  for (const Announcement* a : Newest(size_t(n))) lines.push_back(a->ListLine());
  if (lines.empty()) lines.push_back("No announcements.");
  return lines;
}

void AnnounceHistory::SetBadAnnouncers(const std::vector<std::string>& entries) {
  bad_calls_.clear();
  bad_prefixes_.clear();
  for (const std::string& e : entries) {
    std::string up = ToUpper(Trim(e));
    if (up.empty()) continue;
    if (up.back() == '*') {
      up.pop_back();
      if (!up.empty()) bad_prefixes_.push_back(std::move(up));
    } else {
      bad_calls_.push_back(std::move(up));
    }
  }
}

bool AnnounceHistory::IsBadAnnouncer(std::string_view call) const {
  const std::string up = ToUpper(Trim(call));
  const std::string_view base = BaseCall(up);
  for (const std::string& c : bad_calls_) {
    if (c == up || c == base) return true;
  }
  for (const std::string& p : bad_prefixes_) {
    if (up.starts_with(p)) return true;
  }
  return false;
}

}  // namespace qx
