// The front-end as a running program: a fake node on the link port, plain TCP clients on the
// user ports, and a plain TCP listener for outgoing connections.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "core/link_secret.h"
#include "core/text_util.h"
#include "tests/frontend/fake_node.h"
#include "tests/testlib/test_util.h"

namespace qx {
namespace {

using namespace std::chrono_literals;
using testing::ChildProcess;
using testing::LineClient;
using testing::TempDir;

using fake_node::Field;
using fake_node::kEtx;
using fake_node::Message;
using fake_node::Records;
using fake_node::WaitRecord;

int LocalPort(const LineClient& c) {
  sockaddr_in addr{};
  socklen_t len = sizeof addr;
  ::getsockname(c.fd(), reinterpret_cast<sockaddr*>(&addr), &len);
  return ntohs(addr.sin_port);
}

// Every case runs with the connections on the link thread alone and spread over two threads.
class FrontendLinkTest : public ::testing::TestWithParam<int> {
 protected:
  // The secret is made before the front-end starts, which then reads the same file.
  FrontendLinkTest() : key_(LoadOrCreateLinkSecret(dir_.path()).key) {}

  void StartFront(std::vector<std::string> extra = {}, std::string_view extra_cfg = "") {
    // A port that was free when it was picked can be taken by a test running beside this one
    // before qxfront binds it; qxfront then says so and ends, and is started on new ports.
    for (int attempt = 0; attempt < 3; ++attempt) {
      link_port_ = testing::FreePort();
      user_port_ = testing::FreePort();
      user_port2_ = testing::FreePort();
      testing::WriteFile(dir_ / "cluster.cfg",
                         "Winsock IP^127.0.0.1\r\nWinsock Port^" + std::to_string(link_port_) +
                             "\r\nFrontend Ports^" + std::to_string(user_port_) + "," +
                             std::to_string(user_port2_) + "\r\nStation Text^GB7QX test\r\n" +
                             "Frontend Threads^" + std::to_string(GetParam()) + "\r\n" +
                             std::string(extra_cfg));
      std::vector<std::string> args{"--home", dir_.path().string()};
      args.insert(args.end(), extra.begin(), extra.end());
      front_ = std::make_unique<ChildProcess>(QX_FRONT_BIN, args, dir_.path(), "qxfront");
      const std::string listening = "Listening on port " + std::to_string(user_port2_) + " ";
      testing::WaitFor(
          [&] {
            return front_->Output().find(listening) != std::string::npos || !front_->Running();
          },
          15s);
      if (front_->Running()) return;
    }
  }

  // The node's side of the link-up on a connected socket: greeting, the challenge, our
  // proof.  Returns the front-end's "QRV" (empty when none came), whose proof is checked.
  std::string Prove(LineClient& node, std::string_view key) {
    EXPECT_TRUE(node.Send("QX Cluster"));
    const std::string challenge = WaitRecord(node, "AA39^");
    if (challenge.size() <= 5) return "";
    const std::string nonce = MakeLinkNonce();
    EXPECT_TRUE(node.Send(Message({"4", nonce, NodeLinkProof(key, challenge.substr(5), nonce)})));
    const std::string qrv = WaitRecord(node, "QRV ", 3s);
    if (!qrv.empty()) {
      EXPECT_EQ(Field(qrv, 2), FrontLinkProof(key, nonce, challenge.substr(5)));
    }
    return qrv;
  }

  // Connects a fake node and goes through the handshake and the stream report; returns the
  // report's "AA01" record.
  std::string ConnectNode(LineClient& node) {
    EXPECT_TRUE(node.Connect(link_port_));
    const std::string qrv = Prove(node, key_);
    EXPECT_TRUE(qrv.starts_with(std::string("QRV GB7QX test^") + QX_VERSION + "^")) << qrv;
    EXPECT_TRUE(node.Send("8270"));
    return WaitRecord(node, "AA01^");
  }

  std::string ErrorLog() const { return testing::ReadFile(dir_ / "qxfront.err"); }
  // The log line may follow the close it reports by a moment.
  bool ErrorLogHas(std::string_view text) const {
    return testing::WaitFor([&] { return ErrorLog().find(text) != std::string::npos; }, 5s);
  }

