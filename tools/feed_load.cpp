// feed_load: the whole node under sustained feed load.  It prepares a program directory,
// starts a private MQTT broker, the front-end and the node on free loopback ports, logs many
// users in, and then plays both feeds at once for a set time:
//
//  - the skimmer feed server: the node calls the tool's own listening socket through the
//    front-end, the tool asks for a call and then sends raw "DX de CALL-#:" lines at
//    --skimmer-rate.  --new-per-second of the calls are new, each reported by three distinct
//    skimmers within 0.1 kHz, so the node verifies it at the third line; every other line
//    repeats a call already out (a dupe the node must hold back).
//  - the reporter network: JSON reception reports published to the broker at
//    --reporter-rate, --reporter-new-per-second of them for new DX, the rest further
//    receivers of a DX whose collapse window is still open.
//
// A share of the users (--takers) turn on skimmer and reporter spots.  Measured: the delay
// from the third skimmer report's send to the spot's arrival at the takers (every arrival at
// --timed takers, the last arrival at any taker), the reporter delay beyond the hold (arrival
// minus first report minus FT8 Hold), spots expected against received (none lost, none
// twice), that the other users get none, and the RSS and CPU of both programs every 10 s.
//
//   feed_load --home DIR --qxcluster PATH --qxfront PATH [--users 1000] [--takers 200]
//             [--timed 20] [--seconds 600] [--skimmer-rate 2000] [--new-per-second 20]
//             [--reporter-rate 500] [--reporter-new-per-second 10] [--hold 30]
//             [--feed-limit 0] [--broker /usr/sbin/mosquitto] [--login-window 100]
//
// --feed-limit sets the node's "Feed Max Lines Per Second" (0: twice --skimmer-rate, so the
// flood cut never meets a feed that is only bunched up by scheduling).
//
// All three children are always stopped at the end, also after an error or SIGINT.
#include <mosquitto.h>

#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "tools/tool_util.h"

