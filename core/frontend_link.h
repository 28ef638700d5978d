// The node's end of the link to the front-end (qxfront).  The front-end owns every user,
// node and feed connection and relays each as a numbered stream; this class owns the one
// local TCP connection to it, turns the bytes into records (LinkArrival), acts on each record
// code, keeps the StreamTable up to date, and frames what the node sends back.
//
// Everything runs on the caller's io_context, on one thread.  The upper layers (log-in,
// command interpreter, node protocol) hear about streams through LinkEvents; the link never
// calls them for anything but the stream named in the record, and it sets the current stream
// before each per-stream call.
//
// The front-end must prove that it knows the link secret (link.key) before the node tells it
// anything: after the greeting it challenges the node ("AA39"), the node answers with its
// own proof and nonce (message "4"), and the front-end's "QRV" carries its proof in turn.
// Until that proof has arrived the link counts as down: nothing but the handshake is sent,
// every other record is refused, and a missing or wrong proof closes the connection and
// tries again later.
#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/steady_timer.hpp>
#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "core/error_log.h"
#include "core/frontend_counters.h"
#include "core/link_arrival.h"
#include "core/link_fanout.h"
#include "core/monitor.h"
#include "core/stream_table.h"
#include "core/time_text.h"

namespace qx {

// What the link tells the layers above it.  Every method has an empty default, so a layer
// overrides only what it needs.  Stream numbers are always in 1..HighSocket when called.
class LinkEvents {
 public:
  virtual ~LinkEvents() = default;

  // The link to the front-end is up (the front-end has proved itself) or has gone away.  The
  // stream table is kept when the link goes down: the front-end keeps the connections.
  virtual void OnLinkUp() {}
  virtual void OnLinkDown() {}

