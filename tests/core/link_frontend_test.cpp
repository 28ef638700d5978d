#include <gtest/gtest.h>

#include <algorithm>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/write.hpp>
#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "core/error_log.h"
#include "core/frontend_link.h"
#include "core/link_secret.h"
#include "core/monitor.h"
#include "core/stream_table.h"
#include "core/text_util.h"
#include "tests/testlib/test_util.h"

namespace qx {
namespace {

namespace asio = boost::asio;
using asio::ip::tcp;
using namespace std::chrono_literals;

// What the layers above the link would see.
class RecordingEvents : public LinkEvents {
 public:
  explicit RecordingEvents(StreamTable& table) : table_(table) {}

  void OnLinkUp() override { ++link_up; }
  void OnLinkDown() override { ++link_down; }
  void OnConnectRequest(int stream) override {
    connects.push_back(stream);
    current_at_call.push_back(table_.current());
    if (on_connect) on_connect(stream);
  }
  void OnStreamLine(int stream, std::string_view line) override {
    lines.push_back(std::to_string(stream) + ":" + std::string(line));
    current_at_call.push_back(table_.current());
    if (on_line) on_line(stream, line);
  }
  void OnStreamPiece(int stream, std::string_view piece) override {
    lines.push_back(std::to_string(stream) + ":piece of " + std::to_string(piece.size()));
  }
  void OnStreamClosed(int stream, int previous_state) override {
    closed.push_back(std::to_string(stream) + "/" + std::to_string(previous_state) + "/" +
                     table_.at(stream).call);
  }
  void OnStreamTimedOut(int stream) override {
    timed_out.push_back(stream);
    timed_out_calls.push_back(table_.at(stream).call);
  }
  void OnStreamListReported(int count) override { list_counts.push_back(count); }
  void OnStreamRecovered(int stream) override {
    recovered.push_back(stream);
    current_at_call.push_back(table_.current());
  }
  void OnRecoveryComplete() override { ++recovery_complete; }
  void OnHandshakeRecord(int stream, std::string_view record) override {
    handshake.push_back(std::to_string(stream) + ":" + std::string(record));
  }
  void OnOutgoingFailed(std::string_view label, std::string_view reason) override {
    outgoing_failed.push_back(std::string(label) + "/" + std::string(reason));
  }

  int link_up = 0;
  int link_down = 0;
  int recovery_complete = 0;
  std::vector<int> connects, timed_out, list_counts, recovered, current_at_call;
  std::vector<std::string> lines, closed, handshake, outgoing_failed, timed_out_calls;
  std::function<void(int)> on_connect;
  std::function<void(int, std::string_view)> on_line;

 private:
  StreamTable& table_;
};

struct SeenLine {
  MonitorChannel channel;
  int stream;
  std::string colour;
  std::string text;
};

// A node's link with everything around it; the link is not started unless a test does.
class LinkFixture : public ::testing::Test {
 protected:
  LinkFixture() : log_(dir_.path(), clock_), events_(table_) {
    monitor_.Subscribe([this](const MonitorLine& l) {
      seen_.push_back({l.channel, l.stream, std::string(l.colour), std::string(l.text)});
    });
  }

  void MakeLink(FrontendLinkOptions options = {}) {
    options.own_watchdog_timer = false;
    link_ = std::make_unique<FrontendLink>(io_, table_, log_, monitor_, clock_, events_, options);
  }

  std::string ErrorLogText() {
    const auto file = log_.TodayFile();
    return std::filesystem::exists(file) ? testing::ReadFile(file) : std::string();
  }
  std::vector<std::string> Console() {
    std::vector<std::string> out;
    for (const auto& l : seen_) {
      if (l.channel == MonitorChannel::kConsole) out.push_back(l.text);
    }
    return out;
  }
  const SeenLine* LastConnection(int stream) {
    for (auto it = seen_.rbegin(); it != seen_.rend(); ++it) {
      if (it->channel == MonitorChannel::kConnections && it->stream == stream) return &*it;
    }
    return nullptr;
  }

  template <typename Pred>
  bool RunUntil(Pred pred, std::chrono::milliseconds limit = 5s) {
    const auto end = std::chrono::steady_clock::now() + limit;
    while (!pred()) {
      if (std::chrono::steady_clock::now() > end) return false;
      io_.run_for(5ms);
    }
    return true;
  }
  void RunFor(std::chrono::milliseconds d) { io_.run_for(d); }

