// Pieces the measuring tools share: loopback sockets, child programs that are always stopped
// (also on an error or a signal), program directories, the log-in dialogue of a user
// connection, the DX calls that encode a spot's number, and the statistics they print.
#pragma once

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
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <span>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace qx::tools {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

// The country file the node needs: spots from spotters of no known country are refused.
inline constexpr const char* kCountryFile = "/usr/share/hamradio-files/cty.dat";

// ---------------------------------------------------------------------------------------
// Children and the way out

inline constexpr int kMaxChildren = 16;

// The tool's name for messages, and the children it started, in plain globals so that the
// signal handler can reach them without locks or allocation.
inline const char* g_tool_name = "tool";
inline volatile pid_t g_children[kMaxChildren] = {};

// Stops one child: SIGTERM, then SIGKILL when it has not ended within 5 s.
inline void StopChild(pid_t pid) {
  if (pid <= 0) return;
  int slot = -1;
  for (int i = 0; i < kMaxChildren; ++i) {
    if (g_children[i] == pid) slot = i;
  }
  ::kill(pid, SIGTERM);
  bool ended = false;
  for (int i = 0; i < 100 && !ended; ++i) {
    if (::waitpid(pid, nullptr, WNOHANG) == pid) {
      ended = true;
    } else {
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
  }
  if (!ended) {
    ::kill(pid, SIGKILL);
    ::waitpid(pid, nullptr, 0);
  }
  if (slot >= 0) g_children[slot] = 0;
}

// Stops the children, the last started first (a node before the front-end it uses).
inline void StopChildren() {
  for (int i = kMaxChildren - 1; i >= 0; --i) StopChild(g_children[i]);
}

// Async-signal-safe: kills every child and leaves.
inline void OnSignal(int sig) {
  for (int i = 0; i < kMaxChildren; ++i) {
    if (g_children[i] > 0) ::kill(g_children[i], SIGKILL);
  }
  std::_Exit(128 + sig);
}

// Names the tool for its messages and makes SIGINT and SIGTERM stop the children.
inline void SetUpTool(const char* name) {
  g_tool_name = name;
  std::signal(SIGINT, OnSignal);
  std::signal(SIGTERM, OnSignal);
  std::signal(SIGPIPE, SIG_IGN);
}

[[noreturn]] inline void Die(const std::string& why) {
  std::fprintf(stderr, "%s: %s\n", g_tool_name, why.c_str());
  StopChildren();
  std::exit(1);
}

// Starts program with args (program name first) and its output in out_path; the child is
// stopped with the others.
inline pid_t SpawnArgs(const std::vector<std::string>& args, const std::string& out_path) {
  int slot = -1;
  for (int i = 0; i < kMaxChildren && slot < 0; ++i) {
    if (g_children[i] <= 0) slot = i;
  }
  if (slot < 0) Die("too many child programs");
  std::vector<char*> argv;
  for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
  argv.push_back(nullptr);
  // No stopping signal between the fork and the child's entry in the table: it would be
  // left running.
  sigset_t stopping, before;
  sigemptyset(&stopping);
  sigaddset(&stopping, SIGINT);
  sigaddset(&stopping, SIGTERM);
  ::sigprocmask(SIG_BLOCK, &stopping, &before);
  const pid_t pid = ::fork();
  if (pid < 0) Die(std::string("fork: ") + std::strerror(errno));
  if (pid == 0) {
    ::sigprocmask(SIG_SETMASK, &before, nullptr);
    const int fd = ::open(out_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (fd >= 0) {
      ::dup2(fd, 1);
      ::dup2(fd, 2);
      ::close(fd);
    }
    ::execv(argv[0], argv.data());
    std::_Exit(127);
  }
  g_children[slot] = pid;
  ::sigprocmask(SIG_SETMASK, &before, nullptr);
  return pid;
}

// Starts `program --home home` with its output in home/<log_name>.out.
inline pid_t Spawn(const std::string& program, const fs::path& home, const std::string& log_name) {
  return SpawnArgs({program, "--home", home.string()}, (home / (log_name + ".out")).string());
}

// ---------------------------------------------------------------------------------------
// Command line

// Walks the arguments: `while (args.Next()) { if (args.Is("--x")) x = args.Int(); ... }`.
class Args {
 public:
  Args(int argc, char** argv) : argc_(argc), argv_(argv) {}
  bool Next() { return ++i_ < argc_; }
  std::string_view flag() const { return argv_[i_]; }
  bool Is(std::string_view name) const { return flag() == name; }
  std::string Value() {
    if (i_ + 1 >= argc_) Die("missing value after " + std::string(flag()));
    return argv_[++i_];
  }
  int Int() { return std::atoi(Value().c_str()); }
  double Double() { return std::atof(Value().c_str()); }
  // "20,50,200"
  std::vector<double> Doubles() {
    std::vector<double> out;
    const std::string list = Value();
    for (size_t p = 0; p < list.size();) {
      const size_t comma = list.find(',', p);
      out.push_back(std::atof(list.substr(p, comma - p).c_str()));
      if (comma == std::string::npos) break;
      p = comma + 1;
    }
    return out;
  }
  [[noreturn]] void Unknown(std::string_view known) const {
    Die("unknown argument " + std::string(flag()) + " (" + std::string(known) + ")");
  }

 private:
  int argc_;
  char** argv_;
  int i_ = 0;
};

// Where the tools that run real nodes find the programs and the country file, and where
// they put the program directories.
struct ProgramPaths {
  fs::path home;
  std::string qxcluster;
  std::string qxfront;
  std::string cty = kCountryFile;

  static constexpr const char* kFlags = "--home --qxcluster --qxfront --cty";

  // Takes the flag args stands at when it is one of kFlags.
  bool Take(Args& args) {
    if (args.Is("--home")) {
      home = args.Value();
    } else if (args.Is("--qxcluster")) {
      qxcluster = args.Value();
    } else if (args.Is("--qxfront")) {
      qxfront = args.Value();
    } else if (args.Is("--cty")) {
      cty = args.Value();
    } else {
      return false;
    }
    return true;
  }
  // Makes the paths absolute (the children run elsewhere); dies when one is missing.
  void Finish() {
    if (home.empty() || qxcluster.empty() || qxfront.empty()) {
      Die("--home, --qxcluster and --qxfront are needed");
    }
    qxcluster = fs::absolute(qxcluster).string();
    qxfront = fs::absolute(qxfront).string();
    home = fs::absolute(home);
  }
};

// ---------------------------------------------------------------------------------------
// Sockets

// A loopback port that was free a moment ago.
inline int FreePort() {
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

// Blocking connect with TCP_NODELAY; the socket stays blocking.  -1 (errno set) when the
// address is bad or the connection is refused.
inline int ConnectTo(int port, const std::string& host = "127.0.0.1") {
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) Die(std::string("socket: ") + std::strerror(errno));
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(static_cast<uint16_t>(port));
  if (::inet_pton(AF_INET, host.c_str(), &addr.sin_addr) != 1) {
    ::close(fd);
    errno = EINVAL;
    return -1;
  }
  if (::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
    const int saved = errno;
    ::close(fd);
    errno = saved;
    return -1;
  }
  int one = 1;
  ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
  return fd;
}

inline void SetNonBlocking(int fd) { ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) | O_NONBLOCK); }

// Reads what a non-blocking socket holds, handing each piece to on_data(bytes, time read).
// Returns the number of reads with data, or -1 when the peer closed (errno 0) or the
// connection failed (errno set).
template <typename OnData>
int ReadAvailable(int fd, std::span<char> buf, OnData&& on_data) {
  int reads = 0;
  while (true) {
    const ssize_t got = ::recv(fd, buf.data(), buf.size(), 0);
    if (got > 0) {
      ++reads;
      on_data(std::string_view(buf.data(), size_t(got)), Clock::now());
      if (size_t(got) < buf.size()) return reads;
      continue;
    }
    if (got < 0 && (errno == EAGAIN || errno == EINTR)) return reads;
    if (got == 0) errno = 0;
    return -1;
  }
}

// One epoll set and a timer: the single thread of a tool waits here for its sockets and for
// the moment the next thing is due.
class EventLoop {
 public:
  EventLoop() {
    epoll_ = ::epoll_create1(EPOLL_CLOEXEC);
    timer_ = ::timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC);
    if (epoll_ < 0 || timer_ < 0) Die(std::string("epoll or timer: ") + std::strerror(errno));
    Watch(timer_, kTimerId);
  }
  ~EventLoop() {
    ::close(timer_);
    ::close(epoll_);
  }
  EventLoop(const EventLoop&) = delete;
  EventLoop& operator=(const EventLoop&) = delete;

  void Watch(int fd, uint32_t id) {
    epoll_event ev{};
    ev.events = EPOLLIN | EPOLLRDHUP;
    ev.data.u32 = id;
    if (::epoll_ctl(epoll_, EPOLL_CTL_ADD, fd, &ev) != 0) {
      Die(std::string("epoll_ctl: ") + std::strerror(errno));
    }
  }
  void Unwatch(int fd) { ::epoll_ctl(epoll_, EPOLL_CTL_DEL, fd, nullptr); }

  // Wakes Wait at `at` at the latest.
  void ArmTimer(Clock::time_point at) {
    itimerspec when{};
    const auto ns = std::chrono::duration_cast<std::chrono::nanoseconds>(at.time_since_epoch());
    when.it_value.tv_sec = ns.count() / 1000000000;
    when.it_value.tv_nsec = ns.count() % 1000000000;
    if (when.it_value.tv_sec == 0 && when.it_value.tv_nsec == 0) when.it_value.tv_nsec = 1;
    ::timerfd_settime(timer_, TFD_TIMER_ABSTIME, &when, nullptr);
  }

  // One round: on_ready(id) for every socket that has something.  Returns what on_ready
  // returned, added up.
  template <typename OnReady>
  int Wait(int timeout_ms, OnReady&& on_ready) {
    epoll_event events[1024];
    const int n = ::epoll_wait(epoll_, events, 1024, timeout_ms);
    int sum = 0;
    for (int i = 0; i < n; ++i) {
      const uint32_t id = events[i].data.u32;
      if (id == kTimerId) {
        uint64_t expirations;
        [[maybe_unused]] ssize_t r = ::read(timer_, &expirations, sizeof expirations);
        continue;
      }
      sum += on_ready(id);
    }
    return sum;
  }

 private:
  static constexpr uint32_t kTimerId = UINT32_MAX;
  int epoll_ = -1;
  int timer_ = -1;
};