  // A new connection on stream: the entry is fresh, in the log-in state, with its tag, peer,
  // port index and (for outgoing connections) label.  The log-in layer sends the banner.
  virtual void OnConnectRequest(int stream) {}
  // One line (without its line end) received on stream; routed by the stream's state.
  virtual void OnStreamLine(int stream, std::string_view line) {}
  // The start of a line that grew past what the link keeps while waiting for its line end,
  // handed on as it stands; the rest follows as a line of its own.  Node streams join the two;
  // by default the piece is taken as a line.
  virtual void OnStreamPiece(int stream, std::string_view piece) { OnStreamLine(stream, piece); }
  // The stream closed.  Called while the entry still holds the stream's call and state, so
  // a logged-in user can be announced as gone; the entry is freed afterwards.
  virtual void OnStreamClosed(int stream, int previous_state) {}
  // The front-end timed the stream out.  Called while the entry still holds its call and
  // state, so that a logged-in user can be announced as gone; the entry then becomes state 9
  // with the call "T/O".
  virtual void OnStreamTimedOut(int stream) {}
  // The front-end reported its open streams ("AA01"): the user lists are to be rebuilt.
  virtual void OnStreamListReported(int count) {}
  // A stream that was open before this node (re)started was rebuilt from the front-end's
  // report: nodes get their introduction again, users their record.
  virtual void OnStreamRecovered(int stream) {}
  // The last reported stream has been recovered.
  virtual void OnRecoveryComplete() {}
  // Every record that contains "AA03" is handed whole to the node log-in handshake, after
  // the record's own handling.  stream is the current stream at that moment.
  virtual void OnHandshakeRecord(int stream, std::string_view record) {}
  // An outgoing connection asked for with OpenOutgoing could not be opened.
  virtual void OnOutgoingFailed(std::string_view label, std::string_view reason) {}
  // The unfinished end of a stream's data (no line end yet), as it stands so far: a remote
  // node's "login: " prompt comes without a line end.  True when the text was used up; the
  // link then forgets it instead of putting it in front of the next line.
  virtual bool OnStreamPartial(int stream, std::string_view text) { return false; }
};

struct FrontendLinkOptions {
  std::string host = "127.0.0.1";  // "Winsock IP"
  std::string port = "7399";       // "Winsock Port"
  // After a failed connect or a lost link the link tries again by itself this often.
  std::chrono::milliseconds retry_interval{5000};
  std::chrono::milliseconds connect_timeout{5000};
  // The 32 bytes of link.key.  Without them no front-end can be proved, so none is used.
  std::string secret;
  // A front-end that has not proved itself this long after the connect is left.
  std::chrono::milliseconds proof_timeout{10000};
  // The front-end's announcement is answered after this pause.
  std::chrono::milliseconds qrv_reply_delay{250};
  // Run the busy watchdog from the link's own once-a-second timer.  Off when the owner's
  // main timer calls Tick().
  bool own_watchdog_timer = true;
  // Log the watchdog's counts below the reset (debug mode).
  bool debug = false;
  // Ordinary text waiting for the socket beyond this is dropped (the front-end stopped
  // reading).  Link-control messages are never dropped.
  size_t max_output_bytes = 64u << 20;
  // Above this backlog the link is congested: spot lines wait per stream and a stream's
  // oldest is shed when more than stream_spot_queue wait (see "Overload" below).
  size_t soft_output_bytes = 4u << 20;
  size_t stream_spot_queue = 64;
  size_t read_size = 64u << 10;
  size_t pending_capacity = LinkArrival::kDefaultPendingCapacity;
};

// The text-node form of a spot line ("DX de W1AW:     14025.0  ...") brought to the form
// the node parses: the first "0  " becomes two blanks; every ":   ", ":  " and ": " becomes
// ":"; the first "   " becomes two blanks.  Pure; out is overwritten.
void NormaliseTextNodeLine(std::string_view line, std::string& out);

// Overload.  When the front-end falls behind, the backlog on the link grows.  Above the soft
// bound the link is congested and an overload episode begins (logged once): a spot line is
// no longer written at once but waits in its stream's queue, where it shares the formatted
// text with every other user who gets it.  The queues feed the link round-robin as it
// drains.  A stream keeps at most stream_spot_queue spot lines; beyond that its oldest is
// shed and counted.  Anything else for a stream that has lines waiting (text, identity,
// attributes, disconnect) joins the queue behind them and is never shed, so each stream's
// output keeps its order.  When every queue is empty and the backlog is down to half the soft
// bound the episode ends (logged with its count) and each stream that lost spots is told
// how many; a stream that is closed meanwhile is told before its disconnect.
class FrontendLink : private LinkArrival::Sink {
 public:
  // A formatted line shared by every stream that gets it.
  using SharedText = std::shared_ptr<const std::string>;

  // The largest stream number a record may name; anything above is a bad record.
  static constexpr int kMaxStreamNumber = 65535;

  FrontendLink(boost::asio::io_context& io, StreamTable& table, ErrorLog& log, Monitor& monitor,
               const Clock& clock, LinkEvents& events, FrontendLinkOptions options = {});
  ~FrontendLink() override;
  FrontendLink(const FrontendLink&) = delete;
  FrontendLink& operator=(const FrontendLink&) = delete;

  // Called when the first connect of an outage fails, so that the owner can start the
  // front-end program.  Called again only after the link was up in between.  The handler
  // returns true when it started the program: the link then tries again every quarter of a
  // second for a few seconds, since a new front-end listens within moments.
  void set_on_unreachable(std::function<bool()> handler) { on_unreachable_ = std::move(handler); }
  void set_debug(bool debug) { options_.debug = debug; }
  // Makes the line that tells a stream how many spot lines it lost to overload (see
  // "Overload"); empty text, or no maker, gives the plain-text line.  The owner gives
  // streams that read JSON an object instead, since a text line would break their parser.
  void set_shed_notice(std::function<std::string(int stream, uint64_t count)> make) {
    shed_notice_ = std::move(make);
  }