  testing::TempDir dir_;
  SystemClock clock_;
  ErrorLog log_;
  Monitor monitor_;
  StreamTable table_;
  RecordingEvents events_;
  asio::io_context io_;
  asio::executor_work_guard<asio::io_context::executor_type> work_ = asio::make_work_guard(io_);
  std::vector<SeenLine> seen_;
  std::unique_ptr<FrontendLink> link_;
};

// ---------------------------------------------------------------------------------------
// Record handling, driven through the arrival entry.

class LinkRecordsTest : public LinkFixture {
 protected:
  void SetUp() override { MakeLink(); }
};

TEST_F(LinkRecordsTest, ConnectRequestOpensAFreshEntryInTheLoginState) {
  table_.EnsureCapacity(2);
  table_.at(2).call = "OLD1";
  table_.at(2).line_carry = "stale";
  link_->Arrive("AA03^Connect Request^2^192.0.2.7:40001^17^in^3\x03");

  ASSERT_EQ(events_.connects, std::vector<int>{2});
  EXPECT_EQ(events_.current_at_call, std::vector<int>{2});
  const StreamEntry& e = table_.at(2);
  EXPECT_EQ(e.state, kStateLoggingIn);
  EXPECT_EQ(e.call, "");
  EXPECT_EQ(e.line_carry, "");
  EXPECT_EQ(e.tag, 17);
  EXPECT_EQ(e.peer_address, "192.0.2.7:40001");
  EXPECT_EQ(e.port_index, 3);
  EXPECT_EQ(e.connection_label, "");
  EXPECT_EQ(Console().back(), "2 ->192.0.2.7:40001");
  ASSERT_NE(LastConnection(2), nullptr);
  EXPECT_EQ(LastConnection(2)->text, "    *    ");
  // Every record that holds "AA03" also goes whole to the node handshake.
  EXPECT_EQ(events_.handshake,
            std::vector<std::string>{"2:AA03^Connect Request^2^192.0.2.7:40001^17^in^3"});

  // An outgoing connection keeps its label; a number above the table grows it.
  link_->Arrive("AA03^Connect Request^40^198.51.100.1:7300^18^out:GB7XX^9\x03");
  EXPECT_EQ(table_.high_socket(), 40);
  EXPECT_EQ(table_.at(40).connection_label, "GB7XX");
  EXPECT_EQ(table_.at(40).port_index, 9);
  EXPECT_EQ(table_.at(2).tag, 17);  // growing keeps what the table held
}

TEST_F(LinkRecordsTest, StreamDataIsCutIntoLinesWithCaretsIntact) {
  link_->Arrive("AA03^Connect Request^3^192.0.2.1:1^5^in^0\x03");
  link_->Arrive("AA00^3^sh/dx 5\r\nDX 14025 DL1ABC a^b^c\r\n\x03");
  // Lone CR and lone LF end lines as well; an empty line (Enter alone) is a line too.  LF CR
  // is one line end like CR LF, also split across records.
  link_->Arrive("AA00^3^one\rtwo\nthree\r\n\r\nfour\n\rfive\n\n\x03");
  link_->Arrive("AA00^3^\rsix\n\x03");
  EXPECT_EQ(events_.lines,
            (std::vector<std::string>{"3:sh/dx 5", "3:DX 14025 DL1ABC a^b^c", "3:one", "3:two",
                                      "3:three", "3:", "3:four", "3:five", "3:", "3:six"}));
  for (int s : events_.current_at_call) EXPECT_EQ(s, 3);
}

TEST_F(LinkRecordsTest, ALineCutAcrossRecordsIsHandedOnOnceComplete) {
  link_->Arrive("AA03^Connect Request^3^192.0.2.1:1^5^in^0\x03");
  link_->Arrive("AA00^3^PC61^14025.0^DL1\x03");
  EXPECT_TRUE(events_.lines.empty());
  // A CR at the end of one record and the LF at the start of the next are one line end.
  link_->Arrive(
      "AA00^3^ABC^~\r\x03"
      "AA00^3^\nnext\r\n\x03");
  EXPECT_EQ(events_.lines, (std::vector<std::string>{"3:PC61^14025.0^DL1ABC^~", "3:next"}));
  // A line too long to wait for is handed on as a piece, marked as one; its rest is a line.
  link_->Arrive("AA00^3^" + std::string(5000, 'x') + "\x03");
  link_->Arrive("AA00^3^" + std::string(5000, 'y') + "\x03");
  link_->Arrive("AA00^3^rest\r\n\x03");
  EXPECT_EQ(events_.lines, (std::vector<std::string>{"3:PC61^14025.0^DL1ABC^~", "3:next",
                                                     "3:piece of 10000", "3:rest"}));
  // A stream that closes loses its unfinished line.
  link_->Arrive(
      "AA00^3^half\x03"
      "AA17^5^3^closed\x03");
  link_->Arrive(
      "AA03^Connect Request^3^192.0.2.1:1^6^in^0\x03"
      "AA00^3^new\r\n\x03");
  EXPECT_EQ(events_.lines.back(), "3:new");
}

TEST_F(LinkRecordsTest, FrontEndCountersAreKeptAndABadOneLoggedOnce) {
  link_->Arrive("AA20^open_connections=3^login_timeouts_total=1\x03");
  link_->Arrive(
      "AA20^open_connections=4^bad=x\x03"
      "AA20^bad=y\x03");
  const auto& values = link_->frontend_counters().values();
  EXPECT_EQ(values.at("open_connections"), 4u);
  EXPECT_EQ(values.at("login_timeouts_total"), 1u);
  const std::string log = ErrorLogText();
  EXPECT_NE(log.find("bad=x"), std::string::npos);
  EXPECT_EQ(log.find("bad=y"), std::string::npos);
}

TEST_F(LinkRecordsTest, TextNodeSpotLinesAreNormalisedOnNodeStreamsOnly) {
  std::string out;
  NormaliseTextNodeLine("DX de W3LPL:     14025.0  DL1ABC   599 tnx0  x   y   z", out);
  EXPECT_EQ(out, "DX de W3LPL:14025.  DL1ABC  599 tnx0  x   y   z");
  NormaliseTextNodeLine("a:  b: c:   d", out);
  EXPECT_EQ(out, "a:b:c:d");

  link_->Arrive("AA03^Connect Request^4^192.0.2.1:1^5^in^0\x03");
  link_->Arrive("AA03^Connect Request^5^192.0.2.1:2^6^in^0\x03");
  table_.at(4).state = kStateFeedRbn;
  table_.at(5).state = kStateUser;
  link_->Arrive("AA00^4^DX de K1ABC-#:  7005.0  W1AW  cq\r\n\x03");
  link_->Arrive("AA00^5^DX de K1ABC-#:  7005.0  W1AW  cq\r\n\x03");
  EXPECT_EQ(events_.lines, (std::vector<std::string>{"4:DX de K1ABC-#:7005.  W1AW  cq",
                                                     "5:DX de K1ABC-#:  7005.0  W1AW  cq"}));
}

TEST_F(LinkRecordsTest, CallTimeOutAttributeAndCountRecords) {
  link_->Arrive("AA03^Connect Request^6^192.0.2.1:1^5^in^0\x03");
  link_->Arrive("AA16^G4ABC^6^1\x03");
  EXPECT_EQ(table_.at(6).call, "G4ABC");
  EXPECT_EQ(LastConnection(6)->text, "G4ABC");
  link_->Arrive(
      "AA16^G4XYZ^6\x03"
      "AA16^G4XYZ^6^1^2\x03");  // wrong field counts
  EXPECT_EQ(table_.at(6).call, "G4ABC");

  link_->Arrive("AA04^6^telnet^raw\x03");
  EXPECT_EQ(table_.at(6).attribute, "telnet^raw");

  link_->Arrive("AA02^12^9\x03");
  EXPECT_EQ(link_->reported_streams(), 12);
  EXPECT_EQ(table_.high_socket(), 9);
  link_->Arrive(
      "AA02^0^9\x03"
      "AA02^30^9^x\x03");  // zero keeps the count; 4 fields ignored
  EXPECT_EQ(link_->reported_streams(), 12);

  link_->Arrive("AA05^6^idle\x03");
  EXPECT_EQ(table_.at(6).call, "T/O");
  EXPECT_EQ(table_.at(6).state, kStateTimedOut);
  EXPECT_EQ(table_.current(), 6);
  EXPECT_EQ(LastConnection(6)->text, "no call");
  EXPECT_EQ(events_.timed_out, std::vector<int>{6});
  // The owner hears of it while the entry still names the user.
  EXPECT_EQ(events_.timed_out_calls, std::vector<std::string>{"G4ABC"});

  link_->Arrive("AA06^W1AW on port 7300^11^a^b^c^d\x03");
  EXPECT_EQ(table_.high_socket(), 11);
  EXPECT_EQ(table_.current(), 11);
  EXPECT_EQ(Console().back(), "  11             -> W1AW on port 7300");

  link_->Arrive("AA19^GB7XX^connection refused\x03");
  EXPECT_EQ(events_.outgoing_failed, std::vector<std::string>{"GB7XX/connection refused"});
}

TEST_F(LinkRecordsTest, ClosingALoggedInUserIsAnnouncedBeforeTheEntryIsFreed) {
  table_.EnsureCapacity(8);  // grown by someone else first
  link_->Arrive("AA17^5^8^never used\x03");
  EXPECT_EQ(events_.closed, std::vector<std::string>{"8/0/"});
  events_.closed.clear();

  link_->Arrive("AA03^Connect Request^2^192.0.2.1:1^5^in^0\x03");
  table_.at(2).call = "DL1ABC";
  table_.at(2).state = 2;
  link_->Arrive("AA17^5^2^peer closed\x03");
  EXPECT_EQ(events_.closed, std::vector<std::string>{"2/2/DL1ABC"});
  EXPECT_EQ(table_.at(2).state, kStateFree);
  EXPECT_EQ(table_.at(2).call, "");
  EXPECT_EQ(table_.current(), 2);
  EXPECT_EQ(LastConnection(2)->text, "");
}

TEST_F(LinkRecordsTest, CloseOfAStreamOutsideTheTableRestartsTheLink) {
  table_.EnsureCapacity(4);
  link_->Arrive("AA17^5^9^gone\x03");
  const std::string log = ErrorLogText();
  EXPECT_NE(log.find("DataArrival AA17 Error, Where = 21 \r\n"), std::string::npos) << log;
  EXPECT_NE(log.find("DataArrival Error - Restarting WinsockCluster AA17^5^9^gone Where = 21 "
                     "tempdata2(2) = 9 HighSocket = 4\r\n"),
            std::string::npos)
      << log;
  EXPECT_TRUE(events_.closed.empty());
  EXPECT_EQ(table_.high_socket(), 4);  // an unknown stream does not grow the table
}

TEST_F(LinkRecordsTest, BadStreamNumbersAreLoggedAndDropped) {
  link_->Arrive(
      "AA00^0^hello\r\n\x03"
      "AA00^x1^hello\r\n\x03"
      "AA00^999999^a\r\n\x03"
      "AA16^K1^-3^1\x03"
      "AA00\x03"
      "AA00^\x03"
      "ZZ99^what\x03");
  EXPECT_TRUE(events_.lines.empty());
  EXPECT_EQ(table_.high_socket(), 0);
  const std::string log = ErrorLogText();
  EXPECT_NE(log.find("WinsockCluster_DataArrival Templong = 0 unknown error"), std::string::npos);
  EXPECT_NE(log.find("DataArrival  where = AA00 bad stream number \"x1\""), std::string::npos);
  EXPECT_NE(log.find("bad stream number \"999999\""), std::string::npos);
  EXPECT_NE(log.find("bad stream number \"-3\""), std::string::npos);
}

TEST_F(LinkRecordsTest, AHandlerErrorIsLoggedAndTheNextRecordStillHandled) {
  link_->Arrive("AA03^Connect Request^1^192.0.2.1:1^5^in^0\x03");
  events_.on_line = [](int, std::string_view line) {
    if (line == "boom") throw std::runtime_error("handler failed");
  };
  link_->Arrive(
      "AA00^1^boom\r\n\x03"
      "AA00^1^fine\r\n\x03");
  EXPECT_EQ(events_.lines.back(), "1:fine");
  EXPECT_NE(ErrorLogText().find("DataArrival handler failed where = AA00"), std::string::npos);
}

TEST_F(LinkRecordsTest, RecoveryRebuildsEveryReportedStream) {
  link_->Arrive("AA01^3^2,5,7\x03");
  EXPECT_EQ(events_.list_counts, std::vector<int>{3});
  EXPECT_EQ(table_.high_socket(), 7);
  EXPECT_TRUE(link_->recovering());
  EXPECT_EQ(Console().front(), "AA01^3^2,5,7");

  // The start the node gave the front-end to keep stays; one still to come cannot be.
  const SysTime before = clock_.Now();
  link_->Arrive("AA38^21^2^192.0.2.9:5000^0^DL1ABC^1^in^priv=9 since=1700000000 x\x03");
  link_->Arrive("AA38^22^5^198.51.100.4:7300^9^GB7XX^21^out:GB7XX^since=99999999999\x03");
  EXPECT_EQ(events_.recovery_complete, 0);
  // A reported stream that closes before its report counts as done.
  link_->Arrive("AA17^23^7^peer closed\x03");
  EXPECT_EQ(events_.recovery_complete, 1);
  EXPECT_FALSE(link_->recovering());
  EXPECT_EQ(events_.recovered, (std::vector<int>{2, 5}));
  EXPECT_EQ(events_.current_at_call, (std::vector<int>{2, 5}));

  const StreamEntry& user = table_.at(2);
  EXPECT_EQ(user.tag, 21);
  EXPECT_EQ(user.call, "DL1ABC");
  EXPECT_EQ(user.state, 1);
  EXPECT_EQ(user.peer_address, "192.0.2.9:5000");
  EXPECT_EQ(user.login_stage, LoginStage::kLoggedIn);
  EXPECT_EQ(user.frontend_attributes, "priv=9 since=1700000000 x");
  EXPECT_EQ(user.since, SysTime{std::chrono::seconds(1700000000)});
  EXPECT_GE(table_.at(5).since, before);
  EXPECT_LE(table_.at(5).since, clock_.Now());
  EXPECT_EQ(LastConnection(2)->colour, "white");
  const StreamEntry& node = table_.at(5);
  EXPECT_EQ(node.state, kStateNodePc9x);
  EXPECT_EQ(node.connection_label, "GB7XX");
  EXPECT_EQ(node.port_index, 9);
  EXPECT_EQ(LastConnection(5)->colour, "orange");

  const std::string log = ErrorLogText();
  const size_t loading = log.find("DataArrival Loading Winsock Streams \r\n");
  const size_t dimensioned = log.find("DataArrival Finished Dimensioning 0 secs\r\n");
  const size_t loaded = log.find("DataArrival Finished Loading Streams 0 secs\r\n");
  const size_t complete = log.find("Recovery complete");
  ASSERT_NE(loading, std::string::npos) << log;
  ASSERT_NE(dimensioned, std::string::npos) << log;
  ASSERT_NE(loaded, std::string::npos) << log;
  ASSERT_NE(complete, std::string::npos) << log;
  EXPECT_LT(loading, dimensioned);
  EXPECT_LT(dimensioned, loaded);
  EXPECT_LT(loaded, complete);

  // A front-end with no open streams: recovery is complete at once.
  link_->Arrive("AA01^0^\x03");
  EXPECT_EQ(events_.recovery_complete, 2);
}

TEST_F(LinkRecordsTest, WatchdogLogsTheStuckArrivalAndReleasesTheLink) {
  link_->Arrive("AA03^Connect Request^1^192.0.2.1:1^5^in^0\x03");
  events_.on_line = [&](int, std::string_view line) {
    if (line != "stuck") return;
    link_->set_debug(true);
    link_->Tick();
    link_->set_debug(false);
    link_->Tick();  // below five seconds without debug: nothing logged
    for (int i = 0; i < 3; ++i) link_->Tick();
  };
  link_->Arrive("AA00^1^stuck\r\n\x03");
  const std::string log = ErrorLogText();
  EXPECT_NE(log.find("WinsockClusterBusy for 1 secs \r\n"), std::string::npos) << log;
  EXPECT_EQ(log.find("WinsockClusterBusy for 2 secs "), std::string::npos) << log;
  EXPECT_NE(log.find("WinsockClusterBusy for 5 secs \r\n"), std::string::npos) << log;
}

TEST_F(LinkRecordsTest, NothingIsSentWhileTheLinkIsDown) {
  link_->Arrive(
      "AA03^Connect Request^1^192.0.2.1:1^5^in^0\x03"
      "AA18\x03");
  table_.set_current(1);
  link_->SendToStream("hello\r\n");
  link_->SendToWinsockQuiet("x");
  link_->CloseStream(1);
  EXPECT_EQ(link_->queue_depth(), 0u);
  EXPECT_EQ(link_->keepalives(), 1u);
}

// ---------------------------------------------------------------------------------------
// With a real socket: a stand-in for the front-end on loopback.

class FakeFrontend {
 public:
  explicit FakeFrontend(asio::io_context& io, int port = 0)
      : acceptor_(io, tcp::endpoint(asio::ip::make_address("127.0.0.1"),
                                    static_cast<unsigned short>(port))) {
    Accept();
  }
  int port() const { return acceptor_.local_endpoint().port(); }
  int accepted() const { return accepted_; }
  bool open() const { return socket_ && socket_->is_open() && !peer_closed_; }
  bool peer_closed() const { return peer_closed_; }
  std::string& received() { return received_; }