// Calls pump(20 ms) until it brought nothing for `quiet` (at most `limit`); pump returns how
// many reads brought data.
template <typename Pump>
void WaitQuiet(Pump&& pump, Clock::duration quiet, Clock::duration limit) {
  const auto end = Clock::now() + limit;
  auto last = Clock::now();
  while (Clock::now() - last < quiet && Clock::now() < end) {
    if (pump(20) > 0) last = Clock::now();
  }
}

// Sends everything, waiting `pause` at a time while a non-blocking socket is full.  False
// (errno set) when the connection failed.
inline bool SendAll(int fd, std::string_view data,
                    std::chrono::microseconds pause = std::chrono::microseconds(100)) {
  while (!data.empty()) {
    const ssize_t n = ::send(fd, data.data(), data.size(), MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && errno == EAGAIN) {
      std::this_thread::sleep_for(pause);
      continue;
    }
    if (n <= 0) return false;
    data.remove_prefix(static_cast<size_t>(n));
  }
  return true;
}

// Waits until a new connection to the user port gets the log-in banner: the node is up and
// has its link to the front-end.  (A connection opened before the node's link is up is only
// recovered by the node, not greeted.)
inline bool WaitForBanner(int user_port, std::chrono::seconds limit) {
  const auto end = Clock::now() + limit;
  while (Clock::now() < end) {
    const int fd = ConnectTo(user_port);
    if (fd < 0) {
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
      continue;
    }
    SetNonBlocking(fd);
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
    if (got.find("login: ") != std::string::npos) return true;
  }
  return false;
}

