// Several real nodes on loopback, each with its own program directory, front-end and ports,
// and a plain TCP listener for scripted peers that a node calls.  Everything started is
// stopped when the objects go away.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include <gtest/gtest.h>

#include "core/file_util.h"
#include "tests/testlib/program_site.h"
#include "tests/testlib/test_util.h"

namespace qx::testing {

// The country file the nodes need: spots from spotters of no known country are refused.
inline constexpr const char* kSystemCountryFile = "/usr/share/hamradio-files/cty.dat";

class NodeSite : public ProgramSite {
 public:
  explicit NodeSite(std::string call) : ProgramSite(std::move(call)) {}

  // Configuration lines added to cluster.cfg.  A neighbour must prove who it is: by the
  // address it logs in from (loopback here) or, with addresses empty, by a password.
  void Define(std::string_view node_call, std::string_view type = "QXC",
              std::string_view addresses = "127.0.0.1") {
    extra_ += "Node Call & Node Type^" + std::string(node_call) + " " + std::string(type) + "\r\n";
    if (!addresses.empty()) extra_ += "Node Address^" + std::string(addresses) + "\r\n";
  }
  void Outgoing(std::string_view node_call, int port, bool active = true,
                std::string_view kind = "QXC") {
    extra_ += "Outgoing Cluster^" + std::string(node_call) + "\r\nRemoteNodeIs^" +
              std::string(kind) + "\r\nIP Address^127.0.0.1\r\nIP Port^" + std::to_string(port) +
              "\r\nCluster Active^" + (active ? "True" : "False") + "\r\n";
  }
  void Setting(std::string_view key, std::string_view value) {
    extra_ += std::string(key) + "^" + std::string(value) + "\r\n";
  }
  void Password(std::string_view call, std::string_view password, int level) {
    passwords_ +=
        std::string(call) + "^" + std::string(password) + "^" + std::to_string(level) + "\n";
  }

  void Write() {
    WriteConfig(extra_);
    std::filesystem::create_directories(home() / "data/files");
    std::error_code ec;
    std::filesystem::copy_file(kSystemCountryFile, home() / "data/files/cty_wt_mod.dat",
                               std::filesystem::copy_options::overwrite_existing, ec);
    if (!passwords_.empty()) WriteFile(home() / "data/files/passwords.dat", passwords_);
  }
  // Starts both programs and waits until the node has its link to the front-end (a
  // connection made before that is reported to the node as an existing stream, with no
  // log-in banner).
  void Start() {
    Write();
    StartFront();
    StartNode();
    EXPECT_TRUE(WaitOutput("Recovery complete")) << node_->Output();
  }

  // The node's console output (this start) holds needle at least count times.
  bool WaitOutput(std::string_view needle, int count = 1,
                  std::chrono::milliseconds limit = std::chrono::seconds(20)) {
    return WaitFor([&] { return Occurrences(node_->Output(), needle) >= size_t(count); }, limit);
  }

  std::unique_ptr<LineClient> LogIn(std::string_view call, std::string_view password = {}) {
    return LogInAs(call, password, "Ann");
  }

  static size_t Occurrences(std::string_view text, std::string_view what) {
    size_t n = 0;
    for (size_t p = text.find(what); p != std::string_view::npos; p = text.find(what, p + 1)) {
      ++n;
    }
    return n;
  }

 private:
  std::string extra_;
  std::string passwords_;
};

// Tests that run real nodes need the system's country file; without it they are skipped.
class NodeSiteTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!std::filesystem::exists(kSystemCountryFile)) GTEST_SKIP() << "no country file";
  }
};

// A scripted peer's end of a connection that a node opened to it.
class PeerListener {
 public:
  PeerListener() : port_(FreePort()), listen_fd_(ListenLoopback(port_)), bound_(listen_fd_ >= 0) {}
  ~PeerListener() {
    if (fd_ >= 0) ::close(fd_);
    if (listen_fd_ >= 0) ::close(listen_fd_);
  }
  int port() const { return port_; }
  bool bound() const { return bound_; }

