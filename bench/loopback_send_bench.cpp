// What the front-end's loop turn costs the kernel: one spot line written to every connection,
// either by one send() per connection or by one io_uring submission carrying the sends of all
// of them.  The question is whether batching the system calls saves enough of the sender's
// CPU per line to be worth a dependency on liburing.
//
// The receiving ends are either drained between turns outside the measurement, so that no
// send wakes anyone (BM_SendDrained), or read by a child process on another CPU that every
// send wakes, as a load tool on the same machine is (BM_SendWokenReader); the reading is
// never charged to the sender.  The sender's CPU comes from getrusage(RUSAGE_SELF), which
// includes the thread io_uring starts for SQPOLL, so a variant cannot hide work in a thread.
// Counters:
//   cpu_ns_per_line     process CPU (user + system) per line delivered
//   wall_ns_per_line    wall time per line
//   preempted_per_turn  involuntary context switches per turn
//   failed              writes that did not go out whole (must be 0: a sender that found a
//                       socket full would not be doing the same work in every variant)
//
// On a machine shared with other work, run it under `chrt -f 1` to give the sender a core of
// its own; otherwise preemptions dominate the difference between the variants.
#include <benchmark/benchmark.h>
#include <liburing.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sched.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <string>
#include <vector>

namespace {

constexpr size_t kLineSize = 90;         // a "DX de" line with its CR LF
constexpr int kReceiveBuffer = 1 << 20;  // room for ~11,000 lines should the reader lag

// The sending variants, as bits of the benchmark's first argument.
constexpr int kPlainSend = 0;
constexpr int kUring = 1;
constexpr int kDeferTaskrun = 2;  // IORING_SETUP_SINGLE_ISSUER | IORING_SETUP_DEFER_TASKRUN
constexpr int kFixedFiles = 4;    // sockets registered with the ring: no fd lookup per send
constexpr int kSqPoll = 8;        // a kernel thread polls the submission queue, burning CPU

// The process's CPU time and how often it was preempted: on a busy machine every preemption
// costs a refill of the caches, and a way of sending that stays in the kernel longer is
// preempted less often.
struct Usage {
  double cpu = 0;
  double preempted = 0;
  Usage& operator+=(const Usage& o) {
    cpu += o.cpu;
    preempted += o.preempted;
    return *this;
  }
  Usage operator-(const Usage& o) const { return {cpu - o.cpu, preempted - o.preempted}; }
};

Usage Now() {
  rusage ru{};
  getrusage(RUSAGE_SELF, &ru);
  auto secs = [](const timeval& tv) { return double(tv.tv_sec) + double(tv.tv_usec) * 1e-6; };
  return {secs(ru.ru_utime) + secs(ru.ru_stime), double(ru.ru_nivcsw)};
}

// Keeps the sender on the CPU it runs on and gives the reader the others, so that a reader
// woken by a send never preempts the sender on its own CPU (which would favour whichever way
// of sending enters the kernel least often).  Nothing is pinned on a single CPU.
class PinnedSender {
 public:
  PinnedSender() {
    sched_getaffinity(0, sizeof all_, &all_);
    others_ = all_;
    if (CPU_COUNT(&all_) < 2) return;
    cpu_set_t mine;
    CPU_ZERO(&mine);
    CPU_SET(sched_getcpu(), &mine);
    CPU_CLR(sched_getcpu(), &others_);
    sched_setaffinity(0, sizeof mine, &mine);
  }
  ~PinnedSender() { sched_setaffinity(0, sizeof all_, &all_); }
  PinnedSender(const PinnedSender&) = delete;
  PinnedSender& operator=(const PinnedSender&) = delete;

  const cpu_set_t& reader_cpus() const { return others_; }

 private:
  cpu_set_t all_, others_;
};

// Drains every socket until all have been closed by the sender, then exits.
[[noreturn]] void RunReader(const std::vector<int>& fds, const cpu_set_t& cpus) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);  // never outlive the benchmark
  sched_setaffinity(0, sizeof cpus, &cpus);
  // When the sender is given a real-time priority to keep other work off its CPU, the reader
  // is not what is measured and goes back to the ordinary class.
  const sched_param ordinary{};
  sched_setscheduler(0, SCHED_OTHER, &ordinary);
  const int ep = epoll_create1(0);
  for (int fd : fds) {
    epoll_event ev{};
    ev.events = EPOLLIN;
    ev.data.fd = fd;
    epoll_ctl(ep, EPOLL_CTL_ADD, fd, &ev);
  }
  static char buf[256 * 1024];
  size_t open = fds.size();
  epoll_event events[256];
  while (open > 0) {
    const int n = epoll_wait(ep, events, 256, -1);
    for (int i = 0; i < n; ++i) {
      const int fd = events[i].data.fd;
      ssize_t r;
      while ((r = recv(fd, buf, sizeof buf, MSG_DONTWAIT)) > 0) {
      }
      if (r == 0 || (r < 0 && errno != EAGAIN && errno != EINTR)) {
        epoll_ctl(ep, EPOLL_CTL_DEL, fd, nullptr);
        close(fd);
        --open;
      }
    }
  }
  _exit(0);
}

