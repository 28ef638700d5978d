// What the front-end's parts share: the state of one user connection, of a connection on the
// link port and of an outgoing connection being opened, and the server that owns them all.
// Only the front-end's own files include this; the rest of the program sees frontend_server.h.
//
// The server's work is spread over three files along its seams: frontend_server.cpp listens,
// admits and refuses; frontend_connections.cpp runs user connections and outgoing ones;
// frontend_node_link.cpp runs the link to the node, the handshake that earns it, and the
// output gathered for one write per socket.
//
// Threads.  The link thread (the io_context the server was made with) owns the node link, the
// listeners, the limits, the stream table and everything the node is told or tells about a
// stream: identity, attributes, held input, the log-in clock.  Each connection's socket,
// output queue and input assembly belong to one I/O thread (a Worker); I/O thread 0 is the
// link thread itself, so with one thread everything runs as a single loop.  The two sides
// only ever talk through HandOff batches (hand_off.h): text and closes go to the socket's
// thread, input and the news of a close come back, and for a connection on the link thread
// itself the hand-off is a plain call.  The fields of Connection are marked by owner.
#pragma once

#include <array>
#include <atomic>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/steady_timer.hpp>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "frontend/connection_limits.h"
#include "frontend/frontend_server.h"
#include "frontend/hand_off.h"
#include "frontend/input_filter.h"
#include "frontend/node_messages.h"
#include "frontend/output_queue.h"

namespace qx {

// The listener for programs keeps its per-connection state apart (frontend_web.h).
struct WebSession;
struct WebPending;

namespace asio = boost::asio;
using asio::ip::tcp;
using boost::system::error_code;
using SteadyTime = std::chrono::steady_clock::time_point;

// Link output above this pauses reading from connections until the node catches up.
inline constexpr size_t kLinkHighWater = 16 * 1024 * 1024;
inline constexpr size_t kLinkLowWater = 4 * 1024 * 1024;

// An IPv4 peer on a dual-stack socket arrives as "::ffff:192.0.2.7"; the node's address
// lists, the limits and the logs all want it as the IPv4 address it is.
inline asio::ip::address PlainAddress(const asio::ip::address& a) {
  if (a.is_v6() && a.to_v6().is_v4_mapped()) {
    return asio::ip::make_address_v4(asio::ip::v4_mapped, a.to_v6());
  }
  return a;
}

// "192.0.2.7:4000", "[2001:db8::7]:4000": the node takes the address part for its lists.
inline std::string PeerText(const tcp::endpoint& ep) {
  const asio::ip::address plain = PlainAddress(ep.address());
  const std::string address = plain.to_string();
  return (plain.is_v6() ? "[" + address + "]" : address) + ":" + std::to_string(ep.port());
}

// A few occurrences of a repeated fault are logged, then only every 10,000th.
inline bool ShouldLog(uint64_t count) { return count <= 20 || count % 10000 == 0; }

struct Worker;

struct Connection {
  Connection(asio::io_context& link_io, Worker& w, asio::io_context& worker_io, tcp::socket s,
             size_t output_limit)
      : worker(&w),
        socket(std::move(s)),
        partial_timer(worker_io),
        close_timer(worker_io),
        stall_timer(worker_io),
        out(output_limit),
        login_timer(link_io) {}

  // Set before the connection is handed to its I/O thread, then only read.
  Worker* worker;
  int stream = 0;
  uint64_t tag = 0;
  std::string peer;

  // The I/O thread's.
  tcp::socket socket;
  asio::steady_timer partial_timer;
  asio::steady_timer close_timer;
  asio::steady_timer stall_timer;  // runs while the reader is behind
  InputAssembler assembler;
  OutputQueue out;
  std::string close_reason;
  SteadyTime last_input{};
  SteadyTime last_progress{};  // the last write that took bytes, or the start of falling behind
  bool behind_logged = false;  // the start of this reader's falling behind was logged
  bool write_active = false;
  bool dirty = false;  // has output and is listed for the next flush
  bool closing = false;
  bool lingering = false;
  bool closed = false;
  bool read_paused = false;
  bool partial_timer_armed = false;
  std::array<char, 4096> read_buf;
  // Set for a WebSocket or HTTP-poll client: its bytes are framed, not lines.
  std::shared_ptr<WebSession> web;

