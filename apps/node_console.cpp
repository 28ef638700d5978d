#include "apps/node_console.h"

#include <array>
#include <filesystem>

#include "apps/cluster_node.h"
#include "console/setting_check.h"
#include "console/user_directory.h"
#include "core/file_util.h"
#include "core/net_address.h"
#include "core/text_util.h"
#include "downloads/http_get.h"
#include "spots/call_sign.h"
#include "spots/intake.h"
#include "spots/spot_history.h"

namespace qx {
namespace {

// How a key is edited and checked, whether it takes effect only after a restart, and its help.
struct KeyInfo {
  std::string_view key;
  SettingKind kind;
  std::string_view help;
  bool restart = false;    // read only at start: the page says a restart is needed
  bool read_only = false;  // kept by the node itself
};

struct GroupInfo {
  std::string_view name;
  std::vector<KeyInfo> keys;
};

using K = SettingKind;

// The settings as the sysop sees them, grouped as the configuration file groups them.  Every
// key has its help line; a key whose value is read only at start says so with restart = true.
const std::vector<GroupInfo>& Groups() {
  static const std::vector<GroupInfo> kGroups = {
      {"Station and link",
       {{"Cluster Call", K::kText, "this node's call sign, with its SSID if any", true},
        {"Station Text", K::kText, "how the front-end introduces itself before the log-in"},
        {"Winsock IP", K::kIpAddress, "IP address of the link to qxfront", true},
        {"Winsock Port", K::kPort, "port of the link to qxfront", true},
        {"Winsock App Path", K::kText, "qxfront program the node starts; empty: never", true},
        {"Frontend Ports", K::kPortList, "ports for users and nodes, comma-separated, index 0-8"},
        {"Help Address", K::kUrl, "web page that HELP points to"},
        {"SSID Help Address", K::kUrl, "web page about SSIDs, shown on duplicate log-ins"}}},
      {"Web console",
       {{"Console Address", K::kIpAddress,
         "IP address this console listens on: 127.0.0.1 for this machine only", true},
        {"Console Port", K::kPort, "port of this console", true},
        {"Console Trusted Proxy", K::kSwitch,
         "True only behind your own reverse proxy on loopback that sets X-Forwarded-For", true},
        {"Console Public Address", K::kPublicSite,
         "the address browsers use behind a reverse proxy, such as https://cluster.example.org; "
         "empty: none",
         true}}},
      {"Spot history and display",
       {{"Maximum DX Spots", K::kNumber, "spots kept in memory", true},
        {"Maximum Announcements", K::kNumber, "announcements kept in memory", true},
        {"Default Display Dx", K::kNumber, "lines of SH/DX without a count"},
        {"Maximum Display Dx", K::kNumber, "most lines SH/DX gives"},
        {"Default Display Ann", K::kNumber, "lines of SH/ANN without a count"},
        {"Maximum Display Ann", K::kNumber, "most lines SH/ANN gives"},
        {"Default Display Wwv", K::kNumber, "lines of SH/WWV without a count"},
        {"Maximum Display Wwv", K::kNumber, "most lines SH/WWV gives"}}},
      {"Spot rates",
       {{"NewMaxSpotsPerMin", K::kNumber, "spots per minute the node takes; 0: no limit"},
        {"NewMaxSpotsPerMinPerDx", K::kNumber, "spots per minute for one DX call; 0: no limit"},
        {"NewMaxSpotsPerMinPerSpotter", K::kNumber,
         "spots per minute from one spotter; 0: no limit"},
        {"HighestSpotsPerMin", K::kNumber, "highest rate seen, kept by the node", false, true},
        {"HighestSpotsPerMinPerDx", K::kNumber, "highest rate seen, kept by the node", false, true},
        {"HighestSpotsPerMinPerSpotter", K::kNumber, "highest rate seen, kept by the node", false,
         true}}},
      {"Behaviour",
       {{"Connection Retry", K::kNumber, "seconds between attempts of an outgoing node connection"},
        {"Get WWV", K::kSwitch, "fetch solar and geomagnetic reports from the web"},
        {"Stream Requires Login", K::kSwitch,
         "programs' JSON streams and polls only for users who give call and password"},
        {"Stream Replay Max", K::kNumber,
         "most spots a resuming JSON stream is sent (100 to 200000); older ones are told as a "
         "gap"},
        {"PC9x Data", K::kSwitch, "kept in cluster.cfg; not used by this version"},
        {"Auto Start", K::kSwitch, "kept in cluster.cfg; not used by this version"},
        {"IP Required", K::kSwitch, "kept in cluster.cfg; not used by this version"},
        {"Mail Purge", K::kNumber, "days mail is kept; 0: until deleted"},
        {"Modes", K::kText, "kept in cluster.cfg; not used by this version"},
        {"MaxMem", K::kNumber,
         "memory ceiling in MB of resident memory: near it the node sheds the oldest spots "
         "kept in memory; 0: none"},
        {"Log Days", K::kNumber, "days of daily logs kept under data/ (today included); 0: all"},
        {"Auto Update", K::kSwitch, "True: check daily for a newer program (never installed)"},
        {"Last Version Reported", K::kText, "newest program version already told about", false,
         true}}},
      {"Reference data",
       {{"Country File URL", K::kUrl, "where cty_wt_mod.dat is fetched from; empty: never"},
        {"Known Calls URL", K::kUrl, "where MASTER.SCP is fetched from; empty: never"},
        {"Download Files", K::kText,
         "further files, comma-separated: address, or file=address (needed for a zip)"},
        {"Download Hours", K::kNumber, "hours between checks; 0: only when asked", true},
        {"Update URL", K::kUrl, "where the newest program version is read"}}},
      {"Connection limits (applied when qxfront restarts)",
       {{"Max Connections", K::kNumber, "connections qxfront holds in all; 0: no limit", true},
        {"Max Connections Per Address", K::kNumber, "connections from one address; 0: no limit",
         true},
        {"Max Connects Per Minute", K::kNumber,
         "new connections from one address in a minute; more are refused; 0: no limit", true},
        {"Login Timeout", K::kNumber, "seconds a new connection has to log in; 0: no limit", true},
        {"WebSocket Port", K::kPortOrOff,
         "port where programs get spots as JSON (WebSocket /stream, HTTP /spots); 0: none", true},
        {"WebSocket Max Per Address", K::kNumber, "WebSocket streams from one address; 0: no limit",
         true},
        {"Frontend Threads", K::kNumber,
         "threads qxfront spreads connections over; 0: one per core", true}}},
      {"Skimmer and reporter feeds",
       {{"Skimmer Dupes Not Allowed", K::kSwitch, "drop a skimmer spot seen again soon"},
        {"Skimmer CW Spots Verified", K::kSwitch, "pass CW skimmer spots only once confirmed"},
        {"Skimmer Data Spots Verified", K::kSwitch,
         "pass data-mode skimmer spots only once confirmed"},
        {"Skimmer VHF UHF Spots Verified", K::kSwitch,
         "pass VHF and UHF skimmer spots only once confirmed"},
        {"Feed Stall Seconds", K::kNumber,
         "a feed that sends nothing this long is cut and called again"},
        {"Feed Max Lines Per Second", K::kNumber,
         "lines a second taken from one feed; the rest are dropped and counted"},
        {"Feed Flood Seconds", K::kNumber,
         "a feed over the line limit this long is cut and called again"},
        {"FT8 URL", K::kText, "the digital-mode reporter server (host name); empty: off"},
        {"FT8 Port", K::kPort, "port of the digital-mode reporter server"}}},
  };
  return kGroups;
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
  for (const SysopFile& f : SysopFiles()) names.emplace_back(f.list);
  return names;
}

std::optional<std::vector<std::string>> NodeConsoleModel::ListItems(std::string_view list) const {
  if (const SysopFile* f = FindSysopFile(list)) {
    const auto text = ReadFileText(FilePath(*f));
    return SysopFileEntries(f->kind, text ? *text : std::string());
  }
  const ConfigList* l = node_.config_.FindList(list);
  bool known = false;
  for (const std::string& n : Config::ListNames()) known = known || n == list;
  if (!known) return std::nullopt;
  if (!l) return std::vector<std::string>{};
  return l->items;
}

namespace {

// A configuration list item: one call or address (a node list item may add its type).
std::string CheckListItem(std::string_view item, std::string* value) {
  *value = ToUpper(Trim(item));
  if (value->empty() || value->find_first_of("^\r\n,") != std::string::npos) {
    return "an item is one call or address, without ^ or commas";
  }
  return "";
}

}  // namespace

ConsoleResult NodeConsoleModel::ListAdd(std::string_view list, std::string_view item) {
  if (const SysopFile* f = FindSysopFile(list)) {
    const ConsoleImport r = ImportIntoFile(*f, {std::string(item)}, "");
    if (!r.error.empty()) return ConsoleResult::Fail(r.error);
    if (!r.refused.empty()) return ConsoleResult::Fail(r.refused.front());
    if (r.added == 0) return ConsoleResult::Fail(ToUpper(Trim(item)) + " already in list.");
    return ConsoleResult::Ok();
  }
  if (!ListItems(list)) return ConsoleResult::Fail("no such list");
  std::string value;
  if (std::string why = CheckListItem(item, &value); !why.empty()) {
    return ConsoleResult::Fail(why);
  }
  if (!node_.ListChange(list, value, true)) return ConsoleResult::Fail(value + " already in list.");
  node_.log_.Write("Console", "Sysop added " + value + " to " + std::string(list));
  return ConsoleResult::Ok();
}

ConsoleResult NodeConsoleModel::ListRemove(std::string_view list, std::string_view item) {
  if (const SysopFile* f = FindSysopFile(list)) {
    const auto text = ReadFileText(FilePath(*f));
    bool removed = false;
    const std::string next =
        RemoveSysopEntry(f->kind, text ? *text : std::string(), item, &removed);
    const std::string value = ToUpper(Trim(item));
    if (!removed) return ConsoleResult::Fail(value + " not in list.");
    if (!WriteSysopFile(*f, next)) {
      return ConsoleResult::Fail("cannot write data/files/" + std::string(f->file));
    }
    node_.log_.Write("Console", "Sysop removed " + value + " from " + std::string(f->title));
    return ConsoleResult::Ok();
  }
  if (!ListItems(list)) return ConsoleResult::Fail("no such list");
  const std::string value = ToUpper(Trim(item));
  if (!node_.ListChange(list, value, false)) return ConsoleResult::Fail(value + " not in list.");
  node_.log_.Write("Console", "Sysop removed " + value + " from " + std::string(list));
  return ConsoleResult::Ok();
}

ConsoleImport NodeConsoleModel::ListImport(std::string_view list, std::string_view pasted) {
  if (const SysopFile* f = FindSysopFile(list)) {
    return ImportIntoFile(*f, SplitImport(f->kind, pasted), "a pasted list");
  }
  ConsoleImport out;
  if (!ListItems(list)) {
    out.error = "no such list";
    return out;
  }
  // Every item is checked first; the list file and cluster.cfg are written once.
  ConfigList& l = node_.config_.List(list);
  std::vector<std::string> added;
  for (const std::string& item : SplitListItems(pasted)) {
    std::string value;
    if (std::string why = CheckListItem(item, &value); !why.empty()) {
      out.refused.push_back(item + ": " + why);
    } else if (l.Add(value)) {
      added.push_back(value);
    } else {
      ++out.already;
    }
  }
  out.added = added.size();
  if (!added.empty()) {
    WriteListFile(node_.dir_, list, l);
    WriteCfgFile(node_.config_, node_.dir_);
    node_.ApplyLists();
    node_.log_.Write("Console", "Sysop added " + std::to_string(added.size()) + " to " +
                                    std::string(list) +
                                    " from a pasted list: " + Join(added, ", ").substr(0, 400));
  }
  return out;
}

std::filesystem::path NodeConsoleModel::FilePath(const SysopFile& f) const {
  return node_.dir_.Data("files") / std::string(f.file);
}

bool NodeConsoleModel::WriteSysopFile(const SysopFile& f, std::string_view text) {
  const auto path = FilePath(f);
  if (!AtomicWriteFile(path, text)) return false;
  if (f.list == "BadWords") {
    node_.bad_lists_.SetBadWordsText(text);
  } else if (f.list == "IpNotOk") {
    node_.bad_lists_.LoadRefusedAddresses(path);
  } else if (f.list == "TorList") {
    node_.bad_lists_.LoadTorAddresses(path);
  } else if (f.list == "SpecialCalls") {
    node_.access_.LoadFiles(node_.dir_.Data("files"));
  }
  return true;
}

ConsoleImport NodeConsoleModel::ImportIntoFile(const SysopFile& f,
                                               const std::vector<std::string>& candidates,
                                               std::string_view source) {
  ConsoleImport out;
  const auto text = ReadFileText(FilePath(f));
  ImportOutcome outcome;
  const std::string next =
      AddSysopEntries(f.kind, text ? *text : std::string(), candidates, &outcome);
  out.already = outcome.already;
  out.refused = std::move(outcome.refused);
  out.added = outcome.added.size();
  if (outcome.added.empty()) return out;
  if (!WriteSysopFile(f, next)) {
    out.error = "cannot write data/files/" + std::string(f.file);
    out.added = 0;
    return out;
  }
  std::string what = outcome.added.size() == 1 ? outcome.added.front()
                                               : std::to_string(outcome.added.size()) + " entries";
  std::string line = "Sysop added " + what + " to " + std::string(f.title);
  if (!source.empty()) line += " from " + std::string(source);
  node_.log_.Write("Console", line);
  return out;
}

bool NodeConsoleModel::ListFetchable(std::string_view list) const { return list == "TorList"; }

ConsoleResult NodeConsoleModel::ListFetch(std::string_view list, std::string_view url) {
  if (!ListFetchable(list)) return ConsoleResult::Fail("this list is not loaded from an address");
  Url parsed;
  if (!ParseUrl(Trim(url), parsed)) {
    return ConsoleResult::Fail("an address beginning with http:// or https://");
  }
  const std::string name(list);
  if (fetching_[name]) return ConsoleResult::Fail("a download for this list is under way");
  fetching_[name] = true;
  notes_[name] = "Loading " + std::string(Trim(url)) + " ...";
  node_.log_.Write("Console",
                   "Sysop asked for " + name + " to be loaded from " + std::string(Trim(url)));
  HttpGetRequest request;
  request.url = std::string(Trim(url));
  request.max_body = 8 * 1024 * 1024;  // a published exit list is a few hundred kilobytes
  HttpGet(node_.io_, std::move(request),
          [this, alive = alive_, name, source = std::string(Trim(url))](HttpGetResult res) {
            if (!*alive) return;
            fetching_[name] = false;
            const SysopFile* f = FindSysopFile(name);
            if (res.status != 200) {
              notes_[name] = "Loading " + source + " failed: " +
                             (res.status ? "HTTP " + std::to_string(res.status) : res.error);
              node_.log_.Write("Console", notes_[name]);
              return;
            }
            const std::vector<std::string> candidates = SplitImport(f->kind, res.body);
            const ConsoleImport r = ImportIntoFile(*f, candidates, source);
            notes_[name] = r.error.empty()
                               ? "Loaded " + source + " at " + TimeHHnnZ(node_.clock_.Now()) +
                                     ": " + std::to_string(r.added) + " new, " +
                                     std::to_string(r.already) + " already listed, " +
                                     std::to_string(r.refused.size()) + " not addresses"
                               : "Loading " + source + " failed: " + r.error;
            if (!r.error.empty()) node_.log_.Write("Console", notes_[name]);
          });
  return ConsoleResult::Ok();
}

std::string NodeConsoleModel::ListNote(std::string_view list) const {
  const auto it = notes_.find(list);
  return it == notes_.end() ? std::string() : it->second;
}

// Passwords --------------------------------------------------------------------------------

std::vector<ConsolePassword> NodeConsoleModel::PasswordCalls() const {
  std::vector<ConsolePassword> out;
  for (const PasswordRow& row : node_.access_.passwords) out.push_back({row.call, row.level});
  return out;
}

bool NodeConsoleModel::WritePasswords(std::string_view text) {
  const auto path = node_.dir_.Data("files") / "passwords.dat";
  if (!AtomicWriteFile(path, text)) return false;
  // The file holds passwords as typed: only the node's own account may read it.
  std::error_code ec;
  std::filesystem::permissions(
      path, std::filesystem::perms::owner_read | std::filesystem::perms::owner_write,
      std::filesystem::perm_options::replace, ec);
  node_.access_.LoadFiles(node_.dir_.Data("files"));
  return true;
}

ConsoleResult NodeConsoleModel::SetPassword(std::string_view call, std::string_view password,
                                            int level) {
  const CheckedEntry checked = CheckSysopEntry(SysopFileKind::kCalls, call);
  if (!checked.error.empty()) return ConsoleResult::Fail(checked.error);
  if (password.empty() || password.find_first_of("^\r\n") != std::string_view::npos) {
    return ConsoleResult::Fail("a password is one line without ^");
  }
  if (level < 0 || level > 9) return ConsoleResult::Fail("the level is a number from 0 to 9");
  const auto text = ReadFileText(node_.dir_.Data("files") / "passwords.dat");
  const std::string next =
      AccessLists::SetPasswordRow(text ? *text : std::string(), checked.entry, password, level);
  if (!WritePasswords(next)) return ConsoleResult::Fail("cannot write data/files/passwords.dat");
  node_.log_.Write("Console", "Sysop set the password of " + checked.entry + " (level " +
                                  std::to_string(level) + ")");
  return ConsoleResult::Ok();
}

ConsoleResult NodeConsoleModel::RemovePassword(std::string_view call) {
  const std::string upper = ToUpper(Trim(call));
  const auto text = ReadFileText(node_.dir_.Data("files") / "passwords.dat");
  bool removed = false;
  const std::string next =
      AccessLists::RemovePasswordRows(text ? *text : std::string(), upper, &removed);
  if (!removed) return ConsoleResult::Fail(upper + " has no password");
  if (!WritePasswords(next)) return ConsoleResult::Fail("cannot write data/files/passwords.dat");
  node_.log_.Write("Console", "Sysop removed the password of " + upper);
  return ConsoleResult::Ok();
}

// Users ------------------------------------------------------------------------------------

ConsoleUser NodeConsoleModel::UserSummary(const std::string& call, const std::string& text) const {
  ConsoleUser u;
  u.call = call;
  SessionSettings s;
  ApplyUserRecord(text, 0, s);
  u.name = std::string(DisplayName(s));
  u.qth = s.qth;
  const UserRecordView view = ViewUserRecord(text);
  u.last_login = view.last_login;
  u.spots = view.spots;
  u.locked_out = node_.access_.IsLockedOut(call);
  const std::string file = UserFileName(call);
  const StreamTable& t = node_.streams_;
  for (int st = 1; st <= t.high_socket() && !u.stream; ++st) {
    const StreamEntry& e = t.at(st);
    if (e.IsUser() && UserFileName(e.call) == file) u.stream = st;
  }
  return u;
}

ConsoleUserPage NodeConsoleModel::Users(std::string_view query, size_t offset, size_t limit) const {
  std::vector<std::string> calls;
  std::error_code ec;
  for (const auto& e : std::filesystem::directory_iterator(node_.dir_.Data("user"), ec)) {
    if (e.path().extension() != ".dat") continue;
    calls.push_back(CallFromUserFileName(e.path().stem().string()));
  }
  std::sort(calls.begin(), calls.end());
  const CallPage page = PageOfCalls(calls, query, offset, limit);
  ConsoleUserPage out;
  out.total = page.total;
  out.offset = page.offset;
  for (const std::string& call : page.calls) {
    const auto text = ReadFileText(node_.store_.LocalPath(call));
    out.users.push_back(UserSummary(call, text ? *text : std::string()));
  }
  return out;
}

std::optional<ConsoleUserDetail> NodeConsoleModel::User(std::string_view call) const {
  const std::string upper = ToUpper(Trim(call));
  if (UserFileName(upper).empty()) return std::nullopt;
  const auto text = ReadFileText(node_.store_.LocalPath(upper));
  if (!text) return std::nullopt;
  ConsoleUserDetail d;
  d.user = UserSummary(CallFromUserFileName(UserFileName(upper)), *text);
  UserRecordView view = ViewUserRecord(*text);
  d.settings = std::move(view.settings);
  d.filters = std::move(view.filters);
  return d;
}

ConsoleResult NodeConsoleModel::SetUserLockedOut(std::string_view call, bool locked) {
  const std::string base = ToUpper(BaseCall(Trim(call)));
  if (UserFileName(base).empty()) return ConsoleResult::Fail("not a call");
  const bool changed = node_.ListChange("LockOuts", base, locked);
  int closed = 0;
  if (locked) {
    // The lock-out counts from the next log-in; whoever is on now goes at once.
    const std::string file = UserFileName(base);
    for (int s = 1; s <= node_.streams_.high_socket(); ++s) {
      const StreamEntry& e = node_.streams_.at(s);
      if (e.IsUser() && UserFileName(e.call) == file) {
        node_.CloseStream(s);
        ++closed;
      }
    }
  }
  if (!changed && closed == 0) {
    return ConsoleResult::Fail(base + (locked ? " is already locked out" : " is not locked out"));
  }
  std::string line = locked ? "Sysop locked out " + base : "Sysop lifted the lock-out of " + base;
  if (closed) line += " and disconnected " + std::to_string(closed) + " stream(s)";
  node_.log_.Write("Console", line);
  return ConsoleResult::Ok();
}

std::vector<ConsoleSettingsGroup> NodeConsoleModel::Settings() const {
  std::vector<ConsoleSettingsGroup> out;
  for (const GroupInfo& g : Groups()) {
    ConsoleSettingsGroup group{std::string(g.name), {}};
    for (const KeyInfo& k : g.keys) {
      group.keys.push_back({std::string(k.key), node_.config_.Get(k.key), std::string(k.help),
                            k.read_only, std::string(SettingKindName(k.kind)), k.restart});
    }
    out.push_back(std::move(group));
  }
  return out;
}

std::string NodeConsoleModel::ValidateSetting(std::string_view key, std::string_view value) {
  const KeyInfo* info = FindKey(key);
  if (!info) return "unknown setting";
  if (info->read_only) return "this value is kept by the node";
  // The reporter feed is off while its port is empty.
  if (key == "FT8 Port" && Trim(value).empty()) return "";
  std::string why = CheckSettingValue(info->kind, value);
  if (!why.empty()) return why;
  if (key == "Cluster Call") {
    std::string call(Trim(value));
    static const CallCheckContext kNoLists;
    if (!ValidCall(call, /*strict=*/false, kNoLists)) return "not a valid call sign";
  }
  return "";
}

ConsoleResult NodeConsoleModel::SaveSettings(
    const std::vector<std::pair<std::string, std::string>>& changes) {
  for (const auto& [key, value] : changes) {
    const std::string why = ValidateSetting(key, value);
    if (!why.empty()) return ConsoleResult::Fail(key + ": " + why);
  }
  std::vector<std::string> audit;
  for (const auto& [key, value] : changes) {
    std::string v(Trim(value));
    if (key == "Cluster Call") v = ToUpper(v);
    // Switches are written the way the file has always spelled them.
    if (FindKey(key)->kind == SettingKind::kSwitch) {
      v = EqualsIgnoreCase(v, "True") ? "True" : "False";
    }
    const std::string old = node_.config_.Get(key);
    if (old != v) audit.push_back(SettingChangeText(key, old, v));
    node_.config_.Set(key, std::move(v));
  }
  if (!WriteCfgFile(node_.config_, node_.dir_))
    return ConsoleResult::Fail("cannot write cluster.cfg");
  node_.ApplySettings();
  for (const std::string& line : audit) node_.log_.Write("Console", line);
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
  node_.log_.Write("Console", "Sysop changed the log-on message " + std::string(section));
  return ConsoleResult::Ok();
}

std::vector<ConsoleNode> NodeConsoleModel::DefinedNodes() const {
  std::vector<ConsoleNode> out;
  for (const NodeDefinition& n : node_.config_.nodes()) {
    bool has_password = false;
    for (const PasswordRow& row : node_.access_.passwords) {
      has_password = has_password || EqualsIgnoreCase(row.call, Trim(n.call));
    }
    out.push_back({n.call, n.type, n.IsLocal(), n.addresses, has_password});
  }
  return out;
}

ConsoleResult NodeConsoleModel::SaveNode(const ConsoleNode& node, std::string_view password) {
  std::string call = ToUpper(Trim(node.call));
  static const CallCheckContext kNoLists;
  if (!ValidCall(call, /*strict=*/false, kNoLists)) {
    return ConsoleResult::Fail(std::string(Trim(node.call)) + " is not a call");
  }
  std::string type = ToUpper(Trim(node.type));
  if (type.empty()) type = "QXC";
  if (type.size() > 8 || !std::all_of(type.begin(), type.end(), [](char c) {
        return std::isalnum(static_cast<unsigned char>(c));
      })) {
    return ConsoleResult::Fail("the type is one word: QXC, DXS, ARC, SUM, SKM, ...");
  }
  AddressList addresses;
  std::string bad;
  if (!addresses.Add(node.addresses, &bad)) {
    return ConsoleResult::Fail("not an address or network: " + bad);
  }
  // A defined node with neither its addresses nor a password is refused at log-in; the
  // address of an outgoing connection to it counts as one of its addresses.
  bool has_password = !password.empty();
  for (const PasswordRow& row : node_.access_.passwords) has_password |= row.call == call;
  bool called = false;
  for (const OutgoingConnection& o : node_.config_.outgoing()) {
    called |= EqualsIgnoreCase(Trim(o.name), call);
  }
  if (addresses.empty() && !has_password && !called) {
    return ConsoleResult::Fail("give " + call +
                               "'s addresses or a password: a node with neither cannot log in");
  }
  NodeDefinition def;
  def.call = call;
  def.type = type;
  def.local = node.local ? "True" : "False";
  def.addresses = std::string(Trim(node.addresses));
  if (!password.empty()) {
    int level = 0;
    for (const PasswordRow& row : node_.access_.passwords) {
      if (row.call == call) level = row.level;
    }
    const ConsoleResult r = SetPassword(call, password, level);
    if (!r.ok) return r;
  }
  auto& all = node_.config_.nodes();
  bool replaced = false;
  for (NodeDefinition& existing : all) {
    if (EqualsIgnoreCase(Trim(existing.call), call)) {
      existing = def;
      replaced = true;
    }
  }
  if (!replaced) all.push_back(def);
  if (!WriteCfgFile(node_.config_, node_.dir_)) {
    return ConsoleResult::Fail("cannot write cluster.cfg");
  }
  node_.ApplySettings();
  node_.log_.Write("Console", std::string("Sysop ") + (replaced ? "changed" : "defined") +
                                  " node " + call + " (" + type +
                                  (def.addresses.empty() ? "" : ", from " + def.addresses) +
                                  (password.empty() ? "" : ", password set") + ")");
  return ConsoleResult::Ok();
}

ConsoleResult NodeConsoleModel::RemoveNode(std::string_view call) {
  auto& all = node_.config_.nodes();
  const size_t before = all.size();
  std::erase_if(
      all, [&](const NodeDefinition& n) { return EqualsIgnoreCase(Trim(n.call), Trim(call)); });
  if (all.size() == before) return ConsoleResult::Fail("no such node");
  if (!WriteCfgFile(node_.config_, node_.dir_)) {
    return ConsoleResult::Fail("cannot write cluster.cfg");
  }
  // The node's password goes with it: a row left behind would still let the call log in
  // with it (as a user) and would come back unasked if the node were defined again.
  const std::string upper = ToUpper(Trim(call));
  const auto text = ReadFileText(node_.dir_.Data("files") / "passwords.dat");
  bool password_removed = false;
  const std::string next =
      AccessLists::RemovePasswordRows(text ? *text : std::string(), upper, &password_removed);
  if (password_removed && !WritePasswords(next)) {
    return ConsoleResult::Fail("cannot write data/files/passwords.dat");
  }
  node_.ApplySettings();
  node_.log_.Write("Console",
                   "Sysop removed node " + upper + (password_removed ? " and its password" : ""));
  return ConsoleResult::Ok();
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
    const auto error = node_.link_errors_.find(ToUpper(o.name));
    if (error != node_.link_errors_.end()) {
      // Once the link is up the old failure is history.
      if (l.state == "connected") {
        node_.link_errors_.erase(error);
      } else {
        l.last_error = error->second;
      }
    }
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
  node_.log_.Write("Console", std::string("Sysop ") + (replaced ? "changed" : "added") +
                                  " outgoing connection " + name + " to " + o.ip_address + ":" +
                                  o.ip_port + (link.active ? " (active)" : " (not active)"));
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
  node_.log_.Write("Console", "Sysop removed outgoing connection " + ToUpper(Trim(name)));
  return ConsoleResult::Ok();
}

ConsoleResult NodeConsoleModel::ConnectLink(std::string_view name) {
  node_.log_.Write("Console", "Sysop asked to connect " + ToUpper(name));
  const std::string reply = node_.LinkCommand(ToUpper(name), true);
  return ConsoleResult{true, reply};
}

ConsoleResult NodeConsoleModel::DisconnectLink(std::string_view name) {
  node_.log_.Write("Console", "Sysop asked to disconnect " + ToUpper(name));
  const std::string reply = node_.LinkCommand(ToUpper(name), false);
  return ConsoleResult{true, reply};
}

namespace {

ConsoleSpot RowOf(const Spot& s, const BandTable& bands, SysTime time) {
  ConsoleSpot row;
  row.time = time;
  row.frequency_khz = s.FrequencyKHz;
  if (const BandRange* band = bands.Find(s.FrequencyKHz)) row.band = std::string(band->name);
  row.dx = std::string(s.dx_call());
  row.spotter = std::string(s.spotter());
  row.comment = std::string(s.comment());
  row.origin = std::string(s.origin_node());
  row.source = CollapseBlanks(s.SourceTag);  // "DX  Cluster" lines up in a user's column
  return row;
}

}  // namespace

std::vector<ConsoleSpot> NodeConsoleModel::SpotsOfDay(SysTime day) const {
  std::vector<ConsoleSpot> rows;
  if (!node_.history_) return rows;
  for (const Spot& s : node_.history_->ReadDay(day, node_.bands_)) {
    rows.push_back(RowOf(s, node_.bands_, s.received));
  }
  return rows;
}

std::vector<ConsoleSpot> NodeConsoleModel::RecentRefusals() const {
  std::vector<ConsoleSpot> rows;
  if (!node_.intake_) return rows;
  for (const SpotRefusal* r : node_.intake_->RecentRefusals()) {
    ConsoleSpot row = RowOf(r->spot, node_.bands_, r->time);
    row.refused = true;
    row.reason = std::string(VerdictName(r->verdict));
    row.rule = r->rule;
    rows.push_back(std::move(row));
  }
  return rows;
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
  s.link_spots_shed = node_.link_ ? int64_t(node_.link_->spots_shed()) : 0;
  s.link_spots_waiting = node_.link_ ? int64_t(node_.link_->spots_waiting()) : 0;
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
  m.link_spots_shed = node_.link_ ? int64_t(node_.link_->spots_shed()) : 0;
  m.link_spots_waiting = node_.link_ ? int64_t(node_.link_->spots_waiting()) : 0;
  m.link_fanout_messages = node_.link_ ? int64_t(node_.link_->fanout_messages()) : 0;
  m.link_fanout_lines = node_.link_ ? int64_t(node_.link_->fanout_lines()) : 0;
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

ConsoleMail NodeConsoleModel::MailRow(const MailMessage& m,
                                      const std::vector<MailForwarder::Pending>& pending) const {
  ConsoleMail c;
  c.number = m.number;
  c.from = m.from;
  c.to = m.to;
  c.subject = m.subject;
  c.time = m.time;
  c.is_private = m.is_private;
  c.read = m.read;
  c.origin = m.origin;
  c.received_from = m.received_from;
  c.bound_for = m.bound_for;
  for (const std::string& n : m.forwarded_to) c.forwards.push_back({n, "acknowledged", 0});
  for (const MailForwarder::Pending& p : pending) {
    if (p.number != m.number) continue;
    const char* state = p.state == MailForwarder::Pending::State::kSending   ? "sending"
                        : p.state == MailForwarder::Pending::State::kGivenUp ? "given up"
                                                                             : "queued";
    c.forwards.push_back({p.peer, state, p.attempts});
  }
  // Private mail for another node that is not on its way anywhere waits for a route.
  if (!m.bound_for.empty() && c.forwards.empty()) c.waiting = "no route to " + m.bound_for;
  return c;
}

std::vector<ConsoleMail> NodeConsoleModel::MailList() const {
  std::vector<ConsoleMail> out;
  if (!node_.mail_store_) return out;
  const std::vector<MailForwarder::Pending> pending = node_.mail_forwarder_
                                                          ? node_.mail_forwarder_->PendingForwards()
                                                          : std::vector<MailForwarder::Pending>{};
  for (const auto& [number, m] : node_.mail_store_->index()) {
    if (!m.deleted) out.push_back(MailRow(m, pending));
  }
  return out;
}

std::optional<ConsoleMail> NodeConsoleModel::MailRead(int number) const {
  MailMessage m;
  if (!node_.mail_store_ || !node_.mail_store_->ReadFull(number, m) || m.deleted) {
    return std::nullopt;
  }
  ConsoleMail c = MailRow(m, node_.mail_forwarder_ ? node_.mail_forwarder_->PendingForwards()
                                                   : std::vector<MailForwarder::Pending>{});
  c.text = std::move(m.text);
  return c;
}

ConsoleResult NodeConsoleModel::MailDelete(int number) {
  const MailMessage* m = node_.mail_store_ ? node_.mail_store_->Find(number) : nullptr;
  if (!m || m->deleted) return ConsoleResult::Fail("no message " + std::to_string(number));
  // Marked like a user's KILL: the forwarder no longer offers it, the next purge removes it.
  if (!node_.mail_store_->Modify(number, [](MailMessage& x) { x.deleted = true; })) {
    return ConsoleResult::Fail("message " + std::to_string(number) + " could not be rewritten");
  }
  node_.log_.Write("Mail", "message " + std::to_string(number) + " deleted from the console");
  return ConsoleResult::Ok();
}

ConsoleResult NodeConsoleModel::MailRequeue(int number) {
  const MailMessage* m = node_.mail_store_ ? node_.mail_store_->Find(number) : nullptr;
  if (!m || m->deleted) return ConsoleResult::Fail("no message " + std::to_string(number));
  if (!node_.mail_forwarder_ || !node_.mail_forwarder_->Requeue(number, node_.clock_.Now())) {
    return ConsoleResult::Fail(
        m->bound_for.empty() || !m->is_private
            ? "message " + std::to_string(number) + " is due on no link that is up"
            : "message " + std::to_string(number) + " has no route to " + m->bound_for + " yet");
  }
  return ConsoleResult::Ok();
}

ConsoleResult NodeConsoleModel::Restart() {
  node_.Restart();  // logs the request itself
  return ConsoleResult::Ok();
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
