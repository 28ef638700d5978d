#include "frontend/node_messages.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

namespace qx {
namespace {

// A message as the node writes it: elements joined by Chr 3, ended by Chr 4.
std::string Msg(std::initializer_list<std::string_view> elements) {
  std::string out;
  for (auto e : elements) {
    if (!out.empty()) out.push_back('\x03');
    out.append(e);
  }
  out.push_back('\x04');
  return out;
}

// What the parser reports, flattened to text so sequences compare easily.
std::string Describe(const NodeMessage& m) {
  switch (m.kind) {
    case NodeMessageKind::kGreeting:
      return "greeting";
    case NodeMessageKind::kKeepAliveAnswer:
      return "alive";
    case NodeMessageKind::kStreamListRequest:
      return "list";
    case NodeMessageKind::kSend:
      return "send " + std::to_string(m.stream) + " [" + std::string(m.text) + "] " +
             std::to_string(m.tag);
    case NodeMessageKind::kClose:
      return "close " + std::to_string(m.stream) + " " + std::to_string(m.tag);
    case NodeMessageKind::kOpen:
      return "open " + std::string(m.host) + " " + std::to_string(m.port) + " " +
             std::string(m.label);
    case NodeMessageKind::kIdentity:
      return "identity " + std::to_string(m.stream) + " " + std::string(m.text) + " " +
             std::to_string(m.state) + " " + std::to_string(m.tag);
    case NodeMessageKind::kProof:
      return "proof " + std::string(m.text) + " " + std::string(m.label);
    case NodeMessageKind::kAttributes:
      return "attributes " + std::to_string(m.stream) + " [" + std::string(m.text) + "] " +
             std::to_string(m.tag);
    case NodeMessageKind::kHandOver:
      return "hand over [" + std::string(m.text) + "]";
    case NodeMessageKind::kFanOut:
      return "fanout " + std::to_string(m.targets) + " [" + std::string(m.label) + "] [" +
             std::string(m.text) + "]";
    case NodeMessageKind::kMalformed:
      return "malformed " + std::string(m.error);
  }
  return "?";
}

std::vector<std::string> Drain(NodeMessageParser& p) {
  std::vector<std::string> out;
  NodeMessage m;
  while (p.Next(m)) out.push_back(Describe(m));
  return out;
}

// Feeds text in pieces of the given size, collecting what comes out after each piece.
std::vector<std::string> FeedInPieces(std::string_view text, size_t piece) {
  NodeMessageParser p;
  std::vector<std::string> out;
  for (size_t i = 0; i < text.size(); i += piece) {
    p.Feed(text.substr(i, piece));
    for (auto& d : Drain(p)) out.push_back(std::move(d));
  }
  return out;
}

// Chr 3 written as "|", so that a separator never runs into the digits after it.
std::string Bars(std::string_view text) {
  std::string out(text);
  std::replace(out.begin(), out.end(), '|', '\x03');
  return out;
}

TEST(DecodeNodeMessageTest, EachKindAndEachFaultSaysWhatItIs) {
  const std::pair<const char*, const char*> cases[] = {
      {"0|5|Hello\r\n|17", "send 5 [Hello\r\n] 17"},
      // The text is written unchanged, so it may hold carets and even Chr 3.
      {"0|2|a^b|c\r\n|0", "send 2 [a^b|c\r\n] 0"},
      {"0|2||9", "send 2 [] 9"},
      {"1|5|Disconnect|17", "close 5 17"},
      {"1|5", "close 5 0"},
      {"2|gb7xx.example.org|7300|GB7XX", "open gb7xx.example.org 7300 GB7XX"},
      {"3|5|G4ABC|1|17", "identity 5 G4ABC 1 17"},
      {"4|0a1b|c2d3", "proof 0a1b c2d3"},
      {"5|5|priv=9|17", "attributes 5 [priv=9] 17"},
      {"6|stopping", "hand over [stopping]"},
      {"0|x|hi|1", "malformed bad stream"},
      {"0|0|hi|1", "malformed bad stream"},
      {"0|2|hi|-1", "malformed bad tag"},
      {"0|2|hi", "malformed stream message without text or tag"},
      {"5|1|a", "malformed stream message without text or tag"},
      {"2|host|99999|L", "malformed bad port"},
      {"3|1|G4ABC|x", "malformed bad state"},
      {"8|1", "malformed unknown message code"},
      // One text for many streams: the list first, the text (which may hold Chr 3) last.
      {"7|3:17,12:1838652366950417|DX de|x\r\n",
       "fanout 2 [3:17,12:1838652366950417] [DX de|x\r\n]"},
      {"7|3:0|hi", "fanout 1 [3:0] [hi]"},
      {"7|3:17", "malformed fan-out without text"},
      {"7|3:17|", "malformed fan-out without text"},
      {"7||hi", "malformed fan-out without streams"},
      {"7|3:17,|hi", "malformed bad stream or tag in fan-out"},
      {"7|0:17|hi", "malformed bad stream or tag in fan-out"},
      {"7|3|hi", "malformed bad stream or tag in fan-out"},
      {"7|3:-1|hi", "malformed bad stream or tag in fan-out"},
      {"7|3:1 ,4:2|hi", "malformed bad stream or tag in fan-out"},
      {"4|", "malformed proof without nonce and proof"},
      {"4|n|", "malformed proof without nonce and proof"},
      {"4||p", "malformed proof without nonce and proof"},
      {"4|n|p|x", "malformed proof without nonce and proof"},
      {"junk", "malformed no elements"},
  };
  for (const auto& [message, expected] : cases) {
    EXPECT_EQ(Describe(DecodeNodeMessage(Bars(message))), Bars(expected)) << message;
  }
}

TEST(DecodeNodeMessageTest, AFanOutNamesAtMostItsBoundOfStreamsEachWithItsTag) {
  std::string list;
  for (size_t i = 1; i <= kMaxFanoutTargets; ++i) {
    list += (i > 1 ? "," : "") + std::to_string(i) + ":" + std::to_string(1000 + i);
  }
  const std::string message = Bars("7|" + list + "|line\r\n");  // the views point into it
  const NodeMessage m = DecodeNodeMessage(message);
  ASSERT_EQ(m.kind, NodeMessageKind::kFanOut);
  FanoutTargets targets(m.label);
  int stream = 0;
  uint64_t tag = 0;
  size_t seen = 0;
  while (targets.Next(stream, tag)) {
    ++seen;
    EXPECT_EQ(stream, int(seen));
    EXPECT_EQ(tag, 1000 + seen);
  }
  EXPECT_EQ(seen, kMaxFanoutTargets);
  EXPECT_FALSE(targets.failed());
  EXPECT_EQ(Describe(DecodeNodeMessage(Bars("7|" + list + ",9:9|line"))),
            "malformed fan-out to too many streams");
}

TEST(NodeMessageParserTest, RawTextsAreFoundGluedToMessagesWhateverThePieces) {
  const std::string link = std::string("QX Cluster") + "8270" + Msg({"0", "1", "hi\r\n", "4"}) +
                           "rxAA18" + "rxAA18" + Msg({"3", "1", "G4ABC", "2", "4"}) + "8270" +
                           Msg({"7", "1:4,2:5", "x\x03y"}) + Msg({"1", "1", "Disconnect", "4"});
  const std::vector<std::string> expected{"greeting",
                                          "list",
                                          "send 1 [hi\r\n] 4",
                                          "alive",
                                          "alive",
                                          "identity 1 G4ABC 2 4",
                                          "list",
                                          "fanout 2 [1:4,2:5] [x\x03y]",
                                          "close 1 4"};
  for (size_t piece = 1; piece <= link.size(); ++piece) {
    EXPECT_EQ(FeedInPieces(link, piece), expected) << "piece size " << piece;
  }
}

TEST(NodeMessageParserTest, EmptyMessagesAreSkippedAndJunkIsReported) {
  NodeMessageParser p;
  p.Feed(std::string("\x04\x04") + "hello\x04" + Msg({"0", "1", "x", "1"}));
  EXPECT_EQ(Drain(p), (std::vector<std::string>{"malformed no elements", "send 1 [x] 1"}));
}

TEST(NodeMessageParserTest, OverlongMessageIsDroppedUpToItsEnd) {
  NodeMessageParser p(64);
  p.Feed(Bars("0|1|"));
  p.Feed(std::string(100, 'x'));
  EXPECT_EQ(Drain(p), std::vector<std::string>{"malformed message too long, dropped"});
  p.Feed(std::string(50, 'y'));
  EXPECT_TRUE(Drain(p).empty());
  p.Feed(Bars("zz|1\x04") + Msg({"0", "2", "ok", "3"}));
  EXPECT_EQ(Drain(p), std::vector<std::string>{"send 2 [ok] 3"});
  EXPECT_EQ(p.buffered(), 0u);
}

TEST(NodeMessageParserTest, SocketReadsGoStraightIntoTheBuffer) {
  NodeMessageParser p;
  const std::string text = Msg({"0", "9", std::string(70000, 'a'), "1"}) + "8270";
  size_t done = 0;
  std::vector<std::string> got;
  while (done < text.size()) {
    auto room = p.PrepareWrite(4096);
    ASSERT_GE(room.size(), 4096u);
    const size_t n = std::min<size_t>(4096, text.size() - done);
    std::copy_n(text.data() + done, n, room.data());
    p.Commit(n);
    done += n;
    NodeMessage m;
    while (p.Next(m)) {
      got.push_back(m.kind == NodeMessageKind::kSend ? "send " + std::to_string(m.text.size())
                                                     : Describe(m));
    }
  }
  EXPECT_EQ(got, (std::vector<std::string>{"send 70000", "list"}));
}

TEST(NodeMessageParserTest, ResetForgetsAPartialMessage) {
  NodeMessageParser p;
  p.Feed(Bars("0|1|half"));
  EXPECT_TRUE(Drain(p).empty());
  p.Reset();
  p.Feed("QX Cluster");
  EXPECT_EQ(Drain(p), std::vector<std::string>{"greeting"});
}

}  // namespace
}  // namespace qx
