#include "console/console_server.h"

#include <algorithm>
#include <array>
#include <deque>
#include <memory>
#include <optional>
#include <set>
#include <unordered_map>

#include <boost/asio.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/websocket.hpp>

#include "console/console_api.h"
#include "console/console_metrics.h"
#include "console/console_web_assets.h"
#include "console/login_throttle.h"
#include "core/sha256.h"
#include "core/text_util.h"

namespace qx {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
namespace websocket = beast::websocket;
using tcp = asio::ip::tcp;
using Request = http::request<http::string_body>;
using Response = http::response<http::string_body>;
using nlohmann::json;

namespace {

constexpr std::string_view kCookieName = "qxsid";
constexpr std::string_view kCsrfHeader = "X-CSRF-Token";
constexpr int kMaxLoginsInFlight = 4;
constexpr size_t kMaxSessions = 16;

std::string_view ContentType(std::string_view path) {
  if (path.ends_with(".html")) return "text/html; charset=utf-8";
  if (path.ends_with(".js")) return "text/javascript; charset=utf-8";
  if (path.ends_with(".css")) return "text/css; charset=utf-8";
  if (path.ends_with(".svg")) return "image/svg+xml";
  return "application/octet-stream";
}

const console_web::File* FindAsset(std::string_view path) {
  for (const auto& f : console_web::kFiles) {
    if (f.path == path) return &f;
  }
  return nullptr;
}

std::string_view ChannelName(MonitorChannel c) {
  switch (c) {
    case MonitorChannel::kConsole:
      return "console";
    case MonitorChannel::kRaw:
      return "raw";
    case MonitorChannel::kSpots:
      return "spots";
    case MonitorChannel::kBadCall:
      return "badcall";
    case MonitorChannel::kRunaway:
      return "runaway";
    case MonitorChannel::kConnections:
      return "connections";
  }
  return "console";
}

// The request target's path, checked: absolute path form only, no dot segments (also when
// percent-encoded), no backslashes or control characters.  nullopt means 400.
std::optional<std::string> CleanPath(std::string_view target, std::string* query) {
  if (target.empty() || target.front() != '/' || target.size() > 2048) return std::nullopt;
  const size_t q = target.find('?');
  *query = q == std::string_view::npos ? "" : std::string(target.substr(q + 1));
  std::string path;
  if (!PercentDecode(target.substr(0, q), path, false)) return std::nullopt;
  if (path.empty() || path.front() != '/' || path.starts_with("//")) return std::nullopt;
  for (unsigned char c : path) {
    if (c < 0x20 || c == 0x7f || c == '\\') return std::nullopt;
  }
  for (std::string_view seg : Split(std::string_view(path).substr(1), '/')) {
    if (seg == "." || seg == "..") return std::nullopt;
  }
  return path;
}

std::string CookieValue(std::string_view header, std::string_view name) {
  for (std::string_view part : Split(header, ';')) {
    part = Trim(part);
    if (part.size() > name.size() && part.starts_with(name) && part[name.size()] == '=') {
      return std::string(part.substr(name.size() + 1));
    }
  }
  return {};
}

// Who sent a request: the TCP peer, and how it is written in the log.
struct ConsolePeer {
  asio::ip::address address;
  std::string text;  // "address:port"
};

std::string SessionId(const Request& req) {
  const auto it = req.find(http::field::cookie);
  return it == req.end() ? std::string() : CookieValue(it->value(), kCookieName);
}

}  // namespace

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

  void Accept();
  AuthSession* FindSession(const Request& req);
  Response Basic(const Request& req, http::status status, std::string body,
                 std::string_view content_type);
  Response Json(const Request& req, http::status status, const json& j) {
    return Basic(req, status, JsonText(j), "application/json");
  }
  void Login(Request req, const ConsolePeer& peer, std::function<void(Response)> done);
  void FinishLogin(const Request& req, const std::string& who, const std::string& key, bool ok,
                   std::function<void(Response)> done);
  void MakeRoom();
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

// One browser WebSocket: a bounded queue of JSON messages.  When the queue is full, lines are
// counted instead of kept; once it has drained to half, a marker tells how many were lost.
class WsConnection : public std::enable_shared_from_this<WsConnection> {
 public:
  WsConnection(tcp::socket socket, std::shared_ptr<ConsoleServer::Impl> server,
               std::string session_id)
      : ws_(std::move(socket)), server_(std::move(server)), session_id_(std::move(session_id)) {}

  const std::string& session_id() const { return session_id_; }

