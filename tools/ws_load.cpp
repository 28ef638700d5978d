// ws_load: load on the front-end's WebSocket streams for programs, end to end.  It prepares a
// program directory, starts the front-end and the node on free loopback ports, opens many
// WebSocket streams (`GET /stream`), logs one telnet user in who posts spots at a set rate,
// and measures for every spot the delay from the DX command to its arrival on each stream,
// and the spots each stream lost or got twice.  Then the resume stage: the live streams are
// closed, a batch of spots is posted as fast as the node takes them, and one stream opened
// with `since=<the number before them>` is timed until it holds them all, in order, none
// twice; a few live spots must then follow.
//
//   ws_load --home DIR --qxcluster PATH --qxfront PATH [--clients 1000] [--rate 100]
//           [--seconds 30] [--resume 10000] [--window 200] [--max-dx-spots N]
//
// The streams come from one loopback address, so the front-end's limits per address are off.
// The programs are always stopped at the end, also after an error or SIGINT.
#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <string>
#include <string_view>
#include <vector>

#include "tools/tool_util.h"

namespace {

using namespace qx::tools;

struct Options {
  ProgramPaths paths;
  int clients = 1000;
  double rate = 100;
  double seconds = 30;
  int resume = 10000;
  int window = 200;      // resume stage: spots posted but not yet echoed to the spotter
  int max_dx_spots = 0;  // "Maximum DX Spots"; 0: the node's default
};

pid_t g_node_pid = -1;
pid_t g_front_pid = -1;

// What a text message from the node is, as far as the measurement cares.
struct Message {
  enum Kind { kOther, kHello, kSpot, kGap, kDropped, kShed } kind = kOther;
  int spot = -1;    // the spot number the DX call encodes
  uint64_t id = 0;  // "id" of a spot, "last_id" of a hello, the count of a kShed
};

uint64_t NumberAfter(std::string_view text, std::string_view key) {
  const size_t at = text.find(key);
  if (at == std::string_view::npos) return 0;
  uint64_t n = 0;
  for (size_t p = at + key.size(); p < text.size() && text[p] >= '0' && text[p] <= '9'; ++p) {
    n = n * 10 + uint64_t(text[p] - '0');
  }
  return n;
}

// Reads the few keys needed without a JSON library: the node writes its objects in one fixed
// key order, and a wrong guess here shows as a lost spot, never as a false delivery.
Message ReadMessage(std::string_view text) {
  Message m;
  if (text.find("\"type\":\"spot\"") != std::string_view::npos) {
    m.kind = Message::kSpot;
    m.id = NumberAfter(text, "\"id\":");
    constexpr std::string_view kCall = "\"dx\":{\"call\":\"";
    const size_t at = text.find(kCall);
    if (at != std::string_view::npos) {
      const size_t start = at + kCall.size();
      const size_t end = text.find('"', start);
      if (end != std::string_view::npos) m.spot = DecodeDxCall(text.substr(start, end - start));
    }
  } else if (text.find("\"type\":\"hello\"") != std::string_view::npos) {
    m.kind = Message::kHello;
    m.id = NumberAfter(text, "\"last_id\":");
  } else if (text.find("\"type\":\"gap\"") != std::string_view::npos) {
    m.kind = Message::kGap;
  } else if (text.find("\"type\":\"dropped\"") != std::string_view::npos) {
    // The front-end's (this client read too slowly: messages) or the node's (its link to the
    // front-end was congested: spots it shed), told apart by their text.
    if (text.find("the node could not keep up") != std::string_view::npos) {
      m.kind = Message::kShed;
      m.id = NumberAfter(text, "\"count\":");
    } else {
      m.kind = Message::kDropped;
    }
  }
  return m;
}

// One WebSocket client: a hand-written upgrade, then server frames (never masked, lengths of
// 7, 16 or 64 bits).  Pings are answered; a close ends the client.
class WsClient {
 public:
  // Connects and sends the upgrade; false (errno set) when the connection failed.
  bool Open(int port, const std::string& target) {
    fd_ = ConnectTo(port);
    if (fd_ < 0) return false;
    const std::string request =
        "GET " + target +
        " HTTP/1.1\r\nHost: localhost\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
        "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\nSec-WebSocket-Version: 13\r\n\r\n";
    if (!SendAll(fd_, request)) return false;
    SetNonBlocking(fd_);
    return true;
  }

