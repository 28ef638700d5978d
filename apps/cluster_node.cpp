#include "apps/cluster_node.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdio>
#include <iostream>

#include "apps/node_console.h"
#include "core/file_util.h"
#include "core/link_secret.h"
#include "core/log_prune.h"
#include "core/process_launcher.h"
#include "core/text_util.h"
#include "downloads/http_get.h"
#include "node/pc_sentence.h"
#include "node/qx11.h"
#include "spots/call_sign.h"
#include "spots/dx_command.h"
#include "spots/dx_query.h"
#include "spots/reference_check.h"
#include "spots/spot_line.h"
#include "stream/json_format.h"

namespace qx {
namespace {

constexpr std::string_view kVersion = QX_VERSION;
// How long a stopping node waits for the front-end to take over its input.
constexpr std::chrono::milliseconds kHandOverWait{2000};
// The monitor lines the console can show from before it was opened: the last two hours, up to
// a bound that keeps them to a few MB however busy the node is.
constexpr size_t kMonitorHistoryLines = 5000;
constexpr std::chrono::seconds kMonitorHistoryAge = std::chrono::hours(2);

// The log-on texts a new node starts with; the sysop edits data/files/logon.txt.
LogonMessages MessagesFromConfig(const Config& config) {
  LogonMessages m;
  m.Set("Logon 1", config.Get("Logon 1"));
  m.Set("Logon 2", config.Get("Logon 2"));
  m.Set("Logon 4", config.Get("Logon 4"));
  m.Set("Log Out", config.Get("Log Out"));
  for (int i = 0; i <= 8; ++i) {
    const std::string key = "Logon Port " + std::to_string(i);
    m.Set(key, config.Get(key));
  }
  return m;
}

}  // namespace

ClusterNode::ClusterNode(boost::asio::io_context& io, ClusterNodeOptions options)
    : io_(io),
      options_(std::move(options)),
      dir_(options_.home),
      log_(dir_.Data("log"), clock_),
      store_(dir_),
      timer_(io) {
  started_ = clock_.Now();
  // The console shows what happened before it was opened: the last hours of the monitor.
  monitor_.set_clock(&clock_);
  monitor_.KeepHistory(kMonitorHistoryLines, kMonitorHistoryAge);
}

ClusterNode::~ClusterNode() = default;

void ClusterNode::Step(std::string_view name) { monitor_.Console(name); }
void ClusterNode::StepDone() { monitor_.Console("   ... done"); }

void ClusterNode::LoadConfiguration() {
  config_ = ReadCfgFile(dir_, log_);
  if (config_.source() == ConfigSource::kDefaults) {
    // A new installation: write the built-in configuration so the sysop has a file to edit.
    WriteCfgFile(config_, dir_);
  }
}

void ClusterNode::SetUpSpots() {
  IntakeDeps deps;
  deps.bad_lists = &bad_lists_;
  deps.bands = &bands_;
  deps.dupes = &dupes_;
  rates_ = std::make_unique<SpotRateLimiter>(
      SpotRates{config_.GetInt("NewMaxSpotsPerMin", 0), config_.GetInt("NewMaxSpotsPerMinPerDx", 0),
                config_.GetInt("NewMaxSpotsPerMinPerSpotter", 0)},
      SpotRates{config_.GetInt("HighestSpotsPerMin", 0),
                config_.GetInt("HighestSpotsPerMinPerDx", 0),
                config_.GetInt("HighestSpotsPerMinPerSpotter", 0)});
  deps.rates = rates_.get();
  deps.valid_call = [](std::string& call) {
    static const CallCheckContext kNoLists;
    // A DX call longer than any call the log-in accepts would push the line's columns about.
    return call.size() <= kMaxLoginCallLength && ValidCall(call, /*strict=*/false, kNoLists);
  };
  deps.country_of = [this](std::string_view call) { return countries_.Find(call); };
  deps.dir = &dir_;
  deps.error_log = &log_;
  deps.monitor = &monitor_;
  deps.streams = &streams_;
  deps.clock = &clock_;
  deps.node_call = config_.Get("Cluster Call");
  spot_ids_ = std::make_unique<SpotIdCounter>(dir_.Data("spot_id.state"));
  spot_ids_->Load();
  deps.next_id = [this] { return spot_ids_->Next(); };
  intake_ = std::make_unique<SpotIntake>(deps);
  history_ = std::make_unique<SpotHistory>(
      size_t(std::max(100, config_.GetInt("Maximum DX Spots", 5000))), dir_.Data("dx"));
  history_->set_ids(spot_ids_.get());
  distributor_ = std::make_unique<SpotDistributor>(streams_, *this);
  filter_book_ = std::make_unique<FilterBook>(bands_, &countries_, clock_);
  distributor_->set_filter(filter_book_.get());
  // Companion clients read the sentence neighbours of this software get, less the spotter's
  // address (no user learns another's), with the hop count the spot came with.
  distributor_->set_enhanced_formatter([](const Spot& spot, std::string& out) {
    BuildQx11(spot, IsHopCount(spot.hops()) ? spot.hops() : std::string_view("H99"), {}, out);
  });
  distributor_->set_state_lookup([this](std::string_view call) { return states_.Find(call); });
  // A spotter or DX station logged in here has its locator (or location) in its session; the
  // others are shown at their country's position.  No record is read on the spot path.
  distributor_->set_locator_lookup([this](std::string_view call) -> std::string_view {
    for (int st = 1; st <= streams_.high_socket(); ++st) {
      const StreamEntry& u = streams_.at(st);
      if (!u.IsUser() || (u.call != call && BaseCall(u.call) != call)) continue;
      if (!u.session.grid.empty()) return u.session.grid;
      double lat = 0, lon = 0;
      if (ParseLocation(u.session.location, lat, lon)) return LocatorOf(lat, lon, locator_buf_);
    }
    return {};
  });
}

void ClusterNode::SpotJson(const Spot& spot, std::string& out) {
  const SpotFacts facts = MakeSpotFacts(spot, bands_, nullptr);
  SpotJsonFacts pieces;
  const BandRange* band = bands_.Find(spot.FrequencyKHz);
  if (band) pieces.band = band->name;
  if (facts.mode != SpotMode::kUnknown) {
    pieces.mode = SpotModeName(facts.mode);
    pieces.mode_source = !facts.mode_stated                   ? "inferred"
                         : facts.source == SourceKind::kHuman ? "comment"
                                                              : "feed";
  }
  // Only a locator the node knows for the station itself; a country's centre is no grid.
  std::string dx_grid;
  std::string spotter_grid;
  for (int st = 1; st <= streams_.high_socket(); ++st) {
    const StreamEntry& u = streams_.at(st);
    if (!u.IsUser() || u.session.grid.empty()) continue;
    if (u.call == spot.dx_call() || BaseCall(u.call) == spot.dx_call()) dx_grid = u.session.grid;
    if (u.call == spot.spotter() || BaseCall(u.call) == BaseCall(spot.spotter())) {
      spotter_grid = u.session.grid;
    }
  }
  pieces.dx_grid = dx_grid;
  pieces.spotter_grid = spotter_grid;
  AppendSpotJson(out, spot, pieces);
}

bool ClusterNode::StreamsRequireLogin() const {
  const std::string_view v = Trim(config_.Get("Stream Requires Login"));
  return EqualsIgnoreCase(v, "Yes") || EqualsIgnoreCase(v, "True") || v == "1" || v == "-1";
}

size_t ClusterNode::StreamReplayMax() const {
  return size_t(std::clamp(config_.GetInt("Stream Replay Max", int(JsonStreams::kDefaultReplayMax)),
                           int(JsonStreams::kLeastReplayMax), int(JsonStreams::kMostReplayMax)));
}

void ClusterNode::SetUpJsonStreams() {
  JsonStreamDeps deps;
  deps.streams = &streams_;
  deps.out = this;
  deps.filters = filter_book_.get();
  deps.store = &store_;
  deps.access = &access_;
  deps.history = history_.get();
  deps.bands = &bands_;
  deps.clock = &clock_;
  deps.log = &log_;
  deps.spot_json = [this](const Spot& spot, std::string& out) { SpotJson(spot, out); };
  deps.last_id = [this] { return spot_ids_->last(); };
  deps.later = [this](std::chrono::milliseconds pause, std::function<void()> task) {
    auto timer = std::make_shared<boost::asio::steady_timer>(io_, pause);
    timer->async_wait([this, timer, task = std::move(task)](const boost::system::error_code& ec) {
      if (!ec && !stopped_) task();
    });
  };
  deps.node_call = config_.Get("Cluster Call");
  deps.version = std::string(kVersion);
  deps.require_login = StreamsRequireLogin();
  deps.replay_max = StreamReplayMax();
  json_streams_ = std::make_unique<JsonStreams>(std::move(deps));
  distributor_->set_json_maker([this](const Spot& spot, std::string& out) { SpotJson(spot, out); });
}

void ClusterNode::ApplySpotLists() {
  bad_lists_.SetDxNok(config_.List("DxNok").items);
  bad_lists_.SetSpotterNok(config_.List("SpotterNok").items);
  bad_lists_.SetNodeNok(config_.List("BadNodes").items);
}

IntakeResult ClusterNode::TakeSpot(const IntakeRequest& request, bool distribute) {
  const auto start = std::chrono::steady_clock::now();
  const bool from_feed = request.source != SpotSource::kCluster;
  const std::string_view source = request.is_local ? "user" : from_feed ? "feed" : "node";
  IntakeResult r = intake_->Process(request);
  if (!r.accepted()) {
    stats_.SpotRefused(VerdictName(r.verdict));
    return r;
  }
  if (!distribute) return r;
  stats_.SpotIn(source, clock_.Now());
  history_->Add(*r.spot);
  // The spot goes to every user, but the monitor shows it once with a count.
  monitor_.BeginFanOut();
  const DistributionStats d = distributor_->OutputSpotToAll(*r.spot);
  monitor_.EndFanOut();
  stats_.LinesOut(source, uint64_t(d.users));
  stats_.Filtered(source, uint64_t(d.filtered));
  stats_.Delay(std::chrono::steady_clock::now() - start);
  // Machine-made spots stay on this node: every node takes them from the feeds itself, and
  // the network would carry each of them many times over.
  if (network_ && !from_feed) network_->RelaySpot(*r.spot, request.source_stream);
  return r;
}

// Node network wiring ------------------------------------------------------------------

void ClusterNode::SetUpNetwork() {
  NodeNetworkDeps deps;
  deps.streams = &streams_;
  deps.out = this;
  deps.clock = &clock_;
  deps.monitor = &monitor_;
  deps.errors = [this](int code, std::string_view tag, std::string_view text) {
    if (code == 0) {
      log_.Write(tag, text);
    } else {
      log_.WriteCoded(code, tag, text);
    }
  };
  deps.open_outgoing = [this](std::string_view host, int port, std::string_view label) {
    if (link_) link_->OpenOutgoing(host, port, label);
  };
  deps.outgoing_not_up = [this](std::string_view label, std::string_view reason) {
    link_errors_[ToUpper(label)] = std::string(reason);
  };
  deps.spot_intake = [this](std::string_view sentence, int, int stream) {
    IntakeRequest request;
    request.sentence = sentence;
    request.source_stream = stream;
    return TakeSpot(request, true).accepted();
  };
  deps.qx11_intake = [this](std::string_view sentence, const Spot& carried, int stream) {
    IntakeRequest request;
    request.sentence = sentence;
    request.source_stream = stream;
    request.carried = &carried;
    return TakeSpot(request, true).accepted();
  };
  deps.feed = [this](int stream, int, std::string_view line) {
    if (feeds_) feeds_->OnLine(stream, line);
  };
  // Calls in user information pass the log-in's strict test: no N0CALL, not our own call.
  const std::string our_call = ToUpper(config_.Get("Cluster Call"));
  deps.pc41.valid_call = [this, our_call](std::string_view call) {
    CallCheckContext context;
    context.special_calls = &access_.special_calls;
    context.node_call = our_call;
    std::string c(call);
    return ValidCall(c, /*strict=*/true, context);
  };
  deps.pc41.bad_word = [this](std::string_view value) {
    return !bad_lists_.FindBadWord(value).empty();
  };
  deps.pc41.bad_data_log = [this](std::string_view text, std::string_view line) {
    AppendToFile(dir_.Data("badinfo") / (DateText(clock_.Now()) + ".log"),
                 std::string(text) + " " + std::string(line) + "\r\n");
  };
  deps.pc41.store = [this](std::string_view call, std::string_view record_line) {
    store_.StorePc41(call, record_line, /*remote=*/true);
  };
  deps.pc41.monitor = &monitor_;
  deps.announce = [this](std::string_view from, std::string_view to, std::string_view text) {
    return KeepAnnouncement(from, to, text, "network");
  };
  deps.mail = [this](const PcSentence& s) {
    if (!mail_forwarder_) return false;
    SyncMailLinks();  // a link that has just come up may send mail at once
    return mail_forwarder_->OnSentence(s.stream, s.line, clock_.Now());
  };
  deps.propagation = [this](const PcSentence& s) {
    using Intake = PropagationService::Intake;
    return (s.number == 23 ? propagation_->OnPc23(s.fields) : propagation_->OnPc73(s.fields)) ==
           Intake::kNew;
  };
  // Announcements from other nodes pass each user's announcement rules, WX ones the WWV rules.
  deps.announce_gate = [this](std::string_view from, std::string_view to, std::string_view text,
                              std::string_view origin) {
    return filter_book_->OriginGate(to == "WX" ? FilterKind::kWwv : FilterKind::kAnnounce, from,
                                    text, origin);
  };
  network_ = std::make_unique<NodeNetwork>(
      NodeNetworkOptions::FromConfig(config_, std::string(kVersion)), std::move(deps));
  network_->Configure(config_);
  // What the last run knew of the network; taken back once the front-end has reported the
  // links that survived.
  if (const auto text = ReadFileText(NetworkStatePath())) {
    std::string error;
    if (!network_->LoadSavedState(*text, &error)) {
      log_.Write("NetworkState", "not taken back: " + error);
    }
  }
}

std::filesystem::path ClusterNode::NetworkStatePath() const { return dir_.Data("network.state"); }

void ClusterNode::SaveNetworkState() {
  if (!network_ || !network_->StateRestored()) return;
  if (!AtomicWriteFile(NetworkStatePath(), network_->SavedState())) {
    log_.Write("NetworkState", "cannot write " + NetworkStatePath().string());
  }
}

// Feeds ----------------------------------------------------------------------------------

void ClusterNode::SetUpFeeds() {
  FeedManagerDeps deps;
  deps.streams = &streams_;
  deps.out = this;
  deps.clock = &clock_;
  deps.bands = &bands_;
  deps.dir = &dir_;
  deps.monitor = &monitor_;
  deps.log = &log_;
  deps.open_outgoing = [this](std::string_view host, int port, std::string_view label) {
    if (link_) link_->OpenOutgoing(host, port, label);
  };
  deps.take_spot = [this](const IntakeRequest& request) {
    return TakeSpot(request, true).accepted();
  };
  deps.distribute = [this](const Spot& spot) {
    const DistributionStats d = distributor_->OutputSpotToAll(spot);
    stats_.LinesOut("feed", uint64_t(d.users));
  };
  deps.country_of = [this](std::string_view call) { return countries_.Find(call); };
  feeds_ = std::make_unique<FeedManager>(io_, std::move(deps));
  feeds_->LoadFiles();
  feeds_->Configure(config_);
  // A newer known-calls database or bust list from the download check is used from the next
  // skimmer line on, without a restart.
  for (const char* file : {"MASTER.SCP", "BadCwSkDx.dat"}) {
    OnReferenceFile(file, [this, file](const InstalledFile&) {
      feeds_->LoadFiles();
      monitor_.Console(std::string("Skimmer verification reloaded ") + file);
    });
  }
}

bool ClusterNode::SkimmerStatus(std::string_view call, std::vector<std::string>& lines) {
  if (!feeds_) return false;
  try {
    lines = feeds_->StatusLines(call);
  } catch (const std::exception& ex) {
    log_.Write("SkimmerStatus", ex.what());
    return false;
  }
  return true;
}

// WWV and WCY ---------------------------------------------------------------------------

void ClusterNode::SetUpPropagation() {
  PropagationDeps deps;
  deps.streams = &streams_;
  deps.out = this;
  deps.clock = &clock_;
  deps.monitor = &monitor_;
  deps.wwv_dir = dir_.Data("wwv");
  deps.wcy_dir = dir_.Data("wcy");
  deps.log = [this](std::string_view tag, std::string_view text) { log_.Write(tag, text); };
  deps.originate = [this](std::string_view sentence) {
    if (network_) network_->SendPropagation(sentence);
  };
  // WWV and WCY lines pass each user's WWV rules.
  deps.user_gate = [this](std::string_view logger, std::string_view origin, std::string_view line) {
    return filter_book_->OriginGate(FilterKind::kWwv, logger, line, origin);
  };
  propagation_ = std::make_unique<PropagationService>(config_.Get("Cluster Call"), std::move(deps));
  propagation_->LoadToday();

  WwvFetchOptions o;
  o.url = std::string(Trim(config_.Get("WWV URL")));
  // An empty address turns the fetch off, as it does for the reference files, instead of
  // logging a failure every quarter of an hour.
  o.enabled = EqualsIgnoreCase(Trim(config_.Get("Get WWV")), "True") && !o.url.empty();
  const auto get = [this](const WwvFetchRequest& r,
                          std::function<void(const WwvFetchReply&)> done) {
    HttpGetRequest q;
    q.url = r.url;
    q.if_modified_since = r.if_modified_since;
    q.if_none_match = r.if_none_match;
    q.max_body = 64 * 1024;  // the text is about 1 kB
    HttpGet(io_, std::move(q), [done = std::move(done)](HttpGetResult res) {
      done(WwvFetchReply{res.status, std::move(res.error), std::move(res.body),
                         std::move(res.last_modified), std::move(res.etag)});
    });
  };
  wwv_fetch_ =
      std::make_unique<WwvFetcher>(o, clock_, *propagation_, get, [this](std::string_view text) {
        log_.Write("WWV", text);
        monitor_.Console(std::string(text));
      });
}

std::vector<std::string> ClusterNode::ShowPropagation(std::string_view what,
                                                      std::string_view args) {
  std::vector<std::string> lines;
  // One pair of display limits serves both listings.
  const int default_count = config_.GetInt("Default Display Wwv", 5);
  const int max_count = config_.GetInt("Maximum Display Wwv", 100);
  const bool ok = what == "wwv" ? propagation_->ShowWwv(args, default_count, max_count, lines)
                                : propagation_->ShowWcy(args, default_count, max_count, lines);
  if (!ok) lines.clear();
  return lines;
}

std::string ClusterNode::EnterWwv(int stream, std::string_view line, std::string_view args) {
  const StreamEntry& e = streams_.at(stream);
  // Sysops, and the calls the sysop lets enter WWV.
  ConfigList callers;
  for (std::string_view c : Split(config_.Get("WWV Callers"), ',')) callers.Add(Trim(c));
  if (e.privilege <= 0 && !callers.Contains(e.call) && !callers.Contains(BaseCall(e.call))) {
    return std::string(line) + " - sysop command error";
  }
  return propagation_->EnterWwv(e.call, args);
}

// Announcements -------------------------------------------------------------------------

bool ClusterNode::KeepAnnouncement(std::string_view from, std::string_view to,
                                   std::string_view text, std::string_view source) {
  if (announcements_->IsBadAnnouncer(from)) {
    log_.Write("AnnNok", std::string(source) + " announcement from " + std::string(from) +
                             " refused: " + std::string(text));
    return false;
  }
  announcements_->Add(
      Announcement{clock_.Now(), std::string(from), std::string(to), std::string(text)});
  return true;
}

bool ClusterNode::TakeAnnouncement(std::string_view from, std::string_view to,
                                   std::string_view text) {
  return KeepAnnouncement(from, to, text, "local");
}

std::vector<std::string> ClusterNode::ShowAnnouncements(std::string_view args) {
  return announcements_->Show(args, config_.GetInt("Default Display Ann", 5),
                              config_.GetInt("Maximum Display Ann", 100));
}

// Sysop controls --------------------------------------------------------------------------

std::vector<std::string> ClusterNode::Rebuild() {
  const SysTime now = clock_.Now();
  std::vector<std::string> lines;
  history_->Clear();
  const size_t spots = history_->LoadToday(now, bands_, nullptr);
  lines.push_back(fmt::format("Spot history: {} spots read again from today's file", spots));
  const size_t anns = announcements_->LoadToday(now);
  lines.push_back(
      fmt::format("Announcement history: {} announcements read again from today's file", anns));
  const size_t reports = propagation_->ReloadToday();
  lines.push_back(fmt::format("WWV and WCY: {} reports read again from today's files", reports));
  access_.LoadFiles(dir_.Data("files"));
  bad_lists_.LoadBadWords(dir_, nullptr);
  bad_lists_.LoadRefusedAddresses(dir_.Data("files") / "ipnotok.dat");
  bad_lists_.LoadTorAddresses(dir_.Data("files") / "torlist.dat");
  ApplyLists();
  lines.push_back("Special calls, passwords, bad words and refused addresses read again");
  log_.Write("Rebuild",
             fmt::format("{} spots, {} announcements, {} WWV/WCY reports", spots, anns, reports));
  return lines;
}

std::string ClusterNode::Restart() {
  monitor_.Console("Restart requested");
  log_.Write("Restart", "restart requested by a sysop");
  restart_requested_ = true;
  boost::asio::post(io_, [this] { StopAfterHandOver([this] { io_.stop(); }); });
  return "Restarting " + config_.Get("Cluster Call") +
         ": every connection is kept; commands wait until the node is back.";
}

// Reference data and the update check ------------------------------------------------------

namespace {
constexpr std::string_view kCountryFile = "cty_wt_mod.dat";
constexpr std::string_view kKnownCallsFile = "MASTER.SCP";
// A real country file has some 340 entities; far fewer means a wrong or cut-down file.
constexpr size_t kMinCountries = 100;
}  // namespace

void ClusterNode::SetUpDownloads() {
  DownloadManagerOptions o;
  o.downloads_dir = dir_.Data("downloads");
  o.unzipped_dir = dir_.Data("unzipped");
  o.files_dir = dir_.Data("files");
  o.timing.interval = std::chrono::hours(std::max(0, config_.GetInt("Download Hours", 24)));
  downloads_ = std::make_unique<DownloadManager>(io_, clock_, o, [this](std::string_view text) {
    log_.Write("Download", text);
    monitor_.Console(std::string(text));
  });
  // Both checks run on the download thread: they build their own tables and touch nothing
  // of the node's.
  downloads_->SetCheck(kCountryFile, [](std::string_view text, std::shared_ptr<void>* prepared) {
    auto lookup = std::make_shared<CountryLookup>();
    std::string error = CheckCountryFile(text, kMinCountries, lookup.get());
    if (error.empty()) *prepared = lookup;
    return error;
  });
  downloads_->SetCheck(kKnownCallsFile, [](std::string_view text, std::shared_ptr<void>*) {
    return CheckCallFile(text, nullptr);
  });
  downloads_->set_on_installed([this](const InstalledFile& f) { OnReferenceInstalled(f); });
  ConfigureDownloads();
}

void ClusterNode::ConfigureDownloads() {
  if (!downloads_) return;
  std::vector<DownloadSource> sources;
  if (const std::string_view url = Trim(config_.Get("Country File URL")); !url.empty()) {
    sources.push_back({std::string(kCountryFile), std::string(url)});
  }
  if (const std::string_view url = Trim(config_.Get("Known Calls URL")); !url.empty()) {
    sources.push_back({std::string(kKnownCallsFile), std::string(url)});
  }
  std::vector<std::string> errors;
  for (DownloadSource& s : ParseDownloadList(config_.Get("Download Files"), &errors)) {
    sources.push_back(std::move(s));
  }
  for (const std::string& e : errors) log_.Write("Download", "Download Files: " + e);
  downloads_->SetSources(std::move(sources));

  UpdateCheckOptions u;
  u.url = std::string(Trim(config_.Get("Update URL")));
  u.running = std::string(kVersion);
  u.automatic = EqualsIgnoreCase(Trim(config_.Get("Auto Update")), "True");
  update_check_ = std::make_unique<UpdateCheck>(
      io_, clock_, u, config_.Get("Last Version Reported"), [this](const UpdateResult& r) {
        if (r.verdict.tell) {
          // Told once per version, across restarts.
          config_.Set("Last Version Reported", r.newest);
          WriteCfgFile(config_, dir_);
        }
        if (r.verdict.tell || r.requested || !r.ok) log_.Write("Update", r.text);
        if (r.verdict.tell || r.requested) monitor_.Console(r.text);
      });
}

void ClusterNode::OnReferenceFile(std::string file,
                                  std::function<void(const InstalledFile&)> reload) {
  reloaders_[ToUpper(file)] = std::move(reload);
}

void ClusterNode::OnReferenceInstalled(const InstalledFile& f) {
  if (EqualsIgnoreCase(f.file, kCountryFile)) {
    if (auto lookup = std::static_pointer_cast<CountryLookup>(f.prepared)) {
      countries_ = std::move(*lookup);
    } else {
      countries_.LoadFile(f.path);
    }
    // The spots kept in memory pointed into the old table.
    if (history_) {
      history_->RefreshCountries([this](std::string_view call) { return countries_.Find(call); });
    }
    monitor_.Console("Country file reloaded: " + std::to_string(countries_.country_count()) +
                     " countries");
  }
  if (const auto it = reloaders_.find(ToUpper(f.file)); it != reloaders_.end()) it->second(f);
}

std::string ClusterNode::UpdateOutcome() const {
  return update_check_ ? update_check_->outcome() : std::string();
}

std::vector<std::string> ClusterNode::UpdateCommand(std::string_view args) {
  const std::string what = ToUpper(Trim(args));
  std::vector<std::string> lines;
  if (what == "STATUS") {
    for (const DownloadStatus& s : downloads_->Status()) {
      std::string line = fmt::format("{:<16} {}", s.file, s.outcome);
      if (s.last_success != SysTime{}) {
        line += ", last fetched " + DateText(s.last_success) + " " + TimeHHnnZ(s.last_success);
      }
      if (s.next && !s.busy) line += ", next " + DateText(*s.next) + " " + TimeHHnnZ(*s.next);
      lines.push_back(std::move(line));
    }
    if (lines.empty()) lines.push_back("No reference files are kept current.");
    lines.push_back("Program: " + UpdateOutcome());
    return lines;
  }
  if (what == "VERSION") {
    return {update_check_->Request() ? "Checking for a newer program; the answer goes to the "
                                       "console and the error log."
                                     : "No Update URL is set."};
  }
  if (!downloads_->Request(what == "ALL" ? std::string_view() : std::string_view(what))) {
    return {what.empty() || what == "ALL" ? "No reference files are kept current."
                                          : what + " is not a reference file of this node."};
  }
  return {"Fetching " +
          (what.empty() || what == "ALL" ? std::string("the reference files") : what) +
          "; UPDATE STATUS shows how it went."};
}

void ClusterNode::CheckMemory() {
  memory_ceiling_.set_ceiling_mb(config_.GetInt("MaxMem", 0));
  if (memory_ceiling_.ceiling_bytes() == 0) return;
  // The spot history is the one backlog the node may give up: its day file keeps every spot.
  // The output towards the front-end is bounded by the link itself and only reported.
  const std::vector<Backlog> backlogs = {
      {"spot history", history_ ? history_->ApproxBytes() : 0, true},
      {"front-end output", link_ ? link_->queue_depth() : 0, false}};
  const MemoryDecision d = memory_ceiling_.Check(ResidentBytes(), backlogs, clock_.Now());
  if (d.shed == 0) {
    const size_t dropped = history_->DropOldest((history_->size() + 1) / 2);
    monitor_.Console("Memory near MaxMem: the oldest " + std::to_string(dropped) +
                     " spots left memory (SH/DX shows fewer; data/dx keeps them)");
  }
  if (!d.note.empty()) log_.Write("MaxMem", d.note);
}

void ClusterNode::ApplySettings() {
  ApplyLists();
  ApplyMailSettings();
  ConfigureDownloads();
  if (network_) network_->Configure(config_);  // defined nodes and outgoing connections
  if (feeds_) feeds_->Configure(config_);
  if (json_streams_) {
    json_streams_->set_require_login(StreamsRequireLogin());
    json_streams_->set_replay_max(StreamReplayMax());
  }
  if (rates_) {
    rates_->set_limits({config_.GetInt("NewMaxSpotsPerMin", 0),
                        config_.GetInt("NewMaxSpotsPerMinPerDx", 0),
                        config_.GetInt("NewMaxSpotsPerMinPerSpotter", 0)});
  }
  if (interpreter_) interpreter_->set_help_address(config_.Get("Help Address"));
  if (user_ctx_) user_ctx_->ssid_help_address = config_.Get("SSID Help Address");
}

std::string ClusterNode::LinkState(std::string_view name, int* stream) const {
  *stream = 0;
  for (int s = 1; s <= streams_.high_socket(); ++s) {
    const StreamEntry& e = streams_.at(s);
    if (e.state != kStateFree && EqualsIgnoreCase(e.connection_label, name)) {
      *stream = s;
      // A link still in its handshake is not connected yet: a refused log-in would
      // otherwise look like a link that is up, and its reason be thrown away.
      return e.IsNode() && e.state != kStateNodeConnecting ? "connected" : "connecting";
    }
  }
  return "idle";
}

std::map<std::string, uint64_t> ClusterNode::Pc41Counts() const {
  if (!network_) return {};
  const Pc41Lists& lists = network_->processor().pc41_lists();
  return {{"name", lists.Count(1)},
          {"qth", lists.Count(2)},
          {"location", lists.Count(3)},
          {"home node", lists.Count(4)},
          {"locator", lists.Count(5)}};
}

void ClusterNode::StartConsole() {
  ConsoleServerOptions o;
  o.address = config_.Get("Console Address");
  o.port = config_.GetInt("Console Port", 7380);
  o.trust_forwarded_for = EqualsIgnoreCase(Trim(config_.Get("Console Trusted Proxy")), "True");
  o.public_site = std::string(Trim(config_.Get("Console Public Address")));
  o.password_file = dir_.Data("cfg") / "console.pw";
  console_model_ = std::make_unique<NodeConsoleModel>(*this);
  console_ = std::make_unique<ConsoleServer>(io_, *console_model_, o);
  const auto r = console_->Start();
  if (!r.ok) {
    log_.Write("Console", "cannot start the web console: " + r.error);
    monitor_.Console("The web console could not start: " + r.error);
    return;
  }
  monitor_.Console("Web console on http://" + o.address + ":" + std::to_string(console_->port()) +
                   "/");
  if (!r.new_password.empty()) {
    // Shown once: only its hash is kept.
    std::cout << ConsoleServer::PasswordLine(r.new_password) << std::endl;
  }
}

void ClusterNode::SaveHighestRates(bool at_stop) {
  // While the spot rate climbs a new highest comes nearly every second; writing the
  // configuration (with its fsync, on the node's only thread) that often delays every spot,
  // so the first rise is saved at once and later ones at most once a minute and at stop.
  constexpr auto kSaveInterval = std::chrono::seconds(60);
  const auto now = std::chrono::steady_clock::now();
  if (!rates_ || (!at_stop && now - rates_saved_at_ < kSaveInterval)) return;
  if (!rates_->TakeHighestChanged()) return;
  rates_saved_at_ = now;
  const SpotRates& h = rates_->highest();
  config_.Set("HighestSpotsPerMin", std::to_string(h.per_minute));
  config_.Set("HighestSpotsPerMinPerDx", std::to_string(h.per_dx));
  config_.Set("HighestSpotsPerMinPerSpotter", std::to_string(h.per_spotter));
  WriteCfgFile(config_, dir_);
}

void ClusterNode::ApplyLists() {
  ApplySpotLists();
  if (announcements_) announcements_->SetBadAnnouncers(config_.List("AnnNok").items);
  if (feeds_) feeds_->ApplyLists(config_);
  access_.locked_out.clear();
  for (const std::string& c : config_.List("LockOuts").items) {
    access_.locked_out.insert(ToUpper(BaseCall(c)));
  }
}

bool ClusterNode::Start(std::string* error) {
  std::string tree_error;
  if (!dir_.CreateTree(&tree_error)) {
    if (error) *error = "cannot create the data tree: " + tree_error;
    return false;
  }
  Step("Reading Configuration");
  LoadConfiguration();
  StepDone();
  log_.Write("StartUP",
             " StartUp sub running " + options_.program.string() + " in " + std::string(kVersion));

  Step("Dimensioning Arrays");
  streams_.EnsureCapacity(64);
  StepDone();

  SetUpPropagation();  // "Loading WWV", "Loading WCY"
  Step("Loading Announcements");
  announcements_ = std::make_unique<AnnounceHistory>(
      size_t(std::max(1, config_.GetInt("Maximum Announcements", 1000))), dir_.Data("ann"));
  announcements_->LoadToday(clock_.Now());
  StepDone();
  SetUpSpots();
  history_->LoadToday(clock_.Now(), bands_, &monitor_);  // "Loading DX Spots" ... done
  SetUpJsonStreams();

  Step("Loading Special Calls   ...");
  access_.LoadFiles(dir_.Data("files"));
  ApplyLists();
  monitor_.Console(" done");

  bad_lists_.LoadBadWords(dir_, &monitor_);  // "Loading Bad Words" ... "Bad Words loaded"
  bad_lists_.LoadRefusedAddresses(dir_.Data("files") / "ipnotok.dat");
  bad_lists_.LoadTorAddresses(dir_.Data("files") / "torlist.dat");
  ApplySpotLists();

  Step("Loading Country File");
  if (!countries_.LoadFile(dir_.Data("files") / "cty_wt_mod.dat")) {
    monitor_.Console("   no country file: data/files/cty_wt_mod.dat (every lookup answers none)");
  }
  states_.LoadFile(dir_.Data("files") / "states.dat");  // absent until SET/STATEADD
  StepDone();

  Step("Loading Log-on Messages");
  const auto logon_path = dir_.Data("files") / "logon.txt";
  if (!messages_.Load(logon_path)) {
    messages_ = MessagesFromConfig(config_);
    messages_.Save(logon_path);
  }
  StepDone();

  Step("Purging Old Mail");
  SetUpMail();
  StepDone();
  PruneLogs();

  SetUpDownloads();
  SetUpNetwork();
  SetUpFeeds();
  user_ctx_ = std::make_unique<UserContext>(
      UserContext{streams_, *this, store_, log_, monitor_, clock_, *network_, dir_, access_,
                  messages_, &countries_, config_.Get("Cluster Call"), std::string(kVersion),
                  config_.Get("SSID Help Address"), started_, [this] { return Counts(); }});
  user_ctx_->filters = filter_book_.get();
  user_ctx_->states = &states_;
  user_ctx_->mail_notices = [this](int s) { return mail_->LoginNotices(s); };
  login_ = std::make_unique<Login>(*user_ctx_);
  interpreter_ = std::make_unique<CommandInterpreter>(*user_ctx_, *login_, *this);
  interpreter_->set_help_address(config_.Get("Help Address"));
  login_->set_interpreter([this](int s, std::string_view l) { interpreter_->Execute(s, l); });
  login_->set_node_hooks({[this](std::string_view call) { return network_->NodeAddresses(call); },
                          [this](int s, const std::string& call) {
                            // A defined node of a feed type is a skimmer that logs in to send its
                            // reports.
                            if (!feeds_->AdoptLogin(s, call)) network_->OnNodeLogin(s, call);
                          }});

  FrontendLinkOptions link_options;
  link_options.host = config_.Get("Winsock IP");
  link_options.port = config_.Get("Winsock Port");
  link_options.debug = options_.debug;
  // The secret both programs prove at link-up; whichever starts first creates it.
  LinkSecret secret = LoadOrCreateLinkSecret(dir_.home());
  for (const std::string& note : secret.notes) {
    log_.Write("LinkSecret", note);
    monitor_.Console(note);
  }
  if (!secret.usable()) {
    log_.Write("LinkSecret", secret.error);
    monitor_.Console("No usable link secret, the front-end link cannot come up: " + secret.error);
  }
  link_options.secret = std::move(secret.key);
  link_ =
      std::make_unique<FrontendLink>(io_, streams_, log_, monitor_, clock_, *this, link_options);
  link_->set_on_unreachable([this] { return StartFrontEnd(); });
  link_->set_shed_notice([this](int stream, uint64_t count) {
    return streams_.InRange(stream) && streams_.at(stream).session.Has(kSwJson) ? DroppedJson(count)
                                                                                : std::string();
  });
  Step("Starting the web console");
  StartConsole();
  StepDone();

  Step("Opening Winsock");
  link_->Start();
  StepDone();

  timer_.expires_after(std::chrono::seconds(1));
  timer_.async_wait([this](const boost::system::error_code& ec) {
    if (!ec) OnTimer();
  });
  return true;
}

bool ClusterNode::StartFrontEnd() {
  const std::string& path_text = config_.Get("Winsock App Path");
  // The sysop (or the service manager) runs the front-end himself.
  if (path_text.empty() || !options_.start_frontend) return false;
  std::filesystem::path program(path_text);
  if (program.is_relative()) program = options_.program.parent_path() / program;
  std::string error;
  if (LaunchDetached(program, {"--home", dir_.home().string()}, &error)) {
    monitor_.Console("Started the front-end " + program.string());
    return true;
  }
  log_.Write("StartFrontEnd", "cannot start " + program.string() + ": " + error);
  return false;
}

void ClusterNode::PruneLogs() {
  const SysTime now = clock_.Now();
  const int today = int(std::chrono::floor<std::chrono::days>(now).time_since_epoch().count());
  if (today == pruned_day_) return;
  pruned_day_ = today;
  const PruneResult r = PruneDailyLogs(dir_, now, config_.GetInt("Log Days", 0));
  if (r.removed > 0) {
    log_.Write("PruneLogs", "removed " + std::to_string(r.removed) + " daily logs older than " +
                                config_.Get("Log Days") + " days");
  }
  for (const std::string& e : r.errors) log_.Write("PruneLogs", "cannot remove " + e);
}

void ClusterNode::OnTimer() {
  if (stopped_) return;
  PruneLogs();
  SaveHighestRates(/*at_stop=*/false);
  if (network_) {
    network_->Tick();
    if (network_->TakeStateChanged()) SaveNetworkState();
  }
  if (wwv_fetch_) wwv_fetch_->Tick();
  MailTick();
  if (downloads_) downloads_->Tick();
  if (update_check_) update_check_->Tick();
  if (++memory_tick_ % 10 == 0) CheckMemory();
  if (feeds_) feeds_->Tick();
  if (json_streams_ && ++heartbeat_tick_ % 30 == 0) json_streams_->Heartbeat();
  if (++bookkeeping_tick_ % 60 == 0) store_.WriteBookkeeping();
  timer_.expires_after(std::chrono::seconds(1));
  timer_.async_wait([this](const boost::system::error_code& ec) {
    if (!ec) OnTimer();
  });
}

void ClusterNode::Stop() {
  if (stopped_) return;
  stopped_ = true;
  timer_.cancel();
  SaveHighestRates(/*at_stop=*/true);
  SaveNetworkState();
  store_.WriteBookkeeping();
  if (feeds_) feeds_->Stop();
  if (link_) link_->Stop();
  if (console_) console_->Stop();
  log_.Write("Shutdown", "Node stopped");
}

void ClusterNode::StopAfterHandOver(std::function<void()> then) {
  if (stopped_ || !link_) {
    Stop();
    then();
    return;
  }
  // A line that reached the node just before the stop is answered rather than lost, and one
  // that arrives afterwards waits in the front-end for the next start.
  link_->HandOver(kHandOverWait, [this, then = std::move(then)] {
    Stop();
    then();
  });
}

void ClusterNode::Shutdown() {
  monitor_.Console("Shut down requested");
  boost::asio::post(io_, [this] { StopAfterHandOver([this] { io_.stop(); }); });
}

// StreamOutput -----------------------------------------------------------------------

void ClusterNode::SendToStream(int stream, std::string_view text) {
  if (!link_ || !streams_.InRange(stream)) return;
  StreamEntry& e = streams_.at(stream);
  if ((e.IsUser() || e.state == kStateJsonStream) && e.session.Has(kSwJson) &&
      !text.starts_with('{')) {
    // A user in JSON mode or a program's stream: whatever the node says as text (answers,
    // announcements, talk, WWV) goes out as objects; what is already an object (a spot, a
    // heartbeat) as it is.
    const std::string json = TextAsJson(text, e.call, clock_.Now());
    if (json.empty()) return;
    link_->SendToStreamNo(stream, json);
  } else {
    link_->SendToStreamNo(stream, text);
  }
  ++e.lines_out;
  if (e.monitored) monitor_.Write(MonitorChannel::kRaw, text, "", stream);
}

void ClusterNode::SendSpotToStream(int stream, const std::shared_ptr<const std::string>& text) {
  if (!link_ || !streams_.InRange(stream)) return;
  link_->SendSpotToStreamNo(stream, text);
  StreamEntry& e = streams_.at(stream);
  ++e.lines_out;
  if (e.monitored) monitor_.Write(MonitorChannel::kRaw, *text, "", stream);
}

void ClusterNode::CloseStream(int stream) {
  if (link_) link_->CloseStream(stream);
}

void ClusterNode::SetStreamIdentity(int stream, std::string_view call, int state) {
  if (link_) link_->SetStreamIdentity(stream, call, state);
}

void ClusterNode::SetStreamAttributes(int stream, std::string_view text) {
  if (link_) link_->SetStreamAttributes(stream, text);
}

// LinkEvents -------------------------------------------------------------------------

void ClusterNode::OnLinkUp() {}

void ClusterNode::OnConnectRequest(int stream) {
  if (json_streams_->OnConnectRequest(stream)) return;  // a program's WebSocket or poll
  if (feeds_->OnConnectRequest(stream)) return;         // one of our feed connections
  if (network_->OnConnectRequest(stream)) return;       // one of our outgoing node links
  login_->OnConnectRequest(stream);
}

void ClusterNode::OnStreamLine(int stream, std::string_view line) {
  StreamEntry& e = streams_.at(stream);
  // What arrives is shown beside what the node sends back; a password typed at log-in is not.
  const bool secret =
      e.state == kStateLoggingIn && (e.login_stage == LoginStage::kAwaitingPassword ||
                                     e.login_stage == LoginStage::kAwaitingNodePassword);
  monitor_.Input(stream, secret ? std::string_view("(password)") : line);
  try {
    if (e.state == kStateLoggingIn) {
      login_->OnLine(stream, line);
    } else if (e.IsNode()) {
      network_->OnLine(stream, line);
    } else if (e.IsFeed()) {
      network_->OnFeedLine(stream, line);
    } else if (e.state == kStateJsonStream || e.state == kStateJsonPoll) {
      json_streams_->OnLine(stream, line);
    } else if (e.IsUser()) {
      if (line.starts_with("PC") && line.find('^') != std::string_view::npos) {
        log_.Write("DataArrival", " User is really a Node, but node not defined " + e.call);
      }
      if (mail_->Composing(stream)) {
        mail_->OnEditorLine(stream, line);
      } else {
        interpreter_->OnLine(stream, line);
      }
    }
  } catch (const std::exception& ex) {
    // One bad line must never take the node down; it is logged and the next line is served.
    log_.Write("DataArrival", std::string(" where = line handling: ") + ex.what());
  }
}

void ClusterNode::OnStreamPiece(int stream, std::string_view piece) {
  const StreamEntry& e = streams_.at(stream);
  if (e.IsNode() || e.IsFeed()) {
    // Only the node's reassembly may keep a piece: a whole line is never held back.
    network_->processor().ProcessNodeData(stream, piece, NodeProcessor::LineEnd::kMissing);
    return;
  }
  OnStreamLine(stream, piece);
}

void ClusterNode::OnStreamTimedOut(int stream) {
  // Once timed out the entry no longer names the user, and its close will not count as a
  // log-out: the network hears of it now.
  if (streams_.at(stream).IsUser()) login_->OnLoggedOut(stream);
}

void ClusterNode::OnStreamClosed(int stream, int previous_state) {
  if (IsUserState(previous_state)) login_->OnLoggedOut(stream);
  filter_book_->Drop(stream);
  mail_->StreamClosed(stream);
  feeds_->OnStreamClosed(stream);
  network_->OnStreamClosed(stream);
  monitor_.Write(MonitorChannel::kConnections, std::to_string(stream), "", stream);
}

void ClusterNode::OnStreamRecovered(int stream) {
  StreamEntry& e = streams_.at(stream);
  if (e.state == kStateFree || e.state == kStateLoggingIn) {
    // A connection that arrived while no node was running, or that was still logging in
    // when the node stopped: it starts the log-in (or, for an outgoing node link, the
    // handshake) afresh.
    e.state = kStateLoggingIn;
    e.login_stage = LoginStage::kAwaitingCall;
    OnConnectRequest(stream);
    return;
  }
  if (json_streams_->OnRecovered(stream)) return;
  if (feeds_->OnStreamRecovered(stream)) return;
  login_->OnRecovered(stream);
  // A user who was writing a message goes on with it; the prompt waits for the editor.
  if (streams_.at(stream).IsUser()) mail_->RestoreDraft(stream);
  network_->OnStreamRecovered(stream);
}

void ClusterNode::OnRecoveryComplete() {
  network_->RecoveryComplete();
  mail_->DropUnrestoredDrafts();
  feeds_->SetReady(true);
}

void ClusterNode::OnStreamListReported(int count) {
  // The front-end may be a new one whose connections are all new: neighbours we call that
  // are not linked now are called again at once rather than after the retry interval.
  network_->RedialNow();
  feeds_->RedialNow();
}

void ClusterNode::OnOutgoingFailed(std::string_view label, std::string_view reason) {
  link_errors_[ToUpper(label)] = Trim(reason).empty() ? "failed" : std::string(Trim(reason));
  if (feeds_->OnOutgoingFailed(label, reason)) return;
  network_->OnOutgoingFailed(label, reason);
}

bool ClusterNode::OnStreamPartial(int stream, std::string_view text) {
  if (feeds_ && feeds_->OnPartialLine(stream, text)) return true;
  return network_ && network_->OnPartialLine(stream, text);
}

void ClusterNode::OnHandshakeRecord(int stream, std::string_view record) {
  // A front-end that reports a remote node's prompt in a stream event: the calling side of
  // a node link answers it like the same prompt arriving as data.
  if (network_) network_->OnPartialLine(stream, record);
}

// CommandServices --------------------------------------------------------------------

std::string ClusterNode::EnterSpot(int stream, std::string_view line, bool test_only) {
  const StreamEntry& e = streams_.at(stream);
  std::string_view address = e.peer_address;
  if (const size_t colon = address.rfind(':'); colon != std::string_view::npos) {
    address = address.substr(0, colon);
  }
  std::string command(line);
  if (test_only) {
    // DXTEST takes the same words as DX.
    const size_t blank = command.find(' ');
    command = "DX" + (blank == std::string::npos ? std::string() : command.substr(blank));
  }
  const DxCommandResult dx =
      DxCommand(command, e.call, config_.Get("Cluster Call"), address, clock_.Now());
  if (!dx.ok) return dx.text;
  IntakeRequest request;
  request.sentence = dx.text;
  request.source_stream = stream;
  request.is_local = true;
  request.known_address = address;
  if (test_only) {
    // Every check runs, but the spot is neither kept, relayed nor counted: the user sees the
    // line as it would reach them, and nobody else sees anything.
    request.trial = true;
    const IntakeResult r = intake_->Process(request);
    if (!r.accepted()) {
      return "DXTEST: the spot would be refused (" + std::string(VerdictName(r.verdict)) + ")\r\n";
    }
    distributor_->OutputSpotTo(*r.spot, stream);
    std::string note = "DXTEST: the spot would be accepted; it was shown to you only";
    if (!filter_book_->Shows(stream, e, *r.spot)) note += " (your filters would hold it back)";
    return note + "\r\n";
  }
  const IntakeResult r = TakeSpot(request, true);
  if (r.accepted()) store_.CountSpot(e.call);  // STAT/USER shows the count
  return std::string(r.reply);
}

std::vector<std::string> ClusterNode::ShowDx(int stream, std::string_view args) {
  const StreamEntry& e = streams_.at(stream);
  const size_t default_count = size_t(std::max(1, config_.GetInt("Default Display Dx", 30)));
  const size_t max_count = size_t(std::max(1, config_.GetInt("Maximum Display Dx", 100)));
  ShowDxRequest r;
  std::string error;
  // No lines: the interpreter answers with its command error.
  if (!ParseShowDx(args, bands_, default_count, max_count, r, &error)) return {};
  // A user sees the spots their filters let through, unless they ask for ALL.
  if (!r.all) {
    r.query.accept = [&](const Spot& spot) { return filter_book_->Shows(stream, e, spot); };
  }
  std::vector<Spot> day_spots;
  std::vector<const Spot*> found;
  if (r.day >= 0) {
    day_spots = history_->ReadDay(clock_.Now() - std::chrono::days(r.day), bands_);
    found = SpotHistory::FindIn(day_spots, r.query);
  } else {
    found = history_->Find(r.query);
  }
  std::vector<std::string> lines;
  for (const Spot* spot : found) {
    lines.push_back(ShowDxLine(*spot, e.session.resolution >= 2 ? 2 : 1));
  }
  if (lines.empty()) lines.push_back("No spots found.");
  return lines;
}

bool ClusterNode::ListChange(std::string_view list, std::string_view item, bool add) {
  ConfigList& l = config_.List(list);
  const bool changed = add ? l.Add(item) : l.Remove(item);
  if (changed) {
    WriteListFile(dir_, list, l);
    WriteCfgFile(config_, dir_);
    ApplyLists();
  }
  return changed;
}

ClusterCounts ClusterNode::Counts() const {
  ClusterCounts c;
  c.nodes = 1 + (network_ ? network_->NodeCount() : streams_.CountNodes());
  c.local_users = streams_.CountUsers();
  c.remote_users = network_ ? network_->RemoteUserCount() : 0;
  return c;
}

std::vector<std::string> ClusterNode::NetworkLines(std::string_view what) {
  std::vector<std::string> lines;
  const SysTime now = clock_.Now();
  if (what == "who") {
    for (int s = 1; s <= streams_.high_socket(); ++s) {
      const StreamEntry& e = streams_.at(s);
      if (!e.IsUser() && !e.IsNode() && !e.IsFeed()) continue;
      std::string type = "USER";
      std::string name(DisplayName(e.session));
      if (e.IsFeed()) {
        type = feeds_->WhoType(s);
        name.clear();
      } else if (e.IsNode()) {
        type = network_->WhoType(s);
        if (type.empty()) type = "NODE";
        // A neighbour's name is what it gave as user information, if it ever did.
        const UserRecordLoad r = store_.Load(e.call, kStateUser);
        name = r.existed && !r.settings.name.empty() ? r.settings.name : "";
      }
      lines.push_back(fmt::format("  {:<8} {:<9} {} {} {:<16} {:<15} {}", e.call, type,
                                  DateText(e.since), TimeHHnnZ(e.since), name.substr(0, 16),
                                  e.peer_address, e.port_index));
    }
    const auto remote = network_->Lines("who");
    lines.insert(lines.end(), remote.begin(), remote.end());
    return lines;
  }
  if (what == "users" || what == "configuration") {
    std::vector<std::string> calls;
    for (int s = 1; s <= streams_.high_socket(); ++s) {
      if (streams_.at(s).IsUser()) calls.push_back(streams_.at(s).call);
    }
    std::sort(calls.begin(), calls.end());
    lines.push_back(config_.Get("Cluster Call") + " (" + std::to_string(calls.size()) + " users)");
    std::string row;
    for (const std::string& c : calls) {
      if (row.size() + c.size() + 1 > 70) {
        lines.push_back("  " + row);
        row.clear();
      }
      row += (row.empty() ? "" : " ") + c;
    }
    if (!row.empty()) lines.push_back("  " + row);
    const auto remote = network_->Lines(what);
    lines.insert(lines.end(), remote.begin(), remote.end());
    return lines;
  }
  if (what == "nodes") {
    lines.push_back(config_.Get("Cluster Call") + " (this node)");
    const auto remote = network_->Lines("nodes");
    lines.insert(lines.end(), remote.begin(), remote.end());
    return lines;
  }
  if (what == "links") return network_->Lines("links");
  (void)now;
  return lines;
}

std::vector<std::string> ClusterNode::StationInfo(std::string_view call) {
  const UserRecordLoad r = store_.Load(call, kStateUser);
  if (!r.existed) return {std::string(call) + ": no information known"};
  const SessionSettings& s = r.settings;
  return {std::string(call) + "  Name: " + std::string(DisplayName(s)),
          "  QTH: " + (s.qth.empty() ? std::string("-") : s.qth),
          "  Home node: " + (s.home_node.empty() ? std::string("-") : s.home_node),
          "  Location: " + (s.location.empty() ? std::string("-") : s.location) +
              "  Grid: " + (s.grid.empty() ? std::string("-") : s.grid)};
}

std::string ClusterNode::LinkCommand(std::string_view node, bool connect) {
  return network_->LinkCommand(node, connect);
}

}  // namespace qx