  void Start(Request req) {
    auto timeouts = websocket::stream_base::timeout::suggested(beast::role_type::server);
    timeouts.handshake_timeout = std::chrono::seconds(10);
    ws_.set_option(timeouts);
    ws_.read_message_max(4096);
    ws_.set_option(websocket::stream_base::decorator(
        [](websocket::response_type& res) { res.set(http::field::server, "qxcluster"); }));
    ws_.async_accept(req, [self = shared_from_this()](beast::error_code ec) {
      if (self->server_->stopped()) return;
      self->server_->WsOpened();
      if (ec) return;
      self->server_->AddWs(self);
      self->Read();
    });
  }

  void Push(std::shared_ptr<const std::string> msg) {
    if (closed_) return;
    if (dropping_) {
      ++dropped_;
      return;
    }
    if (queue_.size() >= server_->options().ws_queue_limit) {
      dropping_ = true;
      ++dropped_;
      return;
    }
    queue_.push_back(std::move(msg));
    if (!writing_) Write();
  }

  void Close() {
    if (closed_) return;
    closed_ = true;
    beast::error_code ec;
    beast::get_lowest_layer(ws_).socket().close(ec);
  }

 private:
  void Read() {
    ws_.async_read(in_, [self = shared_from_this()](beast::error_code ec, size_t) {
      if (ec) {
        self->closed_ = true;
        self->server_->RemoveWs(self.get());
        return;
      }
      // The browser sends nothing the node acts on; pause and follow are done in the page.
      self->in_.consume(self->in_.size());
      self->Read();
    });
  }

  void Write() {
    writing_ = true;
    ws_.text(true);
    ws_.async_write(
        asio::buffer(*queue_.front()),
        [self = shared_from_this()](beast::error_code ec, size_t) { self->OnWrite(ec); });
  }

  void OnWrite(beast::error_code ec) {
    writing_ = false;
    if (ec) {
      closed_ = true;
      queue_.clear();
      server_->RemoveWs(this);
      return;
    }
    queue_.pop_front();
    if (dropping_ && queue_.size() <= server_->options().ws_queue_limit / 2) {
      dropping_ = false;
      json marker{{"t", "dropped"},
                  {"n", dropped_},
                  {"x", "... " + std::to_string(dropped_) + " lines dropped ..."}};
      queue_.push_back(std::make_shared<const std::string>(JsonText(marker)));
      dropped_ = 0;
    }
    if (!queue_.empty() && !closed_) Write();
  }

  websocket::stream<beast::tcp_stream> ws_;
  std::shared_ptr<ConsoleServer::Impl> server_;
  std::string session_id_;
  beast::flat_buffer in_;
  std::deque<std::shared_ptr<const std::string>> queue_;
  bool writing_ = false;
  bool dropping_ = false;
  bool closed_ = false;
  uint64_t dropped_ = 0;
};

// One HTTP connection: requests one at a time.  Each phase has its own deadline: the wait for
// a request on a kept-alive connection (idle time-out), the header from its first byte (or
// from the connection's opening) and the body.  The server looks at the phase to choose
// connections to close when slots run low.
class HttpConnection : public std::enable_shared_from_this<HttpConnection> {
 public:
  using Clock = std::chrono::steady_clock;
  enum class Phase { kIdle, kHeader, kBody, kBusy, kClosing };

  HttpConnection(tcp::socket socket, std::shared_ptr<ConsoleServer::Impl> server)
      : stream_(std::move(socket)), server_(std::move(server)), deadline_(stream_.get_executor()) {
    beast::error_code ec;
    const auto ep = stream_.socket().remote_endpoint(ec);
    if (!ec) peer_ = ep.address();
    peer_text_ = ec ? "?" : ep.address().to_string() + ":" + std::to_string(ep.port());
  }

  Phase phase() const { return phase_; }
  Clock::time_point phase_since() const { return phase_since_; }

  void Start() {
    // A new connection has the header time for its first request, waiting included.
    SetPhase(Phase::kIdle);
    Arm(server_->options().header_timeout);
    WaitForRequest();
  }

  void Close() {
    beast::error_code ec;
    deadline_.cancel();
    stream_.socket().shutdown(tcp::socket::shutdown_both, ec);
    stream_.socket().close(ec);
  }

  // Closed at once to free its slot for a new connection.
  void Evict() {
    if (finishing_) return Done();
    finishing_ = true;
    SetPhase(Phase::kClosing);
    Done();
  }

 private:
  void SetPhase(Phase p) {
    phase_ = p;
    phase_since_ = Clock::now();
  }

  // One deadline at a time; when it passes, the pending read is cancelled and its handler
  // sees timed_out_.
  void Arm(std::chrono::milliseconds limit) {
    timed_out_ = false;
    deadline_.expires_after(limit);
    const uint64_t generation = ++deadline_generation_;
    deadline_.async_wait([weak = weak_from_this(), generation](beast::error_code ec) {
      auto self = weak.lock();
      // A deadline that fired just as its read completed must not touch what came after.
      if (ec || !self || self->finishing_ || generation != self->deadline_generation_) return;
      self->timed_out_ = true;
      beast::error_code ignored;
      self->stream_.socket().cancel(ignored);
    });
  }

