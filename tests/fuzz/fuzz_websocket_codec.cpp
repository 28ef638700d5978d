// Client bytes in pieces of a size the first byte chooses: the decoder must give the same
// events as when fed everything at once, stop after a close or a fault, never hand out a
// text message past its bound or one that is not UTF-8, and name a close code for every
// fault that the protocol lets a server send.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>
#include <vector>

#include "frontend/websocket_codec.h"

namespace {

using namespace qx;

void Require(bool condition) {
  if (!condition) std::abort();
}

std::vector<WsEvent> Decode(std::string_view bytes, size_t piece) {
  WsDecoder decoder(256);
  std::vector<WsEvent> events;
  for (size_t i = 0; i < bytes.size(); i += piece) {
    decoder.Feed(bytes.substr(i, piece));
    WsEvent e;
    while (decoder.Next(e)) events.push_back(e);
  }
  return events;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const size_t piece = 1 + data[0] % 32;
  const std::string_view bytes(reinterpret_cast<const char*>(data) + 1, size - 1);
  const std::vector<WsEvent> whole = Decode(bytes, bytes.size() + 1);
  const std::vector<WsEvent> pieces = Decode(bytes, piece);
  Require(whole.size() == pieces.size());
  for (size_t i = 0; i < whole.size(); ++i) {
    const WsEvent& e = whole[i];
    Require(e.kind == pieces[i].kind && e.code == pieces[i].code && e.payload == pieces[i].payload);
    const bool last = e.kind == WsEvent::Kind::kClose || e.kind == WsEvent::Kind::kError;
    Require(!last || i + 1 == whole.size());  // nothing is decoded after the end
    if (e.kind == WsEvent::Kind::kText) Require(e.payload.size() <= 256 && ValidUtf8(e.payload));
    if (e.kind == WsEvent::Kind::kError) {
      Require(e.code == kWsProtocolError || e.code == kWsUnsupportedData ||
              e.code == kWsInvalidText || e.code == kWsMessageTooBig);
    }
  }
  return 0;
}
