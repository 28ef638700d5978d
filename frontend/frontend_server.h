// The connection front-end: accepts users and nodes on the configured ports, opens outgoing
// connections when the node asks, and relays every connection as a numbered stream over one
// link to the node.  Connections outlive the node: while no node is connected their input is
// held (bounded), and a node that connects again is told which streams are open.
//
// Only a node that proves it knows the link secret gets the link: every new connection on the
// link port is a candidate that never touches the live link (and the users behind it) until
// it has answered the challenge; strangers are refused and counted.
//
// The node link, the listeners and the stream table live on the thread that runs the given
// io_context; the connections' sockets are spread over I/O threads (the first of them is that
// same thread), so that the kernel's work of sending every spot to thousands of sockets uses
// every core.  Output for a connection is gathered in one buffer that is swapped out whole for each
// socket write, so however many messages wait for a socket they go out in one write, and a slow
// reader only ever fills its own bounded buffer (and is told when its output is being dropped).
// Floods of connections are refused before they cost more than an accept and one line.
#pragma once

#include <boost/asio/io_context.hpp>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "frontend/frontend_settings.h"

namespace qx {

struct FrontendOptions {
  FrontendSettings settings;
  std::string version = QX_VERSION;
  // Threads that own connections' sockets, the link thread among them (at least 1).
  int threads = 1;
  // Output queued for one connection; past it the reader is told that output is dropped.
  size_t output_limit = 1024 * 1024;
  size_t hold_limit = 64 * 1024;  // input held per stream while no node is connected
  std::chrono::milliseconds partial_line_wait{200};
  std::chrono::seconds keep_alive_every{30};
  std::chrono::seconds connect_timeout{30};
  std::chrono::seconds close_flush_timeout{30};
  // The 32 bytes of link.key; while empty every connection on the link port is refused.
  std::string link_secret;
  // A connection on the link port that has not proved itself by then is closed.
  std::chrono::milliseconds link_proof_timeout{5000};
  size_t max_link_candidates = 8;
  // The times below come from the settings or are shortened by tests.
  // The window of "Max Connects Per Minute".
  std::chrono::milliseconds connect_window{60000};
  // "Login Timeout" (0: none).
  std::chrono::milliseconds login_timeout{180000};
  // A reader over the output bound that takes no bytes at all for this long is closed.
  std::chrono::milliseconds stall_timeout{60000};
  // How often the counters go to the node.
  std::chrono::milliseconds counters_every{10000};
  // The listener for programs: a request head must be complete by web_request_timeout, the
  // node's answer to a poll arrive by web_answer_timeout; a WebSocket silent for
  // web_ping_every is pinged, and a client message may be at most web_max_message bytes.
  std::chrono::milliseconds web_request_timeout{10000};
  std::chrono::milliseconds web_answer_timeout{10000};
  std::chrono::milliseconds web_ping_every{30000};
  size_t web_max_message = 4096;
};

struct FrontendCounters {
  uint64_t accepted = 0;
  uint64_t closed = 0;
  uint64_t overflow_closes = 0;
  uint64_t messages_from_node = 0;
  uint64_t stale_messages_dropped = 0;
  uint64_t malformed_messages = 0;
  // Fan-out messages from the node (one text for many streams) and the lines they carried
  // to connections that were still there.
  uint64_t fanout_messages = 0;
  uint64_t fanout_lines = 0;
  // Connections on the link port closed without becoming the link: no secret here, too
  // many waiting, a wrong proof, anything else before a proof, or no proof in time.
  uint64_t links_refused = 0;
  // Inbound connections refused, by the limit that refused them.
  uint64_t refused_max_connections = 0;
  uint64_t refused_per_address = 0;
  uint64_t refused_rate = 0;
  uint64_t login_timeouts = 0;
  uint64_t slow_reader_episodes = 0;
  uint64_t dropped_lines = 0;  // lines dropped for readers that could not keep up
  // The listener for programs.
  uint64_t web_streams_open = 0;     // WebSocket streams held now
  uint64_t web_upgrades = 0;         // WebSocket streams opened
  uint64_t web_polls = 0;            // HTTP polls passed to the node
  uint64_t web_rejected = 0;         // requests answered with an error (400, 404, 408, ...)
  uint64_t web_refused = 0;          // streams refused by "WebSocket Max Per Address"
  uint64_t web_protocol_errors = 0;  // WebSockets closed for breaking the protocol
  uint64_t web_poll_timeouts = 0;    // polls the node did not answer in time (504)
};

class FrontendServer {
 public:
  FrontendServer(boost::asio::io_context& io, FrontendOptions options);
  ~FrontendServer();
  FrontendServer(const FrontendServer&) = delete;
  FrontendServer& operator=(const FrontendServer&) = delete;

  // Opens the link port and every user port; false (logged) when one cannot be opened.
  bool Start();
  // Closes every socket; the io_context then runs out of work.
  void Stop();

  // A snapshot; call it on the io_context's thread.
  FrontendCounters counters() const;

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace qx
