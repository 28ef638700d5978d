// crowd_load: many users on a real node, cheaply.  Like user_load it prepares a program
// directory, starts the front-end and the node on free loopback ports and lets one user post
// spots; unlike user_load it is built for 10,000 users and long runs:
//
// - log-in: every connection is opened without waiting (non-blocking connects, up to
//   --login-window at once) and answers the log-in prompts as they come;
// - only a sample of users (--sample, spread evenly, the spotter among them) has its lines
//   parsed and timed; every other user's lines are counted in bulk (the newlines of each
//   read), so the tool costs little more than the reads themselves;
// - one reader thread, pinned to the last core when there is more than one, reads every
//   user; the main thread sends the spots on time;
// - each stage ends with one JSON line beside the human-readable table: delay p50/p99/max of
//   the sampled users, lines expected/received/lost over all users, CPU of qxfront and
//   qxcluster in microseconds per delivered line (from /proc), RSS of both, load average;
// - --rss-every S prints the RSS of both programs every S seconds as JSON lines, to see
//   whether memory levels off over a long run.
//
//   crowd_load --home DIR --qxcluster PATH --qxfront PATH [--users 10000] [--sample 200]
//              [--rates 10,20,40] [--seconds 20] [--sources 1] [--login-window 1000]
//              [--rss-every 0] [--front-threads 0] [--fanout 1]
//
// --front-threads N sets the front-end's "Frontend Threads" (0: its default, one per core).
// --fanout 0 sets "Link Fanout^0": the node then sends one link message per user and spot, so
// the cost of the one-message-for-many form can be compared.
// --sources N connects from N loopback addresses (127.0.0.1 .. 127.0.0.N) in turn.
#include <pthread.h>
#include <sched.h>
#include <sys/epoll.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "tools/tool_util.h"

namespace {

using namespace qx::tools;

struct Options {
  ProgramPaths paths;
  int users = 10000;
  int sample = 200;
  std::vector<double> rates{10, 20, 40};
  double seconds = 20;
  int sources = 1;
  int login_window = 1000;
  double rss_every = 0;
  int front_threads = 0;
  bool fanout = true;
};

struct User {
  int fd = -1;
  bool ready = false;
  bool sampled = false;
  LogInDialogue dialogue{"", ""};
  LineSplitter lines;
  // Bulk counting: where the last read left off, so a line cut between reads is judged by
  // its first byte.
  bool at_line_start = true;
  bool in_notice = false;
};

int64_t NowNs() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now().time_since_epoch())
      .count();
}

// A non-blocking connect from one of the loopback source addresses; -1 when it fails at once.
int StartConnect(int port, int source) {
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (fd < 0) return -1;
  sockaddr_in from{};
  from.sin_family = AF_INET;
  from.sin_addr.s_addr = htonl(INADDR_LOOPBACK + uint32_t(source));
  if (source > 0 && ::bind(fd, reinterpret_cast<sockaddr*>(&from), sizeof from) != 0) {
    ::close(fd);
    return -1;
  }
  sockaddr_in to{};
  to.sin_family = AF_INET;
  to.sin_port = htons(uint16_t(port));
  to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (::connect(fd, reinterpret_cast<sockaddr*>(&to), sizeof to) != 0 && errno != EINPROGRESS) {
    ::close(fd);
    return -1;
  }
  int one = 1;
  ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
  return fd;
}

class Crowd {
 public:
  explicit Crowd(const Options& o) : opt_(o), users_(size_t(o.users)) {
    const int step = std::max(1, o.users / std::max(1, o.sample));
    for (int i = 0; i < o.users; i += step) users_[size_t(i)].sampled = true;
    read_buf_.resize(256 * 1024);
  }