  void Send(std::string bytes) {
    auto data = std::make_shared<std::string>(std::move(bytes));
    asio::async_write(*socket_, asio::buffer(*data), [data](auto, auto) {});
  }
  void Close() {
    boost::system::error_code ignored;
    socket_->close(ignored);
  }
  void StopListening() {
    boost::system::error_code ignored;
    acceptor_.close(ignored);
  }
  // A front-end that stops reading: the node's backlog grows once the socket buffers fill.
  void PauseReading() { paused_ = true; }
  void ResumeReading() {
    paused_ = false;
    if (parked_) {
      parked_ = false;
      Read(socket_);
    }
  }

 private:
  void Accept() {
    acceptor_.async_accept([this](const boost::system::error_code& ec, tcp::socket s) {
      if (ec) return;
      socket_ = std::make_shared<tcp::socket>(std::move(s));
      peer_closed_ = false;
      ++accepted_;
      Read(socket_);
      Accept();
    });
  }
  void Read(std::shared_ptr<tcp::socket> s) {
    if (paused_ && s == socket_) {
      parked_ = true;
      return;
    }
    s->async_read_some(asio::buffer(buf_),
                       [this, s](const boost::system::error_code& ec, size_t n) {
                         if (ec) {
                           if (s == socket_) peer_closed_ = true;
                           return;
                         }
                         received_.append(buf_, n);
                         Read(s);
                       });
  }

