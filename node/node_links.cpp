// Node links: their start-up, keep-alive and drop, outgoing connections, and how a link
// resumes when this node restarts while the front-end keeps the connection.
#include <fmt/format.h>

#include <algorithm>
#include <chrono>

#include "core/monitor.h"
#include "core/stream_output.h"
#include "core/stream_table.h"
#include "core/text_util.h"
#include "node/network_state.h"
#include "node/node_network.h"
#include "node/pc_builders.h"

namespace qx {
namespace {

// A link that has not finished its handshake by then is given up.
constexpr int64_t kHandshakeTimeout = 90;
// A connection asked of the front-end that was neither made nor refused by then is
// forgotten (the front-end itself gives up after 30 s).
constexpr int64_t kOutgoingAnswerTimeout = 45;
// A saved view older than this is not taken back: its links cannot have survived (their
// checks fail within a quarter of an hour), and its users have long moved on.
constexpr int64_t kMaxSavedAge = 3600;
// Stamps are only compared within the clock skew PC9x allows.
constexpr int64_t kMaxStampAge = 15 * 60;

}  // namespace

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
  const auto type = defined_type_.find(link.info.peer);
  link.info.kind =
      NodeKindOf(type == defined_type_.end() ? std::string_view() : type->second,
                 hs ? std::string_view(hs->peer_pc18()) : std::string_view(), link.info.pc9x);
  KeepLinkAttributes(link);
  StateChanged();
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
  link.drop_reason = std::string(reason);
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
      if (!was_up) {
        // Connected but never linked: the connect succeeded, so without this the sysop
        // would see no reason at all for a link that never comes up.
        std::string why = link->drop_reason.empty() ? "closed by " + o.peer + " during the log-in"
                                                    : link->drop_reason;
        if (!link->last_line.empty()) why += " (it said: " + link->last_line + ")";
        Show("Node link to " + o.peer + " did not come up: " + why, "red", stream);
        if (deps_.outgoing_not_up) deps_.outgoing_not_up(o.def.name, why);
      }
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
  StateChanged();
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
  if (!link->info.up && !Trim(line).empty()) {
    link->last_line = std::string(Trim(line.substr(0, 120)));
    for (char& c : link->last_line) {
      if (static_cast<unsigned char>(c) < ' ') c = ' ';
    }
  }
  if (link->info.up) {
    const std::string_view header = Trim(line.substr(0, line.find('^')));
    if (header == "PC18" || header == "PC20") RenewedHandshake(*link, header);
  } else {
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
  link->recovered = true;
  // What the front-end kept for us: when the connection and the link began, and the kind of
  // node on the other end (its PC18 is not sent again).
  const auto type = defined_type_.find(link->info.peer);
  link->info.kind = NodeKindOf(type == defined_type_.end() ? std::string_view() : type->second, {},
                               link->info.pc9x);
  // (The link layer has taken the connection's start from "since" already.)
  const std::string_view kind = StreamAttribute(e.frontend_attributes, "kind");
  if (!kind.empty()) link->info.kind = std::string(kind);
  long long up = 0;
  SysTime link_up;
  if (ParseInt(StreamAttribute(e.frontend_attributes, "up"), up) &&
      PastEpochSeconds(up, link->info.since, link_up)) {
    link->info.since = link_up;
  }
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
  // Nothing is sent yet: the neighbour still has the link up, and our configuration waits
  // until every stream is back, so that it lists every user (RecoveryComplete).
  if (next_keepalive_ == 0) next_keepalive_ = Now() + options_.keepalive_interval;
  if (next_expiry_ == 0) next_expiry_ = Now() + kQuietCountdownInterval;
  Show("Node link recovered: " + l.info.peer, "orange", stream);
  CountsChanged();
}

void NodeNetwork::KeepLinkAttributes(const Link& link) {
  const StreamTable& t = *deps_.streams;
  if (!t.InRange(link.info.stream)) return;
  const auto seconds = [](SysTime at) {
    return std::chrono::duration_cast<std::chrono::seconds>(at.time_since_epoch()).count();
  };
  deps_.out->SetStreamAttributes(
      link.info.stream, fmt::format("since={} up={} kind={}", seconds(t.at(link.info.stream).since),
                                    seconds(link.info.since), link.info.kind));
}

void NodeNetwork::RenewedHandshake(Link& link, std::string_view header) {
  const int stream = link.info.stream;
  if (header == "PC18" && link.info.outgoing) {
    // The acceptor introduces itself again: it waits for our configuration and PC20, and
    // keeps the link half-open until then.  Routes through the link stay: its own list
    // follows, and what it does not repeat is still true.
    Show("Node " + link.info.peer + " starts the link again; answering", "orange", stream);
    for (const std::string& line : OurConfigFor(stream, link.info.pc9x)) Send(stream, line);
    Send(stream, BuildPc20());
  } else if (header == "PC20" && !link.info.outgoing) {
    // The caller has sent its configuration again (after our PC18, or of its own accord):
    // the handshake is complete only with our configuration and PC22.
    for (const std::string& line : OurConfigFor(stream, link.info.pc9x)) Send(stream, line);
    Send(stream, BuildPc22());
  }
}

void NodeNetwork::RecoveryComplete() {
  ready_ = true;
  std::set<int> restored;
  std::vector<std::string> gone_users;
  if (!restored_) {
    restored_ = true;
    if (saved_) {
      const NetworkState& s = *saved_;
      const int64_t age = Now() - s.saved_at;
      processor_.stamps().ResumeAfter(s.our_stamp);
      if (age >= 0 && age <= kMaxSavedAge) {
        for (const NetworkState::LinkRow& row : s.links) {
          const Link* l = FindLink(row.stream);
          if (l && l->recovered && l->tag == row.tag && l->info.peer == row.peer) {
            restored.insert(row.stream);
          }
        }
        const std::vector<std::string> lost = processor_.view().Restore(s.nodes, restored);
        for (const std::string& call : lost) processor_.time_check().Forget(call);
        // Stamps older than the allowed clock skew could only hold back a node's next one.
        if (age <= kMaxStampAge) {
          for (const auto& [origin, stamp] : s.origins) {
            if (view().FindNode(origin)) processor_.time_check().Remember(origin, stamp);
          }
        }
        for (const std::string& u : s.local_users) {
          if (LocalUserStream(u) == 0) gone_users.push_back(u);
        }
      }
      saved_.reset();
      Show("Network view taken back for " + std::to_string(restored.size()) + " of " +
               std::to_string(links_.size()) + " links: " + std::to_string(NodeCount()) +
               " nodes, " + std::to_string(RemoteUserCount()) + " users",
           "orange");
    }
  }
  for (auto& [stream, link] : links_) {
    Link& l = *link;
    if (!l.recovered || l.closing) continue;
    l.recovered = false;
    KeepLinkAttributes(l);
    if (!l.info.outgoing && !restored.count(stream)) {
      // Nothing kept of what the neighbour told us: ask it to tell again.  It answers with
      // its configuration and PC20, and gets ours with PC22 (RenewedHandshake).
      Send(stream, BuildPc18(options_.pc_version, l.info.pc9x));
      continue;
    }
    // A full list: users who came and went while the node was down are right at once.
    for (const std::string& line : OurConfigFor(stream, l.info.pc9x)) Send(stream, line);
    if (!l.info.pc9x) {
      for (const std::string& u : gone_users) Send(stream, BuildPc17(u, options_.our_call));
    }
  }
  StateChanged();
  CountsChanged();
}

std::string NodeNetwork::SavedState() const {
  NetworkState s;
  s.saved_at = Now();
  s.our_stamp = const_cast<NodeProcessor&>(processor_).stamps().Last();
  for (const auto& [stream, link] : links_) {
    if (link->info.up && !link->closing) {
      s.links.push_back(NetworkState::LinkRow{stream, link->tag, link->info.peer});
    }
  }
  for (const auto& [call, node] : view().nodes()) s.nodes.push_back(node);
  s.origins = const_cast<NodeProcessor&>(processor_).time_check().Entries();
  for (const Pc92Entry& u : LocalUserEntries()) s.local_users.push_back(u.call);
  return FormatNetworkState(s);
}

bool NodeNetwork::LoadSavedState(std::string_view text, std::string* error) {
  auto s = std::make_unique<NetworkState>();
  if (!ParseNetworkState(text, s.get(), error)) return false;
  saved_ = std::move(s);
  return true;
}

bool NodeNetwork::TakeStateChanged() {
  if (!restored_ || !state_changed_) return false;
  state_changed_ = false;
  return true;
}

std::string NodeNetwork::WhoType(int stream) const {
  const Link* l = FindLink(stream);
  if (!l || l->closing) return {};
  return "NODE " + (l->info.kind.empty() ? std::string("QXC") : l->info.kind);
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

}  // namespace qx
