// Programs through the real front-end and node together: a WebSocket client gets every spot as
// JSON, picks up exactly where it left off after a disconnect (also from the day file after a
// node restart), keeps its stream while the node restarts, a poll answers the same spots, a
// stream that asks for them gets announcements and WWV too, a resume is held to the node's
// replay cap, and a long resume comes whole and in order.
#include <algorithm>
#include <functional>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "tests/testlib/node_sites.h"

namespace qx::testing {
namespace {

using namespace std::chrono_literals;
using nlohmann::json;

// A WebSocket client written out by hand, so that the test depends on nothing but bytes.
class WsClient {
 public:
  bool Open(int port, std::string_view target) {
    if (!client_.Connect(port)) return false;
    client_.Send(
        "GET " + std::string(target) +
        " HTTP/1.1\r\nHost: localhost\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
        "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\nSec-WebSocket-Version: 13\r\n\r\n");
    const auto head = client_.ReadUntil("\r\n\r\n");
    if (!head || !head->starts_with("HTTP/1.1 101 ")) return false;
    used_ = head->find("\r\n\r\n") + 4;
    return true;
  }

  // The JSON messages received so far, after waiting until `until` holds for them.
  std::vector<json> Messages(const std::function<bool(const std::vector<json>&)>& until,
                             std::chrono::milliseconds limit = 10s) {
    WaitFor(
        [&] {
          client_.Drain(20ms);
          Parse();
          return until(messages_);
        },
        limit);
    return messages_;
  }
  void Close() { client_.Close(); }

 private:
  // Server frames are never masked; a text frame is one JSON object.
  void Parse() {
    const std::string& bytes = client_.received();
    while (bytes.size() >= used_ + 2) {
      uint64_t n = uint8_t(bytes[used_ + 1]) & 0x7F;
      size_t header = 2;
      if (n == 126) {
        if (bytes.size() < used_ + 4) return;
        n = uint64_t(uint8_t(bytes[used_ + 2])) << 8 | uint8_t(bytes[used_ + 3]);
        header = 4;
      }
      ASSERT_NE(n, 127u) << "no message of ours needs a 64-bit length";
      if (bytes.size() < used_ + header + n) return;
      if ((uint8_t(bytes[used_]) & 0x0F) == 1) {
        messages_.push_back(json::parse(bytes.substr(used_ + header, n)));
      }
      used_ += header + n;
    }
  }