  void Disarm() {
    ++deadline_generation_;
    deadline_.cancel();
  }

  // Waits for the first bytes of the next request; until they come the connection is idle.
  void WaitForRequest() {
    if (buffer_.size() > 0) return ReadHeader();  // pipelined after the last request
    stream_.socket().async_read_some(buffer_.prepare(4096),
                                     [self = shared_from_this()](beast::error_code ec, size_t n) {
                                       if (self->finishing_) return;
                                       self->buffer_.commit(n);
                                       if (self->server_->stopped()) return self->Finish();
                                       if (self->timed_out_) {
                                         // Bytes that came just as the time ran out are a request
                                         // that did not finish.
                                         if (self->buffer_.size() > 0) {
                                           self->server_->stats().closed_header_timeout++;
                                           return self->Refuse(http::status::request_timeout);
                                         }
                                         self->server_->stats().closed_idle_timeout++;
                                         return self->Finish();
                                       }
                                       if (ec) return self->Finish();
                                       self->ReadHeader();
                                     });
  }

  void ReadHeader() {
    if (!fresh_) Arm(server_->options().header_timeout);
    fresh_ = false;
    SetPhase(Phase::kHeader);
    parser_.emplace();
    parser_->header_limit(uint32_t(server_->options().header_limit));
    parser_->body_limit(server_->options().body_limit);
    http::async_read_header(
        stream_, buffer_, *parser_,
        [self = shared_from_this()](beast::error_code ec, size_t) { self->OnHeader(ec); });
  }

  void OnHeader(beast::error_code ec) {
    if (finishing_) return;
    if (server_->stopped()) return Finish();
    if (timed_out_) {
      server_->stats().closed_header_timeout++;
      return Refuse(http::status::request_timeout);
    }
    if (ec) return OnReadError(ec);
    if (parser_->is_done()) return Dispatch();
    SetPhase(Phase::kBody);
    Arm(server_->options().body_timeout);
    http::async_read(stream_, buffer_, *parser_,
                     [self = shared_from_this()](beast::error_code ec, size_t) {
                       if (self->finishing_) return;
                       if (self->server_->stopped()) return self->Finish();
                       if (self->timed_out_) {
                         self->server_->stats().closed_body_timeout++;
                         return self->Refuse(http::status::request_timeout);
                       }
                       if (ec) return self->OnReadError(ec);
                       self->Dispatch();
                     });
  }

  void OnReadError(beast::error_code ec) {
    if (ec == http::error::end_of_stream || ec == asio::error::connection_reset ||
        ec == asio::error::eof || ec == asio::error::operation_aborted) {
      return Finish();
    }
    if (ec == http::error::body_limit) return Refuse(http::status::payload_too_large);
    if (ec == http::error::header_limit) {
      return Refuse(http::status::request_header_fields_too_large);
    }
    Refuse(http::status::bad_request);
  }

  void Dispatch() {
    Disarm();
    SetPhase(Phase::kBusy);
    Request req = parser_->release();
    if (websocket::is_upgrade(req)) {
      if (auto refusal = server_->CheckUpgrade(req)) return Send(std::move(*refusal));
      auto ws = std::make_shared<WsConnection>(stream_.release_socket(), server_, SessionId(req));
      finishing_ = true;
      server_->WsOpening();
      server_->RemoveHttp(this);
      ws->Start(std::move(req));
      return;
    }
    server_->Handle(std::move(req), ConsolePeer{peer_, peer_text_},
                    [self = shared_from_this()](Response res) { self->Send(std::move(res)); });
  }

  void Refuse(http::status status) {
    Response res{status, 11};
    res.set(http::field::server, "qxcluster");
    res.set(http::field::content_type, "text/plain; charset=utf-8");
    res.body() = std::string(http::obsolete_reason(status)) + "\n";
    res.keep_alive(false);
    res.prepare_payload();
    Send(std::move(res));
  }

  void Send(Response res) {
    if (finishing_) return;
    if (server_->stopped()) return Finish();
    Disarm();
    SetPhase(Phase::kBusy);
    response_ = std::make_shared<Response>(std::move(res));
    stream_.expires_after(std::chrono::seconds(10));
    http::async_write(stream_, *response_,
                      [self = shared_from_this()](beast::error_code ec, size_t) {
                        self->stream_.expires_never();
                        if (self->finishing_) return;
                        if (ec || !self->response_->keep_alive()) return self->Finish();
                        self->response_.reset();
                        self->SetPhase(Phase::kIdle);
                        self->Arm(self->server_->options().idle_timeout);
                        self->WaitForRequest();
                      });
  }