// ---------------------------------------------------------------------------------------
// Program directories

// Spot-rate limits high enough that no measured spot is refused.
inline constexpr const char* kNoSpotLimits =
    "NewMaxSpotsPerMin^1000000\r\nNewMaxSpotsPerMinPerDx^1000000\r\n"
    "NewMaxSpotsPerMinPerSpotter^1000000\r\n";

// The cluster.cfg lines of a node whose front-end (started by the tool, so none is named)
// listens on loopback ports.  Every simulated user and node comes from the one loopback
// address, so the front-end's limits per address are off.
inline std::string SiteConfig(std::string_view call, int link_port, int user_port,
                              int console_port) {
  return "Cluster Call^" + std::string(call) + "\r\nWinsock IP^127.0.0.1\r\nWinsock Port^" +
         std::to_string(link_port) + "\r\nWinsock App Path^\r\nFrontend Ports^" +
         std::to_string(user_port) + "\r\nConsole Port^" + std::to_string(console_port) +
         "\r\nMax Connections Per Address^0\r\nMax Connects Per Minute^0\r\n";
}

// Creates home with the country file and the given cluster.cfg.
inline void PrepareHome(const fs::path& home, const std::string& cty, std::string_view cfg) {
  std::error_code ec;
  fs::create_directories(home / "data" / "files", ec);
  if (ec) Die("cannot create " + (home / "data/files").string() + ": " + ec.message());
  fs::copy_file(cty, home / "data/files/cty_wt_mod.dat", fs::copy_options::overwrite_existing, ec);
  if (ec) Die("cannot copy the country file " + cty + ": " + ec.message());
  std::ofstream out(home / "cluster.cfg", std::ios::binary | std::ios::trunc);
  out << cfg;
  if (!out) Die("cannot write " + (home / "cluster.cfg").string());
}