namespace {

using namespace qx::tools;
using std::chrono::duration;
using std::chrono::duration_cast;
using std::chrono::milliseconds;
using std::chrono::seconds;

struct Options {
  ProgramPaths paths;
  int users = 1000;
  int takers = 200;
  int timed = 20;
  int seconds = 600;
  double skimmer_rate = 2000;
  double new_per_second = 20;
  double reporter_rate = 500;
  double reporter_new_per_second = 10;
  int hold = 30;
  int feed_limit = 0;
  std::string broker = "/usr/sbin/mosquitto";
  int login_window = 100;
};

pid_t g_node_pid = -1;
pid_t g_front_pid = -1;

// ---------------------------------------------------------------------------------------
// Skimmer DX calls and their frequencies
//
// A new skimmer call k sits in one of kSlots frequency slots, 0.5 kHz apart on the HF bands,
// and its call names the slot (prefix, digit, first letter) and the round g = k / kSlots
// twice (the last two letters).  Two calls in one slot thus differ in two letters and calls
// in different slots are at least 0.4 kHz apart, so that none is ever taken for a decoding
// slip of another (which the node would drop as busted).

constexpr int kSlots = kDxPrefixCount * 10 * 26;
constexpr int kMaxSkimmerCalls = kSlots * 26;

std::string SkimmerDx(int k) {
  const int slot = k % kSlots;
  const int round = k / kSlots;
  std::string call = kDxPrefixes[slot % kDxPrefixCount];
  call += char('0' + slot / kDxPrefixCount % 10);
  call += char('A' + slot / (kDxPrefixCount * 10));
  call += char('A' + round);
  call += char('A' + round);
  return call;
}

int DecodeSkimmerDx(std::string_view call) {
  size_t p = 0;
  while (p < call.size() && call[p] >= 'A' && call[p] <= 'Z') ++p;
  if (p == 0 || call.size() != p + 4) return -1;
  int prefix = -1;
  for (int i = 0; i < kDxPrefixCount; ++i) {
    if (call.substr(0, p) == kDxPrefixes[i]) prefix = i;
  }
  const char digit = call[p], first = call[p + 1], round = call[p + 2];
  if (prefix < 0 || digit < '0' || digit > '9' || first < 'A' || first > 'Z' || round < 'A' ||
      round > 'Z' || call[p + 3] != round) {
    return -1;
  }
  const int slot = prefix + kDxPrefixCount * (digit - '0') + kDxPrefixCount * 10 * (first - 'A');
  return (round - 'A') * kSlots + slot;
}

double SlotKHz(int slot) {
  struct Band {
    double start;
    int slots;
  };
  static constexpr Band kBands[] = {{1800, 200},  {3500, 400},  {7000, 300},
                                    {10100, 80},  {14000, 600}, {18068, 160},
                                    {21000, 700}, {24890, 160}, {28000, 600}};
  for (const Band& b : kBands) {
    if (slot < b.slots) return b.start + 1.0 + slot * 0.5;
    slot -= b.slots;
  }
  return -1;  // more slots than the table holds: caught at start
}

// Skimmers with calls of known countries (the node refuses spotters of none).
std::string SkimmerCall(int i) {
  static constexpr const char* kPrefixes[] = {"DL", "G", "OH", "W", "JA", "VE", "PA", "SM"};
  return fmt::format("{}{}SK{}", kPrefixes[i % 8], i / 8 % 10, char('A' + i / 80 % 26));
}
constexpr int kSkimmers = 24;

std::string ReceiverCall(int i) {
  static constexpr const char* kPrefixes[] = {"DL", "G", "OH", "PA", "SM", "F", "I", "EA"};
  return fmt::format("{}{}RX{}", kPrefixes[i % 8], i / 8 % 10, char('A' + i / 80 % 26));
}
constexpr int kReceivers = 64;

// Reporter DX m uses the shared DX-call encoding, on the FT8 frequency of one of nine bands.
int64_t ReporterHz(int m) {
  static constexpr int64_t kBandsHz[] = {1840000,  3573000,  7074000,  10136000, 14074000,
                                         18100000, 21074000, 24915000, 28074000};
  return kBandsHz[m % 9] + int64_t(m / 9 % 30) * 100;
}
const char* ReporterBand(int m) {
  static constexpr const char* kNames[] = {"160m", "80m", "40m", "30m", "20m",
                                           "17m",  "15m", "12m", "10m"};
  return kNames[m % 9];
}

std::string HHnnZ() {
  const std::time_t t = std::time(nullptr);
  std::tm tm{};
  gmtime_r(&t, &tm);
  return fmt::format("{:02}{:02}Z", tm.tm_hour, tm.tm_min);
}

// ---------------------------------------------------------------------------------------
// The broker: a child of its own, stopped with the others

pid_t SpawnBroker(const std::string& program, const fs::path& home, int port) {
  const fs::path conf = home / "mosquitto.conf";
  {
    std::ofstream out(conf, std::ios::trunc);
    // No persistence and no per-client queue limit: every report published reaches the
    // node's subscription unless the node itself stops reading.
    out << "listener " << port << " 127.0.0.1\nallow_anonymous true\npersistence false\n"
        << "max_queued_messages 0\nlog_dest stdout\n";
    if (!out) Die("cannot write " + conf.string());
  }
  return SpawnArgs({program, "-c", conf.string()}, (home / "mosquitto.out").string());
}

// ---------------------------------------------------------------------------------------
// The run

enum class UserState : uint8_t { kIdle, kLoggingIn, kReady, kClosed };

struct User {
  int fd = -1;
  UserState state = UserState::kIdle;
  LogInDialogue dialogue{"", ""};
  LineSplitter lines;
  int confirmations = 0;  // of the two SET commands
};

struct SpotRecord {
  Clock::time_point due{};  // third skimmer report sent / first reporter report + hold
  Clock::time_point last{};
  int received = 0;
  int duplicates = 0;
};

struct Sample {
  double t_s;
  double node_rss_mb, front_rss_mb, node_cpu_pct, front_cpu_pct;
  std::string load;
  long skimmer_lines, reports;
};

class Run {
 public:
  explicit Run(const Options& o) : opt_(o), users_(size_t(o.users)), rng_(17) {
    read_buf_.resize(256 * 1024);
    const size_t skimmer_calls = size_t(o.new_per_second * o.seconds) + 2;
    const size_t reporter_dx = size_t(o.reporter_new_per_second * o.seconds) + 2;
    skimmer_.resize(skimmer_calls);
    reporter_.resize(reporter_dx);
    reporter_first_.resize(reporter_dx);
    skimmer_seen_.resize(skimmer_calls * size_t(o.takers));
    reporter_seen_.resize(reporter_dx * size_t(o.takers));
    skimmer_done_at_.reserve(skimmer_calls);
  }

  int listen_fd() const { return listen_fd_; }

