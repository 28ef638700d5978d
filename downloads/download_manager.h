// Reference data that keeps itself current: the country file, the known-calls file and any
// further file the sysop lists are fetched on a schedule and when the sysop asks, each
// through a conditional GET.  What arrives is kept in data/downloads/ as it came, archives
// are unpacked into data/unzipped/, and the file is checked (it must read as what it claims
// to be and must not be much smaller than the one in use) before it replaces the one in
// data/files/ atomically; the node is then told so that it loads the new file.  A failed,
// refused or oversized download leaves the file in use alone and is retried with growing
// waits.
//
// Threads: the network part runs on the node's io_context.  Unpacking, checking and writing
// a fetched file (a parse of a megabyte or more, an fsync) run on one worker thread of the
// manager's own, which touches nothing but the fetched bytes and the files it writes, and
// hands its result back to the io_context; so no download ever holds up the node's thread.
#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/thread_pool.hpp>
#include <chrono>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/time_text.h"
#include "downloads/download_plan.h"
#include "downloads/http_get.h"

namespace qx {

struct DownloadManagerOptions {
  std::filesystem::path downloads_dir;        // data/downloads
  std::filesystem::path unzipped_dir;         // data/unzipped
  std::filesystem::path files_dir;            // data/files
  size_t max_bytes = 50u << 20;               // a larger answer (or unpacked archive) is refused
  std::chrono::milliseconds timeout{120000};  // for one whole download
  DownloadTiming timing;
};

// Says whether a fetched file is what it claims to be: "" when it is, else why not.  Runs on
// the worker thread, so it must use nothing but its argument and what it builds itself.  It
// may leave what it built (a parsed table) in *prepared; that reaches on_installed, so the
// node need not parse the file a second time on its own thread.
using DownloadCheck =
    std::function<std::string(std::string_view text, std::shared_ptr<void>* prepared)>;

struct InstalledFile {
  std::string file;                // "cty_wt_mod.dat"
  std::filesystem::path path;      // data/files/<file>
  std::shared_ptr<void> prepared;  // what the check built, or null
};

struct DownloadStatus {
  std::string file;
  std::string url;
  bool busy = false;
  std::string outcome;          // what the last attempt came to
  SysTime last_success{};       // the epoch when never
  std::optional<SysTime> next;  // when it is due next; nullopt when only on request
  int failures = 0;
};

class DownloadManager {
 public:
  DownloadManager(boost::asio::io_context& io, const Clock& clock, DownloadManagerOptions options,
                  std::function<void(std::string_view)> log = {});
  ~DownloadManager();
  DownloadManager(const DownloadManager&) = delete;
  DownloadManager& operator=(const DownloadManager&) = delete;

  // The files to keep current.  A file that stays keeps its schedule and validators; one
  // that is dropped is forgotten (a download under way for it is ignored when it ends).
  void SetSources(std::vector<DownloadSource> sources);
  // The check for one file name (compared without regard to case).  A file without a check
  // must only be non-empty and not much smaller than the one in use.
  void SetCheck(std::string_view file, DownloadCheck check);
  void set_on_installed(std::function<void(const InstalledFile&)> f) {
    on_installed_ = std::move(f);
  }

  // Once a second: starts the downloads that are due (cheap when none is).
  void Tick();
  // The sysop asks: every file (file empty) or the one named is fetched at the next tick.
  // False when no such file is configured.
  bool Request(std::string_view file = {});

  std::vector<DownloadStatus> Status() const;
  int busy_count() const;

 private:
  struct Entry {
    DownloadSource source;
    DownloadSchedule schedule;
    DownloadRecord record;
    std::string outcome = "not fetched yet";
    uint64_t generation = 0;  // tells a finished download whether its entry is still the same
  };
  struct Job;
  struct JobResult;

  Entry* Find(std::string_view file);
  void Start(Entry& e);
  void OnAnswer(const std::string& file, uint64_t generation, HttpGetResult result);
  void OnChecked(const std::string& file, uint64_t generation, JobResult result);
  void Fail(Entry& e, std::string why);
  void LoadState();
  void SaveState();
  void Log(std::string_view text);

  boost::asio::io_context& io_;
  const Clock& clock_;
  DownloadManagerOptions options_;
  std::function<void(std::string_view)> log_;
  std::function<void(const InstalledFile&)> on_installed_;
  std::vector<std::unique_ptr<Entry>> entries_;
  std::map<std::string, DownloadCheck> checks_;  // by upper-case file name
  std::map<std::string, DownloadRecord> saved_;  // from the state file, by file name
  uint64_t next_generation_ = 1;
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
  boost::asio::thread_pool worker_{1};
};

}  // namespace qx
