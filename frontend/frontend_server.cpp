// Listening: the link port and the user ports, the connection limits that turn floods away
// before they cost more than an accept, and the server's start and stop.
#include <sys/resource.h>

#include <algorithm>
#include <array>
#include <utility>

#include <boost/asio/ip/v6_only.hpp>

#include "frontend/front_log.h"
#include "frontend/frontend_server_internal.h"

namespace qx {

namespace {

constexpr auto kAcceptRetry = std::chrono::milliseconds(200);
// Descriptors kept free of connections: listeners, the link, logs, and the one a connection
// that is being refused needs for a moment.
constexpr rlim_t kSpareDescriptors = 32;

}  // namespace

bool FrontendServer::Impl::Start() {
  const FrontendSettings& s = options_.settings;
  error_code ec;
  const auto link_address = asio::ip::make_address(s.link_ip, ec);
  if (ec) {
    FrontLogError("Link address " + s.link_ip + " is not usable: " + ec.message());
    return false;
  }
  const tcp::endpoint link_ep(link_address, static_cast<unsigned short>(s.link_port));
  link_acceptor_.open(link_ep.protocol(), ec);
  if (!ec) link_acceptor_.set_option(tcp::acceptor::reuse_address(true), ec);
  if (!ec) link_acceptor_.bind(link_ep, ec);
  if (!ec) link_acceptor_.listen(asio::socket_base::max_listen_connections, ec);
  if (ec) {
    FrontLogError("Cannot listen for the node link on " + PeerText(link_ep) + ": " + ec.message());
    return false;
  }
  FrontLog("Listening for the node link on " + PeerText(link_ep));
  if (options_.link_secret.empty()) {
    FrontLogError("No usable link secret: every node link will be refused");
  }

  for (size_t i = 0; i < s.user_ports.size(); ++i) {
    const auto port = static_cast<unsigned short>(s.user_ports[i]);
    std::unique_ptr<tcp::acceptor> acceptor = ListenDualStack(port, ec);
    if (ec) {
      FrontLogError("Cannot listen on port " + std::to_string(s.user_ports[i]) + ": " +
                    ec.message());
      return false;
    }
    const bool v6 = acceptor->local_endpoint(ec).protocol() == tcp::v6();
    FrontLog("Listening on port " + std::to_string(s.user_ports[i]) + " (port index " +
             std::to_string(i) + (v6 ? ", IPv6 and IPv4)" : ", IPv4 only)"));
    user_acceptors_.push_back(std::move(acceptor));
  }

  if (!StartWeb()) return false;

  FitLimitToDescriptors();
  StartWorkers();
  AcceptLink();
  for (size_t i = 0; i < user_acceptors_.size(); ++i) AcceptUsers(i);
  KeepAlive();
  CountersTimer();
  return true;
}

std::unique_ptr<tcp::acceptor> FrontendServer::Impl::ListenDualStack(unsigned short port,
                                                                     error_code& ec) {
  // One socket on [::] that also takes IPv4 (as mapped addresses) serves both families on
  // the same port whatever the system's bindv6only default; a machine without IPv6 gets a
  // plain IPv4 socket instead.
  auto acceptor = std::make_unique<tcp::acceptor>(io_);
  acceptor->open(tcp::v6(), ec);
  if (!ec) acceptor->set_option(asio::ip::v6_only(false), ec);
  if (!ec) acceptor->set_option(tcp::acceptor::reuse_address(true), ec);
  if (!ec) acceptor->bind(tcp::endpoint(tcp::v6(), port), ec);
  if (ec && ec != asio::error::address_in_use) {
    error_code ignored;
    acceptor->close(ignored);
    acceptor->open(tcp::v4(), ec);
    if (!ec) acceptor->set_option(tcp::acceptor::reuse_address(true), ec);
    if (!ec) acceptor->bind(tcp::endpoint(tcp::v4(), port), ec);
  }
  if (!ec) acceptor->listen(asio::socket_base::max_listen_connections, ec);
  return acceptor;
}

void FrontendServer::Impl::Stop() {
  if (stopped_) return;
  stopped_ = true;
  StopWeb();
  error_code ec;
  link_acceptor_.close(ec);
  for (auto& a : user_acceptors_) a->close(ec);
  keep_alive_timer_.cancel();
  counters_timer_.cancel();
  for (auto& t : retry_timers_) t->cancel();
  if (link_) {
    link_->closed = true;
    link_->socket.close(ec);
    link_.reset();
  }
  for (auto& l : candidates_) {
    l->closed = true;
    l->proof_timer.cancel();
    l->socket.close(ec);
  }
  candidates_.clear();
  StopWorkers();
  FrontLog("Stopped");
}

void FrontendServer::Impl::RetryAcceptLater(std::function<void()> again) {
  // Out of descriptors or a similar passing fault: try again shortly instead of spinning.
  // Each acceptor waits on its own timer so that one retry never cancels another.
  auto timer = std::make_shared<asio::steady_timer>(io_, kAcceptRetry);
  retry_timers_.push_back(timer);
  timer->async_wait([this, timer, again = std::move(again)](error_code ec) {
    std::erase(retry_timers_, timer);
    if (!ec && !stopped_) again();
  });
}

void FrontendServer::Impl::AcceptLink() {
  link_acceptor_.async_accept([this](error_code ec, tcp::socket socket) {
    if (stopped_ || ec == asio::error::operation_aborted) return;
    if (ec) {
      FrontLogError("Accepting the node link failed: " + ec.message());
      RetryAcceptLater([this] { AcceptLink(); });
      return;
    }
    OnLinkAccepted(std::move(socket));
    AcceptLink();
  });
}

void FrontendServer::Impl::AcceptUsers(size_t index) {
  user_acceptors_[index]->async_accept([this, index](error_code ec, tcp::socket socket) {
    if (stopped_ || ec == asio::error::operation_aborted) return;
    if (ec) {
      FrontLogError("Accepting on port index " + std::to_string(index) +
                    " failed: " + ec.message());
      RetryAcceptLater([this, index] { AcceptUsers(index); });
      return;
    }
    std::string address;
    if (Admit(socket, address)) {
      AddConnection(std::move(socket), static_cast<int>(index), "in", std::move(address));
    }
    AcceptUsers(index);
  });
}

ConnectionLimitSettings FrontendServer::Impl::LimitSettings(const FrontendOptions& options) {
  const FrontendSettings& s = options.settings;
  return ConnectionLimitSettings{size_t(s.max_connections), size_t(s.max_per_address),
                                 size_t(s.max_connects_per_minute), options.connect_window};
}

void FrontendServer::Impl::FitLimitToDescriptors() {
  // Past the open-file limit accept fails and connections wait unseen in the backlog; a
  // lower connection limit turns them away with a reason instead.
  rlimit lim{};
  if (getrlimit(RLIMIT_NOFILE, &lim) != 0 || lim.rlim_cur == RLIM_INFINITY) return;
  const rlim_t room =
      lim.rlim_cur > 2 * kSpareDescriptors ? lim.rlim_cur - kSpareDescriptors : lim.rlim_cur / 2;
  ConnectionLimitSettings s = limits_.settings();
  if (s.max_connections != 0 && s.max_connections <= room) return;
  FrontLogError(
      "Max Connections " +
      (s.max_connections == 0 ? std::string("(no limit)") : std::to_string(s.max_connections)) +
      " is more than the open-file limit " + std::to_string(lim.rlim_cur) + " allows; at most " +
      std::to_string(room) + " connections are held");
  s.max_connections = room;
  limits_ = ConnectionLimits(s);
}

bool FrontendServer::Impl::Admit(tcp::socket& socket, std::string& address) {
  error_code ec;
  const tcp::endpoint remote = socket.remote_endpoint(ec);
  if (ec) return true;  // gone already; AddConnection drops it
  address = PlainAddress(remote.address()).to_string();
  const Refusal refusal =
      limits_.Admit(address, numbers_.in_use(), std::chrono::steady_clock::now());
  if (refusal == Refusal::kNone) return true;
  Refuse(socket, PeerText(remote), refusal);
  return false;
}

void FrontendServer::Impl::Refuse(tcp::socket& socket, const std::string& peer, Refusal refusal) {
  uint64_t& count = refusal == Refusal::kTotal        ? counters.refused_max_connections
                    : refusal == Refusal::kPerAddress ? counters.refused_per_address
                                                      : counters.refused_rate;
  ++count;
  if (ShouldLog(count)) {
    FrontLog("Refused " + peer + ": " + std::string(ConnectionLimits::Name(refusal)) + " limit (" +
             std::to_string(count) + " refused so far)");
  }
  // One try at the reason, no waiting: the socket is new, so the line fits its buffer.
  // Whatever the peer already sent is read away first, so that the close is an orderly one
  // and the line is not lost to a reset.
  error_code ec;
  socket.non_blocking(true, ec);
  const std::string line = limits_.RefusalLine(refusal);
  socket.write_some(asio::buffer(line), ec);
  socket.shutdown(tcp::socket::shutdown_send, ec);
  std::array<char, 512> sink;
  for (int i = 0; i < 8 && !ec; ++i) socket.read_some(asio::buffer(sink), ec);
  socket.close(ec);
}

// ---------------------------------------------------------------------------------------
// The public face

FrontendServer::FrontendServer(asio::io_context& io, FrontendOptions options)
    : impl_(std::make_unique<Impl>(io, std::move(options))) {}

FrontendServer::~FrontendServer() { impl_->Stop(); }

bool FrontendServer::Start() { return impl_->Start(); }
void FrontendServer::Stop() { impl_->Stop(); }
FrontendCounters FrontendServer::counters() const { return impl_->Counters(); }

}  // namespace qx
