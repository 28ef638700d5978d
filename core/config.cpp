#include "core/config.h"

#include <sys/stat.h>

#include <algorithm>
#include <optional>
#include <system_error>
#include <unordered_map>

#include "core/file_util.h"
#include "core/text_util.h"

namespace qx {
namespace {

enum class EntryKind { kSingle, kNodeGroup, kOutgoingGroup, kFeedGroup };

struct KeyEntry {
  EntryKind kind;
  const char* name;
  const char* default_value;
};

constexpr const char* kListHeader = "[Form.Top, .Left, .Height, .Width]";
constexpr const char* kItemsHeader = "[Items]";

// Window keys of one sysop list window: Top, Left, Width, Height.
#define QX_WINDOW(prefix)                                                              \
  {EntryKind::kSingle, prefix " Top", "0"}, {EntryKind::kSingle, prefix " Left", "0"}, \
      {EntryKind::kSingle, prefix " Width", "3000"}, {                                 \
    EntryKind::kSingle, prefix " Height", "4000"                                       \
  }

// The main file in write order.  The group entries stand where their lines go.
const std::vector<KeyEntry>& KeyTable() {
  static const std::vector<KeyEntry> table = {
      // Station and link.
      {EntryKind::kSingle, "Cluster Call", "XX0QX-1"},
      {EntryKind::kSingle, "Winsock IP", "127.0.0.1"},
      {EntryKind::kSingle, "Winsock Port", "7399"},
      {EntryKind::kSingle, "Winsock Top", "0"},
      {EntryKind::kSingle, "Winsock Left", "0"},
      {EntryKind::kSingle, "Winsock App Path", "qxfront"},
      // Main window and display.
      {EntryKind::kSingle, "Top", "0"},
      {EntryKind::kSingle, "Left", "0"},
      {EntryKind::kSingle, "Height", "9000"},
      {EntryKind::kSingle, "Width", "12000"},
      {EntryKind::kSingle, "Raw Height", "4000"},
      {EntryKind::kSingle, "Font", "Courier New"},
      {EntryKind::kSingle, "XPstyle", "False"},
      {EntryKind::kSingle, "Raw Window Monitor", "True"},
      {EntryKind::kSingle, "Maximum DX Spots", "5000"},
      {EntryKind::kSingle, "Maximum Announcements", "1000"},
      {EntryKind::kSingle, "Maximum Display Dx", "100"},
      {EntryKind::kSingle, "Maximum Display Ann", "100"},
      {EntryKind::kSingle, "Maximum Display Wwv", "100"},
      {EntryKind::kSingle, "Default Display Dx", "30"},
      {EntryKind::kSingle, "Default Display Ann", "5"},
      {EntryKind::kSingle, "Default Display Wwv", "5"},
      {EntryKind::kSingle, "Maximum Top", "0"},
      {EntryKind::kSingle, "Maximum Left", "0"},
      {EntryKind::kSingle, "Conflict Top", "0"},
      {EntryKind::kSingle, "Conflict Height", "4000"},
      {EntryKind::kSingle, "Conflict Left", "0"},
      {EntryKind::kSingle, "Conflict Width", "6000"},
      // Windows of the sysop lists.
      QX_WINDOW("Outgoing Connections"),
      QX_WINDOW("Local Nodes"),
      QX_WINDOW("Nodes"),
      QX_WINDOW("AnnNok"),
      QX_WINDOW("BadNode"),
      QX_WINDOW("SpotterNok"),
      QX_WINDOW("LocalBadIp"),
      QX_WINDOW("SkimmerNok"),
      QX_WINDOW("SkimmerDoNotVerify"),
      QX_WINDOW("DxNok"),
      QX_WINDOW("SkimmerDxNok"),
      QX_WINDOW("Lock Outs"),
      QX_WINDOW("Bulletin"),
      {EntryKind::kSingle, "PC9x Top", "0"},
      {EntryKind::kSingle, "PC9x Left", "0"},
      {EntryKind::kSingle, "PC9x Display Width", "6000"},
      {EntryKind::kSingle, "Update Top", "0"},
      {EntryKind::kSingle, "Update Left", "0"},
      {EntryKind::kSingle, "Logon Top", "0"},
      {EntryKind::kSingle, "Logon Left", "0"},
      {EntryKind::kSingle, "Mail Rx Top", "0"},
      {EntryKind::kSingle, "Mail Rx Left", "0"},
      {EntryKind::kSingle, "Mail Rx Height", "4000"},
      {EntryKind::kSingle, "Mail Tx Top", "0"},
      {EntryKind::kSingle, "Mail Tx Left", "0"},
      {EntryKind::kSingle, "Mail Tx Height", "4000"},
      // Behaviour.
      {EntryKind::kSingle, "Connection Retry", "60"},
      {EntryKind::kSingle, "Get WWV", "True"},
      {EntryKind::kSingle, "PC9x Data", "True"},
      {EntryKind::kSingle, "Bulletin Addresses", ""},
      {EntryKind::kSingle, "Locked Out", ""},
      {EntryKind::kSingle, "SkimmerDxNok", ""},
      {EntryKind::kSingle, "DxNok", ""},
      {EntryKind::kSingle, "SkimmerDoNotVerify", ""},
      {EntryKind::kSingle, "SkimmerNok", ""},
      {EntryKind::kSingle, "LocalBadIp", ""},
      {EntryKind::kSingle, "SpotterNok", ""},
      {EntryKind::kSingle, "BadNode", ""},
      {EntryKind::kSingle, "AnnNok", ""},
      {EntryKind::kNodeGroup, "Node Call & Node Type", ""},
      {EntryKind::kOutgoingGroup, "Outgoing Cluster", ""},
      {EntryKind::kFeedGroup, "Feed Name", ""},
      {EntryKind::kSingle, "Logon 1", ""},
      {EntryKind::kSingle, "Logon 2", ""},
      {EntryKind::kSingle, "Logon 4", ""},
      {EntryKind::kSingle, "Log Out", ""},
      {EntryKind::kSingle, "Logon Port 0", ""},
      {EntryKind::kSingle, "Logon Port 1", ""},
      {EntryKind::kSingle, "Logon Port 2", ""},
      {EntryKind::kSingle, "Logon Port 3", ""},
      {EntryKind::kSingle, "Logon Port 4", ""},
      {EntryKind::kSingle, "Logon Port 5", ""},
      {EntryKind::kSingle, "Logon Port 6", ""},
      {EntryKind::kSingle, "Logon Port 7", ""},
      {EntryKind::kSingle, "Logon Port 8", ""},
      // The front-end's listening ports, index 0 to 8, ","-joined.
      {EntryKind::kSingle, "Frontend Ports", "7300"},
      {EntryKind::kSingle, "Auto Start", "True"},
      {EntryKind::kSingle, "IP Required", "False"},
      {EntryKind::kSingle, "Skimmer Dupes Not Allowed", "True"},
      {EntryKind::kSingle, "Skimmer CW Spots Verified", "True"},
      {EntryKind::kSingle, "Skimmer Data Spots Verified", "True"},
      {EntryKind::kSingle, "Skimmer VHF UHF Spots Verified", "False"},
      {EntryKind::kSingle, "Mail Purge", "30"},
      {EntryKind::kSingle, "Auto Update", "False"},
      {EntryKind::kSingle, "Last Version Reported", ""},
      {EntryKind::kSingle, "FT8 URL", ""},
      {EntryKind::kSingle, "FT8 Port", ""},
      // The reporter broker's topic filter ("#": everything it publishes).
      {EntryKind::kSingle, "FT8 Topic", "#"},
      // Seconds a reporter spot waits for more receivers of the station before it goes out.
      {EntryKind::kSingle, "FT8 Hold", "30"},
      // When a feed connection is cut and called again: no line for this many seconds; more
      // lines a second than the limit (the rest are dropped) for the flood time.
      {EntryKind::kSingle, "Feed Stall Seconds", "300"},
      {EntryKind::kSingle, "Feed Max Lines Per Second", "2000"},
      {EntryKind::kSingle, "Feed Flood Seconds", "30"},
      {EntryKind::kSingle, "Modes", ""},
      {EntryKind::kSingle, "MaxMem", "0"},
      {EntryKind::kSingle, "NewMaxSpotsPerMin", "2000"},
      {EntryKind::kSingle, "NewMaxSpotsPerMinPerDx", "20"},
      {EntryKind::kSingle, "NewMaxSpotsPerMinPerSpotter", "30"},
      {EntryKind::kSingle, "HighestSpotsPerMin", "0"},
      {EntryKind::kSingle, "HighestSpotsPerMinPerDx", "0"},
      {EntryKind::kSingle, "HighestSpotsPerMinPerSpotter", "0"},
      // The sysop console and help pages.
      {EntryKind::kSingle, "Console Address", "127.0.0.1"},
      {EntryKind::kSingle, "Console Port", "7380"},
      {EntryKind::kSingle, "Console Trusted Proxy", "False"},
      {EntryKind::kSingle, "Console Public Address", ""},
      {EntryKind::kSingle, "Help Address", "https://www.qxcluster.example/help"},
      {EntryKind::kSingle, "SSID Help Address", "https://www.qxcluster.example/help/ssid"},
      {EntryKind::kSingle, "Station Text", "QX Cluster node"},
      // The front-end's limits against floods of connections; 0 turns one off.
      {EntryKind::kSingle, "Max Connections", "10000"},
      {EntryKind::kSingle, "Max Connections Per Address", "20"},
      {EntryKind::kSingle, "Max Connects Per Minute", "10"},
      {EntryKind::kSingle, "Login Timeout", "180"},
      // The front-end's listener for programs (JSON over WebSocket and HTTP); 0: none.
      {EntryKind::kSingle, "WebSocket Port", "0"},
      {EntryKind::kSingle, "WebSocket Max Per Address", "4"},
      // Threads the front-end spreads its connections' sockets over; 0: one per core.
      {EntryKind::kSingle, "Frontend Threads", "0"},
      // Propagation reports: where "Get WWV" fetches from, and the calls besides the sysops
      // that may enter WWV (","-joined).
      {EntryKind::kSingle, "WWV URL", "https://services.swpc.noaa.gov/text/wwv.txt"},
      {EntryKind::kSingle, "WWV Callers", ""},
      // Days of daily logs kept under data/ (today included); 0 keeps them all.
      {EntryKind::kSingle, "Log Days", "90"},
      // Programs' JSON streams (WebSocket and HTTP polls): "True" serves only those that
      // give a user's call and password; by default anyone may read spots.
      {EntryKind::kSingle, "Stream Requires Login", "False"},
      // The most spots a resuming stream is sent (100 to 200000); an older start is told as a
      // gap.
      {EntryKind::kSingle, "Stream Replay Max", "20000"},
      // Reference data kept current: where the country file and the known-calls file come
      // from ("" leaves that file alone), further files ("," list of addresses or
      // file=address), and the hours between checks (0: only when the sysop asks).
      {EntryKind::kSingle, "Country File URL", "https://www.country-files.com/cty/cty_wt_mod.dat"},
      {EntryKind::kSingle, "Known Calls URL", "https://www.supercheckpartial.com/MASTER.SCP"},
      {EntryKind::kSingle, "Download Files", ""},
      {EntryKind::kSingle, "Download Hours", "24"},
      // Where "Auto Update" and the sysop's UPDATE VERSION read the newest version from.
      {EntryKind::kSingle, "Update URL", "https://www.qxcluster.example/version.txt"},
  };
  return table;
}

#undef QX_WINDOW

const std::unordered_map<std::string_view, size_t>& KeyIndex() {
  static const std::unordered_map<std::string_view, size_t> index = [] {
    std::unordered_map<std::string_view, size_t> m;
    const auto& table = KeyTable();
    for (size_t i = 0; i < table.size(); ++i) {
      if (table[i].kind == EntryKind::kSingle) m.emplace(table[i].name, i);
    }
    return m;
  }();
  return index;
}

// Keys of the repeating groups.
constexpr std::string_view kNodeBoth = "Node Call & Node Type";
constexpr std::string_view kNodeCall = "Node Call";
constexpr std::string_view kNodeType = "Node Type";
constexpr std::string_view kLocalNode = "Local Node";
constexpr std::string_view kNodeAddress = "Node Address";
constexpr std::string_view kOutName = "Outgoing Cluster";
constexpr std::string_view kOutRemote = "RemoteNodeIs";
constexpr std::string_view kOutIp = "IP Address";
constexpr std::string_view kOutPort = "IP Port";
constexpr std::string_view kOutActive = "Cluster Active";
constexpr std::string_view kFeedName = "Feed Name";
constexpr std::string_view kFeedKind = "Feed Kind";
constexpr std::string_view kFeedAddress = "Feed Address";
constexpr std::string_view kFeedPort = "Feed Port";
constexpr std::string_view kFeedCall = "Feed Call";
constexpr std::string_view kFeedActive = "Feed Active";

bool IsFeedKey(std::string_view key) {
  return key == kFeedName || key == kFeedKind || key == kFeedAddress || key == kFeedPort ||
         key == kFeedCall || key == kFeedActive;
}

bool IsGroupKey(std::string_view key) {
  return key == kNodeBoth || key == kNodeCall || key == kNodeType || key == kLocalNode ||
         key == kNodeAddress || key == kOutName || key == kOutRemote || key == kOutIp ||
         key == kOutPort || key == kOutActive || IsFeedKey(key);
}

// The lists that the main file also holds as one ","-joined key.
struct ListMirror {
  std::string_view list;
  std::string_view key;
};
constexpr std::array<ListMirror, 9> kMirrors = {{
    {"AnnNok", "AnnNok"},
    {"BadNodes", "BadNode"},
    {"LockOuts", "Locked Out"},
    {"SpotterNok", "SpotterNok"},
    {"SkimmerNok", "SkimmerNok"},
    {"DxNok", "DxNok"},
    {"SkimmerDoNotVerify", "SkimmerDoNotVerify"},
    {"SkimmerDxNok", "SkimmerDxNok"},
    {"BullAddress", "Bulletin Addresses"},
}};

const ListMirror* MirrorOfKey(std::string_view key) {
  for (const auto& m : kMirrors) {
    if (m.key == key) return &m;
  }
  return nullptr;
}

std::vector<std::string> SplitItems(std::string_view joined) {
  std::vector<std::string> items;
  for (std::string_view part : Split(joined, ',')) {
    part = Trim(part);
    if (!part.empty()) items.emplace_back(part);
  }
  return items;
}

bool IsTrueText(std::string_view text) {
  text = Trim(text);
  return EqualsIgnoreCase(text, "True") || text == "1" || EqualsIgnoreCase(text, "Yes") ||
         text == "-1";
}

void AppendLine(std::string& out, std::string_view key, std::string_view value) {
  out += key;
  out += '^';
  out += value;
  out += "\r\n";
}

std::filesystem::path ListPath(const ProgramDir& dir, std::string_view name) {
  return dir.Data("cfg") / (std::string(name) + ".cfg");
}

std::filesystem::path WithBak(const std::filesystem::path& path) {
  std::filesystem::path bak = path;
  bak += ".bak";
  return bak;
}

bool NonEmptyFile(const std::filesystem::path& path) {
  std::error_code ec;
  const auto size = std::filesystem::file_size(path, ec);
  return !ec && size > 0;
}

size_t CountLines(std::string_view text) { return SplitLines(text).size(); }

// A save writes the configuration and every list file with their backups, each waiting for
// the disk; the node saves on its one thread (the highest spot rates, every second while they
// climb), so a file that already holds the text is left alone rather than written again.
bool WriteIfChanged(const std::filesystem::path& path, std::string_view text) {
  if (const std::optional<std::string> old = ReadFileText(path); old && *old == text) {
    return true;
  }
  return AtomicWriteFile(path, text);
}

}  // namespace

bool NodeDefinition::IsLocal() const { return IsTrueText(local); }

bool OutgoingConnection::IsActive() const { return IsTrueText(active); }

int OutgoingConnection::Port() const {
  const int port = ParseIntOr(Trim(ip_port), 0);
  return port > 0 && port <= 65535 ? port : 0;
}

bool FeedConnection::IsActive() const { return IsTrueText(active); }

int FeedConnection::Port() const {
  const int n = ParseIntOr(Trim(port), 0);
  return n > 0 && n <= 65535 ? n : 0;
}

bool ConfigList::Contains(std::string_view item) const {
  for (const auto& it : items) {
    if (EqualsIgnoreCase(it, item)) return true;
  }
  return false;
}

bool ConfigList::Add(std::string_view item) {
  item = Trim(item);
  if (item.empty() || Contains(item)) return false;
  items.emplace_back(item);
  return true;
}

bool ConfigList::Remove(std::string_view item) {
  item = Trim(item);
  const size_t before = items.size();
  std::erase_if(items, [&](const std::string& it) { return EqualsIgnoreCase(it, item); });
  return items.size() != before;
}

Config::Config() {
  const auto& table = KeyTable();
  values_.resize(table.size());
  for (size_t i = 0; i < table.size(); ++i) values_[i] = table[i].default_value;
  for (const auto& name : ListNames()) lists_.emplace(name, ConfigList{});
}

const std::vector<std::string>& Config::ListNames() {
  static const std::vector<std::string> names = {
      "AnnNok",     "Nodes", "LocalNodes",         "BadNodes",     "LockOuts", "SpotterNok",
      "SkimmerNok", "DxNok", "SkimmerDoNotVerify", "SkimmerDxNok", "Sysop",    "BullAddress"};
  return names;
}

bool Config::IsKnownKey(std::string_view key) {
  return KeyIndex().count(key) > 0 || IsGroupKey(key);
}

const std::string& Config::Get(std::string_view key) const {
  static const std::string kEmpty;
  const auto& index = KeyIndex();
  const auto it = index.find(key);
  if (it != index.end()) {
    std::string& value = values_[it->second];
    if (const ListMirror* m = MirrorOfKey(key)) {
      const ConfigList* list = FindList(m->list);
      value = list != nullptr ? Join(list->items, ",") : std::string();
    }
    return value;
  }
  for (const auto& [k, v] : unknown_) {
    if (k == key) return v;
  }
  return kEmpty;
}

int Config::GetInt(std::string_view key, int fallback) const {
  return ParseIntOr(Trim(Get(key)), fallback);
}

std::string* Config::FindValue(std::string_view key) {
  const auto& index = KeyIndex();
  const auto it = index.find(key);
  if (it != index.end()) return &values_[it->second];
  for (auto& [k, v] : unknown_) {
    if (k == key) return &v;
  }
  return nullptr;
}

bool Config::Set(std::string_view key, std::string value) {
  // A caret or a line end in the key, or a line end in the value, would change the file's
  // lines on the next read.
  if (key.empty() || IsGroupKey(key) || key.find_first_of("^\r\n") != std::string_view::npos) {
    return false;
  }
  std::erase_if(value, [](char ch) { return ch == '\r' || ch == '\n'; });
  if (const ListMirror* m = MirrorOfKey(key)) List(m->list).items = SplitItems(value);
  if (std::string* slot = FindValue(key)) {
    *slot = std::move(value);
  } else {
    unknown_.emplace_back(std::string(key), std::move(value));
  }
  return true;
}

ConfigList& Config::List(std::string_view name) {
  auto it = lists_.find(name);
  if (it == lists_.end()) it = lists_.emplace(std::string(name), ConfigList{}).first;
  return it->second;
}

const ConfigList* Config::FindList(std::string_view name) const {
  const auto it = lists_.find(name);
  return it == lists_.end() ? nullptr : &it->second;
}

std::string FormatCfg(const Config& config) {
  std::string out;
  out.reserve(8192);
  for (const KeyEntry& entry : KeyTable()) {
    switch (entry.kind) {
      case EntryKind::kSingle:
        AppendLine(out, entry.name, config.Get(entry.name));
        break;
      case EntryKind::kNodeGroup:
        for (const NodeDefinition& node : config.nodes()) {
          AppendLine(out, kNodeBoth, node.call + " " + node.type);
          AppendLine(out, kNodeCall, node.call);
          AppendLine(out, kNodeType, node.type);
          AppendLine(out, kLocalNode, node.local);
          if (!node.addresses.empty()) AppendLine(out, kNodeAddress, node.addresses);
        }
        break;
      case EntryKind::kOutgoingGroup:
        for (const OutgoingConnection& c : config.outgoing()) {
          AppendLine(out, kOutName, c.name);
          AppendLine(out, kOutRemote, c.remote_node_is);
          AppendLine(out, kOutIp, c.ip_address);
          AppendLine(out, kOutPort, c.ip_port);
          AppendLine(out, kOutActive, c.active);
        }
        break;
      case EntryKind::kFeedGroup:
        for (const FeedConnection& f : config.feeds()) {
          AppendLine(out, kFeedName, f.name);
          AppendLine(out, kFeedKind, f.kind);
          AppendLine(out, kFeedAddress, f.address);
          AppendLine(out, kFeedPort, f.port);
          AppendLine(out, kFeedCall, f.call);
          AppendLine(out, kFeedActive, f.active);
        }
        break;
    }
  }
  for (const auto& [key, value] : config.unknown()) AppendLine(out, key, value);
  return out;
}

Config ParseCfg(std::string_view text) {
  Config config;
  auto& nodes = config.nodes();
  auto& outgoing = config.outgoing();
  // Which fields the last group element already has: a field seen twice starts a new one,
  // so a file without the combined "Node Call & Node Type" line still reads correctly.
  struct NodeSeen {
    bool call = false, type = false, local = false, address = false;
  } node_seen;
  struct OutSeen {
    bool remote = false, ip = false, port = false, active = false;
  } out_seen;
  auto new_node = [&] {
    nodes.emplace_back();
    node_seen = {};
  };
  auto new_out = [&] {
    outgoing.emplace_back();
    out_seen = {};
  };
  // A feed starts with its name; a field seen twice without one starts a new feed too.
  auto& feeds = config.feeds();
  std::array<bool, 6> feed_seen{};
  auto feed_field = [&](size_t index) -> std::string& {
    if (feeds.empty() || feed_seen[index]) {
      feeds.emplace_back();
      feed_seen = {};
    }
    feed_seen[index] = true;
    FeedConnection& f = feeds.back();
    std::string* fields[] = {&f.name, &f.kind, &f.address, &f.port, &f.call, &f.active};
    return *fields[index];
  };

  for (std::string_view line : SplitLines(text)) {
    const size_t caret = line.find('^');
    if (caret == std::string_view::npos) continue;  // blank or junk line
    const std::string_view key = line.substr(0, caret);
    const std::string_view value = line.substr(caret + 1);
    if (key.empty()) continue;

    if (key == kNodeBoth) {
      new_node();
      const size_t blank = value.find(' ');
      nodes.back().call = std::string(value.substr(0, blank));
      if (blank != std::string_view::npos) nodes.back().type = std::string(value.substr(blank + 1));
    } else if (key == kNodeCall) {
      if (nodes.empty() || node_seen.call) new_node();
      nodes.back().call = std::string(value);
      node_seen.call = true;
    } else if (key == kNodeType) {
      if (nodes.empty() || node_seen.type) new_node();
      nodes.back().type = std::string(value);
      node_seen.type = true;
    } else if (key == kLocalNode) {
      if (nodes.empty() || node_seen.local) new_node();
      nodes.back().local = std::string(value);
      node_seen.local = true;
    } else if (key == kNodeAddress) {
      if (nodes.empty() || node_seen.address) new_node();
      nodes.back().addresses = std::string(value);
      node_seen.address = true;
    } else if (key == kOutName) {
      new_out();
      outgoing.back().name = std::string(value);
    } else if (key == kOutRemote) {
      if (outgoing.empty() || out_seen.remote) new_out();
      outgoing.back().remote_node_is = std::string(value);
      out_seen.remote = true;
    } else if (key == kOutIp) {
      if (outgoing.empty() || out_seen.ip) new_out();
      outgoing.back().ip_address = std::string(value);
      out_seen.ip = true;
    } else if (key == kOutPort) {
      if (outgoing.empty() || out_seen.port) new_out();
      outgoing.back().ip_port = std::string(value);
      out_seen.port = true;
    } else if (key == kOutActive) {
      if (outgoing.empty() || out_seen.active) new_out();
      outgoing.back().active = std::string(value);
      out_seen.active = true;
    } else if (IsFeedKey(key)) {
      static constexpr std::array<std::string_view, 6> kFeedKeys = {
          kFeedName, kFeedKind, kFeedAddress, kFeedPort, kFeedCall, kFeedActive};
      const size_t index =
          size_t(std::find(kFeedKeys.begin(), kFeedKeys.end(), key) - kFeedKeys.begin());
      if (index == 0) {
        feeds.emplace_back();
        feed_seen = {};
      }
      feed_field(index) = std::string(value);
    } else {
      config.Set(key, std::string(value));
    }
  }
  return config;
}

std::string FormatListFile(const ConfigList& list) {
  std::string out;
  out += kListHeader;
  out += "\r\n";
  for (int n : list.window) {
    out += std::to_string(n);
    out += "\r\n";
  }
  out += kItemsHeader;
  out += "\r\n";
  for (const auto& item : list.items) {
    out += item;
    out += "\r\n";
  }
  return out;
}

ConfigList ParseListFile(std::string_view text) {
  ConfigList list;
  const auto lines = SplitLines(text);
  const bool has_items_header = [&] {
    for (std::string_view l : lines) {
      if (Trim(l) == kItemsHeader) return true;
    }
    return false;
  }();
  // Without the "[Items]" line every non-blank line is taken as an item, so a list typed by
  // hand still loads.
  bool in_items = !has_items_header;
  size_t window_index = 4;  // 4: not in the window block
  for (std::string_view raw : lines) {
    const std::string_view line = Trim(raw);
    if (in_items) {
      if (!line.empty()) list.items.emplace_back(line);
      continue;
    }
    if (line == kItemsHeader) {
      in_items = true;
    } else if (line == kListHeader) {
      window_index = 0;
    } else if (window_index < 4) {
      list.window[window_index] = ParseIntOr(line, list.window[window_index]);
      ++window_index;
    }
  }
  return list;
}

std::vector<int> FrontendPorts(const Config& config) {
  std::vector<int> ports;
  for (std::string_view part : Split(config.Get("Frontend Ports"), ',')) {
    const int port = ParseIntOr(Trim(part), 0);
    if (port > 0 && port <= 65535) ports.push_back(port);
    if (ports.size() == 9) break;
  }
  return ports;
}

Config ReadCfgFile(const ProgramDir& dir, ErrorLog& log) {
  const std::filesystem::path main = dir.ConfigFile();
  const std::filesystem::path bak = dir.ConfigBackup();
  std::error_code ec;
  std::filesystem::path chosen = main;
  ConfigSource source = ConfigSource::kMainFile;
  if (!std::filesystem::exists(main, ec)) {
    log.Write("Form_Load", main.string() + " doesn't exist");
    chosen = bak;
    source = ConfigSource::kBackup;
  } else if (std::filesystem::file_size(main, ec) == 0 && !ec) {
    log.Write("Form_Load", main.string() + " is empty.");
    chosen = bak;
    source = ConfigSource::kBackup;
  }

  Config config;
  std::optional<std::string> text;
  if (source == ConfigSource::kMainFile || std::filesystem::exists(bak, ec)) {
    text = ReadFileText(chosen);
  } else {
    log.Write("Form_Load", bak.string() + " doesn't exist");
  }
  if (text && !text->empty()) {
    config = ParseCfg(*text);
    config.set_source(source);
  } else {
    config.set_source(ConfigSource::kDefaults);
  }

  // The list side files; a missing or empty one falls back to its backup.
  for (const std::string& name : Config::ListNames()) {
    std::filesystem::path path = ListPath(dir, name);
    if (!NonEmptyFile(path)) path = WithBak(path);
    if (!NonEmptyFile(path)) continue;
    if (auto list_text = ReadFileText(path)) config.List(name) = ParseListFile(*list_text);
  }
  return config;
}

bool WriteListFile(const ProgramDir& dir, std::string_view name, const ConfigList& list) {
  std::error_code ec;
  std::filesystem::create_directories(dir.Data("cfg"), ec);
  const std::filesystem::path path = ListPath(dir, name);
  const std::filesystem::path bak = WithBak(path);
  const std::string text = FormatListFile(list);
  if (!WriteIfChanged(path, text)) return false;

  bool replace_bak = true;
  if (std::filesystem::exists(bak, ec)) {
    const auto old = ReadFileText(bak);
    replace_bak = !old || CountLines(text) >= CountLines(*old);
  }
  bool ok = !replace_bak || WriteIfChanged(bak, text);

  // The sysop list says who may run sysop commands: keep it away from other local users.
  if (name == "Sysop") {
    ok = ::chmod(path.c_str(), 0600) == 0 && ok;
    if (std::filesystem::exists(bak, ec)) ok = ::chmod(bak.c_str(), 0600) == 0 && ok;
  }
  return ok;
}

bool WriteCfgFile(const Config& config, const ProgramDir& dir) {
  const std::string text = FormatCfg(config);
  if (!WriteIfChanged(dir.ConfigFile(), text)) return false;

  bool ok = true;
  const std::filesystem::path bak = dir.ConfigBackup();
  std::error_code ec;
  const bool bak_exists = std::filesystem::exists(bak, ec);
  const auto bak_size = bak_exists ? std::filesystem::file_size(bak, ec) : 0;
  if (!bak_exists || ec || bak_size < text.size()) ok = AtomicWriteFile(bak, text) && ok;

  // "DxNok" is written a second time on purpose: the order is kept as the writer has always
  // had it, and the second write changes nothing.
  static constexpr std::array<std::string_view, 13> kWriteOrder = {
      "AnnNok",     "Nodes",      "LocalNodes", "BadNodes",           "LockOuts",
      "SpotterNok", "SkimmerNok", "DxNok",      "SkimmerDoNotVerify", "SkimmerDxNok",
      "Sysop",      "DxNok",      "BullAddress"};
  static const ConfigList kEmptyList;
  for (std::string_view name : kWriteOrder) {
    const ConfigList* list = config.FindList(name);
    ok = WriteListFile(dir, name, list != nullptr ? *list : kEmptyList) && ok;
  }
  return ok;
}

}  // namespace qx
