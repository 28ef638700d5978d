// What the node knows of the network, kept in a file under data/ so that a restart of the node
// (while the front-end keeps the connections) does not cost the network view: the links as
// they were, the nodes with their users, children and routes, the last PC9x stamp of each
// origin and of our own, and our own users at the time.  Pure text in and out.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "node/network_view.h"

namespace qx {

struct NetworkState {
  struct LinkRow {
    int stream = 0;
    int64_t tag = 0;  // the front-end's tag of the connection: a new connection never matches
    std::string peer;
  };
  int64_t saved_at = 0;   // seconds since the epoch
  std::string our_stamp;  // the last PC9x stamp this node wrote
  std::vector<LinkRow> links;
  std::vector<NetworkView::Node> nodes;
  std::vector<std::pair<std::string, double>> origins;  // last stamp accepted per origin
  std::vector<std::string> local_users;
};

// One line per fact, blank-separated, ending with "end" (a file cut short is refused).
// Names holding blanks, which no call or address has, are left out.
std::string FormatNetworkState(const NetworkState& state);
// False, with the reason, when text is no complete state of this format.
bool ParseNetworkState(std::string_view text, NetworkState* out, std::string* error);

}  // namespace qx
