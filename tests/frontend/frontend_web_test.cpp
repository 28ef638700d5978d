// The front-end's listener for programs as a running program: a fake node on the link port
// and raw TCP clients that speak WebSocket and HTTP by hand, so every byte on the wire is
// checked.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "core/link_secret.h"
#include "core/text_util.h"
#include "frontend/websocket_codec.h"
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

// A frame as a browser sends it: masked.
std::string ClientFrame(uint8_t first, std::string_view payload, bool masked = true) {
  std::string out(1, char(first));
  out.push_back(char((masked ? 0x80 : 0) | payload.size()));  // short payloads only
  const char mask[4] = {0x37, 0x5a, 0x01, 0x7e};
  if (masked) out.append(mask, 4);
  for (size_t i = 0; i < payload.size(); ++i) {
    out.push_back(masked ? char(payload[i] ^ mask[i % 4]) : payload[i]);
  }
  return out;
}

struct Frame {
  int opcode;
  std::string payload;
};

// The server's frames in bytes (after the 101 head); an incomplete tail is left out.
std::vector<Frame> Frames(std::string_view bytes) {
  std::vector<Frame> out;
  while (bytes.size() >= 2) {
    uint64_t n = uint8_t(bytes[1]) & 0x7F;
    size_t header = 2;
    if (n == 126) {
      if (bytes.size() < 4) break;
      n = uint64_t(uint8_t(bytes[2])) << 8 | uint8_t(bytes[3]);
      header = 4;
    } else if (n == 127) {
      if (bytes.size() < 10) break;
      n = 0;
      for (size_t k = 2; k < 10; ++k) n = n << 8 | uint8_t(bytes[k]);
      header = 10;
    }
    EXPECT_EQ(uint8_t(bytes[1]) & 0x80, 0) << "server frames are never masked";
    if (bytes.size() < header + n) break;
    out.push_back({uint8_t(bytes[0]) & 0x0F, std::string(bytes.substr(header, n))});
    bytes.remove_prefix(header + n);
  }
  return out;
}

class FrontendWebTest : public ::testing::Test {
 protected:
  FrontendWebTest() : key_(LoadOrCreateLinkSecret(dir_.path()).key) {}

  void StartFront(std::vector<std::string> extra = {}, std::string_view extra_cfg = "") {
    link_port_ = testing::FreePort();
    web_port_ = testing::FreePort();
    testing::WriteFile(dir_ / "cluster.cfg",
                       "Winsock IP^127.0.0.1\r\nWinsock Port^" + std::to_string(link_port_) +
                           "\r\nFrontend Ports^" + std::to_string(testing::FreePort()) +
                           "\r\nWebSocket Port^" + std::to_string(web_port_) + "\r\n" +
                           std::string(extra_cfg));
    std::vector<std::string> args{"--home", dir_.path().string()};
    args.insert(args.end(), extra.begin(), extra.end());
    front_ = std::make_unique<ChildProcess>(QX_FRONT_BIN, args, dir_.path(), "qxfront");
  }

  // Plays the node through the handshake and the first stream report.
  void ConnectNode(LineClient& node) {
    ASSERT_TRUE(node.Connect(link_port_));
    ASSERT_TRUE(node.Send("QX Cluster"));
    const std::string challenge = WaitRecord(node, "AA39^");
    ASSERT_GT(challenge.size(), 5u);
    const std::string nonce = MakeLinkNonce();
    ASSERT_TRUE(node.Send(Message({"4", nonce, NodeLinkProof(key_, challenge.substr(5), nonce)})));
    ASSERT_FALSE(WaitRecord(node, "QRV ").empty());
    ASSERT_TRUE(node.Send("8270"));
    ASSERT_FALSE(WaitRecord(node, "AA01^").empty());
  }

  // Opens a WebSocket on target; returns the node's AA03 for it (empty when refused).
  std::string OpenStream(LineClient& node, LineClient& client, std::string_view target) {
    node.Drain(50ms);
    node.ClearReceived();
    EXPECT_TRUE(client.Connect(web_port_));
    EXPECT_TRUE(client.Send("GET " + std::string(target) +
                            " HTTP/1.1\r\nHost: localhost\r\nUpgrade: websocket\r\n"
                            "Connection: Upgrade\r\nSec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\n"
                            "Sec-WebSocket-Version: 13\r\n\r\n"));
    const auto head = client.ReadUntil("\r\n\r\n");
    if (!head || !head->starts_with("HTTP/1.1 101 ")) return "";
    EXPECT_NE(head->find("Sec-WebSocket-Accept: s3pPLMBiTxaQ9kYGzzhZRbK+xOo=\r\n"),
              std::string::npos);
    client_heads_[&client] = head->find("\r\n\r\n") + 4;
    return WaitRecord(node, "AA03^");
  }

