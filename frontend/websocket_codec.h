// WebSocket framing for the server side of a connection: the opening handshake's key check
// and answer, frames written to a client (never masked), and a decoder for what a client
// sends (always masked).  The decoder reassembles fragmented messages up to a bound, answers
// nothing itself and says which close code a protocol fault calls for, so the caller decides
// what goes on the wire.  Pure apart from the SHA-1 of the handshake.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace qx {

enum class WsOpcode : uint8_t {
  kContinuation = 0,
  kText = 1,
  kBinary = 2,
  kClose = 8,
  kPing = 9,
  kPong = 10,
};

// Close codes this side sends.
inline constexpr uint16_t kWsNormalClose = 1000;
inline constexpr uint16_t kWsGoingAway = 1001;
inline constexpr uint16_t kWsProtocolError = 1002;
inline constexpr uint16_t kWsUnsupportedData = 1003;
inline constexpr uint16_t kWsNoStatus = 1005;  // a close frame without a code (never sent)
inline constexpr uint16_t kWsInvalidText = 1007;
inline constexpr uint16_t kWsMessageTooBig = 1009;

// A Sec-WebSocket-Key is the base64 of 16 bytes: 22 base64 characters and "==".
bool ValidWebSocketKey(std::string_view key);
// The Sec-WebSocket-Accept for a key: base64(SHA-1(key + the protocol's fixed GUID)).
std::string WebSocketAccept(std::string_view key);

// One complete, unmasked frame.
std::string EncodeWsFrame(WsOpcode opcode, std::string_view payload);
// A close frame with a code and an optional short reason.
std::string EncodeWsClose(uint16_t code, std::string_view reason = {});

// Whether text is well-formed UTF-8 (no overlong forms, surrogates or values past U+10FFFF).
bool ValidUtf8(std::string_view text);

struct WsEvent {
  enum class Kind : uint8_t {
    kText,  // a complete text message in payload
    kPing,  // payload to echo in a pong
    kPong,
    kClose,  // the client closes; code (kWsNoStatus when it gave none), reason in payload
    kError,  // a protocol fault: close with code; payload says why (for the log)
  };
  Kind kind = Kind::kError;
  uint16_t code = 0;
  std::string payload;
};

class WsDecoder {
 public:
  static constexpr size_t kDefaultMaxMessage = 4096;

  explicit WsDecoder(size_t max_message = kDefaultMaxMessage) : max_message_(max_message) {}

  void Feed(std::string_view bytes);
  // The next event, or false when more bytes are needed.  After a close or an error nothing
  // more is decoded: the connection is ending.
  bool Next(WsEvent& out);
  bool ended() const { return ended_; }

 private:
  bool Error(WsEvent& out, uint16_t code, std::string_view why);

  size_t max_message_;
  std::string buffer_;
  size_t read_ = 0;      // start of the undecoded bytes in buffer_
  std::string message_;  // a fragmented text message so far
  bool in_message_ = false;
  bool ended_ = false;
};

}  // namespace qx
