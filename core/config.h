// The node's settings: cluster.cfg (one "key^value" line per setting, CR LF) plus one side
// file per editable list under data/cfg/.  The text side (FormatCfg/ParseCfg and the list
// file pair) is pure; ReadCfgFile/WriteCfgFile/WriteListFile add the file handling with the
// backup rules: cluster.cfg.bak and every list's .bak only grow, so a save cut short by a
// crash can never leave the sysop without a usable copy.
#pragma once

#include <array>
#include <filesystem>
#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "core/error_log.h"
#include "core/program_dir.h"

namespace qx {

// One defined node: the lines "Node Call & Node Type", "Node Call", "Node Type",
// "Local Node" and, when set, "Node Address" in the main file.  Flags keep the text the file holds
// so that a value this code does not know survives a save unchanged.
struct NodeDefinition {
  std::string call;
  std::string type;  // "QXC", "DXS", "ARC", "SUM", ...
  std::string local = "False";
  // "Node Address": where the node may log in from (addresses and networks, comma-separated);
  // empty when only its password (or nothing) admits it.
  std::string addresses;

  bool IsLocal() const;
  bool operator==(const NodeDefinition&) const = default;
};

// One outgoing connection: "Outgoing Cluster", "RemoteNodeIs", "IP Address", "IP Port",
// "Cluster Active".
struct OutgoingConnection {
  std::string name;
  std::string remote_node_is;
  std::string ip_address;
  std::string ip_port;
  std::string active = "False";

  bool IsActive() const;
  int Port() const;  // 0 when the text is not a port number
  bool operator==(const OutgoingConnection&) const = default;
};

// One outgoing feed connection: "Feed Name", "Feed Kind", "Feed Address", "Feed Port",
// "Feed Call", "Feed Active".  The kind says what the server sends: "SKIMMER" (one skimmer
// of one's own), "RBN" (the reverse beacon network's CW and RTTY server) or "RBN FT8" (its
// digital-mode server).  The call is what the node answers the server's log-in prompt with;
// empty: the node's call without SSID.
struct FeedConnection {
  std::string name;
  std::string kind;
  std::string address;
  std::string port;
  std::string call;
  std::string active = "False";

  bool IsActive() const;
  int Port() const;  // 0 when the text is not a port number
  bool operator==(const FeedConnection&) const = default;
};

// An editable list: its window's top, left, height and width, and its items.
struct ConfigList {
  std::array<int, 4> window{0, 0, 4000, 3000};
  std::vector<std::string> items;

  // Comparisons ignore case.
  bool Contains(std::string_view item) const;
  // False when the item is empty or already present.
  bool Add(std::string_view item);
  // False when the item was not present; removes every entry equal to it.
  bool Remove(std::string_view item);
  bool operator==(const ConfigList&) const = default;
};

// Where the settings came from.
enum class ConfigSource { kDefaults, kMainFile, kBackup };

class Config {
 public:
  // Every known key at its built-in default, the named lists empty.
  Config();

  // The value, the built-in default when the key was never set, "" for a key nobody knows.
  // For the keys that mirror a list ("DxNok", "Locked Out", ...) this is the list's items
  // joined with ",".
  const std::string& Get(std::string_view key) const;
  int GetInt(std::string_view key, int fallback) const;
  // Sets a single-valued key (known or not).  Setting a key that mirrors a list replaces
  // the list's items.  False for the keys of the repeating groups, which live in nodes()
  // and outgoing().
  bool Set(std::string_view key, std::string value);
  // True when the key belongs to the key table (the repeating groups included).
  static bool IsKnownKey(std::string_view key);

  std::vector<NodeDefinition>& nodes() { return nodes_; }
  const std::vector<NodeDefinition>& nodes() const { return nodes_; }
  std::vector<OutgoingConnection>& outgoing() { return outgoing_; }
  const std::vector<OutgoingConnection>& outgoing() const { return outgoing_; }
  std::vector<FeedConnection>& feeds() { return feeds_; }
  const std::vector<FeedConnection>& feeds() const { return feeds_; }

  // The named list, created empty when no list of that name exists yet.
  ConfigList& List(std::string_view name);
  // Null when no list of that name exists.
  const ConfigList* FindList(std::string_view name) const;
  // The lists that have a side file under data/cfg/, in their load order.
  static const std::vector<std::string>& ListNames();

  // Lines whose key no code knows, in file order; written back after the known keys.
  const std::vector<std::pair<std::string, std::string>>& unknown() const { return unknown_; }

  ConfigSource source() const { return source_; }
  void set_source(ConfigSource s) { source_ = s; }

 private:
  std::string* FindValue(std::string_view key);

  mutable std::vector<std::string> values_;  // by key-table index; list mirrors refreshed
  std::vector<NodeDefinition> nodes_;
  std::vector<OutgoingConnection> outgoing_;
  std::vector<FeedConnection> feeds_;
  std::map<std::string, ConfigList, std::less<>> lists_;
  std::vector<std::pair<std::string, std::string>> unknown_;
  ConfigSource source_ = ConfigSource::kDefaults;
};

// The main file's text: the key table's order, the repeating groups in place, the keys that
// no code knows at the end; every line ended by CR LF.
std::string FormatCfg(const Config& config);
// Reads the text of a main file.  Each line is split at its first "^"; keys are compared
// exactly.  LF-only line ends, blank lines and lines without "^" are tolerated.
Config ParseCfg(std::string_view text);

// A list side file: "[Form.Top, .Left, .Height, .Width]", the four numbers, "[Items]", then
// one line per item, every line ended by CR LF.
std::string FormatListFile(const ConfigList& list);
ConfigList ParseListFile(std::string_view text);

// The ports of the front-end's listening sockets, index 0 to 8, from "Frontend Ports".
// Entries that are not port numbers are skipped.
std::vector<int> FrontendPorts(const Config& config);

// Reads cluster.cfg, falling back to cluster.cfg.bak when it is missing or empty (each case
// logged under "Form_Load"); without either file the defaults stand (source() kDefaults).
// Then reads every list side file; a side file that is present is authoritative over the
// ","-joined key of the same list.
Config ReadCfgFile(const ProgramDir& dir, ErrorLog& log);

// Writes cluster.cfg (atomically), then its backup when the backup is missing or shorter
// than the new text, then every list side file.  False when any write failed.
bool WriteCfgFile(const Config& config, const ProgramDir& dir);

// Writes data/cfg/<name>.cfg; its .bak is replaced only when the new list has at least as
// many lines as the backup.  The "Sysop" list is readable by the owner only.
bool WriteListFile(const ProgramDir& dir, std::string_view name, const ConfigList& list);

}  // namespace qx
