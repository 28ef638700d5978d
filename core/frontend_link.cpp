#include "core/frontend_link.h"

#include <algorithm>
#include <boost/asio/connect.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/write.hpp>
#include <charconv>
#include <cstdio>

#include "core/link_secret.h"
#include "core/sha256.h"
#include "core/text_util.h"

namespace qx {

namespace asio = boost::asio;
using asio::ip::tcp;

namespace {

constexpr char kElement = '\x03';  // joins the elements of a message to the front-end
constexpr std::string_view kAlertBox[] = {
    "    ***********************************************",
    "    *   Close all other instances of cluster.exe  *",
    "    *   Then press \"Connect Winsock\"              *",
    "    *   ... if you still have a problem,          *",
    "    *   make sure winsock.exe is running          *",
    "    ***********************************************",
};
// A line that never ends is handed on once it is this long, so a stream cannot make the
// node hold unbounded text.
constexpr size_t kMaxLineCarry = 8192;
constexpr int kQuickRetries = 20;  // 5 s of quarter-second retries after starting the front-end
constexpr std::string_view kAwaitingCall = "    *    ";
constexpr std::string_view kHeading = "DataArrival";

void AppendInt(std::string& out, long long value) {
  char buf[24];
  const auto [end, ec] = std::to_chars(buf, buf + sizeof buf, value);
  out.append(buf, end);
}

void ReplaceFirst(std::string& text, std::string_view from, std::string_view to) {
  const size_t pos = text.find(from);
  if (pos != std::string::npos) text.replace(pos, from.size(), to);
}

void ReplaceAll(std::string& text, std::string_view from, std::string_view to) {
  size_t pos = 0;
  while ((pos = text.find(from, pos)) != std::string::npos) {
    text.replace(pos, from.size(), to);
    pos += to.size();
  }
}

// "in" or "out:<label>" to the label ("" for inbound).
std::string_view LabelOfKind(std::string_view kind) {
  return kind.starts_with("out:") ? kind.substr(4) : std::string_view{};
}

}  // namespace

void NormaliseTextNodeLine(std::string_view line, std::string& out) {
  out.assign(line);
  ReplaceFirst(out, "0  ", "  ");
  ReplaceAll(out, ":   ", ":");
  ReplaceAll(out, ":  ", ":");
  ReplaceAll(out, ": ", ":");
  ReplaceFirst(out, "   ", "  ");
}

FrontendLink::FrontendLink(asio::io_context& io, StreamTable& table, ErrorLog& log,
                           Monitor& monitor, const Clock& clock, LinkEvents& events,
                           FrontendLinkOptions options)
    : io_(io),
      table_(table),
      log_(log),
      monitor_(monitor),
      clock_(clock),
      events_(events),
      options_(std::move(options)),
      arrival_(*this, options_.pending_capacity),
      resolver_(io),
      socket_(io),
      retry_timer_(io),
      connect_timer_(io),
      qrv_timer_(io),
      watchdog_timer_(io),
      proof_timer_(io),
      hand_over_timer_(io) {
  for (auto& b : read_buffers_) b.resize(std::max<size_t>(options_.read_size, 512));
  fields_.reserve(16);
  out_.reserve(64 * 1024);
}

FrontendLink::~FrontendLink() {
  alive_.reset();
  boost::system::error_code ignored;
  resolver_.cancel();
  socket_.close(ignored);
}

// ---------------------------------------------------------------------------------------
// Records

void FrontendLink::OnRecord(std::string_view record) {
  ++dispatch_depth_;
  struct Leave {
    int& depth;
    ~Leave() { --depth; }
  } leave{dispatch_depth_};

  if (!peer_proven_) {
    // Records from a connection whose front-end has not proved itself, or has failed to
    // (the rest of the arrival that held the failure), are never acted on.
    if (state_ == State::kProving) HandleProofRecord(record);
    return;
  }
  // After the front-end's answer to a hand-over it holds all input for the next node.
  if (input_held_) return;
  const std::string_view code = record.substr(0, 4);
  if (code == "AA00") {
    HandleData(record);
  } else if (code == "AA16") {
    HandleCall(record);
  } else if (code == "AA17") {
    HandleClosed(record);
  } else if (code == "AA01") {
    HandleStreamList(record);
  } else if (code == "AA04") {
    HandleAttribute(record);
  } else if (code == "AA02") {
    HandleCount(record);
  } else if (code == "AA06") {
    HandleReport(record);
  } else if (code == "AA38") {
    HandleRecovery(record);
  } else if (record.find("AA18") != std::string_view::npos) {
    HandleKeepAlive();
  } else if (code == "AA05") {
    HandleTimedOut(record);
  } else if (record.starts_with("QRV")) {
    HandleAnnouncement(record);
  } else if (code == "AA03") {
    HandleStreamEvent(record);
  } else if (code == "AA19") {
    HandleOutgoingFailed(record);
  } else if (code == "AA20") {
    HandleCounters(record);
  } else if (code == "AA21") {
    HandleInputHeld();
  } else if (code == FanoutGroup::kCapabilityCode) {
    HandleCapabilities(record);
  }
  // Unknown codes are ignored; the handshake still sees any record that mentions "AA03".
  if (record.find("AA03") != std::string_view::npos) {
    events_.OnHandshakeRecord(table_.current(), record);
  }
}

void FrontendLink::OnRecordError(std::string_view record, std::string_view what) {
  std::string message(what);
  message += " where = ";
  message += record.substr(0, 4);
  log_.Write(kHeading, message);
}

int FrontendLink::StreamField(std::string_view field, std::string_view code) {
  long long n = 0;
  if (!ParseInt(field, n) || n < 0 || n > kMaxStreamNumber) {
    std::string message = " where = ";
    message += code;
    message += " bad stream number \"";
    message += field.substr(0, 32);
    message += '"';
    log_.Write(kHeading, message);
    return 0;
  }
  if (n == 0) {
    log_.Write("WinsockCluster_DataArrival Templong = 0", "unknown error");
    return 0;
  }
  GrowTo(int(n));
  return int(n);
}

void FrontendLink::GrowTo(int stream) {
  table_.EnsureCapacity(stream);
  if (ended_in_cr_.size() <= size_t(table_.high_socket())) {
    ended_in_cr_.resize(size_t(table_.high_socket()) + 1, 0);
  }
}

void FrontendLink::HandleData(std::string_view record) {
  // "AA00^<stream>^<data>": at most three parts, because the data may hold "^".
  const size_t a = record.find('^');
  if (a == std::string_view::npos) return;
  const size_t b = record.find('^', a + 1);
  const std::string_view stream_field =
      record.substr(a + 1, b == std::string_view::npos ? std::string_view::npos : b - a - 1);
  const int stream = StreamField(stream_field, "AA00");
  if (stream == 0 || b == std::string_view::npos) return;
  table_.set_current(stream);
  DeliverText(stream, record.substr(b + 1));
}

void FrontendLink::DeliverText(int stream, std::string_view data) {
  size_t pos = 0;
  const char pair = char(ended_in_cr_[size_t(stream)]);
  if (pair != 0 && !data.empty() && data.front() == pair) pos = 1;
  ended_in_cr_[size_t(stream)] = 0;
  const size_t size = data.size();
  while (pos < size) {
    size_t end = pos;
    while (end < size && data[end] != '\r' && data[end] != '\n') ++end;
    StreamEntry& entry = table_.at(stream);
    if (end == size) {
      // No line end yet: the rest waits for the next data of this stream.
      entry.line_carry.append(data.substr(pos));
      if (entry.line_carry.size() >= kMaxLineCarry) {
        std::string piece = std::move(entry.line_carry);
        entry.line_carry.clear();
        table_.set_current(stream);
        events_.OnStreamPiece(stream, piece);
      } else {
        table_.set_current(stream);
        if (events_.OnStreamPartial(stream, entry.line_carry)) entry.line_carry.clear();
      }
      return;
    }
    // CR LF and LF CR are one line end each, also when the second half comes in the next data.
    size_t next = end + 1;
    const char other = data[end] == '\r' ? '\n' : '\r';
    if (next < size && data[next] == other) {
      ++next;
    } else if (next == size) {
      ended_in_cr_[size_t(stream)] = uint8_t(other);
    }
    const std::string_view piece = data.substr(pos, end - pos);
    if (entry.line_carry.empty()) {
      DeliverLine(stream, piece);
    } else {
      std::string line = std::move(entry.line_carry);
      entry.line_carry.clear();
      line.append(piece);
      DeliverLine(stream, line);
    }
    pos = next;
  }
}

void FrontendLink::DeliverLine(int stream, std::string_view line) {
  const StreamEntry& entry = table_.at(stream);
  std::string local;
  if (entry.state > kStateUserLast && line.find("DX d") != std::string_view::npos) {
    // A nested dispatch (a handler that ran the event loop) must not reuse the scratch that
    // the outer line still points into.
    std::string& out = dispatch_depth_ > 1 ? local : line_scratch_;
    NormaliseTextNodeLine(line, out);
    line = out;
  }
  table_.set_current(stream);
  events_.OnStreamLine(stream, line);
}

void FrontendLink::ShowConnection(int stream, std::string_view caption, std::string_view colour) {
  monitor_.Write(MonitorChannel::kConnections, caption, colour, stream);
}

void FrontendLink::HandleCall(std::string_view record) {
  // "AA16^<call>^<stream>^<value>", exactly.
  SplitInto(record, '^', fields_);
  if (fields_.size() != 4) return;
  const std::string_view call = fields_[1];
  const int stream = StreamField(fields_[2], "AA16");
  if (stream == 0) return;
  table_.at(stream).call.assign(call);
  ShowConnection(stream, call);
}

void FrontendLink::HandleClosed(std::string_view record) {
  // "AA17^<tag>^<stream>^<reason>"
  SplitInto(record, '^', fields_);
  const std::string_view field = fields_.size() > 2 ? fields_[2] : std::string_view{};
  long long n = 0;
  if (!ParseInt(field, n) || !table_.InRange(int(std::clamp<long long>(n, -1, INT32_MAX)))) {
    // The front-end speaks of a stream this node never had: the two sides disagree, and
    // only a fresh start of the link (with its stream report) brings them together again.
    log_.Write(kHeading, "AA17 Error, Where = 21 ");
    std::string message = "Error - Restarting WinsockCluster ";
    message += record;
    message += " Where = 21 tempdata2(2) = ";
    message += field;
    message += " HighSocket = ";
    AppendInt(message, table_.high_socket());
    log_.Write(kHeading, message);
    if (!restart_posted_) {
      restart_posted_ = true;
      std::weak_ptr<int> alive = alive_;
      asio::post(io_, [this, alive] {
        if (alive.expired()) return;
        restart_posted_ = false;
        Restart();
      });
    }
    return;
  }
  const int stream = int(n);
  GrowTo(stream);  // the table may have grown without the link's per-stream columns
  StreamGone(stream);
  const auto it = std::find(recovery_expected_.begin(), recovery_expected_.end(), stream);
  if (it != recovery_expected_.end()) {
    recovery_expected_.erase(it);
    if (recovery_expected_.empty()) {
      log_.Write(kHeading, "Recovery complete");
      monitor_.Console("Recovery complete");
      events_.OnRecoveryComplete();
    }
  }
}

void FrontendLink::StreamGone(int stream) {
  table_.set_current(stream);
  ShowConnection(stream, {});
  const int previous_state = table_.at(stream).state;
  events_.OnStreamClosed(stream, previous_state);
  table_.Reset(stream);
  ended_in_cr_[size_t(stream)] = 0;
  ForgetBacklog(stream);
}

void FrontendLink::HandleStreamList(std::string_view record) {
  // "AA01^<count>^<stream>,<stream>,..."
  const auto started = std::chrono::steady_clock::now();
  const auto elapsed = [&] {
    return std::to_string(
        std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now() - started)
            .count());
  };
  monitor_.Console(record);
  log_.Write(kHeading, "Loading Winsock Streams ");
  SplitInto(record, '^', fields_);
  const int count = fields_.size() > 1 ? ParseIntOr(fields_[1], 0) : 0;
  std::vector<int> streams;
  for (size_t i = 2; i < fields_.size(); ++i) {
    for (std::string_view item : Split(fields_[i], ',')) {
      item = Trim(item);
      if (item.empty()) continue;
      long long n = 0;
      if (ParseInt(item, n) && n >= 1 && n <= kMaxStreamNumber) {
        streams.push_back(int(n));
      } else {
        OnRecordError(record, "bad stream number");
      }
    }
  }
  std::sort(streams.begin(), streams.end());
  streams.erase(std::unique(streams.begin(), streams.end()), streams.end());
  // What this node still holds and the front-end does not report is gone: the front-end was
  // restarted (its connections died with it) or the stream closed while the link was down.
  // Each goes the way of a closed stream, with its log-out told to the network.
  for (int stream = 1; stream <= table_.high_socket(); ++stream) {
    if (table_.at(stream).state == kStateFree) continue;
    if (std::binary_search(streams.begin(), streams.end(), stream)) continue;
    log_.Write(kHeading, "Stream " + std::to_string(stream) + " (" + table_.at(stream).call +
                             ") is no longer open at the front-end");
    StreamGone(stream);
  }
  events_.OnStreamListReported(count);
  log_.Write(kHeading, "Finished Dimensioning " + elapsed() + " secs");
  reported_streams_ = count;
  for (int stream : streams) {
    GrowTo(stream);
    const StreamEntry& entry = table_.at(stream);
    ShowConnection(stream, entry.call.empty() ? kAwaitingCall : std::string_view(entry.call));
  }
  recovery_expected_ = std::move(streams);
  log_.Write(kHeading, "Finished Loading Streams " + elapsed() + " secs");
  if (recovery_expected_.empty()) {
    log_.Write(kHeading, "Recovery complete");
    monitor_.Console("Recovery complete");
    events_.OnRecoveryComplete();
  }
}

