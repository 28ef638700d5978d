#include "node/network_state.h"

#include <fmt/format.h>

#include "core/text_util.h"

namespace qx {
namespace {

constexpr std::string_view kHeader = "QX network state 1";

// A word of the file: never empty, never with a blank or line end in it.
bool Writable(std::string_view word) {
  if (word.empty()) return false;
  for (char c : word) {
    if (static_cast<unsigned char>(c) <= ' ') return false;
  }
  return true;
}

std::string Field(std::string_view value) { return value.empty() ? "-" : std::string(value); }
std::string Unfield(std::string_view word) { return word == "-" ? "" : std::string(word); }

}  // namespace

std::string FormatNetworkState(const NetworkState& s) {
  std::string out(kHeader);
  out += "\n";
  out += fmt::format("saved {}\n", s.saved_at);
  if (Writable(s.our_stamp)) out += "stamp " + s.our_stamp + "\n";
  for (const NetworkState::LinkRow& l : s.links) {
    if (Writable(l.peer)) out += fmt::format("link {} {} {}\n", l.stream, l.tag, l.peer);
  }
  for (const NetworkView::Node& n : s.nodes) {
    if (!Writable(n.call)) continue;
    const auto ok = [](const std::string& v) { return v.empty() || Writable(v); };
    out += fmt::format("node {} {} {} {} {} {}\n", n.call, n.pc9x ? 1 : 0,
                       Field(ok(n.version) ? n.version : ""), Field(ok(n.build) ? n.build : ""),
                       Field(ok(n.address) ? n.address : ""), n.life);
    for (const std::string& u : n.users) {
      if (Writable(u)) out += "user " + n.call + " " + u + "\n";
    }
    for (const std::string& c : n.child_nodes) {
      if (Writable(c)) out += "child " + n.call + " " + c + "\n";
    }
    for (const auto& [stream, hops] : n.routes) {
      out += fmt::format("route {} {} {}\n", n.call, stream, hops);
    }
  }
  for (const auto& [origin, stamp] : s.origins) {
    if (Writable(origin)) out += fmt::format("origin {} {:.2f}\n", origin, stamp);
  }
  for (const std::string& u : s.local_users) {
    if (Writable(u)) out += "local " + u + "\n";
  }
  out += "end\n";
  return out;
}

bool ParseNetworkState(std::string_view text, NetworkState* out, std::string* error) {
  NetworkState s;
  const auto fail = [&](size_t line_no, std::string_view why) {
    if (error) *error = fmt::format("line {}: {}", line_no, why);
    return false;
  };
  std::vector<std::string_view> lines = Split(text, '\n');
  if (lines.empty() || Trim(lines[0]) != kHeader) return fail(1, "not a network state file");
  bool ended = false;
  NetworkView::Node* node = nullptr;  // the node the following rows belong to
  for (size_t i = 1; i < lines.size() && !ended; ++i) {
    const std::string_view line = Trim(lines[i]);
    if (line.empty()) continue;
    std::vector<std::string_view> w;
    for (std::string_view word : Split(line, ' ')) {
      if (!word.empty()) w.push_back(word);
    }
    const std::string_view kind = w[0];
    long long a = 0, b = 0;
    double d = 0;
    if (kind == "end" && w.size() == 1) {
      ended = true;
    } else if (kind == "saved" && w.size() == 2 && ParseInt(w[1], a)) {
      s.saved_at = a;
    } else if (kind == "stamp" && w.size() == 2) {
      s.our_stamp = std::string(w[1]);
    } else if (kind == "link" && w.size() == 4 && ParseInt(w[1], a) && ParseInt(w[2], b)) {
      s.links.push_back(NetworkState::LinkRow{int(a), b, std::string(w[3])});
    } else if (kind == "node" && w.size() == 7 && ParseInt(w[2], a) && ParseInt(w[6], b)) {
      NetworkView::Node n;
      n.call = std::string(w[1]);
      n.pc9x = a != 0;
      n.version = Unfield(w[3]);
      n.build = Unfield(w[4]);
      n.address = Unfield(w[5]);
      n.life = int(b);
      s.nodes.push_back(std::move(n));
      node = &s.nodes.back();
    } else if ((kind == "user" || kind == "child") && w.size() == 3 && node && node->call == w[1]) {
      (kind == "user" ? node->users : node->child_nodes).insert(std::string(w[2]));
    } else if (kind == "route" && w.size() == 4 && node && node->call == w[1] &&
               ParseInt(w[2], a) && ParseInt(w[3], b) && a > 0) {
      node->routes[int(a)] = int(b);
    } else if (kind == "origin" && w.size() == 3 && ParseDouble(w[2], d)) {
      s.origins.emplace_back(std::string(w[1]), d);
    } else if (kind == "local" && w.size() == 2) {
      s.local_users.emplace_back(w[1]);
    } else {
      return fail(i + 1, "cannot be read: " + std::string(line.substr(0, 60)));
    }
  }
  if (!ended) return fail(lines.size(), "the file ends early");
  *out = std::move(s);
  return true;
}

}  // namespace qx