  tcp::acceptor acceptor_;
  std::shared_ptr<tcp::socket> socket_;
  char buf_[4096];
  std::string received_;
  int accepted_ = 0;
  bool peer_closed_ = false;
  bool paused_ = false;
  bool parked_ = false;
};

class LinkSocketTest : public LinkFixture {
 protected:
  void StartAgainst(int port, std::chrono::milliseconds retry = 100ms) {
    FrontendLinkOptions options;
    options.port = std::to_string(port);
    options.retry_interval = retry;
    MakeLink(options);
    link_->Start();
  }
  void MakeLink(FrontendLinkOptions options) {
    options.secret = key_;
    LinkFixture::MakeLink(options);
  }
  bool Received(FakeFrontend& fe, std::string_view text) {
    return RunUntil([&] { return fe.received().find(text) != std::string::npos; });
  }
  // The front-end's challenge after the node's greeting; returns the node's nonce once its
  // proof has been checked (empty when none came or it was wrong).
  std::string Challenge(FakeFrontend& fe) {
    if (!Received(fe, "QX Cluster")) return "";
    fe.received().clear();
    fe.Send("AA39^" + challenge_ + "\x03");
    if (!Received(fe, "\x04")) return "";
    const std::string answer = fe.received();
    fe.received().clear();
    const auto parts = Split(std::string_view(answer).substr(0, answer.size() - 1), '\x03');
    if (parts.size() != 3 || parts[0] != "4") return "";
    EXPECT_EQ(parts[2], NodeLinkProof(key_, challenge_, parts[1]));
    return std::string(parts[1]);
  }
  std::string Announcement(std::string_view node_nonce, std::string_view key) {
    return "QRV GB7QX Front^1.2^" + FrontLinkProof(key, node_nonce, challenge_) + "\x03";
  }
  // The whole link-up, up to the node's request for the stream report; then the link is up
  // and what the fake front-end received is cleared.
  bool Handshake(FakeFrontend& fe) {
    const std::string nonce = Challenge(fe);
    if (nonce.empty()) return false;
    fe.Send(Announcement(nonce, key_));
    if (!Received(fe, "8270")) return false;
    fe.received().clear();
    return link_->connected();
  }

