#include "frontend/websocket_codec.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace qx {
namespace {

// A frame as a client sends it: masked, with the given first byte.
std::string ClientFrame(uint8_t first, std::string_view payload, bool masked = true) {
  std::string out(1, char(first));
  const size_t n = payload.size();
  const char mask_bit = masked ? char(0x80) : 0;
  if (n < 126) {
    out.push_back(char(mask_bit | char(n)));
  } else {
    out.push_back(char(mask_bit | 126));
    out.push_back(char(n >> 8));
    out.push_back(char(n & 0xFF));
  }
  const char mask[4] = {0x12, 0x34, 0x56, 0x78};
  if (masked) out.append(mask, 4);
  for (size_t i = 0; i < n; ++i)
    out.push_back(masked ? char(payload[i] ^ mask[i % 4]) : payload[i]);
  return out;
}

std::vector<WsEvent> Decode(std::string_view bytes, size_t piece, size_t max = 4096) {
  WsDecoder decoder(max);
  std::vector<WsEvent> events;
  for (size_t i = 0; i < bytes.size(); i += piece) {
    decoder.Feed(bytes.substr(i, piece));
    WsEvent e;
    while (decoder.Next(e)) events.push_back(e);
  }
  return events;
}

TEST(WebSocketHandshake, AcceptKeyAndKeyCheck) {
  // The example from the protocol's definition.
  EXPECT_EQ(WebSocketAccept("dGhlIHNhbXBsZSBub25jZQ=="), "s3pPLMBiTxaQ9kYGzzhZRbK+xOo=");
  EXPECT_TRUE(ValidWebSocketKey("dGhlIHNhbXBsZSBub25jZQ=="));
  EXPECT_FALSE(ValidWebSocketKey("dGhlIHNhbXBsZSBub25jZQ="));
  EXPECT_FALSE(ValidWebSocketKey("dGhlIHNhbXBsZSBub25jZR=="));  // stray low bits
  EXPECT_FALSE(ValidWebSocketKey(""));
}

TEST(WebSocketEncode, LengthFormsAndClose) {
  EXPECT_EQ(EncodeWsFrame(WsOpcode::kText, "hi"), std::string("\x81\x02hi"));
  const std::string mid = EncodeWsFrame(WsOpcode::kText, std::string(300, 'a'));
  EXPECT_EQ(mid.substr(0, 4), std::string("\x81\x7e\x01\x2c"));
  EXPECT_EQ(mid.size(), 304u);
  const std::string big = EncodeWsFrame(WsOpcode::kText, std::string(70000, 'a'));
  EXPECT_EQ(big.substr(0, 10), std::string("\x81\x7f\0\0\0\0\0\x01\x11\x70", 10));
  EXPECT_EQ(EncodeWsClose(1000), std::string("\x88\x02\x03\xe8"));
}

TEST(WsDecoder, MessagesPingsAndCloseWhateverThePieces) {
  const std::string text = "{\"cmd\":\"sh/dx\"} \xc3\xa9";
  const std::string bytes = ClientFrame(0x01, "part one ") + ClientFrame(0x89, "p") +
                            ClientFrame(0x80, std::string(200, 'x')) + ClientFrame(0x81, text) +
                            ClientFrame(0x88, std::string("\x03\xe9") + "bye") +
                            ClientFrame(0x81, "after close");
  for (size_t piece : {1, 3, 5, 1000}) {
    const std::vector<WsEvent> e = Decode(bytes, piece);
    ASSERT_EQ(e.size(), 4u) << piece;
    EXPECT_EQ(e[0].kind, WsEvent::Kind::kPing);  // between the fragments of a message
    EXPECT_EQ(e[0].payload, "p");
    EXPECT_EQ(e[1].kind, WsEvent::Kind::kText);
    EXPECT_EQ(e[1].payload, "part one " + std::string(200, 'x'));
    EXPECT_EQ(e[2].payload, text);
    EXPECT_EQ(e[3].kind, WsEvent::Kind::kClose);
    EXPECT_EQ(e[3].code, 1001);
    EXPECT_EQ(e[3].payload, "bye");
  }
  const std::vector<WsEvent> bare = Decode(ClientFrame(0x88, ""), 1);
  ASSERT_EQ(bare.size(), 1u);
  EXPECT_EQ(bare[0].code, kWsNoStatus);
}

TEST(WsDecoder, FaultsNameTheirCloseCode) {
  struct Case {
    std::string bytes;
    uint16_t code;
  };
  const std::vector<Case> cases = {
      {ClientFrame(0x81, "hi", false), kWsProtocolError},
      {ClientFrame(0xC1, "hi"), kWsProtocolError},  // reserved bit
      {ClientFrame(0x83, "hi"), kWsProtocolError},  // unknown opcode
      {ClientFrame(0x80, "hi"), kWsProtocolError},  // continuation of nothing
      {ClientFrame(0x01, "a") + ClientFrame(0x81, "b"), kWsProtocolError},
      {ClientFrame(0x09, "p"), kWsProtocolError},  // fragmented control frame
      {ClientFrame(0x89, std::string(126, 'p')), kWsProtocolError},
      {ClientFrame(0x88, "\x03"), kWsProtocolError},
      {ClientFrame(0x88, "\x03\xed"), kWsProtocolError},  // 1005 may not be sent
      {ClientFrame(0x82, "bin"), kWsUnsupportedData},
      {ClientFrame(0x81, "\xc3\x28"), kWsInvalidText},
      {ClientFrame(0x81, std::string(101, 'a')), kWsMessageTooBig},
      {ClientFrame(0x01, std::string(60, 'a')) + ClientFrame(0x80, std::string(60, 'a')),
       kWsMessageTooBig},
  };
  for (const Case& c : cases) {
    const std::vector<WsEvent> e = Decode(c.bytes + ClientFrame(0x81, "x"), 2, 100);
    ASSERT_EQ(e.size(), 1u) << testing::PrintToString(c.bytes);
    EXPECT_EQ(e[0].kind, WsEvent::Kind::kError);
    EXPECT_EQ(e[0].code, c.code) << e[0].payload;
  }
  // A huge length is refused from the header alone, before any payload arrives.
  WsDecoder decoder(100);
  decoder.Feed(std::string("\x81\xff\0\0\0\x01\0\0\0\0", 10));
  WsEvent e;
  ASSERT_TRUE(decoder.Next(e));
  EXPECT_EQ(e.code, kWsMessageTooBig);
}

TEST(ValidUtf8, RejectsOverlongSurrogatesAndTruncation) {
  EXPECT_TRUE(ValidUtf8("plain \xc3\xa9 \xe2\x82\xac \xf0\x9f\x93\xa1"));
  for (std::string_view bad :
       {"\xc0\xaf", "\xe0\x80\xaf", "\xed\xa0\x80", "\xf4\x90\x80\x80", "\xe2\x82", "\x80"}) {
    EXPECT_FALSE(ValidUtf8(bad)) << testing::PrintToString(std::string(bad));
  }
}

}  // namespace
}  // namespace qx
