// What the web console needs from the running node.  The console never reaches into the
// node's tables itself: the node implements this interface (on its own thread, the same
// io_context the console runs on) and the console only calls it from that thread, so no call
// needs a lock.  Every call is quick: a snapshot or one small change.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "core/monitor.h"
#include "core/time_text.h"

namespace qx {

// The outcome of a change the sysop asked for; error is shown to the sysop as it stands.
struct ConsoleResult {
  bool ok = true;
  std::string error;

  static ConsoleResult Ok() { return {}; }
  static ConsoleResult Fail(std::string why) { return {false, std::move(why)}; }
};

// One line of the connections list.
struct ConsoleStream {
  int number = 0;
  std::string call;    // "    *    " while logging in, "T/O" after a time-out
  std::string kind;    // "user", "node", "feed", "login", "timed out"
  int state = 0;       // the stream table's state code
  std::string peer;    // "ip:port"
  int port_index = 0;  // front-end port index (0..8; 9 = outgoing)
  SysTime since{};
  std::string name;    // "Unknown Name" when the user gave none
  std::string colour;  // the list colour: "", "orange", "white", "red", "blue", "green"
  std::vector<std::string> filters;  // a user's filters as SH/FILTER shows them
};

// One key of the configuration file as the settings page shows it.
struct ConsoleSetting {
  std::string key;
  std::string value;
  std::string help;           // one short line, may be empty
  bool read_only = false;     // shown but not editable (kept values, positions)
  std::string kind = "text";  // how the page edits it: "switch", "number", "port", "url", ...
  bool restart = false;       // takes effect only after a restart
};

struct ConsoleSettingsGroup {
  std::string name;  // "Station and link", "Behaviour", ...
  std::vector<ConsoleSetting> keys;
};

// A node defined in the configuration (the node group of the key table).
struct ConsoleNode {
  std::string call;
  std::string type;
  bool local = false;
  std::string addresses;      // where it may log in from, comma-separated; empty: anywhere
  bool has_password = false;  // it has a row in the password list (the password is never shown)
};

// An outgoing node connection and where it stands now.
struct ConsoleLink {
  std::string name;         // "Outgoing Cluster"
  std::string remote_kind;  // "RemoteNodeIs"
  std::string address;      // "IP Address"
  int port = 0;             // "IP Port"
  bool active = false;      // "Cluster Active": the node keeps it connected
  std::string state;        // "connected", "connecting", "idle", ...
  int stream = 0;           // its stream while connected, 0 otherwise
  std::string last_error;   // why the last attempt failed, in words; empty when none did
};

// What adding many entries at once did (a pasted list, a downloaded exit list).
struct ConsoleImport {
  size_t added = 0;
  size_t already = 0;                // entries the list held already
  std::vector<std::string> refused;  // "entry: why", for the sysop to correct
  std::string error;                 // the list could not be changed at all
};

// A call on the password list.  Its password is never read back.
struct ConsolePassword {
  std::string call;
  int level = 0;
};

// One known user as the Users page lists it.
struct ConsoleUser {
  std::string call;
  std::string name;
  std::string qth;
  std::string last_login;  // "24-Nov-2026 1952Z"; empty when never seen
  int spots = 0;           // spots posted on this node
  bool locked_out = false;
  int stream = 0;  // logged in on this stream now, 0 otherwise
};

struct ConsoleUserPage {
  size_t total = 0;  // users matching the search
  size_t offset = 0;
  std::vector<ConsoleUser> users;
};

// A user's record as stored: each setting line, and the filters by themselves.
struct ConsoleUserDetail {
  ConsoleUser user;
  std::vector<std::pair<std::string, std::string>> settings;  // label -> value
  std::vector<std::string> filters;                           // the rules as typed
};

// One skimmer, reverse-beacon or reporter feed: its state, rates and counts.
struct ConsoleFeed {
  std::string name;
  std::string type;   // "SKIMMER", "RBN", "RBN FT8", "REPORTER"
  std::string state;  // "connected", "logging in", "connecting", "waiting", "off"
  uint64_t lines_per_minute = 0;
  uint64_t spots_per_minute = 0;
  std::map<std::string, uint64_t> counts;  // "lines", "verified", "busted", ... since start
};

struct ConsoleStats {
  int users = 0;
  int nodes = 0;
  int spots_per_minute = 0;
  int highest_spots_per_minute = 0;
  std::map<std::string, uint64_t> refusals;     // reason -> count since start
  std::map<std::string, uint64_t> pc41_counts;  // PC41 field/kind -> count
  int link_peak_pending = 0;
  int64_t link_spots_shed = 0;     // spot lines dropped because the front-end fell behind
  int64_t link_spots_waiting = 0;  // spot lines waiting in per-user queues now
  int64_t uptime_seconds = 0;
  // Spots per minute, one value per minute, oldest first, up to the last few hours.
  std::vector<int> spots_per_minute_history;
  std::vector<ConsoleFeed> feeds;
};

// The numbers behind /metrics.
struct ConsoleMetrics {
  bool link_up = false;  // the link to the front-end is up: users can reach the node
  int users = 0;
  int nodes = 0;
  std::map<std::string, uint64_t> spots_in;   // source ("user", "node", "skimmer", ...) -> count
  std::map<std::string, uint64_t> spots_out;  // source -> lines sent to users
  std::map<std::string, uint64_t> spots_filtered;  // source -> lines users' filters held back
  std::map<std::string, uint64_t> refusals;        // reason -> count
  int64_t link_queue_depth = 0;                    // bytes waiting on the front-end link
  int64_t link_peak_pending = 0;
  int64_t link_spots_shed = 0;     // spot lines dropped because the front-end fell behind
  int64_t link_spots_waiting = 0;  // spot lines waiting in per-user queues now
  // One message for a spot line to many users: messages sent, and the lines they carried.
  int64_t link_fanout_messages = 0;
  int64_t link_fanout_lines = 0;
  std::vector<std::pair<std::string, int64_t>> user_queue_high_water;  // call -> lines
  // Spot delivery delay (intake to last user write) as a cumulative histogram.
  std::vector<std::pair<double, uint64_t>> delay_buckets;  // upper bound (s) -> count <= bound
  uint64_t delay_count = 0;
  double delay_sum_seconds = 0;
  // The front-end's counters as it last reported them: name -> value.
  std::map<std::string, uint64_t, std::less<>> frontend;
  std::vector<ConsoleFeed> feeds;
};

// One reference file the node keeps current, and where its downloads stand.
struct ConsoleDownload {
  std::string file;
  std::string url;
  bool busy = false;
  std::string outcome;          // "installed", "not modified", "failed: ..."
  SysTime last_success{};       // the epoch when never
  std::optional<SysTime> next;  // nullopt: only when asked
};

// One row of the Spots page: a spot the node took, or one intake refused and why.
struct ConsoleSpot {
  SysTime time{};  // when spotted (accepted) or when refused
  double frequency_khz = 0;
  std::string band;  // "20m"; empty when on no band
  std::string dx;
  std::string spotter;
  std::string comment;
  std::string origin;  // the node the spot came in at
  std::string source;  // "DX  Cluster", "Skimmer", ...
  bool refused = false;
  std::string reason;  // refused: the reason in a few words ("bad word")
  std::string rule;    // refused: the rule that fired ("bad word: X (badwords.txt)")
};

// A mail message or bulletin as the sysop's mail page shows it, with where it stands on its
// way to other nodes.
struct ConsoleMail {
  struct Forward {
    std::string node;   // the neighbour
    std::string state;  // "queued", "sending", "given up", "acknowledged"
    int attempts = 0;   // failed attempts so far
  };
  int number = 0;
  std::string from;
  std::string to;
  std::string subject;
  SysTime time{};
  bool is_private = true;
  bool read = false;
  std::string origin;
  std::string received_from;      // "" when written here
  std::string bound_for;          // private mail on its way to that node
  std::string waiting;            // why it is not moving, e.g. "no route to GB7ZZZ"
  std::vector<Forward> forwards;  // every neighbour it is queued for, going to or went to
  std::vector<std::string> text;  // only when one message is read
};

class ConsoleModel {
 public:
  virtual ~ConsoleModel() = default;