  // Takes received bytes; on_text(message) for every complete text message.  False when the
  // stream ended (a close frame, a refused upgrade, a frame we cannot read); why() says why.
  template <typename OnText>
  bool Feed(std::string_view data, OnText&& on_text) {
    buf_.append(data);
    if (!upgraded_) {
      const size_t end = buf_.find("\r\n\r\n");
      if (end == std::string::npos) return true;
      if (!buf_.starts_with("HTTP/1.1 101 ")) return Fail(buf_.substr(0, buf_.find('\r')));
      upgraded_ = true;
      used_ = end + 4;
    }
    while (buf_.size() >= used_ + 2) {
      const uint8_t b0 = uint8_t(buf_[used_]);
      uint64_t n = uint8_t(buf_[used_ + 1]) & 0x7F;
      if (uint8_t(buf_[used_ + 1]) & 0x80) return Fail("masked frame from the server");
      size_t header = 2;
      if (n == 126 || n == 127) {
        header = n == 126 ? 4 : 10;
        if (buf_.size() < used_ + header) break;
        n = 0;
        for (size_t i = 2; i < header; ++i) n = n << 8 | uint8_t(buf_[used_ + i]);
      }
      if (buf_.size() < used_ + header + n) break;
      const std::string_view payload(buf_.data() + used_ + header, size_t(n));
      switch (b0 & 0x0F) {
        case 1:
          on_text(payload);
          break;
        case 8:
          return Fail("closed by the front-end");
        case 9:
          Pong(payload);
          break;
        default:
          break;
      }
      used_ += header + size_t(n);
    }
    if (used_ > 0 && used_ * 2 >= buf_.size()) {
      buf_.erase(0, used_);
      used_ = 0;
    }
    return true;
  }

  void Close() {
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
  }
  int fd() const { return fd_; }
  bool upgraded() const { return upgraded_; }
  const std::string& why() const { return why_; }

 private:
  bool Fail(std::string why) {
    why_ = std::move(why);
    return false;
  }
  // Client frames must be masked; a zero mask keeps the payload as it is.
  void Pong(std::string_view payload) {
    std::string frame{char(0x8A), char(0x80 | std::min<size_t>(payload.size(), 125))};
    frame.append(4, '\0');
    frame.append(payload.substr(0, 125));
    SendAll(fd_, frame);
  }

  int fd_ = -1;
  std::string buf_;
  size_t used_ = 0;
  bool upgraded_ = false;
  std::string why_;
};

struct SpotRecord {
  Clock::time_point sent{};
  int received = 0;
};

// What one stream got, for the loss and order checks.
struct StreamTally {
  int spots = 0;
  int duplicates = 0;
  int out_of_order = 0;
  int gaps = 0;
  int dropped_notices = 0;
  long shed = 0;  // spots the node said it dropped
  int last_spot = -1;
  uint64_t hello_last_id = 0;
  bool hello = false;
};

class Load {
 public:
  static constexpr uint32_t kSpotterId = 1u << 30;

  explicit Load(const Options& o) : opt_(o) { read_buf_.resize(256 * 1024); }

  // Logs the spotter in on the user port.
  void LogInSpotter(int user_port) {
    spotter_fd_ = ConnectTo(user_port);
    if (spotter_fd_ < 0) Die(std::string("connect for the spotter: ") + std::strerror(errno));
    SetNonBlocking(spotter_fd_);
    loop_.Watch(spotter_fd_, kSpotterId);
    const auto limit = Clock::now() + std::chrono::seconds(30);
    while (!dialogue_.done()) {
      if (Clock::now() > limit) Die("the spotter's log-in timed out");
      Pump(50);
    }
  }

