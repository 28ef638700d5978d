#include "tests/testlib/test_util.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <fstream>
#include <random>
#include <sstream>
#include <stdexcept>

namespace qx::testing {

TempDir::TempDir() {
  std::random_device rd;
  for (int i = 0; i < 100; ++i) {
    auto p = std::filesystem::temp_directory_path() /
             ("qx-test-" + std::to_string(::getpid()) + "-" + std::to_string(rd()));
    if (std::filesystem::create_directory(p)) {
      path_ = p;
      return;
    }
  }
  throw std::runtime_error("cannot make a temporary directory");
}

TempDir::~TempDir() {
  // QX_KEEP_TEST_DIRS=1 keeps the directories (with the programs' output) for a post-mortem.
  if (std::getenv("QX_KEEP_TEST_DIRS")) return;
  std::error_code ec;
  std::filesystem::remove_all(path_, ec);
}

// A port from the kernel's own choice (bind to 0) lies in the ephemeral range, which the
// kernel also hands out as the source port of every outgoing connection: between the test
// picking it and the program binding it, any test's connect could take it, and the program
// would fail to listen.  So ports come from below that range, each process starting at its
// own place and never handing out one twice, and only a port that binds now is given.
int FreePort() {
  constexpr int kFirst = 20000;
  constexpr int kCount = 12000;  // up to 31999: below the usual ephemeral range (32768-60999)
  static std::atomic<int> next{int(std::random_device{}() % kCount)};
  for (int tries = 0; tries < kCount; ++tries) {
    const int port = kFirst + next.fetch_add(1) % kCount;
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = htons(static_cast<uint16_t>(port));
    const bool bound = ::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0;
    ::close(fd);
    if (bound) return port;
  }
  return 0;
}

int ListenLoopback(int port) {
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const int one = 1;
  ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  addr.sin_port = htons(static_cast<uint16_t>(port));
  if (::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 || ::listen(fd, 4) != 0) {
    ::close(fd);
    return -1;
  }
  return fd;
}

void WriteFile(const std::filesystem::path& path, std::string_view text) {
  std::filesystem::create_directories(path.parent_path());
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << text;
}

std::string ReadFile(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

ChildProcess::ChildProcess(const std::string& program, const std::vector<std::string>& args,
                           const std::filesystem::path& log_dir, std::string_view log_name) {
  out_path_ = log_dir / (std::string(log_name) + ".out");
  const auto err_path = log_dir / (std::string(log_name) + ".err");
  pid_ = ::fork();
  if (pid_ == 0) {
    const int out = ::open(out_path_.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
    const int err = ::open(err_path.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
    ::dup2(out, 1);
    ::dup2(err, 2);
    const int devnull = ::open("/dev/null", O_RDONLY);
    ::dup2(devnull, 0);
    std::vector<char*> argv;
    argv.push_back(const_cast<char*>(program.c_str()));
    for (const auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    ::execv(program.c_str(), argv.data());
    ::_exit(127);
  }
}

ChildProcess::~ChildProcess() {
  if (pid_ > 0 && !status_) {
    if (!Stop(std::chrono::seconds(5))) Kill();
  }
}

bool ChildProcess::Running() {
  if (pid_ <= 0 || status_) return false;
  int st = 0;
  const pid_t r = ::waitpid(pid_, &st, WNOHANG);
  if (r == pid_) {
    status_ = WIFEXITED(st) ? WEXITSTATUS(st) : -WTERMSIG(st);
    return false;
  }
  return true;
}

std::optional<int> ChildProcess::Stop(std::chrono::milliseconds wait) {
  if (pid_ <= 0) return std::nullopt;
  if (status_) return status_;
  ::kill(pid_, SIGTERM);
  const bool ended = WaitFor([this] { return !Running(); }, wait);
  if (!ended) return std::nullopt;
  return status_;
}

void ChildProcess::Kill() {
  if (pid_ <= 0 || status_) return;
  ::kill(pid_, SIGKILL);
  int st = 0;
  ::waitpid(pid_, &st, 0);
  status_ = -SIGKILL;
}

std::string ChildProcess::Output() const { return ReadFile(out_path_); }

LineClient::~LineClient() { Close(); }

bool LineClient::Connect(int port, std::chrono::milliseconds limit) {
  const auto end = std::chrono::steady_clock::now() + limit;
  while (std::chrono::steady_clock::now() < end) {
    fd_ = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = htons(uint16_t(port));
    if (::connect(fd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0) {
      int one = 1;
      ::setsockopt(fd_, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
      closed_ = false;
      return true;
    }
    ::close(fd_);
    fd_ = -1;
    ::usleep(20'000);
  }
  return false;
}

bool LineClient::ConnectIpv6(int port, std::chrono::milliseconds limit) {
  const auto end = std::chrono::steady_clock::now() + limit;
  while (std::chrono::steady_clock::now() < end) {
    fd_ = ::socket(AF_INET6, SOCK_STREAM, 0);
    sockaddr_in6 addr{};
    addr.sin6_family = AF_INET6;
    addr.sin6_addr = in6addr_loopback;
    addr.sin6_port = htons(uint16_t(port));
    if (fd_ >= 0 && ::connect(fd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0) {
      closed_ = false;
      return true;
    }
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
    ::usleep(20'000);
  }
  return false;
}

bool HasIpv6Loopback() {
  const int fd = ::socket(AF_INET6, SOCK_STREAM, 0);
  if (fd < 0) return false;
  sockaddr_in6 addr{};
  addr.sin6_family = AF_INET6;
  addr.sin6_addr = in6addr_loopback;
  const bool ok = ::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0;
  ::close(fd);
  return ok;
}

bool LineClient::Send(std::string_view bytes) {
  if (fd_ < 0) return false;
  while (!bytes.empty()) {
    const ssize_t n = ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (n <= 0) return false;
    bytes.remove_prefix(size_t(n));
  }
  return true;
}

bool LineClient::ReadSome(std::chrono::milliseconds limit) {
  if (fd_ < 0 || closed_) return false;
  pollfd p{fd_, POLLIN, 0};
  const int r = ::poll(&p, 1, int(limit.count()));
  if (r <= 0) return false;
  char buf[65536];
  const ssize_t n = ::recv(fd_, buf, sizeof buf, 0);
  if (n <= 0) {
    closed_ = true;
    return false;
  }
  received_.append(buf, size_t(n));
  return true;
}

std::optional<std::string> LineClient::ReadUntil(std::string_view needle,
                                                 std::chrono::milliseconds limit) {
  const auto end = std::chrono::steady_clock::now() + limit;
  while (received_.find(needle) == std::string::npos) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        end - std::chrono::steady_clock::now());
    if (left.count() <= 0 || closed_) return std::nullopt;
    ReadSome(left);
  }
  return received_;
}

void LineClient::Drain(std::chrono::milliseconds limit) {
  const auto end = std::chrono::steady_clock::now() + limit;
  while (true) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        end - std::chrono::steady_clock::now());
    if (left.count() <= 0 || closed_) return;
    ReadSome(left);
  }
}

bool LineClient::WaitClosed(std::chrono::milliseconds limit) {
  const auto end = std::chrono::steady_clock::now() + limit;
  while (!closed_) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        end - std::chrono::steady_clock::now());
    if (left.count() <= 0) return false;
    ReadSome(left);
  }
  return true;
}

void LineClient::Close() {
  if (fd_ >= 0) ::close(fd_);
  fd_ = -1;
}

}  // namespace qx::testing
