// Starts the real programs in a temporary program directory on free loopback ports, and
// always stops what it started.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "tests/testlib/test_util.h"

namespace qx::testing {

class SystemFixture : public ::testing::Test {
 protected:
  SystemFixture() : link_port_(FreePort()), user_port_(FreePort()), console_port_(FreePort()) {}
  ~SystemFixture() override {
    node_.reset();
    front_.reset();
  }

  // cluster.cfg with this test's ports; the test starts the front-end itself.
  void WriteConfig(std::string_view extra = "") {
    std::string cfg = "Cluster Call^XX0QX-1\r\nWinsock IP^127.0.0.1\r\n";
    cfg += "Winsock Port^" + std::to_string(link_port_) + "\r\n";
    cfg += "Winsock App Path^\r\n";
    cfg += "Frontend Ports^" + std::to_string(user_port_) + "\r\n";
    cfg += "Console Port^" + std::to_string(console_port_) + "\r\n";
    cfg += extra;
    WriteFile(home() / "cluster.cfg", cfg);
  }
  // A small country file, so that spotters with these prefixes have a country.
  void WriteCountryFile() {
    WriteFile(home() / "data/files/cty_wt_mod.dat",
              "United States:            05:  08:  NA:   37.53:    91.67:     5.0:  K:\r\n"
              "    AA,AB,AC,AD,AE,AF,AG,AI,AJ,AK,K,N,W;\r\n"
              "Fed. Rep. of Germany:     14:  28:  EU:   51.00:   -10.00:    -1.0:  DL:\r\n"
              "    DA,DB,DC,DD,DE,DF,DG,DH,DI,DJ,DK,DL,DM,DN,DO,DP,DQ,DR;\r\n");
  }
  void StartFront() {
    front_ = std::make_unique<ChildProcess>(
        QX_FRONT_BIN, std::vector<std::string>{"--home", home().string()}, home(), "qxfront");
  }
  void StartNode() {
    node_ = std::make_unique<ChildProcess>(QX_CLUSTER_BIN,
                                           std::vector<std::string>{"--home", home().string()},
                                           home(), "qxcluster-" + std::to_string(++node_starts_));
  }
  void StartAll(std::string_view extra_config = "") {
    WriteConfig(extra_config);
    WriteCountryFile();
    StartFront();
    StartNode();
  }

  // A telnet-style user connected to the front-end and past the banner.
  std::unique_ptr<LineClient> Connect() {
    auto c = std::make_unique<LineClient>();
    EXPECT_TRUE(c->Connect(user_port_));
    EXPECT_TRUE(c->ReadUntil("login: ", std::chrono::seconds(15))) << c->received();
    c->ClearReceived();
    return c;
  }
  // Logs a call in through the name question; returns the client at its first prompt.
  std::unique_ptr<LineClient> LogIn(std::string_view call, std::string_view name = "Ann") {
    auto c = Connect();
    c->SendLine(call);
    const bool asked = WaitFor([&] {
      c->Drain(std::chrono::milliseconds(20));
      return c->received().find("Please enter your name") != std::string::npos ||
             c->received().find("QXC >") != std::string::npos;
    });
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
  std::string ErrorLogText() const {
    std::string all;
    std::error_code ec;
    for (const auto& f : std::filesystem::directory_iterator(home() / "data/log", ec)) {
      if (f.path().filename().string().starts_with("error-")) all += ReadFile(f.path());
    }
    return all;
  }

  const std::filesystem::path& home() const { return tmp_.path(); }

  TempDir tmp_;
  int link_port_;
  int user_port_;
  int console_port_;
  int node_starts_ = 0;
  std::unique_ptr<ChildProcess> front_;
  std::unique_ptr<ChildProcess> node_;
};

}  // namespace qx::testing