  // The frames a stream client has received so far, after waiting for at least count.
  std::vector<Frame> WaitFrames(LineClient& client, size_t count) {
    std::vector<Frame> frames;
    testing::WaitFor([&] {
      client.Drain(20ms);
      frames = Frames(std::string_view(client.received()).substr(client_heads_[&client]));
      return frames.size() >= count;
    });
    return frames;
  }

  // Sends a raw request and returns the whole answer up to the close.
  std::string Ask(std::string_view request) {
    LineClient client;
    EXPECT_TRUE(client.Connect(web_port_));
    EXPECT_TRUE(client.Send(request));
    EXPECT_TRUE(client.WaitClosed());
    return client.received();
  }

  TempDir dir_;
  std::string key_;
  int link_port_ = 0;
  int web_port_ = 0;
  std::unique_ptr<ChildProcess> front_;
  std::map<LineClient*, size_t> client_heads_;
};

TEST_F(FrontendWebTest, WebSocketStreamCarriesLinesBothWaysAndCloses) {
  StartFront();
  LineClient node, ws, other;
  ConnectNode(node);
  const std::string a03 = OpenStream(node, ws, "/stream?calls=G4ABC^M0XYZ&x=%41");
  ASSERT_FALSE(a03.empty());
  const std::string stream = Field(a03, 2);
  const std::string tag = Field(a03, 4);
  EXPECT_EQ(Field(a03, 5), "ws:/stream?calls=G4ABC%5EM0XYZ&x=%41");
  EXPECT_EQ(Field(a03, 6), "10");

  // The node's lines become one text message each, an unfinished line waits for its end.
  ASSERT_TRUE(node.Send(Message({"0", stream, "{\"a\":1}\r\n{\"b\":2}\r\n{\"c\"", tag})));
  ASSERT_TRUE(node.Send(Message({"0", stream, ":3}\r\n", tag})));
  std::vector<Frame> frames = WaitFrames(ws, 3);
  ASSERT_EQ(frames.size(), 3u);
  EXPECT_EQ(frames[0].opcode, 1);
  EXPECT_EQ(frames[0].payload, "{\"a\":1}");
  EXPECT_EQ(frames[2].payload, "{\"c\":3}");

  // Client text (fragmented here) reaches the node as one clean line; pings are answered.
  ASSERT_TRUE(ws.Send(ClientFrame(0x01, "sh/dx\t20") + ClientFrame(0x89, "hi") +
                      ClientFrame(0x80, "\r\n\x07more")));
  EXPECT_EQ(WaitRecord(node, "AA00^"), "AA00^" + stream + "^sh/dx 20  more\r\n");
  frames = WaitFrames(ws, 4);
  ASSERT_EQ(frames.size(), 4u);
  EXPECT_EQ(frames[3].opcode, 0xA);
  EXPECT_EQ(frames[3].payload, "hi");

  // A restarted node learns the stream's kind again from the report.
  ASSERT_TRUE(node.Send("8270"));
  const std::string a38 = WaitRecord(node, "AA38^");
  EXPECT_EQ(Field(a38, 4), "10");
  EXPECT_EQ(Field(a38, 7), "ws:/stream?calls=G4ABC%5EM0XYZ&x=%41");

  // The node lets it go: queued output, then a normal close.
  ASSERT_TRUE(node.Send(Message({"0", stream, "{\"last\":1}\r\n", tag}) +
                        Message({"1", stream, "Disconnect", tag})));
  frames = WaitFrames(ws, 6);
  ASSERT_EQ(frames.size(), 6u);
  EXPECT_EQ(frames[4].payload, "{\"last\":1}");
  EXPECT_EQ(frames[5].opcode, 8);
  EXPECT_EQ(frames[5].payload, std::string("\x03\xe8"));
  EXPECT_TRUE(ws.WaitClosed());
  ws.Close();  // as a browser does once the close handshake is over
  EXPECT_EQ(WaitRecord(node, "AA17^"), "AA17^" + tag + "^" + stream + "^disconnected by the node");

  // A client's close is answered with the same code before the stream ends.
  const std::string b03 = OpenStream(node, other, "/stream");
  ASSERT_TRUE(other.Send(ClientFrame(0x88, "\x03\xe9")));
  frames = WaitFrames(other, 1);
  ASSERT_EQ(frames.size(), 1u);
  EXPECT_EQ(frames[0].payload, std::string("\x03\xe9"));
  EXPECT_TRUE(other.WaitClosed());
  other.Close();
  EXPECT_EQ(WaitRecord(node, "AA17^"),
            "AA17^" + Field(b03, 4) + "^" + Field(b03, 2) + "^closed by peer");
}

