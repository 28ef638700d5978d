#include "apps/feed_manager.h"

#include <algorithm>

#include "core/error_log.h"
#include "core/file_util.h"
#include "core/monitor.h"
#include "core/program_dir.h"
#include "core/stream_output.h"
#include "core/stream_table.h"
#include "core/text_util.h"
#include "feeds/feed_spot.h"
#include "spots/bands.h"
#include "spots/call_sign.h"
#include "spots/spot_line.h"

namespace qx {
namespace {

constexpr std::string_view kLabelPrefix = "feed:";
// How long a call to a feed server may take before it is tried again (the front-end gives
// up after 30 s and says so).
constexpr int64_t kAnswerTimeout = 45;
// Lines longer than any report are dropped whole.
constexpr size_t kMaxFeedLine = 512;
// The first malformed lines of a connection are logged; the rest only counted.
constexpr int kGarbageLogged = 5;
constexpr size_t kStatusReports = 20;

std::string LabelOf(std::string_view name) { return std::string(kLabelPrefix) + std::string(name); }

// A stream's call must be one word: the front-end reports it back after a restart.
std::string StreamCallOf(std::string_view name) {
  std::string call = ToUpper(Trim(name));
  std::replace(call.begin(), call.end(), ' ', '-');
  return call;
}

}  // namespace

FeedManager::FeedManager(boost::asio::io_context& io, FeedManagerDeps deps)
    : io_(io), deps_(std::move(deps)), verifier_(*deps_.bands), reporter_due_timer_(io) {}

FeedManager::~FeedManager() { Stop(); }

int64_t FeedManager::Now() const {
  return std::chrono::duration_cast<std::chrono::seconds>(deps_.clock->Now().time_since_epoch())
      .count();
}

void FeedManager::Show(const std::string& text, std::string_view colour, int stream) {
  if (deps_.monitor) deps_.monitor->Write(MonitorChannel::kConsole, text, colour, stream);
  if (deps_.log) deps_.log->Write("Feeds", text);
}

void FeedManager::Configure(const Config& config) {
  our_call_ = ToUpper(config.Get("Cluster Call"));
  VerifierSettings settings = verifier_.settings();
  settings.origin_node = our_call_;
  verifier_.set_settings(VerifierSettingsFromConfig(config, settings));
  // Out-of-range values fall back to the safe ends: a feed is never cut within seconds of a
  // quiet spell, and a limit of 0 would drop every line.
  limits_.stall_seconds = std::clamp<int64_t>(config.GetInt("Feed Stall Seconds", 300), 2, 86400);
  limits_.max_lines_per_second =
      std::clamp(config.GetInt("Feed Max Lines Per Second", 2000), 1, 1000000);
  limits_.flood_seconds = std::clamp<int64_t>(config.GetInt("Feed Flood Seconds", 30), 1, 3600);
  ApplyLists(config);

  feed_calls_.clear();
  for (const NodeDefinition& n : config.nodes()) {
    FeedStreamKind kind;
    if (FeedStreamKindFromText(n.type, kind)) feed_calls_[ToUpper(Trim(n.call))] = kind;
  }

  // Connections that stay keep their stream, counters and back-off.
  std::vector<Feed> next;
  const std::string base_call(BaseCall(our_call_));
  for (const FeedConnection& c : config.feeds()) {
    FeedStreamKind kind;
    if (Trim(c.name).empty() || !FeedStreamKindFromText(c.kind, kind)) {
      Show("Feed \"" + c.name + "\" left out: its kind \"" + c.kind +
               "\" is none of SKIMMER, RBN, RBN FT8",
           "red");
      continue;
    }
    Feed f;
    for (Feed& old : outgoing_) {
      if (old.label == LabelOf(c.name)) f = std::move(old);
    }
    f.name = std::string(Trim(c.name));
    f.kind = kind;
    f.outgoing = true;
    f.def = c;
    f.label = LabelOf(f.name);
    f.login_call = Trim(c.call).empty() ? base_call : ToUpper(Trim(c.call));
    f.wanted = c.IsActive() && c.Port() != 0 && !Trim(c.address).empty();
    next.push_back(std::move(f));
  }
  for (Feed& old : outgoing_) {
    // A feed taken out of the settings is closed.
    if (old.stream != 0 && !old.label.empty()) {
      const bool kept = std::any_of(next.begin(), next.end(),
                                    [&](const Feed& f) { return f.label == old.label; });
      if (!kept) deps_.out->CloseStream(old.stream);
    }
  }
  outgoing_ = std::move(next);
  for (Feed& f : outgoing_) {
    if (!f.wanted && f.stream != 0) Drop(f, "switched off");
  }
  ConfigureReporter(config);
}

void FeedManager::ApplyLists(const Config& config) {
  LoadVerifierListsFromConfig(config, verifier_.lists());
}

void FeedManager::LoadFiles() {
  const auto files = deps_.dir->Data("files");
  VerifierLists& lists = verifier_.lists();
  lists.known_calls.Clear();
  lists.bad_cw_dx.Clear();
  if (!lists.known_calls.LoadFile(files / "MASTER.SCP")) {
    Show("No known-calls database data/files/MASTER.SCP: busts are judged without it");
  }
  lists.bad_cw_dx.LoadFile(files / "BadCwSkDx.dat");
}

void FeedManager::ConfigureReporter(const Config& config) {
  ReporterClientOptions o;
  const bool wanted =
      ParseBrokerAddress(config.Get("FT8 URL"), config.Get("FT8 Port"), o.host, o.port);
  o.topic = std::string(Trim(config.Get("FT8 Topic")));
  if (o.topic.empty()) o.topic = "#";
  ReporterSettings settings;
  settings.hold = std::chrono::seconds(std::clamp(config.GetInt("FT8 Hold", 30), 0, 300));
  if (!reporter_ || settings.hold != reporter_hold_) {
    reporter_ = std::make_unique<ReporterFeed>(*deps_.bands, settings);
    reporter_hold_ = settings.hold;
  }
  const bool same = reporter_client_ && o.host == reporter_options_.host &&
                    o.port == reporter_options_.port && o.topic == reporter_options_.topic;
  if (same && wanted) return;
  if (reporter_client_) {
    reporter_client_->Stop();
    reporter_client_.reset();
  }
  reporter_options_ = o;
  if (!wanted) return;
  reporter_client_ = std::make_unique<ReporterClient>(
      io_, o, [this](std::string_view, std::string_view payload) { OnReporterPayload(payload); },
      [this](std::string_view text) { Show("Reporter feed: " + std::string(text)); });
  reporter_client_->Start();
}

// Connections ---------------------------------------------------------------------------

FeedManager::Feed* FeedManager::FindByStream(int stream) {
  if (stream <= 0) return nullptr;
  for (Feed& f : outgoing_) {
    if (f.stream == stream) return &f;
  }
  const auto it = inbound_.find(stream);
  return it == inbound_.end() ? nullptr : &it->second;
}

const FeedManager::Feed* FeedManager::FindByStream(int stream) const {
  return const_cast<FeedManager*>(this)->FindByStream(stream);
}

void FeedManager::Dial(Feed& f) {
  f.pending = true;
  f.next_attempt = Now() + kAnswerTimeout;
  if (deps_.open_outgoing) deps_.open_outgoing(Trim(f.def.address), f.def.Port(), f.label);
}

bool FeedManager::OnConnectRequest(int stream) {
  StreamTable& t = *deps_.streams;
  if (!t.InRange(stream)) return false;
  StreamEntry& e = t.at(stream);
  if (!e.connection_label.starts_with(kLabelPrefix)) return false;
  Feed* f = nullptr;
  for (Feed& c : outgoing_) {
    if (c.label == e.connection_label) f = &c;
  }
  if (!f || f->stream != 0) {
    // A feed no longer configured, or a second connection for one that has its own.
    deps_.out->CloseStream(stream);
    return true;
  }
  const int64_t now = Now();
  f->pending = false;
  f->stream = stream;
  f->logged_in = false;
  f->closing = false;
  f->connected_at = now;
  f->last_line = now;
  f->flood_since = 0;
  f->garbage_run = 0;
  f->garbage_logged = 0;
  f->reports_at_connect = f->counts.reports;
  ++f->counts.connects;
  e.state = FeedStreamState(f->kind);
  e.call = StreamCallOf(f->name);
  e.login_stage = LoginStage::kLoggedIn;
  e.since = deps_.clock->Now();
  deps_.out->SetStreamIdentity(stream, e.call, e.state);
  deps_.out->SetStreamAttributes(stream, "since=" + std::to_string(now));
  Show("Feed " + f->name + " connected to " + e.peer_address, "", stream);
  return true;
}

bool FeedManager::OnOutgoingFailed(std::string_view label, std::string_view reason) {
  for (Feed& f : outgoing_) {
    if (f.label != label) continue;
    f.pending = false;
    const int delay = f.backoff.NextDelay();
    f.next_attempt = Now() + delay;
    Show("Feed " + f.name + ": cannot connect to " + f.def.address + ":" + f.def.port + " (" +
             std::string(reason) + "); trying again in " + std::to_string(delay) + " s",
         "red");
    return true;
  }
  return label.starts_with(kLabelPrefix);
}

void FeedManager::SendLogin(Feed& f) {
  f.logged_in = true;
  deps_.out->SendToStream(f.stream, f.login_call + "\r\n");
  Show("Feed " + f.name + ": logged in as " + f.login_call, "", f.stream);
}

bool FeedManager::OnPartialLine(int stream, std::string_view text) {
  Feed* f = FindByStream(stream);
  if (!f) return false;
  if (f->logged_in || !IsCallPrompt(text)) return false;
  f->last_line = Now();
  SendLogin(*f);
  return true;
}

void FeedManager::Drop(Feed& f, std::string_view why) {
  // Once: the stream stays ours until the front-end reports it closed.
  if (f.stream == 0 || f.closing) return;
  f.closing = true;
  Show("Feed " + f.name + " dropped: " + std::string(why), "red", f.stream);
  deps_.out->CloseStream(f.stream);
}

void FeedManager::OnStreamClosed(int stream) {
  if (inbound_.erase(stream) > 0) return;
  for (Feed& f : outgoing_) {
    if (f.stream != stream) continue;
    const int64_t now = Now();
    f.stream = 0;
    f.closing = false;
    f.logged_in = false;
    ++f.counts.drops;
    // A connection that was healthy for a while starts the pauses over.
    if (now - f.connected_at >= limits_.healthy_after_seconds &&
        f.counts.reports > f.reports_at_connect) {
      f.backoff.Reset();
    }
    const int delay = f.backoff.NextDelay();
    f.next_attempt = now + delay;
    Show("Feed " + f.name + " closed; calling again in " + std::to_string(delay) + " s", "orange");
  }
}

bool FeedManager::OnStreamRecovered(int stream) {
  StreamTable& t = *deps_.streams;
  if (!t.InRange(stream)) return false;
  StreamEntry& e = t.at(stream);
  FeedStreamKind kind;
  if (!FeedStreamKindOfState(e.state, kind)) return false;
  e.login_stage = LoginStage::kLoggedIn;
  const int64_t now = Now();
  for (Feed& f : outgoing_) {
    if (f.label != e.connection_label) continue;
    if (f.stream != 0) break;  // should never happen: two streams for one feed
    f.stream = stream;
    f.pending = false;
    f.logged_in = true;  // it logged in before the restart
    f.connected_at = now;
    f.last_line = now;
    f.reports_at_connect = f.counts.reports;
    Show("Feed " + f.name + " recovered", "orange", stream);
    return true;
  }
  if (!e.connection_label.empty()) {
    // An outgoing feed the settings no longer name.
    deps_.out->CloseStream(stream);
    return true;
  }
  Feed f;
  f.name = e.call;
  f.kind = kind;
  f.stream = stream;
  f.logged_in = true;
  f.connected_at = now;
  f.last_line = now;
  inbound_[stream] = std::move(f);
  return true;
}

bool FeedManager::AdoptLogin(int stream, const std::string& call) {
  const auto it = feed_calls_.find(ToUpper(Trim(call)));
  if (it == feed_calls_.end() || !deps_.streams->InRange(stream)) return false;
  StreamEntry& e = deps_.streams->at(stream);
  const int64_t now = Now();
  e.state = FeedStreamState(it->second);
  e.call = it->first;
  e.login_stage = LoginStage::kLoggedIn;
  e.since = deps_.clock->Now();
  deps_.out->SetStreamIdentity(stream, e.call, e.state);
  deps_.out->SetStreamAttributes(stream, "since=" + std::to_string(now));
  Feed f;
  f.name = e.call;
  f.kind = it->second;
  f.stream = stream;
  f.logged_in = true;
  f.connected_at = now;
  f.last_line = now;
  f.counts.connects = 1;
  inbound_[stream] = std::move(f);
  deps_.out->SendToStream(stream, "Hello " + e.call + ", skimmer reports welcome.\r\n");
  Show("Skimmer " + e.call + " logged in from " + e.peer_address, "", stream);
  return true;
}

void FeedManager::RedialNow() {
  for (Feed& f : outgoing_) {
    if (f.stream == 0) {
      f.pending = false;
      f.next_attempt = 0;
    }
  }
}

// Lines ---------------------------------------------------------------------------------

void FeedManager::OnLine(int stream, std::string_view line) {
  Feed* found = FindByStream(stream);
  if (!found) {
    // A feed stream that no feed owns any more: it has nothing to say to us.
    return;
  }
  Feed& f = *found;
  const int64_t now = Now();
  f.last_line = now;
  ++f.counts.lines;
  ++totals_.lines;
  f.line_rate.Add(now);
  if (f.line_rate.InSecond(now) > uint32_t(limits_.max_lines_per_second)) {
    ++f.counts.flooded;
    ++totals_.flooded;
    if (f.flood_since == 0) f.flood_since = now;
    return;
  }
  if (!f.logged_in) {
    if (IsCallPrompt(line)) {
      SendLogin(f);
      return;
    }
    if (!line.starts_with("DX de ")) return;  // the server's greeting
    f.logged_in = true;                       // a server that asks nothing
  }
  SkimmerReport report;
  const SkimmerLineError error =
      line.size() > kMaxFeedLine ? SkimmerLineError::kNotASpot : ParseSkimmerLine(line, report);
  if (error != SkimmerLineError::kNone) {
    ++f.counts.garbage;
    ++totals_.garbage;
    ++f.garbage_run;
    if (f.garbage_logged < kGarbageLogged && error != SkimmerLineError::kNotASpot) {
      ++f.garbage_logged;
      if (deps_.log) {
        deps_.log->Write("Feeds", f.name + ": " + std::string(SkimmerLineErrorName(error)) + ": " +
                                      std::string(line.substr(0, 120)));
      }
    }
    if (f.garbage_run >= limits_.max_garbage_in_a_row) {
      f.garbage_run = 0;
      Drop(f, "sends no skimmer reports");
    }
    return;
  }
  f.garbage_run = 0;
  ++f.counts.reports;
  ++totals_.reports;
  TakeReport(f, report, deps_.clock->Now());
}

void FeedManager::TakeReport(Feed& f, const SkimmerReport& report, SysTime now) {
  const SkimmerDecision& d = verifier_.Decide(report, now);
  f.counts.Count(d);
  totals_.Count(d);
  if (d.outcome == SkimmerOutcome::kRefusedSkimmer || d.outcome == SkimmerOutcome::kRefusedDx ||
      d.outcome == SkimmerOutcome::kOffBand) {
    return;
  }
  recent_.Add(RecentReport{now, report.dx_call, report.spotter, report.freq_text,
                           ModeColumn(report.mode_text, report.has_snr, report.snr_db), d.verdict,
                           d.skimmers});
  if (!d.busted_line.empty()) WriteBusted(d);
  bool accepted = false;
  if (d.outcome == SkimmerOutcome::kPass && deps_.take_spot) {
    accepted = deps_.take_spot(FeedIntakeRequest(d.sentence, SpotSource::kSkimmer, f.stream));
    if (accepted) {
      ++f.counts.accepted;
      ++totals_.accepted;
      f.spot_rate.Add(Now());
    }
  } else if (d.outcome == SkimmerOutcome::kDuplicate && deps_.distribute &&
             SpotOf(d.sentence, scratch_, now)) {
    scratch_.SkimmerDupe = true;
    scratch_.SourceStream = f.stream;
    deps_.distribute(scratch_);
  }
  if (!own_users_.empty()) SendOwn(report, d, accepted);
}

void FeedManager::WriteBusted(const SkimmerDecision& d) {
  const auto path = deps_.dir->Data("busted") / std::string(d.busted_folder) / d.busted_file;
  if (!AppendToFile(path, d.busted_line + "\r\n") && deps_.log) {
    deps_.log->Write("Feeds", "cannot write " + path.string());
  }
}

bool FeedManager::SpotOf(std::string_view sentence, Spot& spot, SysTime now) const {
  spot = Spot{};
  if (sentence.empty() || !SpotFromSentence(sentence, spot)) return false;
  const std::string upper = ToUpper(spot.comment());
  spot.ModeFlags = deps_.bands->BandBit(spot.FrequencyKHz) | ClassifyMode(upper);
  spot.IsBeacon = IsBeaconSpot(spot.dx_call(), upper);
  spot.SourceTag = SourceTagText(SpotSource::kSkimmer);
  spot.received = now;
  if (deps_.country_of) {
    spot.spotter_country = deps_.country_of(spot.spotter());
    spot.dx_country = deps_.country_of(spot.dx_call());
  }
  return true;
}

void FeedManager::SendOwn(const SkimmerReport& report, const SkimmerDecision& d, bool accepted) {
  const auto it = own_users_.find(std::string(BaseCall(report.dx_call)));
  if (it == own_users_.end() || d.sentence.empty()) return;
  bool built = false;
  char buf[kDxDeLineMax];
  size_t n = 0;
  for (int stream : it->second) {
    if (!deps_.streams->InRange(stream)) continue;
    const StreamEntry& e = deps_.streams->at(stream);
    if (!e.IsUser() || !e.session.Has(kSwOwnSkimmer)) continue;
    // A spot that went out to everyone reached this user already if they take skimmer spots.
    if (accepted && e.session.Has(kSwDxSpots) && e.session.Has(kSwSkimmerSpots)) continue;
    if (!built) {
      if (!SpotOf(d.sentence, scratch_, deps_.clock->Now())) return;
      n = BuildDxDeLine(scratch_, 1, "", buf);
      built = true;
    }
    const int width = e.session.width > 0 ? e.session.width : kDefaultWidth;
    std::string text(buf, std::min(n, size_t(width)));
    text += "\r\n";
    deps_.out->SendToStream(stream, text);
  }
}

void FeedManager::RebuildOwnIndex() {
  own_users_.clear();
  const StreamTable& t = *deps_.streams;
  for (int s = 1; s <= t.high_socket(); ++s) {
    const StreamEntry& e = t.at(s);
    if (e.IsUser() && e.session.Has(kSwOwnSkimmer) && !e.call.empty()) {
      own_users_[ToUpper(BaseCall(e.call))].push_back(s);
    }
  }
}

// The reporter network -------------------------------------------------------------------

void FeedManager::OnReporterPayload(std::string_view payload) {
  ++reporter_messages_;
  const ReporterResult& r = reporter_->Offer(payload, deps_.clock->Now());
  switch (r.outcome) {
    case ReporterOutcome::kSpot:
      TakeReporterSpot(r.sentence);
      break;
    case ReporterOutcome::kRejected:
    case ReporterOutcome::kOffBand:
    case ReporterOutcome::kStale:
      ++reporter_rejected_;
      break;
    case ReporterOutcome::kHeld:
      ArmReporterDue();
      break;
    case ReporterOutcome::kCollapsed:
      break;
  }
}

void FeedManager::ArmReporterDue() {
  if (reporter_due_armed_ || !reporter_) return;
  const std::optional<SysTime> due = reporter_->NextDue();
  if (!due) return;
  reporter_due_armed_ = true;
  const auto wait = std::max(SysTime::duration::zero(), *due - deps_.clock->Now());
  reporter_due_timer_.expires_after(std::chrono::duration_cast<std::chrono::nanoseconds>(wait));
  reporter_due_timer_.async_wait([this](const boost::system::error_code& ec) {
    if (ec) return;  // cancelled: the manager is going away
    reporter_due_armed_ = false;
    if (!reporter_) return;
    reporter_->TakeDue(deps_.clock->Now(),
                       [this](std::string_view sentence) { TakeReporterSpot(sentence); });
    ArmReporterDue();
  });
}

void FeedManager::TakeReporterSpot(std::string_view sentence) {
  if (!deps_.take_spot) return;
  if (deps_.take_spot(FeedIntakeRequest(sentence, SpotSource::kReporter, 0))) {
    ++reporter_spots_;
    reporter_rate_.Add(Now());
  }
}

// Once a second ---------------------------------------------------------------------------

void FeedManager::Tick() {
  const int64_t now = Now();
  for (Feed& f : outgoing_) {
    if (f.stream != 0) {
      if (now - f.last_line >= limits_.stall_seconds) {
        Drop(f, "nothing received for " + std::to_string(now - f.last_line) + " s");
      } else if (f.flood_since != 0) {
        if (f.line_rate.InSecond(now - 1) <= uint32_t(limits_.max_lines_per_second)) {
          f.flood_since = 0;
        } else if (now - f.flood_since >= limits_.flood_seconds) {
          f.flood_since = 0;
          Drop(f, "more than " + std::to_string(limits_.max_lines_per_second) +
                      " lines a second for " + std::to_string(limits_.flood_seconds) + " s");
        }
      }
      continue;
    }
    if (!ready_ || !f.wanted) continue;
    if (f.pending && now < f.next_attempt) continue;
    if (now >= f.next_attempt) Dial(f);
  }
  for (auto& [stream, f] : inbound_) {
    if (now - f.last_line >= limits_.stall_seconds) Drop(f, "nothing received");
  }
  RebuildOwnIndex();
  if (reporter_) {
    reporter_->TakeDue(deps_.clock->Now(),
                       [this](std::string_view sentence) { TakeReporterSpot(sentence); });
  }
  if (reporter_client_) reporter_client_->Tick();
}

void FeedManager::Stop() {
  reporter_due_timer_.cancel();
  if (reporter_client_) reporter_client_->Stop();
}

// What the sysop and users see -------------------------------------------------------------

std::string FeedManager::WhoType(int stream) const {
  if (!deps_.streams->InRange(stream)) return {};
  FeedStreamKind kind;
  if (!FeedStreamKindOfState(deps_.streams->at(stream).state, kind)) return {};
  return std::string(FeedWhoType(kind));
}

FeedStatus FeedManager::StatusOf(const Feed& f, int64_t now) const {
  FeedStatus s;
  s.name = f.name;
  s.type = std::string(FeedWhoType(f.kind));
  if (f.stream != 0) {
    s.state = f.logged_in ? "connected" : "logging in";
    if (deps_.streams->InRange(f.stream)) s.peer = deps_.streams->at(f.stream).peer_address;
  } else if (!f.wanted) {
    s.state = "off";
  } else {
    s.state = f.pending ? "connecting" : "waiting";
  }
  if (s.peer.empty() && f.outgoing) s.peer = f.def.address + ":" + f.def.port;
  s.lines_per_minute = f.line_rate.PerMinute(now);
  s.spots_per_minute = f.spot_rate.PerMinute(now);
  s.counts = f.counts;
  return s;
}

std::vector<FeedStatus> FeedManager::Status() const {
  const int64_t now = Now();
  std::vector<FeedStatus> out;
  for (const Feed& f : outgoing_) out.push_back(StatusOf(f, now));
  for (const auto& [stream, f] : inbound_) out.push_back(StatusOf(f, now));
  if (reporter_client_) {
    FeedStatus s;
    s.name = "reporter";
    s.type = "REPORTER";
    s.state = std::string(reporter_client_->state());
    s.peer = reporter_client_->peer();
    s.lines_per_minute = 0;
    s.spots_per_minute = reporter_rate_.PerMinute(now);
    s.counts.lines = reporter_messages_;
    s.counts.accepted = reporter_spots_;
    s.counts.garbage = reporter_rejected_;
    s.counts.connects = reporter_client_->connects();
    s.counts.drops = reporter_client_->drops();
    out.push_back(s);
  }
  return out;
}

std::vector<std::string> FeedManager::StatusLines(std::string_view call) const {
  const std::string upper = ToUpper(Trim(call));
  return FeedStatusLines(
      Status(), upper,
      upper.empty() ? std::vector<const RecentReport*>{} : recent_.Of(upper, kStatusReports));
}

}  // namespace qx
