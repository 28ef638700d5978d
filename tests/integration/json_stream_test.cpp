// Programs' JSON streams through the real node, with the test playing the front-end on the
// link: it proves itself with the link secret, opens user, WebSocket and HTTP streams with
// AA03 and reads what the node sends each stream.  (Resuming, also over a node restart, runs
// through the real front-end in program_stream_test.)
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <map>
#include <nlohmann/json.hpp>
#include <set>

#include "core/link_secret.h"
#include "core/text_util.h"
#include "tests/integration/system_fixture.h"

namespace qx::testing {
namespace {

using namespace std::chrono_literals;
using nlohmann::json;

class LinkPlayer {
 public:
  explicit LinkPlayer(int port) : listen_fd_(ListenLoopback(port)), ok_(listen_fd_ >= 0) {}
  ~LinkPlayer() {
    if (conn_ >= 0) ::close(conn_);
    if (listen_fd_ >= 0) ::close(listen_fd_);
  }
  bool ok() const { return ok_; }

  // Takes the node's connection, proves itself and reports no streams.
  bool Handshake(const std::string& key) {
    pollfd p{listen_fd_, POLLIN, 0};
    if (::poll(&p, 1, 20000) != 1) return false;
    conn_ = ::accept4(listen_fd_, nullptr, nullptr, SOCK_CLOEXEC);
    if (conn_ < 0 || !ReadRaw("QX Cluster")) return false;
    const std::string fe_nonce = MakeLinkNonce();
    Send("AA39^" + fe_nonce + "\x03");
    if (!ReadRaw("\x04")) return false;
    // "4 ETX <node_nonce> ETX <proof> EOT"
    const size_t four = raw_.find("4\x03");
    if (four == std::string::npos) return false;
    const std::string node_nonce = raw_.substr(four + 2, raw_.find('\x03', four + 2) - four - 2);
    Send("QRV GB7TEST^1.0^" + FrontLinkProof(key, node_nonce, fe_nonce) + "\x03");
    if (!ReadRaw("8270")) return false;
    raw_.clear();
    Send("AA01^0^\x03");
    return true;
  }
  void Send(std::string_view text) { ::send(conn_, text.data(), text.size(), MSG_NOSIGNAL); }
  void Line(int stream, std::string_view line) {
    Send("AA00^" + std::to_string(stream) + "^" + std::string(line) + "\r\n\x03");
  }
  void Open(int stream, std::string_view kind) {
    Send("AA03^Connect Request^" + std::to_string(stream) + "^192.0.2." + std::to_string(stream) +
         ":5000^" + std::to_string(stream) + "^" + std::string(kind) + "^0\x03");
  }
  // Everything the node sent the stream as text so far.
  const std::string& Text(int stream) {
    Pump(0ms);
    return text_[stream];
  }
  bool WaitText(int stream, std::string_view needle, std::chrono::milliseconds limit = 10s) {
    const auto end = std::chrono::steady_clock::now() + limit;
    while (text_[stream].find(needle) == std::string::npos) {
      if (std::chrono::steady_clock::now() >= end || !Pump(50ms)) return false;
    }
    return true;
  }
  bool Closed(int stream) {
    Pump(0ms);
    return closed_.count(stream) != 0;
  }
  // The JSON objects the stream got, in order.
  std::vector<json> Objects(int stream) {
    std::vector<json> out;
    for (std::string_view line : SplitLines(Text(stream))) {
      if (line.starts_with("{")) out.push_back(json::parse(line));
    }
    return out;
  }
  bool ReadRaw(std::string_view needle, std::chrono::milliseconds limit = 10s) {
    const auto end = std::chrono::steady_clock::now() + limit;
    while (raw_.find(needle) == std::string::npos) {
      if (std::chrono::steady_clock::now() >= end || !Receive(50ms)) {
        if (std::chrono::steady_clock::now() >= end) return false;
      }
    }
    return true;
  }