void FrontendLink::HandleAttribute(std::string_view record) {
  // "AA04^<stream>^<text>"; the text may hold "^".
  const auto parts = SplitLimit(record, '^', 3);
  if (parts.size() < 3) return;
  const int stream = StreamField(parts[1], "AA04");
  if (stream == 0) return;
  table_.at(stream).attribute.assign(parts[2]);
}

void FrontendLink::HandleCount(std::string_view record) {
  // "AA02^<value>^<stream>", exactly.
  SplitInto(record, '^', fields_);
  if (fields_.size() != 3) return;
  const int value = ParseIntOr(fields_[1], 0);
  const int stream = StreamField(fields_[2], "AA02");
  if (value != 0) reported_streams_ = value;
  if (stream == 0) return;
  const StreamEntry& entry = table_.at(stream);
  ShowConnection(stream, entry.call.empty() ? kAwaitingCall : std::string_view(entry.call));
}

void FrontendLink::HandleReport(std::string_view record) {
  // "AA06^<text>^<stream>^..."
  SplitInto(record, '^', fields_);
  if (fields_.size() < 3) return;
  const std::string_view text = fields_[1];
  const int stream = StreamField(fields_[2], "AA06");
  if (stream == 0) return;
  table_.set_current(stream);
  char number[16];
  std::snprintf(number, sizeof number, "%4d", stream);
  std::string line = number;
  line += "             -> ";
  line += text;
  monitor_.Write(MonitorChannel::kConsole, line, {}, stream);
}

