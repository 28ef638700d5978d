// hop_delay: how long a spot takes from one node to the next across a chain of three real
// nodes.  It prepares three program directories under --home (A, B, C), each with its own
// front-end and node on free loopback ports; A calls B and B calls C.  Once the links are up
// it logs one user in on each node and lets the user on A post spots at a fixed rate (open
// loop: spot k is due at t0 + k/R).  One epoll loop timestamps, with a steady clock, the
// arrival of each spot's "DX de" line at the users on A, B and C; the hop delays are B - A,
// C - B and (C - A) / 2.
//
//   hop_delay --home DIR --qxcluster PATH --qxfront PATH [--spots 2000]
//             [--rate 50 | --rates 20,200] [--cty FILE] [--cfg "KEY^VALUE"]... [--csv FILE]
//
// --rates runs one stage of --spots spots per rate over the same chain.  --csv writes every
// spot's times (ms from the stage's start, -1 for never) to look for a pattern in the slow
// ones; --cfg adds a line to every node's cluster.cfg.  Everything started is stopped at the
// end, also after an error or SIGINT.  Exit status 2 when a spot did not reach all three
// users.

#include <poll.h>

#include <algorithm>
#include <array>
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
  int spots = 2000;
  std::vector<double> rates{50};
  std::string extra_cfg;  // lines added to every node's cluster.cfg
  std::string csv;  // one line a spot: stage, spot, sent, A, B, C in ms from the stage's start
};

constexpr int kNodes = 3;
constexpr std::array<const char*, kNodes> kSiteNames = {"A", "B", "C"};
constexpr std::array<const char*, kNodes> kNodeCalls = {"K1HOP", "K2HOP", "K3HOP"};
constexpr std::array<const char*, kNodes> kUserCalls = {"W1AAA", "W2BBB", "W3CCC"};

// One node of the chain: its directory, ports and programs.
struct Site {
  fs::path home;
  int link_port = 0;
  int user_port = 0;
  int console_port = 0;
  pid_t front = -1;
  pid_t node = -1;
};

// Outgoing connection to a node of this chain, called again after 2 s when it drops.
std::string OutgoingTo(std::string_view call, int port) {
  return "Outgoing Cluster^" + std::string(call) + "\r\nRemoteNodeIs^QXC\r\nIP Address^127.0.0.1" +
         "\r\nIP Port^" + std::to_string(port) + "\r\nCluster Active^True\r\n";
}

std::string DefineNode(std::string_view call) {
  // Neighbours on this machine are admitted by their loopback address.
  return "Node Call & Node Type^" + std::string(call) + " QXC\r\nNode Address^127.0.0.1\r\n";
}

std::string ReadText(const fs::path& file) {
  std::ifstream in(file, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

size_t Occurrences(std::string_view text, std::string_view what) {
  size_t n = 0;
  for (size_t p = text.find(what); p != std::string_view::npos; p = text.find(what, p + 1)) ++n;
  return n;
}

// Logs a user in on a node (blocking, answering the questions of a new user); returns the
// socket, non-blocking, with what followed the prompt in *rest.
int LogInUser(int port, const std::string& call, std::string* rest) {
  const int fd = ConnectTo(port);
  if (fd < 0) Die("connect for " + call + ": " + std::strerror(errno));
  LogInDialogue dialogue(call, "Hop");
  const auto end = Clock::now() + std::chrono::seconds(20);
  while (!dialogue.done()) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now());
    if (left.count() <= 0) Die("log-in of " + call + " timed out: " + dialogue.rest());
    pollfd p{fd, POLLIN, 0};
    if (::poll(&p, 1, int(left.count())) <= 0) continue;
    char buf[4096];
    const ssize_t n = ::recv(fd, buf, sizeof buf, 0);
    if (n <= 0) Die("the node closed the connection of " + call + " while logging in");
    const std::string answer = dialogue.Feed(std::string_view(buf, size_t(n)));
    if (!answer.empty() && !SendAll(fd, answer)) Die("send for " + call);
  }
  rest->swap(dialogue.rest());
  SetNonBlocking(fd);
  return fd;
}

