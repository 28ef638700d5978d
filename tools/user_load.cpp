// user_load: end-to-end load on a real node.  It prepares a program directory, starts the
// front-end and the node on free loopback ports, logs many users in through the front-end,
// then lets one of them post spots and measures, for every spot, how long it takes from the
// "DX" command until every logged-in user has its "DX de" line.
//
//   user_load --home DIR --qxcluster PATH --qxfront PATH [--users 1000] [--spots 500]
//             [--rate 0 | --rates 50,100,200] [--window 1] [--login-window 100]
//             [--keep-going] [--front-threads N]
//
// --rate R sends the spots at R per second (open loop: a spot is due at t0 + k/R whether or
// not the earlier ones have arrived).  --rate 0 sends the next spot as soon as fewer than
// --window spots are still on their way (closed loop).  --rates runs one stage of --spots
// spots per rate, in the given order, with the same logged-in users, and stops after the
// first stage that is not steady (unless --keep-going).
//
// A stage is steady when every user got every spot, the spots went out at no less than 95 %
// of the asked rate, the median delay of the last quarter of the spots is at most 1.5 times
// that of the first quarter plus 2 ms, and p99 is at most 3 times the first stage's p99
// plus 5 ms.
//
// --front-threads N sets the front-end's "Frontend Threads" (default: one per core).
//
// The programs are always stopped at the end, also after an error or SIGINT.
#include <sys/epoll.h>
#include <sys/timerfd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "tools/tool_util.h"

namespace {

using namespace qx::tools;

struct Options {
  ProgramPaths paths;
  int users = 1000;
  int spots = 500;
  std::vector<double> rates{0};
  int window = 1;
  int login_window = 100;
  bool keep_going = false;
  int front_threads = 0;  // "Frontend Threads" for the front-end; 0: its default
};

// The children, for their CPU figures.
pid_t g_node_pid = -1;
pid_t g_front_pid = -1;

enum class UserState : uint8_t { kIdle, kLoggingIn, kReady, kClosed };

struct User {
  int fd = -1;
  UserState state = UserState::kIdle;
  LogInDialogue dialogue{"", ""};
  LineSplitter lines;
};

struct SpotRecord {
  Clock::time_point sent{};
  Clock::time_point first{};
  Clock::time_point last{};
  int received = 0;
  int duplicates = 0;
};

class Load {
 public:
  explicit Load(const Options& o) : opt_(o), users_(size_t(o.users)) {
    const size_t total = size_t(o.spots) * o.rates.size();
    spots_.resize(total);
    seen_.resize(total * size_t(o.users));
    read_buf_.resize(256 * 1024);
  }

  void LogIn(int port) {
    const auto start = Clock::now();
    const auto limit = start + std::chrono::seconds(60 + opt_.users / 50);
    int next = 0;
    int in_flight = 0;
    int ready = 0;
    while (ready < opt_.users) {
      while (next < opt_.users && in_flight < opt_.login_window) {
        User& u = users_[size_t(next)];
        u.fd = ConnectTo(port);
        if (u.fd >= 0) SetNonBlocking(u.fd);
        if (u.fd < 0) {
          Die("connect for user " + std::to_string(next) + " (" + UserCall(next) + ") failed: " +
              std::strerror(errno) + " after " + std::to_string(ready) + " users were logged in");
        }
        loop_.Watch(u.fd, uint32_t(next));
        u.state = UserState::kLoggingIn;
        u.dialogue = LogInDialogue(UserCall(next), "Load");
        ++next;
        ++in_flight;
      }
      const int before = logged_in_;
      Pump(50);
      ready = logged_in_;
      in_flight -= logged_in_ - before;
      if (closed_ > 0)
        Die(std::to_string(closed_) + " user connections were closed while logging in");
      if (Clock::now() > limit) {
        Die("log-in timed out: " + std::to_string(ready) + " of " + std::to_string(opt_.users) +
            " logged in, " + std::to_string(in_flight) + " in flight");
      }
    }
    login_seconds_ = Ms(Clock::now() - start) / 1000;
    // Let whatever follows a log-in settle before timing spots.
    WaitQuiet([this](int ms) { return Pump(ms); }, std::chrono::milliseconds(500),
              std::chrono::seconds(20));
  }