  // The tool's feed server socket; nothing is sent until the node connects.
  int Listen() {
    listen_fd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    int one = 1;
    ::setsockopt(listen_fd_, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::bind(listen_fd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
        ::listen(listen_fd_, 4) != 0) {
      Die(std::string("feed server socket: ") + std::strerror(errno));
    }
    socklen_t len = sizeof addr;
    ::getsockname(listen_fd_, reinterpret_cast<sockaddr*>(&addr), &len);
    loop_.Watch(listen_fd_, kListenId);
    return ntohs(addr.sin_port);
  }

  void ConnectBroker(int port) {
    mosquitto_lib_init();
    mosq_ = mosquitto_new("feed_load", true, nullptr);
    if (mosq_ == nullptr) Die("mosquitto_new failed");
    const auto end = Clock::now() + seconds(10);
    int rc = MOSQ_ERR_UNKNOWN;
    while (Clock::now() < end &&
           (rc = mosquitto_connect(mosq_, "127.0.0.1", port, 60)) != MOSQ_ERR_SUCCESS) {
      std::this_thread::sleep_for(milliseconds(100));
    }
    if (rc != MOSQ_ERR_SUCCESS) Die(std::string("broker: ") + mosquitto_strerror(rc));
    if (mosquitto_loop_start(mosq_) != MOSQ_ERR_SUCCESS) Die("mosquitto_loop_start failed");
  }

  void StopBrokerClient() {
    if (mosq_ == nullptr) return;
    mosquitto_disconnect(mosq_);
    mosquitto_loop_stop(mosq_, false);
    mosquitto_destroy(mosq_);
    mosquitto_lib_cleanup();
    mosq_ = nullptr;
  }

  // Waits for the node to call and answers its log-in: prompt, then the call it sends.
  void AcceptFeed(seconds limit) {
    const auto end = Clock::now() + limit;
    while (feed_fd_ < 0 || feed_call_.empty()) {
      if (Clock::now() > end) {
        Die(feed_fd_ < 0 ? "the node did not call the feed server"
                         : "the node did not answer the feed server's prompt");
      }
      Pump(50);
    }
    std::printf("feed: the node logged in as %s\n", feed_call_.c_str());
  }

  void LogIn(int port) {
    const auto start = Clock::now();
    const auto limit = start + seconds(60 + opt_.users / 50);
    int next = 0;
    while (logged_in_ < opt_.users) {
      while (next < opt_.users && next - logged_in_ < opt_.login_window) {
        User& u = users_[size_t(next)];
        u.fd = ConnectTo(port);
        if (u.fd < 0) Die("connect for user " + UserCall(next) + ": " + std::strerror(errno));
        SetNonBlocking(u.fd);
        loop_.Watch(u.fd, uint32_t(next));
        u.state = UserState::kLoggingIn;
        u.dialogue = LogInDialogue(UserCall(next), "Load");
        ++next;
      }
      Pump(50);
      if (closed_ > 0) Die(std::to_string(closed_) + " users were closed while logging in");
      if (Clock::now() > limit) {
        Die("log-in timed out: " + std::to_string(logged_in_) + " of " +
            std::to_string(opt_.users));
      }
    }
    login_seconds_ = Ms(Clock::now() - start) / 1000;
    // The takers ask for machine-made spots; each command is confirmed by a line.
    for (int i = 0; i < opt_.takers; ++i) Send(i, "SET/SKIMMERSPOTS\r\nSET/PSKR\r\n");
    const auto set_limit = Clock::now() + seconds(60);
    while (confirmed_ < opt_.takers) {
      Pump(50);
      if (Clock::now() > set_limit) {
        Die("only " + std::to_string(confirmed_) + " takers confirmed their switches");
      }
    }
    WaitQuiet([this](int ms) { return Pump(ms); }, milliseconds(500), seconds(20));
  }

  // Both feeds for opt_.seconds, then a drain long enough for the last reporter hold.
  void Play(int node_pid, int front_pid) {
    const auto t0 = Clock::now();
    const auto send_end = t0 + seconds(opt_.seconds);
    const auto drain_end = send_end + seconds(opt_.hold + 10);
    auto next_sample = t0 + seconds(10);
    ProcStats node_prev = ReadProc(node_pid), front_prev = ReadProc(front_pid);
    auto prev_at = t0;
    const double new_lines_per_second = 3 * opt_.new_per_second;
    while (true) {
      const auto now = Clock::now();
      if (now < send_end) {
        const double elapsed = duration<double>(now - t0).count();
        const long skimmer_due = long(elapsed * opt_.skimmer_rate);
        std::string batch;
        while (skimmer_lines_ < skimmer_due) {
          const long i = skimmer_lines_++;
          const bool new_line = long((i + 1) * new_lines_per_second / opt_.skimmer_rate) >
                                long(i * new_lines_per_second / opt_.skimmer_rate);
          AppendSkimmerLine(batch, new_line);
        }
        if (!batch.empty()) SendFeed(batch);
        const long reports_due = long(elapsed * opt_.reporter_rate);
        while (reports_ < reports_due) {
          const long i = reports_++;
          const bool new_dx = long((i + 1) * opt_.reporter_new_per_second / opt_.reporter_rate) >
                              long(i * opt_.reporter_new_per_second / opt_.reporter_rate);
          Publish(new_dx, now);
        }
      }
      FlushFeed();
      if (now >= next_sample) {
        const ProcStats node = ReadProc(node_pid), front = ReadProc(front_pid);
        const double span = duration<double>(now - prev_at).count();
        samples_.push_back({duration<double>(now - t0).count(), double(node.rss_kb) / 1024,
                            double(front.rss_kb) / 1024,
                            100 * (node.cpu_s - node_prev.cpu_s) / span,
                            100 * (front.cpu_s - front_prev.cpu_s) / span, LoadAverage(),
                            skimmer_lines_, reports_});
        const Sample& s = samples_.back();
        std::printf(
            "t=%4.0fs qxcluster RSS %7.1f MB CPU %5.1f%% | qxfront RSS %6.1f MB CPU %5.1f%% | "
            "load %s | skimmer spots %d reporter spots %d | feed backlog %zu B\n",
            s.t_s, s.node_rss_mb, s.node_cpu_pct, s.front_rss_mb, s.front_cpu_pct, s.load.c_str(),
            skimmer_new_, reporter_new_, feed_out_.size());
        std::fflush(stdout);
        if (!node.alive || !front.alive) Die("a program under test is no longer running");
        node_prev = node;
        front_prev = front;
        prev_at = now;
        next_sample += seconds(10);
      }
      if (now >= drain_end) break;
      if (now >= send_end && feed_out_.empty() && AllArrived()) break;
      loop_.ArmTimer(std::min(now + milliseconds(2), next_sample));
      Pump(20);
    }
    play_seconds_ = duration<double>(Clock::now() - t0).count();
    sent_seconds_ = duration<double>(std::min(Clock::now(), send_end) - t0).count();
  }

  // The node's own account of the feed, through a taker's command.
  std::string FeedStatus() {
    status_.clear();
    status_wanted_ = true;
    Send(0, "SHOW/SKIMMER/STATUS\r\n");
    WaitQuiet([this](int ms) { return Pump(ms); }, milliseconds(500), seconds(10));
    status_wanted_ = false;
    return status_;
  }

  int Report(double login_seconds_total) const;

  double login_seconds() const { return login_seconds_; }
  const std::vector<Sample>& samples() const { return samples_; }

 private:
  static constexpr uint32_t kListenId = 1u << 30;
  static constexpr uint32_t kFeedId = kListenId + 1;

  // A new call's next report, or a repeat of a call verified in the last 8 minutes (well
  // inside the node's 10-minute dupe window, so that every repeat must be held back).
  void AppendSkimmerLine(std::string& batch, bool new_line) {
    int k, skimmer;
    double khz;
    if (new_line || skimmer_done_at_.empty()) {
      if (!new_line) return;  // nothing out yet to repeat
      k = new_lines_ / 3;
      const int j = new_lines_ % 3;
      ++new_lines_;
      if (size_t(k) >= skimmer_.size()) return;
      skimmer = (k * 3 + j) % kSkimmers;
      khz = SlotKHz(k % kSlots) + (j == 1 ? 0.1 : 0.0);
      if (j == 2) pending_thirds_.push_back(k);
    } else {
      const auto recent = Clock::now() - std::chrono::minutes(8);
      while (repeat_floor_ < skimmer_done_at_.size() && skimmer_done_at_[repeat_floor_] < recent) {
        ++repeat_floor_;
      }
      if (repeat_floor_ == skimmer_done_at_.size()) return;
      std::uniform_int_distribution<size_t> pick(repeat_floor_, skimmer_done_at_.size() - 1);
      k = int(pick(rng_));
      skimmer = int(rng_() % kSkimmers);
      khz = SlotKHz(k % kSlots) + double(rng_() % 2) * 0.1;
      ++repeats_;
    }
    fmt::format_to(std::back_inserter(batch),
                   "DX de {}-#:  {:.1f}  {}  CW  {} dB  {} WPM  CQ  {}\r\n", SkimmerCall(skimmer),
                   khz, SkimmerDx(k), 10 + skimmer % 20, 18 + k % 15, now_hhnnz_);
  }

  void SendFeed(const std::string& batch) {
    feed_out_ += batch;
    FlushFeed();
    // The third report of a new call counts as sent once handed to the socket; a backlog
    // (the node not reading) is shown separately.
    const auto at = Clock::now();
    for (int k : pending_thirds_) {
      skimmer_[size_t(k)].due = at;
      skimmer_done_at_.push_back(at);
      skimmer_new_ = k + 1;
    }
    pending_thirds_.clear();
    if (at - hhnnz_at_ > seconds(1)) {
      now_hhnnz_ = HHnnZ();
      hhnnz_at_ = Clock::now();
    }
  }

  void FlushFeed() {
    if (feed_fd_ < 0 || feed_out_.empty()) return;
    while (!feed_out_.empty()) {
      const ssize_t n = ::send(feed_fd_, feed_out_.data(), feed_out_.size(), MSG_NOSIGNAL);
      if (n < 0 && errno == EINTR) continue;
      if (n < 0 && errno == EAGAIN) break;
      if (n <= 0) Die(std::string("the feed connection failed: ") + std::strerror(errno));
      feed_out_.erase(0, size_t(n));
    }
    max_backlog_ = std::max(max_backlog_, feed_out_.size());
  }

  void Publish(bool new_dx, Clock::time_point now) {
    int m;
    if (new_dx) {
      m = reporter_new_;
      if (size_t(m) >= reporter_.size()) return;
      ++reporter_new_;
      reporter_first_[size_t(m)] = now;
      reporter_[size_t(m)].due = now + seconds(opt_.hold);
    } else {
      // Another receiver of a DX whose 5-minute collapse window is still well open.
      const auto recent = now - std::chrono::minutes(4);
      while (reporter_floor_ < reporter_new_ && reporter_first_[size_t(reporter_floor_)] < recent) {
        ++reporter_floor_;
      }
      if (reporter_floor_ == reporter_new_) return;
      m = reporter_floor_ + int(rng_() % unsigned(reporter_new_ - reporter_floor_));
      ++reporter_repeats_;
    }
    const std::string dx = DxCall(m);
    const std::string rx = ReceiverCall(int(rng_() % kReceivers));
    const std::string topic =
        fmt::format("pskr/filter/v2/{}/FT8/{}/{}/FN42/JO31/291/230", ReporterBand(m), dx, rx);
    const std::string payload = fmt::format(
        R"({{"sq":{},"f":{},"md":"FT8","rp":{},"t":{},"sc":"{}","sl":"FN42ab","rc":"{}",)"
        R"("rl":"JO31","sa":291,"ra":230,"b":"{}"}})",
        reports_, ReporterHz(m), -20 + int(rng_() % 30), std::time(nullptr), dx, rx,
        ReporterBand(m));
    const int rc = mosquitto_publish(mosq_, nullptr, topic.c_str(), int(payload.size()),
                                     payload.data(), 0, false);
    if (rc != MOSQ_ERR_SUCCESS) ++publish_errors_;
  }

  bool AllArrived() const {
    for (int k = 0; k < skimmer_new_; ++k) {
      if (skimmer_[size_t(k)].received < opt_.takers) return false;
    }
    for (int m = 0; m < reporter_new_; ++m) {
      if (reporter_[size_t(m)].received < opt_.takers) return false;
    }
    return true;
  }

  void Send(int user, std::string_view text) {
    if (!SendAll(users_[size_t(user)].fd, text)) {
      Die("send for user " + UserCall(user) + ": " + std::strerror(errno));
    }
  }

  int Pump(int timeout_ms) {
    return loop_.Wait(timeout_ms, [this](uint32_t id) {
      if (id == kListenId) {
        const int fd = ::accept4(listen_fd_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
        if (fd < 0) return 0;
        if (feed_fd_ >= 0) {
          // One feed connection at a time, as the node keeps one per feed.
          std::fprintf(stderr, "feed_load: a second feed connection, closed\n");
          ::close(fd);
          return 0;
        }
        feed_fd_ = fd;
        int one = 1;
        ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
        loop_.Watch(fd, kFeedId);
        SendAll(fd, "Please enter your call: ");
        return 1;
      }
      if (id == kFeedId) return ReadFeed();
      User& u = users_[id];
      const int reads = ReadAvailable(
          u.fd, read_buf_, [&](std::string_view data, auto now) { OnData(int(id), data, now); });
      if (reads >= 0) return reads;
      std::fprintf(stderr, "feed_load: user %s closed by the front-end: %s\n",
                   UserCall(int(id)).c_str(), errno == 0 ? "end of stream" : std::strerror(errno));
      loop_.Unwatch(u.fd);
      ::close(u.fd);
      u.fd = -1;
      u.state = UserState::kClosed;
      ++closed_;
      return 0;
    });
  }

  int ReadFeed() {
    const int reads = ReadAvailable(feed_fd_, read_buf_, [&](std::string_view data, auto) {
      feed_in_.append(data);
      const size_t end = feed_in_.find_first_of("\r\n");
      if (feed_call_.empty() && end != std::string::npos) feed_call_ = feed_in_.substr(0, end);
      if (feed_in_.size() > 4096) feed_in_.clear();
    });
    if (reads >= 0) return reads;
    Die("the node closed the feed connection (see qxcluster.out and the node's log)");
  }

  void OnData(int id, std::string_view data, Clock::time_point now) {
    User& u = users_[size_t(id)];
    if (u.state != UserState::kReady) {
      const std::string answer = u.dialogue.Feed(data);
      if (!answer.empty()) Send(id, answer);
      if (!u.dialogue.done()) return;
      u.state = UserState::kReady;
      ++logged_in_;
      std::string rest;
      rest.swap(u.dialogue.rest());
      if (!rest.empty()) OnData(id, rest, now);
      return;
    }
    u.lines.Feed(data, [&](std::string_view line) { OnLine(id, line, now); });
  }

  void OnLine(int id, std::string_view line, Clock::time_point now) {
    if (status_wanted_ && id == 0) status_.append(line);
    const size_t at = line.find("DX de ");
    if (at == std::string_view::npos) {
      if (id < opt_.takers && (line.find("Skimmer spots enabled") != std::string_view::npos ||
                               line.find("PSKReporter spots enabled") != std::string_view::npos)) {
        if (++users_[size_t(id)].confirmations == 2) ++confirmed_;
      }
      return;
    }
    const std::string_view dx = CallOfDxDe(line.substr(at));
    const bool reporter = line.find(" FT8 ", at) != std::string_view::npos;
    const int n = reporter ? DecodeDxCall(dx) : DecodeSkimmerDx(dx);
    std::vector<SpotRecord>& table = reporter ? reporter_ : skimmer_;
    if (n < 0 || size_t(n) >= table.size()) {
      ++unknown_lines_;
      return;
    }
    if (id >= opt_.takers) {
      ++(reporter ? non_taker_reporter_ : non_taker_skimmer_);
      return;
    }
    SpotRecord& s = table[size_t(n)];
    std::vector<bool>& seen = reporter ? reporter_seen_ : skimmer_seen_;
    const size_t bit = size_t(n) * size_t(opt_.takers) + size_t(id);
    if (seen[bit]) {
      ++s.duplicates;
      return;
    }
    seen[bit] = true;
    ++s.received;
    s.last = now;
    if (id < opt_.timed && s.due != Clock::time_point{}) {
      (reporter ? reporter_delays_ : skimmer_delays_).push_back(Ms(now - s.due));
    }
  }

  const Options& opt_;
  std::vector<User> users_;
  std::mt19937 rng_;
  std::vector<char> read_buf_;
  EventLoop loop_;
  int listen_fd_ = -1;
  int feed_fd_ = -1;
  std::string feed_in_;
  std::string feed_call_;
  std::string feed_out_;
  size_t max_backlog_ = 0;
  mosquitto* mosq_ = nullptr;

  int logged_in_ = 0;
  int confirmed_ = 0;
  int closed_ = 0;
  double login_seconds_ = 0;

  std::string now_hhnnz_ = HHnnZ();
  Clock::time_point hhnnz_at_ = Clock::now();
  long skimmer_lines_ = 0;
  int new_lines_ = 0;
  int skimmer_new_ = 0;  // calls whose third report went out
  std::vector<int> pending_thirds_;
  long repeats_ = 0;
  std::vector<Clock::time_point> skimmer_done_at_;
  size_t repeat_floor_ = 0;
  std::vector<SpotRecord> skimmer_;
  std::vector<bool> skimmer_seen_;
  std::vector<double> skimmer_delays_;

  long reports_ = 0;
  int reporter_new_ = 0;
  long reporter_repeats_ = 0;
  long publish_errors_ = 0;
  int reporter_floor_ = 0;
  std::vector<Clock::time_point> reporter_first_;
  std::vector<SpotRecord> reporter_;
  std::vector<bool> reporter_seen_;
  std::vector<double> reporter_delays_;

  long non_taker_skimmer_ = 0;
  long non_taker_reporter_ = 0;
  long unknown_lines_ = 0;
  std::vector<Sample> samples_;
  double play_seconds_ = 0;
  double sent_seconds_ = 0;
  bool status_wanted_ = false;
  std::string status_;
};

struct Tally {
  int expected = 0;
  int complete = 0;
  long missing = 0;
  long duplicates = 0;
  std::vector<double> last_ms;  // per spot: the last taker's arrival
};

Tally Count(const std::vector<SpotRecord>& table, int n, int takers) {
  Tally t;
  t.expected = n;
  for (int i = 0; i < n; ++i) {
    const SpotRecord& s = table[size_t(i)];
    t.duplicates += s.duplicates;
    t.missing += takers - s.received;
    if (s.received == takers) {
      ++t.complete;
      t.last_ms.push_back(Ms(s.last - s.due));
    }
  }
  return t;
}

int Run::Report(double login_seconds_total) const {
  const Tally sk = Count(skimmer_, skimmer_new_, opt_.takers);
  const Tally rp = Count(reporter_, reporter_new_, opt_.takers);
  auto row = [](const char* name, const std::vector<double>& v) {
    std::printf("  %-34s %8zu %8.1f %8.1f %8.1f %8.1f %8.1f\n", name, v.size(), Percentile(v, 0),
                Percentile(v, 50), Percentile(v, 90), Percentile(v, 99), Percentile(v, 100));
  };
  std::printf(
      "\nsent for %.0f s: %ld skimmer lines (%.0f/s; %d new calls, %ld repeats), %ld reporter "
      "reports (%.0f/s; %d new DX, %ld repeats, %ld publish errors); largest feed backlog "
      "%zu B\n",
      sent_seconds_, skimmer_lines_, double(skimmer_lines_) / std::max(1e-9, sent_seconds_),
      skimmer_new_, repeats_, reports_, double(reports_) / std::max(1e-9, sent_seconds_),
      reporter_new_, reporter_repeats_, publish_errors_, max_backlog_);
  std::printf("\n  %-34s %8s %8s %8s %8s %8s %8s\n", "delay ms", "n", "min", "p50", "p90", "p99",
              "max");
  row("skimmer, every arrival (timed)", skimmer_delays_);
  row("skimmer, last taker per spot", sk.last_ms);
  row("reporter beyond hold (timed)", reporter_delays_);
  row("reporter beyond hold, last taker", rp.last_ms);
  std::printf(
      "\n  %-10s expected %6d  complete %6d  missing lines %7ld  duplicate lines %ld\n"
      "  %-10s expected %6d  complete %6d  missing lines %7ld  duplicate lines %ld\n"
      "  non-takers got %ld skimmer and %ld reporter spot lines; %ld spot lines not ours\n",
      "skimmer", sk.expected, sk.complete, sk.missing, sk.duplicates, "reporter", rp.expected,
      rp.complete, rp.missing, rp.duplicates, non_taker_skimmer_, non_taker_reporter_,
      unknown_lines_);

  // RSS is called flat when the last third of the samples grows by at most 0.2 MB a minute
  // (the 10-s samples move by about 0.1 MB from allocator noise alone).
  double node_slope = 0, front_slope = 0;
  if (samples_.size() >= 3) {
    const Sample& a = samples_[samples_.size() * 2 / 3];
    const Sample& b = samples_.back();
    const double minutes = std::max(1e-9, (b.t_s - a.t_s) / 60);
    node_slope = (b.node_rss_mb - a.node_rss_mb) / minutes;
    front_slope = (b.front_rss_mb - a.front_rss_mb) / minutes;
  }
  const bool flat = node_slope <= 0.2 && front_slope <= 0.2;
  double node_cpu = 0, front_cpu = 0;
  for (const Sample& s : samples_) {
    node_cpu += s.node_cpu_pct;
    front_cpu += s.front_cpu_pct;
  }
  if (!samples_.empty()) {
    node_cpu /= double(samples_.size());
    front_cpu /= double(samples_.size());
  }
  const Sample last = samples_.empty() ? Sample{} : samples_.back();
  std::printf(
      "  RSS growth over the last third: qxcluster %.2f MB/min, qxfront %.2f MB/min -> %s\n"
      "  mean CPU: qxcluster %.1f%%, qxfront %.1f%%; feed_load itself %.1f s CPU; load %s\n",
      node_slope, front_slope, flat ? "flat" : "still growing", node_cpu, front_cpu, SelfCpu(),
      LoadAverage().c_str());

  const bool pass_counts = sk.complete == sk.expected && rp.complete == rp.expected &&
                           sk.duplicates == 0 && rp.duplicates == 0 && non_taker_skimmer_ == 0 &&
                           non_taker_reporter_ == 0;
  const double sk_p99 = Percentile(skimmer_delays_, 99);
  std::printf(
      "{\"tool\":\"feed_load\",\"users\":%d,\"takers\":%d,\"seconds\":%d,"
      "\"skimmer_rate\":%.0f,\"reporter_rate\":%.0f,\"login_s\":%.2f,"
      "\"skimmer_spots\":%d,\"skimmer_complete\":%d,\"skimmer_dups\":%ld,"
      "\"skimmer_p50_ms\":%.2f,\"skimmer_p99_ms\":%.2f,\"skimmer_last_p99_ms\":%.2f,"
      "\"reporter_spots\":%d,\"reporter_complete\":%d,\"reporter_dups\":%ld,"
      "\"reporter_p50_ms\":%.2f,\"reporter_p99_ms\":%.2f,\"non_taker_lines\":%ld,"
      "\"node_rss_mb\":%.1f,\"front_rss_mb\":%.1f,\"node_rss_slope_mb_min\":%.2f,"
      "\"node_cpu_pct\":%.1f,\"front_cpu_pct\":%.1f,\"load\":\"%s\",\"counts_ok\":%s}\n",
      opt_.users, opt_.takers, opt_.seconds, opt_.skimmer_rate, opt_.reporter_rate,
      login_seconds_total, sk.expected, sk.complete, sk.duplicates, Percentile(skimmer_delays_, 50),
      sk_p99, Percentile(sk.last_ms, 99), rp.expected, rp.complete, rp.duplicates,
      Percentile(reporter_delays_, 50), Percentile(reporter_delays_, 99),
      non_taker_skimmer_ + non_taker_reporter_, last.node_rss_mb, last.front_rss_mb, node_slope,
      node_cpu, front_cpu, LoadAverage().c_str(), pass_counts ? "true" : "false");
  std::fflush(stdout);
  return pass_counts ? 0 : 2;
}

Options ParseOptions(int argc, char** argv) {
  Options o;
  Args args(argc, argv);
  while (args.Next()) {
    if (o.paths.Take(args)) continue;
    if (args.Is("--users")) {
      o.users = args.Int();
    } else if (args.Is("--takers")) {
      o.takers = args.Int();
    } else if (args.Is("--timed")) {
      o.timed = args.Int();
    } else if (args.Is("--seconds")) {
      o.seconds = args.Int();
    } else if (args.Is("--skimmer-rate")) {
      o.skimmer_rate = args.Double();
    } else if (args.Is("--new-per-second")) {
      o.new_per_second = args.Double();
    } else if (args.Is("--reporter-rate")) {
      o.reporter_rate = args.Double();
    } else if (args.Is("--reporter-new-per-second")) {
      o.reporter_new_per_second = args.Double();
    } else if (args.Is("--hold")) {
      o.hold = args.Int();
    } else if (args.Is("--feed-limit")) {
      o.feed_limit = args.Int();
    } else if (args.Is("--broker")) {
      o.broker = args.Value();
    } else if (args.Is("--login-window")) {
      o.login_window = std::max(1, args.Int());
    } else {
      args.Unknown(std::string(ProgramPaths::kFlags) +
                   " --users --takers --timed --seconds --skimmer-rate --new-per-second "
                   "--reporter-rate --reporter-new-per-second --hold --feed-limit --broker "
                   "--login-window");
    }
  }
  o.paths.Finish();
  if (o.users < 1 || o.takers < 1 || o.takers > o.users || o.seconds < 1) {
    Die("need --users >= 1, 1 <= --takers <= --users, --seconds >= 1");
  }
  o.timed = std::clamp(o.timed, 1, o.takers);
  if (o.new_per_second <= 0 || 3 * o.new_per_second > o.skimmer_rate ||
      o.reporter_new_per_second <= 0 || o.reporter_new_per_second > o.reporter_rate) {
    Die("the new calls must be a share of the lines (3 lines each) and of the reports");
  }
  if (o.new_per_second * o.seconds >= kMaxSkimmerCalls ||
      o.reporter_new_per_second * o.seconds >= kMaxDxCalls) {
    Die("too many new calls for distinct DX calls");
  }
  if (o.hold < 0 || o.hold > 300) Die("--hold must be 0 to 300");
  if (o.feed_limit <= 0) o.feed_limit = int(2 * o.skimmer_rate);
  return o;
}

}  // namespace

int main(int argc, char** argv) {
  SetUpTool("feed_load");
  const Options opt = ParseOptions(argc, argv);
  // The encodings must map back, and every slot must have a frequency on a band.
  for (int k = 0; k < kSlots * 2; ++k) {
    if (DecodeSkimmerDx(SkimmerDx(k)) != k || SlotKHz(k % kSlots) < 0) {
      Die("skimmer call encoding does not map back at " + std::to_string(k));
    }
  }
  if (!fs::exists(opt.broker)) Die("no MQTT broker at " + opt.broker + " (Debian: mosquitto)");

  const rlim_t want = rlim_t(opt.users) + 1000;
  const rlim_t files = RaiseFileLimit(want);
  if (files < want) Die("open-file limit " + std::to_string(files) + " is too low");

  Run run(opt);
  const int feed_port = run.Listen();
  const int broker_port = FreePort();
  const int link_port = FreePort();
  const int user_port = FreePort();
  const int console_port = FreePort();
  const std::string cfg =
      SiteConfig("XX0QX-1", link_port, user_port, console_port) + kNoSpotLimits +
      fmt::format(
          "Feed Name^Load\r\nFeed Kind^RBN\r\nFeed Address^127.0.0.1\r\nFeed Port^{}\r\n"
          "Feed Call^XX0QX\r\nFeed Active^True\r\nFeed Max Lines Per Second^{}\r\n"
          "FT8 URL^127.0.0.1\r\nFT8 Port^{}\r\nFT8 Hold^{}\r\n"
          // Nothing may leave the machine: no reference downloads, WWV fetch or update check.
          "Country File URL^\r\nKnown Calls URL^\r\nWWV URL^\r\nUpdate URL^\r\n",
          feed_port, opt.feed_limit, broker_port, opt.hold);
  PrepareHome(opt.paths.home, opt.paths.cty, cfg);
  std::printf(
      "feed_load: %d users (%d takers, %d timed), %d s of %.0f skimmer lines/s (%.0f new calls/s) "
      "and %.0f reporter reports/s (%.0f new DX/s), hold %d s, feed limit %d lines/s; load %s\n",
      opt.users, opt.takers, opt.timed, opt.seconds, opt.skimmer_rate, opt.new_per_second,
      opt.reporter_rate, opt.reporter_new_per_second, opt.hold, opt.feed_limit,
      LoadAverage().c_str());
  std::fflush(stdout);

  // The broker first, so that the node's reporter client finds it at its start.
  SpawnBroker(opt.broker, opt.paths.home, broker_port);
  run.ConnectBroker(broker_port);
  g_front_pid = Spawn(opt.paths.qxfront, opt.paths.home, "qxfront");
  g_node_pid = Spawn(opt.paths.qxcluster, opt.paths.home, "qxcluster");
  if (!WaitForBanner(user_port, seconds(60))) Die("no log-in banner from the node within 60 s");
  run.AcceptFeed(seconds(30));
  run.LogIn(user_port);
  std::printf("logged in %d users in %.2f s, %d takers switched on; load %s\n", opt.users,
              run.login_seconds(), opt.takers, LoadAverage().c_str());
  std::fflush(stdout);

  run.Play(g_node_pid, g_front_pid);
  const int rc = run.Report(run.login_seconds());
  std::printf("\nthe node's feed status:\n%s", run.FeedStatus().c_str());
  const ProcStats node = ReadProc(g_node_pid), front = ReadProc(g_front_pid);
  std::printf("qxcluster: CPU %.1f s, peak RSS %.1f MB; qxfront: CPU %.1f s, peak RSS %.1f MB\n",
              node.cpu_s, double(node.peak_kb) / 1024, front.cpu_s, double(front.peak_kb) / 1024);
  run.StopBrokerClient();
  StopChildren();
  return rc;
}