  // Opens `count` streams at `target`, a window of 100 upgrades at a time; dies when one is
  // refused.  Returns the seconds it took.
  double OpenStreams(int web_port, int count, const std::string& target) {
    const auto start = Clock::now();
    const auto limit = start + std::chrono::seconds(60 + count / 20);
    const size_t first = clients_.size();
    clients_.resize(first + size_t(count));
    tallies_.resize(clients_.size());
    size_t next = first;
    while (hellos_ < int(clients_.size())) {
      while (next < clients_.size() && int(next) - hellos_ < 100) {
        if (!clients_[next].Open(web_port, target)) {
          Die("connect for stream " + std::to_string(next) + ": " + std::strerror(errno));
        }
        loop_.Watch(clients_[next].fd(), uint32_t(next));
        ++next;
      }
      Pump(50);
      if (closed_ > 0) Die(std::to_string(closed_) + " streams ended while opening");
      if (Clock::now() > limit) {
        Die("opening streams timed out: " + std::to_string(hellos_) + " of " +
            std::to_string(clients_.size()) + " greeted");
      }
    }
    return Ms(Clock::now() - start) / 1000;
  }

  // The live stage: spots at opt_.rate for opt_.seconds; prints the figures.
  void Live() {
    const int count = std::max(1, int(opt_.rate * opt_.seconds));
    first_live_ = int(spots_.size());
    live_end_ = first_live_ + count;
    spots_.resize(spots_.size() + size_t(count));
    seen_.assign(size_t(count) * clients_.size(), false);
    deliveries_ = 0;
    const ProcStats node0 = ReadProc(g_node_pid), front0 = ReadProc(g_front_pid);
    const double self0 = SelfCpu();
    const auto t0 = Clock::now();
    auto due = [&](int k) {
      return t0 + std::chrono::duration_cast<Clock::duration>(
                      std::chrono::duration<double>(k / opt_.rate));
    };
    int next = 0;
    Clock::time_point last_sent{};
    while (true) {
      while (next < count && Clock::now() >= due(next)) Post(first_live_ + next++);
      if (next < count) loop_.ArmTimer(due(next));
      if (next == count && last_sent == Clock::time_point{}) last_sent = Clock::now();
      if (next == count && deliveries_ == long(count) * long(clients_.size())) break;
      if (last_sent != Clock::time_point{} && Clock::now() - last_sent > std::chrono::seconds(10))
        break;
      Pump(20);
    }
    const double sent_rate =
        count > 1
            ? (count - 1) / std::max(1e-9, std::chrono::duration<double>(last_sent - t0).count())
            : 0;
    const ProcStats node1 = ReadProc(g_node_pid), front1 = ReadProc(g_front_pid);
    const double self1 = SelfCpu();
    long lost = 0, dups = 0, disorder = 0, dropped = 0, shed = 0;
    for (size_t c = 0; c < clients_.size(); ++c) {
      shed += tallies_[c].shed;
      dups += tallies_[c].duplicates;
      disorder += tallies_[c].out_of_order;
      dropped += tallies_[c].dropped_notices;
    }
    for (int k = 0; k < count; ++k) {
      lost += long(clients_.size()) - spots_[size_t(first_live_ + k)].received;
    }
    const double msgs = std::max<double>(1, double(deliveries_));
    live_ = {
        .count = count,
        .sent_rate = sent_rate,
        .p50 = Percentile(delays_, 50),
        .p90 = Percentile(delays_, 90),
        .p99 = Percentile(delays_, 99),
        .max = Percentile(delays_, 100),
        .lost = lost,
        .dups = dups,
        .disorder = disorder,
        .dropped = dropped,
        .shed = shed,
        .node_us = (node1.cpu_s - node0.cpu_s) * 1e6 / msgs,
        .front_us = (front1.cpu_s - front0.cpu_s) * 1e6 / msgs,
        .self_us = (self1 - self0) * 1e6 / msgs,
        .node_rss_mb = double(node1.rss_kb) / 1024,
        .front_rss_mb = double(front1.rss_kb) / 1024,
        .node_wait_s = node1.wait_s - node0.wait_s,
        .front_wait_s = front1.wait_s - front0.wait_s,
        .load = LoadAverage(),
    };
    std::printf(
        "live: %zu streams, %d spots at %.0f/s asked, %.1f/s sent, load %s\n"
        "  delay DX command -> stream, ms (every stream, every spot): p50 %.2f p90 %.2f p99 %.2f "
        "max %.2f\n"
        "  lost %ld, duplicates %ld, out of order %ld, front-end dropped notices %ld, spots "
        "the node said it shed %ld\n"
        "  CPU us per delivered message: qxcluster %.2f, qxfront %.2f, ws_load %.2f; waiting for "
        "a core s: qxcluster %.2f, qxfront main thread %.2f\n"
        "  RSS MB: qxcluster %.1f, qxfront %.1f\n",
        clients_.size(), count, opt_.rate, sent_rate, live_.load.c_str(), live_.p50, live_.p90,
        live_.p99, live_.max, lost, dups, disorder, dropped, shed, live_.node_us, live_.front_us,
        live_.self_us, live_.node_wait_s, live_.front_wait_s, live_.node_rss_mb,
        live_.front_rss_mb);
    std::fflush(stdout);
  }