  // Connects a client and returns the node's "AA03" record for it.
  std::string ConnectClient(LineClient& node, LineClient& client, int port) {
    EXPECT_TRUE(client.Connect(port));
    const std::string peer = "127.0.0.1:" + std::to_string(LocalPort(client));
    const auto end = std::chrono::steady_clock::now() + 10s;
    while (std::chrono::steady_clock::now() < end) {
      for (const auto& r : Records(node.received())) {
        if (r.starts_with("AA03^") && Field(r, 3) == peer) return r;
      }
      node.Drain(20ms);
    }
    ADD_FAILURE() << "no AA03 for " << peer;
    return "";
  }

  TempDir dir_;
  std::string key_;
  int link_port_ = 0;
  int user_port_ = 0;
  int user_port2_ = 0;
  std::unique_ptr<ChildProcess> front_;
};

TEST_P(FrontendLinkTest, UserPortsTakeIpv6AndIpv4Alike) {
  if (!testing::HasIpv6Loopback()) GTEST_SKIP() << "no IPv6 loopback on this machine";
  StartFront();
  LineClient node, v4, v6;
  EXPECT_EQ(ConnectNode(node), "AA01^0^");
  // IPv4 still arrives as a plain IPv4 address, not as a mapped IPv6 one.
  EXPECT_EQ(Field(ConnectClient(node, v4, user_port_), 2), "1");
  ASSERT_TRUE(v6.ConnectIpv6(user_port_));
  sockaddr_in6 local{};
  socklen_t len = sizeof local;
  ::getsockname(v6.fd(), reinterpret_cast<sockaddr*>(&local), &len);
  const std::string peer = "[::1]:" + std::to_string(ntohs(local.sin6_port));
  const std::string a03 = WaitRecord(node, "AA03^Connect Request^2^");
  EXPECT_EQ(Field(a03, 3), peer);
  EXPECT_EQ(Field(a03, 6), "0");
  ASSERT_TRUE(v6.Send("hello\r\n"));
  EXPECT_FALSE(WaitRecord(node, "AA00^2^hello").empty());
}

TEST_P(FrontendLinkTest, VersionAndHelpPrintAndExit) {
  ChildProcess version(QX_FRONT_BIN, {"--version"}, dir_.path(), "version");
  ASSERT_TRUE(testing::WaitFor([&] { return !version.Running(); }));
  EXPECT_EQ(version.Output(), std::string("qxfront ") + QX_VERSION + "\n");
  ChildProcess help(QX_FRONT_BIN, {"--help"}, dir_.path(), "help");
  ASSERT_TRUE(testing::WaitFor([&] { return !help.Running(); }));
  EXPECT_NE(help.Output().find("--home DIR"), std::string::npos);
}

TEST_P(FrontendLinkTest, ClientsAndNodeExchangeText) {
  StartFront();
  LineClient node, alice, bob;
  EXPECT_EQ(ConnectNode(node), "AA01^0^");

  const std::string a03 = ConnectClient(node, alice, user_port_);
  EXPECT_EQ(Field(a03, 2), "1");
  EXPECT_EQ(Field(a03, 5), "in");
  EXPECT_EQ(Field(a03, 6), "0");
  const std::string b03 = ConnectClient(node, bob, user_port2_);
  EXPECT_EQ(Field(b03, 2), "2");
  EXPECT_EQ(Field(b03, 6), "1");
  const std::string alice_tag = Field(a03, 4);
  const std::string bob_tag = Field(b03, 4);
  EXPECT_NE(alice_tag, bob_tag);

  // Client lines reach the node with their line ends; carets pass untouched.
  ASSERT_TRUE(alice.Send("dx 14025 DL1ABC cq^test\r\n"));
  EXPECT_EQ(WaitRecord(node, "AA00^1^"), "AA00^1^dx 14025 DL1ABC cq^test\r\n");

  // Telnet negotiation is refused and never reaches the node.
  node.ClearReceived();
  ASSERT_TRUE(alice.Send("\xff\xfd\x01sh/dx\r\n"));
  EXPECT_EQ(WaitRecord(node, "AA00^1^"), "AA00^1^sh/dx\r\n");
  ASSERT_TRUE(alice.ReadUntil("\xff\xfc\x01"));

  // A prompt without a line end gets through after a quiet spell, and only after it: bytes
  // arriving within the spell join the same piece.
  ASSERT_TRUE(bob.Send("log"));
  std::this_thread::sleep_for(120ms);
  ASSERT_TRUE(bob.Send("in"));
  std::this_thread::sleep_for(120ms);
  ASSERT_TRUE(bob.Send(": "));
  EXPECT_EQ(WaitRecord(node, "AA00^2^"), "AA00^2^login: ");

  // Node text reaches the right client; a stale tag is dropped, tag 0 matches any.
  ASSERT_TRUE(node.Send(Message({"0", "1", "stale\r\n", bob_tag})));
  ASSERT_TRUE(node.Send(Message({"0", "1", "Hello Alice\r\n", alice_tag})));
  ASSERT_TRUE(node.Send("junk\x04" + Message({"0", "x", "bad\r\n", "1"}) +
                        Message({"0", "2", "Hello Bob\r\n", "0"})));
  ASSERT_TRUE(alice.ReadUntil("Hello Alice\r\n"));
  ASSERT_TRUE(bob.ReadUntil("Hello Bob\r\n"));
  EXPECT_EQ(alice.received().find("stale"), std::string::npos);
}

// Node text for many connections, interleaved in bursts, reaches each one whole and in
// order whichever thread owns it; input and closes come back for every stream.
TEST_P(FrontendLinkTest, InterleavedTextKeepsItsOrderOnEveryConnection) {
  StartFront();
  LineClient node;
  ConnectNode(node);
  constexpr int kClients = 6;
  constexpr int kLines = 300;
  std::vector<std::unique_ptr<LineClient>> clients;
  std::vector<std::string> tags;
  for (int i = 0; i < kClients; ++i) {
    clients.push_back(std::make_unique<LineClient>());
    tags.push_back(Field(ConnectClient(node, *clients.back(), user_port_), 4));
  }
  std::string burst;
  for (int n = 0; n < kLines; ++n) {
    for (int i = 0; i < kClients; ++i) {
      burst += Message({"0", std::to_string(i + 1), "line " + std::to_string(n) + "\r\n", tags[i]});
    }
  }
  ASSERT_TRUE(node.Send(burst));
  std::string expected;
  for (int n = 0; n < kLines; ++n) expected += "line " + std::to_string(n) + "\r\n";
  for (auto& c : clients) {
    ASSERT_TRUE(c->ReadUntil("line " + std::to_string(kLines - 1) + "\r\n"));
    EXPECT_EQ(c->received(), expected);
  }
  node.ClearReceived();
  for (int i = 0; i < kClients; ++i) ASSERT_TRUE(clients[i]->SendLine("hi " + std::to_string(i)));
  for (int i = 0; i < kClients; ++i) {
    const std::string s = std::to_string(i + 1);
    EXPECT_EQ(WaitRecord(node, "AA00^" + s + "^"),
              "AA00^" + s + "^hi " + std::to_string(i) + "\r\n");
  }
  for (auto& c : clients) c->Close();
  for (int i = 0; i < kClients; ++i) {
    const std::string s = std::to_string(i + 1);
    EXPECT_EQ(WaitRecord(node, "AA17^" + tags[i] + "^"),
              "AA17^" + tags[i] + "^" + s + "^closed by peer");
  }
  EXPECT_NE(testing::ReadFile(dir_ / "qxfront.out")
                .find("spread over " + std::to_string(GetParam()) + " I/O thread"),
            std::string::npos);
}

// One text for many connections ("7"), interleaved with text for single ones: each connection
// gets its lines once and in the order the node sent them, whichever thread owns it, and an
// entry whose tag is stale is dropped.
TEST_P(FrontendLinkTest, OneTextForManyConnectionsKeepsEachConnectionsOrder) {
  StartFront({"--counters-every-ms", "100"});
  LineClient node;
  EXPECT_TRUE(node.Connect(link_port_));
  ASSERT_FALSE(Prove(node, key_).empty());
  EXPECT_EQ(WaitRecord(node, "AA40^"), "AA40^fanout");  // offered right after QRV
  ASSERT_TRUE(node.Send("8270"));
  ASSERT_FALSE(WaitRecord(node, "AA01^").empty());
  constexpr int kClients = 5;
  constexpr int kSpots = 200;
  std::vector<std::unique_ptr<LineClient>> clients;
  std::vector<std::string> tags;
  for (int i = 0; i < kClients; ++i) {
    clients.push_back(std::make_unique<LineClient>());
    tags.push_back(Field(ConnectClient(node, *clients.back(), user_port_), 4));
  }
  std::string burst;
  std::vector<std::string> expected(kClients);
  for (int n = 0; n < kSpots; ++n) {
    // Stream 1 with stream 2's tag is a stale entry: nothing for either.
    std::string list = "1:" + tags[1];
    for (int i = 0; i < kClients; ++i) list += "," + std::to_string(i + 1) + ":" + tags[i];
    const std::string spot = "DX de " + std::to_string(n) + "\x03" + "\r\n";
    burst += Message({"7", list, spot});
    const int one = n % kClients;
    burst +=
        Message({"0", std::to_string(one + 1), "reply " + std::to_string(n) + "\r\n", tags[one]});
    for (int i = 0; i < kClients; ++i) {
      expected[i] += spot;
      if (i == one) expected[i] += "reply " + std::to_string(n) + "\r\n";
    }
  }
  ASSERT_TRUE(node.Send(burst));
  for (int i = 0; i < kClients; ++i) {
    ASSERT_TRUE(clients[i]->ReadUntil(expected[i].substr(expected[i].size() - 20)));
    EXPECT_EQ(clients[i]->received(), expected[i]);
  }
  const std::string lines = "fanout_lines_total=" + std::to_string(kSpots * kClients);
  const std::string messages = "fanout_messages_total=" + std::to_string(kSpots);
  EXPECT_TRUE(testing::WaitFor(
      [&] {
        node.Drain(20ms);
        for (const auto& r : Records(node.received())) {
          if (r.starts_with("AA20^") && r.find(lines) != std::string::npos &&
              r.find(messages) != std::string::npos) {
            return true;
          }
        }
        return false;
      },
      10s));
}

TEST_P(FrontendLinkTest, ClosesAreReportedAndStreamNumbersReused) {
  StartFront();
  LineClient node;
  ConnectNode(node);
  auto first = std::make_unique<LineClient>();
  LineClient second, third;
  const std::string r1 = ConnectClient(node, *first, user_port_);
  const std::string r2 = ConnectClient(node, second, user_port_);
  ASSERT_EQ(Field(r2, 2), "2");

  first->Close();
  EXPECT_EQ(WaitRecord(node, "AA17^"), "AA17^" + Field(r1, 4) + "^1^closed by peer");

  node.ClearReceived();
  const std::string r3 = ConnectClient(node, third, user_port_);
  EXPECT_EQ(Field(r3, 2), "1");
  EXPECT_NE(Field(r3, 4), Field(r1, 4));  // tags are never reused

  // The node's close request: queued text first, then the close.
  node.ClearReceived();
  ASSERT_TRUE(node.Send(Message({"0", "2", "73 de GB7QX\r\n", Field(r2, 4)}) +
                        Message({"1", "2", "Disconnect", Field(r2, 4)})));
  ASSERT_TRUE(second.ReadUntil("73 de GB7QX\r\n"));
  EXPECT_TRUE(second.WaitClosed());
  EXPECT_EQ(WaitRecord(node, "AA17^"), "AA17^" + Field(r2, 4) + "^2^disconnected by the node");
}

TEST_P(FrontendLinkTest, NodeRestartKeepsConnectionsAndHeldInput) {
  StartFront();
  auto node = std::make_unique<LineClient>();
  ConnectNode(*node);
  LineClient client;
  const std::string r = ConnectClient(*node, client, user_port_);
  const std::string tag = Field(r, 4);
  ASSERT_TRUE(node->Send(Message({"3", "1", "G4ABC", "5", tag})));
  // Attributes are kept cleaned: no carets, no control characters.
  ASSERT_TRUE(node->Send(Message({"5", "1", "priv^=9\r\n", tag})));
  ASSERT_TRUE(node->Send(Message({"0", "1", "G4ABC de GB7QX >\r\n", tag})));
  ASSERT_TRUE(client.ReadUntil("GB7QX >"));

  // A stopping node hands over: what is typed after the front-end's answer is held, while
  // the node's last answers still reach the connection.
  ASSERT_TRUE(node->Send(Message({"6", "stopping"})));
  ASSERT_EQ(WaitRecord(*node, "AA21"), "AA21");
  ASSERT_TRUE(client.Send("sh/dx\r\n"));
  ASSERT_TRUE(node->Send(Message({"0", "1", "last answer\r\n", tag})));
  ASSERT_TRUE(client.ReadUntil("last answer\r\n"));
  node->Drain(300ms);
  EXPECT_EQ(node->received().find("sh/dx"), std::string::npos);
  node->Close();

  // Typed while no node is there: held, not lost.
  std::this_thread::sleep_for(100ms);
  ASSERT_TRUE(client.Send("sh/us\r\n"));
  std::this_thread::sleep_for(300ms);

  LineClient node2;
  EXPECT_EQ(ConnectNode(node2), "AA01^1^1");
  EXPECT_EQ(
      WaitRecord(node2, "AA38^"),
      "AA38^" + tag + "^1^127.0.0.1:" + std::to_string(LocalPort(client)) + "^0^G4ABC^5^in^priv=9");
  EXPECT_EQ(WaitRecord(node2, "AA00^"), "AA00^1^sh/dx\r\nsh/us\r\n");
  // The order is fixed: challenge, announcement, what the front-end understands, list,
  // reports, then held input.
  const auto records = Records(node2.received());
  ASSERT_GE(records.size(), 6u);
  EXPECT_EQ(records[2], "AA40^fanout");
  EXPECT_TRUE(records[3].starts_with("AA01^"));
  EXPECT_TRUE(records[4].starts_with("AA38^"));

  ASSERT_TRUE(node2.Send(Message({"0", "1", "still here\r\n", tag})));
  ASSERT_TRUE(client.ReadUntil("still here\r\n"));
}

TEST_P(FrontendLinkTest, InputHeldWithoutANodeIsBounded) {
  StartFront();
  LineClient client;
  ASSERT_TRUE(client.Connect(user_port_));
  std::string typed;
  for (int i = 0; i < 2000; ++i)
    typed += "line " + std::to_string(i) + " " + std::string(40, 'x') + "\r\n";
  ASSERT_TRUE(client.Send(typed));
  std::this_thread::sleep_for(500ms);

  LineClient node;
  EXPECT_EQ(ConnectNode(node), "AA01^1^1");
  const std::string data = WaitRecord(node, "AA00^1^");
  ASSERT_FALSE(data.empty());
  const std::string held = data.substr(7);
  EXPECT_LE(held.size(), 64u * 1024);
  EXPECT_GT(held.size(), 60u * 1024);
  EXPECT_TRUE(held.starts_with("line "));  // the oldest were dropped as whole lines
  EXPECT_TRUE(held.ends_with("line 1999 " + std::string(40, 'x') + "\r\n"));
}

TEST_P(FrontendLinkTest, OnlyANodeThatProvesItselfReplacesTheLink) {
  StartFront();
  LineClient node1, client;
  ConnectNode(node1);
  const std::string tag = Field(ConnectClient(node1, client, user_port_), 4);

  // Strangers: a wrong secret, the old handshake without a proof, garbage, and one that
  // says nothing.  Each is closed; the live link keeps relaying all the while.
  LineClient wrong, old, garbage, silent;
  ASSERT_TRUE(silent.Connect(link_port_));
  ASSERT_TRUE(wrong.Connect(link_port_));
  EXPECT_TRUE(Prove(wrong, std::string(32, 'k')).empty());
  EXPECT_TRUE(wrong.WaitClosed());
  ASSERT_TRUE(old.Connect(link_port_));
  ASSERT_TRUE(old.Send("QX Cluster8270"));
  EXPECT_TRUE(old.WaitClosed());
  EXPECT_EQ(Records(old.received()).size(), 1u);  // the challenge, nothing about streams
  ASSERT_TRUE(garbage.Connect(link_port_));
  ASSERT_TRUE(garbage.Send("GET / HTTP/1.0\r\n\r\n\x04"));
  EXPECT_TRUE(garbage.WaitClosed());
  ASSERT_TRUE(client.Send("still me\r\n"));
  EXPECT_EQ(WaitRecord(node1, "AA00^1^"), "AA00^1^still me\r\n");
  ASSERT_TRUE(node1.Send(Message({"0", "1", "still you\r\n", tag})));
  ASSERT_TRUE(client.ReadUntil("still you\r\n"));
  EXPECT_TRUE(silent.WaitClosed(8s));
  EXPECT_TRUE(silent.received().empty());
  EXPECT_TRUE(ErrorLogHas(": wrong proof (1 so far)"));
  EXPECT_TRUE(ErrorLogHas(": unexpected message before proving itself (2 so far)"));
  EXPECT_TRUE(ErrorLogHas(": unreadable message before proving itself"));
  EXPECT_TRUE(ErrorLogHas(": no proof in time (4 so far)")) << ErrorLog();

  // The node restarts and its old link is left half-open: the proven newcomer replaces it.
  LineClient node2;
  EXPECT_EQ(ConnectNode(node2), "AA01^1^1");
  EXPECT_TRUE(node1.WaitClosed());
  EXPECT_NE(testing::ReadFile(dir_ / "qxfront.out").find("replaced by a new node link from"),
            std::string::npos);
}

TEST_P(FrontendLinkTest, CandidatesAreBoundedAndAFrontEndWithoutASecretRefusesAll) {
  StartFront();
  std::vector<std::unique_ptr<LineClient>> waiting;
  for (int i = 0; i < 8; ++i) {
    waiting.push_back(std::make_unique<LineClient>());
    ASSERT_TRUE(waiting.back()->Connect(link_port_));
  }
  LineClient ninth;
  ASSERT_TRUE(ninth.Connect(link_port_));
  EXPECT_TRUE(ninth.WaitClosed(2s));
  EXPECT_TRUE(ErrorLogHas("too many connections waiting to prove themselves"));
  // A place comes free when one of them goes.
  waiting.front()->Close();
  ASSERT_TRUE(ErrorLogHas("closed before proving itself"));
  LineClient node;
  EXPECT_EQ(ConnectNode(node), "AA01^0^");
  front_.reset();

  // A link.key that is not a key: the front-end serves users but refuses every node.
  testing::WriteFile(dir_ / "link.key", "not a key\n");
  StartFront();
  LineClient client, node2;
  ASSERT_TRUE(client.Connect(user_port_));
  ASSERT_TRUE(node2.Connect(link_port_));
  EXPECT_TRUE(node2.WaitClosed());
  EXPECT_TRUE(ErrorLogHas("does not hold a key of 64 hex digits"));
  EXPECT_TRUE(ErrorLogHas("this front-end has no usable link secret"));
}

TEST_P(FrontendLinkTest, SlowReadersAreToldOfDropsAndOnlyStalledOnesClosed) {
  StartFront({"--output-limit", "65536", "--stall-timeout-ms", "1000"});
  LineClient node, slow, stalled, fast;
  ConnectNode(node);
  const std::string slow_tag = Field(ConnectClient(node, slow, user_port_), 4);
  const std::string stalled_tag = Field(ConnectClient(node, stalled, user_port_), 4);
  const int small = 4096;  // keeps loopback's large buffers from hiding the stall for long
  ::setsockopt(stalled.fd(), SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
  const std::string fast_tag = Field(ConnectClient(node, fast, user_port_), 4);

  // Numbered lines, far more than the socket buffers and the bound together hold.
  const int kLines = 2000;
  const auto numbered = [](int i) {
    return "spot " + std::to_string(10000 + i) + " " + std::string(4000, 's') + "\r\n";
  };
  std::string burst;
  int sent_fast = 0;
  for (int i = 0; i < kLines; ++i) {
    burst += Message({"0", "1", numbered(i), slow_tag});
    burst += Message({"0", "2", numbered(i), stalled_tag});
    if (i % 2 == 0) {
      burst += Message({"0", "3", "line " + std::to_string(sent_fast++) + "\r\n", fast_tag});
    }
  }
  ASSERT_TRUE(node.Send(burst));
  ASSERT_TRUE(fast.ReadUntil("line " + std::to_string(sent_fast - 1) + "\r\n"));
  EXPECT_EQ(Split(fast.received(), '\n').size(), static_cast<size_t>(sent_fast) + 1);

  // The slow reader reads at last: whole lines in order up to the notice, nothing lost before
  // it, then the count of what was dropped, then output as usual.
  const std::string dropped_text = " lines were dropped because your connection could not keep up.";
  ASSERT_TRUE(slow.ReadUntil(dropped_text, 20s));
  ASSERT_TRUE(node.Send(Message({"0", "1", "after\r\n", slow_tag})));
  ASSERT_TRUE(slow.ReadUntil("after\r\n"));
  // Between the socket's gulps the reader may catch up and fall behind again: each episode is
  // the notice, then the count of exactly the lines missing there.
  const std::vector<std::string_view> lines = Split(slow.received(), '\n');
  int next = 0;
  int episodes = 0;
  size_t k = 0;
  while (k + 1 < lines.size() && next < kLines) {
    const std::string expected = numbered(next);
    if (lines[k] == std::string_view(expected).substr(0, expected.size() - 1)) {
      ++next;
      ++k;
      continue;
    }
    ASSERT_EQ(lines[k], "*** Spots are being dropped: your connection cannot keep up with them.\r")
        << "after line " << next;
    const std::string_view count = lines[k + 1];
    ASSERT_TRUE(count.starts_with("*** ") && count.ends_with(dropped_text + "\r")) << count;
    next += std::atoi(std::string(count.substr(4)).c_str());
    ++episodes;
    k += 2;
  }
  EXPECT_EQ(next, kLines);
  EXPECT_GE(episodes, 1);
  ASSERT_EQ(lines.size(), k + 2);
  EXPECT_EQ(lines[k], "after\r");

  // The one that reads nothing at all is closed once the socket buffers are full and the stall
  // time is over; output keeps coming meanwhile.
  std::string more;
  for (int i = 0; i < 20; ++i) more += Message({"0", "2", numbered(i), stalled_tag});
  const auto end = std::chrono::steady_clock::now() + 30s;
  while (WaitRecord(node, "AA17^", 20ms).empty() && std::chrono::steady_clock::now() < end) {
    ASSERT_TRUE(node.Send(more));
  }
  EXPECT_EQ(WaitRecord(node, "AA17^"), "AA17^" + stalled_tag + "^2^output overflow");
  EXPECT_TRUE(WaitRecord(node, "AA17^" + slow_tag, 100ms).empty());
}

TEST_P(FrontendLinkTest, ConnectionsPastALimitAreToldWhyAndNeverReachTheNode) {
  StartFront({"--counters-every-ms", "100"},
             "Max Connections Per Address^2\r\nMax Connects Per Minute^0\r\n");
  LineClient node, a, b, c, d;
  ConnectNode(node);
  ConnectClient(node, a, user_port_);
  const std::string b03 = ConnectClient(node, b, user_port2_);
  ASSERT_TRUE(c.Connect(user_port_));
  EXPECT_TRUE(c.ReadUntil("Too many connections from your address (2); try again later.\r\n"));
  EXPECT_TRUE(c.WaitClosed());
  // Room again once one goes.
  b.Close();
  EXPECT_EQ(WaitRecord(node, "AA17^"), "AA17^" + Field(b03, 4) + "^2^closed by peer");
  ConnectClient(node, d, user_port_);
  std::this_thread::sleep_for(250ms);
  node.Drain(50ms);
  int connects = 0;
  std::string counters;
  for (const auto& r : Records(node.received())) {
    if (r.starts_with("AA03^")) ++connects;
    if (r.starts_with("AA20^")) counters = r;
  }
  EXPECT_EQ(connects, 3);
  // The counters reach the node.
  EXPECT_NE(counters.find("^refused_per_address_total=1^"), std::string::npos) << counters;
  EXPECT_NE(counters.find("^open_connections=2^"), std::string::npos) << counters;
  EXPECT_NE(counters.find("^connections_accepted_total=3^"), std::string::npos) << counters;

  // The total limit, and the rate limit for the rest of its window.
  front_.reset();
  StartFront({"--connect-window-ms", "600"}, "Max Connections^1\r\nMax Connects Per Minute^3\r\n");
  LineClient node2, e, f, g, h, i;
  ConnectNode(node2);
  ConnectClient(node2, e, user_port_);
  ASSERT_TRUE(f.Connect(user_port_));
  EXPECT_TRUE(f.ReadUntil("Sorry, this node has as many connections as it takes (1)"));
  ASSERT_TRUE(g.Connect(user_port_));
  EXPECT_TRUE(g.ReadUntil("Sorry, this node has as many connections as it takes (1)"));
  e.Close();
  ASSERT_TRUE(h.Connect(user_port_));  // the fourth within the window
  EXPECT_TRUE(h.ReadUntil("Too many new connections from your address (more than 3 in 600 ms)"));
  EXPECT_TRUE(h.WaitClosed());
  std::this_thread::sleep_for(700ms);  // a new window
  ConnectClient(node2, i, user_port_);
}

TEST_P(FrontendLinkTest, ConnectionsTheNodeNeverNamesAreTimedOut) {
  StartFront({"--login-timeout-ms", "600"});
  // Held while no node runs: the time does not count then.
  LineClient early;
  ASSERT_TRUE(early.Connect(user_port_));
  std::this_thread::sleep_for(900ms);
  LineClient node, named, silent;
  EXPECT_EQ(ConnectNode(node), "AA01^1^1");
  const std::string early_tag = Field(WaitRecord(node, "AA38^"), 1);
  const std::string named_tag = Field(ConnectClient(node, named, user_port_), 4);
  const std::string silent_tag = Field(ConnectClient(node, silent, user_port_), 4);
  // An identity without a call does not count as a log-in.
  ASSERT_TRUE(node.Send(Message({"3", "2", "G4ABC", "1", named_tag}) +
                        Message({"3", "3", "", "0", silent_tag})));
  std::this_thread::sleep_for(200ms);
  early.Drain(10ms);
  EXPECT_EQ(early.received(), "");

  EXPECT_TRUE(silent.ReadUntil("No log-in within 600 ms; disconnecting.\r\n"));
  EXPECT_TRUE(silent.WaitClosed());
  EXPECT_TRUE(early.WaitClosed());
  silent.Close();  // as a client does when its peer closes; else the front-end lingers a while
  early.Close();
  EXPECT_NE(WaitRecord(node, "AA17^" + early_tag), "");
  EXPECT_EQ(WaitRecord(node, "AA17^" + silent_tag), "AA17^" + silent_tag + "^3^log-in timed out");
  named.Drain(300ms);
  EXPECT_EQ(named.received(), "");
  EXPECT_TRUE(WaitRecord(node, "AA17^" + named_tag, 10ms).empty());
}

// A listener standing in for a remote node.
class RemoteNode {
 public:
  RemoteNode() {
    fd_ = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ::bind(fd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
    ::listen(fd_, 4);
    socklen_t len = sizeof addr;
    ::getsockname(fd_, reinterpret_cast<sockaddr*>(&addr), &len);
    port_ = ntohs(addr.sin_port);
  }
  ~RemoteNode() {
    if (conn_ >= 0) ::close(conn_);
    ::close(fd_);
  }
  int port() const { return port_; }
  bool Accept() {
    pollfd p{fd_, POLLIN, 0};
    if (::poll(&p, 1, 10000) != 1) return false;
    conn_ = ::accept(fd_, nullptr, nullptr);
    return conn_ >= 0;
  }
  void Send(std::string_view text) { ::send(conn_, text.data(), text.size(), MSG_NOSIGNAL); }
  std::string ReadUntil(std::string_view needle) {
    std::string got;
    char buf[4096];
    while (got.find(needle) == std::string::npos) {
      pollfd p{conn_, POLLIN, 0};
      if (::poll(&p, 1, 10000) != 1) break;
      const ssize_t n = ::recv(conn_, buf, sizeof buf, 0);
      if (n <= 0) break;
      got.append(buf, size_t(n));
    }
    return got;
  }

 private:
  int fd_ = -1;
  int conn_ = -1;
  int port_ = 0;
};

TEST_P(FrontendLinkTest, OutgoingConnectionsAreOpenedOnRequest) {
  StartFront();
  LineClient node;
  ConnectNode(node);
  RemoteNode remote;
  ASSERT_TRUE(node.Send(Message({"2", "127.0.0.1", std::to_string(remote.port()), "GB7XX"})));
  ASSERT_TRUE(remote.Accept());
  const std::string r = WaitRecord(node, "AA03^");
  EXPECT_EQ(Field(r, 1), "Connect Request");
  EXPECT_EQ(Field(r, 2), "1");
  EXPECT_EQ(Field(r, 3), "127.0.0.1:" + std::to_string(remote.port()));
  EXPECT_EQ(Field(r, 5), "out:GB7XX");
  EXPECT_EQ(Field(r, 6), "9");

  remote.Send("login: ");
  EXPECT_EQ(WaitRecord(node, "AA00^1^"), "AA00^1^login: ");
  ASSERT_TRUE(node.Send(Message({"0", "1", "GB7QX\r\n", Field(r, 4)})));
  EXPECT_NE(remote.ReadUntil("GB7QX\r\n").find("GB7QX\r\n"), std::string::npos);

  // A name is looked up; a port where nobody listens is reported as a failure.
  RemoteNode named;
  ASSERT_TRUE(node.Send(Message({"2", "localhost", std::to_string(named.port()), "GB7YY"})));
  ASSERT_TRUE(named.Accept());
  EXPECT_NE(WaitRecord(node, "AA03^Connect Request^2^").find("^out:GB7YY^9"), std::string::npos);
  const int dead_port = testing::FreePort();
  ASSERT_TRUE(node.Send(Message({"2", "127.0.0.1", std::to_string(dead_port), "GB7ZZ"})));
  EXPECT_EQ(WaitRecord(node, "AA19^"), "AA19^GB7ZZ^Connection refused");

  // A signal ends the front-end cleanly, connections and all.
  EXPECT_EQ(front_->Stop(), 0);
}

INSTANTIATE_TEST_SUITE_P(Threads, FrontendLinkTest, ::testing::Values(1, 2),
                         [](const ::testing::TestParamInfo<int>& info) {
                           return std::to_string(info.param) + "Thread" +
                                  (info.param == 1 ? "" : "s");
                         });

}  // namespace
}  // namespace qx
