// user_load: end-to-end load on a real node.  It prepares a program directory, starts the
// front-end and the node on free loopback ports, logs many users in through the front-end,
// then lets one of them post spots and measures, for every spot, how long it takes from the
// "DX" command until every logged-in user has its "DX de" line.
//
//   user_load --home DIR --qxcluster PATH --qxfront PATH [--users 1000] [--spots 500]
//             [--rate 0 | --rates 50,100,200] [--window 1] [--login-window 100]
//             [--keep-going]
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
// The programs are always stopped at the end, also after an error or SIGINT.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/timerfd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;
using Micros = std::chrono::microseconds;

struct Options {
  fs::path home;
  std::string qxcluster;
  std::string qxfront;
  std::string cty = "/usr/share/hamradio-files/cty.dat";
  int users = 1000;
  int spots = 500;
  std::vector<double> rates{0};
  int window = 1;
  int login_window = 100;
  bool keep_going = false;
};

// Children, kept in plain globals so that the signal handler can stop them.
pid_t g_pids[2] = {-1, -1};  // node, front-end

void StopChild(int slot) {
  const pid_t pid = g_pids[slot];
  if (pid <= 0) return;
  ::kill(pid, SIGTERM);
  for (int i = 0; i < 100; ++i) {
    if (::waitpid(pid, nullptr, WNOHANG) == pid) {
      g_pids[slot] = -1;
      return;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  ::kill(pid, SIGKILL);
  ::waitpid(pid, nullptr, 0);
  g_pids[slot] = -1;
}

void StopChildren() {
  StopChild(0);
  StopChild(1);
}

void OnSignal(int sig) {
  for (pid_t pid : g_pids) {
    if (pid > 0) ::kill(pid, SIGKILL);
  }
  std::_Exit(128 + sig);
}

[[noreturn]] void Die(const std::string& why) {
  std::fprintf(stderr, "user_load: %s\n", why.c_str());
  StopChildren();
  std::exit(1);
}

pid_t Spawn(const std::string& program, const fs::path& home, const std::string& log_name) {
  const std::string out = (home / (log_name + ".out")).string();
  const std::string home_text = home.string();
  const pid_t pid = ::fork();
  if (pid < 0) Die(std::string("fork: ") + std::strerror(errno));
  if (pid == 0) {
    const int fd = ::open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (fd >= 0) {
      ::dup2(fd, 1);
      ::dup2(fd, 2);
      ::close(fd);
    }
    const char* argv[] = {program.c_str(), "--home", home_text.c_str(), nullptr};
    ::execv(program.c_str(), const_cast<char* const*>(argv));
    std::_Exit(127);
  }
  return pid;
}

struct ProcStats {
  double cpu_s = 0;  // user + system
  long peak_kb = 0;  // VmHWM
  long rss_kb = 0;   // VmRSS
  int threads = 0;
  bool alive = false;
};

ProcStats ReadProc(pid_t pid) {
  ProcStats s;
  if (pid <= 0) return s;
  std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
  std::string text;
  if (!std::getline(stat, text)) return s;
  // Fields after the command name (which may hold blanks) start at the last ')'.
  const size_t close = text.rfind(')');
  if (close == std::string::npos) return s;
  std::vector<std::string> f;
  size_t pos = close + 2;
  while (pos < text.size()) {
    const size_t sp = text.find(' ', pos);
    f.push_back(text.substr(pos, sp == std::string::npos ? sp : sp - pos));
    if (sp == std::string::npos) break;
    pos = sp + 1;
  }
  if (f.size() < 18) return s;
  // f[0] is field 3 (state); utime and stime are fields 14 and 15.
  s.alive = f[0] != "Z";
  const double tick = double(::sysconf(_SC_CLK_TCK));
  s.cpu_s = (std::strtod(f[11].c_str(), nullptr) + std::strtod(f[12].c_str(), nullptr)) / tick;
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  while (std::getline(status, text)) {
    if (text.starts_with("VmHWM:")) s.peak_kb = std::strtol(text.c_str() + 6, nullptr, 10);
    if (text.starts_with("VmRSS:")) s.rss_kb = std::strtol(text.c_str() + 6, nullptr, 10);
    if (text.starts_with("Threads:")) s.threads = std::atoi(text.c_str() + 8);
  }
  return s;
}

double SelfCpu() {
  rusage self{};
  getrusage(RUSAGE_SELF, &self);
  return double(self.ru_utime.tv_sec + self.ru_stime.tv_sec) +
         double(self.ru_utime.tv_usec + self.ru_stime.tv_usec) / 1e6;
}

std::string LoadAverage() {
  std::ifstream f("/proc/loadavg");
  std::string a, b, c;
  f >> a >> b >> c;
  return a + " " + b + " " + c;
}

int FreePort() {
  const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) Die("bind for a port");
  socklen_t len = sizeof addr;
  ::getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len);
  ::close(fd);
  return ntohs(addr.sin_port);
}