  // Ends every stream open now (the live ones), so the resume stage measures the replay alone.
  void CloseStreams() {
    for (WsClient& c : clients_) {
      if (c.fd() >= 0) loop_.Unwatch(c.fd());
      c.Close();
    }
    WaitQuiet([this](int ms) { return Pump(ms); }, std::chrono::milliseconds(300),
              std::chrono::seconds(5));
  }

  // The resume stage; prints the figures.
  void Resume(int web_port) {
    // The number of the newest spot now: the stream resumes after it.
    const size_t probe = clients_.size();
    OpenStreams(web_port, 1, "/stream");
    const uint64_t since = tallies_[probe].hello_last_id;
    loop_.Unwatch(clients_[probe].fd());
    clients_[probe].Close();

    const int first = int(spots_.size());
    const int count = opt_.resume;
    spots_.resize(spots_.size() + size_t(count) + kLiveAfter);
    const auto post_start = Clock::now();
    int next = first;
    while (echoed_floor(first, next) < first + count) {
      while (next < first + count && next - echoed_floor(first, next) < opt_.window) Post(next++);
      Pump(5);
      if (Clock::now() - post_start > std::chrono::seconds(300)) Die("posting the spots stalled");
    }
    const double post_s = Ms(Clock::now() - post_start) / 1000;
    const ProcStats node0 = ReadProc(g_node_pid), front0 = ReadProc(g_front_pid);

    const size_t me = clients_.size();
    resume_first_ = first;
    resume_count_ = count;
    const auto start = Clock::now();
    OpenStreams(web_port, 1, "/stream?since=" + std::to_string(since));
    const auto limit = start + std::chrono::seconds(60);
    while (tallies_[me].spots < count && Clock::now() < limit && clients_[me].fd() >= 0) Pump(20);
    const double resume_s = Ms(Clock::now() - start) / 1000;
    const ProcStats node1 = ReadProc(g_node_pid), front1 = ReadProc(g_front_pid);
    const StreamTally replay = tallies_[me];
    // Then live spots, which must follow the replay.
    for (int k = 0; k < kLiveAfter; ++k) Post(first + count + k);
    const auto live_limit = Clock::now() + std::chrono::seconds(10);
    while (tallies_[me].spots < count + kLiveAfter && Clock::now() < live_limit) Pump(20);
    const StreamTally& t = tallies_[me];
    resume_ = {
        .count = count,
        .got = replay.spots,
        .post_s = post_s,
        .seconds = resume_s,
        .duplicates = t.duplicates,
        .out_of_order = t.out_of_order,
        .gaps = t.gaps,
        .dropped = t.dropped_notices,
        .live_after = t.spots - replay.spots,
        .node_cpu_s = node1.cpu_s - node0.cpu_s,
        .front_cpu_s = front1.cpu_s - front0.cpu_s,
        .load = LoadAverage(),
    };
    std::printf(
        "resume: %d spots posted in %.2f s (%.0f/s); a stream with since=%llu held %d of them "
        "after %.3f s; load %s\n"
        "  duplicates %d, out of order %d, gap notices %d, dropped notices %d; live spots after "
        "the replay %d of %d\n"
        "  CPU s during the replay: qxcluster %.3f, qxfront %.3f\n",
        count, post_s, count / std::max(1e-9, post_s), (unsigned long long)since, replay.spots,
        resume_s, resume_.load.c_str(), t.duplicates, t.out_of_order, t.gaps, t.dropped_notices,
        resume_.live_after, kLiveAfter, resume_.node_cpu_s, resume_.front_cpu_s);
    std::fflush(stdout);
  }

