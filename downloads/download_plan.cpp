#include "downloads/download_plan.h"

#include <algorithm>
#include <cctype>

#include "core/text_util.h"

namespace qx {
namespace {

bool IsDigit(char c) { return c >= '0' && c <= '9'; }

// The numeric parts of a version and what follows them ("1.5.0-rc1": {1,5,0}, "rc1").
void SplitVersion(std::string_view v, std::vector<long long>& parts, std::string_view& suffix) {
  parts.clear();
  size_t i = 0;
  while (i < v.size() && IsDigit(v[i])) {
    long long n = 0;
    while (i < v.size() && IsDigit(v[i])) {
      n = std::min<long long>(n * 10 + (v[i] - '0'), 1'000'000'000);
      ++i;
    }
    parts.push_back(n);
    if (i + 1 < v.size() && v[i] == '.' && IsDigit(v[i + 1])) {
      ++i;
    } else {
      break;
    }
  }
  suffix = v.substr(i);
  while (!suffix.empty() && (suffix.front() == '-' || suffix.front() == '+' ||
                             suffix.front() == '.' || suffix.front() == '~')) {
    suffix.remove_prefix(1);
  }
}

int64_t EpochSeconds(SysTime t) {
  return std::chrono::duration_cast<std::chrono::seconds>(t.time_since_epoch()).count();
}

}  // namespace

bool SafeFileName(std::string_view name) {
  if (name.empty() || name.size() > 64 || name.front() == '.') return false;
  return std::all_of(name.begin(), name.end(), [](char c) {
    return std::isalnum(static_cast<unsigned char>(c)) || c == '.' || c == '-' || c == '_';
  });
}

std::string UrlFileName(std::string_view url) {
  const size_t scheme = url.find("://");
  if (scheme == std::string_view::npos) return {};
  std::string_view rest = url.substr(scheme + 3);
  rest = rest.substr(0, rest.find_first_of("?#"));
  const size_t slash = rest.find('/');
  if (slash == std::string_view::npos) return {};
  rest = rest.substr(slash);
  return std::string(rest.substr(rest.rfind('/') + 1));
}

std::vector<DownloadSource> ParseDownloadList(std::string_view text,
                                              std::vector<std::string>* errors) {
  std::vector<DownloadSource> out;
  for (std::string_view item : Split(text, ',')) {
    item = Trim(item);
    if (item.empty()) continue;
    DownloadSource s;
    const size_t eq = item.find('=');
    const size_t scheme = item.find("://");
    // "=" before the scheme names the file; one after it belongs to the address's query.
    if (eq != std::string_view::npos && (scheme == std::string_view::npos || eq < scheme)) {
      s.file = std::string(Trim(item.substr(0, eq)));
      s.url = std::string(Trim(item.substr(eq + 1)));
    } else {
      s.url = std::string(item);
      s.file = UrlFileName(s.url);
    }
    const bool web = s.url.starts_with("http://") || s.url.starts_with("https://");
    if (!web || !SafeFileName(s.file)) {
      if (errors) {
        errors->push_back(std::string(item) +
                          (web ? ": no usable file name (letters, digits, . - _)"
                               : ": not an http or https address"));
      }
      continue;
    }
    out.push_back(std::move(s));
  }
  return out;
}

void DownloadSchedule::Restore(SysTime last_success) {
  if (last_success == SysTime{}) return;
  next_ = last_success + timing_.interval;
  planned_ = timing_.interval.count() > 0;
}

bool DownloadSchedule::Due(SysTime now) const {
  if (in_flight_) return false;
  if (requested_) return true;
  return planned_ && now >= next_;
}

void DownloadSchedule::Succeeded(SysTime now) {
  in_flight_ = false;
  requested_ = false;
  failures_ = 0;
  next_ = now + timing_.interval;
  planned_ = timing_.interval.count() > 0;
}

void DownloadSchedule::Failed(SysTime now) {
  in_flight_ = false;
  requested_ = false;
  ++failures_;
  if (failures_ > timing_.max_retries) {
    // Given up for now: the file waits for its next regular turn.
    failures_ = 0;
    next_ = now + timing_.interval;
    planned_ = timing_.interval.count() > 0;
    return;
  }
  auto wait = timing_.first_retry;
  for (int i = 1; i < failures_ && wait < timing_.max_retry; ++i) wait *= 2;
  next_ = now + std::min(wait, timing_.max_retry);
  planned_ = true;
}

void DownloadSchedule::Request() {
  requested_ = true;
  failures_ = 0;
}

std::optional<SysTime> DownloadSchedule::next() const {
  if (requested_) return SysTime{};
  if (!planned_) return std::nullopt;
  return next_;
}

std::string ReplacementVerdict(size_t new_size, std::optional<size_t> installed_size) {
  if (new_size == 0) return "the file is empty";
  if (installed_size &&
      static_cast<double>(new_size) < static_cast<double>(*installed_size) * kMinSizeShare) {
    return "the file has " + std::to_string(new_size) + " bytes, much less than the " +
           std::to_string(*installed_size) + " of the one in use";
  }
  return {};
}

std::string FormatDownloadState(const std::vector<DownloadRecord>& records) {
  std::string out;
  for (const DownloadRecord& r : records) {
    out += r.file + "^" + r.url + "^" + r.etag + "^" + r.last_modified + "^" +
           std::to_string(EpochSeconds(r.last_success)) + "\n";
  }
  return out;
}

std::vector<DownloadRecord> ParseDownloadState(std::string_view text) {
  std::vector<DownloadRecord> out;
  for (std::string_view line : SplitLines(text)) {
    const auto f = Split(line, '^');
    long long seconds = 0;
    if (f.size() != 5 || !SafeFileName(f[0]) || !ParseInt(f[4], seconds) || seconds < 0) continue;
    out.push_back(DownloadRecord{std::string(f[0]), std::string(f[1]), std::string(f[2]),
                                 std::string(f[3]), SysTime{} + std::chrono::seconds(seconds)});
  }
  return out;
}

std::optional<std::string> ReadVersionText(std::string_view body) {
  for (std::string_view line : SplitLines(body)) {
    line = Trim(line);
    if (line.empty()) continue;
    std::string_view word = line.substr(0, line.find_first_of(" \t"));
    if (word.size() > 1 && (word.front() == 'v' || word.front() == 'V')) word.remove_prefix(1);
    if (word.empty() || word.size() > 32 || !IsDigit(word.front())) return std::nullopt;
    const bool clean = std::all_of(word.begin(), word.end(), [](char c) {
      return std::isalnum(static_cast<unsigned char>(c)) || c == '.' || c == '-' || c == '+' ||
             c == '~';
    });
    if (!clean) return std::nullopt;
    return std::string(word);
  }
  return std::nullopt;
}

int CompareVersions(std::string_view a, std::string_view b) {
  std::vector<long long> pa, pb;
  std::string_view sa, sb;
  SplitVersion(a, pa, sa);
  SplitVersion(b, pb, sb);
  const size_t n = std::max(pa.size(), pb.size());
  for (size_t i = 0; i < n; ++i) {
    const long long x = i < pa.size() ? pa[i] : 0;
    const long long y = i < pb.size() ? pb[i] : 0;
    if (x != y) return x < y ? -1 : 1;
  }
  if (sa.empty() != sb.empty()) return sa.empty() ? 1 : -1;
  return sa.compare(sb) < 0 ? -1 : (sa == sb ? 0 : 1);
}

UpdateVerdict DecideUpdate(std::string_view running, std::string_view newest,
                           std::string_view last_reported) {
  UpdateVerdict v;
  v.newer = CompareVersions(newest, running) > 0;
  v.tell = v.newer && (last_reported.empty() || CompareVersions(newest, last_reported) > 0);
  return v;
}

}  // namespace qx
