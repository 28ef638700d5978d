#include "console/console_server.h"

#include <utility>

#include "console/console_http_connection.h"
#include "console/console_live_view.h"

namespace qx {

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