void FrontendLink::HandleRecovery(std::string_view record) {
  // "AA38^<tag>^<stream>^<peer>^<port index>^<call>^<state>^<kind>^<attributes>"
  SplitInto(record, '^', fields_);
  if (fields_.size() < 3) return;
  const auto field = [&](size_t i) { return i < fields_.size() ? fields_[i] : std::string_view{}; };
  const int stream = StreamField(fields_[2], "AA38");
  if (stream == 0) return;
  long long tag = 0;
  ParseInt(field(1), tag);
  if (table_.at(stream).state != kStateFree && table_.at(stream).tag != tag) {
    // The number now belongs to another connection: the one this node knew is gone.
    StreamGone(stream);
    SplitInto(record, '^', fields_);  // the handlers above may have used the scratch
  }
  table_.Reset(stream);
  ended_in_cr_[size_t(stream)] = 0;
  StreamEntry& entry = table_.at(stream);
  entry.tag = tag;
  entry.peer_address.assign(field(3));
  entry.port_index = ParseIntOr(field(4), 0);
  entry.call.assign(field(5));
  entry.state = ParseIntOr(field(6), kStateFree);
  entry.connection_label.assign(LabelOfKind(field(7)));
  entry.kind.assign(field(7));
  entry.frontend_attributes.assign(field(8));
  // When the connection began, if the node gave it to keep; a time to come cannot be.
  entry.since = clock_.Now();
  long long since = 0;
  SysTime began;
  if (ParseInt(StreamAttribute(entry.frontend_attributes, "since"), since) &&
      PastEpochSeconds(since, entry.since, began)) {
    entry.since = began;
  }
  const bool node_or_feed = entry.state > kStateUserLast;
  if (entry.IsUser() || node_or_feed) entry.login_stage = LoginStage::kLoggedIn;
  const std::string_view colour = node_or_feed ? "orange" : entry.IsUser() ? "white" : "red";
  ShowConnection(stream, entry.call.empty() ? kAwaitingCall : std::string_view(entry.call), colour);
  table_.set_current(stream);
  events_.OnStreamRecovered(stream);

  const auto it = std::find(recovery_expected_.begin(), recovery_expected_.end(), stream);
  if (it != recovery_expected_.end()) {
    recovery_expected_.erase(it);
    if (recovery_expected_.empty()) {
      log_.Write(kHeading, "Recovery complete");
      monitor_.Console("Recovery complete");
      events_.OnRecoveryComplete();
    }
  }
}

