// /metrics in the Prometheus text format, made from a snapshot of the node's numbers.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "console/console_model.h"

namespace qx {

std::string FormatMetrics(const ConsoleMetrics& m);

// The console's own connections: what is open, what was refused and what the server closed.
struct ConsoleConnectionStats {
  size_t http = 0;                      // plain HTTP connections open
  size_t live_views = 0;                // WebSockets open (or opening)
  uint64_t refused_full = 0;            // no slot free and none could be freed
  uint64_t refused_live_views = 0;      // a WebSocket over its own cap (503)
  uint64_t closed_idle_evicted = 0;     // idle, closed to make room for a new connection
  uint64_t closed_stalled_evicted = 0;  // header unfinished too long, closed to make room
  uint64_t closed_idle_timeout = 0;     // nothing sent within the idle (or first-header) time
  uint64_t closed_header_timeout = 0;   // header started but not finished in time (408)
  uint64_t closed_body_timeout = 0;     // body not finished in time (408)
  uint64_t logins_refused = 0;          // 429: one from the same address under way, or too many
};

std::string FormatConnectionMetrics(const ConsoleConnectionStats& s);

}  // namespace qx