// n connected loopback TCP pairs; the sending ends are set up as the front-end sets up a
// user's socket (non-blocking writes, Nagle off).  The receiving ends go either to a reader
// process that is woken by every send, as a remote client's kernel would be, or stay here to
// be drained between turns, outside the measurement, so that no send wakes anyone.
class Loopback {
 public:
  Loopback(int n, const cpu_set_t* reader_cpus) {
    const int listener = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof addr;
    if (bind(listener, reinterpret_cast<sockaddr*>(&addr), len) != 0 || listen(listener, n) != 0 ||
        getsockname(listener, reinterpret_cast<sockaddr*>(&addr), &len) != 0) {
      error_ = std::string("listen: ") + std::strerror(errno);
      close(listener);
      return;
    }
    std::vector<int> accepted;
    for (int i = 0; i < n && error_.empty(); ++i) {
      const int fd = socket(AF_INET, SOCK_STREAM, 0);
      const int one = 1;
      setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
      // Close with a reset, so that thousands of closed pairs leave no TIME_WAIT behind.
      const linger reset{1, 0};
      setsockopt(fd, SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
      fds_.push_back(fd);
      if (connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
        error_ = std::string("connect: ") + std::strerror(errno);
        break;
      }
      const int peer = accept(listener, nullptr, nullptr);
      if (peer < 0) {
        error_ = std::string("accept: ") + std::strerror(errno);
        break;
      }
      setsockopt(peer, SOL_SOCKET, SO_RCVBUF, &kReceiveBuffer, sizeof kReceiveBuffer);
      accepted.push_back(peer);
    }
    close(listener);
    if (reader_cpus == nullptr) {
      accepted_ = std::move(accepted);
      return;
    }
    if (error_.empty()) {
      reader_ = fork();
      if (reader_ == 0) {
        for (int fd : fds_) close(fd);
        RunReader(accepted, *reader_cpus);
      }
      if (reader_ < 0) error_ = std::string("fork: ") + std::strerror(errno);
    }
    for (int fd : accepted) close(fd);
  }
  ~Loopback() {
    for (int fd : fds_) close(fd);
    for (int fd : accepted_) close(fd);
    if (reader_ > 0) waitpid(reader_, nullptr, 0);
  }
  Loopback(const Loopback&) = delete;
  Loopback& operator=(const Loopback&) = delete;

  const std::vector<int>& fds() const { return fds_; }
  const std::string& error() const { return error_; }

  // Reads everything sent so far when the receiving ends are kept here.
  void Drain() {
    static char buf[64 * 1024];
    for (int fd : accepted_)
      while (recv(fd, buf, sizeof buf, MSG_DONTWAIT) > 0) {
      }
  }

 private:
  std::vector<int> fds_;
  std::vector<int> accepted_;
  pid_t reader_ = -1;
  std::string error_;
};

class Sender {
 public:
  Sender(int mode, const std::vector<int>& fds) : mode_(mode), fds_(fds) {
    if (mode_ == kPlainSend) return;
    io_uring_params params{};
    if (mode_ & kDeferTaskrun)
      params.flags |= IORING_SETUP_SINGLE_ISSUER | IORING_SETUP_DEFER_TASKRUN;
    if (mode_ & kSqPoll) {
      params.flags |= IORING_SETUP_SQPOLL;
      params.sq_thread_idle = 10;  // ms the thread spins after the last submission
    }
    // Room for two turns: see NextSqe.
    const int r = io_uring_queue_init_params(2 * unsigned(fds_.size()), &ring_, &params);
    if (r < 0) {
      error_ = std::string("io_uring_queue_init: ") + std::strerror(-r);
      return;
    }
    ring_ready_ = true;
    if (mode_ & kFixedFiles) {
      const int rr = io_uring_register_files(&ring_, fds_.data(), unsigned(fds_.size()));
      if (rr < 0) error_ = std::string("io_uring_register_files: ") + std::strerror(-rr);
    }
  }
  ~Sender() {
    if (ring_ready_) io_uring_queue_exit(&ring_);
  }
  Sender(const Sender&) = delete;
  Sender& operator=(const Sender&) = delete;

  const std::string& error() const { return error_; }