struct SpotTimes {
  Clock::time_point sent{};
  std::array<Clock::time_point, kNodes> arrived{};
  int copies = 0;  // "DX de" lines in all, to see duplicates
};

class Chain {
 public:
  Chain(const Options& o, std::array<Site, kNodes>& sites) : opt_(o), sites_(sites) {
    // Measured spots first, then the probes that show the chain carries spots.
    spots_.resize(size_t(o.spots) * o.rates.size() + kMaxProbes);
  }

  void LogIn() {
    for (int i = 0; i < kNodes; ++i) {
      std::string rest;
      fds_[size_t(i)] = LogInUser(sites_[size_t(i)].user_port, kUserCalls[size_t(i)], &rest);
      loop_.Watch(fds_[size_t(i)], uint32_t(i));
    }
  }

  // Posts probe spots until one reaches C: the links carry spots end to end.
  void WaitUntilCarried() {
    const int first = opt_.spots * int(opt_.rates.size());
    const auto end = Clock::now() + std::chrono::seconds(60);
    for (int k = first; k < first + kMaxProbes && Clock::now() < end; ++k) {
      Post(k, "probe");
      const auto wait_end = Clock::now() + std::chrono::seconds(2);
      while (Clock::now() < wait_end) {
        Pump(50);
        if (spots_[size_t(k)].arrived[2] != Clock::time_point{}) {
          std::printf("hop_delay: a probe spot reached C after %.1f ms\n",
                      Ms(spots_[size_t(k)].arrived[2] - spots_[size_t(k)].sent));
          std::fflush(stdout);
          WaitQuiet([this](int ms) { return Pump(ms); }, std::chrono::milliseconds(500),
                    std::chrono::seconds(5));
          return;
        }
      }
    }
    Die("no probe spot from A reached the user on C within 60 s");
  }

