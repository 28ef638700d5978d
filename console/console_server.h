// The sysop's web console: HTTP pages, a JSON API and a WebSocket of live lines, served on
// the node's own io_context thread.  Nothing here blocks that thread: password checks run on
// a helper thread, failed log-ins are slowed with timers, and a browser that stops reading
// only loses lines (with a marker), never time.
//
// Access: every page, API call and the WebSocket need a session cookie got by logging in
// with the sysop password; requests that change something also need the session's CSRF token
// in the "X-CSRF-Token" header.  /metrics is served without a session: the console listens
// on 127.0.0.1 unless the sysop binds it elsewhere (`Console Address`), and the numbers there
// hold no secrets.
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
  // A failed log-in is answered after this delay, doubled for each failure in a row up to
  // eight times; a good log-in resets the count.
  std::chrono::milliseconds failed_login_delay{1000};
  // A request whose header and body have not arrived within this time gets 408.
  std::chrono::milliseconds request_timeout{15000};
  std::chrono::seconds idle_connection_timeout{120};
  std::chrono::hours session_lifetime{12};  // idle time after which a log-in expires
  size_t header_limit = 8 * 1024;
  size_t body_limit = 64 * 1024;
  size_t max_connections = 64;
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