  // Writes the bytes to every connection; returns how many writes fell short.
  int64_t SendToAll(const std::string& bytes) {
    int64_t failed = 0;
    if (mode_ == kPlainSend) {
      for (int fd : fds_) {
        if (send(fd, bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL) !=
            ssize_t(bytes.size()))
          ++failed;
      }
      return failed;
    }
    const bool fixed = mode_ & kFixedFiles;
    for (size_t i = 0; i < fds_.size(); ++i) {
      io_uring_sqe* sqe = NextSqe();
      // MSG_DONTWAIT: a full socket completes with -EAGAIN instead of arming a poll, as a
      // non-blocking send() would.
      io_uring_prep_send(sqe, fixed ? int(i) : fds_[i], bytes.data(), bytes.size(),
                         MSG_DONTWAIT | MSG_NOSIGNAL);
      if (fixed) sqe->flags |= IOSQE_FIXED_FILE;
    }
    io_uring_submit_and_wait(&ring_, unsigned(fds_.size()));
    size_t reaped = 0;
    while (reaped < fds_.size()) {
      io_uring_cqe* cqe;
      if (io_uring_wait_cqe(&ring_, &cqe) < 0) return failed + int64_t(fds_.size() - reaped);
      unsigned head, seen = 0;
      io_uring_for_each_cqe(&ring_, head, cqe) {
        if (cqe->res != int(bytes.size())) ++failed;
        ++seen;
      }
      io_uring_cq_advance(&ring_, seen);
      reaped += seen;
    }
    return failed;
  }

 private:
  io_uring_sqe* NextSqe() {
    io_uring_sqe* sqe;
    while ((sqe = io_uring_get_sqe(&ring_)) == nullptr) {
      // The polling thread posts a turn's completions before it marks the turn's entries
      // consumed, so the next turn may briefly find the queue full.
      if (mode_ & kSqPoll)
        io_uring_sqring_wait(&ring_);
      else
        io_uring_submit(&ring_);
    }
    return sqe;
  }

  int mode_;
  const std::vector<int>& fds_;
  io_uring ring_{};
  bool ring_ready_ = false;
  std::string error_;
};

// Args: mode, connections, lines per connection per turn (4 = late spots queued together).
void Run(benchmark::State& state, bool reader_process) {
  const int mode = int(state.range(0));
  const int connections = int(state.range(1));
  const int lines = int(state.range(2));
  std::string line(kLineSize - 2, 'x');
  line += "\r\n";
  std::string bytes;
  for (int i = 0; i < lines; ++i) bytes += line;

  PinnedSender pinned;
  Loopback loopback(connections, reader_process ? &pinned.reader_cpus() : nullptr);
  if (!loopback.error().empty()) return state.SkipWithError(loopback.error().c_str());
  Sender sender(mode, loopback.fds());
  if (!sender.error().empty()) return state.SkipWithError(sender.error().c_str());
  sender.SendToAll(bytes);  // first writes on fresh sockets allocate
  loopback.Drain();

  using Clock = std::chrono::steady_clock;
  int64_t failed = 0;
  Usage used;
  double wall = 0;
  if (reader_process) {
    const Usage start = Now();
    const auto wall_start = Clock::now();
    for (auto _ : state) failed += sender.SendToAll(bytes);
    wall = std::chrono::duration<double>(Clock::now() - wall_start).count();
    used = Now() - start;
  } else {
    for (auto _ : state) {
      const Usage start = Now();
      const auto wall_start = Clock::now();
      failed += sender.SendToAll(bytes);
      const double turn = std::chrono::duration<double>(Clock::now() - wall_start).count();
      used += Now() - start;
      wall += turn;
      state.SetIterationTime(turn);
      loopback.Drain();
    }
  }
  const double delivered = double(state.iterations()) * connections * lines;
  state.counters["cpu_ns_per_line"] = used.cpu * 1e9 / delivered;
  state.counters["preempted_per_turn"] = used.preempted / double(state.iterations());
  state.counters["wall_ns_per_line"] = wall * 1e9 / delivered;
  state.counters["failed"] = double(failed);
  state.SetItemsProcessed(int64_t(delivered));
}

// The receiving ends in a process of their own, woken by the sends (as in the load tests).
void BM_SendWokenReader(benchmark::State& state) { Run(state, true); }
// The receiving ends drained between turns: only the sending and the kernel's TCP path.
void BM_SendDrained(benchmark::State& state) { Run(state, false); }

void Variants(benchmark::internal::Benchmark* b, bool sq_poll) {
  b->ArgNames({"mode", "conns", "lines"});
  std::vector<int> modes = {kPlainSend, kUring, kUring | kDeferTaskrun,
                            kUring | kDeferTaskrun | kFixedFiles};
  // The polling thread's spinning between turns would escape the drained variant's windows.
  if (sq_poll) modes.push_back(kUring | kSqPoll | kFixedFiles);
  for (int mode : modes)
    for (int conns : {100, 1000})
      for (int lines : {1, 4}) b->Args({mode, conns, lines});
}
BENCHMARK(BM_SendWokenReader)
    ->Apply([](benchmark::internal::Benchmark* b) { Variants(b, true); })
    ->Unit(benchmark::kMicrosecond)
    ->UseRealTime();
BENCHMARK(BM_SendDrained)
    ->Apply([](benchmark::internal::Benchmark* b) { Variants(b, false); })
    ->Unit(benchmark::kMicrosecond)
    ->UseManualTime();

}  // namespace