void FrontendLink::HandleKeepAlive() {
  // The reply goes out at once and nothing waits after it: a pause here would stall every
  // stream, and the front-end needs none because the link keeps the order of messages.
  ++keepalives_;
  SendRaw("rxAA18");
}

void FrontendLink::HandleTimedOut(std::string_view record) {
  // "AA05^<stream>^..."
  SplitInto(record, '^', fields_);
  if (fields_.size() < 2) return;
  const int stream = StreamField(fields_[1], "AA05");
  if (stream == 0) return;
  table_.set_current(stream);
  events_.OnStreamTimedOut(stream);
  StreamEntry& entry = table_.at(stream);
  entry.call = "T/O";
  ShowConnection(stream, "no call");
  entry.state = kStateTimedOut;
}

void FrontendLink::HandleAnnouncement(std::string_view record) {
  // "QRV <station>^<version>^<proof>"; the proof has been checked before this is called.
  const size_t caret = record.find('^');
  if (caret != std::string_view::npos) {
    frontend_station_.assign(caret > 4 ? record.substr(4, caret - 4) : std::string_view{});
    const std::string_view rest = record.substr(caret + 1);
    frontend_version_.assign(rest.substr(0, rest.find('^')));
  } else {
    frontend_version_ = "2.xx";
    if (record.size() > 12) frontend_station_.assign(record.substr(4));
  }
  // The front-end is ready for the stream report a moment after it announced itself.
  qrv_timer_.expires_after(options_.qrv_reply_delay);
  std::weak_ptr<int> alive = alive_;
  qrv_timer_.async_wait([this, alive, gen = generation_](const boost::system::error_code& ec) {
    if (ec || alive.expired() || gen != generation_) return;
    SendRaw("8270");
  });
}

void FrontendLink::HandleProofRecord(std::string_view record) {
  if (record.starts_with("AA39^") && our_nonce_.empty()) {
    // "AA39^<nonce>": the front-end's challenge.  The answer proves that this node knows
    // the secret and brings a nonce of ours for the front-end's own proof.
    const std::string_view challenge = record.substr(5);
    if (options_.secret.empty()) {
      ProofFailed("there is no usable link secret here (link.key)");
      return;
    }
    if (!ValidLinkNonce(challenge)) {
      ProofFailed("the front-end's challenge is not a nonce");
      return;
    }
    challenge_.assign(challenge);
    our_nonce_ = MakeLinkNonce();
    if (our_nonce_.empty()) {
      ProofFailed("no random bytes for a nonce");
      return;
    }
    std::string message = "4";
    message.push_back(kElement);
    message += our_nonce_;
    message.push_back(kElement);
    message += NodeLinkProof(options_.secret, challenge_, our_nonce_);
    message.push_back(kMessageEnd);
    QueueHandshake(message);
    return;
  }
  if (record.starts_with("QRV") && !our_nonce_.empty()) {
    // "QRV <station>^<version>^<proof>": the proof is the last field.
    const size_t caret = record.rfind('^');
    const std::string_view proof =
        caret == std::string_view::npos ? std::string_view{} : record.substr(caret + 1);
    if (!ConstantTimeEquals(FrontLinkProof(options_.secret, our_nonce_, challenge_), proof)) {
      ProofFailed("the front-end could not prove it knows the link secret");
      return;
    }
    LinkProven();
    HandleAnnouncement(record);
    return;
  }
  std::string what = "the front-end sent \"";
  what += record.substr(0, 4);
  what += "\" before proving it knows the link secret";
  ProofFailed(what);
}

void FrontendLink::ProofFailed(std::string_view reason) {
  if (!proof_failure_reported_) {
    // Once per run of failures: a stranger on the link port would fill the log otherwise.
    proof_failure_reported_ = true;
    log_.Write("WinsockCluster_Error", std::string(reason) + "; closing the link, will retry");
    monitor_.Console("Front-end link refused: " + std::string(reason));
  }
  CloseSocket();
  ScheduleRetry();
}

void FrontendLink::LinkProven() {
  state_ = State::kConnected;
  peer_proven_ = true;
  proof_timer_.cancel();
  outage_reported_ = false;
  alert_due_ = false;
  proof_failure_reported_ = false;
  overflow_reported_ = false;
  monitor_.Console("Winsock Connected");
  events_.OnLinkUp();
}

void FrontendLink::HandleStreamEvent(std::string_view record) {
  // "AA03^Connect Request^<stream>^<peer>^<tag>^<kind>^<port index>", or
  // "AA03^<text>^<stream>..." for text typed on a stream still logging in.
  SplitInto(record, '^', fields_);
  if (fields_.size() < 3) return;
  const auto field = [&](size_t i) { return i < fields_.size() ? fields_[i] : std::string_view{}; };
  const std::string_view event = fields_[1];
  const int stream = StreamField(fields_[2], "AA03");
  if (stream == 0) return;
  if (event != "Connect Request") {
    table_.set_current(stream);
    DeliverText(stream, event);
    return;
  }
  table_.Reset(stream);
  ended_in_cr_[size_t(stream)] = 0;
  StreamEntry& entry = table_.at(stream);
  entry.state = kStateLoggingIn;
  entry.peer_address.assign(field(3));
  long long tag = 0;
  ParseInt(field(4), tag);
  entry.tag = tag;
  entry.connection_label.assign(LabelOfKind(field(5)));
  entry.kind.assign(field(5));
  entry.port_index = ParseIntOr(field(6), 0);
  entry.since = clock_.Now();
  ShowConnection(stream, kAwaitingCall);
  std::string line = std::to_string(stream);
  line += " ->";
  line += entry.peer_address;
  monitor_.Write(MonitorChannel::kConsole, line, {}, stream);
  table_.set_current(stream);
  events_.OnConnectRequest(stream);
}

