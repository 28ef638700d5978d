#include "node/node_network.h"

#include <fmt/format.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <limits>

#include "core/monitor.h"
#include "core/stream_output.h"
#include "core/stream_table.h"
#include "core/text_util.h"
#include "node/pc_builders.h"
#include "spots/call_sign.h"
#include "spots/spot.h"

namespace qx {
namespace {

constexpr int64_t kNever = std::numeric_limits<int64_t>::max();
// A link that has not finished its handshake by then is given up.
constexpr int64_t kHandshakeTimeout = 90;
// A connection asked of the front-end that was neither made nor refused by then is
// forgotten (the front-end itself gives up after 30 s).
constexpr int64_t kOutgoingAnswerTimeout = 45;
constexpr int64_t kTalkWindow = 45;

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

bool IsAnnounceTarget(std::string_view to) { return to == "*" || to == "SYSOP" || to == "WX"; }

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

struct NodeNetwork::Link {
  LinkInfo info;
  int64_t tag = 0;  // the front-end's tag of the stream when the link began
  int64_t created = 0;
  int64_t next_ping = kNever;
  int64_t next_pc50 = kNever;
  SysTime ping_sent{};
  bool ping_outstanding = false;
  bool closing = false;
};

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
  node_addresses_.clear();
  for (const NodeDefinition& n : config.nodes()) {
    if (Trim(n.call).empty()) continue;
    const std::string call = ToUpper(Trim(n.call));
    defined_[call] = StyleOfType(n.type);
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
      defined_[call] = StyleOfType(blank == std::string_view::npos ? "" : text.substr(blank + 1));
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

// Links ---------------------------------------------------------------------------------

void NodeNetwork::StartLink(int stream, std::string_view peer, bool outgoing,
                            std::string_view first_line) {
  auto link = std::make_unique<Link>();
  link->info.stream = stream;
  link->info.peer = ToUpper(peer);
  link->info.outgoing = outgoing;
  link->info.since = deps_.clock->Now();
  link->created = Now();
  Link& l = *link;
  links_[stream] = std::move(link);
  StreamTable& t = *deps_.streams;
  t.EnsureCapacity(stream);
  StreamEntry& e = t.at(stream);
  l.tag = e.tag;
  e.call = l.info.peer;
  e.login_stage = LoginStage::kLoggedIn;
  processor_.StartLink(stream,
                       outgoing ? NodeLinkHandshake::Role::kCall : NodeLinkHandshake::Role::kAccept,
                       l.info.peer, first_line);
  deps_.out->SetStreamIdentity(stream, l.info.peer, kStateNodeConnecting);
  Show((outgoing ? "Node link to " : "Node link from ") + l.info.peer + " starting", "", stream);
  CheckEstablished(l);
}

void NodeNetwork::CheckEstablished(Link& link) {
  if (link.info.up || link.closing) return;
  const NodeLinkHandshake* hs = processor_.Handshake(link.info.stream);
  if (hs && hs->up()) LinkEstablished(link);
}

void NodeNetwork::LinkEstablished(Link& link) {
  const NodeLinkHandshake* hs = processor_.Handshake(link.info.stream);
  const int64_t now = Now();
  link.info.up = true;
  link.info.pc9x = hs && hs->peer_pc9x();
  link.info.since = deps_.clock->Now();
  link.next_ping = now + options_.first_ping_delay;
  link.next_pc50 = link.info.pc9x ? kNever : now + options_.pc50_interval;
  deps_.out->SetStreamIdentity(link.info.stream, link.info.peer,
                               link.info.pc9x ? kStateNodePc9x : kStateNodeLegacy);
  const auto def = defined_.find(link.info.peer);
  if (def != defined_.end() && (def->second == Style::kPc9x) != link.info.pc9x) {
    Show("Node " + link.info.peer + " is defined as " +
             (def->second == Style::kPc9x ? "PC9x" : "legacy") + " but speaks " +
             (link.info.pc9x ? "PC9x" : "legacy"),
         "orange", link.info.stream);
  }
  Show("Node link up: " + link.info.peer + (link.info.pc9x ? " (PC9x)" : " (legacy)"), "green",
       link.info.stream);

  // Tell the rest of the network about the new neighbour.
  const Pc92Entry entry{link.info.pc9x ? 5 : 7, link.info.peer, {}};
  SendToLinks(BuildPc92Add(options_.our_call, Stamp(), {entry}), link.info.stream, true, false);
  SendToLinks(BuildPc19(link.info.peer, false, options_.pc_version), link.info.stream, false, true);

  next_config_ =
      std::min(next_config_ == 0 ? kNever : next_config_, now + options_.config_after_change);
  if (next_keepalive_ == 0) next_keepalive_ = now + options_.keepalive_interval;
  if (next_expiry_ == 0) next_expiry_ = now + kQuietCountdownInterval;
  CountsChanged();
}

void NodeNetwork::DropLink(Link& link, std::string_view reason, bool send_pc39) {
  if (link.closing) return;
  if (send_pc39) Send(link.info.stream, BuildPc39(options_.our_call, reason));
  link.closing = true;
  Show("Node link " + link.info.peer + " dropped: " + std::string(reason), "red", link.info.stream);
  deps_.out->CloseStream(link.info.stream);
}

void NodeNetwork::LinkGone(int stream) {
  auto it = links_.find(stream);
  if (it == links_.end()) return;
  std::unique_ptr<Link> link = std::move(it->second);
  links_.erase(it);
  const bool was_up = link->info.up;
  // The legacy nodes behind a legacy link were announced to PC9x neighbours as ours.
  std::vector<std::string> legacy_nodes;
  if (was_up && !link->info.pc9x) {
    for (const std::string& call : view().Nodes()) {
      if (call != link->info.peer && !view().FindNode(call)->pc9x) legacy_nodes.push_back(call);
    }
  }
  const std::vector<std::string> gone = processor_.LinkClosed(stream);
  const int64_t now = Now();
  for (Outgoing& o : outgoing_) {
    if (o.stream == stream) {
      o.stream = 0;
      o.pending = false;
      o.next_attempt = now + options_.retry_interval;
    }
  }
  if (was_up) {
    // PC9x neighbours hear that the node is no longer ours; whether it is still reachable
    // another way each of them works out from the lists of the others.
    std::vector<Pc92Entry> entries{Pc92Entry{link->info.pc9x ? 5 : 7, link->info.peer, {}}};
    for (const std::string& call : gone) {
      if (std::binary_search(legacy_nodes.begin(), legacy_nodes.end(), call)) {
        entries.push_back(Pc92Entry{7, call, {}});
      }
    }
    SendToLinks(BuildPc92Delete(options_.our_call, Stamp(), entries), 0, true, false);
    // Legacy neighbours know nodes, not links: they hear of the nodes that are gone, and
    // of none that another link still reaches.
    NodesLeft(gone, stream);
    next_config_ =
        std::min(next_config_ == 0 ? kNever : next_config_, now + options_.config_after_change);
  }
  Show("Node link closed: " + link->info.peer, "", stream);
  CountsChanged();
}

void NodeNetwork::NodesLeft(const std::vector<std::string>& calls, int except_stream) {
  for (const std::string& call : calls) {
    SendToLinks(BuildPc21(call, "Gone"), except_stream, false, true, call);
    pc92_told_.erase(call);
    legacy_config_heard_.erase(call);
    // Should it come back, the lists that held it tell it again.
    for (auto& [owner, told] : pc92_told_) told.nodes.erase(call);
  }
}

bool NodeNetwork::OnNodeLogin(int stream, std::string_view call) {
  if (!IsDefinedNode(call)) return false;
  const std::string upper = ToUpper(Trim(call));
  if (Link* old = FindLinkByPeer(upper); old && old->info.stream != stream) {
    if (!old->info.up && old->info.outgoing && CallerWins(upper)) {
      // Both sides called at once: the connection of the node with the lower call stays.
      deps_.out->CloseStream(stream);
      return true;
    }
    // A neighbour that comes in again replaces its old link (a half-open one, as a rule).
    DropLink(*old, "Reconnected", false);
  }
  StartLink(stream, upper, /*outgoing=*/false, upper);
  return true;
}

bool NodeNetwork::CallerWins(std::string_view peer) const { return options_.our_call < peer; }

bool NodeNetwork::OnConnectRequest(int stream) {
  const StreamTable& t = *deps_.streams;
  if (!t.InRange(stream)) return false;
  const std::string& label = t.at(stream).connection_label;
  if (label.empty()) return false;
  Outgoing* o = nullptr;
  for (Outgoing& c : outgoing_) {
    if (c.def.name == label) o = &c;
  }
  if (!o) return false;
  o->pending = false;
  if (Link* old = FindLinkByPeer(o->peer)) {
    if (old->info.up || !CallerWins(o->peer)) {
      // The neighbour is (being) linked through its own call: this one is not needed.
      o->next_attempt = Now() + options_.retry_interval;
      deps_.out->CloseStream(stream);
      return true;
    }
    DropLink(*old, "Reconnected", false);
  }
  o->stream = stream;
  StartLink(stream, o->peer, /*outgoing=*/true, {});
  return true;
}

bool NodeNetwork::OnPartialLine(int stream, std::string_view text) {
  Link* link = FindLink(stream);
  if (!link || link->info.up || link->closing) return false;
  if (!NodeLinkHandshake::IsLoginPrompt(text) && !ContainsIgnoreCase(text, "password:")) {
    return false;
  }
  processor_.ProcessNodeData(stream, text);
  if (Link* l = FindLink(stream)) CheckEstablished(*l);
  return true;
}

void NodeNetwork::OnLine(int stream, std::string_view line) {
  Link* link = FindLink(stream);
  if (!link || link->closing) return;
  ++link->info.lines_in;
  if (!link->info.up) {
    // A prompt without line end that the peer's next line caught up with ("login: PC18^...")
    // is the handshake's; the rest is a line of its own.
    for (std::string_view prompt : {"login:", "password:"}) {
      size_t at = std::string_view::npos;
      for (size_t i = 0; i + prompt.size() <= line.size(); ++i) {
        if (EqualsIgnoreCase(line.substr(i, prompt.size()), prompt)) {
          at = i;
          break;
        }
      }
      if (at == std::string_view::npos) continue;
      size_t rest = at + prompt.size();
      while (rest < line.size() && line[rest] == ' ') ++rest;
      if (rest >= line.size()) break;
      processor_.ProcessNodeData(stream, line.substr(0, rest));
      line.remove_prefix(rest);
      break;
    }
  }
  processor_.ProcessNodeData(stream, line);
  if (Link* l = FindLink(stream)) CheckEstablished(*l);
}

void NodeNetwork::OnStreamClosed(int stream) { LinkGone(stream); }

void NodeNetwork::OnOutgoingFailed(std::string_view label, std::string_view reason) {
  for (Outgoing& o : outgoing_) {
    if (o.def.name != label) continue;
    o.pending = false;
    o.next_attempt = Now() + options_.retry_interval;
    Show("Connection to " + o.peer + " failed: " + std::string(reason), "red");
  }
}

void NodeNetwork::OnStreamRecovered(int stream) {
  StreamTable& t = *deps_.streams;
  if (!t.InRange(stream)) return;
  StreamEntry& e = t.at(stream);
  if (!e.IsNode()) return;
  if (e.state == kStateNodeConnecting || e.call.empty()) {
    // A handshake cut short by the restart cannot be resumed: start over.
    deps_.out->CloseStream(stream);
    return;
  }
  auto link = std::make_unique<Link>();
  link->info.stream = stream;
  link->tag = e.tag;
  link->info.peer = ToUpper(e.call);
  link->info.outgoing = !e.connection_label.empty();
  link->info.up = true;
  link->info.pc9x = e.state == kStateNodePc9x;
  link->info.since = deps_.clock->Now();
  link->created = Now();
  link->next_ping = Now() + options_.first_ping_delay;
  link->next_pc50 = link->info.pc9x ? kNever : Now() + options_.pc50_interval;
  Link& l = *link;
  links_[stream] = std::move(link);
  e.unanswered_pings = 0;
  e.login_stage = LoginStage::kLoggedIn;
  for (Outgoing& o : outgoing_) {
    if (o.def.name == e.connection_label) {
      o.stream = stream;
      o.pending = false;
    }
  }
  processor_.view().LinkUp(stream, l.info.peer, l.info.pc9x);
  // The neighbour hears our introduction again and our current configuration.
  Send(stream, BuildPc18(options_.pc_version, l.info.pc9x));
  for (const std::string& line : OurConfigFor(stream, l.info.pc9x)) Send(stream, line);
  if (next_keepalive_ == 0) next_keepalive_ = Now() + options_.keepalive_interval;
  if (next_expiry_ == 0) next_expiry_ = Now() + kQuietCountdownInterval;
  Show("Node link recovered: " + l.info.peer, "orange", stream);
  CountsChanged();
}

void NodeNetwork::RedialNow() {
  const int64_t now = Now();
  for (Outgoing& o : outgoing_) {
    if (o.stream == 0) {
      o.pending = false;
      o.next_attempt = now;
    }
  }
}

void NodeNetwork::TryOutgoing(Outgoing& o) {
  o.pending = true;
  o.next_attempt = Now() + std::max<int64_t>(options_.retry_interval, kOutgoingAnswerTimeout);
  Show("Connecting to " + o.peer + " at " + o.def.ip_address + ":" + o.def.ip_port);
  if (deps_.open_outgoing) deps_.open_outgoing(o.def.ip_address, o.def.Port(), o.def.name);
}

void NodeNetwork::Tick() {
  const int64_t now = Now();
  if (ready_) {
    for (Outgoing& o : outgoing_) {
      if (!o.wanted || o.stream != 0 || o.def.Port() == 0) continue;
      if (o.pending && now < o.next_attempt) continue;
      if (now < o.next_attempt) continue;
      if (FindLinkByPeer(o.peer)) continue;  // the neighbour called us
      TryOutgoing(o);
    }
  }
  std::vector<Link*> to_drop;
  bool any_pc9x = false;
  for (auto& [stream, link] : links_) {
    Link& l = *link;
    if (l.closing) continue;
    if (!l.info.up) {
      if (now - l.created > kHandshakeTimeout) to_drop.push_back(&l);
      continue;
    }
    any_pc9x |= l.info.pc9x;
    if (now >= l.next_ping) {
      StreamEntry& e = deps_.streams->at(stream);
      if (e.unanswered_pings >= options_.max_unanswered_pings) {
        to_drop.push_back(&l);
        continue;
      }
      Send(stream, BuildPc51Request(l.info.peer, options_.our_call));
      ++e.unanswered_pings;
      l.ping_sent = deps_.clock->Now();
      l.ping_outstanding = true;
      l.next_ping = now + options_.ping_interval;
    }
    if (now >= l.next_pc50) {
      Send(stream, BuildPc50(options_.our_call, deps_.streams->CountUsers()));
      l.next_pc50 = now + options_.pc50_interval;
    }
  }
  for (Link* l : to_drop) {
    DropLink(*l, l->info.up ? "No answer to link checks" : "Link start-up timed out", l->info.up);
  }
  if (any_pc9x) {
    if (next_keepalive_ != 0 && now >= next_keepalive_) {
      SendKeepalive();
      SendLegacyConfigs();
      next_keepalive_ = now + options_.keepalive_interval;
    }
    // Quiet nodes are counted down hourly, the pace at which peers send their K, whatever
    // our own K interval is set to: a shorter one must not expire nodes that are well.
    if (next_expiry_ != 0 && now >= next_expiry_) {
      next_expiry_ = now + kQuietCountdownInterval;
      const std::vector<std::string> expired = processor_.ExpireQuietNodes();
      for (const std::string& call : expired) {
        Show("Node " + call + " left the network view: quiet too long", "orange");
      }
      NodesLeft(expired, 0);
    }
    if (next_config_ != 0 && now >= next_config_) {
      SendConfigAll();
      next_config_ = now + options_.config_interval;
    }
  }
}

void NodeNetwork::SendKeepalive() {
  const Pc92Entry own{5, options_.our_call, {options_.pc_version, options_.build}};
  SendToLinks(BuildPc92Keepalive(options_.our_call, Stamp(), own, 1 + NodeCount(),
                                 deps_.streams->CountUsers()),
              0, true, false);
}

void NodeNetwork::SendLegacyConfigs() {
  const int64_t now = Now();
  for (const NodeWithUsers& n : LegacyNeighbours()) {
    // Another node linked to the same legacy node has just described it for everyone.
    const auto heard = legacy_config_heard_.find(n.call);
    if (heard != legacy_config_heard_.end() && now - heard->second <= options_.keepalive_interval) {
      continue;
    }
    SendToLinks(BuildPc92LegacyConfig(options_.our_call, Stamp(), n.call, n.users, n.nodes), 0,
                true, false);
  }
  // Forget what was heard of nodes that left the network.
  std::erase_if(legacy_config_heard_, [&](const auto& e) { return !view().FindNode(e.first); });
  std::erase_if(pc92_told_, [&](const auto& e) { return !view().FindNode(e.first); });
}

void NodeNetwork::SendConfigAll() {
  std::vector<Pc92Entry> entries = NeighbourEntries();
  for (Pc92Entry& u : LocalUserEntries()) entries.push_back(std::move(u));
  const Pc92Entry own{5, options_.our_call, {options_.pc_version}};
  SendToLinks(BuildPc92Config(options_.our_call, Stamp(), own, entries), 0, true, false);
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
  for (auto& [stream, link] : links_) {
    if (stream == source_stream || !link->info.up || link->closing) continue;
    if (link->info.peer == spot.origin_node()) continue;  // where it started
    Send(stream, link->info.pc9x && public_address ? pc61 : pc11);
  }
}

// What the network sends ------------------------------------------------------------------

void NodeNetwork::OnRelay(int from_stream, const PcSentence& s) {
  std::string& text = scratch_;
  text.clear();
  for (size_t i = 0; i < s.fields.size(); ++i) {
    if (i) text += '^';
    text += s.fields[i];
  }
  text += "\r\n";
  switch (s.number) {
    case 92:
      SendToLinks(text, from_stream, true, false, s.fields[1]);
      // Legacy neighbours hear topology changes in their own words.
      TranslatePc92ForLegacy(from_stream, s);
      return;
    case 93: {
      if (s.last() < 6 || s.fields[1] == options_.our_call) return;
      const std::string& to = s.fields[3];
      const std::string& from = s.fields[4];
      const std::string& body = s.fields[6];
      if (IsAnnounceTarget(to)) {
        SendToLinks(text, from_stream, true, false, s.fields[1]);
        SendToLinks(BuildPc12(from, "*", body, to == "SYSOP", s.fields[1], to == "WX"), from_stream,
                    false, true, s.fields[1]);
        return;
      }
      if (LocalUserStream(to) != 0) return;  // delivered here
      const int route = processor_.view().RouteTo(to);
      if (route != 0 && route != from_stream) {
        const Link* link = FindLink(route);
        if (!link || !link->info.up) return;
        if (link->info.pc9x) {
          Send(route, text);
        } else {
          Send(route, BuildPc10(from, to, body, s.fields[1]));
        }
        return;
      }
      if (route == 0) SendToLinks(text, from_stream, true, false, s.fields[1]);
      return;
    }
    case 41:
      SendToLinks(text, from_stream, true, true);
      return;
    default:
      SendToLinks(text, from_stream, false, true);
      return;
  }
}

void NodeNetwork::TranslatePc92ForLegacy(int from_stream, const PcSentence& s) {
  // PC92 ^ origin ^ time ^ type ^ slot1 ^ entries ... ^ H ^
  if (s.last() < 5 || s.fields[3].size() != 1) return;
  const char type = s.fields[3][0];
  if (type != 'A' && type != 'D' && type != 'C') return;
  const std::string& origin = s.fields[1];
  // Slot 1: empty is the origin itself; otherwise the node the list belongs to.
  std::string owner = origin;
  const std::string& slot1 = s.fields[4];
  const bool slot1_valid = slot1.size() > 1 && slot1[0] >= '0' && slot1[0] <= '7';
  if (slot1_valid) owner = slot1.substr(1, slot1.find(':') - 1);
  if (owner.empty() || owner == options_.our_call) return;
  const int64_t now = Now();
  if (type == 'C' && slot1_valid && ((slot1[0] - '0') & 2) != 0 && owner != origin) {
    legacy_config_heard_[owner] = now;
  }

  std::vector<std::string> users;
  std::vector<Pc19Node> nodes;  // version filled where the entry gives one
  for (int i = 5; i < s.last(); ++i) {
    const std::string& e = s.fields[size_t(i)];
    if (e.size() < 2 || e[0] < '0' || e[0] > '7') continue;
    const size_t colon = e.find(':');
    std::string call = e.substr(1, colon == std::string::npos ? std::string::npos : colon - 1);
    if (call.empty() || call == options_.our_call || call == owner) continue;
    if (((e[0] - '0') & 4) != 0) {
      std::string_view v1;
      if (colon != std::string::npos) {
        v1 = std::string_view(e).substr(colon + 1);
        v1 = v1.substr(0, v1.find(':'));
      }
      std::string version = LegacyVersionOf(call, v1);
      nodes.push_back(Pc19Node{std::move(call), std::move(version)});
    } else {
      users.push_back(std::move(call));
    }
  }

  // What the legacy side already holds of the owner's list, whichever link brought it.  Nodes
  // that leave the view are told by NodesLeft.
  auto [it, fresh] = pc92_told_.try_emplace(owner);
  Pc92Told& told = it->second;

  std::vector<std::string> add_users, gone_users;
  std::vector<Pc19Node> add_nodes;
  if (fresh && type != 'D') add_nodes.push_back(Pc19Node{owner, LegacyVersionOf(owner)});
  if (type == 'D') {
    for (const std::string& u : users) {
      told.users.erase(u);
      gone_users.push_back(u);
    }
    for (const Pc19Node& n : nodes) told.nodes.erase(n.call);
  } else {
    if (type == 'C') {
      // A full list: what it no longer holds has gone, what it adds is new.
      std::set<std::string> listed;
      for (const std::string& u : users) {
        if (listed.insert(u).second && !told.users.count(u)) add_users.push_back(u);
      }
      for (const std::string& u : told.users) {
        if (!listed.count(u)) gone_users.push_back(u);
      }
      told.users = std::move(listed);
      std::set<std::string> listed_nodes;
      for (Pc19Node& n : nodes) {
        if (!listed_nodes.insert(n.call).second) continue;
        if (!told.nodes.count(n.call)) add_nodes.push_back(std::move(n));
      }
      told.nodes = std::move(listed_nodes);
    } else {
      for (std::string& u : users) {
        if (told.users.insert(u).second) add_users.push_back(std::move(u));
      }
      for (Pc19Node& n : nodes) {
        if (told.nodes.insert(n.call).second) add_nodes.push_back(std::move(n));
      }
    }
  }
  if (add_users.empty() && gone_users.empty() && add_nodes.empty()) return;

  std::vector<Pc19Node> link_nodes;
  for (auto& [stream, link] : links_) {
    if (stream == from_stream || !link->info.up || link->closing || link->info.pc9x) continue;
    const std::string& peer = link->info.peer;
    if (peer == origin) continue;
    // Never describe a neighbour to itself, nor what it told us about.
    const bool owner_for_link = owner != peer && !ReachedThrough(owner, stream);
    link_nodes.clear();
    for (const Pc19Node& n : add_nodes) {
      if (n.call != peer && !ReachedThrough(n.call, stream)) link_nodes.push_back(n);
    }
    for (const std::string& line : BuildPc19Lines(link_nodes)) Send(stream, line);
    if (!owner_for_link) continue;
    for (const std::string& line : BuildPc16Lines(owner, add_users)) Send(stream, line);
    for (const std::string& u : gone_users) Send(stream, BuildPc17(u, owner));
  }
}

bool NodeNetwork::OnLegacyTopology(PcSentence& s) {
  const Link* link = FindLink(s.stream);
  // PC9x neighbours describe the network in PC92 only.
  if (link && link->info.up && link->info.pc9x) return true;
  if (processor_.dup_cache().SeenLegacy(s.line, Now())) return false;
  NetworkView& view = processor_.view();
  const std::string neighbour = link ? link->info.peer : std::string();
  std::vector<std::string> added;  // PC19: the nodes it brought
  bool applied = false;
  switch (s.number) {
    case 16:
      applied = s.last() >= 1 && s.fields[1] == neighbour && view.ApplyPc16(s.fields, s.stream);
      break;
    case 17:
      applied = view.ApplyPc17(s.fields, s.stream);
      break;
    case 19:
      applied = view.ApplyPc19(s.fields, s.stream, neighbour, &added);
      break;
    case 21:
      applied = view.ApplyPc21(s.fields, s.stream);
      break;
    default:
      return false;
  }
  CountsChanged();
  if (!applied || s.last() < 1) return applied;
  std::string& hop = s.fields[size_t(s.last() - 1)];
  if (!processor_.state().HopsOk(hop)) return true;
  OnRelay(s.stream, s);
  // PC9x neighbours hear it as PC92, on behalf of the legacy node.
  if (s.number == 16 || s.number == 17) {
    const Pc92Entry owner{7, s.number == 16 ? s.fields[1] : s.fields[2], {}};
    std::vector<Pc92Entry> users;
    if (s.number == 17) {
      users.push_back(Pc92Entry{1, s.fields[1], {}});
    } else {
      for (int i = 2; i < s.last() - 1; ++i) {
        const std::string& u = s.fields[size_t(i)];
        const std::string call = u.substr(0, u.find(' '));
        if (!call.empty()) users.push_back(Pc92Entry{1, call, {}});
      }
    }
    if (!users.empty()) {
      const std::string line = s.number == 16
                                   ? BuildPc92Add(options_.our_call, Stamp(), users, &owner)
                                   : BuildPc92Delete(options_.our_call, Stamp(), users, &owner);
      SendToLinks(line, s.stream, true, false);
    }
  } else if (s.number == 19 || s.number == 21) {
    // The nodes a legacy neighbour reports hang under it (slot 1 flagged 7), so that our
    // own full C, which lists only our neighbours and users, does not take them away again.
    // The neighbour itself hangs under us and was announced when its link came up.
    std::vector<Pc92Entry> nodes;
    bool neighbour_gone = false;
    if (s.number == 21) {
      if (s.fields[1] == neighbour) {
        neighbour_gone = true;
      } else {
        nodes.push_back(Pc92Entry{7, s.fields[1], {}});
      }
    } else {
      // Only what the PC19 added: nodes described by PC92 are not the legacy side's.
      for (const std::string& call : added) {
        if (call != options_.our_call && call != neighbour) nodes.push_back(Pc92Entry{7, call, {}});
      }
    }
    const Pc92Entry owner{7, neighbour, {}};
    const Pc92Entry* slot1 = neighbour.empty() ? nullptr : &owner;
    if (neighbour_gone) {
      SendToLinks(BuildPc92Delete(options_.our_call, Stamp(), {owner}), s.stream, true, false);
    } else if (!nodes.empty()) {
      const std::string line = s.number == 19
                                   ? BuildPc92Add(options_.our_call, Stamp(), nodes, slot1)
                                   : BuildPc92Delete(options_.our_call, Stamp(), nodes, slot1);
      SendToLinks(line, s.stream, true, false);
    }
  }
  return true;
}

bool NodeNetwork::OnPc51(PcSentence& s) {
  if (s.last() < 3) return false;
  StreamEntry& e = deps_.streams->at(s.stream);
  if (LeadingNumber(s.fields[3]) == 0) {
    e.unanswered_pings = 0;
    if (const Link* link = FindLink(s.stream); link && link->info.up) {
      processor_.view().Refresh(link->info.peer);
    }
    if (Link* link = FindLink(s.stream); link && link->ping_outstanding) {
      link->ping_outstanding = false;
      link->info.last_rtt_ms =
          std::chrono::duration<double, std::milli>(deps_.clock->Now() - link->ping_sent).count();
    }
    return true;
  }
  if (s.fields[1] != options_.our_call) {
    // A check for a node further on goes towards it, never back.
    const int route = view().RouteTo(s.fields[1]);
    if (route == 0 || route == s.stream) return false;
    std::string& text = scratch_;
    text.assign(s.line);
    text += "\r\n";
    Send(route, text);
    return true;
  }
  Send(s.stream, BuildPc51Answer(s.fields[2], s.fields[1]));
  return true;
}

bool NodeNetwork::OnOther(PcSentence& s) {
  switch (s.number) {
    case 10:
      return OnPc10(s);
    case 12:
      return OnPc12(s);
    case 39:
      return OnPc39(s);
    default:
      return false;
  }
}

bool NodeNetwork::OnPropagation(PcSentence& s) {
  // The propagation service checks and keeps the report; a new one goes on with one hop
  // less, never back to its origin.  Legacy nodes were never sent WCY and do not expect it.
  if (!deps_.propagation || !deps_.propagation(s)) return false;
  const size_t origin = s.number == 23 ? 8 : 12;
  std::string& hop = s.fields[size_t(s.last() - 1)];
  if (!processor_.state().HopsOk(hop)) return true;
  SendToLinks(s.Join() + "\r\n", s.stream, true, s.number == 23, s.fields[origin]);
  return true;
}

void NodeNetwork::SendPropagation(std::string_view sentence) {
  SendToLinks(sentence, 0, true, sentence.starts_with("PC23"));
}

bool NodeNetwork::OnPc39(PcSentence& s) {
  Link* link = FindLink(s.stream);
  if (!link || s.last() < 1 || ToUpper(s.fields[1]) != link->info.peer) return false;
  DropLink(*link, "the neighbour is disconnecting", false);
  return true;
}

bool NodeNetwork::OnPc10(PcSentence& s) {
  // PC10 ^ from ^ to-or-via ^ text ^ bell ^ real-to ^ origin ^ ~
  if (s.last() < 6) return false;
  const std::string from = s.fields[1];
  const std::string_view real_to = Trim(s.fields[5]);
  const std::string target = ToUpper(real_to.empty() ? Trim(s.fields[2]) : real_to);
  const std::string body = s.fields[3];
  const std::string origin = s.fields[6];
  if (processor_.dup_cache().Seen("PC10|" + from + "|" + target + "|" + body + "|" + origin,
                                  kTalkWindow, Now())) {
    return false;
  }
  if (DeliverTalk(from, target, body)) return true;
  const int route = processor_.view().RouteTo(target);
  if (route != 0 && route != s.stream) SendTalkOn(route, from, target, body, origin);
  return true;
}

bool NodeNetwork::OnPc12(PcSentence& s) {
  // PC12 ^ from ^ to ^ text ^ sysop ^ origin ^ wx ^ hops ^ ~
  // PC9x peers announce in PC93 themselves but pass a legacy node's PC12 on unchanged, so a
  // PC12 is taken from any link; the announcement check keeps one that also came as PC93 single.
  if (s.last() < 8) return false;
  const std::string from = s.fields[1];
  const std::string body = s.fields[3];
  const std::string origin = s.fields[5];
  std::string to = "*";
  if (s.fields[6] == "1") {
    to = "WX";
  } else if (Trim(s.fields[4]) == "*") {
    to = "SYSOP";
  }
  const bool for_all = s.fields[2] == "*";
  if (!for_all && ToUpper(s.fields[2]) != options_.our_call) return false;
  if (processor_.dup_cache().SeenAnnounce(from, to, body, Now())) return false;
  DeliverAnnounce(from, to, body);
  if (!for_all) return true;
  std::string& hop = s.fields[7];
  if (!processor_.state().HopsOk(hop)) return true;
  SendToLinks(s.Join() + "\r\n", s.stream, false, true);
  SendToLinks(BuildPc93(options_.our_call, Stamp(), to, from, "*", body, origin), s.stream, true,
              false);
  return true;
}

NodeDeps::Pc93Outcome NodeNetwork::OnPc93(PcSentence& s) {
  using Outcome = NodeDeps::Pc93Outcome;
  // PC93 ^ origin ^ time ^ to ^ from ^ via ^ text ...
  if (s.last() < 6 || s.fields[1] == options_.our_call) return Outcome::kRepeat;
  const std::string& to = s.fields[3];
  const std::string& from = s.fields[4];
  const std::string& body = s.fields[6];
  if (to == "LOCAL") return Outcome::kNotHere;  // never taken from another node
  if (IsAnnounceTarget(to)) {
    if (processor_.dup_cache().SeenAnnounce(from, to, body, Now())) return Outcome::kRepeat;
    DeliverAnnounce(from, to, body);
    return Outcome::kDelivered;
  }
  return DeliverTalk(from, to, body) ? Outcome::kDelivered : Outcome::kNotHere;
}

void NodeNetwork::DeliverAnnounce(std::string_view from, std::string_view to,
                                  std::string_view text) {
  std::string line;
  uint32_t bit = kSwAnnouncements;
  if (to == "WX") {
    line = "WX de ";
    bit = kSwWx;
  } else if (to == "SYSOP") {
    line = "To SYSOP de ";
  } else {
    line = "To ALL de ";
  }
  line += from;
  line += ": ";
  line += Trim(text);
  line += "\r\n";
  StreamTable& t = *deps_.streams;
  for (int s = 1; s <= t.high_socket(); ++s) {
    const StreamEntry& u = t.at(s);
    if (!u.IsUser() || !u.session.Has(bit)) continue;
    if (to == "SYSOP" && u.privilege <= 0) continue;
    deps_.out->SendToStream(s, line);
  }
}

bool NodeNetwork::DeliverTalk(std::string_view from, std::string_view to, std::string_view text) {
  const int s = LocalUserStream(to);
  if (s == 0) return false;
  const StreamEntry& u = deps_.streams->at(s);
  if (u.session.Has(kSwTalk)) {
    deps_.out->SendToStream(
        s, u.call + " de " + std::string(from) + ": " + std::string(text) + "\r\n");
  }
  return true;
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
