// The records the front-end writes to the node's link.  Each record is fields joined by "^"
// and ended by Chr 3.  The writers append to a caller's buffer so that a batch of records
// for one link write costs no allocation once the buffer has grown.
//
// Only the data of "AA00" is passed through as it stands (it may hold "^"; the caller has
// already removed Chr 3 from it).  Every other text field is cleaned: "^", Chr 3 and Chr 4
// would break the record apart, so they are left out.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <utility>

#include "core/stream_table.h"  // CleanStreamAttributes

namespace qx {

inline constexpr char kRecordEnd = '\x03';   // ends a record to the node (ETX)
inline constexpr char kMessageEnd = '\x04';  // ends a message from the node (EOT)

// "AA03^Connect Request^<stream>^<peer>^<tag>^<kind>^<port index>"
void AppendConnectRequest(std::string& out, int stream, std::string_view peer, uint64_t tag,
                          std::string_view kind, int port_index);
// "AA00^<stream>^<data>"
void AppendStreamData(std::string& out, int stream, std::string_view data);
// "AA17^<tag>^<stream>^<reason>"
void AppendStreamClosed(std::string& out, uint64_t tag, int stream, std::string_view reason);
// "AA18"
void AppendKeepAlive(std::string& out);
// "AA21": the answer to the node's hand-over; input is held from here on.
void AppendInputHeld(std::string& out);
// "QRV <station text>^<version>^<proof>": the front-end's answer once the node has proved
// that it knows the link secret; the proof shows the node that the front-end knows it too.
void AppendAnnounce(std::string& out, std::string_view station_text, std::string_view version,
                    std::string_view proof);
// "AA40^<feature>,...": what this front-end understands beyond the messages every node
// sends, right after "QRV".  A node that knows none of it ignores the record.
void AppendCapabilities(std::string& out, std::string_view features);
// "AA39^<nonce>": the challenge to a new connection on the link port after its greeting.
void AppendChallenge(std::string& out, std::string_view nonce);
// "AA01^<count>^<s1>,<s2>,..."
void AppendStreamList(std::string& out, std::span<const int> streams);
// "AA38^<tag>^<stream>^<peer>^<port index>^<call>^<state>^<kind>^<attributes>"
struct StreamReport {
  uint64_t tag = 0;
  int stream = 0;
  std::string_view peer;
  int port_index = 0;
  std::string_view call;
  int state = 0;
  std::string_view kind;
  std::string_view attributes;
};
void AppendStreamReport(std::string& out, const StreamReport& report);

// "AA19^<label>^<reason>"
void AppendOpenFailed(std::string& out, std::string_view label, std::string_view reason);
// "AA20^<name>=<value>^<name>=<value>..."; names are made of a-z, 0-9 and "_".
void AppendCounters(std::string& out,
                    std::span<const std::pair<std::string_view, uint64_t>> values);

}  // namespace qx