  // Opens the link (start-up) and keeps it open from then on.
  void Start();
  // The sysop's "Connect Winsock": connect now unless connected or connecting.
  void Connect();
  // Closes the link and opens it again at once.
  void Restart();
  // Closes the link for good (shut-down); nothing is retried.
  void Stop();
  // Lets go of the link before this node stops, so that nothing a connection sends is lost:
  // asks the front-end to hold input from now on (message "6"), handles every record it
  // sent before its answer ("AA21"), writes out what they produced, then calls done, which
  // is expected to Stop().  done is also called when the link is not up, when it drops, or
  // when no answer has come within wait.
  void HandOver(std::chrono::milliseconds wait, std::function<void()> done);
  // Connected to a front-end that has proved itself.
  bool connected() const { return state_ == State::kConnected; }

  // The data-arrival entry: the socket reader calls it with every read.  Public so that
  // tests and benchmarks can drive the record handling without a socket.
  void Arrive(std::string_view bytes) { arrival_.Arrive(bytes); }
  // The busy watchdog, once a second (by the link's own timer unless turned off).
  void Tick();

  // Text for the current stream; it carries its own CR LF line ends.  Nothing is sent for
  // empty text, for stream 0, or while the link is down.  Nothing is sent to a free stream
  // either (its tag would match whatever connection gets the number next); the same holds
  // for CloseStream and SetStreamIdentity.  Chr 4 would end the message early, so it is
  // left out of the text.
  void SendToStream(std::string_view text);
  void SendToStreamNo(int stream, std::string_view text);
  // A spot line for a stream: like text, but while the link is congested it may be shed.
  // While it is not, consecutive calls with the same text are gathered into one fan-out
  // message when the front-end understands it; anything else written to the link closes
  // the group first, so every stream's output keeps its order.
  void SendSpotToStreamNo(int stream, const SharedText& text);
  // A link-control message: text and Chr 4; the echo variant also shows it on the console.
  void SendToWinsockQuiet(std::string_view message);
  void SendToWinsockEcho(std::string_view message);
  // Text written to the link exactly as it stands ("QX Cluster", "rxAA18", "8270").
  void SendRaw(std::string_view text);
  // Asks the front-end to close the stream once its queued output has been written.
  void CloseStream(int stream);
  // Asks the front-end to open an outgoing connection; it answers with "AA03" (kind
  // "out:<label>") or "AA19".
  void OpenOutgoing(std::string_view host, int port, std::string_view label);
  // Tells the front-end the stream's call and state, which it reports back after a restart.
  void SetStreamIdentity(int stream, std::string_view call, int state);
  // Gives the front-end a short text to keep with the stream and report back after a
  // restart (AA38's last field, StreamEntry::frontend_attributes).  "^" and control
  // characters are left out and the text is cut to 256 bytes, as the front-end would.
  void SetStreamAttributes(int stream, std::string_view text);

  // What the front-end said about itself ("QRV").
  const std::string& frontend_station() const { return frontend_station_; }
  const std::string& frontend_version() const { return frontend_version_; }
  // The front-end's count of streams ("AA01", "AA02").
  int reported_streams() const { return reported_streams_; }
  bool recovering() const { return !recovery_expected_.empty(); }

  // Statistics.
  size_t peak_pending() const { return arrival_.peak_pending(); }
  uint64_t records_in() const { return arrival_.records_in(); }
  uint64_t bytes_in() const { return arrival_.bytes_in(); }
  uint64_t bytes_out() const { return bytes_out_; }
  uint64_t bytes_dropped() const { return bytes_dropped_; }
  // Bytes queued for the socket and not yet written.
  size_t queue_depth() const { return out_.size() + writing_.size(); }
  uint64_t keepalives() const { return keepalives_; }
  // Overload: spot lines shed since start, spot lines waiting in stream queues now, and
  // whether an overload episode is under way.
  uint64_t spots_shed() const { return spots_shed_; }
  size_t spots_waiting() const { return spots_waiting_; }
  bool congested() const { return congested_; }
  // Fan-out: whether the front-end on this link takes it, the messages sent and the spot
  // lines they carried (since start).
  bool fanout_in_use() const { return fanout_offered_; }
  uint64_t fanout_messages() const { return fanout_messages_; }
  uint64_t fanout_lines() const { return fanout_lines_; }
  // The front-end's own counters, as last reported ("AA20"); kept when the link goes down.
  const FrontendCounterValues& frontend_counters() const { return frontend_counters_; }

