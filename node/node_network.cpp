#include "node/node_network.h"

#include <fmt/format.h>

#include <algorithm>
#include <cctype>
#include <chrono>

#include "core/monitor.h"
#include "core/stream_output.h"
#include "core/stream_table.h"
#include "core/text_util.h"
#include "node/network_state.h"
#include "node/pc_builders.h"
#include "node/qx11.h"
#include "spots/call_sign.h"
#include "spots/spot.h"

namespace qx {
namespace {

// "ip:port", "[v6]:port" or a bare address -> the address.
std::string AddressOnly(std::string_view peer) {
  if (peer.empty()) return {};
  if (peer.front() == '[') {
    const size_t close = peer.find(']');
    return std::string(peer.substr(1, close == std::string_view::npos ? peer.npos : close - 1));
  }
  const size_t first = peer.find(':');
  if (first != std::string_view::npos && peer.find(':', first + 1) == std::string_view::npos) {
    return std::string(peer.substr(0, first));
  }
  return std::string(peer);
}

bool ParseV4(std::string_view text, uint8_t out[4]) {
  const auto parts = Split(text, '.');
  if (parts.size() != 4) return false;
  for (size_t i = 0; i < 4; ++i) {
    long long v = 0;
    if (parts[i].empty() || parts[i].size() > 3 || !ParseInt(parts[i], v) || v < 0 || v > 255) {
      return false;
    }
    out[i] = uint8_t(v);
  }
  return true;
}

}  // namespace

NodeNetworkOptions NodeNetworkOptions::FromConfig(const Config& config, std::string version) {
  NodeNetworkOptions o;
  o.our_call = ToUpper(config.Get("Cluster Call"));
  o.version = std::move(version);
  o.retry_interval = std::max(1, config.GetInt("Connection Retry", o.retry_interval));
  o.ping_interval = std::max(1, config.GetInt("Node Ping Interval", o.ping_interval));
  o.first_ping_delay = std::max(0, config.GetInt("Node First Ping", o.first_ping_delay));
  o.keepalive_interval = std::max(1, config.GetInt("PC92 K Interval", o.keepalive_interval));
  o.config_interval = std::max(1, config.GetInt("PC92 C Interval", o.config_interval));
  o.config_after_change = std::max(1, config.GetInt("PC92 C After Change", o.config_after_change));
  o.pc50_interval = std::max(1, config.GetInt("PC50 Interval", o.pc50_interval));
  return o;
}

NodeNetwork::NodeNetwork(NodeNetworkOptions options, NodeNetworkDeps deps)
    : options_(std::move(options)),
      deps_(std::move(deps)),
      processor_(
          NodeOptions{options_.our_call, options_.pc_version, 0, true, /*pc92_topology=*/true},
          [&] {
            NodeDeps d;
            d.streams = deps_.streams;
            d.monitor = deps_.monitor;
            d.output = this;
            d.clock = deps_.clock;
            d.errors = deps_.errors;
            d.qx11_intake = [this](std::string_view sentence, const Spot& carried, int stream) {
              return deps_.qx11_intake ? deps_.qx11_intake(sentence, carried, stream) : false;
            };
            d.spot_intake = [this](const PcSentence& s, int code, int stream) {
              return deps_.spot_intake ? deps_.spot_intake(s.line, code, stream) : false;
            };
            d.pc41 = deps_.pc41;
            d.feed = deps_.feed;
            d.counts_changed = [this] { CountsChanged(); };
            d.relay = [this](int from, const PcSentence& s) { OnRelay(from, s); };
            d.nodes_left = [this](int from, const std::vector<std::string>& calls) {
              NodesLeft(calls, from);
            };
            d.pc93 = [this](PcSentence& s) { return OnPc93(s); };
            d.other = [this](PcSentence& s) { return OnOther(s); };
            d.our_config = [this](bool pc9x) { return OurConfig(pc9x); };
            return d;
          }()) {
  for (int n : {16, 17, 19, 21}) {
    processor_.SetHandler(n, [this](PcSentence& s) { return OnLegacyTopology(s); });
  }
  processor_.SetHandler(51, [this](PcSentence& s) { return OnPc51(s); });
  // Informational sentences this node takes no action on.
  for (int n : {24, 50}) processor_.SetHandler(n, [](PcSentence&) { return true; });
  for (int n : {23, 73}) {
    processor_.SetHandler(n, [this](PcSentence& s) { return OnPropagation(s); });
  }
}

NodeNetwork::~NodeNetwork() = default;

// Configuration -------------------------------------------------------------------------

NodeNetwork::Style NodeNetwork::StyleOfType(std::string_view type) {
  const std::string t = ToUpper(Trim(type));
  if (t == "QXC" || t.find("9X") != std::string::npos) return Style::kPc9x;
  return Style::kLegacy;
}

void NodeNetwork::Configure(const Config& config) {
  defined_.clear();
  defined_type_.clear();
  node_addresses_.clear();
  for (const NodeDefinition& n : config.nodes()) {
    if (Trim(n.call).empty()) continue;
    const std::string call = ToUpper(Trim(n.call));
    defined_[call] = StyleOfType(n.type);
    defined_type_[call] = ToUpper(Trim(n.type));
    std::string bad;
    if (!node_addresses_[call].Add(n.addresses, &bad)) {
      Show("Node " + call + ": \"Node Address\" entries that are not addresses are ignored: " + bad,
           "red");
    }
  }
  // List items are "CALL" or "CALL TYPE".
  for (const char* list : {"Nodes", "LocalNodes"}) {
    const ConfigList* l = config.FindList(list);
    if (!l) continue;
    for (const std::string& item : l->items) {
      const std::string_view text = Trim(item);
      const size_t blank = text.find(' ');
      const std::string call = ToUpper(text.substr(0, blank));
      if (call.empty() || defined_.count(call)) continue;
      const std::string_view type = blank == std::string_view::npos ? "" : text.substr(blank + 1);
      defined_[call] = StyleOfType(type);
      defined_type_[call] = ToUpper(Trim(type));
    }
  }
  std::vector<Outgoing> next;
  for (const OutgoingConnection& c : config.outgoing()) {
    if (Trim(c.name).empty()) continue;
    Outgoing o;
    o.def = c;
    // The connection is named after the node it reaches; RemoteNodeIs says what kind of
    // node that is ("QXC", "DXS", ...), which decides the style expected on the link.
    o.peer = ToUpper(Trim(c.name));
    o.wanted = c.IsActive();
    // Keep what is known of a connection that survives the new configuration.
    for (const Outgoing& old : outgoing_) {
      if (old.def.name == c.name) {
        o.stream = old.stream;
        o.pending = old.pending;
        o.next_attempt = old.next_attempt;
      }
    }
    // The node we call may also call us from the address we call it at (a name is not looked
    // up: a sysop who calls a node by name lists its address with the node).
    node_addresses_[o.peer].Add(c.ip_address);
    // An outgoing connection names a node even when the node group forgot it.
    if (!defined_.count(o.peer)) {
      defined_[o.peer] =
          Trim(c.remote_node_is).empty() ? Style::kPc9x : StyleOfType(c.remote_node_is);
      defined_type_[o.peer] = ToUpper(Trim(c.remote_node_is));
    }
    next.push_back(std::move(o));
  }
  outgoing_ = std::move(next);
}

bool NodeNetwork::IsDefinedNode(std::string_view call) const {
  return defined_.find(ToUpper(Trim(call))) != defined_.end();
}

const AddressList* NodeNetwork::NodeAddresses(std::string_view call) const {
  const std::string upper = ToUpper(Trim(call));
  if (!defined_.count(upper)) return nullptr;
  static const AddressList kNone;
  const auto it = node_addresses_.find(upper);
  return it == node_addresses_.end() ? &kNone : &it->second;
}

// Helpers -------------------------------------------------------------------------------

int64_t NodeNetwork::Now() const {
  return std::chrono::duration_cast<std::chrono::seconds>(deps_.clock->Now().time_since_epoch())
      .count();
}

int NodeNetwork::NowOfDay() const { return SecondsOfDay(deps_.clock->Now()); }

std::string NodeNetwork::Stamp() { return processor_.stamps().Next(NowOfDay()); }

NodeNetwork::Link* NodeNetwork::FindLink(int stream) {
  auto it = links_.find(stream);
  return it == links_.end() ? nullptr : it->second.get();
}

const NodeNetwork::Link* NodeNetwork::FindLink(int stream) const {
  auto it = links_.find(stream);
  return it == links_.end() ? nullptr : it->second.get();
}

NodeNetwork::Link* NodeNetwork::FindLinkByPeer(std::string_view call) {
  const std::string upper = ToUpper(Trim(call));
  for (auto& [stream, link] : links_) {
    if (link->info.peer == upper && !link->closing) return link.get();
  }
  return nullptr;
}

NodeNetwork::Outgoing* NodeNetwork::FindOutgoing(std::string_view name_or_call) {
  const std::string upper = ToUpper(Trim(name_or_call));
  for (Outgoing& o : outgoing_) {
    if (ToUpper(o.def.name) == upper) return &o;
  }
  for (Outgoing& o : outgoing_) {
    if (o.peer == upper) return &o;
  }
  return nullptr;
}

void NodeNetwork::Show(std::string_view text, std::string_view colour, int stream) {
  if (deps_.monitor) deps_.monitor->Write(MonitorChannel::kConsole, text, colour, stream);
}

void NodeNetwork::CountsChanged() {
  StateChanged();
  if (deps_.counts_changed) deps_.counts_changed();
}

void NodeNetwork::Send(int stream, std::string_view text) {
  if (text.empty()) return;
  // Node traffic goes only to the connection the link began on: never to a stream that is
  // no link, nor to a new connection that got the number of a link that is gone.
  Link* link = FindLink(stream);
  const StreamTable& t = *deps_.streams;
  if (!link || link->closing || !t.InRange(stream) || t.at(stream).tag != link->tag) {
    if (link && !link->closing) {
      Show("Node link " + link->info.peer + " lost its connection; sentence not sent", "red",
           stream);
    }
    return;
  }
  ++link->info.lines_out;
  deps_.out->SendToStream(stream, text);
}

void NodeNetwork::SendToLinks(std::string_view text, int except, bool pc9x_links, bool legacy_links,
                              std::string_view skip_peer) {
  for (auto& [stream, link] : links_) {
    if (stream == except || !link->info.up || link->closing) continue;
    if (!skip_peer.empty() && link->info.peer == skip_peer) continue;
    if (link->info.pc9x ? pc9x_links : legacy_links) Send(stream, text);
  }
}

int NodeNetwork::LocalUserStream(std::string_view call) const {
  const StreamTable& t = *deps_.streams;
  const std::string upper = ToUpper(Trim(call));
  int base_match = 0;
  for (int s = 1; s <= t.high_socket(); ++s) {
    const StreamEntry& e = t.at(s);
    if (!e.IsUser()) continue;
    if (e.call == upper) return s;
    if (!base_match && BaseCall(e.call) == upper) base_match = s;
  }
  return base_match;
}

std::vector<Pc92Entry> NodeNetwork::LocalUserEntries() const {
  std::vector<Pc92Entry> out;
  const StreamTable& t = *deps_.streams;
  for (int s = 1; s <= t.high_socket(); ++s) {
    const StreamEntry& e = t.at(s);
    if (!e.IsUser() || e.call.empty()) continue;
    Pc92Entry entry{1, e.call, {}};
    const std::string address = AddressOnly(e.peer_address);
    if (!address.empty()) entry.extra.push_back(address);
    out.push_back(std::move(entry));
  }
  return out;
}

std::vector<Pc92Entry> NodeNetwork::NeighbourEntries() const {
  std::vector<Pc92Entry> out;
  for (const auto& [stream, link] : links_) {
    if (link->info.up && !link->closing) {
      out.push_back(Pc92Entry{link->info.pc9x ? 5 : 7, link->info.peer, {}});
    }
  }
  return out;
}

std::vector<std::string> NodeNetwork::OurConfig(bool pc9x) {
  return OurConfigFor(deps_.streams->current(), pc9x);
}

std::vector<std::string> NodeNetwork::OurConfigFor(int stream, bool pc9x) {
  LocalConfig c;
  c.our_call = options_.our_call;
  c.version = options_.pc_version;
  c.build = options_.build;
  c.nodes = NeighbourEntries();
  c.users = LocalUserEntries();
  if (pc9x) {
    c.legacy_neighbours = LegacyNeighbours();
  } else {
    c.remote_nodes = RemoteNodesFor(stream);
  }
  return BuildOurConfig(c, pc9x, processor_.stamps(), NowOfDay());
}

bool NodeNetwork::ReachedThrough(std::string_view call, int stream) const {
  if (stream == 0) return false;
  const NetworkView& v = view();
  const NetworkView::Node* n = v.FindNode(call);
  if (!n) return false;
  return n->routes.count(stream) > 0 || v.RouteTo(call) == stream;
}

std::string NodeNetwork::LegacyVersionOf(std::string_view call, std::string_view hint) const {
  const auto usable = [](std::string_view v) {
    return v.size() == 4 &&
           std::all_of(v.begin(), v.end(), [](char c) { return c >= '0' && c <= '9'; }) &&
           v >= "5000";
  };
  if (usable(hint)) return std::string(hint);
  if (const NetworkView::Node* n = view().FindNode(call); n && usable(n->version)) {
    return n->version;
  }
  // Unknown or too old to be believed: legacy peers would drop the node, so it goes with ours.
  return options_.pc_version;
}

std::vector<NodeWithUsers> NodeNetwork::RemoteNodesFor(int stream) const {
  std::vector<NodeWithUsers> out;
  const Link* link = FindLink(stream);
  const std::string_view peer = link ? std::string_view(link->info.peer) : std::string_view();
  const NetworkView& v = view();
  for (const std::string& call : v.Nodes()) {
    if (call == peer || call == options_.our_call || ReachedThrough(call, stream)) continue;
    const NetworkView::Node* n = v.FindNode(call);
    if (!n) continue;
    out.push_back(NodeWithUsers{call,
                                LegacyVersionOf(call),
                                std::vector<std::string>(n->users.begin(), n->users.end()),
                                {}});
  }
  return out;
}

std::vector<NodeWithUsers> NodeNetwork::LegacyNeighbours() const {
  std::vector<NodeWithUsers> out;
  for (const auto& [stream, link] : links_) {
    if (!link->info.up || link->closing || link->info.pc9x) continue;
    NodeWithUsers n{link->info.peer, {}, {}, {}};
    if (const NetworkView::Node* node = view().FindNode(link->info.peer)) {
      n.users.assign(node->users.begin(), node->users.end());
      for (const std::string& child : node->child_nodes) {
        const NetworkView::Node* c = view().FindNode(child);
        if (c && !c->pc9x && child != options_.our_call) n.nodes.push_back(child);
      }
    }
    out.push_back(std::move(n));
  }
  return out;
}

bool NodeNetwork::IsPublicAddress(std::string_view address) {
  address = Trim(address);
  if (address.empty()) return false;
  uint8_t b[4];
  if (address.find(':') == std::string_view::npos && address.find(',') == std::string_view::npos) {
    if (!ParseV4(address, b)) return false;
    if (b[0] == 0 || b[0] == 10 || b[0] == 127 || b[0] >= 224) return false;
    if (b[0] == 172 && b[1] >= 16 && b[1] <= 31) return false;
    if (b[0] == 192 && b[1] == 168) return false;
    if (b[0] == 169 && b[1] == 254) return false;
    if (b[0] == 100 && b[1] >= 64 && b[1] <= 127) return false;  // carrier-grade NAT
    return true;
  }
  // IPv6 (a PC92-style "," stands for ":").
  std::string v6(address);
  for (char& c : v6) {
    if (c == ',') c = ':';
    c = char(std::tolower(static_cast<unsigned char>(c)));
  }
  for (char c : v6) {
    if (!(std::isxdigit(static_cast<unsigned char>(c)) || c == ':' || c == '.')) return false;
  }
  if (v6.find("::") == std::string::npos && std::count(v6.begin(), v6.end(), ':') != 7) {
    return false;
  }
  if (v6 == "::1" || v6 == "::") return false;
  if (v6.starts_with("fe8") || v6.starts_with("fe9") || v6.starts_with("fea") ||
      v6.starts_with("feb")) {
    return false;  // link-local
  }
  if (v6.starts_with("fc") || v6.starts_with("fd")) return false;  // unique local
  if (v6.starts_with("::ffff:")) return IsPublicAddress(v6.substr(7));
  return true;
}

// What the users ask ---------------------------------------------------------------------

void NodeNetwork::UserLoggedInOut(std::string_view call, int stream, bool in) {
  const std::string upper = ToUpper(call);
  Pc92Entry entry{1, upper, {}};
  if (in) {
    const StreamTable& t = *deps_.streams;
    if (t.InRange(stream)) {
      const std::string address = AddressOnly(t.at(stream).peer_address);
      if (!address.empty()) entry.extra.push_back(address);
    }
    SendToLinks(BuildPc92Add(options_.our_call, Stamp(), {entry}), 0, true, false);
    SendToLinks(BuildPc16(options_.our_call, upper), 0, false, true);
  } else {
    SendToLinks(BuildPc92Delete(options_.our_call, Stamp(), {entry}), 0, true, false);
    SendToLinks(BuildPc17(upper, options_.our_call), 0, false, true);
  }
  CountsChanged();
}

void NodeNetwork::SendPc41(std::string_view sentence) {
  std::string line(sentence);
  while (!line.empty() && (line.back() == '\r' || line.back() == '\n')) line.pop_back();
  // Remember our own information, so the copy that comes back around a ring is a repeat.
  const auto f = Split(line, '^');
  if (f.size() >= 4) {
    // What we send passes the checks we apply to what we receive: a value a neighbour would
    // refuse as bad data is not sent at all.
    const std::string_view value = f[3];
    if (value.empty() || value.find('?') != std::string_view::npos ||
        (deps_.pc41.bad_word && deps_.pc41.bad_word(value)) ||
        (deps_.pc41.valid_call && !deps_.pc41.valid_call(f[1]))) {
      if (deps_.pc41.bad_data_log) deps_.pc41.bad_data_log("Not sent, BAD Data^", line);
      return;
    }
    const int type = LeadingNumber(f[2]);
    const std::string base(BaseCall(f[1]));
    processor_.pc41_lists().Store(type, base, base + " " + std::string(f[3]));
  }
  line += "\r\n";
  SendToLinks(line, 0, true, true);
}

void NodeNetwork::Announce(std::string_view from, std::string_view to, std::string_view text,
                           int hops) {
  const int64_t now = Now();
  RelayDupCache& dups = processor_.dup_cache();
  dups.SeenAnnounce(from, to, text, now);
  dups.SeenPc93(from, text, options_.our_call, now);
  SendToLinks(BuildPc93(options_.our_call, Stamp(), to, from, "*", text, {}, {}, hops), 0, true,
              false);
  SendToLinks(BuildPc12(from, "*", text, to == "SYSOP", options_.our_call, to == "WX", hops), 0,
              false, true);
}

bool NodeNetwork::Talk(std::string_view from, std::string_view to, std::string_view text) {
  const std::string target = ToUpper(Trim(to));
  int route = processor_.view().RouteTo(target);
  if (route == 0 && BaseCall(target) != target) route = processor_.view().RouteTo(BaseCall(target));
  if (route == 0 || !FindLink(route)) return false;
  processor_.dup_cache().SeenPc93(from, text, options_.our_call, Now());
  SendTalkOn(route, from, target, text, {});
  return true;
}

void NodeNetwork::SendTalkOn(int stream, std::string_view from, std::string_view to,
                             std::string_view text, std::string_view on_behalf) {
  const Link* link = FindLink(stream);
  if (!link || !link->info.up) return;
  if (link->info.pc9x) {
    Send(stream, BuildPc93(options_.our_call, Stamp(), to, from, "*", text, on_behalf));
  } else {
    Send(stream, BuildPc10(from, to, text, on_behalf.empty() ? options_.our_call : on_behalf));
  }
}

void NodeNetwork::RelaySpot(const Spot& spot, int source_stream) {
  // A local spot comes from the DX command with "H100", which the decrement makes the "H99"
  // of a sentence we originate; a node's spot loses one hop here.  A hop field that is no
  // count is refused (and logged) by the decrement; it never starts afresh as "H99".
  std::string hop(spot.hops());
  if (!processor_.state().HopsOk(hop)) return;
  // The two forms are built in buffers that live with the manager: no allocation per spot
  // once they have grown.
  std::string& pc11 = spot_pc11_;
  std::string& pc61 = spot_pc61_;
  pc11.assign("PC11");
  for (int i = kSlotFrequency; i <= kSlotOriginNode; ++i) {
    pc11 += '^';
    pc11 += spot.slots[size_t(i)];
  }
  const bool public_address = IsPublicAddress(spot.address());
  if (public_address) {
    pc61.assign(pc11);
    pc61[2] = '6';  // "PC11" -> "PC61"
    pc61 += '^';
    pc61 += spot.address();
    pc61 += '^';
    pc61 += hop;
    pc61 += "^~\r\n";
  }
  pc11 += '^';
  pc11 += hop;
  pc11 += "^~\r\n";
  bool qx11_built = false;
  for (auto& [stream, link] : links_) {
    if (stream == source_stream || !link->info.up || link->closing) continue;
    if (link->info.peer == spot.origin_node()) continue;  // where it started
    if (TakesQx11(link->info)) {
      if (!qx11_built) {
        BuildQx11(spot, hop, public_address ? spot.address() : std::string_view(), spot_qx11_);
        spot_qx11_ += "\r\n";
        qx11_built = true;
      }
      Send(stream, spot_qx11_);
      continue;
    }
    Send(stream, link->info.pc9x && public_address ? pc61 : pc11);
  }
}

// Sysop views ----------------------------------------------------------------------------

std::string NodeNetwork::LinkCommand(std::string_view node, bool connect) {
  const std::string name = ToUpper(Trim(node));
  if (name.empty()) return connect ? "Usage: CONNECT <node>" : "Usage: DISCONNECT <node>";
  if (connect) {
    Outgoing* o = FindOutgoing(name);
    if (!o) return name + ": no outgoing connection defined";
    if (FindLinkByPeer(o->peer) || o->stream != 0) return o->peer + ": already connected";
    o->wanted = true;
    TryOutgoing(*o);
    return "Connecting to " + o->peer;
  }
  Link* link = FindLinkByPeer(name);
  if (!link) {
    if (Outgoing* o = FindOutgoing(name); o && o->stream != 0) link = FindLink(o->stream);
  }
  if (!link) return name + ": not connected";
  const std::string peer = link->info.peer;
  DropLink(*link, "Disconnected by System Op", true);
  return "Disconnecting " + peer;
}

std::vector<NodeNetwork::LinkInfo> NodeNetwork::Links() const {
  std::vector<LinkInfo> out;
  for (const auto& [stream, link] : links_) {
    if (!link->closing) out.push_back(link->info);
  }
  return out;
}

int NodeNetwork::NodeCount() const { return view().NodeCount(); }
int NodeNetwork::RemoteUserCount() const { return view().UserCount(); }

std::vector<std::string> NodeNetwork::Lines(std::string_view what) const {
  std::vector<std::string> lines;
  const NetworkView& view = this->view();
  if (what == "links") {
    if (links_.empty()) {
      lines.push_back("No node links.");
      return lines;
    }
    lines.push_back(
        "Node         Kind    Dir  Up since           Ping ms    Lines in   Lines out  Stream");
    for (const auto& [stream, link] : links_) {
      const LinkInfo& l = link->info;
      const std::string kind = !l.up ? "start" : (l.pc9x ? "PC9x" : "legacy");
      const std::string ping = l.last_rtt_ms < 0 ? "-" : fmt::format("{:.0f}", l.last_rtt_ms);
      lines.push_back(fmt::format("{:<12} {:<7} {:<4} {} {} {:>7} {:>11} {:>11}  {}", l.peer,
                                  link->closing ? "closing" : kind, l.outgoing ? "out" : "in",
                                  DateText(l.since), TimeHHnnZ(l.since), ping, l.lines_in,
                                  l.lines_out, stream));
    }
    return lines;
  }
  if (what == "nodes") {
    for (const std::string& n : view.Nodes()) {
      const NetworkView::Node* node = view.FindNode(n);
      lines.push_back(fmt::format("{:<12} {:<7} {}", n, node && node->pc9x ? "PC9x" : "legacy",
                                  node ? node->version : ""));
    }
    return lines;
  }
  if (what == "users" || what == "configuration") {
    for (const NetworkView::NodeUsers& n : view.Configuration()) {
      lines.push_back(n.node + " (" + std::to_string(n.users.size()) + " users)");
      std::string row;
      for (const std::string& c : n.users) {
        if (row.size() + c.size() + 1 > 70) {
          lines.push_back("  " + row);
          row.clear();
        }
        row += (row.empty() ? "" : " ") + c;
      }
      if (!row.empty()) lines.push_back("  " + row);
    }
    return lines;
  }
  if (what == "who") {
    for (const auto& [user, node] : view.Users()) {
      lines.push_back(fmt::format("  {:<8} {:<9} at {}", user, "REMOTE", node));
    }
  }
  return lines;
}

}  // namespace qx