  // Returns the number of spots that did not reach all three users.
  int Stage(int stage, double rate) {
    const int first = stage * opt_.spots;
    const int end = first + opt_.spots;
    std::array<ProcStats, 2 * kNodes> before;
    for (int i = 0; i < kNodes; ++i) {
      before[size_t(2 * i)] = ReadProc(sites_[size_t(i)].node);
      before[size_t(2 * i + 1)] = ReadProc(sites_[size_t(i)].front);
    }
    const double self_before = SelfCpu();
    const double self_wait_before = ReadProc(::getpid()).wait_s;
    const auto t0 = Clock::now();
    auto due = [&](int k) {
      return t0 + std::chrono::duration_cast<Clock::duration>(
                      std::chrono::duration<double>((k - first) / rate));
    };
    int next = first;
    Clock::time_point last_arrival = Clock::now();
    int complete_before = 0;
    while (true) {
      while (next < end && Clock::now() >= due(next)) Post(next++, "hop");
      if (next < end) loop_.ArmTimer(due(next));
      const int complete = Complete(first, end);
      if (complete != complete_before) {
        complete_before = complete;
        last_arrival = Clock::now();
      }
      if (next == end && complete == end - first) break;
      // Whatever has not arrived 10 s after the last spot was sent and nothing else came is lost.
      if (next == end && Clock::now() - last_arrival > std::chrono::seconds(10)) break;
      Pump(20);
    }
    const double send_s = std::chrono::duration<double>(spots_[size_t(end - 1)].sent - t0).count();
    const double achieved = opt_.spots > 1 ? double(opt_.spots - 1) / std::max(1e-9, send_s) : 0;

    std::vector<double> a_sent, b_a, c_b, c_a_half, c_sent;
    std::array<int, kNodes> lost{};
    int copies_over = 0;
    for (int k = first; k < end; ++k) {
      const SpotTimes& s = spots_[size_t(k)];
      bool all = true;
      for (int i = 0; i < kNodes; ++i) {
        if (s.arrived[size_t(i)] == Clock::time_point{}) {
          ++lost[size_t(i)];
          all = false;
        }
      }
      copies_over += std::max(0, s.copies - kNodes);
      if (!all) continue;
      a_sent.push_back(Ms(s.arrived[0] - s.sent));
      b_a.push_back(Ms(s.arrived[1] - s.arrived[0]));
      c_b.push_back(Ms(s.arrived[2] - s.arrived[1]));
      c_a_half.push_back(Ms(s.arrived[2] - s.arrived[0]) / 2);
      c_sent.push_back(Ms(s.arrived[2] - s.sent));
    }
    if (!opt_.csv.empty()) WriteCsv(stage, first, end, t0);
    std::printf("stage %d: rate %.0f/s asked, %.1f/s sent, %d spots, load %s\n", stage, rate,
                achieved, opt_.spots, LoadAverage().c_str());
    auto row = [](const char* name, const std::vector<double>& v) {
      std::printf("  %-18s p50 %7.3f  p90 %7.3f  p99 %7.3f  max %8.3f ms\n", name,
                  Percentile(v, 50), Percentile(v, 90), Percentile(v, 99), Percentile(v, 100));
    };
    row("DX command -> A", a_sent);
    row("hop A -> B (B-A)", b_a);
    row("hop B -> C (C-B)", c_b);
    row("per hop (C-A)/2", c_a_half);
    row("DX command -> C", c_sent);
    std::printf("  lost: A %d, B %d, C %d; extra copies %d; p99 per hop %s the 5 ms goal\n",
                lost[0], lost[1], lost[2], copies_over,
                std::max({Percentile(b_a, 99), Percentile(c_b, 99), Percentile(c_a_half, 99)}) < 5.0
                    ? "meets"
                    : "MISSES");
    // CPU, and time spent ready but waiting for a core, per spot: on a shared machine the
    // second is where a hop's tail goes.
    std::printf("  ms per spot (CPU / waiting for a core):");
    for (int i = 0; i < kNodes; ++i) {
      const ProcStats node = ReadProc(sites_[size_t(i)].node);
      const ProcStats front = ReadProc(sites_[size_t(i)].front);
      const ProcStats& node0 = before[size_t(2 * i)];
      const ProcStats& front0 = before[size_t(2 * i + 1)];
      std::printf(" %s qxcluster %.3f/%.3f qxfront %.3f/%.3f;", kSiteNames[size_t(i)],
                  (node.cpu_s - node0.cpu_s) * 1000 / opt_.spots,
                  (node.wait_s - node0.wait_s) * 1000 / opt_.spots,
                  (front.cpu_s - front0.cpu_s) * 1000 / opt_.spots,
                  (front.wait_s - front0.wait_s) * 1000 / opt_.spots);
    }
    std::printf(" hop_delay %.3f/%.3f\n", (SelfCpu() - self_before) * 1000 / opt_.spots,
                (ReadProc(::getpid()).wait_s - self_wait_before) * 1000 / opt_.spots);
    std::fflush(stdout);
    WaitQuiet([this](int ms) { return Pump(ms); }, std::chrono::milliseconds(300),
              std::chrono::seconds(10));
    return opt_.spots - int(b_a.size());
  }

 private:
  static constexpr int kMaxProbes = 30;