// Raises the soft open-file limit as far as allowed; returns it.
inline rlim_t RaiseFileLimit(rlim_t want) {
  rlimit lim{};
  getrlimit(RLIMIT_NOFILE, &lim);
  if (lim.rlim_max < want) lim.rlim_max = want;  // allowed for root only
  lim.rlim_cur = lim.rlim_max;
  if (setrlimit(RLIMIT_NOFILE, &lim) != 0) {
    getrlimit(RLIMIT_NOFILE, &lim);
    lim.rlim_cur = lim.rlim_max;
    setrlimit(RLIMIT_NOFILE, &lim);
  }
  getrlimit(RLIMIT_NOFILE, &lim);
  return lim.rlim_cur;
}

// ---------------------------------------------------------------------------------------
// User connections

// The answers a new user gives: the call at "login: ", a name, "y" to keep it.
class LogInDialogue {
 public:
  LogInDialogue(std::string call, std::string name)
      : call_(std::move(call)), name_(std::move(name)) {}

  // Takes what arrived; returns what to send (empty for nothing).  Once done(), rest()
  // holds what followed the prompt line.
  std::string Feed(std::string_view data) {
    buf_.append(data);
    if (!banner_) {
      if (buf_.find("login: ") == std::string::npos) return {};
      buf_.clear();
      banner_ = true;
      return call_ + "\r\n";
    }
    std::string answer;
    if (!name_sent_ && buf_.find("Please enter your name") != std::string::npos) {
      name_sent_ = true;
      answer += name_ + "\r\n";
    }
    if (!yes_sent_ && buf_.find("(Y or N) >") != std::string::npos) {
      yes_sent_ = true;
      answer += "y\r\n";
    }
    const size_t prompt = buf_.find("QXC >");
    if (prompt != std::string::npos) {
      const size_t end = buf_.find('\n', prompt);
      buf_.erase(0, end == std::string::npos ? buf_.size() : end + 1);
      done_ = true;
    }
    return answer;
  }
  bool done() const { return done_; }
  std::string& rest() { return buf_; }

 private:
  std::string call_;
  std::string name_;
  std::string buf_;
  bool banner_ = false;
  bool name_sent_ = false;
  bool yes_sent_ = false;
  bool done_ = false;
};

// Cuts received bytes into lines ('\n' included); whole lines come straight from the read
// buffer, only a line split across reads is copied.
class LineSplitter {
 public:
  template <typename OnLine>
  void Feed(std::string_view data, OnLine&& on_line) {
    if (!part_.empty()) {
      const size_t nl = data.find('\n');
      if (nl == std::string_view::npos) {
        part_.append(data);
        return;
      }
      part_.append(data.substr(0, nl + 1));
      on_line(std::string_view(part_));
      part_.clear();
      data.remove_prefix(nl + 1);
    }
    while (!data.empty()) {
      const size_t nl = data.find('\n');
      if (nl == std::string_view::npos) {
        part_.assign(data);
        return;
      }
      on_line(data.substr(0, nl + 1));
      data.remove_prefix(nl + 1);
    }
  }