void FrontendLink::HandleOutgoingFailed(std::string_view record) {
  // "AA19^<label>^<reason>"
  const auto parts = SplitLimit(record, '^', 3);
  const std::string label(parts.size() > 1 ? parts[1] : std::string_view{});
  const std::string reason(parts.size() > 2 ? parts[2] : std::string_view{});
  monitor_.Console("Outgoing connection " + label + " failed: " + reason);
  events_.OnOutgoingFailed(label, reason);
}

void FrontendLink::HandleCapabilities(std::string_view record) {
  // "AA40^<feature>,...": what this front-end understands beyond the messages every
  // front-end takes.  Older front-ends never send it; the node then keeps to those.
  const bool fanout = OffersFanout(record);
  if (fanout && !fanout_offered_) {
    log_.Write(kHeading, "The front-end takes one message for a spot line to many users");
  }
  if (!fanout) CloseFanout();
  fanout_offered_ = fanout;
}

void FrontendLink::HandleCounters(std::string_view record) {
  // "AA20^<name>=<value>^...": every few seconds, so a pair that cannot be read is logged
  // once, not every time.
  if (frontend_counters_.Take(record) > 0 && !counters_warned_) {
    counters_warned_ = true;
    log_.Write(kHeading, "AA20: front-end counters that cannot be read were left out: " +
                             std::string(record.substr(0, 200)));
  }
}

// ---------------------------------------------------------------------------------------
// Watchdog

void FrontendLink::Tick() {
  const LinkArrival::BusyReport report = arrival_.Tick();
  if (report.seconds == 0) return;
  if (report.reset || options_.debug) {
    log_.Write("Watchdog", LinkArrival::BusyText(report.seconds));
  }
}

void FrontendLink::StartWatchdog() {
  watchdog_timer_.expires_after(std::chrono::seconds(1));
  std::weak_ptr<int> alive = alive_;
  watchdog_timer_.async_wait([this, alive](const boost::system::error_code& ec) {
    if (ec || alive.expired() || state_ == State::kStopped) return;
    Tick();
    StartWatchdog();
  });
}

// ---------------------------------------------------------------------------------------
// Connection

void FrontendLink::Start() {
  if (state_ == State::kStopped) state_ = State::kIdle;
  if (options_.own_watchdog_timer) StartWatchdog();
  Connect();
}

void FrontendLink::Connect() {
  if (state_ == State::kConnected || state_ == State::kConnecting || state_ == State::kProving) {
    return;
  }
  retry_timer_.cancel();
  StartConnect();
}

void FrontendLink::Restart() {
  if (state_ == State::kStopped) return;
  const bool was_up = state_ == State::kConnected;
  CloseSocket();
  if (was_up) events_.OnLinkDown();
  StartConnect();
}

void FrontendLink::Stop() {
  const bool was_up = state_ == State::kConnected;
  CloseSocket();
  state_ = State::kStopped;
  retry_timer_.cancel();
  watchdog_timer_.cancel();
  if (was_up) events_.OnLinkDown();
}

void FrontendLink::CloseSocket() {
  ++generation_;
  boost::system::error_code ignored;
  resolver_.cancel();
  connect_timer_.cancel();
  qrv_timer_.cancel();
  proof_timer_.cancel();
  socket_.close(ignored);
  state_ = State::kIdle;
  challenge_.clear();
  our_nonce_.clear();
  input_held_ = false;
  // A new connection starts on a record boundary; what was half received or not yet
  // written belongs to the old one.
  arrival_.Reset();
  out_.clear();
  fanout_.Drop();
  fanout_offered_ = false;  // the next front-end says again what it understands
  DropAllBacklogs();
}

void FrontendLink::StartConnect() {
  ++generation_;
  state_ = State::kConnecting;
  const uint64_t gen = generation_;
  std::weak_ptr<int> alive = alive_;
  resolver_.async_resolve(
      options_.host, options_.port,
      [this, alive, gen](const boost::system::error_code& ec, tcp::resolver::results_type results) {
        if (alive.expired() || gen != generation_) return;
        if (ec) {
          OnConnectFailed(ec);
          return;
        }
        connect_timer_.expires_after(options_.connect_timeout);
        connect_timer_.async_wait([this, alive, gen](const boost::system::error_code& tec) {
          if (tec || alive.expired() || gen != generation_) return;
          boost::system::error_code ignored;
          socket_.close(ignored);  // the pending connect completes with an error
        });
        asio::async_connect(
            socket_, results,
            [this, alive, gen](const boost::system::error_code& cec, const tcp::endpoint&) {
              if (alive.expired() || gen != generation_) return;
              connect_timer_.cancel();
              if (cec) {
                OnConnectFailed(cec);
              } else {
                OnConnected();
              }
            });
      });
}

void FrontendLink::OnConnected() {
  // Connected, but not yet to a front-end known to hold the secret: the link is up only
  // once its proof has arrived (LinkProven).
  state_ = State::kProving;
  peer_proven_ = false;
  quick_retries_ = 0;
  boost::system::error_code ignored;
  socket_.set_option(tcp::no_delay(true), ignored);
  arrival_.Reset();
  QueueHandshake("QX Cluster");
  StartRead(walking_[0] ? 1 : 0);
  proof_timer_.expires_after(options_.proof_timeout);
  std::weak_ptr<int> alive = alive_;
  proof_timer_.async_wait([this, alive, gen = generation_](const boost::system::error_code& ec) {
    if (ec || alive.expired() || gen != generation_ || state_ != State::kProving) return;
    ProofFailed("the front-end did not prove it knows the link secret in time");
  });
}

void FrontendLink::OnConnectFailed(const boost::system::error_code& ec) {
  CloseSocket();
  if (!outage_reported_) {
    // Once per outage, not once per retry: the console would fill with boxes otherwise.
    outage_reported_ = true;
    log_.Write("WinsockCluster_Error", ec.message());
    if (on_unreachable_ && on_unreachable_()) {
      // The node has just started the front-end, as on every first start: the box is for a
      // front-end that still cannot be reached once it has had its moment to listen.
      quick_retries_ = kQuickRetries;
      alert_due_ = true;
    } else {
      for (std::string_view line : kAlertBox) monitor_.Console(line);
    }
  } else if (alert_due_ && quick_retries_ == 0) {
    alert_due_ = false;
    for (std::string_view line : kAlertBox) monitor_.Console(line);
  }
  ScheduleRetry();
}