  // One stage: opt_.spots spots at the rate, from user 0.  Returns true when steady.
  bool Stage(int stage, double rate, double* baseline_p99) {
    const int first = stage * opt_.spots;
    const int end = first + opt_.spots;
    const ProcStats node_before = ReadProc(g_node_pid);
    const ProcStats front_before = ReadProc(g_front_pid);
    const double self_before = SelfCpu();
    const auto t0 = Clock::now();
    int next = first;
    auto send = [&](int k) {
      char cmd[128];
      const int n = std::snprintf(cmd, sizeof cmd, "DX %.1f %s load %d\r\n", SpotKHz(k),
                                  DxCall(k).c_str(), k);
      spots_[size_t(k)].sent = Clock::now();
      Send(0, std::string_view(cmd, size_t(n)));
    };
    auto due = [&](int k) {
      return t0 + std::chrono::duration_cast<Clock::duration>(
                      std::chrono::duration<double>((k - first) / rate));
    };
    const auto limit_after_last = std::chrono::seconds(20);
    Clock::time_point last_sent{};
    while (true) {
      if (rate > 0) {
        while (next < end && Clock::now() >= due(next)) send(next++);
        if (next < end) loop_.ArmTimer(due(next));
      } else {
        while (next < end && next - complete_floor(first, next) < opt_.window) send(next++);
      }
      if (next == end && last_sent == Clock::time_point{}) last_sent = Clock::now();
      if (next == end && AllComplete(first, end)) break;
      if (last_sent != Clock::time_point{} && Clock::now() - last_sent > limit_after_last) break;
      const int oldest = complete_floor(first, next);
      if (oldest < next && Clock::now() - spots_[size_t(oldest)].sent > limit_after_last) {
        std::fprintf(stderr, "user_load: spot %d reached only %d of %d users in %lld s\n", oldest,
                     spots_[size_t(oldest)].received, opt_.users,
                     (long long)limit_after_last.count());
        break;
      }
      const int closed_before = closed_;
      Pump(rate > 0 ? 20 : 5);
      if (closed_ > closed_before) {
        std::fprintf(stderr, "user_load: %d user connections closed so far during the spots\n",
                     closed_);
      }
    }
    if (last_sent == Clock::time_point{}) last_sent = Clock::now();
    const double send_seconds =
        std::max(1e-9, std::chrono::duration<double>(last_sent - t0).count());
    const double achieved = opt_.spots > 1 ? double(opt_.spots - 1) / send_seconds : 0;

    std::vector<double> all, firsts;
    int missing_spots = 0;
    long missing_lines = 0, dups = 0;
    for (int k = first; k < end; ++k) {
      const SpotRecord& s = spots_[size_t(k)];
      dups += s.duplicates;
      if (s.received < opt_.users) {
        ++missing_spots;
        missing_lines += opt_.users - s.received;
        continue;
      }
      all.push_back(Ms(s.last - s.sent));
      firsts.push_back(Ms(s.first - s.sent));
    }
    const double node_ms = (ReadProc(g_node_pid).cpu_s - node_before.cpu_s) * 1000 / opt_.spots;
    const double front_ms = (ReadProc(g_front_pid).cpu_s - front_before.cpu_s) * 1000 / opt_.spots;
    const double self_ms = (SelfCpu() - self_before) * 1000 / opt_.spots;
    const size_t q = all.size() / 4;
    const double first_q = q ? Median(std::vector<double>(all.begin(), all.begin() + long(q))) : 0;
    const double last_q = q ? Median(std::vector<double>(all.end() - long(q), all.end())) : 0;
    const double p99 = Percentile(all, 99);
    if (stage == 0) *baseline_p99 = p99;
    const bool steady = missing_spots == 0 && (rate <= 0 || achieved >= 0.95 * rate) &&
                        last_q <= 1.5 * first_q + 2.0 && p99 <= 3 * *baseline_p99 + 5.0;
    std::printf(
        "stage %d: rate %s, sent %.1f spots/s, %d spots x %d users, load %s\n"
        "  all-users delay ms: p50 %.2f p90 %.2f p99 %.2f max %.2f (first quarter median %.2f, "
        "last quarter median %.2f)\n"
        "  first-user delay ms: p50 %.2f p90 %.2f p99 %.2f max %.2f\n"
        "  user lines per second %.0f; spots not reaching everybody %d (%ld lines missing), "
        "duplicate lines %ld -> %s\n"
        "  CPU ms per spot: qxcluster %.2f, qxfront %.2f, user_load %.2f\n",
        stage, rate > 0 ? std::to_string(int(rate)).c_str() : "closed loop", achieved, opt_.spots,
        opt_.users, LoadAverage().c_str(), Percentile(all, 50), Percentile(all, 90), p99,
        Percentile(all, 100), first_q, last_q, Percentile(firsts, 50), Percentile(firsts, 90),
        Percentile(firsts, 99), Percentile(firsts, 100), achieved * opt_.users, missing_spots,
        missing_lines, dups, steady ? "steady" : "NOT steady", node_ms, front_ms, self_ms);
    std::fflush(stdout);
    WaitQuiet([this](int ms) { return Pump(ms); }, std::chrono::milliseconds(300),
              std::chrono::seconds(10));
    return steady;
  }

