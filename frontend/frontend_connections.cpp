// User connections and outgoing ones: reading and assembling lines, the bounded output queue
// with its slow-reader handling, the log-in clock, and closing gently.
#include <unistd.h>

#include <boost/asio/connect.hpp>
#include <string>
#include <utility>

#include "frontend/front_log.h"
#include "frontend/frontend_server_internal.h"
#include "frontend/link_records.h"

namespace qx {

namespace {

constexpr auto kLingerAfterClose = std::chrono::seconds(5);

// "180 seconds", or "300 ms" for the short times of tests.
std::string DurationText(std::chrono::milliseconds d) {
  if (d.count() % 1000 != 0) return std::to_string(d.count()) + " ms";
  return std::to_string(d.count() / 1000) + " seconds";
}

}  // namespace

// ---------------------------------------------------------------------------------------
// The link thread's side of a connection

void FrontendServer::Impl::AddConnection(tcp::socket socket, int port_index, std::string kind,
                                         std::string limited_address,
                                         std::shared_ptr<WebSession> web) {
  error_code ec;
  const tcp::endpoint remote = socket.remote_endpoint(ec);
  if (stopped_ || ec) {
    // Gone before it could be looked at.
    socket.close(ec);
    if (!limited_address.empty()) limits_.Closed(limited_address);
    if (web) WebGone(*web);
    return;
  }
  // WebSocket and poll clients stay on the link thread: their sessions share the web limits
  // and counters, which only that thread touches, and they are few beside the users.
  Worker& w = web ? *workers_.front() : LeastLoaded();
  if (!w.on_link_thread) {
    // The socket moves to the thread's own context; the descriptor stays the same.
    const auto protocol = remote.protocol();
    const auto fd = socket.release(ec);
    tcp::socket moved(*w.io);
    if (!ec) {
      moved.assign(protocol, fd, ec);
      if (ec) ::close(fd);
    }
    socket = std::move(moved);
    if (ec) {
      FrontLogError("Cannot hand " + PeerText(remote) + " to I/O thread " +
                    std::to_string(w.index) + ": " + ec.message());
      socket.close(ec);
      if (!limited_address.empty()) limits_.Closed(limited_address);
      return;
    }
  }
  socket.set_option(tcp::no_delay(true), ec);
  socket.non_blocking(true, ec);

  auto c = std::make_shared<Connection>(io_, w, *w.io, std::move(socket), options_.output_limit);
  c->limited_address = std::move(limited_address);
  // The node itself asked for an outgoing one; programs on the web port never log in.
  c->identified = port_index == kOutgoingPortIndex || port_index == kWebPortIndex;
  c->web = std::move(web);
  c->stream = numbers_.Allocate();
  c->tag = ++next_tag_;
  c->port_index = port_index;
  c->kind = std::move(kind);
  c->peer = PeerText(remote);
  c->held = HeldInput(options_.hold_limit);
  if (by_stream_.size() <= static_cast<size_t>(c->stream)) by_stream_.resize(c->stream + 1);
  by_stream_[c->stream] = c;
  ++w.connections;
  ++counters.accepted;

  FrontLog("Stream " + std::to_string(c->stream) + " open: " + c->peer + " " + c->kind +
           " port index " + std::to_string(port_index) + " tag " + std::to_string(c->tag) +
           (workers_.size() > 1 ? " thread " + std::to_string(w.index) : std::string()));
  if (LinkReady()) {
    AppendConnectRequest(link_->queued, c->stream, c->peer, c->tag, c->kind, c->port_index);
    c->announced_session = link_->session;
    ScheduleFlush();
    StartLoginClock(c);
  }
  if (c->web) StartWebSession(c);
  ToWorker(c, HandOff::kStart);
}

void FrontendServer::Impl::ForwardInput(const ConnectionPtr& c, std::string_view data) {
  if (LinkReady() && c->announced_session == link_->session) {
    AppendStreamData(link_->queued, c->stream, data);
    CheckLinkBacklog();
    ScheduleFlush();
  } else {
    c->held.Append(data);
  }
}

void FrontendServer::Impl::AskToClose(const ConnectionPtr& c, std::string reason) {
  if (c->gone || c->close_requested) return;
  c->close_requested = true;
  PauseLoginClock(c);
  ToWorker(c, HandOff::kClose, reason);
}

void FrontendServer::Impl::StartLoginClock(const ConnectionPtr& c) {
  if (c->identified || c->login_counting || c->close_requested || c->gone ||
      options_.login_timeout.count() <= 0) {
    return;
  }
  c->login_counting = true;
  c->login_since = std::chrono::steady_clock::now();
  c->login_timer.expires_at(c->login_since + options_.login_timeout - c->login_waited);
  c->login_timer.async_wait([this, c](error_code ec) {
    if (ec || !c->login_counting || c->gone || c->close_requested) return;
    c->login_counting = false;
    if (ShouldLog(++counters.login_timeouts)) {
      FrontLog("Stream " + std::to_string(c->stream) + ": no log-in within " +
               DurationText(options_.login_timeout) + " (" + c->peer + ")");
    }
    ToWorker(c, HandOff::kText,
             "No log-in within " + DurationText(options_.login_timeout) + "; disconnecting.\r\n");
    AskToClose(c, "log-in timed out");
  });
}

void FrontendServer::Impl::PauseLoginClock(const ConnectionPtr& c) {
  if (!c->login_counting) return;
  c->login_counting = false;
  c->login_waited += std::chrono::steady_clock::now() - c->login_since;
  c->login_timer.cancel();
}

void FrontendServer::Impl::OnConnectionClosed(const ConnectionPtr& c, std::string_view reason) {
  if (c->gone) return;
  c->gone = true;
  c->login_timer.cancel();
  c->login_counting = false;
  c->held.Clear();
  if (!c->limited_address.empty()) limits_.Closed(c->limited_address);
  if (c->web) WebClosed(c);
  --c->worker->connections;
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
  if (!c || c->gone || (tag != 0 && tag != c->tag)) return nullptr;
  return c;
}

// ---------------------------------------------------------------------------------------
// The I/O thread's side of a connection

void FrontendServer::Impl::StartRead(const ConnectionPtr& c) {
  if (c->closed) return;
  if (!c->closing && link_congested_.load(std::memory_order_relaxed)) {
    if (!c->read_paused) {
      c->read_paused = true;
      c->worker->paused.push_back(c);
    }
    return;
  }
  c->read_paused = false;
  c->socket.async_read_some(asio::buffer(c->read_buf),
                            [this, c](error_code ec, size_t n) { OnRead(c, ec, n); });
}

void FrontendServer::Impl::ResumePausedReads(Worker& w) {
  std::vector<ConnectionPtr> paused;
  paused.swap(w.paused);
  for (const auto& c : paused) {
    if (c->read_paused) StartRead(c);
  }
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
  if (c->web) {
    OnWebRead(c, std::string_view(c->read_buf.data(), n));
    StartRead(c);
    return;
  }
  Worker& w = *c->worker;
  w.lines.clear();
  w.reply.clear();
  c->assembler.Feed(std::string_view(c->read_buf.data(), n), w.lines, w.reply);
  if (!w.reply.empty()) QueueOutput(c, w.reply);
  if (c->closed) return;
  if (!w.lines.empty()) ToLink(w, c, HandOff::kInput, w.lines);
  if (c->assembler.has_partial()) {
    c->last_input = std::chrono::steady_clock::now();
    if (!c->partial_timer_armed) ArmPartialTimer(c, c->last_input + options_.partial_line_wait);
  }
  StartRead(c);
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
    Worker& w = *c->worker;
    w.lines.clear();
    c->assembler.FlushPartial(w.lines);
    ToLink(w, c, HandOff::kInput, w.lines);
  });
}