// Blocking connect to loopback; -1 when refused.
int ConnectTo(int port) {
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) Die(std::string("socket: ") + std::strerror(errno));
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(static_cast<uint16_t>(port));
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
    ::close(fd);
    return -1;
  }
  int one = 1;
  ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
  ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) | O_NONBLOCK);
  return fd;
}

// "K1AAA" style calls with a country: prefix, digit, three letters.
std::string UserCall(int i) {
  static const char* kPrefixes[] = {"K", "W", "N"};
  std::string call = kPrefixes[i % 3];
  const int rest = i / 3;
  call += char('0' + rest % 10);
  const int letters = rest / 10;
  call += char('A' + letters / 676 % 26);
  call += char('A' + letters / 26 % 26);
  call += char('A' + letters % 26);
  return call;
}

// DX calls encode the spot number so that a received line maps back to its spot without a
// look-up table: prefix (letters only), digit, three letters.
constexpr const char* kDxPrefixes[] = {"DL", "JA", "VK", "G",  "F",  "I",
                                       "EA", "PY", "ZS", "OH", "SM", "LU"};
constexpr int kDxPrefixCount = 12;

std::string DxCall(int spot) {
  std::string call = kDxPrefixes[spot % kDxPrefixCount];
  const int rest = spot / kDxPrefixCount;
  call += char('0' + rest % 10);
  const int letters = rest / 10;
  call += char('A' + letters / 676 % 26);
  call += char('A' + letters / 26 % 26);
  call += char('A' + letters % 26);
  return call;
}

int DecodeDxCall(std::string_view call) {
  size_t p = 0;
  while (p < call.size() && call[p] >= 'A' && call[p] <= 'Z') ++p;
  if (p == 0 || call.size() != p + 4) return -1;
  const std::string_view prefix = call.substr(0, p);
  int pi = -1;
  for (int i = 0; i < kDxPrefixCount; ++i) {
    if (prefix == kDxPrefixes[i]) pi = i;
  }
  const char d = call[p];
  if (pi < 0 || d < '0' || d > '9') return -1;
  int letters = 0;
  for (size_t i = p + 1; i < call.size(); ++i) {
    if (call[i] < 'A' || call[i] > 'Z') return -1;
    letters = letters * 26 + (call[i] - 'A');
  }
  return ((letters * 10) + (d - '0')) * kDxPrefixCount + pi;
}

double SpotKHz(int spot) {
  static const double kBands[] = {1820, 3510, 7010, 10110, 14010, 18075, 21010, 24895, 28010};
  return kBands[spot % 9] + double(spot / 9 % 40) * 0.5;
}

// The DX call of a "DX de SPOTTER:  FREQ  CALL  comment  TIME" line.
std::string_view CallOfDxDe(std::string_view line) {
  const size_t colon = line.find(':', 6);
  if (colon == std::string_view::npos) return {};
  size_t p = colon + 1;
  auto skip_blanks = [&] {
    while (p < line.size() && line[p] == ' ') ++p;
  };
  auto word = [&] {
    const size_t start = p;
    while (p < line.size() && line[p] != ' ' && line[p] != '\r') ++p;
    return line.substr(start, p - start);
  };
  skip_blanks();
  word();  // frequency
  skip_blanks();
  return word();
}

enum class UserState : uint8_t { kIdle, kBanner, kLoggingIn, kReady, kClosed };

struct User {
  int fd = -1;
  UserState state = UserState::kIdle;
  bool name_sent = false;
  bool yes_sent = false;
  std::string buf;
};

struct SpotRecord {
  Clock::time_point sent{};
  Clock::time_point first{};
  Clock::time_point last{};
  int received = 0;
  int duplicates = 0;
};

double Ms(Clock::duration d) { return std::chrono::duration<double, std::milli>(d).count(); }

double Percentile(std::vector<double> v, double p) {
  if (v.empty()) return 0;
  std::sort(v.begin(), v.end());
  const size_t i = std::min(v.size() - 1, size_t(p / 100.0 * double(v.size() - 1) + 0.5));
  return v[i];
}

double Median(std::vector<double> v) { return Percentile(std::move(v), 50); }