  void PrintJson() const {
    std::printf(
        "{\"tool\":\"ws_load\",\"streams\":%d,\"rate\":%.0f,\"spots\":%d,\"sent_rate\":%.1f,"
        "\"p50_ms\":%.2f,\"p90_ms\":%.2f,\"p99_ms\":%.2f,\"max_ms\":%.2f,\"lost\":%ld,"
        "\"duplicates\":%ld,\"out_of_order\":%ld,\"dropped_notices\":%ld,\"shed\":%ld,"
        "\"node_us_per_msg\":%.2f,\"front_us_per_msg\":%.2f,\"node_rss_mb\":%.1f,"
        "\"front_rss_mb\":%.1f,\"live_load\":\"%s\",\"resume_spots\":%d,\"resume_got\":%d,"
        "\"resume_s\":%.3f,\"resume_duplicates\":%d,\"resume_out_of_order\":%d,"
        "\"resume_gaps\":%d,\"resume_dropped_notices\":%d,\"resume_live_after\":%d,"
        "\"resume_load\":\"%s\"}\n",
        opt_.clients, opt_.rate, live_.count, live_.sent_rate, live_.p50, live_.p90, live_.p99,
        live_.max, live_.lost, live_.dups, live_.disorder, live_.dropped, live_.shed, live_.node_us,
        live_.front_us, live_.node_rss_mb, live_.front_rss_mb, live_.load.c_str(), resume_.count,
        resume_.got, resume_.seconds, resume_.duplicates, resume_.out_of_order, resume_.gaps,
        resume_.dropped, resume_.live_after, resume_.load.c_str());
  }

  bool Passed() const {
    return live_.lost == 0 && live_.dups == 0 && live_.disorder == 0 &&
           resume_.got == resume_.count && resume_.duplicates == 0 && resume_.out_of_order == 0 &&
           resume_.gaps == 0 && resume_.live_after == kLiveAfter;
  }

 private:
  static constexpr int kLiveAfter = 5;

  struct LiveFigures {
    int count = 0;
    double sent_rate = 0, p50 = 0, p90 = 0, p99 = 0, max = 0;
    long lost = 0, dups = 0, disorder = 0, dropped = 0, shed = 0;
    double node_us = 0, front_us = 0, self_us = 0, node_rss_mb = 0, front_rss_mb = 0;
    double node_wait_s = 0, front_wait_s = 0;
    std::string load;
  };
  struct ResumeFigures {
    int count = 0, got = 0;
    double post_s = 0, seconds = 0;
    int duplicates = 0, out_of_order = 0, gaps = 0, dropped = 0, live_after = 0;
    double node_cpu_s = 0, front_cpu_s = 0;
    std::string load;
  };

  void Post(int k) {
    char cmd[128];
    const int n = std::snprintf(cmd, sizeof cmd, "DX %.1f %s ws load %d\r\n", SpotKHz(k),
                                DxCall(k).c_str(), k);
    spots_[size_t(k)].sent = Clock::now();
    if (!SendAll(spotter_fd_, std::string_view(cmd, size_t(n)))) {
      Die(std::string("send for the spotter: ") + std::strerror(errno));
    }
  }

  // Lowest spot from `first` on that has not come back to the spotter.
  int echoed_floor(int first, int next) {
    echo_floor_ = std::max(echo_floor_, first);
    if (echoed_.size() < spots_.size()) echoed_.resize(spots_.size(), false);
    while (echo_floor_ < next && echoed_[size_t(echo_floor_)]) ++echo_floor_;
    return echo_floor_;
  }

  int Pump(int timeout_ms) {
    return loop_.Wait(timeout_ms, [this](uint32_t id) {
      const int fd = id == kSpotterId ? spotter_fd_ : clients_[id].fd();
      if (fd < 0) return 0;
      const int reads = ReadAvailable(fd, read_buf_, [&](std::string_view data, auto now) {
        if (id == kSpotterId) {
          OnSpotterData(data);
        } else if (!clients_[id].Feed(data, [&](std::string_view m) { OnText(id, m, now); })) {
          Ended(id, clients_[id].why());
        }
      });
      if (reads < 0) {
        if (id == kSpotterId) Die("the spotter's connection ended");
        Ended(id, errno == 0 ? "end of stream" : std::strerror(errno));
      }
      return std::max(reads, 0);
    });
  }