  // Logs every user in; returns the seconds it took.
  double LogIn(int port) {
    const auto start = Clock::now();
    const auto limit = start + std::chrono::seconds(120 + opt_.users / 20);
    EventLoop loop;
    int next = 0, in_flight = 0, ready = 0;
    while (ready < opt_.users) {
      while (next < opt_.users && in_flight < opt_.login_window) {
        User& u = users_[size_t(next)];
        u.fd = StartConnect(port, opt_.sources > 1 ? next % opt_.sources : 0);
        if (u.fd < 0) {
          Die("connect for user " + std::to_string(next) + " failed: " + std::strerror(errno));
        }
        u.dialogue = LogInDialogue(UserCall(next), "Load");
        loop.Watch(u.fd, uint32_t(next));
        ++next;
        ++in_flight;
      }
      loop.Wait(20, [&](uint32_t id) {
        User& u = users_[id];
        const int reads = ReadAvailable(u.fd, read_buf_, [&](std::string_view data, auto) {
          if (u.ready) return;
          const std::string answer = u.dialogue.Feed(data);
          if (!answer.empty() && !SendAll(u.fd, answer)) Die("send during log-in failed");
          if (u.dialogue.done()) {
            u.ready = true;
            ++ready;
            --in_flight;
          }
        });
        if (reads < 0) Die("user " + UserCall(int(id)) + " closed during log-in");
        return reads;
      });
      if (Clock::now() > limit) {
        Die("log-in timed out: " + std::to_string(ready) + " of " + std::to_string(opt_.users));
      }
    }
    const double seconds = Ms(Clock::now() - start) / 1000;
    for (User& u : users_) loop.Unwatch(u.fd);
    // Let what follows a log-in (the prompt, a greeting) drain before counting lines.
    const auto quiet_until = Clock::now() + std::chrono::milliseconds(1500);
    while (Clock::now() < quiet_until) {
      for (User& u : users_) ReadAvailable(u.fd, read_buf_, [](std::string_view, auto) {});
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    return seconds;
  }

  // The reader thread: every user's socket on one epoll set.
  void StartReader(int spots_total) {
    sent_ns_ = std::vector<std::atomic<int64_t>>(size_t(spots_total));
    epoll_ = ::epoll_create1(EPOLL_CLOEXEC);
    for (size_t i = 0; i < users_.size(); ++i) {
      epoll_event ev{};
      ev.events = EPOLLIN;
      ev.data.u32 = uint32_t(i);
      ::epoll_ctl(epoll_, EPOLL_CTL_ADD, users_[i].fd, &ev);
    }
    reader_ = std::thread([this] { ReadLoop(); });
    const unsigned cores = std::thread::hardware_concurrency();
    if (cores > 1) {
      cpu_set_t set;
      CPU_ZERO(&set);
      CPU_SET(cores - 1, &set);
      pinned_ = pthread_setaffinity_np(reader_.native_handle(), sizeof set, &set) == 0;
    }
  }
  void StopReader() {
    stop_ = true;
    if (reader_.joinable()) reader_.join();
    ::close(epoll_);
  }

  void SendSpot(int k) {
    char cmd[128];
    const int n =
        std::snprintf(cmd, sizeof cmd, "DX %.1f %s load %d\r\n", SpotKHz(k), DxCall(k).c_str(), k);
    sent_ns_[size_t(k)].store(NowNs(), std::memory_order_release);
    if (!SendAll(users_[0].fd, std::string_view(cmd, size_t(n)))) Die("send of a spot failed");
  }

  uint64_t bulk_lines() const { return bulk_lines_.load(std::memory_order_relaxed); }
  uint64_t sample_lines() const { return sample_lines_.load(std::memory_order_relaxed); }
  // Notices of shed spots received by the users counted in bulk.
  uint64_t notices() const { return notices_.load(std::memory_order_relaxed); }
  int sampled_users() const {
    return int(
        std::count_if(users_.begin(), users_.end(), [](const User& u) { return u.sampled; }));
  }
  int closed() const { return closed_.load(); }
  bool pinned() const { return pinned_; }
  // Delays (ms) of the sampled users' spot lines since the last call.
  std::vector<double> TakeDelays() {
    std::lock_guard<std::mutex> lock(delays_mutex_);
    return std::exchange(delays_, {});
  }

 private:
  void ReadLoop() {
    epoll_event events[512];
    std::vector<double> local;
    while (!stop_) {
      const int n = ::epoll_wait(epoll_, events, 512, 50);
      for (int i = 0; i < n; ++i) {
        User& u = users_[events[i].data.u32];
        const int reads = ReadAvailable(u.fd, read_buf_, [&](std::string_view data, auto) {
          if (!u.sampled) {
            // Spot lines only: the node's "*** n spots were dropped" notices are lines too,
            // and counting them as spots would hide as many lost ones.
            uint64_t lines = 0, notices = 0;
            const char* p = data.data();
            const char* const end = p + data.size();
            while (p < end) {
              if (u.at_line_start) u.in_notice = *p == '*';
              const char* nl = static_cast<const char*>(std::memchr(p, '\n', size_t(end - p)));
              if (!nl) {
                u.at_line_start = false;
                break;
              }
              ++(u.in_notice ? notices : lines);
              u.at_line_start = true;
              p = nl + 1;
            }
            bulk_lines_.fetch_add(lines, std::memory_order_relaxed);
            notices_.fetch_add(notices, std::memory_order_relaxed);
            return;
          }
          const int64_t now = NowNs();
          u.lines.Feed(data, [&](std::string_view line) {
            const int k = SpotOfLine(line);
            if (k < 0 || size_t(k) >= sent_ns_.size()) return;
            sample_lines_.fetch_add(1, std::memory_order_relaxed);
            local.push_back(double(now - sent_ns_[size_t(k)].load(std::memory_order_acquire)) /
                            1e6);
          });
        });
        if (reads < 0) {
          ::epoll_ctl(epoll_, EPOLL_CTL_DEL, u.fd, nullptr);
          ++closed_;
        }
      }
      if (!local.empty()) {
        std::lock_guard<std::mutex> lock(delays_mutex_);
        delays_.insert(delays_.end(), local.begin(), local.end());
        local.clear();
      }
    }
  }

  const Options& opt_;
  std::vector<User> users_;
  std::vector<char> read_buf_;
  std::vector<std::atomic<int64_t>> sent_ns_;
  int epoll_ = -1;
  std::thread reader_;
  std::atomic<bool> stop_{false};
  std::atomic<uint64_t> bulk_lines_{0};
  std::atomic<uint64_t> sample_lines_{0};
  std::atomic<uint64_t> notices_{0};
  std::atomic<int> closed_{0};
  bool pinned_ = false;
  std::mutex delays_mutex_;
  std::vector<double> delays_;
};

// The node's count of spot lines it shed because the front-end fell behind, from /metrics on
// the console port; -1 when it cannot be read.
long long ShedByNode(int console_port) {
  const int fd = ConnectTo(console_port);
  if (fd < 0) return -1;
  std::string reply;
  if (SendAll(fd, "GET /metrics HTTP/1.0\r\nHost: 127.0.0.1\r\n\r\n")) {
    char buf[65536];
    ssize_t n;
    while ((n = ::recv(fd, buf, sizeof buf, 0)) > 0) reply.append(buf, size_t(n));
  }
  ::close(fd);
  const std::string_view key = "\nqx_link_spots_shed_total ";
  const size_t at = reply.find(key);
  return at == std::string::npos ? -1 : std::atoll(reply.c_str() + at + key.size());
}

Options ParseOptions(int argc, char** argv) {
  Options o;
  Args args(argc, argv);
  while (args.Next()) {
    if (o.paths.Take(args)) continue;
    if (args.Is("--users")) {
      o.users = args.Int();
    } else if (args.Is("--sample")) {
      o.sample = args.Int();
    } else if (args.Is("--rates")) {
      o.rates = args.Doubles();
    } else if (args.Is("--seconds")) {
      o.seconds = args.Double();
    } else if (args.Is("--sources")) {
      o.sources = std::clamp(args.Int(), 1, 250);
    } else if (args.Is("--login-window")) {
      o.login_window = std::max(1, args.Int());
    } else if (args.Is("--rss-every")) {
      o.rss_every = args.Double();
    } else if (args.Is("--front-threads")) {
      o.front_threads = std::max(0, args.Int());
    } else if (args.Is("--fanout")) {
      o.fanout = args.Int() != 0;
    } else {
      args.Unknown(std::string(ProgramPaths::kFlags) +
                   " --users --sample --rates --seconds --sources --login-window --rss-every"
                   " --front-threads --fanout");
    }
  }
  o.paths.Finish();
  if (o.users < 2 || o.rates.empty() || o.seconds <= 0) Die("need --users >= 2 and a rate");
  return o;
}

}  // namespace