void FrontendLink::HandOver(std::chrono::milliseconds wait, std::function<void()> done) {
  hand_over_done_ = std::move(done);
  if (state_ != State::kConnected) {
    FinishHandOver();
    return;
  }
  SendToWinsockQuiet(std::string("6") + kElement + "stopping");
  std::weak_ptr<int> alive = alive_;
  hand_over_timer_.expires_after(wait);
  hand_over_timer_.async_wait([this, alive](const boost::system::error_code& ec) {
    if (ec || alive.expired() || !hand_over_done_) return;
    log_.Write(kHeading, "The front-end did not confirm that it holds input; stopping anyway");
    FinishHandOver();
  });
}

void FrontendLink::HandleInputHeld() {
  if (!hand_over_done_) return;  // never asked for: the front-end holds input anyway
  input_held_ = true;
  // The answers to the last records may still wait to be written.
  if (!write_in_flight_ && out_.empty() && !fanout_.open() && spots_waiting_ == 0 &&
      held_message_bytes_ == 0) {
    FinishHandOver();
  }
}

void FrontendLink::FinishHandOver() {
  if (!hand_over_done_) return;
  hand_over_timer_.cancel();
  // Not from inside a record or a write completion: done closes the socket.
  std::weak_ptr<int> alive = alive_;
  asio::post(io_, [alive, done = std::move(hand_over_done_)] {
    if (!alive.expired()) done();
  });
  hand_over_done_ = nullptr;
}

void FrontendLink::LinkLost(const boost::system::error_code& ec) {
  if (state_ == State::kProving) {
    // A front-end closes a node whose proof it does not accept: most likely link.key
    // differs between the two programs' directories.
    ProofFailed("the front-end closed the link during the handshake (" + ec.message() +
                "); do both programs use the same link.key?");
    return;
  }
  if (state_ != State::kConnected) return;
  log_.Write("WinsockCluster_Close", ec.message());
  CloseSocket();
  events_.OnLinkDown();
  if (hand_over_done_) {
    FinishHandOver();
    return;
  }
  ScheduleRetry();
}

void FrontendLink::ScheduleRetry() {
  if (state_ == State::kStopped) return;
  if (quick_retries_ > 0) {
    --quick_retries_;
    retry_timer_.expires_after(std::chrono::milliseconds(250));
  } else {
    retry_timer_.expires_after(options_.retry_interval);
  }
  std::weak_ptr<int> alive = alive_;
  retry_timer_.async_wait([this, alive](const boost::system::error_code& ec) {
    if (ec || alive.expired()) return;
    if (state_ == State::kIdle) StartConnect();
  });
}

void FrontendLink::StartRead(int buffer) {
  std::vector<char>& buf = read_buffers_[buffer];
  std::weak_ptr<int> alive = alive_;
  socket_.async_read_some(asio::buffer(buf), [this, alive, buffer, gen = generation_](
                                                 const boost::system::error_code& ec, size_t n) {
    if (alive.expired() || gen != generation_) return;
    if (ec) {
      LinkLost(ec);
      return;
    }
    const std::string_view bytes(read_buffers_[buffer].data(), n);
    // A read may be performed at once when it is started, so a buffer is handed to the next
    // read only when nothing refers to its bytes any more.
    if (arrival_.busy()) {
      // Re-entrant: the bytes are copied to the pending buffer, and the buffer is free.
      arrival_.Arrive(bytes);
      StartRead(buffer);
      return;
    }
    if (walking_[1 - buffer]) {
      // The other buffer is still being walked by an arrival that the watchdog released;
      // these bytes are handled now, from a copy, so both buffers stay safe.
      const std::string copy(bytes);
      StartRead(buffer);
      arrival_.Arrive(copy);
      return;
    }
    struct Walking {
      bool& flag;
      ~Walking() { flag = false; }
    };
    walking_[buffer] = true;
    const Walking walking{walking_[buffer]};
    StartRead(1 - buffer);
    arrival_.Arrive(bytes);
  });
}

// ---------------------------------------------------------------------------------------
// Output

bool FrontendLink::CanQueue(size_t bytes) {
  if (state_ != State::kConnected) return false;
  if (out_.size() + held_message_bytes_ + bytes > options_.max_output_bytes) {
    // The front-end has stopped taking what the node sends (it is overloaded or hung).  The
    // bound keeps the node's memory in check; what is dropped is counted and reported when
    // the link has room again, so the sysop sees how much was lost.
    bytes_dropped_ += bytes;
    ++episode_dropped_;
    if (!overflow_reported_) {
      overflow_reported_ = true;
      log_.Write("SendToWinsock", "output to the front-end over its bound, dropping messages");
    }
    return false;
  }
  if (overflow_reported_ && out_.size() < options_.max_output_bytes / 2) {
    log_.Write("SendToWinsock", "output to the front-end under its bound again; " +
                                    std::to_string(episode_dropped_) + " messages were dropped");
    overflow_reported_ = false;
    episode_dropped_ = 0;
  }
  return true;
}

void FrontendLink::Queued() {
  CheckCongestion();
  if (flush_posted_ || write_in_flight_) return;
  flush_posted_ = true;
  std::weak_ptr<int> alive = alive_;
  asio::post(io_, [this, alive] {
    if (alive.expired()) return;
    flush_posted_ = false;
    Flush();
  });
}

