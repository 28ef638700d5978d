#include "apps/node_console.h"

#include <array>

#include "apps/cluster_node.h"
#include "core/text_util.h"
#include "spots/call_sign.h"

namespace qx {
namespace {

struct KeyInfo {
  std::string_view key;
  std::string_view help;
  bool read_only = false;
};

struct GroupInfo {
  std::string_view name;
  std::vector<KeyInfo> keys;
};

// The settings as the sysop sees them, grouped as the configuration file groups them.
const std::vector<GroupInfo>& Groups() {
  static const std::vector<GroupInfo> kGroups = {
      {"Station and link",
       {{"Cluster Call", "this node's call sign (restart to apply)"},
        {"Station Text", "how the front-end introduces itself"},
        {"Winsock IP", "address of the link to qxfront (restart to apply)"},
        {"Winsock Port", "port of the link to qxfront (restart to apply)"},
        {"Winsock App Path", "qxfront program the node starts; empty: never"},
        {"Frontend Ports", "ports for users and nodes, comma-separated, index 0-8"},
        {"Console Address", "address of this console (restart to apply)"},
        {"Console Port", "port of this console (restart to apply)"},
        {"Console Trusted Proxy",
         "True only behind your own reverse proxy on loopback that sets X-Forwarded-For "
         "(restart to apply)"},
        {"Help Address", "web page that HELP points to"},
        {"SSID Help Address", "web page about SSIDs, shown on duplicate log-ins"}}},
      {"Spot history and display",
       {{"Maximum DX Spots", "spots kept in memory (restart to apply)"},
        {"Maximum Announcements", ""},
        {"Default Display Dx", "lines of SH/DX without a count"},
        {"Maximum Display Dx", "most lines SH/DX gives"},
        {"Default Display Ann", ""},
        {"Maximum Display Ann", ""},
        {"Default Display Wwv", ""},
        {"Maximum Display Wwv", ""}}},
      {"Spot rates",
       {{"NewMaxSpotsPerMin", "spots per minute the node takes; 0: no limit"},
        {"NewMaxSpotsPerMinPerDx", "spots per minute for one DX call; 0: no limit"},
        {"NewMaxSpotsPerMinPerSpotter", "spots per minute from one spotter; 0: no limit"},
        {"HighestSpotsPerMin", "highest seen", true},
        {"HighestSpotsPerMinPerDx", "highest seen", true},
        {"HighestSpotsPerMinPerSpotter", "highest seen", true}}},
      {"Behaviour",
       {{"Connection Retry", "seconds between attempts of an outgoing node connection"},
        {"Get WWV", ""},
        {"PC9x Data", ""},
        {"Auto Start", ""},
        {"IP Required", ""},
        {"Mail Purge", ""},
        {"Modes", ""},
        {"MaxMem",
         "memory ceiling in MB of resident memory: near it the node sheds the oldest spots "
         "kept in memory; 0: none"},
        {"Log Days", "days of daily logs kept under data/ (today included); 0: all"},
        {"Auto Update", "True: check daily for a newer program (it is never installed)"},
        {"Last Version Reported", "", true}}},
      {"Reference data",
       {{"Country File URL", "where cty_wt_mod.dat is fetched from; empty: never"},
        {"Known Calls URL", "where MASTER.SCP is fetched from; empty: never"},
        {"Download Files",
         "further files, comma-separated: address, or file=address (needed for a zip)"},
        {"Download Hours", "hours between checks; 0: only when asked (restart to apply)"},
        {"Update URL", "where the newest program version is read"}}},
      {"Connection limits (restart qxfront to apply)",
       {{"Max Connections", "connections qxfront holds in all; 0: no limit"},
        {"Max Connections Per Address", "connections from one address; 0: no limit"},
        {"Max Connects Per Minute",
         "new connections from one address in a minute; more are refused; 0: no limit"},
        {"Login Timeout", "seconds a new connection has to log in; 0: no limit"}}},
      {"Skimmer and reporter feeds",
       {{"Skimmer Dupes Not Allowed", ""},
        {"Skimmer CW Spots Verified", ""},
        {"Skimmer Data Spots Verified", ""},
        {"Skimmer VHF UHF Spots Verified", ""},
        {"FT8 URL", ""},
        {"FT8 Port", ""}}},
  };
  return kGroups;
}

bool IsPortKey(std::string_view key) {
  return key == "Winsock Port" || key == "Console Port" || key == "FT8 Port";
}

bool IsNumberKey(std::string_view key) {
  for (std::string_view k :
       {"Maximum DX Spots", "Maximum Announcements", "Default Display Dx", "Maximum Display Dx",
        "Default Display Ann", "Maximum Display Ann", "Default Display Wwv", "Maximum Display Wwv",
        "NewMaxSpotsPerMin", "NewMaxSpotsPerMinPerDx", "NewMaxSpotsPerMinPerSpotter",
        "Connection Retry", "Max Connections", "Max Connections Per Address",
        "Max Connects Per Minute", "Login Timeout", "Log Days", "MaxMem", "Download Hours"}) {
    if (k == key) return true;
  }
  return false;
}

const KeyInfo* FindKey(std::string_view key) {
  for (const GroupInfo& g : Groups()) {
    for (const KeyInfo& k : g.keys) {
      if (k.key == key) return &k;
    }
  }
  return nullptr;
}

std::string KindOf(const StreamEntry& e) {
  if (e.IsUser()) return "user";
  if (e.IsNode()) return "node";
  if (e.IsFeed()) return "feed";
  if (e.state == kStateLoggingIn) return "login";
  if (e.state == kStateTimedOut) return "timed out";
  return "free";
}

}  // namespace

NodeConsoleModel::NodeConsoleModel(ClusterNode& node)
    : node_(node), logs_(node.dir_.Data(), node.clock_) {}

Monitor& NodeConsoleModel::monitor() { return node_.monitor_; }

std::string NodeConsoleModel::NodeCall() const { return node_.config_.Get("Cluster Call"); }

void NodeConsoleModel::LogEvent(std::string_view heading, std::string_view text) {
  node_.log_.Write(heading, text);
}

std::vector<ConsoleStream> NodeConsoleModel::Streams() const {
  std::vector<ConsoleStream> out;
  const StreamTable& t = node_.streams_;
  for (int s = 1; s <= t.high_socket(); ++s) {
    const StreamEntry& e = t.at(s);
    if (e.state == kStateFree) continue;
    ConsoleStream c;
    c.number = s;
    c.call = e.call.empty() ? "    *    " : e.call;
    c.kind = KindOf(e);
    c.state = e.state;
    c.peer = e.peer_address;
    c.port_index = e.port_index;
    c.since = e.since;
    c.name = std::string(DisplayName(e.session));
    if (e.IsUser() && node_.filter_book_) c.filters = node_.filter_book_->Describe(s, e.session);
    c.colour = e.IsNode() || e.IsFeed()                                             ? "orange"
               : e.IsUser()                                                         ? "white"
               : e.state == kStateTimedOut || e.login_stage == LoginStage::kRefused ? "red"
                                                                                    : "";
    out.push_back(std::move(c));
  }
  return out;
}

ConsoleResult NodeConsoleModel::DisconnectStream(int stream) {
  if (!node_.streams_.InRange(stream) || node_.streams_.at(stream).state == kStateFree) {
    return ConsoleResult::Fail("no such stream");
  }
  node_.log_.Write("Console", "Sysop disconnected stream " + std::to_string(stream) + " " +
                                  node_.streams_.at(stream).call);
  node_.CloseStream(stream);
  return ConsoleResult::Ok();
}

std::vector<std::string> NodeConsoleModel::ListNames() const {
  std::vector<std::string> names;
  for (const std::string& n : Config::ListNames()) names.push_back(n);
  return names;
}

std::optional<std::vector<std::string>> NodeConsoleModel::ListItems(std::string_view list) const {
  const ConfigList* l = node_.config_.FindList(list);
  bool known = false;
  for (const std::string& n : Config::ListNames()) known = known || n == list;
  if (!known) return std::nullopt;
  if (!l) return std::vector<std::string>{};
  return l->items;
}

ConsoleResult NodeConsoleModel::ListAdd(std::string_view list, std::string_view item) {
  if (!ListItems(list)) return ConsoleResult::Fail("no such list");
  const std::string value = ToUpper(Trim(item));
  if (value.empty() || value.find_first_of("^\r\n,") != std::string::npos) {
    return ConsoleResult::Fail("an item is one call or address, without ^ or commas");
  }
  if (!node_.ListChange(list, value, true)) return ConsoleResult::Fail(value + " already in list.");
  node_.log_.Write("Console", "Sysop added " + value + " to " + std::string(list));
  return ConsoleResult::Ok();
}

ConsoleResult NodeConsoleModel::ListRemove(std::string_view list, std::string_view item) {
  if (!ListItems(list)) return ConsoleResult::Fail("no such list");
  const std::string value = ToUpper(Trim(item));
  if (!node_.ListChange(list, value, false)) return ConsoleResult::Fail(value + " not in list.");
  node_.log_.Write("Console", "Sysop removed " + value + " from " + std::string(list));
  return ConsoleResult::Ok();
}

std::vector<ConsoleSettingsGroup> NodeConsoleModel::Settings() const {
  std::vector<ConsoleSettingsGroup> out;
  for (const GroupInfo& g : Groups()) {
    ConsoleSettingsGroup group{std::string(g.name), {}};
    for (const KeyInfo& k : g.keys) {
      group.keys.push_back(
          {std::string(k.key), node_.config_.Get(k.key), std::string(k.help), k.read_only});
    }
    out.push_back(std::move(group));
  }
  return out;
}

std::string NodeConsoleModel::ValidateSetting(std::string_view key, std::string_view value) {
  const KeyInfo* info = FindKey(key);
  if (!info) return "unknown setting";
  if (info->read_only) return "this value is kept by the node";
  if (value.find_first_of("^\r\n") != std::string_view::npos) return "no ^ or line ends";
  if (IsPortKey(key)) {
    const int port = ParseIntOr(value, 0);
    if (port < 1 || port > 65535) return "a port number from 1 to 65535";
  }
  if (IsNumberKey(key)) {
    long long n = 0;
    if (!ParseInt(Trim(value), n) || n < 0 || n > 100000000) return "a whole number, 0 or more";
  }
  if (key == "Frontend Ports") {
    const auto parts = Split(value, ',');
    if (parts.size() > 9) return "at most nine ports";
    for (std::string_view p : parts) {
      const int port = ParseIntOr(p, 0);
      if (port < 1 || port > 65535) return "ports from 1 to 65535, comma-separated";
    }
  }
  if (key == "Cluster Call") {
    std::string call(value);
    static const CallCheckContext kNoLists;
    if (!ValidCall(call, /*strict=*/false, kNoLists)) return "not a valid call sign";
  }
  if ((key == "Winsock IP" || key == "Console Address") &&
      (Trim(value).empty() || value.find(' ') != std::string_view::npos)) {
    return "an address";
  }
  return "";
}

ConsoleResult NodeConsoleModel::SaveSettings(
    const std::vector<std::pair<std::string, std::string>>& changes) {
  for (const auto& [key, value] : changes) {
    const std::string why = ValidateSetting(key, value);
    if (!why.empty()) return ConsoleResult::Fail(key + ": " + why);
  }
  for (const auto& [key, value] : changes) {
    node_.config_.Set(key, key == "Cluster Call" ? ToUpper(Trim(value)) : std::string(Trim(value)));
  }
  if (!WriteCfgFile(node_.config_, node_.dir_))
    return ConsoleResult::Fail("cannot write cluster.cfg");
  node_.ApplySettings();
  node_.log_.Write("Console", "Sysop saved " + std::to_string(changes.size()) + " settings");
  return ConsoleResult::Ok();
}

std::vector<std::string> NodeConsoleModel::LogonSections() const {
  return LogonMessages::SectionNames();
}

std::optional<std::string> NodeConsoleModel::LogonMessage(std::string_view section) const {
  for (const std::string& s : LogonMessages::SectionNames()) {
    if (s == section) return node_.messages_.Get(section);
  }
  return std::nullopt;
}

ConsoleResult NodeConsoleModel::SetLogonMessage(std::string_view section, std::string_view text) {
  if (!LogonMessage(section)) return ConsoleResult::Fail("no such section");
  node_.messages_.Set(section, text);
  if (!node_.messages_.Save(node_.dir_.Data("files") / "logon.txt")) {
    return ConsoleResult::Fail("cannot write data/files/logon.txt");
  }
  return ConsoleResult::Ok();
}

std::vector<ConsoleNode> NodeConsoleModel::DefinedNodes() const {
  std::vector<ConsoleNode> out;
  for (const NodeDefinition& n : node_.config_.nodes())
    out.push_back({n.call, n.type, n.IsLocal()});
  return out;
}

std::vector<ConsoleLink> NodeConsoleModel::Links() const {
  std::vector<ConsoleLink> out;
  for (const OutgoingConnection& o : node_.config_.outgoing()) {
    ConsoleLink l;
    l.name = o.name;
    l.remote_kind = o.remote_node_is;
    l.address = o.ip_address;
    l.port = o.Port();
    l.active = o.IsActive();
    l.state = node_.LinkState(o.name, &l.stream);
    out.push_back(std::move(l));
  }
  return out;
}

ConsoleResult NodeConsoleModel::SaveLink(const ConsoleLink& link) {
  const std::string name = ToUpper(Trim(link.name));
  if (name.empty() || name.find_first_of("^\r\n ") != std::string::npos) {
    return ConsoleResult::Fail("the name is the remote node's call");
  }
  if (link.port < 1 || link.port > 65535) return ConsoleResult::Fail("a port from 1 to 65535");
  if (Trim(link.address).empty() || link.address.find_first_of("^\r\n ") != std::string::npos) {
    return ConsoleResult::Fail("an address");
  }
  OutgoingConnection o;
  o.name = name;
  o.remote_node_is = link.remote_kind;
  o.ip_address = std::string(Trim(link.address));
  o.ip_port = std::to_string(link.port);
  o.active = link.active ? "True" : "False";
  auto& all = node_.config_.outgoing();
  bool replaced = false;
  for (OutgoingConnection& existing : all) {
    if (EqualsIgnoreCase(existing.name, name)) {
      existing = o;
      replaced = true;
    }
  }
  if (!replaced) all.push_back(o);
  if (!WriteCfgFile(node_.config_, node_.dir_))
    return ConsoleResult::Fail("cannot write cluster.cfg");
  node_.ApplySettings();
  return ConsoleResult::Ok();
}

ConsoleResult NodeConsoleModel::RemoveLink(std::string_view name) {
  auto& all = node_.config_.outgoing();
  const size_t before = all.size();
  std::erase_if(all, [&](const OutgoingConnection& o) { return EqualsIgnoreCase(o.name, name); });
  if (all.size() == before) return ConsoleResult::Fail("no such connection");
  if (!WriteCfgFile(node_.config_, node_.dir_))
    return ConsoleResult::Fail("cannot write cluster.cfg");
  node_.ApplySettings();
  return ConsoleResult::Ok();
}

ConsoleResult NodeConsoleModel::ConnectLink(std::string_view name) {
  const std::string reply = node_.LinkCommand(ToUpper(name), true);
  return ConsoleResult{true, reply};
}

ConsoleResult NodeConsoleModel::DisconnectLink(std::string_view name) {
  const std::string reply = node_.LinkCommand(ToUpper(name), false);
  return ConsoleResult{true, reply};
}

int NodeConsoleModel::MonitorView() const {
  return node_.network_ ? node_.network_->processor().options().monitor_view : kMonitorViewAll;
}

ConsoleResult NodeConsoleModel::SetMonitorView(int view) {
  if (view != kMonitorViewAll && view != kMonitorViewNodes) {
    return ConsoleResult::Fail("the monitor view is 0 (all traffic) or 1 (node traffic)");
  }
  if (!node_.network_) return ConsoleResult::Fail("the node network is not running yet");
  node_.network_->processor().set_monitor_view(view);
  return ConsoleResult::Ok();
}

namespace {

std::vector<ConsoleFeed> ConsoleFeeds(const FeedManager* feeds) {
  std::vector<ConsoleFeed> out;
  if (!feeds) return out;
  for (const FeedStatus& f : feeds->Status()) {
    ConsoleFeed c;
    c.name = f.name;
    c.type = f.type;
    c.state = f.state;
    c.lines_per_minute = f.lines_per_minute;
    c.spots_per_minute = f.spots_per_minute;
    const FeedCounts& n = f.counts;
    c.counts = {{"lines", n.lines},     {"reports", n.reports},       {"verified", n.verified},
                {"busted", n.busted},   {"unverified", n.unverified}, {"garbage", n.garbage},
                {"flooded", n.flooded}, {"accepted", n.accepted},     {"connects", n.connects},
                {"drops", n.drops}};
    out.push_back(std::move(c));
  }
  return out;
}

}  // namespace

ConsoleStats NodeConsoleModel::Statistics() const {
  ConsoleStats s;
  s.feeds = ConsoleFeeds(node_.feeds_.get());
  const SysTime now = node_.clock_.Now();
  const ClusterCounts c = node_.Counts();
  s.users = c.local_users + c.remote_users;
  s.nodes = c.nodes;
  s.spots_per_minute = node_.stats_.SpotsThisMinute(now);
  s.highest_spots_per_minute = node_.stats_.highest_per_minute();
  s.refusals = node_.stats_.refusals();
  s.pc41_counts = node_.Pc41Counts();
  s.link_peak_pending = node_.link_ ? int(node_.link_->peak_pending()) : 0;
  s.uptime_seconds = std::chrono::duration_cast<std::chrono::seconds>(now - node_.started_).count();
  s.spots_per_minute_history = node_.stats_.History(now);
  return s;
}

ConsoleMetrics NodeConsoleModel::Metrics() const {
  ConsoleMetrics m;
  m.feeds = ConsoleFeeds(node_.feeds_.get());
  const ClusterCounts c = node_.Counts();
  m.link_up = node_.link_ && node_.link_->connected();
  m.users = c.local_users;
  m.nodes = c.nodes;
  m.spots_in = node_.stats_.spots_in();
  m.spots_out = node_.stats_.spots_out();
  m.spots_filtered = node_.stats_.spots_filtered();
  m.refusals = node_.stats_.refusals();
  m.link_queue_depth = node_.link_ ? int64_t(node_.link_->queue_depth()) : 0;
  m.link_peak_pending = node_.link_ ? int64_t(node_.link_->peak_pending()) : 0;
  // Per-user output queues live in the front-end, which does not report them yet; the
  // metric stays empty rather than show a number that means something else.
  for (size_t i = 0; i < NodeStats::kDelayBounds.size(); ++i) {
    m.delay_buckets.emplace_back(NodeStats::kDelayBounds[i], node_.stats_.delay_buckets()[i]);
  }
  m.delay_count = node_.stats_.delay_count();
  m.delay_sum_seconds = node_.stats_.delay_sum_seconds();
  if (node_.link_) m.frontend = node_.link_->frontend_counters().values();
  return m;
}

std::vector<std::string> NodeConsoleModel::LogFiles() const { return logs_.List(); }

std::optional<std::vector<std::string>> NodeConsoleModel::TailLog(std::string_view name,
                                                                  size_t max_lines) const {
  return logs_.Tail(name, max_lines);
}

std::optional<std::vector<std::string>> NodeConsoleModel::SearchLog(std::string_view name,
                                                                    std::string_view needle,
                                                                    size_t max_hits) const {
  return logs_.Search(name, needle, max_hits);
}

void NodeConsoleModel::Shutdown() {
  node_.log_.Write("Console", "Shut down by the sysop");
  node_.Shutdown();
}

std::vector<ConsoleDownload> NodeConsoleModel::Downloads() const {
  std::vector<ConsoleDownload> out;
  if (!node_.downloads_) return out;
  for (const DownloadStatus& s : node_.downloads_->Status()) {
    out.push_back(ConsoleDownload{s.file, s.url, s.busy, s.outcome, s.last_success, s.next});
  }
  return out;
}

std::string NodeConsoleModel::UpdateCheckOutcome() const { return node_.UpdateOutcome(); }

ConsoleResult NodeConsoleModel::UpdateReferenceData() {
  const bool files = node_.downloads_ && node_.downloads_->Request();
  const bool program = node_.update_check_ && node_.update_check_->Request();
  if (!files && !program) return ConsoleResult::Fail("no reference file or update address is set");
  node_.log_.Write("Console", "reference data update asked for from the web console");
  return ConsoleResult::Ok();
}

}  // namespace qx
