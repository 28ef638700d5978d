#include "downloads/download_manager.h"

#include <boost/asio/post.hpp>
#include <system_error>

#include "core/file_util.h"
#include "core/text_util.h"
#include "downloads/zip_archive.h"

namespace qx {

namespace asio = boost::asio;

// What the worker needs: copies only, never a reference into the manager.
struct DownloadManager::Job {
  DownloadSource source;
  std::string body;
  DownloadCheck check;
  DownloadManagerOptions options;
};

struct DownloadManager::JobResult {
  bool installed = false;
  bool unchanged = false;
  std::string outcome;
  std::shared_ptr<void> prepared;
};

namespace {

constexpr std::string_view kStateFile = "downloads.state";

std::optional<size_t> InstalledSize(const std::filesystem::path& path) {
  std::error_code ec;
  const auto size = std::filesystem::file_size(path, ec);  // through a link to its target
  if (ec) return std::nullopt;
  return size_t(size);
}

}  // namespace

DownloadManager::DownloadManager(asio::io_context& io, const Clock& clock,
                                 DownloadManagerOptions options,
                                 std::function<void(std::string_view)> log)
    : io_(io), clock_(clock), options_(std::move(options)), log_(std::move(log)) {
  LoadState();
}

DownloadManager::~DownloadManager() {
  // A check under way finishes (it is bounded by the size limit); its result is dropped.
  *alive_ = false;
  worker_.join();
}

void DownloadManager::Log(std::string_view text) {
  if (log_) log_(text);
}

DownloadManager::Entry* DownloadManager::Find(std::string_view file) {
  for (auto& e : entries_) {
    if (EqualsIgnoreCase(e->source.file, file)) return e.get();
  }
  return nullptr;
}

void DownloadManager::SetSources(std::vector<DownloadSource> sources) {
  std::vector<std::unique_ptr<Entry>> next;
  for (DownloadSource& s : sources) {
    bool taken = false;
    for (const auto& n : next) taken = taken || EqualsIgnoreCase(n->source.file, s.file);
    if (taken) {
      Log("Download: " + s.file + " is listed twice; the first address is used");
      continue;
    }
    Entry* old = Find(s.file);
    if (old && old->source == s) {
      for (auto& e : entries_) {
        if (e.get() == old) next.push_back(std::move(e));
      }
      continue;
    }
    auto e = std::make_unique<Entry>();
    e->schedule = DownloadSchedule(options_.timing);
    e->generation = next_generation_++;
    e->record.file = s.file;
    e->record.url = s.url;
    // Validators and the last success hold for the same address only.
    if (const auto it = saved_.find(s.file); it != saved_.end() && it->second.url == s.url) {
      e->record = it->second;
      e->schedule.Restore(e->record.last_success);
    }
    e->source = std::move(s);
    next.push_back(std::move(e));
  }
  entries_ = std::move(next);
}

void DownloadManager::SetCheck(std::string_view file, DownloadCheck check) {
  checks_[ToUpper(file)] = std::move(check);
}

bool DownloadManager::Request(std::string_view file) {
  bool found = false;
  for (auto& e : entries_) {
    if (file.empty() || EqualsIgnoreCase(e->source.file, file)) {
      e->schedule.Request();
      found = true;
    }
  }
  return found;
}

void DownloadManager::Tick() {
  const SysTime now = clock_.Now();
  for (auto& e : entries_) {
    if (e->schedule.Due(now)) Start(*e);
  }
}

void DownloadManager::Start(Entry& e) {
  e.schedule.Started();
  e.outcome = "downloading";
  HttpGetRequest request;
  request.url = e.source.url;
  request.max_body = options_.max_bytes;
  request.timeout = options_.timeout;
  // Without the file in place a "not modified" would leave the node without one.
  if (InstalledSize(options_.files_dir / e.source.file)) {
    request.if_none_match = e.record.etag;
    request.if_modified_since = e.record.last_modified;
  }
  HttpGet(io_, std::move(request),
          [this, alive = alive_, file = e.source.file, gen = e.generation](HttpGetResult r) {
            if (*alive) OnAnswer(file, gen, std::move(r));
          });
}

void DownloadManager::Fail(Entry& e, std::string why) {
  e.schedule.Failed(clock_.Now());
  e.outcome = "failed: " + why;
  std::string text = "Download of " + e.source.file + " failed: " + why + "; the file in use stays";
  if (const auto next = e.schedule.next(); next && e.schedule.failures() > 0) {
    text += " (try " + std::to_string(e.schedule.failures() + 1) + " at " + TimeHHnnZ(*next) + ")";
  }
  Log(text);
}

void DownloadManager::OnAnswer(const std::string& file, uint64_t generation, HttpGetResult r) {
  Entry* e = Find(file);
  if (!e || e->generation != generation) return;
  if ((r.status == 200 || r.status == 304) && !r.url.empty() && r.url != e->source.url) {
    Log("Download of " + e->source.file + ": " + e->source.url + " has moved to " + r.url +
        "; the address in the settings can be changed to it");
  }
  if (r.status == 304) {
    e->schedule.Succeeded(clock_.Now());
    e->record.last_success = clock_.Now();
    e->outcome = "not modified";
    SaveState();
    return;
  }
  if (r.status != 200) {
    Fail(*e, r.status == 0 ? r.error : "the server answered " + std::to_string(r.status));
    return;
  }
  e->outcome = "checking";
  e->record.etag = r.etag;
  e->record.last_modified = r.last_modified;
  Job job{e->source, std::move(r.body), {}, options_};
  if (const auto it = checks_.find(ToUpper(file)); it != checks_.end()) job.check = it->second;
  asio::post(worker_, [this, alive = alive_, job = std::move(job), generation]() mutable {
    JobResult result;
    const DownloadSource& s = job.source;
    std::string_view text = job.body;
    // Kept as fetched, for the sysop to look at when a file is refused.
    std::string fetched_name = UrlFileName(s.url);
    if (!SafeFileName(fetched_name)) fetched_name = s.file;
    AtomicWriteFile(job.options.downloads_dir / fetched_name, job.body);
    UnpackResult unpacked;
    const bool archive =
        LooksLikeZip(job.body) ||
        EqualsIgnoreCase(std::string_view(fetched_name)
                             .substr(fetched_name.size() >= 4 ? fetched_name.size() - 4 : 0),
                         ".zip");
    if (archive) {
      unpacked = UnpackZip(job.body, job.options.max_bytes);
      if (!unpacked.error.empty()) {
        result.outcome = unpacked.error;
      } else {
        text = {};
        bool found = false;
        for (const ArchiveMember& m : unpacked.members) {
          AtomicWriteFile(job.options.unzipped_dir / m.name, m.data);
          if (!found && EqualsIgnoreCase(m.name, s.file)) {
            text = m.data;
            found = true;
          }
        }
        if (!found) result.outcome = "the archive holds no " + s.file;
      }
    }
    const std::filesystem::path target = job.options.files_dir / s.file;
    if (result.outcome.empty()) {
      result.outcome = ReplacementVerdict(text.size(), InstalledSize(target));
    }
    if (result.outcome.empty() && job.check) result.outcome = job.check(text, &result.prepared);
    if (result.outcome.empty()) {
      const auto current =
          InstalledSize(target) == text.size() ? ReadFileText(target) : std::nullopt;
      if (current && *current == text) {
        result.unchanged = true;
      } else if (AtomicWriteFile(target, text)) {
        result.installed = true;
      } else {
        result.outcome = "cannot write " + target.string();
      }
    }
    asio::post(io_, [this, alive, file = s.file, generation, result = std::move(result)]() mutable {
      if (*alive) OnChecked(file, generation, std::move(result));
    });
  });
}

void DownloadManager::OnChecked(const std::string& file, uint64_t generation, JobResult r) {
  Entry* e = Find(file);
  if (!e || e->generation != generation) return;
  if (!r.installed && !r.unchanged) {
    // Validators of a refused file would only earn a "not modified" for the same bad file.
    e->record.etag.clear();
    e->record.last_modified.clear();
    Fail(*e, r.outcome);
    return;
  }
  e->schedule.Succeeded(clock_.Now());
  e->record.last_success = clock_.Now();
  SaveState();
  if (r.unchanged) {
    e->outcome = "unchanged";
    return;
  }
  e->outcome = "installed";
  Log("Download: installed a new " + file);
  if (on_installed_) on_installed_(InstalledFile{file, options_.files_dir / file, r.prepared});
}

std::vector<DownloadStatus> DownloadManager::Status() const {
  std::vector<DownloadStatus> out;
  for (const auto& e : entries_) {
    out.push_back(DownloadStatus{e->source.file, e->source.url, e->schedule.in_flight(), e->outcome,
                                 e->record.last_success, e->schedule.next(),
                                 e->schedule.failures()});
  }
  return out;
}

int DownloadManager::busy_count() const {
  int n = 0;
  for (const auto& e : entries_) n += e->schedule.in_flight() ? 1 : 0;
  return n;
}

void DownloadManager::LoadState() {
  if (const auto text = ReadFileText(options_.downloads_dir / kStateFile)) {
    for (DownloadRecord& r : ParseDownloadState(*text)) saved_[r.file] = std::move(r);
  }
}

void DownloadManager::SaveState() {
  for (const auto& e : entries_) saved_[e->source.file] = e->record;
  std::vector<DownloadRecord> records;
  for (const auto& [file, r] : saved_) {
    if (Find(file)) records.push_back(r);
  }
  if (!AtomicWriteFile(options_.downloads_dir / kStateFile, FormatDownloadState(records))) {
    Log("Download: cannot write " + (options_.downloads_dir / kStateFile).string());
  }
}

}  // namespace qx