TEST_F(FrontendWebTest, ProtocolFaultsCloseWithTheirCode) {
  StartFront();
  LineClient node;
  ConnectNode(node);
  const std::pair<std::string, std::string> cases[] = {
      {ClientFrame(0x81, "plain", false), "\x03\xea"},  // unmasked: 1002
      {ClientFrame(0x82, "bin"), "\x03\xeb"},           // binary: 1003
  };
  for (const auto& [bytes, code] : cases) {
    LineClient ws;
    const std::string a03 = OpenStream(node, ws, "/stream");
    ASSERT_FALSE(a03.empty());
    ASSERT_TRUE(ws.Send(bytes));
    const std::vector<Frame> frames = WaitFrames(ws, 1);
    ASSERT_EQ(frames.size(), 1u);
    EXPECT_EQ(frames[0].opcode, 8);
    EXPECT_EQ(frames[0].payload, code);
    EXPECT_TRUE(ws.WaitClosed());
    ws.Close();
    EXPECT_TRUE(WaitRecord(node, "AA17^" + Field(a03, 4)).starts_with("AA17^"));
    EXPECT_TRUE(WaitRecord(node, "AA00^", 100ms).empty());
  }
}

TEST_F(FrontendWebTest, PollsAreAnsweredFromTheNodesStatusLine) {
  StartFront({"--web-timeout-ms", "500"});
  LineClient node, poll;
  ConnectNode(node);
  node.ClearReceived();
  ASSERT_TRUE(poll.Connect(web_port_));
  ASSERT_TRUE(poll.Send("GET /spots?limit=2 HTTP/1.1\r\nHost: x\r\n\r\n"));
  const std::string a03 = WaitRecord(node, "AA03^");
  EXPECT_EQ(Field(a03, 5), "http:/spots?limit=2");
  const std::string body = "[{\"dx\":\"K1ABC\"},{\"dx\":\"JA1XYZ\"}]";
  ASSERT_TRUE(node.Send(Message({"0", Field(a03, 2), "Status: 200\r\n" + body, Field(a03, 4)}) +
                        Message({"1", Field(a03, 2), "Disconnect", Field(a03, 4)})));
  ASSERT_TRUE(poll.WaitClosed());
  const std::string& answer = poll.received();
  EXPECT_TRUE(answer.starts_with("HTTP/1.1 200 OK\r\n")) << answer;
  EXPECT_NE(answer.find("Content-Type: application/json\r\n"), std::string::npos);
  EXPECT_NE(answer.find("Content-Length: " + std::to_string(body.size()) + "\r\n"),
            std::string::npos);
  EXPECT_NE(answer.find("Access-Control-Allow-Origin: *\r\n"), std::string::npos);
  EXPECT_TRUE(answer.ends_with("\r\n\r\n" + body));

  // A node that never answers: 504 once the wait is over.
  EXPECT_TRUE(Ask("GET /spots HTTP/1.1\r\nHost: x\r\n\r\n").starts_with("HTTP/1.1 504 "));

  // Requests that are not for the node never reach it.
  node.Drain(100ms);
  node.ClearReceived();
  const std::pair<std::string, std::string> refused[] = {
      {"GET /nothing HTTP/1.1\r\nHost: x\r\n\r\n", "404"},
      {"POST /spots HTTP/1.1\r\nHost: x\r\n\r\n", "405"},
      {"GET /stream HTTP/1.1\r\nHost: x\r\n\r\n", "426"},
      {"GET /stream HTTP/1.1\r\nHost: x\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
       "Sec-WebSocket-Version: 13\r\n\r\n",
       "400"},
      {"junk\r\n\r\n", "400"},
      {"GET /spots HTTP/1.1\r\nX: " + std::string(9000, 'a') + "\r\n\r\n", "431"},
      {"GET /spots HTTP/1.1\r\n", "408"},
  };
  for (const auto& [request, status] : refused) {
    EXPECT_TRUE(Ask(request).starts_with("HTTP/1.1 " + status + " ")) << status;
  }
  EXPECT_TRUE(WaitRecord(node, "AA03^", 200ms).empty());
  node.ClearReceived();
  ASSERT_TRUE(node.Send("8270"));  // the report carries the counters too
  EXPECT_NE(WaitRecord(node, "AA20^").find("^ws_rejected_total=7"), std::string::npos);
}

