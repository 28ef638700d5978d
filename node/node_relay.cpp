// What the neighbours send: topology, announcements, talk and link checks, passed on to the
// other links in each neighbour's own style and delivered to the local users.
#include <chrono>

#include "core/stream_output.h"
#include "core/stream_table.h"
#include "core/text_util.h"
#include "node/node_network.h"
#include "node/pc_builders.h"
#include "spots/call_sign.h"

namespace qx {
namespace {

constexpr int64_t kTalkWindow = 45;

bool IsAnnounceTarget(std::string_view to) { return to == "*" || to == "SYSOP" || to == "WX"; }

}  // namespace

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
      // Mail (PC28 to PC33, PC42) is the mail forwarder's.
      if ((s.number >= 28 && s.number <= 33) || s.number == 42) return deps_.mail && deps_.mail(s);
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
  // Built in one initialisation: GCC 12 at -O3 takes the assignments of a literal to a
  // string set just before for a read of uninitialised bytes, which stops the Release build.
  const std::string to = s.fields[6] == "1" ? "WX" : Trim(s.fields[4]) == "*" ? "SYSOP" : "*";
  const bool for_all = s.fields[2] == "*";
  if (!for_all && ToUpper(s.fields[2]) != options_.our_call) return false;
  if (processor_.dup_cache().SeenAnnounce(from, to, body, Now())) return false;
  if (deps_.announce && !deps_.announce(from, to, body)) return true;  // refused: dropped here
  DeliverAnnounce(from, to, body, origin);
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
    if (deps_.announce && !deps_.announce(from, to, body)) return Outcome::kRepeat;
    DeliverAnnounce(from, to, body, s.fields[1]);
    return Outcome::kDelivered;
  }
  return DeliverTalk(from, to, body) ? Outcome::kDelivered : Outcome::kNotHere;
}

void NodeNetwork::DeliverAnnounce(std::string_view from, std::string_view to, std::string_view text,
                                  std::string_view origin) {
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
  const NodeNetworkDeps::UserGate gate = deps_.announce_gate
                                             ? deps_.announce_gate(from, to, Trim(text), origin)
                                             : NodeNetworkDeps::UserGate();
  StreamTable& t = *deps_.streams;
  for (int s = 1; s <= t.high_socket(); ++s) {
    const StreamEntry& u = t.at(s);
    if (!u.TakesBroadcast(bit)) continue;
    if (to == "SYSOP" && u.privilege <= 0) continue;
    if (gate && !gate(s, u)) continue;
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

}  // namespace qx
