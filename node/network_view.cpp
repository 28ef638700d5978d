#include "node/network_view.h"

#include <algorithm>

#include "node/pc_sentence.h"

namespace qx {
namespace {

struct ParsedEntry {
  int flag = -1;
  std::string_view call;
  std::string_view v1, v2, v3;
};

// "<flag><CALL>[:v1[:v2[:v3]]]".  flag -1 when the entry is malformed.
ParsedEntry ParseEntry(std::string_view e) {
  ParsedEntry p;
  if (e.size() < 2 || e[0] < '0' || e[0] > '7') return p;
  p.flag = e[0] - '0';
  e.remove_prefix(1);
  std::string_view* subs[] = {&p.call, &p.v1, &p.v2, &p.v3};
  for (size_t i = 0; i < 4; ++i) {
    const size_t colon = e.find(':');
    *subs[i] = e.substr(0, colon);
    if (colon == std::string_view::npos) break;
    e.remove_prefix(colon + 1);
  }
  if (p.call.empty()) p.flag = -1;
  return p;
}

bool IsNodeFlag(int flag) { return (flag & 4) != 0; }

std::string DigitsOnly(std::string_view s) {
  std::string out;
  for (char c : s) {
    if (c >= '0' && c <= '9') out += c;
  }
  return out;
}

int HopOf(const std::vector<std::string>& f) {
  for (size_t i = f.size(); i-- > 1;) {
    if (f[i].empty()) continue;
    return (f[i][0] == 'H') ? LeadingNumber(std::string_view(f[i]).substr(1)) : 0;
  }
  return 0;
}

}  // namespace

NetworkView::Node& NetworkView::Ensure(std::string_view call) {
  auto it = nodes_.find(call);
  if (it == nodes_.end()) {
    it = nodes_.emplace(std::string(call), Node{}).first;
    it->second.call = std::string(call);
  }
  return it->second;
}

void NetworkView::Touch(Node& n, int stream, int hops) {
  int& best = n.routes[stream];
  best = std::max(best, hops);
}

void NetworkView::RemoveNodes(const std::vector<std::string>& calls) {
  size_t erased = 0;
  for (const std::string& call : calls) erased += nodes_.erase(call);
  if (erased == 0) return;
  for (auto& [name, n] : nodes_) {
    for (const std::string& call : calls) n.child_nodes.erase(call);
  }
}

void NetworkView::Prune(std::vector<std::string>& removed) {
  // Walk down from every node with a route of its own; what the walk never reaches goes.
  std::set<std::string_view> reached;
  std::vector<const Node*> todo;
  for (const auto& [call, n] : nodes_) {
    if (!n.routes.empty()) {
      reached.insert(call);
      todo.push_back(&n);
    }
  }
  while (!todo.empty()) {
    const Node* n = todo.back();
    todo.pop_back();
    for (const std::string& child : n->child_nodes) {
      auto it = nodes_.find(child);
      if (it == nodes_.end() || !reached.insert(it->first).second) continue;
      todo.push_back(&it->second);
    }
  }
  std::vector<std::string> gone;
  for (const auto& [call, n] : nodes_) {
    if (!reached.count(call)) gone.push_back(call);
  }
  RemoveNodes(gone);
  removed.insert(removed.end(), gone.begin(), gone.end());
}

bool NetworkView::IsNeighbour(std::string_view call) const {
  for (const auto& [stream, neighbour] : neighbours_) {
    if (neighbour == call) return true;
  }
  return false;
}

bool NetworkView::ApplyPc92(const std::vector<std::string>& f, int stream) {
  last_removed_.clear();
  // PC92 ^ origin ^ time ^ type ^ slot1 ^ entries ... ^ H99 ^
  if (f.size() < 6 || f[1].empty() || f[3].size() != 1) return false;
  const std::string_view origin = f[1];
  if (origin == our_call_) return false;
  const char type = f[3][0];
  const int hops = HopOf(f);
  // The entries stop before the hop field and the empty last field.
  size_t end = f.size();
  while (end > 5 && (f[end - 1].empty() || f[end - 1][0] == 'H')) --end;

  if (type == 'K') {
    const ParsedEntry own = ParseEntry(f[4]);
    Node& n = Ensure(origin);
    n.pc9x = true;
    if (own.flag >= 0 && own.call == origin) {
      if (!own.v1.empty()) n.version = DigitsOnly(own.v1);
      if (!own.v2.empty()) n.build = DigitsOnly(own.v2);
    }
    Touch(n, stream, hops);
    n.life = kLife;
    return true;
  }
  if (type != 'A' && type != 'D' && type != 'C') return false;
  if (type == 'D' && nodes_.find(origin) == nodes_.end()) return false;

  Node& from = Ensure(origin);
  from.pc9x = true;
  Touch(from, stream, hops);
  if (type == 'C') from.life = kLife;
  // Slot 1: empty means the origin itself; otherwise the node the list belongs to (a legacy
  // node the origin owns, reached through the origin).
  Node* owner = &from;
  const ParsedEntry slot1 = ParseEntry(f[4]);
  if (slot1.flag >= 0 && slot1.call != origin) {
    if (slot1.call == our_call_) return false;
    // A node speaks only for the legacy nodes it owns (flag 2) ...
    if ((slot1.flag & 2) == 0) return false;
    // ... and never for one of our own neighbours, which we describe ourselves: the origin's
    // route still counts, its list about the neighbour does not.
    if (IsNeighbour(slot1.call)) return true;
    owner = &Ensure(slot1.call);
    from.child_nodes.insert(owner->call);
  }
  if (slot1.flag >= 0 && !slot1.v1.empty()) {
    const std::string v = DigitsOnly(slot1.v1);
    if (slot1.v1.size() > 4 && v.size() != slot1.v1.size()) {
      owner->address = std::string(slot1.v1);
    } else {
      owner->version = v;
    }
  }

  std::set<std::string> users, nodes, pc9x_nodes;
  for (size_t i = 5; i < end; ++i) {
    const ParsedEntry e = ParseEntry(f[i]);
    if (e.flag < 0 || e.call == our_call_) continue;
    if (IsNodeFlag(e.flag)) {
      nodes.insert(std::string(e.call));
      // Not flagged external: a node that speaks PC92 itself.
      if ((e.flag & 2) == 0) pc9x_nodes.insert(std::string(e.call));
    } else {
      users.insert(std::string(e.call));
    }
  }
  const std::string owner_call = owner->call;
  std::vector<std::string>& removed = last_removed_;
  if (type == 'D') {
    for (const std::string& u : users) owner->users.erase(u);
    std::vector<std::string> gone;
    for (const std::string& n : nodes) {
      if (n == owner_call || n == origin) continue;
      owner->child_nodes.erase(n);
      // A node that nobody lists any more, and that is not our own neighbour, is gone even
      // when an old route to it remains: the route ran through the link just reported lost.
      bool still_listed = IsNeighbour(n);
      for (const auto& [name, other] : nodes_) still_listed |= other.child_nodes.count(n) > 0;
      if (!still_listed) gone.push_back(n);
    }
    RemoveNodes(gone);
    removed = gone;
    // What hung only below the nodes removed goes with them.
    Prune(removed);
    return true;
  }
  if (type == 'C') {
    owner->users = users;
    owner->child_nodes.clear();
  } else {
    owner->users.insert(users.begin(), users.end());
  }
  // Children have no route of their own: they are reached through their parent.  Ensure may
  // move no existing node (std::map), so owner stays valid.
  for (const std::string& n : nodes) {
    if (n == owner_call) continue;
    owner->child_nodes.insert(n);
    Node& child = Ensure(n);
    if (pc9x_nodes.count(n)) child.pc9x = true;
  }
  // A full list drops the children it no longer names; those reached no other way go.
  if (type == 'C') Prune(removed);
  return true;
}

bool NetworkView::NotePc92Route(const std::vector<std::string>& f, int stream) {
  if (f.size() < 6 || f[1].empty() || f[3].size() != 1) return false;
  const char type = f[3][0];
  if (type != 'A' && type != 'C' && type != 'D' && type != 'K') return false;
  auto it = nodes_.find(f[1]);
  if (it == nodes_.end()) return false;
  Touch(it->second, stream, HopOf(f));
  return true;
}

bool NetworkView::ApplyPc16(const std::vector<std::string>& f, int stream) {
  // PC16 ^ node ^ "CALL - 1" ... ^ hops ^
  if (f.size() < 4 || f[1].empty() || f[1] == our_call_) return false;
  Node& n = Ensure(f[1]);
  const int hops = HopOf(f);
  Touch(n, stream, hops);
  for (size_t i = 2; i + 1 < f.size(); ++i) {
    if (f[i].empty() || f[i][0] == 'H') continue;
    std::string_view entry = f[i];
    const std::string_view call = entry.substr(0, entry.find(' '));
    if (!call.empty()) n.users.insert(std::string(call));
  }
  return true;
}

bool NetworkView::ApplyPc17(const std::vector<std::string>& f, int stream) {
  // PC17 ^ user ^ node ^ hops ^
  if (f.size() < 4 || f[2] == our_call_) return false;
  auto it = nodes_.find(f[2]);
  if (it == nodes_.end() || it->second.pc9x) return false;
  return it->second.users.erase(f[1]) > 0;
}

bool NetworkView::ApplyPc19(const std::vector<std::string>& f, int stream,
                            std::string_view neighbour_call, std::vector<std::string>* added) {
  // PC19 ^ (here ^ node ^ conf ^ version) ... ^ hops ^
  const int hops = HopOf(f);
  bool any = false;
  for (size_t i = 1; i + 3 < f.size(); i += 4) {
    const std::string& call = f[i + 1];
    if (call.empty() || call == our_call_ || call[0] == 'H') continue;
    const int version = LeadingNumber(f[i + 3]);
    if (version < 5000) continue;  // very old versions describe themselves unreliably
    const auto known = nodes_.find(call);
    if (known != nodes_.end() && known->second.pc9x) continue;
    const bool created = known == nodes_.end();
    Node& n = Ensure(call);
    n.version = DigitsOnly(f[i + 3]);
    Touch(n, stream, hops);
    bool hung = false;
    if (!neighbour_call.empty() && call != neighbour_call) {
      hung = Ensure(neighbour_call).child_nodes.insert(call).second;
    }
    if (added && (created || hung)) added->push_back(call);
    any = true;
  }
  return any;
}

bool NetworkView::ApplyPc21(const std::vector<std::string>& f, int stream) {
  // PC21 ^ node ^ reason ^ hops ^
  if (f.size() < 3 || f[1].empty() || f[1] == our_call_) return false;
  // A neighbour's own departure only counts when it comes from its own link.
  for (const auto& [s, call] : neighbours_) {
    if (call == f[1] && s != stream) return false;
  }
  auto it = nodes_.find(f[1]);
  if (it == nodes_.end()) return false;
  std::vector<std::string> removed;
  const auto own = neighbours_.find(stream);
  if (own != neighbours_.end() && own->second == f[1]) {
    RemoveNodes({f[1]});
    Prune(removed);
    return true;
  }
  if (it->second.pc9x) return false;
  // Only the way through this neighbour is gone; another may still reach the node.
  bool changed = it->second.routes.erase(stream) > 0;
  if (own != neighbours_.end()) {
    auto neighbour = nodes_.find(own->second);
    if (neighbour != nodes_.end()) changed |= neighbour->second.child_nodes.erase(f[1]) > 0;
  }
  if (!changed) return false;
  Prune(removed);
  return true;
}

void NetworkView::LinkUp(int stream, std::string_view neighbour_call, bool pc9x) {
  neighbours_[stream] = std::string(neighbour_call);
  Node& n = Ensure(neighbour_call);
  n.pc9x = n.pc9x || pc9x;
  Touch(n, stream, 100);
}

std::vector<std::string> NetworkView::Restore(std::vector<Node> saved, const std::set<int>& kept) {
  std::vector<std::string> lost;
  for (Node& s : saved) {
    if (s.call.empty() || s.call == our_call_) continue;
    std::erase_if(s.routes, [&](const auto& r) { return !kept.count(r.first); });
    Node& n = Ensure(s.call);
    n.pc9x = n.pc9x || s.pc9x;
    if (n.version.empty()) n.version = s.version;
    if (n.build.empty()) n.build = s.build;
    if (n.address.empty()) n.address = s.address;
    n.users.insert(s.users.begin(), s.users.end());
    n.child_nodes.insert(s.child_nodes.begin(), s.child_nodes.end());
    n.child_nodes.erase(our_call_);
    n.child_nodes.erase(n.call);
    for (const auto& [stream, hops] : s.routes) Touch(n, stream, hops);
    n.life = std::clamp(s.life, 1, kLife);
  }
  Prune(lost);
  return lost;
}

std::vector<std::string> NetworkView::LinkDown(int stream) {
  neighbours_.erase(stream);
  for (auto& [call, n] : nodes_) n.routes.erase(stream);
  std::vector<std::string> removed;
  Prune(removed);
  return removed;
}

std::vector<std::string> NetworkView::KeepaliveTick() {
  std::vector<std::string> quiet;
  for (auto& [call, n] : nodes_) {
    if (!n.pc9x) continue;
    if (IsNeighbour(call)) {
      n.life = kLife;  // its link's own checks watch a neighbour
      continue;
    }
    if (--n.life <= 0) quiet.push_back(call);
  }
  RemoveNodes(quiet);
  std::vector<std::string> removed = quiet;
  if (!quiet.empty()) Prune(removed);
  return removed;
}

void NetworkView::Refresh(std::string_view call) {
  auto it = nodes_.find(call);
  if (it != nodes_.end()) it->second.life = kLife;
}

int NetworkView::UserCount() const {
  std::set<std::string_view> users;
  for (const auto& [call, n] : nodes_) users.insert(n.users.begin(), n.users.end());
  return static_cast<int>(users.size());
}

const NetworkView::Node* NetworkView::FindNode(std::string_view call) const {
  auto it = nodes_.find(call);
  return it == nodes_.end() ? nullptr : &it->second;
}

std::vector<NetworkView::NodeUsers> NetworkView::Configuration() const {
  std::vector<NodeUsers> out;
  for (const auto& [call, n] : nodes_) {
    out.push_back(NodeUsers{call, std::vector<std::string>(n.users.begin(), n.users.end())});
  }
  return out;
}

std::vector<std::string> NetworkView::Nodes() const {
  std::vector<std::string> out;
  for (const auto& [call, n] : nodes_) out.push_back(call);
  return out;
}

std::vector<std::pair<std::string, std::string>> NetworkView::Users() const {
  std::vector<std::pair<std::string, std::string>> out;
  for (const auto& [call, n] : nodes_) {
    for (const std::string& u : n.users) out.emplace_back(u, call);
  }
  std::sort(out.begin(), out.end());
  return out;
}

NetworkView::ParentIndex NetworkView::Parents() const {
  ParentIndex parents;
  for (const auto& [call, n] : nodes_) {
    for (const std::string& child : n.child_nodes) parents[child].push_back(&n);
  }
  return parents;
}

NetworkView::Route NetworkView::BestRoute(const Node& start, const ParentIndex& parents) const {
  Route best;
  bool found = false;
  std::set<std::string_view> seen{start.call};
  std::vector<const Node*> level{&start};
  std::vector<const Node*> next;
  for (int depth = 0; !level.empty(); ++depth) {
    // A node with a route of its own ends that branch; the highest remaining hop count over
    // all branches wins, a hop less per level climbed.
    next.clear();
    for (const Node* n : level) {
      for (const auto& [stream, hops] : n->routes) {
        if (!found || hops - depth > best.hops) best = Route{stream, hops - depth};
        found = true;
      }
      if (!n->routes.empty()) continue;
      const auto it = parents.find(n->call);
      if (it == parents.end()) continue;
      for (const Node* p : it->second) {
        if (seen.insert(p->call).second) next.push_back(p);
      }
    }
    level.swap(next);
  }
  return best;
}

int NetworkView::RouteTo(std::string_view call) const {
  const Node* node = FindNode(call);
  // Most lookups end at a node's own route; the parent index is built only when needed.
  if (node && !node->routes.empty()) return BestRoute(*node, {}).stream;
  const ParentIndex parents = Parents();
  if (node) return BestRoute(*node, parents).stream;
  // A user: the best route to any node it is on.
  Route best;
  const std::string user(call);
  for (const auto& [node_call, n] : nodes_) {
    if (!n.users.count(user)) continue;
    const Route r = BestRoute(n, parents);
    if (r.stream != 0 && (best.stream == 0 || r.hops > best.hops)) best = r;
  }
  return best.stream;
}

}  // namespace qx
