// The node's messages as JSON objects for programs: spots, announcements, talk, WWV and WCY
// reports, command replies, heartbeats, gaps, errors and the greeting.  Pure code: nothing here
// knows a socket or a clock (times come in).  Every object is one line ended by CR LF; text of
// any origin is escaped, so a bell or escape sequence in a comment reaches a program as "\u0007"
// and never as the byte.  The schema is versioned ("v"), and keys whose value is unknown are
// left out rather than sent empty (docs/json-stream.md).
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "core/time_text.h"
#include "spots/spot.h"

namespace qx {

inline constexpr int kJsonSchemaVersion = 1;

// Appends text as a quoted JSON string: quote, backslash and control characters escaped, bytes
// that are not UTF-8 replaced by U+FFFD (a peer's Latin-1 comment must not make the line
// unreadable to a strict parser).
void AppendJsonString(std::string& out, std::string_view text);
// "2026-11-24T21:54:00Z".
std::string IsoTime(SysTime t);

// What the caller knows of a spot beyond its record (worked out once per spot).
struct SpotJsonFacts {
  std::string_view band;         // "20m"; "" off every band
  std::string_view mode;         // "CW"; "" unknown
  std::string_view mode_source;  // "comment", "inferred" or "feed"
  std::string_view dx_grid;      // "" unknown
  std::string_view spotter_grid;
};

// Appends the spot's object and CR LF.
void AppendSpotJson(std::string& out, const Spot& spot, const SpotJsonFacts& facts);

// An announcement: to is "ALL", "SYSOP" or "WX".
std::string AnnounceJson(SysTime time, std::string_view from, std::string_view to,
                         std::string_view text);
std::string TalkJson(SysTime time, std::string_view from, std::string_view to,
                     std::string_view text);
// A WWV or WCY line as users see it ("WWV de W1AW <18>: SFI=150, A=5, K=2"); its KEY=value
// items become keys of their own (lower case, whole numbers as numbers).  kind: "wwv"/"wcy".
std::string PropagationJson(std::string_view kind, SysTime time, std::string_view line);
std::string ReplyJson(const std::vector<std::string_view>& lines);
std::string HeartbeatJson(SysTime time, uint64_t last_id);
// Spots after `after` were forgotten; the next spot sent is `next` (0: none kept).
std::string GapJson(uint64_t after, uint64_t next);
// count spot lines were dropped for this stream while the node's link was overloaded (the
// front-end says the same, with no "v", when a WebSocket client itself reads too slowly).
std::string DroppedJson(uint64_t count);
std::string HelloJson(SysTime time, std::string_view node_call, std::string_view version,
                      std::string_view user, bool read_only, uint64_t last_id);
std::string ErrorJson(std::string_view text);

// The text the node sends a terminal user, as objects for a user in JSON mode: announcements,
// WX, talk to own_call, WWV and WCY lines get their own types; whatever else one piece of text
// holds (a command's answer) becomes one reply object with its lines.  Empty text gives "".
std::string TextAsJson(std::string_view text, std::string_view own_call, SysTime now);

}  // namespace qx
