// The sentences this node writes.  Every builder returns the whole line with its CR LF.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace qx {

// The version text is the four-digit protocol version: peers read the second field as a
// number.  A recovered legacy link gets the form without "pc9x".
std::string BuildPc18(std::string_view version, bool pc9x = true);
// here/conference flag: "^0^" or "^1^" after the node call.
std::string BuildPc19(std::string_view node_call, bool conference, std::string_view version);
std::string BuildPc16(std::string_view node_call, std::string_view user_call);
std::string BuildPc17(std::string_view user_call, std::string_view node_call);
std::string BuildPc20();
std::string BuildPc21(std::string_view node_call, std::string_view reason);
std::string BuildPc22();
std::string BuildPc39(std::string_view our_call, std::string_view reason);
std::string BuildPc50(std::string_view our_call, int local_users);
std::string BuildPc51Request(std::string_view neighbour_call, std::string_view our_call);
// The answer to a request whose field 1 is addressed and field 2 is sender.
std::string BuildPc51Answer(std::string_view sender, std::string_view addressed);
// type 1 name, 2 QTH, 3 location, 4 home node, 5 locator.
std::string BuildPc41(std::string_view user_call, int type, std::string_view value);
// Talk to a legacy node.  via_node empty: to_call is on the neighbour itself.
std::string BuildPc10(std::string_view from, std::string_view to_call, std::string_view text,
                      std::string_view origin_node, std::string_view via_node = {});
// Announcement to a legacy node; to "*" is everyone; sysop sets the "*" sysop flag.
std::string BuildPc12(std::string_view from, std::string_view to, std::string_view text, bool sysop,
                      std::string_view origin_node, bool wx = false);

// One PC92 slot: "<flag><CALL>[:v1[:v2[:v3]]]".  Flags: 1 user here, 0 user away,
// 5 PC9x node, 7 legacy node.
struct Pc92Entry {
  int flag = 1;
  std::string call;
  std::vector<std::string> extra;  // version, build, address ... (IPv6 ':' written as ',')
};
std::string FormatPc92Entry(const Pc92Entry& e);

// "PC92^us^t^A^^1CALL:ip^H99^": slot 1 empty (the origin itself) unless slot1 is given.
std::string BuildPc92Add(std::string_view our_call, std::string_view stamp,
                         const std::vector<Pc92Entry>& entries, const Pc92Entry* slot1 = nullptr);
std::string BuildPc92Delete(std::string_view our_call, std::string_view stamp,
                            const std::vector<Pc92Entry>& entries,
                            const Pc92Entry* slot1 = nullptr);
// Full configuration: our own entry, then every directly connected node and user.
std::string BuildPc92Config(std::string_view our_call, std::string_view stamp, const Pc92Entry& own,
                            const std::vector<Pc92Entry>& entries);
// Keep-alive: "PC92^us^t^K^5US:version:build^nodes^users[^ip^tag]^H99^".
std::string BuildPc92Keepalive(std::string_view our_call, std::string_view stamp,
                               const Pc92Entry& own, int nodes, int users,
                               std::string_view address = {}, std::string_view tag = {});
// Talk (to a call), announce (to "*", "SYSOP", "WX") or chat (to a group word).  "^" in text
// becomes "~".
std::string BuildPc93(std::string_view origin, std::string_view stamp, std::string_view to,
                      std::string_view from, std::string_view via, std::string_view text,
                      std::string_view on_behalf = {}, std::string_view address = {});

class Pc9xStampGenerator;

// What this node tells a new neighbour about itself.
struct LocalConfig {
  std::string our_call;
  std::string version;  // four digits, e.g. "5457"
  std::string build;
  std::vector<Pc92Entry> nodes;  // directly connected nodes (flag 5 or 7)
  std::vector<Pc92Entry> users;  // local users (flag 1 here, 0 away)
};

// Our configuration for a link start-up: PC92 C and K for a PC9x link (stamps from the
// node's one generator), or PC19 and one PC16 per local user for a legacy link.
std::vector<std::string> BuildOurConfig(const LocalConfig& config, bool pc9x,
                                        Pc9xStampGenerator& stamps, int now_seconds_of_day);

}  // namespace qx