  void Ended(uint32_t id, const std::string& why) {
    if (clients_[id].fd() < 0) return;
    if (closed_ < 5) std::fprintf(stderr, "ws_load: stream %u ended: %s\n", id, why.c_str());
    loop_.Unwatch(clients_[id].fd());
    clients_[id].Close();
    ++closed_;
  }

  void OnSpotterData(std::string_view data) {
    if (!dialogue_.done()) {
      const std::string answer = dialogue_.Feed(data);
      if (!answer.empty()) SendAll(spotter_fd_, answer);
      if (!dialogue_.done()) return;
      std::string rest;
      rest.swap(dialogue_.rest());
      data = rest;
      spotter_lines_.Feed(data, [&](std::string_view line) { OnSpotterLine(line); });
      return;
    }
    spotter_lines_.Feed(data, [&](std::string_view line) { OnSpotterLine(line); });
  }

  void OnSpotterLine(std::string_view line) {
    const int k = SpotOfLine(line);
    if (k < 0 || size_t(k) >= spots_.size()) return;
    if (echoed_.size() < spots_.size()) echoed_.resize(spots_.size(), false);
    echoed_[size_t(k)] = true;
  }

  void OnText(uint32_t id, std::string_view text, Clock::time_point now) {
    const Message m = ReadMessage(text);
    StreamTally& t = tallies_[id];
    switch (m.kind) {
      case Message::kHello:
        if (!t.hello) ++hellos_;
        t.hello = true;
        t.hello_last_id = m.id;
        return;
      case Message::kGap:
        ++t.gaps;
        return;
      case Message::kDropped:
        ++t.dropped_notices;
        return;
      case Message::kShed:
        t.shed += long(m.id);
        return;
      case Message::kOther:
        return;
      case Message::kSpot:
        break;
    }
    const int k = m.spot;
    if (k < 0 || size_t(k) >= spots_.size()) return;
    if (k <= t.last_spot) {
      // Live spots are posted in order by one user, so a lower number is a repeat or a
      // reordering; which of the two the per-spot bits below tell.
      ++t.out_of_order;
    }
    t.last_spot = std::max(t.last_spot, k);
    if (k >= first_live_ && k < live_end_) {
      const size_t bit = size_t(k - first_live_) * clients_.size() + id;
      if (bit < seen_.size()) {
        if (seen_[bit]) {
          ++t.duplicates;
          --t.out_of_order;
          return;
        }
        seen_[bit] = true;
        ++spots_[size_t(k)].received;
        ++deliveries_;
        delays_.push_back(Ms(now - spots_[size_t(k)].sent));
      }
    } else if (k >= resume_first_) {
      if (resume_seen_.empty()) resume_seen_.assign(size_t(resume_count_ + kLiveAfter), false);
      const size_t bit = size_t(k - resume_first_);
      if (bit < resume_seen_.size() && resume_seen_[bit]) {
        ++t.duplicates;
        --t.out_of_order;
        return;
      }
      if (bit < resume_seen_.size()) resume_seen_[bit] = true;
    }
    ++t.spots;
  }