  // Where live lines come from (console output, raw traffic, spots, connection changes).
  virtual Monitor& monitor() = 0;
  // The node's own call, shown in the page title.
  virtual std::string NodeCall() const = 0;
  // Records a console event (log-ins, refused log-ins) in the node's error log.
  virtual void LogEvent(std::string_view heading, std::string_view text) = 0;

  // Connections.
  virtual std::vector<ConsoleStream> Streams() const = 0;
  virtual ConsoleResult DisconnectStream(int stream) = 0;

  // The sysop lists ("LockOuts", "SpotterNok", "DxNok", "BadNodes", "AnnNok", "SkimmerNok",
  // "SkimmerDxNok", "SkimmerDoNotVerify", "Nodes", "LocalNodes", "Sysop", "BullAddress").
  virtual std::vector<std::string> ListNames() const = 0;
  // nullopt for a list name that does not exist.
  virtual std::optional<std::vector<std::string>> ListItems(std::string_view list) const = 0;
  // Adding or removing saves the list's side file at once.
  virtual ConsoleResult ListAdd(std::string_view list, std::string_view item) = 0;
  virtual ConsoleResult ListRemove(std::string_view list, std::string_view item) = 0;

  // Many items at once: pasted text, one item a line (calls and addresses may also be
  // separated by blanks or commas).  The list's file is written once.
  virtual ConsoleImport ListImport(std::string_view list, std::string_view pasted);
  // Lists the node can load from a published source (the anonymity-network exit list): the
  // fetch runs in the background and its items are added; ListNote tells how the last went.
  virtual bool ListFetchable(std::string_view /*list*/) const { return false; }
  virtual ConsoleResult ListFetch(std::string_view /*list*/, std::string_view /*url*/) {
    return ConsoleResult::Fail("this list is not loaded from an address");
  }
  virtual std::string ListNote(std::string_view /*list*/) const { return {}; }