  double login_seconds() const { return login_seconds_; }
  int closed() const { return closed_; }

 private:
  // Lowest spot index at or after first that has not reached everybody.
  int complete_floor(int first, int next) {
    while (floor_ < first) floor_ = first;
    while (floor_ < next && spots_[size_t(floor_)].received >= opt_.users) ++floor_;
    return floor_;
  }
  bool AllComplete(int first, int end) { return complete_floor(first, end) == end; }

  void Send(int user, std::string_view text) {
    if (!SendAll(users_[size_t(user)].fd, text)) {
      Die("send for user " + UserCall(user) + ": " + std::strerror(errno));
    }
  }

  // One round of the event loop; returns the number of reads that brought data.
  int Pump(int timeout_ms) {
    return loop_.Wait(timeout_ms, [this](uint32_t id) {
      User& u = users_[id];
      const int reads = ReadAvailable(
          u.fd, read_buf_, [&](std::string_view data, auto now) { OnData(int(id), data, now); });
      if (reads >= 0) return reads;
      std::fprintf(stderr, "user_load: user %s (%u) closed by the front-end: %s\n",
                   UserCall(int(id)).c_str(), id,
                   errno == 0 ? "end of stream" : std::strerror(errno));
      loop_.Unwatch(u.fd);
      ::close(u.fd);
      u.fd = -1;
      u.state = UserState::kClosed;
      ++closed_;
      return 0;
    });
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
    const int k = SpotOfLine(line);
    if (k < 0 || size_t(k) >= spots_.size()) return;
    SpotRecord& s = spots_[size_t(k)];
    const size_t bit = size_t(k) * size_t(opt_.users) + size_t(id);
    if (seen_[bit]) {
      ++s.duplicates;
      return;
    }
    seen_[bit] = true;
    if (s.received == 0) s.first = now;
    s.last = now;
    ++s.received;
  }

  const Options& opt_;
  std::vector<User> users_;
  std::vector<SpotRecord> spots_;
  std::vector<bool> seen_;
  std::vector<char> read_buf_;
  EventLoop loop_;
  int logged_in_ = 0;
  int closed_ = 0;
  int floor_ = 0;
  double login_seconds_ = 0;
};

Options ParseOptions(int argc, char** argv) {
  Options o;
  Args args(argc, argv);
  while (args.Next()) {
    if (o.paths.Take(args)) continue;
    if (args.Is("--users")) {
      o.users = args.Int();
    } else if (args.Is("--spots")) {
      o.spots = args.Int();
    } else if (args.Is("--rate")) {
      o.rates = {args.Double()};
    } else if (args.Is("--rates")) {
      o.rates = args.Doubles();
    } else if (args.Is("--window")) {
      o.window = std::max(1, args.Int());
    } else if (args.Is("--login-window")) {
      o.login_window = std::max(1, args.Int());
    } else if (args.Is("--keep-going")) {
      o.keep_going = true;
    } else if (args.Is("--front-threads")) {
      o.front_threads = std::max(0, args.Int());
    } else {
      args.Unknown(std::string(ProgramPaths::kFlags) +
                   " --users --spots --rate --rates --window --login-window --keep-going"
                   " --front-threads");
    }
  }
  o.paths.Finish();
  if (o.users < 1 || o.spots < 1 || o.rates.empty()) Die("--users and --spots must be >= 1");
  if (size_t(o.spots) * o.rates.size() > size_t(kMaxDxCalls)) {
    Die("too many spots for distinct DX calls");
  }
  return o;
}

void PrintProc(const char* name, const ProcStats& start, const ProcStats& login,
               const ProcStats& end) {
  std::printf(
      "%s: CPU s log-in %.2f, spots %.2f, total %.2f; peak RSS %.1f MB (now %.1f MB), "
      "threads %d%s\n",
      name, login.cpu_s - start.cpu_s, end.cpu_s - login.cpu_s, end.cpu_s,
      double(end.peak_kb) / 1024, double(end.rss_kb) / 1024, end.threads,
      end.alive ? "" : " -- NOT RUNNING");
}

}  // namespace

