// What this node knows of the network beyond its own users: the nodes, which users are on
// them, and through which neighbour stream each is reached.  Fed by PC92 (PC9x peers) and
// by PC16/17/19/21 (legacy peers).
//
// A node is in the view while something reaches it: a route of its own through a neighbour
// stream that is still up (the highest hop count on which its PC92 came in on that stream),
// or a parent -- a node that lists it as a child and is itself reached.  When a link drops,
// only what no remaining stream reaches goes; a PC9x node that sends neither C nor K for
// three hourly keep-alive ticks goes too.
#pragma once

#include <map>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace qx {

class NetworkView {
 public:
  // Hourly keep-alive ticks a PC9x node may stay silent (no C, no K) and remain known.
  static constexpr int kLife = 3;

  struct Node {
    std::string call;
    bool pc9x = false;    // described by its own PC92 or flagged 5
    std::string version;  // four digits when known
    std::string build;
    std::string address;
    std::set<std::string> users;        // users logged in there
    std::set<std::string> child_nodes;  // nodes it reported as its neighbours
    std::map<int, int> routes;          // neighbour stream -> highest hop count seen
    int life = kLife;                   // keep-alive ticks left before a quiet node goes
  };
  struct NodeUsers {
    std::string node;
    std::vector<std::string> users;
  };

  explicit NetworkView(std::string our_call) : our_call_(std::move(our_call)) {}

  // A PC92 (fields 0..last) that passed the time-stamp check, received on stream.  False when
  // it was ignored (own call, unknown origin of a D, malformed).
  bool ApplyPc92(const std::vector<std::string>& f, int stream);
  // The calls the last ApplyPc92 took out of the view: the nodes it named and those reached
  // only through them.
  const std::vector<std::string>& LastRemoved() const { return last_removed_; }
  // A copy of the last PC92 accepted from its origin that came in again (in a meshed network,
  // over another neighbour): only the route to the origin through stream is remembered; the
  // lists are not applied again.  False when the origin is unknown or the sentence malformed.
  bool NotePc92Route(const std::vector<std::string>& f, int stream);
  // Legacy sentences from the neighbour neighbour_call on stream.  A node described by PC92
  // is not the legacy side's to describe: PC17/19/21 about it are ignored (they are our own
  // PC92 coming back in legacy words, and would give it a way that never goes).  ApplyPc19
  // appends to added the nodes it created or newly hung under the neighbour.  A PC21 for
  // another node than the neighbour takes away only the way through that neighbour.
  bool ApplyPc16(const std::vector<std::string>& f, int stream);
  bool ApplyPc17(const std::vector<std::string>& f, int stream);
  bool ApplyPc19(const std::vector<std::string>& f, int stream, std::string_view neighbour_call,
                 std::vector<std::string>* added = nullptr);
  bool ApplyPc21(const std::vector<std::string>& f, int stream);

  // A neighbour link came up (the neighbour itself hangs under us) or went down: every route
  // learned through it is forgotten, and the nodes (with their users) that no remaining
  // stream reaches, directly or through a parent, disappear.  Returns the calls removed.
  void LinkUp(int stream, std::string_view neighbour_call, bool pc9x);
  std::vector<std::string> LinkDown(int stream);

  // The hourly keep-alive tick: every PC9x node but the neighbours whose links are up loses
  // one life; a node at none is removed with its users, and so are the nodes that were
  // reached only through it.  Returns the calls removed.
  std::vector<std::string> KeepaliveTick();
  // A sign of life from a node (its neighbour link answered a check): full life again.
  void Refresh(std::string_view call);

  // Nodes from a saved view, after a restart of this node, merged into what the view holds:
  // only their routes through the streams in kept (links that survived the restart) count,
  // and what nothing reaches then goes.  Returns the calls that did not come back.
  std::vector<std::string> Restore(std::vector<Node> saved, const std::set<int>& kept);

  int NodeCount() const { return static_cast<int>(nodes_.size()); }
  const std::map<std::string, Node, std::less<>>& nodes() const { return nodes_; }
  int UserCount() const;
  const Node* FindNode(std::string_view call) const;
  // Nodes with their users, nodes and users sorted (SHOW/CONFIGURATION).
  std::vector<NodeUsers> Configuration() const;
  // Node calls, sorted (SHOW/NODES).
  std::vector<std::string> Nodes() const;
  // (user, node) pairs, sorted by user (WHO).
  std::vector<std::pair<std::string, std::string>> Users() const;
  // The neighbour stream through which a node or user is best reached, 0 when unknown.
  int RouteTo(std::string_view call) const;

 private:
  struct Route {
    int stream = 0;
    int hops = -1;
  };

  Node& Ensure(std::string_view call);
  void Touch(Node& n, int stream, int hops);
  // Removes the nodes and every mention of them as a child.
  void RemoveNodes(const std::vector<std::string>& calls);
  // Removes what no route reaches (see the top); the calls removed are appended to removed.
  void Prune(std::vector<std::string>& removed);
  bool IsNeighbour(std::string_view call) const;
  // For each node, the nodes that list it as a child.
  using ParentIndex = std::map<std::string_view, std::vector<const Node*>>;
  ParentIndex Parents() const;
  // A node's own best route, or else the best route of the nearest nodes above it that have
  // one (a hop less per level).  Searched level by level, so a long or looping chain of
  // parents costs one visit per node, never a deep recursion.
  Route BestRoute(const Node& n, const ParentIndex& parents) const;

  std::string our_call_;
  std::map<std::string, Node, std::less<>> nodes_;
  std::map<int, std::string> neighbours_;  // stream -> neighbour call
  std::vector<std::string> last_removed_;
};

}  // namespace qx
