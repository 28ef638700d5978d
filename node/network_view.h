// What this node knows of the network beyond its own users: the nodes, which users are on
// them, and through which neighbour stream each is reached.  Fed by PC92 (PC9x peers) and
// by PC16/17/19/21 (legacy peers).
#pragma once

#include <map>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace qx {

class NetworkView {
 public:
  struct Node {
    std::string call;
    bool pc9x = false;    // described by its own PC92 or flagged 5
    std::string version;  // four digits when known
    std::string build;
    std::string address;
    std::set<std::string> users;        // users logged in there
    std::set<std::string> child_nodes;  // nodes it reported as its neighbours
    std::map<int, int> routes;          // neighbour stream -> best hop count seen
  };
  struct NodeUsers {
    std::string node;
    std::vector<std::string> users;
  };

  explicit NetworkView(std::string our_call) : our_call_(std::move(our_call)) {}

  // A PC92 (fields 0..last) that passed the time-stamp check, received on stream.  False when
  // it was ignored (own call, unknown origin of a D, malformed).
  bool ApplyPc92(const std::vector<std::string>& f, int stream);
  // Legacy sentences from the neighbour neighbour_call on stream.
  bool ApplyPc16(const std::vector<std::string>& f, int stream);
  bool ApplyPc17(const std::vector<std::string>& f, int stream);
  bool ApplyPc19(const std::vector<std::string>& f, int stream, std::string_view neighbour_call);
  bool ApplyPc21(const std::vector<std::string>& f, int stream);

  // A neighbour link came up (the neighbour itself hangs under us) or went down (every route
  // learned through it is forgotten, and nodes reached only through it disappear).
  void LinkUp(int stream, std::string_view neighbour_call, bool pc9x);
  void LinkDown(int stream);

  int NodeCount() const { return static_cast<int>(nodes_.size()); }
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
  Node& Ensure(std::string_view call);
  void Touch(Node& n, int stream, int hops);
  void RemoveNode(std::string_view call);
  int BestRoute(const Node& n, std::set<std::string>& seen) const;

  std::string our_call_;
  std::map<std::string, Node, std::less<>> nodes_;
  std::map<int, std::string> neighbours_;  // stream -> neighbour call
};

}  // namespace qx
