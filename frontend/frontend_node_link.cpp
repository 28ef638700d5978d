// The link to the node: candidates on the link port and the handshake that makes one the
// link, the node's messages, the stream report after a node (re)connects, keep-alives and
// counters, and the flush that writes each socket's gathered output at once.
#include <boost/asio/post.hpp>
#include <boost/asio/write.hpp>
#include <span>
#include <utility>

#include "core/link_secret.h"
#include "core/sha256.h"
#include "frontend/front_log.h"
#include "frontend/frontend_server_internal.h"
#include "frontend/link_records.h"

namespace qx {

namespace {

// Bytes of node messages handled before the gathered output is written out.
constexpr size_t kLinkReadBatch = 4 * 1024 * 1024;
constexpr size_t kLinkReadChunk = 256 * 1024;
// A connection on the link port that has not proved itself has nothing long to say.
constexpr size_t kCandidateMaxMessage = 1024;
constexpr size_t kCandidateReadChunk = 4096;
// A buffer grown beyond this by a burst is given back once it is empty.
constexpr size_t kKeepCapacity = 256 * 1024;

void GiveBackIfLarge(std::string& buffer) {
  if (buffer.capacity() > kKeepCapacity && buffer.empty()) std::string().swap(buffer);
}

}  // namespace

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
      if (!c || c->close_requested) {
        if (ShouldLog(++counters.stale_messages_dropped)) {
          FrontLog("Text for stream " + std::to_string(m.stream) + " tag " + std::to_string(m.tag) +
                   " dropped: no such connection (" +
                   std::to_string(counters.stale_messages_dropped) + " so far)");
        }
        return;
      }
      ToWorker(c, HandOff::kText, m.text);
      return;
    }
    case NodeMessageKind::kFanOut: {
      // The same text for many streams, each with its own tag: a stale entry is dropped as
      // a stale "0" would be, the others get the text in list order.
      ++counters.fanout_messages;
      const uint64_t message = ++fanout_serial_;
      FanoutTargets targets(m.label);
      int stream = 0;
      uint64_t tag = 0;
      while (targets.Next(stream, tag)) {
        ConnectionPtr c = Find(stream, tag);
        if (!c || c->close_requested) {
          if (ShouldLog(++counters.stale_messages_dropped)) {
            FrontLog("Text for stream " + std::to_string(stream) + " tag " + std::to_string(tag) +
                     " dropped: no such connection (" +
                     std::to_string(counters.stale_messages_dropped) + " so far)");
          }
          continue;
        }
        ++counters.fanout_lines;
        FanoutToWorker(c, message, m.text);
      }
      return;
    }
    case NodeMessageKind::kClose: {
      ConnectionPtr c = Find(m.stream, m.tag);
      if (c) {
        FrontLog("Stream " + std::to_string(m.stream) + ": the node asks to disconnect");
        AskToClose(c, "disconnected by the node");
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
    case NodeMessageKind::kHandOver:
      // Everything sent so far is the stopping node's; what arrives from now on is held for
      // the next one, as if no node were connected.  The node still writes its answers.
      if (link->ready) {
        link->ready = false;
        for (const auto& c : by_stream_) {
          if (c) PauseLoginClock(c);
        }
      }
      AppendInputHeld(link->queued);
      ScheduleFlush();
      FrontLog("The node is stopping (" + std::string(m.text) + "): input is held from here");
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
    if (c && !c->gone) streams.push_back(c->stream);
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
  if (options_.settings.link_fanout) AppendCapabilities(link->queued, kFanoutFeature);
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
    ResumeAllReads();
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
    if (link_congested_.load(std::memory_order_relaxed) && LinkBacklog() < kLinkLowWater) {
      ResumeAllReads();
    }
  });
}

void FrontendServer::Impl::CheckLinkBacklog() {
  if (!link_congested_.load(std::memory_order_relaxed) && LinkBacklog() > kLinkHighWater) {
    link_congested_.store(true, std::memory_order_relaxed);
  }
}

void FrontendServer::Impl::ResumeAllReads() {
  if (!link_congested_.exchange(false, std::memory_order_relaxed)) return;
  for (auto& w : workers_) {
    if (w->on_link_thread) {
      ResumePausedReads(*w);
    } else {
      w->to_worker.Add(nullptr, HandOff::kResume);
      ScheduleFlush();
    }
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
  const FrontendCounters n = Counters();
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
      {"fanout_messages_total", n.fanout_messages},
      {"fanout_lines_total", n.fanout_lines},
      {"ws_streams", n.web_streams_open},
      {"ws_upgrades_total", n.web_upgrades},
      {"ws_polls_total", n.web_polls},
      {"ws_rejected_total", n.web_rejected},
      {"ws_refused_total", n.web_refused},
      {"ws_protocol_errors_total", n.web_protocol_errors},
      {"ws_poll_timeouts_total", n.web_poll_timeouts},
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
  for (auto& w : workers_) {
    if (w->on_link_thread) {
      FlushWorker(*w);
    } else if (!w->to_worker.empty() && w->inbox.Publish(w->to_worker)) {
      asio::post(*w->io, [this, w = w.get()] { DrainInbox(*w); });
    }
  }
}

}  // namespace qx