  void WriteCsv(int stage, int first, int end, Clock::time_point t0) {
    std::ofstream out(opt_.csv, stage == 0 ? std::ios::trunc : std::ios::app);
    if (stage == 0) out << "stage,spot,sent_ms,a_ms,b_ms,c_ms\n";
    auto at = [&](Clock::time_point t) { return t == Clock::time_point{} ? -1.0 : Ms(t - t0); };
    char line[160];
    for (int k = first; k < end; ++k) {
      const SpotTimes& s = spots_[size_t(k)];
      std::snprintf(line, sizeof line, "%d,%d,%.3f,%.3f,%.3f,%.3f\n", stage, k, at(s.sent),
                    at(s.arrived[0]), at(s.arrived[1]), at(s.arrived[2]));
      out << line;
    }
    if (!out) Die("cannot write " + opt_.csv);
  }

  void Post(int k, const char* comment) {
    char cmd[128];
    const int n = std::snprintf(cmd, sizeof cmd, "DX %.1f %s %s %d\r\n", SpotKHz(k),
                                DxCall(k).c_str(), comment, k);
    spots_[size_t(k)].sent = Clock::now();
    if (!SendAll(fds_[0], std::string_view(cmd, size_t(n)))) {
      Die(std::string("send on A: ") + std::strerror(errno));
    }
  }

  // How many of the spots in [first, end) reached all three users.
  int Complete(int first, int end) {
    while (complete_floor_ < first) complete_floor_ = first;
    while (complete_floor_ < end && Arrived(complete_floor_)) ++complete_floor_;
    int n = complete_floor_ - first;
    for (int k = complete_floor_; k < end; ++k) n += Arrived(k) ? 1 : 0;
    return n;
  }
  bool Arrived(int k) const {
    for (const auto& t : spots_[size_t(k)].arrived) {
      if (t == Clock::time_point{}) return false;
    }
    return true;
  }

  // One round of the event loop; every read is timestamped as it is taken.  Returns the
  // reads that brought data.
  int Pump(int timeout_ms) {
    return loop_.Wait(timeout_ms, [this](uint32_t id) {
      const int reads = ReadAvailable(fds_[id], buf_, [&](std::string_view data, auto now) {
        lines_[id].Feed(data, [&](std::string_view line) { OnLine(int(id), line, now); });
      });
      if (reads < 0) {
        Die(std::string("the user on ") + kSiteNames[id] +
            " was disconnected: " + (errno == 0 ? "end of stream" : std::strerror(errno)));
      }
      return reads;
    });
  }

  void OnLine(int site, std::string_view line, Clock::time_point now) {
    const int k = SpotOfLine(line);
    if (k < 0 || size_t(k) >= spots_.size()) return;
    SpotTimes& s = spots_[size_t(k)];
    ++s.copies;
    if (s.arrived[size_t(site)] == Clock::time_point{}) s.arrived[size_t(site)] = now;
  }

  const Options& opt_;
  std::array<Site, kNodes>& sites_;
  std::array<int, kNodes> fds_{-1, -1, -1};
  std::array<LineSplitter, kNodes> lines_;
  std::vector<SpotTimes> spots_;
  EventLoop loop_;
  int complete_floor_ = 0;
  char buf_[64 * 1024];
};

Options ParseOptions(int argc, char** argv) {
  Options o;
  Args args(argc, argv);
  while (args.Next()) {
    if (o.paths.Take(args)) continue;
    if (args.Is("--spots")) {
      o.spots = args.Int();
    } else if (args.Is("--rate")) {
      o.rates = {args.Double()};
    } else if (args.Is("--rates")) {
      o.rates = args.Doubles();
    } else if (args.Is("--cfg")) {
      o.extra_cfg += args.Value() + "\r\n";
    } else if (args.Is("--csv")) {
      o.csv = args.Value();
    } else {
      args.Unknown(std::string(ProgramPaths::kFlags) + " --spots --rate --rates --cfg --csv");
    }
  }
  o.paths.Finish();
  if (o.spots < 1 || o.rates.empty()) Die("--spots must be >= 1 and --rates not empty");
  for (double r : o.rates) {
    if (r <= 0) Die("every rate must be above 0 spots/s");
  }
  if (size_t(o.spots) * o.rates.size() + 100 > size_t(kMaxDxCalls)) {
    Die("too many spots for distinct DX calls");
  }
  return o;
}

}  // namespace

