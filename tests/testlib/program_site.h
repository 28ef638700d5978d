// One node's installation for tests that run the real programs: a temporary program
// directory, free loopback ports for the front-end link, the users and the console, the two
// programs started from the build, and telnet-style users that log in through the front-end.
// Everything started is stopped when the site goes away.
#pragma once

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

#include "tests/testlib/test_util.h"

namespace qx::testing {

class ProgramSite {
 public:
  explicit ProgramSite(std::string call = "XX0QX-1")
      : call_(std::move(call)),
        link_port_(FreePort()),
        user_port_(FreePort()),
        console_port_(FreePort()) {}
  ~ProgramSite() { StopAll(); }
  ProgramSite(const ProgramSite&) = delete;
  ProgramSite& operator=(const ProgramSite&) = delete;

  // cluster.cfg with this site's call and ports, then the extra lines.
  void WriteConfig(std::string_view extra = "") {
    std::string cfg = "Cluster Call^" + call_ + "\r\nWinsock IP^127.0.0.1\r\n";
    cfg += "Winsock Port^" + std::to_string(link_port_) + "\r\n";
    cfg += "Winsock App Path^\r\n";
    cfg += "Frontend Ports^" + std::to_string(user_port_) + "\r\n";
    cfg += "Console Port^" + std::to_string(console_port_) + "\r\n";
    cfg += "Get WWV^False\r\n";  // a test never fetches from outside the machine
    cfg += "Country File URL^\r\nKnown Calls URL^\r\nUpdate URL^\r\n";
    // QX_TEST_FRONTEND_THREADS runs the whole suite with that many front-end I/O threads
    // (unset: one per core, as in service).
    if (const char* threads = std::getenv("QX_TEST_FRONTEND_THREADS")) {
      cfg += "Frontend Threads^" + std::string(threads) + "\r\n";
    }
    cfg += extra;
    WriteFile(home() / "cluster.cfg", cfg);
  }

  void StartFront() {
    front_ = std::make_unique<ChildProcess>(
        QX_FRONT_BIN, std::vector<std::string>{"--home", home().string()}, home(), "qxfront");
  }
  // Each start gets an output log of its own, so a test can read what this start printed.
  void StartNode() {
    node_ = std::make_unique<ChildProcess>(QX_CLUSTER_BIN,
                                           std::vector<std::string>{"--home", home().string()},
                                           home(), "qxcluster-" + std::to_string(++node_starts_));
  }
  // The node first: it must let go of its link before the front-end goes.
  void StopAll() {
    node_.reset();
    front_.reset();
  }

  // A telnet-style user connected to the front-end and past the banner.
  std::unique_ptr<LineClient> Connect() {
    auto c = std::make_unique<LineClient>();
    EXPECT_TRUE(c->Connect(user_port_));
    EXPECT_TRUE(c->ReadUntil("login: ", std::chrono::seconds(15))) << c->received();
    c->ClearReceived();
    return c;
  }
  // Logs a call in, answering the password question when a password is given and the name
  // question when it comes; returns the client at its first prompt.
  std::unique_ptr<LineClient> LogInAs(std::string_view call, std::string_view password,
                                      std::string_view name) {
    auto c = Connect();
    c->SendLine(call);
    if (!password.empty()) {
      EXPECT_TRUE(c->ReadUntil("password: ")) << c->received();
      c->SendLine(password);
    }
    const bool asked = WaitFor(
        [&] {
          c->Drain(std::chrono::milliseconds(20));
          return c->received().find("Please enter your name") != std::string::npos ||
                 c->received().find("QXC >") != std::string::npos;
        },
        std::chrono::seconds(10));
    EXPECT_TRUE(asked) << c->received();
    if (c->received().find("Please enter your name") != std::string::npos) {
      c->ClearReceived();
      c->SendLine(name);
      EXPECT_TRUE(c->ReadUntil("(Y or N) >")) << c->received();
      c->ClearReceived();
      c->SendLine("y");
    }
    EXPECT_TRUE(c->ReadUntil("QXC >", std::chrono::seconds(10))) << c->received();
    c->ClearReceived();
    return c;
  }

  const std::string& call() const { return call_; }
  const std::filesystem::path& home() const { return dir_.path(); }
  int user_port() const { return user_port_; }
  int console_port() const { return console_port_; }
  ChildProcess& node() { return *node_; }
  ChildProcess& front() { return *front_; }

 protected:
  std::string call_;
  TempDir dir_;
  int link_port_;
  int user_port_;
  int console_port_;
  int node_starts_ = 0;
  std::unique_ptr<ChildProcess> front_;
  std::unique_ptr<ChildProcess> node_;
};

// Types a command at a logged-in user's prompt and waits for the next prompt; returns the
// reply with that prompt and leaves nothing received behind.
inline std::string Command(LineClient& c, std::string_view line) {
  c.ClearReceived();
  c.SendLine(line);
  EXPECT_TRUE(c.ReadUntil("QXC >")) << line << ": " << c.received();
  std::string text = c.received();
  c.ClearReceived();
  return text;
}

}  // namespace qx::testing
