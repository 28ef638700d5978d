// Shared helpers for tests: temporary program directories, free loopback ports, child
// processes that are always stopped, and a blocking line client with time-outs.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace qx::testing {

// A fresh directory under the system's temporary folder, removed with its contents.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::filesystem::path& path() const { return path_; }
  std::filesystem::path operator/(std::string_view sub) const { return path_ / sub; }

 private:
  std::filesystem::path path_;
};

// A loopback TCP port that was free a moment ago.
int FreePort();
// A socket listening on 127.0.0.1:port, close-on-exec (a program the test starts afterwards
// must not inherit it); -1 when the port cannot be had.
int ListenLoopback(int port);
// Whether this machine can listen on the IPv6 loopback [::1].
bool HasIpv6Loopback();

void WriteFile(const std::filesystem::path& path, std::string_view text);
std::string ReadFile(const std::filesystem::path& path);

// A child process started with arguments; stopped with SIGTERM (then SIGKILL) at the latest
// when the object goes away.  Its standard output and error go to files in log_dir.
class ChildProcess {
 public:
  ChildProcess(const std::string& program, const std::vector<std::string>& args,
               const std::filesystem::path& log_dir, std::string_view log_name);
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  pid_t pid() const { return pid_; }
  bool Running();
  // Sends SIGTERM and waits; returns the exit status (or -signal), or nullopt on time-out.
  std::optional<int> Stop(std::chrono::milliseconds wait = std::chrono::seconds(10));
  void Kill();                 // SIGKILL, no clean-up by the child
  std::string Output() const;  // what the child wrote to stdout so far

 private:
  pid_t pid_ = -1;
  std::filesystem::path out_path_;
  std::optional<int> status_;
};

// Waits until pred() is true or the time is up; true when pred() became true.
template <typename Pred>
bool WaitFor(Pred pred, std::chrono::milliseconds limit = std::chrono::seconds(10)) {
  const auto end = std::chrono::steady_clock::now() + limit;
  while (std::chrono::steady_clock::now() < end) {
    if (pred()) return true;
    struct timespec ts {
      0, 10'000'000
    };
    nanosleep(&ts, nullptr);
  }
  return pred();
}

// A plain TCP client on loopback, as a telnet user or a scripted peer would be.
class LineClient {
 public:
  LineClient() = default;
  ~LineClient();
  LineClient(const LineClient&) = delete;
  LineClient& operator=(const LineClient&) = delete;

  bool Connect(int port, std::chrono::milliseconds limit = std::chrono::seconds(10));
  // The same to the IPv6 loopback [::1].
  bool ConnectIpv6(int port, std::chrono::milliseconds limit = std::chrono::seconds(10));
  bool Send(std::string_view bytes);
  bool SendLine(std::string_view line) { return Send(std::string(line) + "\r\n"); }
  // Reads until the received text contains needle; returns everything received so far
  // (and keeps it), or nullopt on time-out or close.
  std::optional<std::string> ReadUntil(std::string_view needle,
                                       std::chrono::milliseconds limit = std::chrono::seconds(10));
  // Everything received so far, without waiting.
  const std::string& received() const { return received_; }
  void ClearReceived() { received_.clear(); }
  // Reads whatever arrives within limit.
  void Drain(std::chrono::milliseconds limit);
  // True when the peer closed the connection within limit.
  bool WaitClosed(std::chrono::milliseconds limit = std::chrono::seconds(10));
  void Close();
  int fd() const { return fd_; }

 private:
  bool ReadSome(std::chrono::milliseconds limit);
  int fd_ = -1;
  bool closed_ = false;
  std::string received_;
};

}  // namespace qx::testing
