// The sysop's web console: HTTP pages, a JSON API and a WebSocket of live lines, served on
// the node's own io_context thread.  Nothing here blocks that thread: password checks run on
// a helper thread, failed log-ins are slowed with timers, and a browser that stops reading
// only loses lines (with a marker), never time.
//
// Access: every page, API call and the WebSocket need a session cookie got by logging in
// with the sysop password; requests that change something also need the session's CSRF token
// in the "X-CSRF-Token" header.  /metrics and /health (200 while the front-end link is up,
// 503 otherwise) are served without a session: the console listens on 127.0.0.1 unless the
// sysop binds it elsewhere (`Console Address`), and the numbers there hold no secrets.
#pragma once

#include <chrono>
#include <cstddef>
#include <filesystem>
#include <memory>
#include <string>

#include <boost/asio/io_context.hpp>

#include "console/console_model.h"
#include "console/console_password.h"

namespace qx {

struct ConsoleServerOptions {
  std::string address = "127.0.0.1";                // `Console Address`
  int port = 7380;                                  // `Console Port`; 0 picks a free one
  std::filesystem::path password_file;              // data/cfg/console.pw
  uint32_t kdf_iterations = kDefaultKdfIterations;  // for a password made at start
  // A failed log-in is answered after this delay, doubled for each failure in a row from the
  // same client address up to eight times; a good log-in resets that address's count.
  std::chrono::milliseconds failed_login_delay{1000};
  size_t login_table_size = 1024;  // client addresses whose failures are remembered
  // Behind a reverse proxy on loopback every request comes from the proxy's address.  With
  // this set, a request from loopback is counted against the last address of its
  // X-Forwarded-For header instead.  Only for a proxy that sets that header itself.
  bool trust_forwarded_for = false;  // `Console Trusted Proxy`
  // `Console Public Address`: the site a reverse proxy serves the console under
  // ("https://cluster.example.org"); pages from there may open the live view.  Empty: none.
  std::string public_site;
  // A connection must deliver a whole request header within header_timeout (counted from
  // its opening, or on a kept-alive connection from the request's first byte) and then the
  // body within body_timeout; otherwise it gets 408 and is closed.
  std::chrono::milliseconds header_timeout{10000};
  std::chrono::milliseconds body_timeout{10000};
  // A kept-alive connection with no request for this long is closed.
  std::chrono::milliseconds idle_timeout{30000};
  std::chrono::hours session_lifetime{12};  // idle time after which a log-in expires
  size_t header_limit = 8 * 1024;
  size_t body_limit = 64 * 1024;
  // Connection slots, WebSockets included.  When fewer than a quarter are free, idle
  // connections (oldest idle first) are closed to make room; when none is free, a header that
  // has been arriving for longer than stalled_header_grace is given up.  A new connection is
  // refused only when nothing can be closed.
  size_t max_connections = 64;
  std::chrono::milliseconds stalled_header_grace{2000};
  // WebSockets (live views) are never closed to make room; they have their own cap instead,
  // below max_connections so that pages and API calls always find a slot.
  size_t max_live_views = 8;
  size_t ws_queue_limit = 2000;  // messages waiting per WebSocket before lines are dropped
};

class ConsoleServer {
 public:
  ConsoleServer(boost::asio::io_context& io, ConsoleModel& model, ConsoleServerOptions options);
  ~ConsoleServer();
  ConsoleServer(const ConsoleServer&) = delete;
  ConsoleServer& operator=(const ConsoleServer&) = delete;

  struct StartResult {
    bool ok = false;
    std::string error;
    // Set when no password file existed: the password just made, to be shown once.
    std::string new_password;
  };
  // Loads (or makes) the password and starts listening.  Call before io.run() or on the
  // io_context's thread.
  StartResult Start();
  // Closes the listener and every connection.
  void Stop();

  // The port actually bound (useful when the options asked for port 0).
  int port() const;
  // The line the node prints when a password was made: "Console password: <pw>".
  static std::string PasswordLine(std::string_view password);

  class Impl;

 private:
  std::shared_ptr<Impl> impl_;
};

}  // namespace qx
