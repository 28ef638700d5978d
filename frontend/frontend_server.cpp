#include "frontend/frontend_server.h"

#include <sys/resource.h>

#include <algorithm>
#include <array>
#include <boost/asio/connect.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/write.hpp>
#include <functional>
#include <string_view>
#include <utility>
#include <vector>

#include "core/link_secret.h"
#include "core/sha256.h"
#include "frontend/connection_limits.h"
#include "frontend/front_log.h"
#include "frontend/input_filter.h"
#include "frontend/link_records.h"
#include "frontend/node_messages.h"
#include "frontend/output_queue.h"

namespace qx {

namespace asio = boost::asio;
using asio::ip::tcp;
using boost::system::error_code;
using SteadyTime = std::chrono::steady_clock::time_point;

namespace {

// Link output above this pauses reading from connections until the node catches up.
constexpr size_t kLinkHighWater = 16 * 1024 * 1024;
constexpr size_t kLinkLowWater = 4 * 1024 * 1024;
// Bytes of node messages handled before the gathered output is written out.
constexpr size_t kLinkReadBatch = 4 * 1024 * 1024;
constexpr size_t kLinkReadChunk = 256 * 1024;
// A connection on the link port that has not proved itself has nothing long to say.
constexpr size_t kCandidateMaxMessage = 1024;
constexpr size_t kCandidateReadChunk = 4096;
// A buffer grown beyond this by a burst is given back once it is empty.
constexpr size_t kKeepCapacity = 256 * 1024;
constexpr auto kLingerAfterClose = std::chrono::seconds(5);
constexpr auto kAcceptRetry = std::chrono::milliseconds(200);
// Descriptors kept free of connections: listeners, the link, logs, and the one a connection
// that is being refused needs for a moment.
constexpr rlim_t kSpareDescriptors = 32;

// "192.0.2.7:4000", "[2001:db8::7]:4000": the node takes the address part for its lists.
std::string PeerText(const tcp::endpoint& ep) {
  const std::string address = ep.address().to_string();
  return (ep.address().is_v6() ? "[" + address + "]" : address) + ":" + std::to_string(ep.port());
}

// A few occurrences of a repeated fault are logged, then only every 10,000th.
bool ShouldLog(uint64_t count) { return count <= 20 || count % 10000 == 0; }

void GiveBackIfLarge(std::string& buffer) {
  if (buffer.capacity() > kKeepCapacity && buffer.empty()) std::string().swap(buffer);
}

// "180 seconds", or "300 ms" for the short times of tests.
std::string DurationText(std::chrono::milliseconds d) {
  if (d.count() % 1000 != 0) return std::to_string(d.count()) + " ms";
  return std::to_string(d.count() / 1000) + " seconds";
}

}  // namespace

struct Connection {
  Connection(asio::io_context& io, tcp::socket s, size_t output_limit)
      : socket(std::move(s)),
        partial_timer(io),
        close_timer(io),
        stall_timer(io),
        login_timer(io),
        out(output_limit) {}

  tcp::socket socket;
  asio::steady_timer partial_timer;
  asio::steady_timer close_timer;
  asio::steady_timer stall_timer;  // runs while the reader is behind
  asio::steady_timer login_timer;  // runs while the log-in time is counted
  int stream = 0;
  uint64_t tag = 0;
  int port_index = 0;
  std::string kind;
  std::string peer;
  std::string call;
  int state = 0;
  std::string attributes;  // the node's text for the stream, reported back in AA38
  InputAssembler assembler;
  HeldInput held;
  OutputQueue out;
  std::string close_reason;
  // The address an inbound connection is counted under by the limits; empty for outgoing.
  std::string limited_address;
  uint64_t announced_session = 0;  // link session that has been told about this stream
  SteadyTime last_input{};
  SteadyTime last_progress{};  // the last write that took bytes, or the start of falling behind
  // Log-in time: counted only while a node link is ready, since only a node can name the
  // caller.  waited is what was counted before login_since.
  std::chrono::steady_clock::duration login_waited{};
  SteadyTime login_since{};
  bool login_counting = false;
  bool identified = false;     // the node named the caller (or the connection is outgoing)
  bool behind_logged = false;  // the start of this reader's falling behind was logged
  bool write_active = false;
  bool dirty = false;  // has output and is listed for the next flush
  bool closing = false;
  bool lingering = false;
  bool closed = false;
  bool read_paused = false;
  bool partial_timer_armed = false;
  std::array<char, 4096> read_buf;
};
using ConnectionPtr = std::shared_ptr<Connection>;

// A connection on the link port.  It starts as a candidate (proven false), kept apart from
// the live link, and becomes the link only when it has proved that it knows the secret.
struct NodeLink {
  explicit NodeLink(tcp::socket s) : socket(std::move(s)), proof_timer(socket.get_executor()) {}
  tcp::socket socket;
  asio::steady_timer proof_timer;
  NodeMessageParser parser;
  std::string peer;
  std::string queued;
  std::string writing;
  std::string challenge;  // the nonce sent in AA39; empty until the greeting
  uint64_t session = 0;
  bool write_active = false;
  bool proven = false;
  bool ready = false;  // the node has asked for the open streams
  bool closed = false;
};
using NodeLinkPtr = std::shared_ptr<NodeLink>;

struct Outgoing {
  explicit Outgoing(asio::io_context& io) : socket(io), resolver(io), timer(io) {}
  tcp::socket socket;
  tcp::resolver resolver;
  asio::steady_timer timer;
  std::string label;
  std::string host;
  int port = 0;
  bool done = false;
};
using OutgoingPtr = std::shared_ptr<Outgoing>;

class FrontendServer::Impl {
 public:
  Impl(asio::io_context& io, FrontendOptions options)
      : io_(io),
        options_(std::move(options)),
        link_acceptor_(io),
        keep_alive_timer_(io),
        counters_timer_(io),
        limits_(LimitSettings(options_)) {}