TEST_F(FrontendWebTest, StreamsPerAddressAreLimitedAndQuietOnesPinged) {
  StartFront({"--web-ping-ms", "300"}, "WebSocket Max Per Address^2\r\n");
  LineClient node, a, b, c, d;
  ConnectNode(node);
  ASSERT_FALSE(OpenStream(node, a, "/stream").empty());
  ASSERT_FALSE(OpenStream(node, b, "/stream").empty());
  EXPECT_TRUE(OpenStream(node, c, "/stream").empty());
  EXPECT_TRUE(c.received().starts_with("HTTP/1.1 429 ")) << c.received();
  EXPECT_TRUE(WaitRecord(node, "AA03^", 200ms).empty());
  // A poll is not a stream: still served.
  LineClient poll;
  ASSERT_TRUE(poll.Connect(web_port_));
  ASSERT_TRUE(poll.Send("GET /spots HTTP/1.1\r\nHost: x\r\n\r\n"));
  EXPECT_FALSE(WaitRecord(node, "AA03^").empty());
  // Once one closes, another may come.
  a.Close();
  ASSERT_FALSE(WaitRecord(node, "AA17^").empty());
  EXPECT_FALSE(OpenStream(node, d, "/stream").empty());
  const std::vector<Frame> frames = WaitFrames(d, 1);
  ASSERT_FALSE(frames.empty());
  EXPECT_EQ(frames[0].opcode, 9);
}

TEST_F(FrontendWebTest, SlowClientLosesWholeMessagesAndIsToldHowMany) {
  StartFront({"--output-limit", "65536"});
  LineClient node, slow;
  ConnectNode(node);
  const int small = 4096;
  ::setsockopt(slow.fd(), SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
  const std::string a03 = OpenStream(node, slow, "/stream");
  ASSERT_FALSE(a03.empty());
  const auto numbered = [](int i) {
    return "{\"n\":" + std::to_string(i) + ",\"pad\":\"" + std::string(4000, 'p') + "\"}";
  };
  const int kLines = 2000;
  std::string burst;
  for (int i = 0; i < kLines; ++i) {
    burst += Message({"0", Field(a03, 2), numbered(i) + "\r\n", Field(a03, 4)});
  }
  ASSERT_TRUE(node.Send(burst));
  // Give the front-end time to fill the bound before the client starts reading.
  EXPECT_TRUE(WaitRecord(node, "AA17^", 1s).empty());
  ASSERT_TRUE(node.Send(Message({"0", Field(a03, 2), "{\"end\":1}\r\n", Field(a03, 4)})));
  std::vector<Frame> frames;
  ASSERT_TRUE(testing::WaitFor(
      [&] {
        slow.Drain(50ms);
        frames = Frames(std::string_view(slow.received()).substr(client_heads_[&slow]));
        return !frames.empty() && frames.back().payload == "{\"end\":1}";
      },
      30s));
  // Every line is either received in order or counted in the notice that follows its gap.
  int next = 0;
  int notices = 0;
  for (size_t k = 0; k + 1 < frames.size(); ++k) {
    const std::string& p = frames[k].payload;
    if (p == numbered(next)) {
      ++next;
      continue;
    }
    constexpr std::string_view kDropped = "{\"v\":1,\"type\":\"dropped\",\"count\":";
    ASSERT_TRUE(p.starts_with(kDropped)) << p.substr(0, 60);
    next += std::atoi(p.c_str() + kDropped.size());
    ++notices;
  }
  EXPECT_EQ(next, kLines);
  EXPECT_GE(notices, 1);
}

}  // namespace
}  // namespace qx
