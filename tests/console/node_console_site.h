// A real node and front-end with the sysop logged in on the web console, for tests that drive
// the node through the console's API and watch what the node then does.
#pragma once

#include <memory>
#include <string>
#include <string_view>

#include <gtest/gtest.h>

#include "core/file_util.h"
#include "core/time_text.h"
#include "tests/console/console_client.h"
#include "tests/testlib/node_sites.h"

namespace qx::testing {

class NodeConsoleTest : public NodeSiteTest {
 protected:
  // Starts the node and logs in with the password it printed at its first start.
  void StartNode(NodeSite& node) {
    node.Start();
    constexpr std::string_view kLine = "Console password: ";
    ASSERT_TRUE(node.WaitOutput(kLine)) << node.node().Output();
    const std::string out = node.node().Output();
    const size_t at = out.find(kLine) + kLine.size();
    console_ = std::make_unique<ConsoleClient>(node.console_port());
    login_ = console_->LogIn(out.substr(at, out.find('\n', at) - at));
    ASSERT_FALSE(login_.csrf.empty());
  }
  // path is below /api/ and may carry a query.
  nlohmann::json Get(const std::string& path, unsigned status = 200) {
    const ConsoleReply r = console_->Get("/api/" + path, &login_);
    EXPECT_EQ(r.result_int(), status) << path << ": " << r.body();
    return nlohmann::json::parse(r.body(), nullptr, false);
  }
  nlohmann::json Post(const std::string& path, const nlohmann::json& body, unsigned status = 200) {
    const ConsoleReply r = console_->Post("/api/" + path, body, &login_);
    EXPECT_EQ(r.result_int(), status) << path << ": " << r.body();
    return nlohmann::json::parse(r.body(), nullptr, false);
  }
  static std::string ErrorLog(NodeSite& node) {
    return ReadFileText(node.home() / "data/log" /
                        ("error-" + DateText(SystemClock().Now()) + ".log"))
        .value_or("");
  }
  // A scripted legacy peer that logs in as call (defined as a neighbour) and finishes the
  // link's start-up; nullptr after a failed assertion.
  static std::unique_ptr<LineClient> LinkLegacyPeer(NodeSite& node, std::string_view call) {
    auto peer = node.Connect();
    peer->SendLine(call);
    if (!peer->ReadUntil("PC18^")) {
      ADD_FAILURE() << "no PC18: " << peer->received();
      return nullptr;
    }
    peer->SendLine("PC19^1^" + std::string(call) + "^0^5455^H25^");
    peer->SendLine("PC20^");
    if (!peer->ReadUntil("PC22^\r\n") ||
        !node.WaitOutput("Node link up: " + std::string(call) + " (legacy)")) {
      ADD_FAILURE() << peer->received() << node.node().Output();
      return nullptr;
    }
    return peer;
  }

  std::unique_ptr<ConsoleClient> console_;
  ConsoleLogin login_;
};

}  // namespace qx::testing