class Load {
 public:
  explicit Load(const Options& o) : opt_(o), users_(size_t(o.users)) {
    epoll_ = ::epoll_create1(EPOLL_CLOEXEC);
    timer_ = ::timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC);
    epoll_event ev{};
    ev.events = EPOLLIN;
    ev.data.u32 = UINT32_MAX;
    ::epoll_ctl(epoll_, EPOLL_CTL_ADD, timer_, &ev);
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
        if (u.fd < 0) {
          Die("connect for user " + std::to_string(next) + " (" + UserCall(next) + ") failed: " +
              std::strerror(errno) + " after " + std::to_string(ready) + " users were logged in");
        }
        epoll_event ev{};
        ev.events = EPOLLIN | EPOLLRDHUP;
        ev.data.u32 = uint32_t(next);
        ::epoll_ctl(epoll_, EPOLL_CTL_ADD, u.fd, &ev);
        u.state = UserState::kBanner;
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
    Quiet(std::chrono::milliseconds(500), std::chrono::seconds(20));
  }

  // One stage: opt_.spots spots at the rate, from user 0.  Returns true when steady.
  bool Stage(int stage, double rate, double* baseline_p99) {
    const int first = stage * opt_.spots;
    const int end = first + opt_.spots;
    const ProcStats node_before = ReadProc(g_pids[0]);
    const ProcStats front_before = ReadProc(g_pids[1]);
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
        if (next < end) ArmTimer(due(next));
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
    const double node_ms = (ReadProc(g_pids[0]).cpu_s - node_before.cpu_s) * 1000 / opt_.spots;
    const double front_ms = (ReadProc(g_pids[1]).cpu_s - front_before.cpu_s) * 1000 / opt_.spots;
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
    Quiet(std::chrono::milliseconds(300), std::chrono::seconds(10));
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

  void ArmTimer(Clock::time_point at) {
    itimerspec when{};
    const auto ns = std::chrono::duration_cast<std::chrono::nanoseconds>(at.time_since_epoch());
    when.it_value.tv_sec = ns.count() / 1000000000;
    when.it_value.tv_nsec = ns.count() % 1000000000;
    if (when.it_value.tv_sec == 0 && when.it_value.tv_nsec == 0) when.it_value.tv_nsec = 1;
    ::timerfd_settime(timer_, TFD_TIMER_ABSTIME, &when, nullptr);
  }

  void Send(int user, std::string_view text) {
    User& u = users_[size_t(user)];
    while (!text.empty()) {
      const ssize_t n = ::send(u.fd, text.data(), text.size(), MSG_NOSIGNAL);
      if (n < 0 && errno == EINTR) continue;
      if (n < 0 && errno == EAGAIN) {
        std::this_thread::sleep_for(std::chrono::microseconds(100));
        continue;
      }
      if (n <= 0) Die("send for user " + UserCall(user) + ": " + std::strerror(errno));
      text.remove_prefix(size_t(n));
    }
  }

  // Reads until nothing arrived for quiet (at most limit).
  void Quiet(Clock::duration quiet, Clock::duration limit) {
    const auto end = Clock::now() + limit;
    auto last = Clock::now();
    while (Clock::now() - last < quiet && Clock::now() < end) {
      if (Pump(20) > 0) last = Clock::now();
    }
  }

  // One epoll round; returns the number of reads that brought data.
  int Pump(int timeout_ms) {
    epoll_event events[1024];
    const int n = ::epoll_wait(epoll_, events, 1024, timeout_ms);
    int reads = 0;
    for (int i = 0; i < n; ++i) {
      const uint32_t id = events[i].data.u32;
      if (id == UINT32_MAX) {
        uint64_t expirations;
        [[maybe_unused]] ssize_t r = ::read(timer_, &expirations, sizeof expirations);
        continue;
      }
      User& u = users_[id];
      while (true) {
        const ssize_t got = ::recv(u.fd, read_buf_.data(), read_buf_.size(), 0);
        if (got > 0) {
          ++reads;
          OnData(int(id), std::string_view(read_buf_.data(), size_t(got)), Clock::now());
          if (size_t(got) < read_buf_.size()) break;
          continue;
        }
        if (got < 0 && (errno == EAGAIN || errno == EINTR)) break;
        std::fprintf(stderr, "user_load: user %s (%u) closed by the front-end: %s\n",
                     UserCall(int(id)).c_str(), id,
                     got == 0 ? "end of stream" : std::strerror(errno));
        ::epoll_ctl(epoll_, EPOLL_CTL_DEL, u.fd, nullptr);
        ::close(u.fd);
        u.fd = -1;
        u.state = UserState::kClosed;
        ++closed_;
        break;
      }
    }
    return reads;
  }

  void OnData(int id, std::string_view data, Clock::time_point now) {
    User& u = users_[size_t(id)];
    if (u.state != UserState::kReady) {
      u.buf.append(data);
      if (u.state == UserState::kBanner) {
        if (u.buf.find("login: ") == std::string::npos) return;
        u.buf.clear();
        u.state = UserState::kLoggingIn;
        Send(id, UserCall(id) + "\r\n");
        return;
      }
      if (!u.name_sent && u.buf.find("Please enter your name") != std::string::npos) {
        u.name_sent = true;
        Send(id, "Load\r\n");
      }
      if (!u.yes_sent && u.buf.find("(Y or N) >") != std::string::npos) {
        u.yes_sent = true;
        Send(id, "y\r\n");
      }
      const size_t prompt = u.buf.find("QXC >");
      if (prompt == std::string::npos) return;
      const size_t end = u.buf.find('\n', prompt);
      u.buf.erase(0, end == std::string::npos ? u.buf.size() : end + 1);
      u.state = UserState::kReady;
      ++logged_in_;
      if (u.buf.empty()) return;
      std::string rest;
      rest.swap(u.buf);
      OnData(id, rest, now);
      return;
    }
    // Whole lines straight from the read buffer; only a trailing part line is kept.
    if (!u.buf.empty()) {
      const size_t nl = data.find('\n');
      if (nl == std::string_view::npos) {
        u.buf.append(data);
        return;
      }
      u.buf.append(data.substr(0, nl + 1));
      OnLine(id, u.buf, now);
      u.buf.clear();
      data.remove_prefix(nl + 1);
    }
    while (!data.empty()) {
      const size_t nl = data.find('\n');
      if (nl == std::string_view::npos) {
        u.buf.assign(data);
        return;
      }
      OnLine(id, data.substr(0, nl + 1), now);
      data.remove_prefix(nl + 1);
    }
  }

  void OnLine(int id, std::string_view line, Clock::time_point now) {
    const size_t at = line.find("DX de ");
    if (at == std::string_view::npos) return;
    const int k = DecodeDxCall(CallOfDxDe(line.substr(at)));
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
  int epoll_ = -1;
  int timer_ = -1;
  int logged_in_ = 0;
  int closed_ = 0;
  int floor_ = 0;
  double login_seconds_ = 0;
};

Options ParseOptions(int argc, char** argv) {
  Options o;
  for (int i = 1; i < argc; ++i) {
    const std::string_view arg = argv[i];
    auto value = [&]() -> std::string {
      if (i + 1 >= argc) Die("missing value after " + std::string(arg));
      return argv[++i];
    };
    if (arg == "--home") {
      o.home = value();
    } else if (arg == "--qxcluster") {
      o.qxcluster = value();
    } else if (arg == "--qxfront") {
      o.qxfront = value();
    } else if (arg == "--cty") {
      o.cty = value();
    } else if (arg == "--users") {
      o.users = std::atoi(value().c_str());
    } else if (arg == "--spots") {
      o.spots = std::atoi(value().c_str());
    } else if (arg == "--rate") {
      o.rates = {std::atof(value().c_str())};
    } else if (arg == "--rates") {
      o.rates.clear();
      const std::string list = value();
      for (size_t p = 0; p < list.size();) {
        const size_t comma = list.find(',', p);
        o.rates.push_back(std::atof(list.substr(p, comma - p).c_str()));
        if (comma == std::string::npos) break;
        p = comma + 1;
      }
    } else if (arg == "--window") {
      o.window = std::max(1, std::atoi(value().c_str()));
    } else if (arg == "--login-window") {
      o.login_window = std::max(1, std::atoi(value().c_str()));
    } else if (arg == "--keep-going") {
      o.keep_going = true;
    } else {
      Die("unknown argument " + std::string(arg) +
          " (--home --qxcluster --qxfront --cty --users --spots --rate --rates --window "
          "--login-window --keep-going)");
    }
  }
  if (o.home.empty() || o.qxcluster.empty() || o.qxfront.empty()) {
    Die("--home, --qxcluster and --qxfront are needed");
  }
  if (o.users < 1 || o.spots < 1 || o.rates.empty()) Die("--users and --spots must be >= 1");
  if (size_t(o.spots) * o.rates.size() > size_t(kDxPrefixCount) * 10 * 17576) {
    Die("too many spots for distinct DX calls");
  }
  o.qxcluster = fs::absolute(o.qxcluster).string();
  o.qxfront = fs::absolute(o.qxfront).string();
  o.home = fs::absolute(o.home);
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
  const Options opt = ParseOptions(argc, argv);
  std::signal(SIGINT, OnSignal);
  std::signal(SIGTERM, OnSignal);
  std::signal(SIGPIPE, SIG_IGN);

  // Room for every user socket here and in the front-end (which inherits the limit).
  rlimit lim{};
  getrlimit(RLIMIT_NOFILE, &lim);
  const rlim_t want = rlim_t(opt.users) + 1000;
  if (lim.rlim_max < want) lim.rlim_max = want;  // allowed for root only
  lim.rlim_cur = lim.rlim_max;
  if (setrlimit(RLIMIT_NOFILE, &lim) != 0) {
    getrlimit(RLIMIT_NOFILE, &lim);
    lim.rlim_cur = lim.rlim_max;
    setrlimit(RLIMIT_NOFILE, &lim);
  }
  getrlimit(RLIMIT_NOFILE, &lim);
  if (lim.rlim_cur < want) {
    Die("open-file limit " + std::to_string(lim.rlim_cur) + " is below the " +
        std::to_string(want) + " needed for " + std::to_string(opt.users) + " users");
  }

  // Program directory: country file and a configuration on free ports.
  std::error_code ec;
  fs::create_directories(opt.home / "data" / "files", ec);
  if (ec) Die("cannot create " + (opt.home / "data/files").string() + ": " + ec.message());
  fs::copy_file(opt.cty, opt.home / "data/files/cty_wt_mod.dat",
                fs::copy_options::overwrite_existing, ec);
  if (ec) Die("cannot copy the country file " + opt.cty + ": " + ec.message());
  const int link_port = FreePort();
  const int user_port = FreePort();
  const int console_port = FreePort();
  {
    std::ofstream cfg(opt.home / "cluster.cfg", std::ios::binary | std::ios::trunc);
    cfg << "Cluster Call^XX0QX-1\r\nWinsock IP^127.0.0.1\r\n"
        << "Winsock Port^" << link_port << "\r\nWinsock App Path^\r\n"
        << "Frontend Ports^" << user_port << "\r\nConsole Port^" << console_port << "\r\n"
        << "NewMaxSpotsPerMin^1000000\r\nNewMaxSpotsPerMinPerDx^1000000\r\n"
        << "NewMaxSpotsPerMinPerSpotter^1000000\r\n";
    if (!cfg) Die("cannot write " + (opt.home / "cluster.cfg").string());
  }

  std::printf("user_load: %d users, %d spots per stage, open-file limit %llu, load %s\n", opt.users,
              opt.spots, (unsigned long long)lim.rlim_cur, LoadAverage().c_str());
  g_pids[1] = Spawn(opt.qxfront, opt.home, "qxfront");
  g_pids[0] = Spawn(opt.qxcluster, opt.home, "qxcluster");
  const ProcStats node0 = ReadProc(g_pids[0]);
  const ProcStats front0 = ReadProc(g_pids[1]);

  // Wait until a new connection gets the banner: the node is up and linked.  (A connection
  // opened before the node's link is up is only recovered by the node, not greeted.)
  const auto up_limit = Clock::now() + std::chrono::seconds(60);
  while (true) {
    if (Clock::now() > up_limit) Die("no log-in banner from the node within 60 s");
    const int fd = ConnectTo(user_port);
    if (fd < 0) {
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
      continue;
    }
    std::string got;
    const auto probe_end = Clock::now() + std::chrono::seconds(2);
    while (got.find("login: ") == std::string::npos && Clock::now() < probe_end) {
      char buf[4096];
      const ssize_t n = ::recv(fd, buf, sizeof buf, 0);
      if (n > 0) {
        got.append(buf, size_t(n));
      } else if (n == 0) {
        break;
      } else {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
      }
    }
    ::close(fd);
    if (got.find("login: ") != std::string::npos) break;
  }

  Load load(opt);
  load.LogIn(user_port);
  const ProcStats node1 = ReadProc(g_pids[0]);
  const ProcStats front1 = ReadProc(g_pids[1]);
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

  const ProcStats node2 = ReadProc(g_pids[0]);
  const ProcStats front2 = ReadProc(g_pids[1]);
  PrintProc("qxcluster", node0, node1, node2);
  PrintProc("qxfront", front0, front1, front2);
  rusage self{};
  getrusage(RUSAGE_SELF, &self);
  std::printf("user_load itself: CPU %.2f s, peak RSS %.1f MB; load %s\n", SelfCpu(),
              double(self.ru_maxrss) / 1024, LoadAverage().c_str());
  StopChildren();
  return load.closed() == 0 ? 0 : 2;
}
