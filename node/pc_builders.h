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

// One node of a PC19 group: "here ^ call ^ conference ^ version".
struct Pc19Node {
  std::string call;
  std::string version;  // four digits
  bool here = true;
  bool conference = false;
};
// Legacy peers take several nodes per PC19 and several users per PC16; both are split so that
// no line grows past kLegacyLineBudget characters (one group always fits a line of its own).
constexpr size_t kLegacyLineBudget = 200;
std::vector<std::string> BuildPc19Lines(const std::vector<Pc19Node>& nodes);
std::vector<std::string> BuildPc16Lines(std::string_view node_call,
                                        const std::vector<std::string>& user_calls);
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
                      std::string_view origin_node, bool wx = false, int hops = 99);

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
                      std::string_view on_behalf = {}, std::string_view address = {},
                      int hops = 99);

class Pc9xStampGenerator;

// "PC92^us^t^C^7LEGACY^1USER...^H99^": the configuration of a legacy neighbour, which only we
// can describe to PC9x nodes (slot 1 flagged as an external node of ours).
std::string BuildPc92LegacyConfig(std::string_view our_call, std::string_view stamp,
                                  std::string_view legacy_call,
                                  const std::vector<std::string>& user_calls,
                                  const std::vector<std::string>& node_calls = {});

// A node other than ours with the users logged in there.
struct NodeWithUsers {
  std::string call;
  std::string version;  // four digits (PC19)
  std::vector<std::string> users;
  std::vector<std::string> nodes;  // legacy nodes it reported behind it
};

// What this node tells a new neighbour about itself and the network beyond it.
struct LocalConfig {
  std::string our_call;
  std::string version;  // four digits, e.g. "5457"
  std::string build;
  std::vector<Pc92Entry> nodes;  // directly connected nodes (flag 5 or 7)
  std::vector<Pc92Entry> users;  // local users (flag 1 here, 0 away)
  // For a legacy link: every other node it may learn through us.  Legacy peers have no way to
  // hear of the network beyond us except from our PC19/PC16.
  std::vector<NodeWithUsers> remote_nodes{};
  // For a PC9x link: our legacy neighbours, each described in a PC92 C of its own.
  std::vector<NodeWithUsers> legacy_neighbours{};
};

// Our configuration for a link start-up (stamps from the node's one generator).  PC9x link:
// our PC92 C and K, then a C for each legacy neighbour.  Legacy link: PC19 for us and every
// remote node (ours first), then PC16 for our users and for each remote node's users.
std::vector<std::string> BuildOurConfig(const LocalConfig& config, bool pc9x,
                                        Pc9xStampGenerator& stamps, int now_seconds_of_day);

}  // namespace qx