  bool Start();
  void Stop();
  FrontendCounters counters;

 private:
  // Listening.
  void AcceptLink();
  void AcceptUsers(size_t index);
  void RetryAcceptLater(std::function<void()> again);
  static ConnectionLimitSettings LimitSettings(const FrontendOptions& options);
  void FitLimitToDescriptors();
  // Applies the limits to a new inbound connection; false when it was refused (and closed).
  bool Admit(tcp::socket& socket, std::string& address);
  void Refuse(tcp::socket& socket, const std::string& peer, Refusal refusal);

  // Connections.
  void AddConnection(tcp::socket socket, int port_index, std::string kind,
                     std::string limited_address = {});
  void StartRead(const ConnectionPtr& c);
  void OnRead(const ConnectionPtr& c, error_code ec, size_t n);
  void ForwardInput(const ConnectionPtr& c, std::string_view data);
  void ArmPartialTimer(const ConnectionPtr& c, SteadyTime deadline);
  void QueueOutput(const ConnectionPtr& c, std::string_view text);
  void StartWrite(const ConnectionPtr& c);
  void WatchStall(const ConnectionPtr& c, SteadyTime deadline);
  void StartLoginClock(const ConnectionPtr& c);
  void PauseLoginClock(const ConnectionPtr& c);
  void RequestClose(const ConnectionPtr& c, std::string reason);
  void Linger(const ConnectionPtr& c);
  void CloseConnection(const ConnectionPtr& c, std::string_view reason);
  ConnectionPtr Find(int stream, uint64_t tag) const;

  // Outgoing connections.
  void OpenOutgoing(std::string_view host, int port, std::string_view label);
  void OutgoingFailed(const OutgoingPtr& o, std::string_view reason);

  // The node link.
  void OnLinkAccepted(tcp::socket socket);
  void ReadLink(const NodeLinkPtr& link);
  void OnLinkRead(const NodeLinkPtr& link, error_code ec, size_t n);
  bool HandleNodeMessages(const NodeLinkPtr& link);
  void HandleNodeMessage(const NodeLinkPtr& link, const NodeMessage& m);
  void HandleCandidateMessage(const NodeLinkPtr& link, const NodeMessage& m);
  void PromoteCandidate(const NodeLinkPtr& link, std::string_view node_nonce);
  void RefuseCandidate(const NodeLinkPtr& link, std::string_view reason);
  void LogRefusal(std::string_view peer, std::string_view reason);
  void ReportStreams(const NodeLinkPtr& link);
  void CloseLink(const NodeLinkPtr& link, std::string_view reason);
  void StartLinkWrite(const NodeLinkPtr& link);
  bool LinkReady() const { return link_ && link_->ready; }
  std::string* LinkOut() { return link_ ? &link_->queued : nullptr; }
  size_t LinkBacklog() const;
  void ResumePausedReads();
  void KeepAlive();
  void SendCounters();
  void CountersTimer();

  // Output is gathered while handlers run and written once they are done.
  void ScheduleFlush();
  void Flush();

