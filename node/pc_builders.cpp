#include "node/pc_builders.h"

#include "node/pc9x_time.h"

namespace qx {
namespace {

constexpr std::string_view kEol = "\r\n";

// Joins the pieces into one line and appends CR LF.
std::string Cat(std::initializer_list<std::string_view> parts) {
  size_t size = kEol.size();
  for (std::string_view p : parts) size += p.size();
  std::string out;
  out.reserve(size);
  for (std::string_view p : parts) out += p;
  out += kEol;
  return out;
}

std::string CaretFree(std::string_view text) {
  std::string out(text);
  for (char& c : out) {
    if (c == '^') c = '~';
  }
  return out;
}

std::string Pc92(std::string_view our_call, std::string_view stamp, char type,
                 std::string_view slot1, const std::vector<Pc92Entry>& entries) {
  std::string out = "PC92^";
  out += our_call;
  out += '^';
  out += stamp;
  out += '^';
  out += type;
  out += '^';
  out += slot1;
  for (const Pc92Entry& e : entries) {
    out += '^';
    out += FormatPc92Entry(e);
  }
  out += "^H99^";
  out += kEol;
  return out;
}

}  // namespace

std::string BuildPc18(std::string_view version, bool pc9x) {
  return Cat({"PC18^QX Cluster Version: ", version, pc9x ? " Build: 0.001 pc9x^" : " Build: 0.001^",
              version, "^"});
}

std::string BuildPc19(std::string_view node_call, bool conference, std::string_view version) {
  return Cat({"PC19^1^", node_call, conference ? "^1^" : "^0^", version, "^H99^"});
}

std::string BuildPc16(std::string_view node_call, std::string_view user_call) {
  return Cat({"PC16^", node_call, "^", user_call, " - 1^H99^"});
}

std::vector<std::string> BuildPc19Lines(const std::vector<Pc19Node>& nodes) {
  std::vector<std::string> out;
  std::string line;
  constexpr std::string_view kTail = "^H99^";
  for (const Pc19Node& n : nodes) {
    const size_t group = 1 + 2 + n.call.size() + 3 + n.version.size();
    if (!line.empty() && line.size() + group + kTail.size() > kLegacyLineBudget) {
      line += kTail;
      line += kEol;
      out.push_back(std::move(line));
      line.clear();
    }
    if (line.empty()) line = "PC19";
    line += n.here ? "^1^" : "^0^";
    line += n.call;
    line += n.conference ? "^1^" : "^0^";
    line += n.version;
  }
  if (!line.empty()) {
    line += kTail;
    line += kEol;
    out.push_back(std::move(line));
  }
  return out;
}

std::vector<std::string> BuildPc16Lines(std::string_view node_call,
                                        const std::vector<std::string>& user_calls) {
  std::vector<std::string> out;
  std::string line;
  constexpr std::string_view kTail = "^H99^";
  for (const std::string& u : user_calls) {
    const size_t entry = 1 + u.size() + 4;  // "^CALL - 1"
    if (!line.empty() && line.size() + entry + kTail.size() > kLegacyLineBudget) {
      line += kTail;
      line += kEol;
      out.push_back(std::move(line));
      line.clear();
    }
    if (line.empty()) {
      line = "PC16^";
      line += node_call;
    }
    line += '^';
    line += u;
    line += " - 1";
  }
  if (!line.empty()) {
    line += kTail;
    line += kEol;
    out.push_back(std::move(line));
  }
  return out;
}

std::string BuildPc17(std::string_view user_call, std::string_view node_call) {
  return Cat({"PC17^", user_call, "^", node_call, "^H99^"});
}

std::string BuildPc20() { return Cat({"PC20^"}); }

std::string BuildPc21(std::string_view node_call, std::string_view reason) {
  return Cat({"PC21^", node_call, "^", reason, "^H99^"});
}

std::string BuildPc22() { return Cat({"PC22^"}); }

std::string BuildPc39(std::string_view our_call, std::string_view reason) {
  return Cat({"PC39^", our_call, "^", reason, "^H99^"});
}

std::string BuildPc50(std::string_view our_call, int local_users) {
  const std::string count = std::to_string(local_users);
  return Cat({"PC50^", our_call, "^", count, "^H99^"});
}

std::string BuildPc51Request(std::string_view neighbour_call, std::string_view our_call) {
  return Cat({"PC51^", neighbour_call, "^", our_call, "^1^"});
}

std::string BuildPc51Answer(std::string_view sender, std::string_view addressed) {
  return Cat({"PC51^", sender, "^", addressed, "^0^"});
}

std::string BuildPc41(std::string_view user_call, int type, std::string_view value) {
  const std::string digit = std::to_string(type);
  return Cat({"PC41^", user_call, "^", digit, "^", value, "^H99^~"});
}

std::string BuildPc10(std::string_view from, std::string_view to_call, std::string_view text,
                      std::string_view origin_node, std::string_view via_node) {
  const std::string body = CaretFree(text);
  if (via_node.empty())
    return Cat({"PC10^", from, "^", to_call, "^", body, "^*^ ^", origin_node, "^~"});
  return Cat({"PC10^", from, "^", via_node, "^", body, "^*^", to_call, "^", origin_node, "^~"});
}

std::string BuildPc12(std::string_view from, std::string_view to, std::string_view text, bool sysop,
                      std::string_view origin_node, bool wx, int hops) {
  const std::string body = CaretFree(text);
  const std::string hop = "^H" + std::to_string(hops) + "^~";
  return Cat({"PC12^", from, "^", to, "^", body, sysop ? "^*^" : "^ ^", origin_node,
              wx ? "^1" : "^0", hop});
}

std::string FormatPc92Entry(const Pc92Entry& e) {
  std::string out = std::to_string(e.flag);
  out += e.call;
  for (const std::string& x : e.extra) {
    out += ':';
    for (char c : x) out += (c == ':') ? ',' : c;
  }
  return out;
}

std::string BuildPc92Add(std::string_view our_call, std::string_view stamp,
                         const std::vector<Pc92Entry>& entries, const Pc92Entry* slot1) {
  return Pc92(our_call, stamp, 'A', slot1 ? FormatPc92Entry(*slot1) : std::string(), entries);
}

std::string BuildPc92Delete(std::string_view our_call, std::string_view stamp,
                            const std::vector<Pc92Entry>& entries, const Pc92Entry* slot1) {
  return Pc92(our_call, stamp, 'D', slot1 ? FormatPc92Entry(*slot1) : std::string(), entries);
}

std::string BuildPc92Config(std::string_view our_call, std::string_view stamp, const Pc92Entry& own,
                            const std::vector<Pc92Entry>& entries) {
  return Pc92(our_call, stamp, 'C', FormatPc92Entry(own), entries);
}

std::string BuildPc92LegacyConfig(std::string_view our_call, std::string_view stamp,
                                  std::string_view legacy_call,
                                  const std::vector<std::string>& user_calls,
                                  const std::vector<std::string>& node_calls) {
  std::vector<Pc92Entry> entries;
  entries.reserve(node_calls.size() + user_calls.size());
  for (const std::string& n : node_calls) entries.push_back(Pc92Entry{7, n, {}});
  for (const std::string& u : user_calls) entries.push_back(Pc92Entry{1, u, {}});
  return BuildPc92Config(our_call, stamp, Pc92Entry{7, std::string(legacy_call), {}}, entries);
}

std::string BuildPc92Keepalive(std::string_view our_call, std::string_view stamp,
                               const Pc92Entry& own, int nodes, int users, std::string_view address,
                               std::string_view tag) {
  std::string out = "PC92^";
  out += our_call;
  out += '^';
  out += stamp;
  out += "^K^";
  out += FormatPc92Entry(own);
  out += '^';
  out += std::to_string(nodes);
  out += '^';
  out += std::to_string(users);
  if (!address.empty() || !tag.empty()) {
    out += '^';
    out += address;
    out += '^';
    out += tag;
  }
  out += "^H99^";
  out += kEol;
  return out;
}

std::string BuildPc93(std::string_view origin, std::string_view stamp, std::string_view to,
                      std::string_view from, std::string_view via, std::string_view text,
                      std::string_view on_behalf, std::string_view address, int hops) {
  const std::string body = CaretFree(text);
  const std::string hop = "^H" + std::to_string(hops) + "^";
  std::string ip(address);
  for (char& c : ip) {
    if (c == ':') c = ',';
  }
  if (ip.empty()) {
    return Cat({"PC93^", origin, "^", stamp, "^", to, "^", from, "^", via, "^", body, "^",
                on_behalf, hop});
  }
  return Cat({"PC93^", origin, "^", stamp, "^", to, "^", from, "^", via, "^", body, "^", on_behalf,
              "^", ip, hop});
}

std::vector<std::string> BuildOurConfig(const LocalConfig& config, bool pc9x,
                                        Pc9xStampGenerator& stamps, int now_seconds_of_day) {
  std::vector<std::string> out;
  if (pc9x) {
    std::vector<Pc92Entry> entries = config.nodes;
    entries.insert(entries.end(), config.users.begin(), config.users.end());
    const Pc92Entry own{5, config.our_call, {config.version}};
    out.push_back(BuildPc92Config(config.our_call, stamps.Next(now_seconds_of_day), own, entries));
    const Pc92Entry own_k{5, config.our_call, {config.version, config.build}};
    out.push_back(BuildPc92Keepalive(config.our_call, stamps.Next(now_seconds_of_day), own_k,
                                     static_cast<int>(config.nodes.size()) + 1,
                                     static_cast<int>(config.users.size())));
    for (const NodeWithUsers& n : config.legacy_neighbours) {
      out.push_back(BuildPc92LegacyConfig(config.our_call, stamps.Next(now_seconds_of_day), n.call,
                                          n.users, n.nodes));
    }
    return out;
  }
  std::vector<Pc19Node> nodes;
  nodes.reserve(1 + config.remote_nodes.size());
  nodes.push_back(Pc19Node{config.our_call, config.version});
  for (const NodeWithUsers& n : config.remote_nodes) nodes.push_back(Pc19Node{n.call, n.version});
  for (std::string& line : BuildPc19Lines(nodes)) out.push_back(std::move(line));
  std::vector<std::string> ours;
  ours.reserve(config.users.size());
  for (const Pc92Entry& u : config.users) ours.push_back(u.call);
  for (std::string& line : BuildPc16Lines(config.our_call, ours)) out.push_back(std::move(line));
  for (const NodeWithUsers& n : config.remote_nodes) {
    for (std::string& line : BuildPc16Lines(n.call, n.users)) out.push_back(std::move(line));
  }
  return out;
}

}  // namespace qx