void FrontendLink::Flush() {
  CloseFanout();
  if (write_in_flight_) return;
  if (state_ != State::kConnected && state_ != State::kProving) return;
  FeedWaiting();
  EndEpisodeIfDrained();
  if (out_.empty()) return;
  std::swap(out_, writing_);
  out_.clear();
  write_in_flight_ = true;
  std::weak_ptr<int> alive = alive_;
  asio::async_write(
      socket_, asio::buffer(writing_),
      [this, alive, gen = generation_](const boost::system::error_code& ec, size_t n) {
        if (alive.expired()) return;
        write_in_flight_ = false;
        writing_.clear();
        if (gen != generation_) {
          // The write belonged to a closed connection; a new one may have
          // queued its greeting meanwhile.
          Flush();
          return;
        }
        if (ec) {
          LinkLost(ec);
          return;
        }
        bytes_out_ += n;
        Flush();
        if (input_held_ && !write_in_flight_ && spots_waiting_ == 0 && held_message_bytes_ == 0) {
          FinishHandOver();
        }
      });
}

// ---------------------------------------------------------------------------------------
// Overload

void FrontendLink::CheckCongestion() {
  if (congested_ || Backlog() <= options_.soft_output_bytes) return;
  congested_ = true;
  episode_shed_ = 0;
  episode_users_ = 0;
  log_.Write("SendToWinsock", "the front-end is falling behind (" + std::to_string(Backlog()) +
                                  " bytes waiting): spot lines now wait per user and the "
                                  "oldest are dropped");
}

std::string& FrontendLink::TargetFor(int stream) {
  if (!backlogs_.empty()) {
    const auto it = backlogs_.find(stream);
    if (it != backlogs_.end() && !it->second.items.empty()) {
      it->second.items.push_back({});
      return it->second.items.back().message;
    }
  }
  return out_;
}

void FrontendLink::Held(const std::string& target) {
  if (&target != &out_) held_message_bytes_ += target.size();
}

void FrontendLink::QueueSpot(int stream, const SharedText& text) {
  CloseFanout();
  StreamBacklog& b = backlogs_[stream];
  const int64_t tag = table_.at(stream).tag;
  if (b.tag != tag && !b.items.empty()) {
    ForgetBacklog(stream);  // left by an earlier connection on the number
    QueueSpot(stream, text);
    return;
  }
  b.tag = tag;
  if (b.items.empty()) feed_order_.push_back(stream);
  if (b.spots >= std::max<size_t>(options_.stream_spot_queue, 1)) {
    // Oldest first: the newest spots are the ones still worth having.
    const auto oldest = std::find_if(b.items.begin(), b.items.end(),
                                     [](const Waiting& w) { return w.spot != nullptr; });
    b.items.erase(oldest);
    --b.spots;
    --spots_waiting_;
    ++b.shed;
    ++spots_shed_;
    ++episode_shed_;
  }
  b.items.push_back({text, {}});
  ++b.spots;
  ++spots_waiting_;
  Queued();
}

void FrontendLink::FeedWaiting() {
  while (!feed_order_.empty() && Backlog() < options_.soft_output_bytes) {
    const int stream = feed_order_.front();
    feed_order_.pop_front();
    const auto it = backlogs_.find(stream);
    if (it == backlogs_.end() || it->second.items.empty()) continue;
    StreamBacklog& b = it->second;
    if (!table_.InRange(stream) || table_.at(stream).state == kStateFree ||
        table_.at(stream).tag != b.tag) {
      ForgetBacklog(stream);
      continue;
    }
    Waiting& w = b.items.front();
    if (w.spot) {
      --b.spots;
      --spots_waiting_;
      FrameText(out_, stream, *w.spot);
    } else {
      held_message_bytes_ -= w.message.size();
      out_.append(w.message);
    }
    b.items.pop_front();
    if (!b.items.empty()) {
      feed_order_.push_back(stream);
    } else if (b.shed == 0) {
      backlogs_.erase(it);  // kept only while the stream is still to be told of a loss
    }
  }
}

void FrontendLink::EndEpisodeIfDrained() {
  if (!congested_ || spots_waiting_ != 0 || held_message_bytes_ != 0 ||
      Backlog() > options_.soft_output_bytes / 2) {
    return;
  }
  congested_ = false;
  for (auto& [stream, b] : backlogs_) {
    if (b.shed == 0 || !table_.InRange(stream) || table_.at(stream).state == kStateFree ||
        table_.at(stream).tag != b.tag) {
      continue;
    }
    AppendShedNotice(out_, stream, b);
  }
  backlogs_.clear();
  feed_order_.clear();
  log_.Write("SendToWinsock", "the front-end has caught up; " + std::to_string(episode_shed_) +
                                  " spot lines were dropped for " + std::to_string(episode_users_) +
                                  (episode_users_ == 1 ? " user" : " users"));
  episode_shed_ = 0;
  episode_users_ = 0;
}

void FrontendLink::AppendShedNotice(std::string& out, int stream, StreamBacklog& backlog) {
  std::string line = shed_notice_ ? shed_notice_(stream, backlog.shed) : std::string();
  if (line.empty()) {
    line = "*** ";
    AppendInt(line, static_cast<long long>(backlog.shed));
    line += backlog.shed == 1 ? " spot was" : " spots were";
    line += " dropped: the node could not keep up.\r\n";
  }
  backlog.shed = 0;
  ++episode_users_;
  FrameText(out, stream, line);
}

void FrontendLink::ForgetBacklog(int stream) {
  const auto it = backlogs_.find(stream);
  if (it == backlogs_.end()) return;
  for (const Waiting& w : it->second.items) {
    if (w.spot) {
      --spots_waiting_;
    } else {
      held_message_bytes_ -= w.message.size();
    }
  }
  backlogs_.erase(it);
}

void FrontendLink::DropAllBacklogs() {
  if (congested_) {
    log_.Write("SendToWinsock", "the link closed while the front-end was behind; " +
                                    std::to_string(episode_shed_) + " spot lines were dropped");
  }
  congested_ = false;
  episode_shed_ = 0;
  episode_users_ = 0;
  backlogs_.clear();
  feed_order_.clear();
  spots_waiting_ = 0;
  held_message_bytes_ = 0;
}

// Link-control messages are never dropped for the bound: a lost disconnect or identity would
// leave the two programs disagreeing about a connection.  They are small and few.
void FrontendLink::SendRaw(std::string_view text) {
  if (text.empty() || state_ != State::kConnected) return;
  CloseFanout();
  out_.append(text);
  Queued();
}

