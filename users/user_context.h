// The services that the log-in dialogue and the command interpreter share.  The node's
// wiring owns every object; this bundle only refers to them.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "core/error_log.h"
#include "core/monitor.h"
#include "core/program_dir.h"
#include "core/stream_output.h"
#include "core/stream_table.h"
#include "core/time_text.h"
#include "users/access_lists.h"
#include "users/logon_messages.h"
#include "users/node_relay.h"

namespace qx {

class UserStore;
class CountryLookup;
class FilterBook;
class CallStates;

struct ClusterCounts {
  int nodes = 0;  // nodes in the network, this one included
  int local_users = 0;
  int remote_users = 0;
};

struct UserContext {
  StreamTable& streams;
  StreamOutput& out;
  UserStore& store;
  ErrorLog& log;
  Monitor& monitor;
  const Clock& clock;
  NodeRelay& relay;
  const ProgramDir& dir;
  AccessLists& access;
  LogonMessages& messages;
  const CountryLookup* countries = nullptr;
  std::string node_call;
  std::string version;
  std::string ssid_help_address;
  SysTime started{};
  std::function<ClusterCounts()> counts;
  uint64_t node_logins_refused = 0;  // neighbour calls that failed their password or address
  FilterBook* filters = nullptr;     // the users' compiled spot filters; null: none
  CallStates* states = nullptr;      // calls' states and provinces (SET/STATEADD); null: none

  // While SPOOF runs a command as another user, what that user's stream would be sent goes
  // to the sysop who asked instead; 0 when no SPOOF runs.
  int spoofed_stream = 0;
  int spoof_viewer = 0;
  // The mail notices for a user who has just logged in; unset: no mail on this node.
  std::function<std::vector<std::string>(int stream)> mail_notices = nullptr;

  // Sends to a stream (the current stream is left alone).
  void Send(int stream, std::string_view text) {
    out.SendToStream(stream == spoofed_stream ? spoof_viewer : stream, text);
  }
  // One line, CR LF added.
  void SendLine(int stream, std::string_view text) {
    std::string line(text);
    line += "\r\n";
    Send(stream, line);
  }
};

}  // namespace qx