  bool Accept(std::chrono::milliseconds limit = std::chrono::seconds(20)) {
    pollfd p{listen_fd_, POLLIN, 0};
    if (::poll(&p, 1, int(limit.count())) <= 0) return false;
    fd_ = ::accept(listen_fd_, nullptr, nullptr);
    return fd_ >= 0;
  }
  bool Send(std::string_view bytes) {
    while (!bytes.empty()) {
      const ssize_t n = ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
      if (n <= 0) return false;
      bytes.remove_prefix(size_t(n));
    }
    return true;
  }
  bool SendLine(std::string_view line) { return Send(std::string(line) + "\r\n"); }
  std::optional<std::string> ReadUntil(std::string_view needle,
                                       std::chrono::milliseconds limit = std::chrono::seconds(15)) {
    const auto end = std::chrono::steady_clock::now() + limit;
    while (received_.find(needle) == std::string::npos) {
      const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
          end - std::chrono::steady_clock::now());
      if (left.count() <= 0) return std::nullopt;
      pollfd p{fd_, POLLIN, 0};
      if (::poll(&p, 1, int(left.count())) <= 0) continue;
      char buf[4096];
      const ssize_t n = ::recv(fd_, buf, sizeof buf, 0);
      if (n <= 0) return std::nullopt;
      received_.append(buf, size_t(n));
    }
    return received_;
  }
  const std::string& received() const { return received_; }
  void ClearReceived() { received_.clear(); }
  // True when the node closed the connection within limit.
  bool WaitClosed(std::chrono::milliseconds limit = std::chrono::seconds(10)) {
    const auto end = std::chrono::steady_clock::now() + limit;
    while (std::chrono::steady_clock::now() < end) {
      pollfd p{fd_, POLLIN, 0};
      if (::poll(&p, 1, 100) <= 0) continue;
      char buf[4096];
      const ssize_t n = ::recv(fd_, buf, sizeof buf, 0);
      if (n <= 0) return true;
      received_.append(buf, size_t(n));
    }
    return false;
  }

 private:
  int port_;
  int listen_fd_ = -1;
  int fd_ = -1;
  bool bound_ = false;
  std::string received_;
};

// Helpers for linked nodes.

// Counts what a client has received after draining for a moment: a second copy of anything
// would have arrived by then.
inline size_t CountAfterDrain(LineClient& c, std::string_view what) {
  c.Drain(std::chrono::milliseconds(1500));
  return NodeSite::Occurrences(c.received(), what);
}

// Nodes tell each other of users on their own time: asks SHOW/USERS until the call is listed.
inline bool WaitUntilListed(LineClient& c, std::string_view call) {
  return WaitFor(
      [&] {
        c.ClearReceived();
        c.SendLine("SHOW/USERS");
        return c.ReadUntil("QXC >", std::chrono::seconds(3)) &&
               c.received().find(call) != std::string::npos;
      },
      std::chrono::seconds(15));
}

// SHOW/CONFIGURATION lists every one of calls (nodes and users); the reply, for messages.
inline std::string ConfigurationMissing(LineClient& c,
                                        std::initializer_list<std::string_view> calls) {
  c.Drain(
      std::chrono::milliseconds(300));  // the prompt of an earlier command may still be on its way
  c.ClearReceived();
  c.SendLine("SH/C");
  if (!c.ReadUntil(" users)", std::chrono::seconds(5)) ||
      !c.ReadUntil("QXC >", std::chrono::seconds(5))) {
    return "no list and prompt after SH/C: " + c.received();
  }
  for (std::string_view call : calls) {
    if (c.received().find(call) == std::string::npos) {
      return std::string(call) + " missing from:\n" + c.received();
    }
  }
  return {};
}

// The node's logs, for the failure messages.
inline std::string Logs(const NodeSite& s) {
  std::string all;
  for (const auto& f : std::filesystem::recursive_directory_iterator(s.home() / "data")) {
    const std::string name = f.path().string();
    if (f.is_regular_file() &&
        (name.find("/log/") != std::string::npos || name.find("/bad") != std::string::npos)) {
      all += name + ":\n" + ReadFile(f.path());
    }
  }
  return all;
}

}  // namespace qx::testing
