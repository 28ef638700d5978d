#include "frontend/websocket_codec.h"

#include <openssl/sha.h>

#include <array>

namespace qx {
namespace {

constexpr std::string_view kBase64 =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
// Fixed by the protocol: the server proves it read the key by hashing it with this.
constexpr std::string_view kHandshakeGuid = "258EAFA5-E914-47DA-95CA-C5AB0DC85B11";

std::string Base64(const unsigned char* data, size_t n) {
  std::string out;
  for (size_t i = 0; i < n; i += 3) {
    const uint32_t chunk = uint32_t(data[i]) << 16 | (i + 1 < n ? uint32_t(data[i + 1]) << 8 : 0) |
                           (i + 2 < n ? uint32_t(data[i + 2]) : 0);
    out.push_back(kBase64[chunk >> 18 & 63]);
    out.push_back(kBase64[chunk >> 12 & 63]);
    out.push_back(i + 1 < n ? kBase64[chunk >> 6 & 63] : '=');
    out.push_back(i + 2 < n ? kBase64[chunk & 63] : '=');
  }
  return out;
}

bool ValidCloseCode(uint16_t code) {
  // The codes a peer may put on the wire; 1004-1006 and 1015 are reserved for reports.
  return (code >= 1000 && code <= 1003) || (code >= 1007 && code <= 1014) ||
         (code >= 3000 && code <= 4999);
}

}  // namespace

bool ValidWebSocketKey(std::string_view key) {
  if (key.size() != 24 || key.substr(22) != "==") return false;
  for (char c : key.substr(0, 22)) {
    if (kBase64.find(c) == std::string_view::npos) return false;
  }
  // 16 bytes leave the last character's low four bits unused; they must be zero.
  return kBase64.find(key[21]) % 16 == 0;
}

std::string WebSocketAccept(std::string_view key) {
  const std::string text = std::string(key) + std::string(kHandshakeGuid);
  std::array<unsigned char, SHA_DIGEST_LENGTH> digest{};
  SHA1(reinterpret_cast<const unsigned char*>(text.data()), text.size(), digest.data());
  return Base64(digest.data(), digest.size());
}

std::string EncodeWsFrame(WsOpcode opcode, std::string_view payload) {
  std::string out;
  out.reserve(payload.size() + 10);
  out.push_back(char(0x80 | uint8_t(opcode)));
  const uint64_t n = payload.size();
  if (n < 126) {
    out.push_back(char(n));
  } else if (n <= 0xFFFF) {
    out.push_back(char(126));
    out.push_back(char(n >> 8));
    out.push_back(char(n & 0xFF));
  } else {
    out.push_back(char(127));
    for (int shift = 56; shift >= 0; shift -= 8) out.push_back(char((n >> shift) & 0xFF));
  }
  out.append(payload);
  return out;
}

std::string EncodeWsClose(uint16_t code, std::string_view reason) {
  std::string payload;
  payload.push_back(char(code >> 8));
  payload.push_back(char(code & 0xFF));
  payload.append(reason.substr(0, 123));  // a control frame holds at most 125 bytes
  return EncodeWsFrame(WsOpcode::kClose, payload);
}

bool ValidUtf8(std::string_view text) {
  size_t i = 0;
  while (i < text.size()) {
    const auto c = uint8_t(text[i]);
    if (c < 0x80) {
      ++i;
      continue;
    }
    size_t len = 0;
    uint32_t cp = 0;
    if (c >= 0xC2 && c <= 0xDF) {
      len = 2;
      cp = c & 0x1F;
    } else if (c >= 0xE0 && c <= 0xEF) {
      len = 3;
      cp = c & 0x0F;
    } else if (c >= 0xF0 && c <= 0xF4) {
      len = 4;
      cp = c & 0x07;
    } else {
      return false;
    }
    if (i + len > text.size()) return false;
    for (size_t k = 1; k < len; ++k) {
      const auto cc = uint8_t(text[i + k]);
      if ((cc & 0xC0) != 0x80) return false;
      cp = cp << 6 | (cc & 0x3F);
    }
    if ((len == 3 && cp < 0x800) || (len == 4 && cp < 0x10000) || cp > 0x10FFFF ||
        (cp >= 0xD800 && cp <= 0xDFFF)) {
      return false;
    }
    i += len;
  }
  return true;
}

void WsDecoder::Feed(std::string_view bytes) {
  if (ended_) return;
  if (read_ > 0 && read_ >= buffer_.size() / 2) {
    buffer_.erase(0, read_);
    read_ = 0;
  }
  buffer_.append(bytes);
}

bool WsDecoder::Error(WsEvent& out, uint16_t code, std::string_view why) {
  ended_ = true;
  out = WsEvent{WsEvent::Kind::kError, code, std::string(why)};
  buffer_.clear();
  message_.clear();
  return true;
}

bool WsDecoder::Next(WsEvent& out) {
  while (!ended_) {
    const std::string_view in = std::string_view(buffer_).substr(read_);
    if (in.size() < 2) return false;
    const auto b0 = uint8_t(in[0]);
    const auto b1 = uint8_t(in[1]);
    const bool fin = (b0 & 0x80) != 0;
    const auto opcode = WsOpcode(b0 & 0x0F);
    if ((b0 & 0x70) != 0) return Error(out, kWsProtocolError, "reserved bits set");
    if ((b1 & 0x80) == 0) return Error(out, kWsProtocolError, "unmasked frame from the client");
    size_t header = 2;
    uint64_t length = b1 & 0x7F;
    if (length == 126) {
      if (in.size() < 4) return false;
      length = uint64_t(uint8_t(in[2])) << 8 | uint8_t(in[3]);
      header = 4;
    } else if (length == 127) {
      if (in.size() < 10) return false;
      length = 0;
      for (size_t k = 2; k < 10; ++k) length = length << 8 | uint8_t(in[k]);
      header = 10;
    }
    const bool control = (uint8_t(opcode) & 0x08) != 0;
    switch (opcode) {
      case WsOpcode::kText:
      case WsOpcode::kContinuation:
        if ((opcode == WsOpcode::kContinuation) != in_message_) {
          return Error(out, kWsProtocolError,
                       in_message_ ? "new message inside a fragmented one"
                                   : "continuation without a message");
        }
        // Known from the header: a message past the bound is refused before it is read.
        if (length > max_message_ || message_.size() + length > max_message_) {
          return Error(out, kWsMessageTooBig, "message too big");
        }
        break;
      case WsOpcode::kBinary:
        return Error(out, kWsUnsupportedData, "binary messages are not taken");
      case WsOpcode::kClose:
      case WsOpcode::kPing:
      case WsOpcode::kPong:
        if (!fin || length > 125) return Error(out, kWsProtocolError, "bad control frame");
        break;
      default:
        return Error(out, kWsProtocolError, "unknown opcode");
    }
    if (in.size() < header + 4 + length) return false;
    const std::string_view mask = in.substr(header, 4);
    std::string payload(in.substr(header + 4, length));
    for (size_t k = 0; k < payload.size(); ++k) payload[k] = char(payload[k] ^ mask[k % 4]);
    read_ += header + 4 + length;

    if (!control) {
      message_ += payload;
      in_message_ = !fin;
      if (!fin) continue;
      if (!ValidUtf8(message_)) return Error(out, kWsInvalidText, "text is not UTF-8");
      out = WsEvent{WsEvent::Kind::kText, 0, std::move(message_)};
      message_.clear();
      return true;
    }
    if (opcode == WsOpcode::kPing) {
      out = WsEvent{WsEvent::Kind::kPing, 0, std::move(payload)};
      return true;
    }
    if (opcode == WsOpcode::kPong) {
      out = WsEvent{WsEvent::Kind::kPong, 0, std::move(payload)};
      return true;
    }
    // Close: a code of two bytes, or none at all; then a UTF-8 reason.
    if (payload.size() == 1) return Error(out, kWsProtocolError, "close frame of one byte");
    uint16_t code = kWsNoStatus;
    if (payload.size() >= 2) {
      code = uint16_t(uint8_t(payload[0]) << 8 | uint8_t(payload[1]));
      if (!ValidCloseCode(code)) return Error(out, kWsProtocolError, "bad close code");
      if (!ValidUtf8(std::string_view(payload).substr(2))) {
        return Error(out, kWsInvalidText, "close reason is not UTF-8");
      }
      payload.erase(0, 2);
    }
    ended_ = true;
    buffer_.clear();
    out = WsEvent{WsEvent::Kind::kClose, code, std::move(payload)};
    return true;
  }
  return false;
}

}  // namespace qx