  asio::io_context& io_;
  FrontendOptions options_;
  tcp::acceptor link_acceptor_;
  std::vector<std::unique_ptr<tcp::acceptor>> user_acceptors_;
  asio::steady_timer keep_alive_timer_;
  asio::steady_timer counters_timer_;
  std::vector<std::shared_ptr<asio::steady_timer>> retry_timers_;
  ConnectionLimits limits_;
  NodeLinkPtr link_;
  std::vector<NodeLinkPtr> candidates_;  // link port connections still to prove themselves
  uint64_t link_sessions_ = 0;
  StreamNumbers numbers_;
  std::vector<ConnectionPtr> by_stream_{nullptr};
  // Tags start from the start time (milliseconds, times 1024), so a front-end that was killed
  // and started again never hands out a tag that the node still holds for an old connection
  // on the same stream number: the node tells a new connection from a survivor by its tag.
  uint64_t next_tag_ = uint64_t(std::chrono::duration_cast<std::chrono::milliseconds>(
                                    std::chrono::system_clock::now().time_since_epoch())
                                    .count())
                       << 10;
  std::vector<ConnectionPtr> dirty_;
  std::vector<ConnectionPtr> paused_;
  bool flush_scheduled_ = false;
  bool stopped_ = false;
  std::string lines_;  // scratch for one read's lines
  std::string reply_;  // scratch for one read's telnet answers
};

// ---------------------------------------------------------------------------------------
// Listening

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
    const tcp::endpoint ep(tcp::v4(), static_cast<unsigned short>(s.user_ports[i]));
    auto acceptor = std::make_unique<tcp::acceptor>(io_);
    acceptor->open(ep.protocol(), ec);
    if (!ec) acceptor->set_option(tcp::acceptor::reuse_address(true), ec);
    if (!ec) acceptor->bind(ep, ec);
    if (!ec) acceptor->listen(asio::socket_base::max_listen_connections, ec);
    if (ec) {
      FrontLogError("Cannot listen on port " + std::to_string(s.user_ports[i]) + ": " +
                    ec.message());
      return false;
    }
    FrontLog("Listening on port " + std::to_string(s.user_ports[i]) + " (port index " +
             std::to_string(i) + ")");
    user_acceptors_.push_back(std::move(acceptor));
  }

  FitLimitToDescriptors();
  AcceptLink();
  for (size_t i = 0; i < user_acceptors_.size(); ++i) AcceptUsers(i);
  KeepAlive();
  CountersTimer();
  return true;
}