  LineClient client_;
  size_t used_ = 0;
  std::vector<json> messages_;
};

std::vector<std::string> SpotCalls(const std::vector<json>& messages) {
  std::vector<std::string> calls;
  for (const json& m : messages) {
    if (m.value("type", "") == "spot") calls.push_back(m["dx"]["call"]);
  }
  return calls;
}

auto HasSpots(size_t n) {
  return [n](const std::vector<json>& m) { return SpotCalls(m).size() >= n; };
}

std::vector<json> OfType(const std::vector<json>& messages, std::string_view type) {
  std::vector<json> out;
  for (const json& m : messages) {
    if (m.value("type", "") == type) out.push_back(m);
  }
  return out;
}

// A distinct call per spot number: "DL" with a digit and three letters.
std::string ReplayCall(int i) {
  std::string call = "DL";
  call += char('0' + i % 10);
  call += char('A' + i / 10 / 676 % 26);
  call += char('A' + i / 10 / 26 % 26);
  call += char('A' + i / 10 % 26);
  return call;
}

TEST(ProgramStreamTest, AClientResumesExactlyAndKeepsItsStreamOverANodeRestart) {
  NodeSite site("K1QXA");
  const int web_port = FreePort();
  site.Setting("WebSocket Port", std::to_string(web_port));
  site.Setting("Stream Replay Max", "100");
  site.Setting("WebSocket Max Per Address", "0");  // this one client opens six streams
  for (const char* key :
       {"NewMaxSpotsPerMin", "NewMaxSpotsPerMinPerDx", "NewMaxSpotsPerMinPerSpotter"}) {
    site.Setting(key, "1000000");
  }
  site.Password("K1SYS", "secret", 5);
  site.Start();
  auto user = site.LogIn("W1AW");
  auto sysop = site.LogIn("K1SYS", "secret");

  WsClient first;
  ASSERT_TRUE(first.Open(web_port, "/stream")) << site.front().Output();
  auto got = first.Messages([](const auto& m) { return !m.empty(); });
  ASSERT_FALSE(got.empty());
  EXPECT_EQ(got[0]["type"], "hello");
  EXPECT_EQ(got[0]["read_only"], true);
  user->SendLine("DX 14025.0 K1ABC first");
  got = first.Messages(HasSpots(1));
  ASSERT_EQ(SpotCalls(got), std::vector<std::string>{"K1ABC"}) << site.node().Output();
  const uint64_t seen = got.back()["id"];
  first.Close();

  // Two spots while the program is away; it comes back with the last number it saw.
  user->SendLine("DX 14030.0 K2ABC second");
  user->SendLine("DX 14035.0 K3ABC third");
  ASSERT_TRUE(user->ReadUntil("K3ABC")) << user->received();
  WsClient again;
  ASSERT_TRUE(again.Open(web_port, "/stream?since=" + std::to_string(seen)));
  got = again.Messages(HasSpots(2));
  EXPECT_EQ(SpotCalls(got), (std::vector<std::string>{"K2ABC", "K3ABC"}));
  WsClient typed;
  ASSERT_TRUE(typed.Open(web_port, "/stream?types=spot,announce,wwv"));
  ASSERT_FALSE(typed.Messages([](const auto& m) { return !m.empty(); }).empty());
  // A user's own stream keeps the user's switches: announcements off on telnet, off here too.
  sysop->SendLine("SET/NOANNOUNCEMENTS");
  ASSERT_TRUE(sysop->ReadUntil("Announcements disabled")) << sysop->received();
  WsClient mine;
  ASSERT_TRUE(mine.Open(web_port, "/stream?types=all&call=K1SYS&password=secret"));
  ASSERT_FALSE(mine.Messages([](const auto& m) { return !m.empty(); }).empty());

  // The node restarts; the front-end keeps the program's connection, and the next spot is
  // the only one it gets: nothing is replayed.
  ASSERT_EQ(site.node().Stop(), 0);
  site.StartNode();
  ASSERT_TRUE(site.WaitOutput("Recovery complete")) << site.node().Output();
  user->SendLine("DX 14040.0 K4ABC after the restart");
  got = again.Messages(HasSpots(3));
  // The stream rebuilt after the restart still carries what it asked for; the default one
  // gets neither the announcement nor the WWV (checked with the repeats below).
  sysop->SendLine("ANNOUNCE net on 3760 tonight");
  sysop->SendLine("WWV SF=150,A=8,K=2,Quiet");
  const auto typed_got = typed.Messages([](const auto& m) { return !OfType(m, "wwv").empty(); });
  EXPECT_EQ(SpotCalls(typed_got), std::vector<std::string>{"K4ABC"});
  const auto announces = OfType(typed_got, "announce");
  ASSERT_EQ(announces.size(), 1u) << json(typed_got).dump();
  EXPECT_EQ(announces[0]["from"], "K1SYS");
  EXPECT_EQ(announces[0]["to"], "ALL");
  EXPECT_EQ(announces[0]["text"], "net on 3760 tonight");
  const auto wwv = OfType(typed_got, "wwv");
  ASSERT_EQ(wwv.size(), 1u);
  EXPECT_EQ(wwv[0]["from"], "K1SYS");
  EXPECT_EQ(wwv[0]["sfi"], 150);
  EXPECT_EQ(wwv[0]["k"], 2);
  const auto mine_got = mine.Messages([](const auto& m) { return !OfType(m, "wwv").empty(); });
  EXPECT_EQ(OfType(mine_got, "wwv").size(), 1u) << json(mine_got).dump();
  EXPECT_TRUE(OfType(mine_got, "announce").empty()) << json(mine_got).dump();
  again.Messages([](const auto&) { return false; }, 1500ms);  // anything more would be a repeat
  got = again.Messages([](const auto&) { return true; });
  const std::vector<std::string> after{"K2ABC", "K3ABC", "K4ABC"};
  EXPECT_EQ(SpotCalls(got), after);
  EXPECT_TRUE(OfType(got, "announce").empty() && OfType(got, "wwv").empty()) << json(got).dump();
  // Neither a second greeting; and the numbers go on rising over the restart.
  EXPECT_EQ(std::count_if(got.begin(), got.end(),
                          [](const json& m) { return m.value("type", "") == "hello"; }),
            1);
  std::vector<uint64_t> ids;
  for (const json& m : got) {
    if (m.value("type", "") == "spot") ids.push_back(m["id"]);
  }
  EXPECT_TRUE(std::adjacent_find(ids.begin(), ids.end(), std::greater_equal<>()) == ids.end());
  // A client that saw only the first spot before the restart resumes from the day file.
  WsClient late;
  ASSERT_TRUE(late.Open(web_port, "/stream?since=" + std::to_string(seen)));
  EXPECT_EQ(SpotCalls(late.Messages(HasSpots(3))), after);

  // A program that polls gets the same spots as an array, as many as it asks for.
  const auto poll = [&](const std::string& query) {
    LineClient client;
    EXPECT_TRUE(client.Connect(web_port));
    client.Send("GET /spots?" + query + " HTTP/1.1\r\nHost: localhost\r\n\r\n");
    client.WaitClosed();
    const std::string& answer = client.received();
    EXPECT_THAT(answer, ::testing::StartsWith("HTTP/1.1 200 ")) << answer;
    const size_t body = answer.find("\r\n\r\n");
    const json spots = body == std::string::npos ? json() : json::parse(answer.substr(body + 4));
    EXPECT_TRUE(spots.is_array()) << answer;
    return spots.is_array() ? SpotCalls(spots.get<std::vector<json>>())
                            : std::vector<std::string>{};
  };
  EXPECT_EQ(poll("since=" + std::to_string(seen)), after);
  EXPECT_EQ(poll("since=" + std::to_string(seen) + "&limit=1"), std::vector<std::string>{"K2ABC"});

  // More spots than the replay cap: a resume gets a gap, then the newest 100.
  std::string lines;
  std::vector<std::string> burst;
  for (int k = 0; k < 120; ++k) {
    burst.push_back(ReplayCall(k));
    lines += "DX " + std::to_string(14100 + k) + ".0 " + burst.back() + " cap\r\n";
  }
  ASSERT_TRUE(user->Send(lines));
  ASSERT_TRUE(user->ReadUntil(burst.back() + " ", 30s)) << site.node().Output();
  WsClient capped;
  ASSERT_TRUE(capped.Open(web_port, "/stream?since=" + std::to_string(seen)));
  got = capped.Messages(HasSpots(100));
  capped.Messages([](const auto&) { return false; }, 500ms);
  got = capped.Messages([](const auto&) { return true; });
  ASSERT_GE(got.size(), 3u);
  EXPECT_EQ(got[1]["type"], "gap") << json(got).dump();
  EXPECT_EQ(got[1]["after"], seen);
  EXPECT_EQ(got[1]["next"], got[2]["id"]);
  EXPECT_EQ(SpotCalls(got), std::vector<std::string>(burst.end() - 100, burst.end()));
}

TEST(ProgramStreamTest, ALongResumeArrivesWholeInOrderAndThenGoesLive) {
  NodeSite site("K1QXA");
  const int web_port = FreePort();
  site.Setting("WebSocket Port", std::to_string(web_port));
  for (const char* key :
       {"NewMaxSpotsPerMin", "NewMaxSpotsPerMinPerDx", "NewMaxSpotsPerMinPerSpotter"}) {
    site.Setting(key, "1000000");
  }
  site.Start();
  auto user = site.LogIn("W1AW");
  // The program last saw this one (a stream from 0 would only ask for what memory holds).
  user->SendLine("DX 14020.0 K1PRE seen");
  ASSERT_TRUE(user->ReadUntil("K1PRE")) << user->received();
  WsClient probe;
  ASSERT_TRUE(probe.Open(web_port, "/stream"));
  const uint64_t before = probe.Messages([](const auto& m) { return !m.empty(); }).at(0)["last_id"];
  probe.Close();

  // More than the node keeps in memory and than a replay used to hold, and many pieces of
  // it: the replay reaches into the day file and is written in turns.
  constexpr int kSpots = 5600;
  std::vector<std::string> want;
  for (int i = 0; i < kSpots; i += 400) {
    std::string lines;
    for (int k = i; k < std::min(kSpots, i + 400); ++k) {
      want.push_back(ReplayCall(k));
      lines += "DX " + std::to_string(14000 + k % 300) + ".0 " + want.back() + " r\r\n";
    }
    ASSERT_TRUE(user->Send(lines));
    ASSERT_TRUE(user->ReadUntil(want.back() + " ", 30s)) << site.node().Output();
  }

  WsClient resumed;
  ASSERT_TRUE(resumed.Open(web_port, "/stream?since=" + std::to_string(before)));
  // A spot posted once the replay has begun comes after it, once.
  resumed.Messages(HasSpots(1));
  user->SendLine("DX 14070.0 K9LIVE during the replay");
  ASSERT_TRUE(user->ReadUntil("K9LIVE")) << user->received();
  want.push_back("K9LIVE");
  const auto got = resumed.Messages(HasSpots(want.size()), 30s);
  for (const json& m : got) EXPECT_NE(m.value("type", ""), "gap") << m;
  const std::vector<std::string> calls = SpotCalls(got);
  ASSERT_EQ(calls.size(), want.size());
  EXPECT_TRUE(calls == want) << "first difference at "
                             << std::mismatch(calls.begin(), calls.end(), want.begin()).first -
                                    calls.begin();
}

}  // namespace
}  // namespace qx::testing