int main(int argc, char** argv) {
  SetUpTool("user_load");
  const Options opt = ParseOptions(argc, argv);

  // Room for every user socket here and in the front-end (which inherits the limit).
  const rlim_t want = rlim_t(opt.users) + 1000;
  const rlim_t files = RaiseFileLimit(want);
  if (files < want) {
    Die("open-file limit " + std::to_string(files) + " is below the " + std::to_string(want) +
        " needed for " + std::to_string(opt.users) + " users");
  }

  // Program directory: country file and a configuration on free ports.
  const int link_port = FreePort();
  const int user_port = FreePort();
  const int console_port = FreePort();
  PrepareHome(
      opt.paths.home, opt.paths.cty,
      SiteConfig("XX0QX-1", link_port, user_port, console_port) + kNoSpotLimits +
          (opt.front_threads > 0 ? "Frontend Threads^" + std::to_string(opt.front_threads) + "\r\n"
                                 : std::string()));

  std::printf("user_load: %d users, %d spots per stage, open-file limit %llu, load %s\n", opt.users,
              opt.spots, (unsigned long long)files, LoadAverage().c_str());
  g_front_pid = Spawn(opt.paths.qxfront, opt.paths.home, "qxfront");
  g_node_pid = Spawn(opt.paths.qxcluster, opt.paths.home, "qxcluster");
  const ProcStats node0 = ReadProc(g_node_pid);
  const ProcStats front0 = ReadProc(g_front_pid);

  // Wait until a new connection gets the banner: the node is up and linked.
  if (!WaitForBanner(user_port, std::chrono::seconds(60))) {
    Die("no log-in banner from the node within 60 s");
  }

  Load load(opt);
  load.LogIn(user_port);
  const ProcStats node1 = ReadProc(g_node_pid);
  const ProcStats front1 = ReadProc(g_front_pid);
  std::printf("logged in %d users in %.2f s (%.0f log-ins/s), load %s\n", opt.users,
              load.login_seconds(), opt.users / std::max(1e-9, load.login_seconds()),
              LoadAverage().c_str());
  std::fflush(stdout);

  double baseline = 0;
  double best = -1;
  for (size_t i = 0; i < opt.rates.size(); ++i) {
    const bool steady = load.Stage(int(i), opt.rates[i], &baseline);
    if (steady && opt.rates[i] > best) best = opt.rates[i];
    if (!steady && !opt.keep_going) break;
  }
  if (opt.rates.size() > 1) {
    if (best > 0) {
      std::printf("highest steady rate: %.0f spots/s (%.0f user lines/s)\n", best,
                  best * opt.users);
    } else {
      std::printf("highest steady rate: none of the open-loop rates was steady\n");
    }
  }

  const ProcStats node2 = ReadProc(g_node_pid);
  const ProcStats front2 = ReadProc(g_front_pid);
  PrintProc("qxcluster", node0, node1, node2);
  PrintProc("qxfront", front0, front1, front2);
  rusage self{};
  getrusage(RUSAGE_SELF, &self);
  std::printf("user_load itself: CPU %.2f s, peak RSS %.1f MB; load %s\n", SelfCpu(),
              double(self.ru_maxrss) / 1024, LoadAverage().c_str());
  StopChildren();
  return load.closed() == 0 ? 0 : 2;
}
