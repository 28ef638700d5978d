// The request target of a WebSocket stream or an HTTP poll as the front-end hands it over in
// the connection's kind ("ws:/stream?since=120&filter=..." or "http:/spots?limit=50"), read
// into what the node acts on.  Pure code; the target comes from the network, so every byte of
// it is untrusted: percent escapes are decoded, control characters are left out of the
// values, and sizes are bounded.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace qx {

// Decodes "%41" escapes and, in a query, "+" as a blank.  A "%" without two hex digits stays
// as it is.  Control characters (also when escaped) are left out.
std::string PercentDecode(std::string_view text, bool plus_is_blank);

// A target's path and its query parameters in order, decoded.  At most kMaxParams parameters
// are kept; a target longer than kMaxTarget is refused.
struct Target {
  static constexpr size_t kMaxParams = 32;
  static constexpr size_t kMaxTarget = 8192;
  std::string path;
  std::vector<std::pair<std::string, std::string>> params;
  // The first value of key ("" when absent); present tells whether it was there at all.
  std::string_view Get(std::string_view key, bool* present = nullptr) const;
};
bool ParseTarget(std::string_view target, Target& out);

enum class StreamKind : uint8_t { kWebSocket, kHttpPoll };

// What a WebSocket stream carries, as its "types" parameter names them ("spot,announce", or
// "all").  Without the parameter a stream carries spots only, as it always has.
enum StreamType : uint8_t {
  kStreamSpots = 1u << 0,     // spot
  kStreamAnnounce = 1u << 1,  // announce: announcements to ALL and WX
  kStreamWwv = 1u << 2,       // wwv
  kStreamWcy = 1u << 3,       // wcy
  kStreamAllTypes = kStreamSpots | kStreamAnnounce | kStreamWwv | kStreamWcy,
};

struct StreamRequest {
  static constexpr size_t kDefaultLimit = 100;
  static constexpr size_t kMaxLimit = 1000;

  StreamKind kind = StreamKind::kWebSocket;
  bool has_since = false;
  uint64_t since = 0;
  size_t limit = kDefaultLimit;  // HTTP polls
  std::string filter;            // rule text as ACCEPT/REJECT take it; rules split by ";"
  std::string call;
  std::string password;
  uint8_t types = kStreamSpots;  // StreamType bits
  // 200 when the request can be served; otherwise the HTTP status that says why (400 bad
  // parameter, 404 unknown path) and error says it in words.
  int status = 200;
  std::string error;
};

// True when kind names a stream of this kind ("ws:" or "http:" first).
bool IsJsonStreamKind(std::string_view kind);
// Reads "ws:<target>" or "http:<target>".  WebSocket streams are served on /stream, polls on
// /spots.
StreamRequest ParseStreamKind(std::string_view kind);

}  // namespace qx