 private:
  std::string part_;
};

// The digit and three letters that end a call: n from 0 to 175759.
inline void AppendCallSuffix(std::string& call, int n) {
  call += char('0' + n % 10);
  const int letters = n / 10;
  call += char('A' + letters / 676 % 26);
  call += char('A' + letters / 26 % 26);
  call += char('A' + letters % 26);
}

// "K1AAA" style calls with a country: prefix, digit, three letters.
inline std::string UserCall(int i) {
  static const char* kPrefixes[] = {"K", "W", "N"};
  std::string call = kPrefixes[i % 3];
  AppendCallSuffix(call, i / 3);
  return call;
}

// ---------------------------------------------------------------------------------------
// Spots that say which one they are

// DX calls encode the spot number so that a received line maps back to its spot without a
// look-up table: prefix (letters only), digit, three letters.
inline constexpr const char* kDxPrefixes[] = {"DL", "JA", "VK", "G",  "F",  "I",
                                              "EA", "PY", "ZS", "OH", "SM", "LU"};
inline constexpr int kDxPrefixCount = 12;
inline constexpr int kMaxDxCalls = kDxPrefixCount * 10 * 17576;

inline std::string DxCall(int spot) {
  std::string call = kDxPrefixes[spot % kDxPrefixCount];
  AppendCallSuffix(call, spot / kDxPrefixCount);
  return call;
}

inline int DecodeDxCall(std::string_view call) {
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

// A frequency on one of nine HF bands, different for neighbouring spot numbers.
inline double SpotKHz(int spot) {
  static const double kBands[] = {1820, 3510, 7010, 10110, 14010, 18075, 21010, 24895, 28010};
  return kBands[spot % 9] + double(spot / 9 % 40) * 0.5;
}

// The DX call of a "DX de SPOTTER:  FREQ  CALL  comment  TIME" line.
inline std::string_view CallOfDxDe(std::string_view line) {
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

// The spot number of a line holding "DX de", or -1.
inline int SpotOfLine(std::string_view line) {
  const size_t at = line.find("DX de ");
  if (at == std::string_view::npos) return -1;
  return DecodeDxCall(CallOfDxDe(line.substr(at)));
}

// ---------------------------------------------------------------------------------------
// Figures

inline double Ms(Clock::duration d) { return std::chrono::duration<double, std::milli>(d).count(); }

// The p-th percentile (nearest rank); 0 for no values.
inline double Percentile(std::vector<double> v, double p) {
  if (v.empty()) return 0;
  std::sort(v.begin(), v.end());
  const size_t i = std::min(v.size() - 1, size_t(p / 100.0 * double(v.size() - 1) + 0.5));
  return v[i];
}

inline double Median(std::vector<double> v) { return Percentile(std::move(v), 50); }

inline std::string LoadAverage() {
  std::ifstream f("/proc/loadavg");
  std::string a, b, c;
  f >> a >> b >> c;
  return a + " " + b + " " + c;
}

struct ProcStats {
  double cpu_s = 0;   // user + system
  double wait_s = 0;  // main thread's time ready to run but waiting for a core (schedstat)
  long peak_kb = 0;   // VmHWM
  long rss_kb = 0;    // VmRSS
  int threads = 0;
  bool alive = false;
};

inline ProcStats ReadProc(pid_t pid) {
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
  std::ifstream schedstat("/proc/" + std::to_string(pid) + "/schedstat");
  double run_ns = 0, wait_ns = 0;
  if (schedstat >> run_ns >> wait_ns) s.wait_s = wait_ns / 1e9;
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  while (std::getline(status, text)) {
    if (text.starts_with("VmHWM:")) s.peak_kb = std::strtol(text.c_str() + 6, nullptr, 10);
    if (text.starts_with("VmRSS:")) s.rss_kb = std::strtol(text.c_str() + 6, nullptr, 10);
    if (text.starts_with("Threads:")) s.threads = std::atoi(text.c_str() + 8);
  }
  return s;
}

inline double SelfCpu() {
  rusage self{};
  getrusage(RUSAGE_SELF, &self);
  return double(self.ru_utime.tv_sec + self.ru_stime.tv_sec) +
         double(self.ru_utime.tv_usec + self.ru_stime.tv_usec) / 1e6;
}

}  // namespace qx::tools