 private:
  // kProving: connected, waiting for the front-end to prove that it knows the secret.
  enum class State { kIdle, kConnecting, kProving, kConnected, kStopped };

  // LinkArrival::Sink
  void OnRecord(std::string_view record) override;
  void OnRecordError(std::string_view record, std::string_view what) override;

  // Record handlers, one per code.
  void HandleData(std::string_view record);            // AA00
  void HandleCall(std::string_view record);            // AA16
  void HandleClosed(std::string_view record);          // AA17
  void HandleStreamList(std::string_view record);      // AA01
  void HandleAttribute(std::string_view record);       // AA04
  void HandleCount(std::string_view record);           // AA02
  void HandleReport(std::string_view record);          // AA06
  void HandleRecovery(std::string_view record);        // AA38
  void HandleKeepAlive();                              // AA18
  void HandleTimedOut(std::string_view record);        // AA05
  void HandleAnnouncement(std::string_view record);    // QRV
  void HandleStreamEvent(std::string_view record);     // AA03
  void HandleOutgoingFailed(std::string_view record);  // AA19
  void HandleInputHeld();                              // AA21
  void HandleCapabilities(std::string_view record);    // AA40
  // Before the front-end has proved itself: AA39 and QRV, nothing else.
  void HandleProofRecord(std::string_view record);
  void ProofFailed(std::string_view reason);
  void LinkProven();
  void HandleCounters(std::string_view record);  // AA20

  // The stream number in field, or 0 (logged) when it is not one.  A number above
  // HighSocket grows the table.
  int StreamField(std::string_view field, std::string_view code);
  void GrowTo(int stream);
  // Cuts stream data into lines and hands them on; an unfinished line waits in the entry.
  void DeliverText(int stream, std::string_view data);
  void DeliverLine(int stream, std::string_view line);
  void ShowConnection(int stream, std::string_view caption, std::string_view colour = {});
  void StreamRecovered(int stream);
  // The stream closed (or is known to be gone): the layers above hear it as closed while the
  // entry still holds its call and state; then the entry is freed.
  void StreamGone(int stream);

  // Connection.
  void StartConnect();
  void OnConnected();
  void OnConnectFailed(const boost::system::error_code& ec);
  void LinkLost(const boost::system::error_code& ec);
  void CloseSocket();
  void ScheduleRetry();
  // The hand-over is over (answered and written out, or given up): done runs next turn.
  void FinishHandOver();
  void StartRead(int buffer);
  void StartWatchdog();

  // Output.
  bool CanQueue(size_t bytes);
  void Queued();
  void Flush();
  void QueueStreamText(int stream, std::string_view text);
  // Fan-out: adds the stream to the open group for text (or starts one); closes the open
  // group into out_ before anything else is written.
  void GroupSpot(int stream, const SharedText& text);
  void CloseFanout();
  // The "0" message for stream, appended to out.
  void FrameText(std::string& out, int stream, std::string_view text) const;
  // Where a framed message for stream goes: out_, or a new message at the back of the
  // stream's queue when lines wait there.  Held() counts what went into a queue.
  std::string& TargetFor(int stream);
  void Held(const std::string& target);

  // Overload (see the class comment).
  struct Waiting {
    SharedText spot;      // a spot line, which may be shed; null for a message
    std::string message;  // a framed message, never shed
  };
  struct StreamBacklog {
    int64_t tag = 0;  // the connection the lines are for
    std::deque<Waiting> items;
    size_t spots = 0;   // spot lines among items
    uint64_t shed = 0;  // shed this episode, told when it ends
  };
  size_t Backlog() const { return out_.size() + writing_.size(); }
  void CheckCongestion();
  void QueueSpot(int stream, const SharedText& text);
  // Feeds the link from the stream queues, round-robin, up to the soft bound.
  void FeedWaiting();
  void EndEpisodeIfDrained();
  // The line that tells a stream how many spots it lost, framed into out (once per episode).
  void AppendShedNotice(std::string& out, int stream, StreamBacklog& backlog);
  void ForgetBacklog(int stream);
  void DropAllBacklogs();
  // Handshake output, which goes out while the front-end is still to prove itself.
  void QueueHandshake(std::string_view bytes);