 private:
  bool Receive(std::chrono::milliseconds wait) {
    pollfd p{conn_, POLLIN, 0};
    if (::poll(&p, 1, int(wait.count())) != 1) return true;
    char buf[65536];
    const ssize_t n = ::recv(conn_, buf, sizeof buf, 0);
    if (n <= 0) return false;
    raw_.append(buf, size_t(n));
    return true;
  }
  // Reads and takes apart the messages that arrived (elements by ETX, messages by EOT).
  bool Pump(std::chrono::milliseconds wait) {
    const bool alive = Receive(wait);
    size_t eot;
    while ((eot = raw_.find('\x04')) != std::string::npos) {
      std::string message = raw_.substr(0, eot);
      raw_.erase(0, eot + 1);
      const std::vector<std::string_view> el = Split(message, '\x03');
      if (el.size() < 3) continue;
      std::string_view code = el[0];  // raw texts may be glued to the front
      while (code.starts_with("rxAA18") || code.starts_with("8270")) {
        code.remove_prefix(code.starts_with("8270") ? 4 : 6);
      }
      const int stream = ParseIntOr(el[1], 0);
      if (code == "0" && el.size() >= 4) {
        text_[stream] += message.substr(size_t(el[2].data() - message.data()),
                                        size_t(el.back().data() - el[2].data()) - 1);
      } else if (code == "1") {
        closed_.insert(stream);
      } else if (code == "6") {
        Send("AA21\x03");
      }
    }
    return alive;
  }