  const std::string key_ = std::string(32, 'k');
  const std::string challenge_ = MakeLinkNonce();
};

TEST_F(LinkSocketTest, HandshakeGreetingKeepAliveAndStreamReport) {
  FakeFrontend fe(io_);
  StartAgainst(fe.port());
  ASSERT_TRUE(Received(fe, "QX Cluster"));
  EXPECT_EQ(fe.received(), "QX Cluster");  // raw: no Chr 3, no Chr 4
  const std::string nonce = Challenge(fe);
  ASSERT_EQ(nonce.size(), kLinkNonceDigits);
  RunFor(50ms);
  EXPECT_EQ(events_.link_up, 0);  // not before the front-end has proved itself

  const auto sent = std::chrono::steady_clock::now();
  fe.Send(Announcement(nonce, key_));
  ASSERT_TRUE(Received(fe, "8270"));
  EXPECT_GE(std::chrono::steady_clock::now() - sent, 200ms);  // answered after a pause
  EXPECT_EQ(fe.received(), "8270");
  EXPECT_EQ(events_.link_up, 1);
  EXPECT_EQ(Console().back(), "Winsock Connected");
  EXPECT_EQ(link_->frontend_station(), "GB7QX Front");
  EXPECT_EQ(link_->frontend_version(), "1.2");

  fe.received().clear();
  fe.Send("AA18\x03");
  ASSERT_TRUE(Received(fe, "rxAA18"));
  EXPECT_EQ(fe.received(), "rxAA18");
  fe.received().clear();

  // Once the link is up a repeated announcement only asks for the report again.
  fe.Send("QRV GB7QX Front old\x03");
  ASSERT_TRUE(Received(fe, "8270"));
  EXPECT_EQ(link_->frontend_version(), "2.xx");
  EXPECT_EQ(link_->frontend_station(), "GB7QX Front old");
}

TEST_F(LinkSocketTest, ConnectRequestGetsTheBannerFramedForItsStream) {
  FakeFrontend fe(io_);
  StartAgainst(fe.port());
  ASSERT_TRUE(Handshake(fe));
  events_.on_connect = [&](int) {
    // Sends in one handler are written together; empty text and stream 0 send nothing.
    link_->SendToStream("");
    link_->SendToStream("Running QX Cluster\r\nlogin: ");
    link_->SendToStreamNo(0, "nobody");
    const int saved = table_.current();
    table_.set_current(0);
    link_->SendToStream("nobody either");
    table_.set_current(saved);
    EXPECT_GT(link_->queue_depth(), 0u);
  };
  fe.received().clear();
  // The record arrives cut in two reads.
  fe.Send(
      "AA03^Connect Request^5^192.0.2.7:40001^17^in^0\x03"
      "AA00^5^DL1");
  ASSERT_TRUE(RunUntil([&] { return events_.connects.size() == 1; }));
  const std::string banner = std::string(
      "0\x03"
      "5\x03"
      "Running QX Cluster\r\nlogin: \x03"
      "17\x04");
  ASSERT_TRUE(Received(fe, banner));
  EXPECT_EQ(fe.received(), banner);

  fe.Send("ABC\r\n\x03");
  ASSERT_TRUE(RunUntil([&] { return !events_.lines.empty(); }));
  EXPECT_EQ(events_.lines, std::vector<std::string>{"5:DL1ABC"});

  fe.received().clear();
  link_->SendToStreamNo(5, "bye\r\n");
  link_->SetStreamIdentity(5, "DL1ABC", 1);
  link_->CloseStream(5);
  link_->OpenOutgoing("node.example.net", 7300, "GB7XX");
  link_->SendToWinsockQuiet("ctl");
  link_->SendToWinsockEcho("echoed");
  const std::string expected = std::string(
                                   "0\x03"
                                   "5\x03"
                                   "bye\r\n\x03"
                                   "17\x04") +
                               "3\x03"
                               "5\x03"
                               "DL1ABC\x03"
                               "1\x03"
                               "17\x04" +
                               "1\x03"
                               "5\x03"
                               "Disconnect\x03"
                               "17\x04" +
                               "2\x03"
                               "node.example.net\x03"
                               "7300\x03"
                               "GB7XX\x04" +
                               "ctl\x04"
                               "echoed\x04";
  ASSERT_TRUE(Received(fe, "echoed\x04"));
  EXPECT_EQ(fe.received(), expected);
  EXPECT_EQ(Console().back(), "Connected echoed");
  EXPECT_EQ(link_->queue_depth(), 0u);
  EXPECT_GE(link_->bytes_out(), expected.size() + banner.size());

  // Once the stream has closed, a late reply goes nowhere.
  fe.Send("AA17^17^5^closed\x03");
  ASSERT_TRUE(RunUntil([&] { return events_.closed.size() == 1; }));
  fe.received().clear();
  link_->SendToStreamNo(5, "late\r\n");
  link_->CloseStream(5);
  link_->SendToWinsockQuiet("mark");
  ASSERT_TRUE(Received(fe, "mark\x04"));
  EXPECT_EQ(fe.received(), "mark\x04");
}

TEST_F(LinkSocketTest, StreamTextCannotEndItsMessageEarlyAndAttributesAreFramed) {
  FakeFrontend fe(io_);
  StartAgainst(fe.port());
  ASSERT_TRUE(Handshake(fe));
  fe.Send("AA03^Connect Request^5^192.0.2.7:40001^17^in^0\x03");
  ASSERT_TRUE(RunUntil([&] { return events_.connects.size() == 1; }));
  fe.received().clear();
  // Chr 4 would end the message; Chr 3 may stay, the text runs up to the last element.
  link_->SendToStreamNo(5, "x\x04y\x03z\r\n");
  link_->SetStreamAttributes(5, "priv^9\x04\r\n" + std::string(300, 'a'));
  link_->SetStreamAttributes(6, "free stream");
  const std::string expected = std::string(
                                   "0\x03"
                                   "5\x03"
                                   "xy\x03z\r\n\x03"
                                   "17\x04") +
                               "5\x03"
                               "5\x03"
                               "priv9" +
                               std::string(251, 'a') +
                               "\x03"
                               "17\x04";
  ASSERT_TRUE(Received(fe,
                       "17\x04"
                       "5"));
  ASSERT_TRUE(Received(fe, expected));
  RunFor(50ms);
  EXPECT_EQ(fe.received(), expected);
}

TEST_F(LinkSocketTest, AFrontEndThatCannotProveItselfIsLeftAndTriedAgain) {
  FakeFrontend fe(io_);
  StartAgainst(fe.port(), /*retry=*/50ms);

  // A proof made with another secret.
  std::string nonce = Challenge(fe);
  ASSERT_FALSE(nonce.empty());
  fe.Send(Announcement(nonce, std::string(32, 'x')) +
          "AA03^Connect Request^1^192.0.2.7:40001^17^in^0\x03");
  ASSERT_TRUE(RunUntil([&] { return fe.accepted() == 2; }));
  EXPECT_NE(ErrorLogText().find("the front-end could not prove it knows the link secret"),
            std::string::npos);
  EXPECT_EQ(Console().back(),
            "Front-end link refused: the front-end could not prove it knows the link secret");

  // The old announcement without a proof, and stream records instead of a challenge, glued
  // to a refused record: nothing of it is acted on.
  nonce = Challenge(fe);
  fe.Send("QRV GB7QX Front^1.2\x03");
  ASSERT_TRUE(RunUntil([&] { return fe.accepted() == 3; }));
  ASSERT_TRUE(Received(fe, "QX Cluster"));
  fe.Send(
      "AA01^1^1\x03"
      "AA03^Connect Request^1^192.0.2.7:40001^17^in^0\x03");
  ASSERT_TRUE(RunUntil([&] { return fe.accepted() == 4; }));
  EXPECT_TRUE(events_.connects.empty());
  EXPECT_TRUE(events_.list_counts.empty());
  EXPECT_EQ(events_.link_up, 0);
  EXPECT_FALSE(link_->connected());

  // The real one: it proves itself and the link comes up.
  ASSERT_TRUE(Handshake(fe));
  EXPECT_EQ(events_.link_up, 1);
}

TEST_F(LinkSocketTest, WithoutASecretOrAProofInTimeNoFrontEndIsUsed) {
  FakeFrontend fe(io_);
  FrontendLinkOptions options;
  options.port = std::to_string(fe.port());
  options.retry_interval = 50ms;
  options.proof_timeout = 200ms;
  MakeLink(options);
  link_->Start();
  ASSERT_TRUE(Received(fe, "QX Cluster"));  // says nothing back
  ASSERT_TRUE(RunUntil([&] { return fe.accepted() == 2; }));
  EXPECT_NE(ErrorLogText().find("did not prove it knows the link secret in time"),
            std::string::npos);

  link_.reset();
  FakeFrontend other(io_);
  options.port = std::to_string(other.port());
  options.secret.clear();
  LinkFixture::MakeLink(options);
  link_->Start();
  ASSERT_TRUE(Received(other, "QX Cluster"));
  other.Send("AA39^" + challenge_ + "\x03");
  ASSERT_TRUE(RunUntil([&] { return other.accepted() >= 2; }));
  EXPECT_EQ(other.received().find('\x04'), std::string::npos);  // no answer without a secret
  EXPECT_NE(ErrorLogText().find("there is no usable link secret here"), std::string::npos);
  EXPECT_EQ(events_.link_up, 0);
}

TEST_F(LinkSocketTest, DataReadWhileAHandlerRunsTheLoopWaitsForTheNextArrival) {
  FakeFrontend fe(io_);
  StartAgainst(fe.port());
  ASSERT_TRUE(Handshake(fe));
  fe.Send("AA03^Connect Request^5^192.0.2.7:40001^17^in^0\x03");
  ASSERT_TRUE(RunUntil([&] { return events_.connects.size() == 1; }));
  events_.on_line = [&](int, std::string_view line) {
    if (line != "yield") return;
    // A handler that lets the event loop run: the link reads meanwhile.
    fe.Send(
        "AA00^5^second\r\n\x03"
        "AA00^5^thi");
    RunFor(100ms);
    EXPECT_TRUE(events_.lines.size() == 1);  // nothing handled inside the handler
  };
  fe.Send("AA00^5^yield\r\n\x03");
  ASSERT_TRUE(RunUntil([&] { return link_->peak_pending() == 0 && !events_.lines.empty(); }));
  RunFor(50ms);
  EXPECT_EQ(events_.lines, std::vector<std::string>{"5:yield"});
  fe.Send("rd\r\n\x03");
  ASSERT_TRUE(RunUntil([&] { return events_.lines.size() == 3; }));
  EXPECT_EQ(events_.lines, (std::vector<std::string>{"5:yield", "5:second", "5:third"}));
  EXPECT_GT(link_->peak_pending(), 0u);
}

TEST_F(LinkSocketTest, UnreachableFrontEndIsReportedOncePerOutageAndRetried) {
  const int port = testing::FreePort();
  int unreachable = 0;
  FrontendLinkOptions options;
  options.port = std::to_string(port);
  options.retry_interval = 50ms;
  MakeLink(options);
  link_->set_on_unreachable([&] {
    ++unreachable;
    return false;
  });
  link_->Start();
  RunFor(400ms);  // several retries
  EXPECT_EQ(unreachable, 1);
  const std::vector<std::string> box = {
      "    ***********************************************",
      "    *   Close all other instances of cluster.exe  *",
      "    *   Then press \"Connect Winsock\"              *",
      "    *   ... if you still have a problem,          *",
      "    *   make sure winsock.exe is running          *",
      "    ***********************************************",
  };
  EXPECT_EQ(Console(), box);
  EXPECT_FALSE(link_->connected());

  // The front-end comes up (as the owner would start it): the link finds it by itself.
  FakeFrontend fe(io_, port);
  ASSERT_TRUE(Handshake(fe));

  // It goes away: the table is kept, the link comes back when it is there again.
  table_.EnsureCapacity(3);
  table_.at(3).call = "KEEP";
  fe.Close();
  fe.StopListening();
  ASSERT_TRUE(RunUntil([&] { return events_.link_down == 1; }));
  EXPECT_EQ(table_.at(3).call, "KEEP");
  RunFor(200ms);
  EXPECT_EQ(unreachable, 2);  // a new outage
  FakeFrontend again(io_, port);
  ASSERT_TRUE(Handshake(again));
  EXPECT_EQ(events_.link_up, 2);
}

TEST_F(LinkSocketTest, FrontEndStartedByTheOwnerIsFoundWithoutTheLongRetry) {
  const int port = testing::FreePort();
  FrontendLinkOptions options;
  options.port = std::to_string(port);
  options.retry_interval = std::chrono::seconds(30);
  MakeLink(options);
  link_->set_on_unreachable([] { return true; });
  link_->Start();
  RunFor(300ms);
  EXPECT_FALSE(link_->connected());
  // It listens a moment after being started; the link must not wait the 30 s retry, and a
  // normal first start shows no alarm.
  FakeFrontend fe(io_, port);
  ASSERT_TRUE(Handshake(fe));
  for (const std::string& line : Console()) {
    EXPECT_EQ(line.find("Close all other instances"), std::string::npos) << line;
  }
}

TEST_F(LinkSocketTest, CloseOfAnUnknownStreamReconnectsTheLink) {
  FakeFrontend fe(io_);
  StartAgainst(fe.port());
  ASSERT_TRUE(Handshake(fe));
  fe.Send("AA17^1^42^gone\x03");
  ASSERT_TRUE(RunUntil([&] { return fe.accepted() == 2; }));
  ASSERT_TRUE(Handshake(fe));
  EXPECT_EQ(events_.link_down, 1);
  EXPECT_EQ(events_.link_up, 2);
}

TEST_F(LinkSocketTest, AHandOverAnswersWhatCameBeforeTheFrontEndHeldInputThenLetsGo) {
  FakeFrontend fe(io_);
  StartAgainst(fe.port());
  ASSERT_TRUE(Handshake(fe));
  bool done = false;
  link_->HandOver(5s, [&] { done = true; });
  ASSERT_TRUE(Received(fe, std::string("6\x03stopping\x04")));
  fe.received().clear();
  // A keep-alive before the answer is still handled; a record after it is not.
  fe.Send(
      "AA18\x03"
      "AA21\x03"
      "AA18\x03");
  ASSERT_TRUE(RunUntil([&] { return done; }));
  RunFor(50ms);
  EXPECT_EQ(fe.received(), "rxAA18");
  EXPECT_EQ(events_.link_down, 0);  // the owner stops the link itself

  // No answer in time, or no link at all: the node stops all the same.
  done = false;
  link_->Restart();
  ASSERT_TRUE(Handshake(fe));
  link_->HandOver(100ms, [&] { done = true; });
  ASSERT_TRUE(RunUntil([&] { return done; }));
  link_->Stop();
  done = false;
  link_->HandOver(5s, [&] { done = true; });
  EXPECT_TRUE(RunUntil([&] { return done; }, 50ms));
}

TEST_F(LinkSocketTest, ConnectButtonConnectsAtOnce) {
  const int port = testing::FreePort();
  StartAgainst(port, /*retry=*/60s);
  RunFor(100ms);
  EXPECT_FALSE(link_->connected());
  FakeFrontend fe(io_, port);
  link_->Connect();
  ASSERT_TRUE(Handshake(fe));
  link_->Connect();  // connected already: nothing happens
  RunFor(50ms);
  EXPECT_EQ(fe.accepted(), 1);
  link_->Stop();
  ASSERT_TRUE(RunUntil([&] { return fe.peer_closed(); }));
  EXPECT_FALSE(link_->connected());
}

TEST_F(LinkSocketTest, AFrontEndThatFallsBehindLosesOnlySpotsAndEachUserIsToldHowMany) {
  FakeFrontend fe(io_);
  FrontendLinkOptions options;
  options.port = std::to_string(fe.port());
  options.soft_output_bytes = 64 << 10;
  options.max_output_bytes = 256 << 10;  // far below what the test sends: nothing else is lost
  options.stream_spot_queue = 4;
  MakeLink(options);
  // Stream 6 reads JSON: its owner gives it an object; stream 5 gets the text line.
  link_->set_shed_notice([](int stream, uint64_t count) {
    return stream == 6 ? "{\"type\":\"dropped\",\"count\":" + std::to_string(count) + "}\r\n"
                       : std::string();
  });
  link_->Start();
  ASSERT_TRUE(Handshake(fe));
  fe.Send(
      "AA03^Connect Request^5^192.0.2.7:1^1838652366950417^in^0\x03"
      "AA03^Connect Request^6^192.0.2.8:1^1838652366950418^in^0\x03");
  ASSERT_TRUE(RunUntil([&] { return events_.connects.size() == 2; }));
  fe.PauseReading();

  // Spots for both users until the link is congested and each user's queue has overflowed.
  int sent = 0;
  const auto spot = [&] {
    return std::make_shared<const std::string>("DX de W1AW: 14025.0 spot " +
                                               std::to_string(++sent) + "\r\n");
  };
  while (!(link_->congested() && link_->spots_waiting() == 8 && link_->spots_shed() >= 20)) {
    ASSERT_LT(sent, 400000);
    if (sent % 64 == 0) RunFor(1ms);
    const auto text = spot();
    link_->SendSpotToStreamNo(5, text);
    link_->SendSpotToStreamNo(6, text);
    ASSERT_LE(link_->spots_waiting(), 8u);  // never more than four per user
  }
  const uint64_t shed = link_->spots_shed();
  // Replies, identities and disconnects queue behind the user's spots and are never shed.
  link_->SendToStreamNo(5, "reply after spots\r\n");
  link_->SetStreamIdentity(5, "G4ABC", 1);
  for (int i = 0; i < 10; ++i) link_->SendSpotToStreamNo(5, spot());
  link_->CloseStream(6);
  link_->OpenOutgoing("192.0.2.9", 7300, "GB7XX");
  EXPECT_EQ(link_->spots_shed(), shed + 10);  // stream 5's four older spots and six new ones
  EXPECT_TRUE(ErrorLogText().find("falling behind") != std::string::npos);

  fe.ResumeReading();
  ASSERT_TRUE(RunUntil([&] { return !link_->congested() && link_->queue_depth() == 0; }, 20s));
  ASSERT_TRUE(Received(fe, "GB7XX\x04"));

  // Per stream, in order: what each user received, with the spot lines counted.
  struct Seen {
    std::vector<std::string> texts;
    int spots = 0;
    uint64_t told = 0;
  } seen[7];
  std::vector<std::string> control;
  std::string_view rest = fe.received();
  while (!rest.empty()) {
    const size_t end = rest.find('\x04');
    ASSERT_NE(end, std::string_view::npos);
    const auto parts = Split(rest.substr(0, end), '\x03');
    rest.remove_prefix(end + 1);
    if (parts[0] != "0") {
      control.push_back(std::string(parts[0]) + ":" + std::string(parts[1]));
      if (parts[0] == "1" || parts[0] == "3") seen[ParseIntOr(parts[1], 0)].texts.push_back("#");
      continue;
    }
    Seen& s = seen[ParseIntOr(parts[1], 0)];
    const std::string text(parts[2]);
    if (text.starts_with("DX de")) {
      ++s.spots;
      if (s.texts.empty() || s.texts.back() != "spots") s.texts.push_back("spots");
    } else if (text.starts_with("*** ")) {
      s.told += uint64_t(ParseIntOr(Split(text, ' ')[1], 0));
      s.texts.push_back("told");
    } else if (text.starts_with("{\"type\":\"dropped\",\"count\":")) {
      s.told += uint64_t(ParseIntOr(Split(Split(text, ':')[2], '}')[0], 0));
      s.texts.push_back("told");
    } else {
      s.texts.push_back(text);
    }
  }
  std::sort(control.begin(), control.end());
  EXPECT_EQ(control, (std::vector<std::string>{"1:6", "2:192.0.2.9", "3:5"}));
  EXPECT_EQ(seen[5].texts,
            (std::vector<std::string>{"spots", "reply after spots\r\n", "#", "spots", "told"}));
  EXPECT_EQ(seen[6].texts, (std::vector<std::string>{"spots", "told", "#"}));
  EXPECT_GT(seen[5].told, 0u);
  EXPECT_GT(seen[6].told, 0u);
  // Nothing is lost without being counted, and each user hears of exactly their loss.
  EXPECT_EQ(seen[5].told + seen[6].told, link_->spots_shed());
  EXPECT_EQ(seen[5].spots + int(seen[5].told), sent);
  EXPECT_EQ(seen[6].spots + int(seen[6].told), sent - 10);
  EXPECT_EQ(link_->spots_waiting(), 0u);
  EXPECT_TRUE(ErrorLogText().find("has caught up; " + std::to_string(link_->spots_shed()) +
                                  " spot lines were dropped for 2 users") != std::string::npos);
}

// What the fake front-end received, message by message: "0" and "7" become one "stream>text"
// entry per stream they reach, in the order a front-end delivers them; other messages appear
// as "#<code>:<first element>".  fanouts counts the "7" messages and their entries.
struct Delivered {
  std::vector<std::string> items;
  std::vector<size_t> fanouts;
};
Delivered Deliveries(std::string_view rest) {
  Delivered d;
  while (!rest.empty()) {
    const size_t end = rest.find('\x04');
    if (end == std::string_view::npos) break;
    const std::string_view message = rest.substr(0, end);
    rest.remove_prefix(end + 1);
    if (message.starts_with("QX Cluster") || message.starts_with("8270")) continue;
    const auto parts = Split(message, '\x03');
    if (parts[0] == "7") {
      const std::string_view text = message.substr(parts[0].size() + parts[1].size() + 2);
      const auto targets = Split(parts[1], ',');
      d.fanouts.push_back(targets.size());
      for (std::string_view t : targets) {
        d.items.push_back(std::string(t.substr(0, t.find(':'))) + ">" + std::string(text));
      }
    } else if (parts[0] == "0") {
      d.items.push_back(std::string(parts[1]) + ">" + std::string(parts[2]));
    } else {
      d.items.push_back("#" + std::string(parts[0]) + ":" + std::string(parts[1]));
    }
  }
  return d;
}

TEST_F(LinkSocketTest, SpotLinesForManyUsersGoOutAsOneMessageOnlyToAFrontEndThatOffersIt) {
  FakeFrontend fe(io_);
  StartAgainst(fe.port());
  ASSERT_TRUE(Handshake(fe));
  fe.Send(
      "AA03^Connect Request^5^192.0.2.7:1^11^in^0\x03"
      "AA03^Connect Request^6^192.0.2.8:1^12^in^0\x03"
      "AA03^Connect Request^7^192.0.2.9:1^13^in^0\x03");
  ASSERT_TRUE(RunUntil([&] { return events_.connects.size() == 3; }));
  const auto text = [](std::string s) { return std::make_shared<const std::string>(s); };

  // Before the front-end has said it understands the message: one "0" per user.
  const auto a = text("spot A\r\n");
  link_->SendSpotToStreamNo(5, a);
  link_->SendSpotToStreamNo(6, a);
  ASSERT_TRUE(Received(fe,
                       "6\x03spot A\r\n\x03"
                       "12\x04"));
  EXPECT_TRUE(Deliveries(fe.received()).fanouts.empty());
  fe.received().clear();

  fe.Send("AA40^later,fanout\x03");
  ASSERT_TRUE(RunUntil([&] { return link_->fanout_in_use(); }));
  // Consecutive lines of one text share a message; any other output closes the group, and so
  // does another text even with the same bytes.  Chr 4 cannot end a message early.
  const auto b = text("spot B\x04\x03!\r\n");
  const auto b_again = text(*b);
  link_->SendSpotToStreamNo(5, a);
  link_->SendSpotToStreamNo(6, a);
  link_->SendToStreamNo(6, "reply\r\n");
  link_->SendSpotToStreamNo(7, a);
  link_->SendSpotToStreamNo(5, b);
  link_->SendSpotToStreamNo(6, b);
  link_->SendSpotToStreamNo(7, b_again);
  link_->SetStreamIdentity(7, "G4ABC", 1);
  link_->SendSpotToStreamNo(7, b_again);
  ASSERT_TRUE(Received(fe, "G4ABC"));
  ASSERT_TRUE(
      RunUntil([&] { return link_->queue_depth() == 0 && fe.received().ends_with('\x04'); }));
  EXPECT_NE(fe.received().find("7\x03"
                               "5:11,6:12\x03spot A\r\n\x04"),
            std::string::npos);
  const Delivered d = Deliveries(fe.received());
  EXPECT_EQ(d.items,
            (std::vector<std::string>{"5>spot A\r\n", "6>spot A\r\n", "6>reply\r\n", "7>spot A\r\n",
                                      "5>spot B\x03!\r\n", "6>spot B\x03!\r\n", "7>spot B\x03!\r\n",
                                      "#3:7", "7>spot B\x03!\r\n"}));
  EXPECT_EQ(d.fanouts, (std::vector<size_t>{2, 1, 2, 1, 1}));
  EXPECT_EQ(link_->fanout_messages(), 5u);
  EXPECT_EQ(link_->fanout_lines(), 7u);

  // A group stays within its bound: more streams go on in a message of their own.
  fe.received().clear();
  const auto c = text("spot C\r\n");
  for (int i = 0; i < 1030; ++i) link_->SendSpotToStreamNo(5 + i % 3, c);
  ASSERT_TRUE(RunUntil([&] { return Deliveries(fe.received()).items.size() == 1030; }));
  EXPECT_EQ(Deliveries(fe.received()).fanouts,
            (std::vector<size_t>{FanoutGroup::kMaxStreams, 1030 - FanoutGroup::kMaxStreams}));

  // The next front-end must say again what it understands.
  fe.Close();
  ASSERT_TRUE(RunUntil([&] { return !link_->connected(); }));
  EXPECT_FALSE(link_->fanout_in_use());
  fe.received().clear();
  ASSERT_TRUE(Handshake(fe));
  link_->SendSpotToStreamNo(5, c);
  link_->SendSpotToStreamNo(6, c);
  ASSERT_TRUE(Received(fe,
                       "6\x03spot C\r\n\x03"
                       "12\x04"));
  EXPECT_TRUE(Deliveries(fe.received()).fanouts.empty());
}

TEST_F(LinkSocketTest, AFrontEndThatFallsBehindGetsNoGroupsAndEachUserKeepsTheOrder) {
  FakeFrontend fe(io_);
  FrontendLinkOptions options;
  options.port = std::to_string(fe.port());
  options.soft_output_bytes = 32 << 10;
  options.stream_spot_queue = 1000000;  // nothing shed: every line is accounted for
  MakeLink(options);
  link_->Start();
  ASSERT_TRUE(Handshake(fe));
  fe.Send(
      "AA40^fanout\x03"
      "AA03^Connect Request^5^192.0.2.7:1^11^in^0\x03"
      "AA03^Connect Request^6^192.0.2.8:1^12^in^0\x03");
  ASSERT_TRUE(RunUntil([&] { return events_.connects.size() == 2 && link_->fanout_in_use(); }));
  fe.PauseReading();
  int sent = 0;
  int sent_congested = 0;
  while (sent_congested < 200) {
    ASSERT_LT(sent, 400000);
    if (sent % 64 == 0) RunFor(1ms);
    const auto t = std::make_shared<const std::string>("spot " + std::to_string(++sent) + "\r\n");
    if (link_->congested()) ++sent_congested;
    link_->SendSpotToStreamNo(5, t);
    if (sent % 50 == 0) link_->SendToStreamNo(5, "reply " + std::to_string(sent) + "\r\n");
    link_->SendSpotToStreamNo(6, t);
  }
  const uint64_t grouped = link_->fanout_lines();
  fe.ResumeReading();
  ASSERT_TRUE(RunUntil([&] { return !link_->congested() && link_->queue_depth() == 0; }, 20s));
  RunFor(50ms);
  EXPECT_EQ(link_->fanout_lines(), grouped);  // what waited went out one line per message

  std::vector<std::string> expected[2];
  for (int i = 1; i <= sent; ++i) {
    for (int s = 0; s < 2; ++s) expected[s].push_back("spot " + std::to_string(i) + "\r\n");
    if (i % 50 == 0) expected[0].push_back("reply " + std::to_string(i) + "\r\n");
  }
  std::vector<std::string> got[2];
  for (const std::string& item : Deliveries(fe.received()).items) {
    if (item.starts_with("5>") || item.starts_with("6>"))
      got[item[0] - '5'].push_back(item.substr(2));
  }
  EXPECT_EQ(got[0], expected[0]);
  EXPECT_EQ(got[1], expected[1]);
  EXPECT_GT(grouped, 0u);
  EXPECT_LT(grouped, uint64_t(2 * sent));
}

}  // namespace
}  // namespace qx