  // The password list (data/files/passwords.dat).  A password is written, never read back.
  virtual std::vector<ConsolePassword> PasswordCalls() const { return {}; }
  virtual ConsoleResult SetPassword(std::string_view /*call*/, std::string_view /*password*/,
                                    int /*level*/) {
    return ConsoleResult::Fail("passwords are not kept on this node");
  }
  virtual ConsoleResult RemovePassword(std::string_view /*call*/) {
    return ConsoleResult::Fail("passwords are not kept on this node");
  }

  // Known users (records under data/user/), searched by call, one page at a time.
  virtual ConsoleUserPage Users(std::string_view /*query*/, size_t /*offset*/,
                                size_t /*limit*/) const {
    return {};
  }
  virtual std::optional<ConsoleUserDetail> User(std::string_view /*call*/) const {
    return std::nullopt;
  }
  // Locking out also disconnects every stream the call (any SSID) has open.
  virtual ConsoleResult SetUserLockedOut(std::string_view /*call*/, bool /*locked*/) {
    return ConsoleResult::Fail("users are not kept on this node");
  }

  // Settings, grouped as the configuration file groups its keys.
  virtual std::vector<ConsoleSettingsGroup> Settings() const = 0;
  // Validates every change first; saves cluster.cfg only when all of them are good.
  virtual ConsoleResult SaveSettings(
      const std::vector<std::pair<std::string, std::string>>& changes) = 0;

  // Log-on messages: "Logon 1".."Logon 4", "Logon Port 0".."Logon Port 8", "Log Out".
  virtual std::vector<std::string> LogonSections() const = 0;
  virtual std::optional<std::string> LogonMessage(std::string_view section) const = 0;
  virtual ConsoleResult SetLogonMessage(std::string_view section, std::string_view text) = 0;