  // The link thread's.
  asio::steady_timer login_timer;  // runs while the log-in time is counted
  int port_index = 0;
  std::string kind;
  std::string call;
  int state = 0;
  std::string attributes;  // the node's text for the stream, reported back in AA38
  HeldInput held;
  // The address an inbound connection is counted under by the limits; empty for outgoing.
  std::string limited_address;
  uint64_t announced_session = 0;  // link session that has been told about this stream
  // Log-in time: counted only while a node link is ready, since only a node can name the
  // caller.  waited is what was counted before login_since.
  std::chrono::steady_clock::duration login_waited{};
  SteadyTime login_since{};
  bool login_counting = false;
  bool identified = false;       // the node named the caller (or the connection is outgoing)
  bool close_requested = false;  // asked to close (by the node or the log-in clock)
  bool gone = false;             // its I/O thread reported it closed
};
using ConnectionPtr = std::shared_ptr<Connection>;

// One I/O thread: its io_context and what it shares with the link thread.
struct Worker {
  size_t index = 0;
  // Held by every connection of the thread too, so that timers never outlive their context.
  std::shared_ptr<asio::io_context> io;
  bool on_link_thread = false;  // thread 0: hand-offs are plain calls
  std::thread thread;
  std::unique_ptr<asio::executor_work_guard<asio::io_context::executor_type>> guard;

  // Link thread only.
  size_t connections = 0;                 // for handing a new connection to the least loaded thread
  HandOffBatch<ConnectionPtr> to_worker;  // gathered until the link thread's flush
  // The fan-out message whose text to_worker holds already (by message number), and the
  // item that holds it.
  uint64_t fanout_message = 0;
  size_t fanout_item = 0;
  // Published by the link thread, taken by this thread.
  Mailbox<ConnectionPtr> inbox;
  // Published by this thread, taken by the link thread.
  Mailbox<ConnectionPtr> outbox;

  // This thread only.
  HandOffBatch<ConnectionPtr> to_link;  // gathered until this thread's flush
  HandOffBatch<ConnectionPtr> taken;    // scratch for a drained inbox
  std::vector<ConnectionPtr> dirty;
  std::vector<ConnectionPtr> paused;
  bool flush_scheduled = false;
  std::string lines;  // scratch for one read's lines
  std::string reply;  // scratch for one read's telnet answers
};

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
  FrontendCounters Counters() const;
  FrontendCounters counters;  // the link thread's; the I/O threads count in the atomics below

 private:
  // Listening.
  void AcceptLink();
  void AcceptUsers(size_t index);
  void RetryAcceptLater(std::function<void()> again);
  static ConnectionLimitSettings LimitSettings(const FrontendOptions& options);
  void FitLimitToDescriptors();
  // A listening socket for users and nodes on port, IPv6 and IPv4 together where possible.
  std::unique_ptr<tcp::acceptor> ListenDualStack(unsigned short port, error_code& ec);
  // Applies the limits to a new inbound connection; false when it was refused (and closed).
  bool Admit(tcp::socket& socket, std::string& address);
  void Refuse(tcp::socket& socket, const std::string& peer, Refusal refusal);

  // I/O threads.
  void StartWorkers();
  void StopWorkers();
  Worker& LeastLoaded();
  // Link thread: work for c's I/O thread (done at once when that is the link thread).
  void ToWorker(const ConnectionPtr& c, HandOff op, std::string_view text = {});
  // Link thread: the text of fan-out message number message for c, carried once per thread.
  void FanoutToWorker(const ConnectionPtr& c, uint64_t message, std::string_view text);
  void ApplyOnWorker(Worker& w, const ConnectionPtr& c, HandOff op, std::string_view text);
  void DrainInbox(Worker& w);
  // I/O thread: news for the link thread (handled at once on the link thread itself).
  void ToLink(Worker& w, const ConnectionPtr& c, HandOff op, std::string_view text = {});
  void ApplyOnLink(const ConnectionPtr& c, HandOff op, std::string_view text);
  void DrainOutbox(Worker& w);