void FrontendServer::Impl::Stop() {
  if (stopped_) return;
  stopped_ = true;
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
  for (auto& c : by_stream_) {
    if (!c) continue;
    c->closed = true;
    c->partial_timer.cancel();
    c->close_timer.cancel();
    c->stall_timer.cancel();
    c->login_timer.cancel();
    c->socket.close(ec);
  }
  by_stream_.assign(1, nullptr);
  dirty_.clear();
  paused_.clear();
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
  address = remote.address().to_string();
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
// Connections

void FrontendServer::Impl::AddConnection(tcp::socket socket, int port_index, std::string kind,
                                         std::string limited_address) {
  error_code ec;
  const tcp::endpoint remote = socket.remote_endpoint(ec);
  if (stopped_ || ec) {
    // Gone before it could be looked at.
    socket.close(ec);
    if (!limited_address.empty()) limits_.Closed(limited_address);
    return;
  }
  socket.set_option(tcp::no_delay(true), ec);
  socket.non_blocking(true, ec);

  auto c = std::make_shared<Connection>(io_, std::move(socket), options_.output_limit);
  c->limited_address = std::move(limited_address);
  c->identified = port_index == kOutgoingPortIndex;  // the node itself asked for it
  c->stream = numbers_.Allocate();
  c->tag = ++next_tag_;
  c->port_index = port_index;
  c->kind = std::move(kind);
  c->peer = PeerText(remote);
  c->held = HeldInput(options_.hold_limit);
  if (by_stream_.size() <= static_cast<size_t>(c->stream)) by_stream_.resize(c->stream + 1);
  by_stream_[c->stream] = c;
  ++counters.accepted;

  FrontLog("Stream " + std::to_string(c->stream) + " open: " + c->peer + " " + c->kind +
           " port index " + std::to_string(port_index) + " tag " + std::to_string(c->tag));
  if (LinkReady()) {
    AppendConnectRequest(link_->queued, c->stream, c->peer, c->tag, c->kind, c->port_index);
    c->announced_session = link_->session;
    ScheduleFlush();
    StartLoginClock(c);
  }
  StartRead(c);
}

void FrontendServer::Impl::StartRead(const ConnectionPtr& c) {
  if (c->closed) return;
  if (!c->closing && LinkReady() && LinkBacklog() > kLinkHighWater) {
    if (!c->read_paused) {
      c->read_paused = true;
      paused_.push_back(c);
    }
    return;
  }
  c->read_paused = false;
  c->socket.async_read_some(asio::buffer(c->read_buf),
                            [this, c](error_code ec, size_t n) { OnRead(c, ec, n); });
}

void FrontendServer::Impl::OnRead(const ConnectionPtr& c, error_code ec, size_t n) {
  if (c->closed) return;
  if (ec) {
    if (c->closing) {
      CloseConnection(c, c->close_reason);
    } else {
      CloseConnection(c, ec == asio::error::eof ? "closed by peer" : ec.message());
    }
    return;
  }
  if (c->closing) {  // the node has let it go: what it still sends goes nowhere
    StartRead(c);
    return;
  }
  lines_.clear();
  reply_.clear();
  c->assembler.Feed(std::string_view(c->read_buf.data(), n), lines_, reply_);
  if (!reply_.empty()) QueueOutput(c, reply_);
  if (c->closed) return;
  if (!lines_.empty()) ForwardInput(c, lines_);
  if (c->assembler.has_partial()) {
    c->last_input = std::chrono::steady_clock::now();
    if (!c->partial_timer_armed) ArmPartialTimer(c, c->last_input + options_.partial_line_wait);
  }
  StartRead(c);
}

void FrontendServer::Impl::ForwardInput(const ConnectionPtr& c, std::string_view data) {
  if (LinkReady() && c->announced_session == link_->session) {
    AppendStreamData(link_->queued, c->stream, data);
    ScheduleFlush();
  } else {
    c->held.Append(data);
  }
}

void FrontendServer::Impl::ArmPartialTimer(const ConnectionPtr& c, SteadyTime deadline) {
  c->partial_timer_armed = true;
  c->partial_timer.expires_at(deadline);
  c->partial_timer.async_wait([this, c](error_code ec) {
    c->partial_timer_armed = false;
    if (ec || c->closed || c->closing || !c->assembler.has_partial()) return;
    // Only a quiet spell flushes: more bytes since the timer was set move the deadline.
    const SteadyTime due = c->last_input + options_.partial_line_wait;
    if (std::chrono::steady_clock::now() < due) {
      ArmPartialTimer(c, due);
      return;
    }
    lines_.clear();
    c->assembler.FlushPartial(lines_);
    ForwardInput(c, lines_);
  });
}

void FrontendServer::Impl::QueueOutput(const ConnectionPtr& c, std::string_view text) {
  if (c->closed || text.empty()) return;
  switch (c->out.Add(text)) {
    case OutputQueue::Added::kQueued:
      break;
    case OutputQueue::Added::kBehind: {
      counters.dropped_lines += OutputQueue::LinesIn(text);
      // A reader on the edge may fall behind and catch up again and again: the counters
      // keep the tally, the log only the first few.
      c->behind_logged = ShouldLog(++counters.slow_reader_episodes);
      if (c->behind_logged) {
        FrontLog("Stream " + std::to_string(c->stream) + " cannot keep up; its output is dropped " +
                 "until it catches up (" + c->peer + ")");
      }
      c->last_progress = std::chrono::steady_clock::now();
      WatchStall(c, c->last_progress + options_.stall_timeout);
      break;
    }
    case OutputQueue::Added::kDropped:
      counters.dropped_lines += OutputQueue::LinesIn(text);
      return;
  }
  if (!c->dirty && !c->write_active) {
    c->dirty = true;
    dirty_.push_back(c);
    ScheduleFlush();
  }
}

void FrontendServer::Impl::StartWrite(const ConnectionPtr& c) {
  if (c->closed || c->write_active) return;
  const std::string_view bytes = c->out.NextWrite();
  if (bytes.empty()) return;
  c->write_active = true;
  // Single writes rather than one composed write, so that every bit of progress is seen: a
  // reader that is behind but still reading is never taken for a stalled one.
  c->socket.async_write_some(asio::buffer(bytes.data(), bytes.size()),
                             [this, c](error_code ec, size_t n) {
                               c->write_active = false;
                               if (c->closed) return;
                               if (ec) {
                                 CloseConnection(c, "write failed: " + ec.message());
                                 return;
                               }
                               if (n > 0) c->last_progress = std::chrono::steady_clock::now();
                               const uint64_t lost = c->out.Wrote(n);
                               if (lost > 0 && c->behind_logged) {
                                 FrontLog("Stream " + std::to_string(c->stream) + " caught up; " +
                                          std::to_string(lost) + " lines were dropped");
                               }
                               if (!c->out.empty()) {
                                 StartWrite(c);
                               } else if (c->closing && !c->lingering) {
                                 Linger(c);
                               }
                             });
}

void FrontendServer::Impl::WatchStall(const ConnectionPtr& c, SteadyTime deadline) {
  c->stall_timer.expires_at(deadline);
  c->stall_timer.async_wait([this, c](error_code ec) {
    if (ec || c->closed || !c->out.behind()) return;
    const SteadyTime due = c->last_progress + options_.stall_timeout;
    if (std::chrono::steady_clock::now() < due) {
      WatchStall(c, due);
      return;
    }
    ++counters.overflow_closes;
    CloseConnection(c, "output overflow");
  });
}

void FrontendServer::Impl::StartLoginClock(const ConnectionPtr& c) {
  if (c->identified || c->login_counting || c->closing || c->closed ||
      options_.login_timeout.count() <= 0) {
    return;
  }
  c->login_counting = true;
  c->login_since = std::chrono::steady_clock::now();
  c->login_timer.expires_at(c->login_since + options_.login_timeout - c->login_waited);
  c->login_timer.async_wait([this, c](error_code ec) {
    if (ec || !c->login_counting || c->closed || c->closing) return;
    c->login_counting = false;
    if (ShouldLog(++counters.login_timeouts)) {
      FrontLog("Stream " + std::to_string(c->stream) + ": no log-in within " +
               DurationText(options_.login_timeout) + " (" + c->peer + ")");
    }
    QueueOutput(
        c, "No log-in within " + DurationText(options_.login_timeout) + "; disconnecting.\r\n");
    RequestClose(c, "log-in timed out");
  });
}

void FrontendServer::Impl::PauseLoginClock(const ConnectionPtr& c) {
  if (!c->login_counting) return;
  c->login_counting = false;
  c->login_waited += std::chrono::steady_clock::now() - c->login_since;
  c->login_timer.cancel();
}

void FrontendServer::Impl::RequestClose(const ConnectionPtr& c, std::string reason) {
  if (c->closed || c->closing) return;
  c->closing = true;
  c->close_reason = std::move(reason);
  c->partial_timer.cancel();
  PauseLoginClock(c);
  if (!c->write_active && c->out.empty()) {
    Linger(c);
    return;
  }
  // The queued output is written first; a peer that never reads is closed all the same.
  c->close_timer.expires_after(options_.close_flush_timeout);
  c->close_timer.async_wait([this, c](error_code ec) {
    if (!ec && !c->closed) CloseConnection(c, c->close_reason);
  });
}

void FrontendServer::Impl::Linger(const ConnectionPtr& c) {
  // Half-close so the peer reads everything before it sees the end; the read loop notices
  // the peer's own close, or the timer ends the wait.
  c->lingering = true;
  error_code ec;
  c->socket.shutdown(tcp::socket::shutdown_send, ec);
  if (ec) {
    CloseConnection(c, c->close_reason);
    return;
  }
  c->close_timer.expires_after(kLingerAfterClose);
  c->close_timer.async_wait([this, c](error_code ec) {
    if (!ec && !c->closed) CloseConnection(c, c->close_reason);
  });
}

void FrontendServer::Impl::CloseConnection(const ConnectionPtr& c, std::string_view reason) {
  if (c->closed) return;
  c->closed = true;
  c->partial_timer.cancel();
  c->close_timer.cancel();
  c->stall_timer.cancel();
  c->login_timer.cancel();
  c->login_counting = false;
  error_code ec;
  c->socket.close(ec);
  c->out.Clear();
  c->held.Clear();
  if (!c->limited_address.empty()) limits_.Closed(c->limited_address);
  ++counters.closed;
  if (by_stream_[c->stream] == c) by_stream_[c->stream].reset();
  numbers_.Release(c->stream);
  FrontLog("Stream " + std::to_string(c->stream) + " closed: " + std::string(reason) + " (" +
           c->peer + " tag " + std::to_string(c->tag) + ")");
  if (link_ && c->announced_session == link_->session) {
    AppendStreamClosed(link_->queued, c->tag, c->stream, reason);
    ScheduleFlush();
  }
}

ConnectionPtr FrontendServer::Impl::Find(int stream, uint64_t tag) const {
  if (stream < 1 || static_cast<size_t>(stream) >= by_stream_.size()) return nullptr;
  const ConnectionPtr& c = by_stream_[stream];
  if (!c || c->closed || (tag != 0 && tag != c->tag)) return nullptr;
  return c;
}

// ---------------------------------------------------------------------------------------
// Outgoing connections

void FrontendServer::Impl::OpenOutgoing(std::string_view host, int port, std::string_view label) {
  auto o = std::make_shared<Outgoing>(io_);
  o->label = std::string(label);
  o->host = std::string(host);
  o->port = port;
  FrontLog("Connecting to " + o->host + ":" + std::to_string(port) + " for " + o->label);

  auto on_connect = [this, o](error_code ec) {
    if (o->done) return;
    o->done = true;
    o->timer.cancel();
    if (ec) {
      OutgoingFailed(o, ec == asio::error::operation_aborted ? "timed out" : ec.message());
      return;
    }
    AddConnection(std::move(o->socket), kOutgoingPortIndex, "out:" + o->label);
  };

  o->timer.expires_after(options_.connect_timeout);
  o->timer.async_wait([o](error_code ec) {
    if (ec || o->done) return;
    error_code ignored;
    o->resolver.cancel();
    o->socket.close(ignored);
  });

  error_code ec;
  const auto address = asio::ip::make_address(o->host, ec);
  if (!ec) {
    o->socket.async_connect(tcp::endpoint(address, static_cast<unsigned short>(port)), on_connect);
    return;
  }
  o->resolver.async_resolve(
      o->host, std::to_string(port),
      [this, o, on_connect](error_code ec, tcp::resolver::results_type results) {
        if (o->done) return;
        if (ec) {
          o->done = true;
          o->timer.cancel();
          OutgoingFailed(o, ec == asio::error::operation_aborted ? "timed out" : ec.message());
          return;
        }
        asio::async_connect(o->socket, results,
                            [on_connect](error_code ec, const tcp::endpoint&) { on_connect(ec); });
      });
}

void FrontendServer::Impl::OutgoingFailed(const OutgoingPtr& o, std::string_view reason) {
  FrontLog("Connection to " + o->host + ":" + std::to_string(o->port) + " for " + o->label +
           " failed: " + std::string(reason));
  if (link_) {
    AppendOpenFailed(link_->queued, o->label, reason);
    ScheduleFlush();
  }
}

// ---------------------------------------------------------------------------------------
// The node link

void FrontendServer::Impl::OnLinkAccepted(tcp::socket socket) {
  error_code ec;
  const tcp::endpoint remote = socket.remote_endpoint(ec);
  if (ec) {
    socket.close(ec);
    return;
  }
  const std::string peer = PeerText(remote);
  // Any local process can connect here; until it proves that it knows the link secret it
  // is only a candidate and never touches the live link or the users behind it.
  if (options_.link_secret.empty() || candidates_.size() >= options_.max_link_candidates) {
    socket.close(ec);
    ++counters.links_refused;
    LogRefusal(peer, options_.link_secret.empty() ? "this front-end has no usable link secret"
                                                  : "too many connections waiting to prove "
                                                    "themselves");
    return;
  }
  socket.set_option(tcp::no_delay(true), ec);
  socket.non_blocking(true, ec);
  auto link = std::make_shared<NodeLink>(std::move(socket));
  link->peer = peer;
  link->parser.set_max_message(kCandidateMaxMessage);
  candidates_.push_back(link);
  link->proof_timer.expires_after(options_.link_proof_timeout);
  link->proof_timer.async_wait([this, weak = std::weak_ptr<NodeLink>(link)](error_code ec) {
    const NodeLinkPtr l = weak.lock();
    if (ec || !l || l->closed || l->proven) return;
    RefuseCandidate(l, "no proof in time");
  });
  ReadLink(link);
}

void FrontendServer::Impl::ReadLink(const NodeLinkPtr& link) {
  const std::span<char> room =
      link->parser.PrepareWrite(link->proven ? kLinkReadChunk : kCandidateReadChunk);
  link->socket.async_read_some(asio::buffer(room.data(), room.size()),
                               [this, link](error_code ec, size_t n) { OnLinkRead(link, ec, n); });
}

void FrontendServer::Impl::OnLinkRead(const NodeLinkPtr& link, error_code ec, size_t n) {
  if (link->closed) return;
  if (ec) {
    CloseLink(link, ec == asio::error::eof ? "closed by the node" : ec.message());
    return;
  }
  link->parser.Commit(n);
  if (!link->proven) {
    // A candidate says little; its messages are handled one read at a time.
    if (HandleNodeMessages(link)) ReadLink(link);
    return;
  }
  // Handle what is there, then take whatever else has already arrived, up to a batch, so
  // that output for each connection is gathered into as few writes as possible.
  size_t taken = n;
  while (true) {
    if (!HandleNodeMessages(link)) return;
    if (taken >= kLinkReadBatch) break;
    const std::span<char> room = link->parser.PrepareWrite(kLinkReadChunk);
    const size_t got = link->socket.read_some(asio::buffer(room.data(), room.size()), ec);
    if (ec == asio::error::would_block || ec == asio::error::try_again) break;
    if (ec) {
      CloseLink(link, ec == asio::error::eof ? "closed by the node" : ec.message());
      return;
    }
    link->parser.Commit(got);
    taken += got;
  }
  ReadLink(link);
}

bool FrontendServer::Impl::HandleNodeMessages(const NodeLinkPtr& link) {
  NodeMessage m;
  while (link->parser.Next(m)) {
    if (link->proven) {
      ++counters.messages_from_node;
      HandleNodeMessage(link, m);
    } else {
      HandleCandidateMessage(link, m);
    }
    if (link->closed || stopped_) return false;
  }
  return true;
}

void FrontendServer::Impl::HandleNodeMessage(const NodeLinkPtr& link, const NodeMessage& m) {
  switch (m.kind) {
    case NodeMessageKind::kSend: {
      ConnectionPtr c = Find(m.stream, m.tag);
      if (!c || c->closing) {
        if (ShouldLog(++counters.stale_messages_dropped)) {
          FrontLog("Text for stream " + std::to_string(m.stream) + " tag " + std::to_string(m.tag) +
                   " dropped: no such connection (" +
                   std::to_string(counters.stale_messages_dropped) + " so far)");
        }
        return;
      }
      QueueOutput(c, m.text);
      return;
    }
    case NodeMessageKind::kClose: {
      ConnectionPtr c = Find(m.stream, m.tag);
      if (c) {
        FrontLog("Stream " + std::to_string(m.stream) + ": the node asks to disconnect");
        RequestClose(c, "disconnected by the node");
      }
      return;
    }
    case NodeMessageKind::kOpen:
      OpenOutgoing(m.host, m.port, m.label);
      return;
    case NodeMessageKind::kIdentity: {
      ConnectionPtr c = Find(m.stream, m.tag);
      if (c) {
        c->call = std::string(m.text);
        c->state = m.state;
        if (!c->call.empty() && !c->identified) {
          c->identified = true;
          PauseLoginClock(c);
        }
      }
      return;
    }
    case NodeMessageKind::kAttributes: {
      ConnectionPtr c = Find(m.stream, m.tag);
      if (c) c->attributes = CleanStreamAttributes(m.text);
      return;
    }
    case NodeMessageKind::kGreeting:
    case NodeMessageKind::kProof:
      // The link has proved itself already; a second handshake on it means nothing.
      FrontLog("Handshake message on the established node link ignored");
      return;
    case NodeMessageKind::kKeepAliveAnswer:
      return;
    case NodeMessageKind::kStreamListRequest:
      ReportStreams(link);
      return;
    case NodeMessageKind::kMalformed:
      if (ShouldLog(++counters.malformed_messages)) {
        FrontLogError("Message from the node dropped (" + std::string(m.error) +
                      "): " + std::string(m.text));
      }
      return;
  }
}

void FrontendServer::Impl::ReportStreams(const NodeLinkPtr& link) {
  std::vector<int> streams;
  for (const auto& c : by_stream_) {
    if (c && !c->closed) streams.push_back(c->stream);
  }
  AppendStreamList(link->queued, streams);
  for (int s : streams) {
    Connection& c = *by_stream_[s];
    AppendStreamReport(link->queued, StreamReport{c.tag, c.stream, c.peer, c.port_index, c.call,
                                                  c.state, c.kind, c.attributes});
    c.announced_session = link->session;
  }
  const bool first = !link->ready;
  link->ready = true;
  size_t held_streams = 0;
  for (int s : streams) {
    Connection& c = *by_stream_[s];
    if (c.held.empty()) continue;
    AppendStreamData(link->queued, c.stream, c.held.text());
    if (c.held.dropped_bytes() > 0) {
      FrontLog("Stream " + std::to_string(c.stream) + ": " +
               std::to_string(c.held.dropped_bytes()) +
               " bytes of input dropped while no node was connected");
    }
    c.held.Clear();
    ++held_streams;
  }
  for (int s : streams) StartLoginClock(by_stream_[s]);
  SendCounters();
  FrontLog(std::string(first ? "Node ready: " : "Node asked again: ") +
           std::to_string(streams.size()) + " open streams reported, held input sent for " +
           std::to_string(held_streams));
  ScheduleFlush();
}

void FrontendServer::Impl::HandleCandidateMessage(const NodeLinkPtr& link, const NodeMessage& m) {
  if (m.kind == NodeMessageKind::kGreeting && link->challenge.empty()) {
    link->challenge = MakeLinkNonce();
    if (link->challenge.empty()) {
      RefuseCandidate(link, "no random bytes for a challenge");
      return;
    }
    AppendChallenge(link->queued, link->challenge);
    StartLinkWrite(link);
    return;
  }
  if (m.kind == NodeMessageKind::kProof && !link->challenge.empty()) {
    if (!ValidLinkNonce(m.text)) {
      RefuseCandidate(link, "bad nonce in its proof");
      return;
    }
    const std::string expected = NodeLinkProof(options_.link_secret, link->challenge, m.text);
    if (!ConstantTimeEquals(expected, m.label)) {
      RefuseCandidate(link, "wrong proof");
      return;
    }
    PromoteCandidate(link, m.text);
    return;
  }
  RefuseCandidate(link,
                  m.kind == NodeMessageKind::kMalformed
                      ? "unreadable message before proving itself (" + std::string(m.error) + ")"
                      : std::string("unexpected message before proving itself"));
}

void FrontendServer::Impl::PromoteCandidate(const NodeLinkPtr& link, std::string_view node_nonce) {
  const std::string proof = FrontLinkProof(options_.link_secret, node_nonce, link->challenge);
  std::erase(candidates_, link);
  link->proof_timer.cancel();
  link->proven = true;
  link->parser.set_max_message(NodeMessageParser::kDefaultMaxMessage);
  // A node that restarts may leave its old link half-open; the newest proven link wins.
  if (link_) CloseLink(link_, "replaced by a new node link from " + link->peer);
  link_ = link;
  link_->session = ++link_sessions_;
  FrontLog("Node link open from " + link->peer + "; announcing this front-end");
  AppendAnnounce(link->queued, options_.settings.station_text, options_.version, proof);
  ScheduleFlush();
}

void FrontendServer::Impl::RefuseCandidate(const NodeLinkPtr& link, std::string_view reason) {
  if (link->closed) return;
  link->closed = true;
  link->proof_timer.cancel();
  error_code ec;
  link->socket.close(ec);
  std::erase(candidates_, link);
  ++counters.links_refused;
  LogRefusal(link->peer, reason);
}

void FrontendServer::Impl::LogRefusal(std::string_view peer, std::string_view reason) {
  if (!ShouldLog(counters.links_refused)) return;
  FrontLogError("Link refused from " + std::string(peer) + ": " + std::string(reason) + " (" +
                std::to_string(counters.links_refused) + " so far)");
}

void FrontendServer::Impl::CloseLink(const NodeLinkPtr& link, std::string_view reason) {
  if (!link->proven) {
    RefuseCandidate(link, reason == "closed by the node" ? "closed before proving itself" : reason);
    return;
  }
  if (link->closed) return;
  link->closed = true;
  error_code ec;
  link->socket.close(ec);
  FrontLog("Node link closed: " + std::string(reason) + "; connections stay open");
  if (link_ == link) {
    link_.reset();
    ResumePausedReads();
    // Only a node can name a caller, so without one the log-in time stands still.
    for (const auto& c : by_stream_) {
      if (c) PauseLoginClock(c);
    }
  }
}

size_t FrontendServer::Impl::LinkBacklog() const {
  if (!link_) return 0;
  return link_->queued.size() + (link_->write_active ? link_->writing.size() : 0);
}

void FrontendServer::Impl::StartLinkWrite(const NodeLinkPtr& link) {
  if (link->closed || link->write_active || link->queued.empty()) return;
  link->writing.swap(link->queued);
  link->write_active = true;
  asio::async_write(link->socket, asio::buffer(link->writing), [this, link](error_code ec, size_t) {
    link->write_active = false;
    if (link->closed) return;
    if (ec) {
      CloseLink(link, "write failed: " + ec.message());
      return;
    }
    link->writing.clear();
    GiveBackIfLarge(link->writing);
    StartLinkWrite(link);
    if (!paused_.empty() && LinkBacklog() < kLinkLowWater) ResumePausedReads();
  });
}

void FrontendServer::Impl::ResumePausedReads() {
  std::vector<ConnectionPtr> paused;
  paused.swap(paused_);
  for (const auto& c : paused) {
    if (c->read_paused) StartRead(c);
  }
}

void FrontendServer::Impl::KeepAlive() {
  keep_alive_timer_.expires_after(options_.keep_alive_every);
  keep_alive_timer_.async_wait([this](error_code ec) {
    if (ec || stopped_) return;
    if (link_) {
      AppendKeepAlive(link_->queued);
      ScheduleFlush();
    }
    KeepAlive();
  });
}

void FrontendServer::Impl::SendCounters() {
  if (!LinkReady()) return;
  const FrontendCounters& n = counters;
  const std::pair<std::string_view, uint64_t> values[] = {
      {"open_connections", numbers_.in_use()},
      {"connections_accepted_total", n.accepted},
      {"connections_closed_total", n.closed},
      {"refused_max_connections_total", n.refused_max_connections},
      {"refused_per_address_total", n.refused_per_address},
      {"refused_rate_total", n.refused_rate},
      {"login_timeouts_total", n.login_timeouts},
      {"slow_reader_episodes_total", n.slow_reader_episodes},
      {"dropped_lines_total", n.dropped_lines},
      {"output_overflow_closes_total", n.overflow_closes},
      {"messages_from_node_total", n.messages_from_node},
      {"stale_messages_dropped_total", n.stale_messages_dropped},
      {"malformed_messages_total", n.malformed_messages},
  };
  AppendCounters(link_->queued, values);
  ScheduleFlush();
}

void FrontendServer::Impl::CountersTimer() {
  counters_timer_.expires_after(options_.counters_every);
  counters_timer_.async_wait([this](error_code ec) {
    if (ec || stopped_) return;
    SendCounters();
    CountersTimer();
  });
}

void FrontendServer::Impl::ScheduleFlush() {
  if (flush_scheduled_) return;
  flush_scheduled_ = true;
  asio::post(io_, [this] {
    flush_scheduled_ = false;
    Flush();
  });
}

void FrontendServer::Impl::Flush() {
  if (stopped_) return;
  if (link_) StartLinkWrite(link_);
  std::vector<ConnectionPtr> dirty;
  dirty.swap(dirty_);
  for (const auto& c : dirty) {
    c->dirty = false;
    StartWrite(c);
  }
  // Keep the list's capacity for the next round.
  dirty.clear();
  if (dirty_.empty()) dirty_.swap(dirty);
}

// ---------------------------------------------------------------------------------------

FrontendServer::FrontendServer(asio::io_context& io, FrontendOptions options)
    : impl_(std::make_unique<Impl>(io, std::move(options))) {}

FrontendServer::~FrontendServer() { impl_->Stop(); }

bool FrontendServer::Start() { return impl_->Start(); }
void FrontendServer::Stop() { impl_->Stop(); }
const FrontendCounters& FrontendServer::counters() const { return impl_->counters; }

}  // namespace qx