  // Node links.
  virtual std::vector<ConsoleNode> DefinedNodes() const = 0;
  virtual std::vector<ConsoleLink> Links() const = 0;
  // Defines a neighbour, or replaces the one with the same call; a non-empty password is
  // written to the password list, so the neighbour must give it when it logs in.
  virtual ConsoleResult SaveNode(const ConsoleNode& /*node*/, std::string_view /*password*/) {
    return ConsoleResult::Fail("nodes cannot be defined on this node");
  }
  virtual ConsoleResult RemoveNode(std::string_view /*call*/) {
    return ConsoleResult::Fail("nodes cannot be defined on this node");
  }
  // Adds an outgoing connection, or replaces the one with the same name; saves cluster.cfg.
  virtual ConsoleResult SaveLink(const ConsoleLink& link) = 0;
  virtual ConsoleResult RemoveLink(std::string_view name) = 0;
  virtual ConsoleResult ConnectLink(std::string_view name) = 0;
  virtual ConsoleResult DisconnectLink(std::string_view name) = 0;

  // The spots taken on the UTC day of `day` (from the day's spot file), oldest first.
  virtual std::vector<ConsoleSpot> SpotsOfDay(SysTime day) const {
    (void)day;
    return {};
  }
  // The spots refused lately, with their reasons, oldest first (a bounded number).
  virtual std::vector<ConsoleSpot> RecentRefusals() const { return {}; }

  // The sysop's monitor view selector: 0 shows all traffic, 1 node traffic (some findings on
  // node links, such as a PC11 that lacks its last field, are shown only on this view).  Any
  // other value is refused.  A view setting of the running node, never saved.
  static constexpr int kMonitorViewAll = 0;
  static constexpr int kMonitorViewNodes = 1;
  virtual int MonitorView() const = 0;
  virtual ConsoleResult SetMonitorView(int view) = 0;

  // Statistics and metrics.
  virtual ConsoleStats Statistics() const = 0;
  virtual ConsoleMetrics Metrics() const = 0;

  // The log files the sysop may read: error logs and rejection logs, today's first.  Names are
  // the ones LogFiles() returns ("log/error-22-Nov-2026.log", "badspots/...").
  virtual std::vector<std::string> LogFiles() const = 0;
  // The last max_lines lines; nullopt for a name that is not in LogFiles().
  virtual std::optional<std::vector<std::string>> TailLog(std::string_view name,
                                                          size_t max_lines) const = 0;
  // Lines holding needle (case-insensitive), at most max_hits, the last ones first.
  virtual std::optional<std::vector<std::string>> SearchLog(std::string_view name,
                                                            std::string_view needle,
                                                            size_t max_hits) const = 0;

  // Reference data: the files kept current and the last program update check.
  virtual std::vector<ConsoleDownload> Downloads() const { return {}; }
  virtual std::string UpdateCheckOutcome() const { return {}; }
  // Fetches every reference file now (and checks for a newer program when an address is set).
  virtual ConsoleResult UpdateReferenceData() {
    return ConsoleResult::Fail("reference data is not kept current on this node");
  }

  // Mail: every message that is not deleted, oldest first (without text); one with its text
  // (nullopt when there is none with that number); deleting one; sending a stuck one again.
  virtual std::vector<ConsoleMail> MailList() const { return {}; }
  virtual std::optional<ConsoleMail> MailRead(int number) const { return std::nullopt; }
  virtual ConsoleResult MailDelete(int number) {
    return ConsoleResult::Fail("there is no mail on this node");
  }
  virtual ConsoleResult MailRequeue(int number) {
    return ConsoleResult::Fail("there is no mail on this node");
  }

  // Restarts the node the way RESTART does: connections are kept, commands wait.
  virtual ConsoleResult Restart() { return ConsoleResult::Fail("this node cannot restart itself"); }

  // Ends the program the way the sysop's "end program" does.
  virtual void Shutdown() = 0;
};

}  // namespace qx