  boost::asio::io_context& io_;
  StreamTable& table_;
  ErrorLog& log_;
  Monitor& monitor_;
  const Clock& clock_;
  LinkEvents& events_;
  FrontendLinkOptions options_;
  std::function<bool()> on_unreachable_;
  std::function<std::string(int stream, uint64_t count)> shed_notice_;
  int quick_retries_ = 0;

  LinkArrival arrival_;
  boost::asio::ip::tcp::resolver resolver_;
  boost::asio::ip::tcp::socket socket_;
  boost::asio::steady_timer retry_timer_;
  boost::asio::steady_timer connect_timer_;
  boost::asio::steady_timer qrv_timer_;
  boost::asio::steady_timer watchdog_timer_;
  boost::asio::steady_timer proof_timer_;
  boost::asio::steady_timer hand_over_timer_;
  std::function<void()> hand_over_done_;  // set while a hand-over is under way
  bool input_held_ = false;               // the front-end answered: no record follows
  std::string challenge_;                 // the front-end's nonce from AA39
  std::string our_nonce_;                 // the nonce sent with our proof; empty until then
  bool proof_failure_reported_ = false;   // once per run of failures
  // False from a connect until the front-end's proof has arrived.  True before the first
  // connect, so that tests and benchmarks can hand records to Arrive() without a socket.
  bool peer_proven_ = true;
  State state_ = State::kIdle;
  uint64_t generation_ = 0;  // one per connection attempt; stale completions are ignored
  bool outage_reported_ = false;
  bool alert_due_ = false;  // the front-end was started for this outage; box if still away
  bool restart_posted_ = false;
  // Handlers hold a weak reference, so none touches the link after it is gone.
  std::shared_ptr<int> alive_ = std::make_shared<int>(0);

  // Two read buffers: the next read goes to the one not being handled, so a handler that
  // runs the event loop never has its record views overwritten.
  std::vector<char> read_buffers_[2];
  bool walking_[2] = {false, false};  // an arrival refers to the buffer's bytes

  // Output: messages are appended to out_ and written with one write per loop turn;
  // writing_ is the buffer of the write in flight.
  std::string out_;
  std::string writing_;
  bool write_in_flight_ = false;
  bool flush_posted_ = false;
  bool overflow_reported_ = false;
  uint64_t episode_dropped_ = 0;  // messages dropped since the bound was last exceeded
  uint64_t bytes_out_ = 0;
  uint64_t bytes_dropped_ = 0;
  // Overload.
  bool congested_ = false;
  std::unordered_map<int, StreamBacklog> backlogs_;
  std::deque<int> feed_order_;  // streams with lines waiting, in turn
  size_t spots_waiting_ = 0;
  size_t held_message_bytes_ = 0;  // ordinary text waiting in stream queues
  uint64_t spots_shed_ = 0;
  uint64_t episode_shed_ = 0;
  uint64_t episode_users_ = 0;  // users told of a loss this episode
  // Fan-out.
  bool fanout_offered_ = false;  // the front-end on this link said it understands it
  FanoutGroup fanout_;
  uint64_t fanout_messages_ = 0;
  uint64_t fanout_lines_ = 0;

  // Per-record scratch, reused.
  std::vector<std::string_view> fields_;
  std::string line_scratch_;
  int dispatch_depth_ = 0;
  // Per stream: the last data ended in a lone CR (or LF), so a leading LF (or CR) of the next
  // data is the rest of that line end, not an empty line.  Holds that awaited byte, or 0.
  std::vector<uint8_t> ended_in_cr_;

  std::string frontend_station_;
  std::string frontend_version_;
  int reported_streams_ = 0;
  std::vector<int> recovery_expected_;  // streams of "AA01" whose "AA38" is still due
  uint64_t keepalives_ = 0;
  FrontendCounterValues frontend_counters_;
  bool counters_warned_ = false;
};

}  // namespace qx
