// What a user asks of SH/DX, read from the words after the command.  The forms combine in any
// order:
//   <n>              how many spots (default and ceiling from the configuration)
//   <call|prefix>    DX calls beginning so ("K1ABC", "VP8", "VP8*")
//   ON <band>        one band ("20M", "160m")
//   BY <call>        one spotter (with or without SSID)
//   DAY <n>          the daily file of n days back instead of the spots in memory (0: today)
//   INFO <text>      comments holding the text
//   ALL              the user's filters are not asked
// A band name on its own ("SH/DX 20M") is taken as ON.  A word that fits no form, a keyword
// without its argument or a form given twice is an error, so a typing slip never shows a
// listing the user did not ask for.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "spots/spot_history.h"

namespace qx {

class BandTable;

// How far back DAY may reach.
inline constexpr int kMaxShowDxDays = 366;

struct ShowDxRequest {
  SpotQuery query;  // count, call, band, spotter and comment; accept is left to the caller
  int day = -1;     // -1: the spots in memory; otherwise the daily file of that many days back
  bool all = false;
};

// False with a short reason in *error when the words do not form a request.
bool ParseShowDx(std::string_view args, const BandTable& bands, size_t default_count,
                 size_t max_count, ShowDxRequest& out, std::string* error);

}  // namespace qx