  void Finish() {
    if (finishing_) return;
    finishing_ = true;
    SetPhase(Phase::kClosing);
    // Close gently: stop sending, then read and drop what the client still sends for a
    // moment.  Closing at once with unread bytes would reset the connection, and the client
    // could lose the refusal it was just sent.  The slot stays taken meanwhile, but a closing
    // connection is the first the server closes outright when it needs room.
    beast::error_code ec;
    stream_.socket().shutdown(tcp::socket::shutdown_send, ec);
    if (ec || server_->stopped()) return Done();
    ++deadline_generation_;
    deadline_.expires_after(std::chrono::seconds(2));
    deadline_.async_wait([weak = weak_from_this()](beast::error_code e) {
      auto self = weak.lock();
      if (e || !self) return;
      beast::error_code ignored;
      self->stream_.socket().cancel(ignored);
    });
    Drain();
  }

  void Drain() {
    stream_.socket().async_read_some(asio::buffer(drain_),
                                     [self = shared_from_this()](beast::error_code ec, size_t) {
                                       if (ec || self->server_->stopped()) return self->Done();
                                       self->Drain();
                                     });
  }

  void Done() {
    Close();
    server_->RemoveHttp(this);
  }

  beast::tcp_stream stream_;
  std::shared_ptr<ConsoleServer::Impl> server_;
  asio::steady_timer deadline_;
  beast::flat_buffer buffer_{8192};
  std::optional<http::request_parser<http::string_body>> parser_;
  std::shared_ptr<Response> response_;
  asio::ip::address peer_;
  std::string peer_text_;
  Phase phase_ = Phase::kIdle;
  Clock::time_point phase_since_ = Clock::now();
  bool timed_out_ = false;
  bool fresh_ = true;
  bool finishing_ = false;
  uint64_t deadline_generation_ = 0;
  std::array<char, 4096> drain_;
};

ConsoleServer::StartResult ConsoleServer::Impl::Start() {
  StartResult result;
  password_ = LoadPasswordFile(options_.password_file);
  if (!password_) {
    std::error_code ec;
    if (std::filesystem::exists(options_.password_file, ec)) {
      model_.LogEvent("Console", options_.password_file.string() +
                                     " is not a valid password file; a new password is made");
    }
    const std::string pw = MakeRandomPassword();
    if (pw.empty()) {
      result.error = "cannot read /dev/urandom";
      return result;
    }
    PasswordHash h = HashPassword(pw, options_.kdf_iterations);
    std::string error;
    if (h.salt.empty() || !SavePasswordFile(options_.password_file, h, &error)) {
      result.error = error.empty() ? "cannot make a salt" : error;
      return result;
    }
    password_ = std::move(h);
    result.new_password = pw;
  }

  beast::error_code ec;
  const auto address = asio::ip::make_address(options_.address, ec);
  if (ec) {
    result.error = "bad console address " + options_.address;
    return result;
  }
  const tcp::endpoint ep(address, uint16_t(options_.port));
  acceptor_.open(ep.protocol(), ec);
  if (!ec) acceptor_.set_option(asio::socket_base::reuse_address(true), ec);
  if (!ec) acceptor_.bind(ep, ec);
  if (!ec) acceptor_.listen(asio::socket_base::max_listen_connections, ec);
  if (ec) {
    result.error = "cannot listen on " + options_.address + ":" + std::to_string(options_.port) +
                   ": " + ec.message();
    return result;
  }
  bound_port_ = acceptor_.local_endpoint().port();
  kdf_pool_ = std::make_unique<asio::thread_pool>(1);
  Accept();
  result.ok = true;
  return result;
}

void ConsoleServer::Impl::Stop() {
  if (stopped_) return;
  stopped_ = true;
  beast::error_code ec;
  acceptor_.close(ec);
  snapshot_timer_.cancel();
  accept_timer_.cancel();
  if (monitor_subscription_ != 0) {
    model_.monitor().Unsubscribe(monitor_subscription_);
    monitor_subscription_ = 0;
  }
  auto http = std::move(http_);
  for (auto& [p, weak] : http) {
    if (auto c = weak.lock()) c->Close();
  }
  auto ws = std::move(ws_);
  for (auto& [p, weak] : ws) {
    if (auto c = weak.lock()) c->Close();
  }
  if (kdf_pool_) {
    kdf_pool_->join();
  }
}

void ConsoleServer::Impl::Accept() {
  acceptor_.async_accept([self = shared_from_this()](beast::error_code ec, tcp::socket socket) {
    if (self->stopped_) return;
    if (ec) {
      // Out of file descriptors, most likely: try again shortly rather than spin.
      self->accept_timer_.expires_after(std::chrono::milliseconds(100));
      self->accept_timer_.async_wait([self](beast::error_code e) {
        if (!e && !self->stopped_) self->Accept();
      });
      return;
    }
    self->MakeRoom();
    if (self->connection_count() >= self->options_.max_connections) {
      ++self->stats_.refused_full;
      beast::error_code ignored;
      socket.close(ignored);
    } else {
      auto c = std::make_shared<HttpConnection>(std::move(socket), self);
      self->AddHttp(c);
      c->Start();
    }
    self->Accept();
  });
}

// Called for each new connection.  Keeps a quarter of the slots free by closing connections
// that are doing nothing: those already closing, then idle ones (the longest idle first).
// With no slot at all left, a header that has been arriving for longer than the grace time is
// given up too (oldest first): a browser sends its header at once, so that is a client
// holding a slot on purpose.  Busy connections and WebSockets are never closed here.
void ConsoleServer::Impl::MakeRoom() {
  using Phase = HttpConnection::Phase;
  const size_t max = options_.max_connections;
  const size_t keep_free = max / 4;
  const auto now = std::chrono::steady_clock::now();
  while (connection_count() + 1 + keep_free > max) {
    const bool full = connection_count() >= max;
    std::shared_ptr<HttpConnection> victim;
    int victim_rank = 0;
    for (auto& [p, weak] : http_) {
      auto c = weak.lock();
      if (!c) continue;
      int rank = 0;
      if (c->phase() == Phase::kClosing) {
        rank = 3;
      } else if (c->phase() == Phase::kIdle) {
        rank = 2;
      } else if (full && c->phase() == Phase::kHeader &&
                 now - c->phase_since() > options_.stalled_header_grace) {
        rank = 1;
      }
      if (rank == 0) continue;
      if (rank > victim_rank || (rank == victim_rank && c->phase_since() < victim->phase_since())) {
        victim = std::move(c);
        victim_rank = rank;
      }
    }
    if (!victim) return;
    if (victim_rank == 2) ++stats_.closed_idle_evicted;
    if (victim_rank == 1) ++stats_.closed_stalled_evicted;
    victim->Evict();
  }
}

void ConsoleServer::Impl::AddHttp(const std::shared_ptr<HttpConnection>& c) { http_[c.get()] = c; }
void ConsoleServer::Impl::RemoveHttp(HttpConnection* c) { http_.erase(c); }

void ConsoleServer::Impl::AddWs(const std::shared_ptr<WsConnection>& c) {
  ws_[c.get()] = c;
  if (monitor_subscription_ == 0) {
    monitor_subscription_ =
        model_.monitor().Subscribe([weak = weak_from_this()](const MonitorLine& line) {
          if (auto self = weak.lock()) self->OnMonitorLine(line);
        });
  }
  json hello{{"t", "hello"}, {"call", model_.NodeCall()}};
  c->Push(std::make_shared<const std::string>(JsonText(hello)));
  json snapshot{{"t", "streams"}, {"streams", StreamsJson(model_.Streams())}};
  c->Push(std::make_shared<const std::string>(JsonText(snapshot)));
}

void ConsoleServer::Impl::RemoveWs(WsConnection* c) {
  ws_.erase(c);
  // With nobody watching, the monitor does not even format lines for us.
  if (ws_.empty() && monitor_subscription_ != 0) {
    model_.monitor().Unsubscribe(monitor_subscription_);
    monitor_subscription_ = 0;
  }
}

void ConsoleServer::Impl::OnMonitorLine(const MonitorLine& line) {
  if (ws_.empty()) return;
  if (line.channel == MonitorChannel::kConnections) {
    ScheduleStreamsSnapshot();
    return;
  }
  json msg{{"t", "line"},
           {"ch", ChannelName(line.channel)},
           {"s", line.stream},
           {"c", line.colour},
           {"x", line.text}};
  Broadcast(std::make_shared<const std::string>(JsonText(msg)));
}

void ConsoleServer::Impl::Broadcast(const std::shared_ptr<const std::string>& msg) {
  // Push may end a connection (and so change ws_): walk a copy.
  std::vector<std::shared_ptr<WsConnection>> targets;
  targets.reserve(ws_.size());
  for (auto& [p, weak] : ws_) {
    if (auto c = weak.lock()) targets.push_back(std::move(c));
  }
  for (auto& c : targets) c->Push(msg);
}

// A burst of connection changes (a node restart recovers hundreds of streams) becomes one
// snapshot per quarter second.
void ConsoleServer::Impl::ScheduleStreamsSnapshot() {
  if (snapshot_pending_) return;
  snapshot_pending_ = true;
  snapshot_timer_.expires_after(std::chrono::milliseconds(250));
  snapshot_timer_.async_wait([weak = weak_from_this()](beast::error_code ec) {
    auto self = weak.lock();
    if (!self || ec || self->stopped_) return;
    self->snapshot_pending_ = false;
    if (self->ws_.empty()) return;
    json snapshot{{"t", "streams"}, {"streams", StreamsJson(self->model_.Streams())}};
    self->Broadcast(std::make_shared<const std::string>(JsonText(snapshot)));
  });
}

ConsoleServer::Impl::AuthSession* ConsoleServer::Impl::FindSession(const Request& req) {
  const auto it = req.find(http::field::cookie);
  if (it == req.end()) return nullptr;
  const std::string id = CookieValue(it->value(), kCookieName);
  if (id.size() != 32) return nullptr;
  const auto found = sessions_.find(id);
  if (found == sessions_.end()) return nullptr;
  const auto now = std::chrono::steady_clock::now();
  if (now - found->second.last_used > options_.session_lifetime) {
    sessions_.erase(found);
    return nullptr;
  }
  found->second.last_used = now;
  return &found->second;
}

Response ConsoleServer::Impl::Basic(const Request& req, http::status status, std::string body,
                                    std::string_view content_type) {
  Response res{status, req.version()};
  res.set(http::field::server, "qxcluster");
  res.set(http::field::content_type, content_type);
  res.set(http::field::cache_control, "no-store");
  res.set("X-Content-Type-Options", "nosniff");
  res.set("X-Frame-Options", "DENY");
  res.set("Referrer-Policy", "no-referrer");
  res.set("Content-Security-Policy",
          "default-src 'self'; connect-src 'self'; img-src 'self' data:; "
          "frame-ancestors 'none'; form-action 'self'");
  res.keep_alive(req.keep_alive());
  res.body() = std::move(body);
  if (req.method() == http::verb::head) {
    res.content_length(res.body().size());
    res.body().clear();
  } else {
    res.prepare_payload();
  }
  return res;
}

std::optional<Response> ConsoleServer::Impl::CheckUpgrade(const Request& req) {
  std::string query;
  const auto path = CleanPath(req.target(), &query);
  if (!path) return Basic(req, http::status::bad_request, "bad target\n", "text/plain");
  if (*path != "/ws") return Basic(req, http::status::not_found, "not found\n", "text/plain");
  if (!FindSession(req)) {
    return Json(req, http::status::unauthorized, json{{"error", "log in first"}});
  }
  // Another site's page must not open the socket with the sysop's cookie.
  const auto origin = req.find(http::field::origin);
  const auto host = req.find(http::field::host);
  if (origin != req.end() &&
      (host == req.end() || origin->value() != "http://" + std::string(host->value()))) {
    return Json(req, http::status::forbidden, json{{"error", "origin not allowed"}});
  }
  if (ws_.size() + ws_opening_ >= options_.max_live_views) {
    ++stats_.refused_live_views;
    return Json(req, http::status::service_unavailable,
                json{{"error", "too many live views open; close one"}});
  }
  return std::nullopt;
}

void ConsoleServer::Impl::Handle(Request req, const ConsolePeer& peer,
                                 std::function<void(Response)> done) {
  std::string query;
  const auto path = CleanPath(req.target(), &query);
  if (!path) return done(Basic(req, http::status::bad_request, "bad target\n", "text/plain"));
  const bool read_only = req.method() == http::verb::get || req.method() == http::verb::head;
  if (!read_only && req.method() != http::verb::post) {
    return done(Basic(req, http::status::method_not_allowed, "method not allowed\n", "text/plain"));
  }

  // Open to all: the log-in page and what it needs, and the metrics.
  if (*path == "/metrics" && read_only) {
    stats_.http = http_.size();
    stats_.live_views = ws_.size() + ws_opening_;
    return done(Basic(req, http::status::ok,
                      FormatMetrics(model_.Metrics()) + FormatConnectionMetrics(stats_),
                      "text/plain; version=0.0.4; charset=utf-8"));
  }
  if (*path == "/login" || *path == "/login.html" || *path == "/login.js" ||
      *path == "/style.css") {
    if (!read_only) {
      return done(
          Basic(req, http::status::method_not_allowed, "method not allowed\n", "text/plain"));
    }
    const std::string asset = *path == "/login" ? "/login.html" : *path;
    const auto* f = FindAsset(asset);
    if (!f) return done(Basic(req, http::status::not_found, "not found\n", "text/plain"));
    return done(Basic(req, http::status::ok, std::string(f->data), ContentType(asset)));
  }
  if (*path == "/api/login") {
    if (req.method() != http::verb::post) {
      return done(Json(req, http::status::method_not_allowed, json{{"error", "use POST"}}));
    }
    return Login(std::move(req), peer, std::move(done));
  }

  AuthSession* session = FindSession(req);
  const bool is_api = path->starts_with("/api/");
  if (!session) {
    if (is_api || !read_only) {
      return done(Json(req, http::status::unauthorized, json{{"error", "log in first"}}));
    }
    Response res = Basic(req, http::status::see_other, "", "text/plain");
    res.set(http::field::location, "/login");
    return done(std::move(res));
  }
  if (!read_only) {
    const auto token = req.find(kCsrfHeader);
    if (token == req.end() || !ConstantTimeEquals(token->value(), session->csrf)) {
      return done(Json(req, http::status::forbidden, json{{"error", "CSRF token missing"}}));
    }
  }

  if (*path == "/api/session") {
    return done(
        Json(req, http::status::ok, json{{"csrf", session->csrf}, {"call", model_.NodeCall()}}));
  }
  if (*path == "/api/logout") {
    if (read_only)
      return done(Json(req, http::status::method_not_allowed, json{{"error", "use POST"}}));
    const std::string id = SessionId(req);
    sessions_.erase(id);
    // The live lines of this log-in stop with it.
    std::vector<std::shared_ptr<WsConnection>> open;
    for (auto& [p, weak] : ws_) {
      if (auto c = weak.lock(); c && c->session_id() == id) open.push_back(std::move(c));
    }
    for (auto& c : open) c->Close();
    Response res = Json(req, http::status::ok, json{{"ok", true}});
    res.set(http::field::set_cookie,
            std::string(kCookieName) + "=; Path=/; HttpOnly; SameSite=Strict; Max-Age=0");
    return done(std::move(res));
  }
  if (*path == "/api/password") {
    if (read_only)
      return done(Json(req, http::status::method_not_allowed, json{{"error", "use POST"}}));
    const json body = json::parse(req.body(), nullptr, false);
    if (!body.is_object() || !body.contains("old") || !body.contains("new") ||
        !body["old"].is_string() || !body["new"].is_string()) {
      return done(Json(req, http::status::bad_request, json{{"error", "old and new needed"}}));
    }
    const std::string old_pw = body["old"], new_pw = body["new"];
    if (new_pw.size() < 8) {
      return done(Json(req, http::status::bad_request,
                       json{{"error", "the new password needs at least 8 characters"}}));
    }
    const PasswordHash current = *password_;
    const uint32_t iterations = std::max(current.iterations, options_.kdf_iterations);
    asio::post(*kdf_pool_, [self = shared_from_this(), req = std::move(req), current, old_pw,
                            new_pw, iterations, done = std::move(done)]() mutable {
      const bool ok = VerifyPassword(current, old_pw);
      std::optional<PasswordHash> fresh;
      if (ok) fresh = HashPassword(new_pw, iterations);
      asio::post(self->io_, [self, req = std::move(req), fresh = std::move(fresh),
                             done = std::move(done)]() mutable {
        if (self->stopped_) return;
        if (!fresh) {
          return done(self->Json(req, http::status::forbidden,
                                 json{{"error", "the old password is wrong"}}));
        }
        std::string error;
        if (!SavePasswordFile(self->options_.password_file, *fresh, &error)) {
          return done(self->Json(req, http::status::internal_server_error, json{{"error", error}}));
        }
        self->password_ = std::move(*fresh);
        self->model_.LogEvent("Console", "console password changed");
        done(self->Json(req, http::status::ok, json{{"ok", true}}));
      });
    });
    return;
  }
  if (is_api) {
    ApiReply reply = api_.Handle(read_only ? "GET" : "POST", std::string_view(*path).substr(5),
                                 query, req.body());
    Response res =
        Basic(req, http::status(reply.status), std::move(reply.body), "application/json");
    if (api_.shutdown_requested()) {
      model_.LogEvent("Console", "shut-down asked for from the web console");
      // Answer first; the node ends once the reply is on its way.
      asio::post(io_, [self = shared_from_this()] { self->model_.Shutdown(); });
    }
    return done(std::move(res));
  }

  if (!read_only) {
    return done(Basic(req, http::status::method_not_allowed, "method not allowed\n", "text/plain"));
  }
  const std::string asset = *path == "/" ? "/index.html" : *path;
  const auto* f = FindAsset(asset);
  if (!f) return done(Basic(req, http::status::not_found, "not found\n", "text/plain"));
  return done(Basic(req, http::status::ok, std::string(f->data), ContentType(asset)));
}

void ConsoleServer::Impl::Login(Request req, const ConsolePeer& peer,
                                std::function<void(Response)> done) {
  // A form on another site cannot send JSON without the browser asking first, so insisting
  // on it keeps log-in requests to this page.
  const auto type = req.find(http::field::content_type);
  if (type == req.end() || !type->value().starts_with("application/json")) {
    return done(Json(req, http::status::unsupported_media_type, json{{"error", "send JSON"}}));
  }
  const json body = json::parse(req.body(), nullptr, false);
  if (!body.is_object() || !body.contains("password") || !body["password"].is_string()) {
    return done(Json(req, http::status::bad_request, json{{"error", "password needed"}}));
  }
  const auto forwarded = req.find("X-Forwarded-For");
  const asio::ip::address client = ClientAddress(
      peer.address, forwarded == req.end() ? "" : forwarded->value(), options_.trust_forwarded_for);
  const std::string who =
      client == peer.address ? peer.text : client.to_string() + " via " + peer.text;
  if (logins_in_flight_ >= kMaxLoginsInFlight) {
    ++stats_.logins_refused;
    model_.LogEvent("Console", "too many log-in attempts at once, refused from " + who);
    return done(Json(req, http::status::too_many_requests, json{{"error", "try again later"}}));
  }
  // One log-in at a time per address, its slow-down included: guesses from one place cannot
  // run side by side, and they take no turn from anybody else.
  const std::string key = ThrottleKey(client);
  if (!throttle_.Begin(key, std::chrono::steady_clock::now())) {
    ++stats_.logins_refused;
    model_.LogEvent("Console", "log-in while another is under way, refused from " + who);
    return done(Json(req, http::status::too_many_requests, json{{"error", "try again later"}}));
  }
  ++logins_in_flight_;
  const std::string password = body["password"];
  const PasswordHash hash = *password_;
  asio::post(*kdf_pool_, [self = shared_from_this(), req = std::move(req), who, key, password, hash,
                          done = std::move(done)]() mutable {
    const bool ok = VerifyPassword(hash, password);
    asio::post(self->io_,
               [self, req = std::move(req), who, key, ok, done = std::move(done)]() mutable {
                 if (self->stopped_) return;
                 --self->logins_in_flight_;
                 self->FinishLogin(req, who, key, ok, std::move(done));
               });
  });
}

void ConsoleServer::Impl::FinishLogin(const Request& req, const std::string& who,
                                      const std::string& key, bool ok,
                                      std::function<void(Response)> done) {
  const auto delay = throttle_.Result(key, ok, std::chrono::steady_clock::now());
  if (ok) {
    throttle_.End(key);
    const std::string id = HexEncode(RandomBytes(16));
    const std::string csrf = HexEncode(RandomBytes(16));
    if (id.size() != 32 || csrf.size() != 32) {
      return done(Json(req, http::status::internal_server_error, json{{"error", "no random"}}));
    }
    const auto now = std::chrono::steady_clock::now();
    std::erase_if(sessions_, [&](const auto& kv) {
      return now - kv.second.last_used > options_.session_lifetime;
    });
    // A handful of browsers at most; the oldest log-in makes room for a new one.
    if (sessions_.size() >= kMaxSessions) {
      auto oldest = std::min_element(
          sessions_.begin(), sessions_.end(),
          [](const auto& a, const auto& b) { return a.second.last_used < b.second.last_used; });
      sessions_.erase(oldest);
    }
    sessions_[id] = AuthSession{csrf, now};
    model_.LogEvent("Console", "sysop logged in from " + who);
    Response res = Json(req, http::status::ok, json{{"ok", true}, {"csrf", csrf}});
    res.set(http::field::set_cookie,
            std::string(kCookieName) + "=" + id + "; Path=/; HttpOnly; SameSite=Strict");
    return done(std::move(res));
  }
  model_.LogEvent("Console", "wrong console password from " + who);
  auto timer = std::make_shared<asio::steady_timer>(io_);
  timer->expires_after(delay);
  timer->async_wait([self = shared_from_this(), timer, req, key,
                     done = std::move(done)](beast::error_code) mutable {
    if (self->stopped_) return;
    self->throttle_.End(key);
    done(self->Json(req, http::status::unauthorized, json{{"error", "wrong password"}}));
  });
}

ConsoleServer::ConsoleServer(asio::io_context& io, ConsoleModel& model,
                             ConsoleServerOptions options)
    : impl_(std::make_shared<Impl>(io, model, std::move(options))) {}

ConsoleServer::~ConsoleServer() { impl_->Stop(); }

ConsoleServer::StartResult ConsoleServer::Start() { return impl_->Start(); }
void ConsoleServer::Stop() { impl_->Stop(); }
int ConsoleServer::port() const { return impl_->port(); }

std::string ConsoleServer::PasswordLine(std::string_view password) {
  return "Console password: " + std::string(password);
}

}  // namespace qx