int main(int argc, char** argv) {
  SetUpTool("crowd_load");
  const Options opt = ParseOptions(argc, argv);
  const rlim_t want = rlim_t(opt.users) * 2 + 1000;  // this tool and the front-end
  if (RaiseFileLimit(want) < rlim_t(opt.users) + 100) Die("open-file limit too low");

  const int link_port = FreePort();
  const int user_port = FreePort();
  const int console_port = FreePort();
  PrepareHome(
      opt.paths.home, opt.paths.cty,
      SiteConfig("XX0QX-1", link_port, user_port, console_port) + kNoSpotLimits +
          "Max Connections^" + std::to_string(opt.users + 100) + "\r\n" +
          (opt.front_threads > 0 ? "Frontend Threads^" + std::to_string(opt.front_threads) + "\r\n"
                                 : std::string()) +
          (opt.fanout ? std::string() : std::string("Link Fanout^0\r\n")));
  const pid_t front = Spawn(opt.paths.qxfront, opt.paths.home, "qxfront");
  const pid_t node = Spawn(opt.paths.qxcluster, opt.paths.home, "qxcluster");
  if (!WaitForBanner(user_port, std::chrono::seconds(60))) Die("no log-in banner within 60 s");

  Crowd crowd(opt);
  const double login_s = crowd.LogIn(user_port);
  std::printf("crowd_load: %d users logged in in %.2f s (%.0f/s), %d sampled, load %s\n", opt.users,
              login_s, opt.users / std::max(1e-9, login_s), crowd.sampled_users(),
              LoadAverage().c_str());
  std::printf(
      "{\"event\":\"login\",\"users\":%d,\"seconds\":%.2f,\"qxcluster_rss_kb\":%ld,"
      "\"qxfront_rss_kb\":%ld}\n",
      opt.users, login_s, ReadProc(node).rss_kb, ReadProc(front).rss_kb);
  std::fflush(stdout);

  int total = 0;
  for (double r : opt.rates) total += int(r * opt.seconds);
  if (total > kMaxDxCalls) Die("too many spots for distinct DX calls");
  crowd.StartReader(total);
  const auto run_start = Clock::now();
  auto next_rss = run_start;
  const auto rss_line = [&](int spots_sent) {
    if (opt.rss_every <= 0 || Clock::now() < next_rss) return;
    next_rss += std::chrono::milliseconds(int64_t(opt.rss_every * 1000));
    std::printf(
        "{\"event\":\"rss\",\"t\":%.1f,\"spots\":%d,\"qxcluster_rss_kb\":%ld,"
        "\"qxfront_rss_kb\":%ld}\n",
        Ms(Clock::now() - run_start) / 1000, spots_sent, ReadProc(node).rss_kb,
        ReadProc(front).rss_kb);
    std::fflush(stdout);
  };

  int first = 0;
  for (double rate : opt.rates) {
    const int count = int(rate * opt.seconds);
    const uint64_t bulk0 = crowd.bulk_lines(), sample0 = crowd.sample_lines();
    const uint64_t notices0 = crowd.notices();
    const long long shed0 = ShedByNode(console_port);
    const ProcStats node0 = ReadProc(node), front0 = ReadProc(front);
    const auto t0 = Clock::now();
    for (int k = 0; k < count; ++k) {
      const auto due =
          t0 + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(k / rate));
      std::this_thread::sleep_until(due);
      crowd.SendSpot(first + k);
      rss_line(first + k + 1);
    }
    const double send_s = Ms(Clock::now() - t0) / 1000;
    // Everything counted, or nothing new for 10 s (at most 60 s).
    const uint64_t expected = uint64_t(count) * uint64_t(opt.users);
    auto received = [&] { return crowd.bulk_lines() - bulk0 + crowd.sample_lines() - sample0; };
    uint64_t last = received();
    auto last_change = Clock::now();
    const auto limit = Clock::now() + std::chrono::seconds(60);
    while (received() < expected && Clock::now() < limit &&
           Clock::now() - last_change < std::chrono::seconds(10)) {
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
      if (received() != last) {
        last = received();
        last_change = Clock::now();
      }
      rss_line(first + count);
    }
    const uint64_t got = received();
    const ProcStats node1 = ReadProc(node), front1 = ReadProc(front);
    const long long shed1 = ShedByNode(console_port);
    const long long shed = shed0 < 0 || shed1 < 0 ? -1 : shed1 - shed0;
    std::vector<double> delays = crowd.TakeDelays();
    const double p50 = Percentile(delays, 50), p99 = Percentile(delays, 99);
    const double max = Percentile(delays, 100);
    const double per_line = 1e6 / double(std::max<uint64_t>(got, 1));
    const double node_us = (node1.cpu_s - node0.cpu_s) * per_line;
    const double front_us = (front1.cpu_s - front0.cpu_s) * per_line;
    const std::string load = LoadAverage();
    const unsigned long long notices = crowd.notices() - notices0;
    std::printf(
        "stage rate %.0f: %d spots in %.1f s to %d users; sampled delay ms p50 %.1f p99 %.1f "
        "max %.1f; lines %llu of %llu (%lld lost, %lld of them shed by the node; %llu notices of "
        "shed spots among the counted users); CPU us/line "
        "qxcluster %.3f qxfront %.3f; "
        "RSS MB qxcluster %.1f qxfront %.1f; reader %s; load %s\n",
        rate, count, send_s, opt.users, p50, p99, max, (unsigned long long)got,
        (unsigned long long)expected, (long long)expected - (long long)got, shed, notices, node_us,
        front_us, double(node1.rss_kb) / 1024, double(front1.rss_kb) / 1024,
        crowd.pinned() ? "pinned" : "not pinned", load.c_str());
    std::printf(
        "{\"event\":\"stage\",\"users\":%d,\"rate\":%.0f,\"spots\":%d,\"send_s\":%.2f,"
        "\"p50_ms\":%.2f,\"p99_ms\":%.2f,\"max_ms\":%.2f,\"lines_expected\":%llu,"
        "\"lines_received\":%llu,\"lines_lost\":%lld,\"lines_shed_by_node\":%lld,\"notices\":%llu,"
        "\"qxcluster_us_"
        "per_line\":%.4f,"
        "\"qxfront_us_per_line\":%.4f,\"qxcluster_rss_kb\":%ld,\"qxfront_rss_kb\":%ld,"
        "\"closed\":%d,\"load\":\"%s\"}\n",
        opt.users, rate, count, send_s, p50, p99, max, (unsigned long long)expected,
        (unsigned long long)got, (long long)expected - (long long)got, shed, notices, node_us,
        front_us, node1.rss_kb, front1.rss_kb, crowd.closed(), load.c_str());
    std::fflush(stdout);
    first += count;
  }
  crowd.StopReader();
  const ProcStats n = ReadProc(node), f = ReadProc(front);
  std::printf("qxcluster peak RSS %.1f MB, qxfront peak RSS %.1f MB\n", double(n.peak_kb) / 1024,
              double(f.peak_kb) / 1024);
  StopChildren();
  return crowd.closed() == 0 ? 0 : 2;
}