  // Connections, link thread side.
  void AddConnection(tcp::socket socket, int port_index, std::string kind,
                     std::string limited_address = {}, std::shared_ptr<WebSession> web = {});
  void ForwardInput(const ConnectionPtr& c, std::string_view data);
  void AskToClose(const ConnectionPtr& c, std::string reason);
  void StartLoginClock(const ConnectionPtr& c);
  void PauseLoginClock(const ConnectionPtr& c);
  void OnConnectionClosed(const ConnectionPtr& c, std::string_view reason);
  ConnectionPtr Find(int stream, uint64_t tag) const;

  // Connections, I/O thread side.
  void StartRead(const ConnectionPtr& c);
  void OnRead(const ConnectionPtr& c, error_code ec, size_t n);
  void ArmPartialTimer(const ConnectionPtr& c, SteadyTime deadline);
  void QueueOutput(const ConnectionPtr& c, std::string_view text);
  // Bytes for the socket as they are; when dropped they count as lines.
  void QueueBytes(const ConnectionPtr& c, std::string_view bytes, uint64_t lines);
  void StartWrite(const ConnectionPtr& c);
  void WatchStall(const ConnectionPtr& c, SteadyTime deadline);
  void RequestClose(const ConnectionPtr& c, std::string reason);
  void Linger(const ConnectionPtr& c);
  void CloseConnection(const ConnectionPtr& c, std::string_view reason);
  void ResumePausedReads(Worker& w);

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
  size_t LinkBacklog() const;
  // Reads pause while the link's backlog is high and start again once it has drained.
  void CheckLinkBacklog();
  void ResumeAllReads();
  void KeepAlive();
  void SendCounters();
  void CountersTimer();

  // Output is gathered while handlers run and written once they are done.
  void ScheduleFlush();
  void Flush();
  void ScheduleWorkerFlush(Worker& w);
  void FlushWorker(Worker& w);

  // The listener for programs: WebSocket streams and HTTP polls (frontend_web.cpp).
  bool StartWeb();
  void StopWeb();
  void AcceptWeb();
  void OnWebAccepted(tcp::socket socket);
  void ReadWebHead(const std::shared_ptr<WebPending>& p);
  void OnWebHead(const std::shared_ptr<WebPending>& p);
  void RejectWeb(const std::shared_ptr<WebPending>& p, int status, std::string_view body,
                 std::string_view why);
  void EndWebPending(const std::shared_ptr<WebPending>& p, bool keep_address);
  void StartWebSession(const ConnectionPtr& c);                   // from AddConnection
  void OnWebRead(const ConnectionPtr& c, std::string_view data);  // from OnRead
  void QueueWebOutput(const ConnectionPtr& c, std::string_view text);
  void FinishWeb(const ConnectionPtr& c);  // from RequestClose: the close frame or answer
  void WebClosed(const ConnectionPtr& c);  // from CloseConnection
  void WebGone(WebSession& web);           // a session whose connection never opened
  void WebPing(const ConnectionPtr& c);

  asio::io_context& io_;
  FrontendOptions options_;
  // Before every connection so that it is destroyed after them: their timers use its
  // io_contexts.
  std::vector<std::unique_ptr<Worker>> workers_;
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
  HandOffBatch<ConnectionPtr> link_taken_;  // scratch for a drained outbox
  uint64_t fanout_serial_ = 0;              // numbers the fan-out messages from the node
  bool flush_scheduled_ = false;
  std::atomic<bool> stopped_{false};
  // Set by the link thread while its backlog is high; I/O threads then pause reads.
  std::atomic<bool> link_congested_{false};
  // Counted by the I/O threads.
  std::atomic<uint64_t> overflow_closes_{0};
  std::atomic<uint64_t> slow_reader_episodes_{0};
  std::atomic<uint64_t> dropped_lines_{0};

  std::unique_ptr<tcp::acceptor> web_acceptor_;
  std::vector<std::shared_ptr<WebPending>> web_pending_;  // requests whose head is awaited
  // "WebSocket Max Per Address"; the other limits apply through limits_.
  ConnectionLimits web_limits_{ConnectionLimitSettings{
      0, size_t(options_.settings.websocket_per_address), 0, options_.connect_window}};
};

}  // namespace qx