  const Options& opt_;
  EventLoop loop_;
  std::vector<char> read_buf_;
  std::vector<WsClient> clients_;
  std::vector<StreamTally> tallies_;
  std::vector<SpotRecord> spots_;
  std::vector<bool> seen_;  // live stage: (spot, stream) delivered
  std::vector<bool> resume_seen_;
  std::vector<bool> echoed_;
  std::vector<double> delays_;
  long deliveries_ = 0;
  int first_live_ = 0;
  int live_end_ = 0;
  int resume_first_ = INT32_MAX;
  int resume_count_ = 0;
  int hellos_ = 0;
  int closed_ = 0;
  int echo_floor_ = 0;
  int spotter_fd_ = -1;
  LogInDialogue dialogue_{"W1QXL", "Load"};
  LineSplitter spotter_lines_;
  LiveFigures live_;
  ResumeFigures resume_;
};

Options ParseOptions(int argc, char** argv) {
  Options o;
  Args args(argc, argv);
  while (args.Next()) {
    if (o.paths.Take(args)) continue;
    if (args.Is("--clients")) {
      o.clients = args.Int();
    } else if (args.Is("--rate")) {
      o.rate = args.Double();
    } else if (args.Is("--seconds")) {
      o.seconds = args.Double();
    } else if (args.Is("--resume")) {
      o.resume = args.Int();
    } else if (args.Is("--window")) {
      o.window = std::max(1, args.Int());
    } else if (args.Is("--max-dx-spots")) {
      o.max_dx_spots = std::max(0, args.Int());
    } else {
      args.Unknown(std::string(ProgramPaths::kFlags) +
                   " --clients --rate --seconds --resume --window --max-dx-spots");
    }
  }
  o.paths.Finish();
  if (o.clients < 1 || o.rate <= 0 || o.seconds <= 0 || o.resume < 1) {
    Die("--clients, --rate, --seconds and --resume must be positive");
  }
  if (o.rate * o.seconds + o.resume + 10 > kMaxDxCalls) Die("too many spots for distinct DX calls");
  return o;
}

}  // namespace

int main(int argc, char** argv) {
  SetUpTool("ws_load");
  const Options opt = ParseOptions(argc, argv);
  const rlim_t want = rlim_t(opt.clients) + 1000;
  const rlim_t files = RaiseFileLimit(want);
  if (files < want) Die("open-file limit " + std::to_string(files) + " is too low");

  std::printf("ws_load: %d streams, %.0f spots/s for %.0f s, resume of %d; load %s\n", opt.clients,
              opt.rate, opt.seconds, opt.resume, LoadAverage().c_str());
  // A port free a moment ago may be taken by the time the front-end listens (other programs on
  // the machine open connections too): then the front-end stops, and the next try takes
  // other ports.
  int user_port = 0, web_port = 0;
  for (int attempt = 1;; ++attempt) {
    const int link_port = FreePort();
    user_port = FreePort();
    const int console_port = FreePort();
    web_port = FreePort();
    std::string cfg =
        SiteConfig("XX0QX-1", link_port, user_port, console_port) + kNoSpotLimits +
        "WebSocket Port^" + std::to_string(web_port) +
        "\r\nWebSocket Max Per Address^0\r\n"
        // Nothing may leave the machine: no reference downloads, WWV fetch or update check.
        "Country File URL^\r\nKnown Calls URL^\r\nWWV URL^\r\nUpdate URL^\r\n";
    if (opt.max_dx_spots > 0) {
      cfg += "Maximum DX Spots^" + std::to_string(opt.max_dx_spots) + "\r\n";
    }
    PrepareHome(opt.paths.home, opt.paths.cty, cfg);
    g_front_pid = Spawn(opt.paths.qxfront, opt.paths.home, "qxfront");
    g_node_pid = Spawn(opt.paths.qxcluster, opt.paths.home, "qxcluster");
    if (WaitForBanner(user_port, std::chrono::seconds(attempt < 3 ? 10 : 60))) break;
    if (attempt == 3) Die("no log-in banner: see " + opt.paths.home.string() + "/*.out");
    std::fprintf(stderr, "ws_load: no log-in banner (a port taken?); trying other ports\n");
    StopChildren();
  }

  Load load(opt);
  load.LogInSpotter(user_port);
  const double open_s = load.OpenStreams(web_port, opt.clients, "/stream");
  std::printf("opened %d streams in %.2f s; load %s\n", opt.clients, open_s, LoadAverage().c_str());
  std::fflush(stdout);
  load.Live();
  load.CloseStreams();
  load.Resume(web_port);
  load.PrintJson();
  rusage self{};
  getrusage(RUSAGE_SELF, &self);
  std::printf("ws_load itself: CPU %.2f s, peak RSS %.1f MB\n", SelfCpu(),
              double(self.ru_maxrss) / 1024);
  StopChildren();
  return load.Passed() ? 0 : 2;
}
