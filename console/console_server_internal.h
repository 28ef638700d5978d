// What the console's parts share: the server that owns the listener, the log-ins and the
// connections, and the few request helpers more than one part needs.  Only the console's own
// files include this; the node sees console_server.h.
//
// The work is spread along its seams: console_server.cpp listens and keeps connection slots
// free; console_http_connection.cpp reads requests with their deadlines; console_routes.cpp
// answers them (pages, API, metrics); console_sign_in.cpp holds log-ins, sessions and the
// password; console_live_view.cpp feeds the WebSockets of live lines.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>

#include <boost/asio.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/websocket.hpp>
#include <nlohmann/json.hpp>

#include "console/console_api.h"
#include "console/console_metrics.h"
#include "console/console_server.h"
#include "console/login_throttle.h"

namespace qx {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
namespace websocket = beast::websocket;
using tcp = asio::ip::tcp;
using Request = http::request<http::string_body>;
using Response = http::response<http::string_body>;

inline constexpr std::string_view kCookieName = "qxsid";

// Who sent a request: the TCP peer, and how it is written in the log.
struct ConsolePeer {
  asio::ip::address address;
  std::string text;  // "address:port"
};

// The session cookie's value, empty when the request has none.
std::string SessionId(const Request& req);

class HttpConnection;
class WsConnection;

class ConsoleServer::Impl : public std::enable_shared_from_this<ConsoleServer::Impl> {
 public:
  Impl(asio::io_context& io, ConsoleModel& model, ConsoleServerOptions options)
      : io_(io),
        model_(model),
        options_(std::move(options)),
        acceptor_(io),
        api_(model),
        snapshot_timer_(io),
        accept_timer_(io),
        throttle_(LoginThrottleOptions{options_.failed_login_delay, 3, options_.login_table_size,
                                       std::chrono::seconds(3600)}) {}

  StartResult Start();
  void Stop();
  int port() const { return bound_port_; }

  const ConsoleServerOptions& options() const { return options_; }
  asio::io_context& io() { return io_; }
  bool stopped() const { return stopped_; }

  // Builds the answer to one plain HTTP request; done() receives it, maybe later (log-in).
  void Handle(Request req, const ConsolePeer& peer, std::function<void(Response)> done);
  // A WebSocket upgrade: the response to send when it is refused, nothing when accepted.
  std::optional<Response> CheckUpgrade(const Request& req);

  void AddHttp(const std::shared_ptr<HttpConnection>& c);
  void RemoveHttp(HttpConnection* c);
  void AddWs(const std::shared_ptr<WsConnection>& c);
  void RemoveWs(WsConnection* c);
  void WsOpening() { ++ws_opening_; }
  void WsOpened() { --ws_opening_; }
  size_t connection_count() const { return http_.size() + ws_.size() + ws_opening_; }
  ConsoleConnectionStats& stats() { return stats_; }

 private:
  struct AuthSession {
    std::string csrf;
    std::chrono::steady_clock::time_point last_used;
  };

  // Listening and room for new connections.
  void Accept();
  void MakeRoom();

  // Answers.
  Response Basic(const Request& req, http::status status, std::string body,
                 std::string_view content_type);
  Response Json(const Request& req, http::status status, const nlohmann::json& j) {
    return Basic(req, status, JsonText(j), "application/json");
  }

  // Log-ins, sessions and the password.
  AuthSession* FindSession(const Request& req);
  void Login(Request req, const ConsolePeer& peer, std::function<void(Response)> done);
  void FinishLogin(const Request& req, const std::string& who, const std::string& key, bool ok,
                   std::function<void(Response)> done);
  Response Logout(const Request& req);
  void ChangePassword(Request req, std::function<void(Response)> done);

  // Live views.
  void OnMonitorLine(const MonitorLine& line);
  void Broadcast(const std::shared_ptr<const std::string>& msg);
  void ScheduleStreamsSnapshot();

  asio::io_context& io_;
  ConsoleModel& model_;
  ConsoleServerOptions options_;
  tcp::acceptor acceptor_;
  ConsoleApi api_;
  asio::steady_timer snapshot_timer_;
  asio::steady_timer accept_timer_;
  bool snapshot_pending_ = false;
  int bound_port_ = 0;
  bool stopped_ = false;
  std::optional<PasswordHash> password_;
  // Password checks are slow on purpose; they run here, never on the node's thread.
  std::unique_ptr<asio::thread_pool> kdf_pool_;
  int logins_in_flight_ = 0;  // passwords being checked on the helper thread
  LoginThrottle throttle_;
  ConsoleConnectionStats stats_;
  size_t ws_opening_ = 0;  // WebSockets in their handshake, already holding a slot
  std::unordered_map<std::string, AuthSession> sessions_;
  std::unordered_map<HttpConnection*, std::weak_ptr<HttpConnection>> http_;
  std::unordered_map<WsConnection*, std::weak_ptr<WsConnection>> ws_;
  int monitor_subscription_ = 0;
};

}  // namespace qx