void FrontendLink::QueueHandshake(std::string_view bytes) {
  CloseFanout();
  out_.append(bytes);
  Queued();
}

void FrontendLink::SendToWinsockQuiet(std::string_view message) {
  if (state_ != State::kConnected) return;
  CloseFanout();
  out_.append(message);
  out_.push_back(kMessageEnd);
  Queued();
}

void FrontendLink::SendToWinsockEcho(std::string_view message) {
  if (!connected()) return;
  SendToWinsockQuiet(message);
  std::string line = "Connected ";
  line += message;
  monitor_.Console(line);
}

void FrontendLink::FrameText(std::string& out, int stream, std::string_view text) const {
  // "0" ETX stream ETX text ETX tag EOT
  out.push_back('0');
  out.push_back(kElement);
  AppendInt(out, stream);
  out.push_back(kElement);
  if (text.find(kMessageEnd) == std::string_view::npos) {
    out.append(text);
  } else {
    // Chr 4 ends a message; one inside the text would cut it short and make the rest a
    // message of its own.  Chr 3 may stay: the text runs up to the last element.
    for (char c : text) {
      if (c != kMessageEnd) out.push_back(c);
    }
  }
  out.push_back(kElement);
  AppendInt(out, table_.at(stream).tag);
  out.push_back(kMessageEnd);
}

void FrontendLink::QueueStreamText(int stream, std::string_view text) {
  // A free entry has tag 0, which the front-end takes as "any connection": a late message
  // for a closed stream must not reach whoever got the number next.
  if (text.empty() || !table_.InRange(stream) || table_.at(stream).state == kStateFree) return;
  if (!CanQueue(text.size() + 32)) return;
  CloseFanout();
  std::string& target = TargetFor(stream);
  FrameText(target, stream, text);
  Held(target);
  Queued();
  monitor_.Write(MonitorChannel::kRaw, text, {}, stream, MonitorDirection::kOut);
}

void FrontendLink::SendSpotToStreamNo(int stream, const SharedText& text) {
  if (!text || text->empty() || !table_.InRange(stream) || table_.at(stream).state == kStateFree ||
      state_ != State::kConnected) {
    return;
  }
  if (!congested_) {
    if (fanout_offered_) {
      GroupSpot(stream, text);
    } else {
      QueueStreamText(stream, *text);
    }
    return;
  }
  QueueSpot(stream, text);
  monitor_.Write(MonitorChannel::kRaw, *text, {}, stream);
}

void FrontendLink::GroupSpot(int stream, const SharedText& text) {
  const bool joins = fanout_.CanTake(text);
  // An entry is the stream and tag; a new group also brings the text.
  if (!CanQueue(joins ? 28 : text->size() + 32)) return;
  if (!joins) {
    CloseFanout();
    fanout_.Start(text);
  }
  fanout_.Add(stream, table_.at(stream).tag);
  Queued();
  monitor_.Write(MonitorChannel::kRaw, *text, {}, stream, MonitorDirection::kOut);
}

void FrontendLink::CloseFanout() {
  if (!fanout_.open()) return;
  const size_t lines = fanout_.Close(out_);
  if (lines == 0) return;
  ++fanout_messages_;
  fanout_lines_ += lines;
}

void FrontendLink::SendToStream(std::string_view text) { QueueStreamText(table_.current(), text); }

void FrontendLink::SendToStreamNo(int stream, std::string_view text) {
  QueueStreamText(stream, text);
}

void FrontendLink::CloseStream(int stream) {
  if (!table_.InRange(stream) || table_.at(stream).state == kStateFree ||
      state_ != State::kConnected) {
    return;
  }
  CloseFanout();
  // A user who lost spots is told so before being let go.
  const auto lost = backlogs_.find(stream);
  if (lost != backlogs_.end() && lost->second.shed > 0) {
    std::string& notice = TargetFor(stream);
    AppendShedNotice(notice, stream, lost->second);
    Held(notice);
  }
  std::string& out = TargetFor(stream);
  out.push_back('1');
  out.push_back(kElement);
  AppendInt(out, stream);
  out.push_back(kElement);
  out.append("Disconnect");
  out.push_back(kElement);
  AppendInt(out, table_.at(stream).tag);
  out.push_back(kMessageEnd);
  Held(out);
  Queued();
}

void FrontendLink::OpenOutgoing(std::string_view host, int port, std::string_view label) {
  if (state_ != State::kConnected) return;
  CloseFanout();
  out_.push_back('2');
  out_.push_back(kElement);
  out_.append(host);
  out_.push_back(kElement);
  AppendInt(out_, port);
  out_.push_back(kElement);
  out_.append(label);
  out_.push_back(kMessageEnd);
  Queued();
}

void FrontendLink::SetStreamIdentity(int stream, std::string_view call, int state) {
  if (!table_.InRange(stream) || table_.at(stream).state == kStateFree ||
      state_ != State::kConnected) {
    return;
  }
  CloseFanout();
  std::string& out = TargetFor(stream);
  out.push_back('3');
  out.push_back(kElement);
  AppendInt(out, stream);
  out.push_back(kElement);
  out.append(call);
  out.push_back(kElement);
  AppendInt(out, state);
  out.push_back(kElement);
  AppendInt(out, table_.at(stream).tag);
  out.push_back(kMessageEnd);
  Held(out);
  Queued();
}

void FrontendLink::SetStreamAttributes(int stream, std::string_view text) {
  const std::string clean = CleanStreamAttributes(text);
  if (!table_.InRange(stream) || table_.at(stream).state == kStateFree ||
      state_ != State::kConnected) {
    return;
  }
  CloseFanout();
  std::string& out = TargetFor(stream);
  out.push_back('5');
  out.push_back(kElement);
  AppendInt(out, stream);
  out.push_back(kElement);
  out.append(clean);
  out.push_back(kElement);
  AppendInt(out, table_.at(stream).tag);
  out.push_back(kMessageEnd);
  Held(out);
  Queued();
}

}  // namespace qx