  int listen_fd_ = -1;
  int conn_ = -1;
  bool ok_ = false;
  std::string raw_;
  std::map<int, std::string> text_;
  std::set<int> closed_;
};

class JsonStreamTest : public SystemFixture {
 protected:
  virtual std::string ExtraConfig() const { return ""; }
  void SetUp() override {
    WriteConfig(ExtraConfig());
    WriteCountryFile();
    WriteFile(home() / "data/files/passwords.dat", "K2PRG^open sesame\r\n");
    // Numbers of an earlier life of the node: this run's spots come after them.
    WriteFile(home() / "data/spot_id.state", "5000\n");
    key_ = LoadOrCreateLinkSecret(home()).key;
    ASSERT_FALSE(key_.empty());
    ASSERT_TRUE(link_.ok());
    StartNode();
    ASSERT_TRUE(link_.Handshake(key_));
    // A user who spots, logged in through the dialogue.
    link_.Open(1, "in");
    ASSERT_TRUE(link_.WaitText(1, "login: "));
    link_.Line(1, "DL1ABC");
    ASSERT_TRUE(link_.WaitText(1, "Please enter your name"));
    link_.Line(1, "Hans");
    ASSERT_TRUE(link_.WaitText(1, "(Y or N)"));
    link_.Line(1, "y");
    ASSERT_TRUE(link_.WaitText(1, "QXC >"));
  }
  // Spots a DX call on 20 m (or 40 m) and waits until the node has taken it.
  void SpotDx(std::string_view dx, std::string_view freq = "14025.0") {
    static int n = 0;
    const std::string mark = "spot" + std::to_string(++n);
    link_.Line(1, "DX " + std::string(freq) + " " + std::string(dx) + " " + mark);
    ASSERT_TRUE(link_.WaitText(1, mark)) << link_.Text(1);
  }
  std::string key_;
  LinkPlayer link_{link_port_};
};

TEST_F(JsonStreamTest, FiltersGapsAndRefusals) {
  // A stream's own rules, as ACCEPT/REJECT take them.
  link_.Open(2, "ws:/stream?filter=accept%2Fspots%20on%2040m");
  ASSERT_TRUE(link_.WaitText(2, "\"type\":\"hello\""));
  SpotDx("K2AAA", "14025.0");
  SpotDx("K2BBB", "7025.0");
  ASSERT_TRUE(link_.WaitText(2, "K2BBB"));
  EXPECT_EQ(link_.Text(2).find("K2AAA"), std::string::npos);

  // A rule the filters do not know: one error object that says so, then the close.
  link_.Open(3, "ws:/stream?filter=accept%2Fspots%20by_moon%20full");
  ASSERT_TRUE(WaitFor([&] { return link_.Closed(3); }));
  std::vector<json> objects = link_.Objects(3);
  ASSERT_EQ(objects.size(), 1u) << link_.Text(3);
  EXPECT_EQ(objects[0]["type"], "error");
  EXPECT_NE(objects[0]["text"].get<std::string>().find("by_moon"), std::string::npos);

  // So does a type the node does not carry.
  link_.Open(7, "ws:/stream?types=spot,talk");
  ASSERT_TRUE(WaitFor([&] { return link_.Closed(7); }));
  objects = link_.Objects(7);
  ASSERT_EQ(objects.size(), 1u) << link_.Text(7);
  EXPECT_NE(objects[0]["text"].get<std::string>().find("unknown types: talk"), std::string::npos);

  // A number older than anything kept (before 5001): a gap first, then what is kept.
  link_.Open(4, "ws:/stream?since=1");
  ASSERT_TRUE(link_.WaitText(4, "K2BBB"));
  objects = link_.Objects(4);
  ASSERT_GE(objects.size(), 3u);
  EXPECT_EQ(objects[0]["type"], "hello");
  EXPECT_EQ(objects[1]["type"], "gap") << link_.Text(4);

  // Read-only: a command gets an error object, and nothing is posted.
  link_.Line(2, "DX 14030.0 K2CCC from the stream");
  ASSERT_TRUE(link_.WaitText(2, "read-only"));
  EXPECT_EQ(link_.Text(1).find("K2CCC"), std::string::npos);

  // Unknown paths and bad numbers get the status that says why.
  link_.Open(5, "http:/nothing");
  ASSERT_TRUE(WaitFor([&] { return link_.Closed(5); }));
  EXPECT_TRUE(link_.Text(5).starts_with("Status: 404\r\n")) << link_.Text(5);
  link_.Open(6, "http:/spots?call=DL1ABC&password=wrong");
  ASSERT_TRUE(WaitFor([&] { return link_.Closed(6); }));
  EXPECT_TRUE(link_.Text(6).starts_with("Status: 401\r\n")) << link_.Text(6);
}

class JsonLoginStreamTest : public JsonStreamTest {
 protected:
  std::string ExtraConfig() const override { return "Stream Requires Login^True\r\n"; }
};

TEST_F(JsonLoginStreamTest, OnlyUsersWithTheirPasswordGetStreams) {
  link_.Open(2, "ws:/stream");
  ASSERT_TRUE(WaitFor([&] { return link_.Closed(2); }));
  ASSERT_EQ(link_.Objects(2).size(), 1u) << link_.Text(2);
  EXPECT_EQ(link_.Objects(2)[0]["type"], "error");
  link_.Open(3, "http:/spots");
  ASSERT_TRUE(WaitFor([&] { return link_.Closed(3); }));
  EXPECT_TRUE(link_.Text(3).starts_with("Status: 401\r\n")) << link_.Text(3);

  link_.Open(4, "ws:/stream?call=k2prg&password=open%20sesame");
  ASSERT_TRUE(link_.WaitText(4, "\"type\":\"hello\""));
  EXPECT_EQ(link_.Objects(4)[0]["user"], "K2PRG");
  SpotDx("K2AAA");
  EXPECT_TRUE(link_.WaitText(4, "K2AAA")) << link_.Text(4);
  EXPECT_FALSE(link_.Closed(4));
}

// A telnet user in JSON mode through the real front-end: answers, spots and announcements
// as objects, and no prompt.
class JsonSessionTest : public SystemFixture {};

TEST_F(JsonSessionTest, SetJsonTurnsTheSessionIntoObjects) {
  StartAll();
  auto program = LogIn("K1ABC");
  auto person = LogIn("DL1ABC", "Hans");
  program->SendLine("SET/JSON");
  ASSERT_TRUE(
      program->ReadUntil("{\"v\":1,\"type\":\"reply\",\"text\":[\"JSON output enabled\"]}\r\n"))
      << program->received();
  program->ClearReceived();
  person->SendLine("DX 14025.0 K1XYZ json test");
  person->SendLine("ANNOUNCE meeting at 20z");
  ASSERT_TRUE(program->ReadUntil("meeting at 20z")) << program->received();
  program->Drain(std::chrono::milliseconds(300));
  std::vector<json> objects;
  for (std::string_view line : SplitLines(program->received())) {
    ASSERT_TRUE(line.starts_with("{")) << program->received();  // no prompt, no text
    objects.push_back(json::parse(line));
  }
  ASSERT_EQ(objects.size(), 2u) << program->received();
  EXPECT_EQ(objects[0]["type"], "spot");
  EXPECT_GT(objects[0]["id"].get<uint64_t>(), 0u);
  EXPECT_EQ(objects[0]["dx"]["call"], "K1XYZ");
  EXPECT_EQ(objects[0]["spotter"]["country"], "Fed. Rep. of Germany");
  EXPECT_EQ(objects[1]["type"], "announce");
  EXPECT_EQ(objects[1]["from"], "DL1ABC");
}

}  // namespace
}  // namespace qx::testing