void FrontendServer::Impl::QueueOutput(const ConnectionPtr& c, std::string_view text) {
  if (c->web) {
    QueueWebOutput(c, text);
    return;
  }
  QueueBytes(c, text, OutputQueue::LinesIn(text));
}

void FrontendServer::Impl::QueueBytes(const ConnectionPtr& c, std::string_view text,
                                      uint64_t lines) {
  if (c->closed || text.empty()) return;
  switch (c->out.Add(text, lines)) {
    case OutputQueue::Added::kQueued:
      break;
    case OutputQueue::Added::kBehind: {
      dropped_lines_.fetch_add(lines, std::memory_order_relaxed);
      // A reader on the edge may fall behind and catch up again and again: the counters
      // keep the tally, the log only the first few.
      c->behind_logged =
          ShouldLog(slow_reader_episodes_.fetch_add(1, std::memory_order_relaxed) + 1);
      if (c->behind_logged) {
        FrontLog("Stream " + std::to_string(c->stream) + " cannot keep up; its output is dropped " +
                 "until it catches up (" + c->peer + ")");
      }
      c->last_progress = std::chrono::steady_clock::now();
      WatchStall(c, c->last_progress + options_.stall_timeout);
      break;
    }
    case OutputQueue::Added::kDropped:
      dropped_lines_.fetch_add(lines, std::memory_order_relaxed);
      return;
  }
  if (!c->dirty && !c->write_active) {
    c->dirty = true;
    c->worker->dirty.push_back(c);
    ScheduleWorkerFlush(*c->worker);
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
    overflow_closes_.fetch_add(1, std::memory_order_relaxed);
    CloseConnection(c, "output overflow");
  });
}

void FrontendServer::Impl::RequestClose(const ConnectionPtr& c, std::string reason) {
  if (c->closed || c->closing) return;
  if (c->web) FinishWeb(c);
  c->closing = true;
  c->close_reason = std::move(reason);
  c->partial_timer.cancel();
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
  error_code ec;
  c->socket.close(ec);
  c->out.Clear();
  ToLink(*c->worker, c, HandOff::kClosed, reason);
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

}  // namespace qx