int main(int argc, char** argv) {
  SetUpTool("hop_delay");
  const Options opt = ParseOptions(argc, argv);

  // A calls B, B calls C; each side knows the other as a node of this kind.
  std::array<Site, kNodes> sites;
  for (int i = 0; i < kNodes; ++i) {
    Site& s = sites[size_t(i)];
    s.home = opt.paths.home / kSiteNames[size_t(i)];
    s.link_port = FreePort();
    s.user_port = FreePort();
    s.console_port = FreePort();
  }
  for (int i = 0; i < kNodes; ++i) {
    Site& s = sites[size_t(i)];
    std::string cfg = SiteConfig(kNodeCalls[size_t(i)], s.link_port, s.user_port, s.console_port);
    cfg += kNoSpotLimits;
    cfg += "Connection Retry^2\r\nNode First Ping^1\r\n";
    cfg += opt.extra_cfg;
    if (i > 0) cfg += DefineNode(kNodeCalls[size_t(i - 1)]);
    if (i + 1 < kNodes) {
      cfg += DefineNode(kNodeCalls[size_t(i + 1)]);
      cfg += OutgoingTo(kNodeCalls[size_t(i + 1)], sites[size_t(i + 1)].user_port);
    }
    PrepareHome(s.home, opt.paths.cty, cfg);
  }

  std::printf("hop_delay: chain %s -> %s -> %s under %s, %d spots per stage, load %s\n",
              kNodeCalls[0], kNodeCalls[1], kNodeCalls[2], opt.paths.home.c_str(), opt.spots,
              LoadAverage().c_str());
  std::fflush(stdout);
  for (Site& s : sites) {
    s.front = Spawn(opt.paths.qxfront, s.home, "qxfront");
    s.node = Spawn(opt.paths.qxcluster, s.home, "qxcluster");
  }
  for (int i = 0; i < kNodes; ++i) {
    if (!WaitForBanner(sites[size_t(i)].user_port, std::chrono::seconds(60))) {
      Die(std::string("no log-in banner from node ") + kSiteNames[size_t(i)] + " within 60 s");
    }
  }
  // Node links: A and C have one, B two.
  const auto links_end = Clock::now() + std::chrono::seconds(60);
  for (int i = 0; i < kNodes; ++i) {
    const size_t want = i == 1 ? 2 : 1;
    const fs::path out = sites[size_t(i)].home / "qxcluster.out";
    while (Occurrences(ReadText(out), "Node link up: ") < want) {
      if (Clock::now() > links_end) {
        Die(std::string("the links of node ") + kSiteNames[size_t(i)] +
            " did not come up within 60 s; see " + out.string());
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
  }
  std::printf("hop_delay: links up, load %s\n", LoadAverage().c_str());
  std::fflush(stdout);

  Chain chain(opt, sites);
  chain.LogIn();
  chain.WaitUntilCarried();
  int incomplete = 0;
  for (size_t i = 0; i < opt.rates.size(); ++i) incomplete += chain.Stage(int(i), opt.rates[i]);

  for (int i = 0; i < kNodes; ++i) {
    const ProcStats node = ReadProc(sites[size_t(i)].node);
    const ProcStats front = ReadProc(sites[size_t(i)].front);
    std::printf("node %s: qxcluster CPU %.2f s, peak RSS %.1f MB%s; qxfront CPU %.2f s%s\n",
                kSiteNames[size_t(i)], node.cpu_s, double(node.peak_kb) / 1024,
                node.alive ? "" : " -- NOT RUNNING", front.cpu_s,
                front.alive ? "" : " -- NOT RUNNING");
  }
  std::printf("hop_delay: load %s\n", LoadAverage().c_str());
  StopChildren();
  return incomplete == 0 ? 0 : 2;
}
