// The decisions of the reference-data downloads, kept free of sockets and clocks so that
// they are tested alone: which files to fetch from where, when each is due (a fixed interval
// after a success, growing waits after failures), whether a fetched file may replace the one
// in use, the little state kept between runs (validators, the last success), and the
// reading and comparing of program versions for the update notice.
#pragma once

#include <chrono>
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/time_text.h"

namespace qx {

// One file the node keeps current: fetched from url, installed as data/files/<file>.
// When the answer is a zip archive, the member called file is the one installed.
struct DownloadSource {
  std::string file;
  std::string url;
  bool operator==(const DownloadSource&) const = default;
};

// A name that may stand in data/files/: letters, digits, ".", "-" and "_", not starting with
// "." and at most 64 characters.  Everything that names a file (the sysop's list, archive
// members) goes through it, so no answer can write outside the folders it belongs in.
bool SafeFileName(std::string_view name);

// The last path segment of an address ("https://h/a/MASTER.SCP?x=1" gives "MASTER.SCP");
// "" when there is none.
std::string UrlFileName(std::string_view url);

// The sysop's further files: ","-joined entries, each an address or "file=address" (the
// file name given, needed for an archive).  Entries that name no usable file are left out
// with a reason in errors.
std::vector<DownloadSource> ParseDownloadList(std::string_view text,
                                              std::vector<std::string>* errors);

struct DownloadTiming {
  std::chrono::seconds interval{24 * 3600};  // after a success; 0: only when asked
  std::chrono::seconds first_retry{5 * 60};  // after the first failure, doubling after each
  std::chrono::seconds max_retry{4 * 3600};  // the longest wait between retries
  int max_retries = 5;                       // then the next try waits for the interval
};

// When one file is due.  A new schedule is due at once; one restored from the last success
// waits for the rest of its interval.
class DownloadSchedule {
 public:
  explicit DownloadSchedule(DownloadTiming timing = {}) : timing_(timing) {}

  void Restore(SysTime last_success);
  bool Due(SysTime now) const;
  void Started() { in_flight_ = true; }
  void Succeeded(SysTime now);
  void Failed(SysTime now);
  // The sysop asked: due at once, and a run of failures starts over.
  void Request();

  bool in_flight() const { return in_flight_; }
  bool requested() const { return requested_; }
  int failures() const { return failures_; }
  // When it is due next; nullopt while nothing is planned (no interval, nothing asked).
  std::optional<SysTime> next() const;

 private:
  DownloadTiming timing_;
  SysTime next_{};  // the epoch: due at once
  bool planned_ = true;
  bool requested_ = false;
  bool in_flight_ = false;
  int failures_ = 0;
};

// Whether a fetched file may replace the installed one: "" when it may, else why not.  A file
// much smaller than the one in use is taken for a truncated or wrong one.
std::string ReplacementVerdict(size_t new_size, std::optional<size_t> installed_size);
// Below this share of the installed size a new file is refused.
inline constexpr double kMinSizeShare = 0.8;

// What the node keeps of each file between runs (data/downloads/downloads.state), so that a
// restart neither fetches everything again nor forgets the validators.
struct DownloadRecord {
  std::string file;
  std::string url;  // what the validators belong to
  std::string etag;
  std::string last_modified;
  SysTime last_success{};  // the epoch when never
};
std::string FormatDownloadState(const std::vector<DownloadRecord>& records);
// Lines that do not read are skipped.
std::vector<DownloadRecord> ParseDownloadState(std::string_view text);

// The program update check.  The answer's first non-blank line starts with the newest
// version ("1.4.2", optionally with a suffix such as "1.5.0-rc1"); nullopt when it does not.
std::optional<std::string> ReadVersionText(std::string_view body);
// Numeric by dotted parts ("1.10" is newer than "1.9"); a release is newer than the same
// version with a suffix.  Negative, zero or positive as a is older, the same or newer.
int CompareVersions(std::string_view a, std::string_view b);

struct UpdateVerdict {
  bool newer = false;  // newest is newer than what runs
  bool tell = false;   // and the sysop has not been told of it yet
};
UpdateVerdict DecideUpdate(std::string_view running, std::string_view newest,
                           std::string_view last_reported);

}  // namespace qx
