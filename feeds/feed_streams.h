// What the node needs to keep feed connections up and to tell about them, without sockets:
// the kinds of feed stream, the log-in prompt of a feed server, the back-off between
// attempts, the health rules (garbage, floods, stalls), per-feed counters with a rate, the
// recent reports kept for SKIMMER/STATUS, and the status lines themselves.  The clock comes
// in with each call.
#pragma once

#include <array>
#include <cstdint>
#include <deque>
#include <string>
#include <string_view>
#include <vector>

#include "core/time_text.h"
#include "feeds/skimmer_verifier.h"

namespace qx {

// What a feed server sends.  The stream states are those of the stream table.
enum class FeedStreamKind : uint8_t {
  kSkimmer,     // one skimmer (a station's own, or one logged in as kind "SKM")
  kRbn,         // the reverse beacon network's CW and RTTY reports
  kRbnDigital,  // its FT8 and FT4 reports
};

// "SKIMMER" or "SKM"; "RBN" or "RBN CW"; "RBN FT8", "RBN DIGITAL" or "FT8" (case and extra
// blanks ignored).  False for anything else.
bool FeedStreamKindFromText(std::string_view text, FeedStreamKind& out);
int FeedStreamState(FeedStreamKind kind);
// The kind of a feed stream state; false when the state is no feed's.
bool FeedStreamKindOfState(int state, FeedStreamKind& out);
// The type WHO shows: "SKIMMER", "RBN", "RBN FT8".
std::string_view FeedWhoType(FeedStreamKind kind);

// The feed server's question for a call ("Please enter your call: ", "login: ").
bool IsCallPrompt(std::string_view text);

// Seconds to wait before the next attempt: 5 after the first failure, doubling up to 300.
// A connection that stayed up and healthy for a while starts the sequence again.
class FeedBackoff {
 public:
  static constexpr int kFirst = 5;
  static constexpr int kMax = 300;

  int NextDelay();
  void Reset() { failures_ = 0; }
  int failures() const { return failures_; }

 private:
  int failures_ = 0;
};

// Limits that make a feed connection be dropped (and called again after the back-off).
struct FeedHealthLimits {
  int64_t stall_seconds = 300;         // no line at all for this long
  int max_lines_per_second = 2000;     // lines past this in one second are dropped (counted)
  int64_t flood_seconds = 30;          // ... and a feed over the limit this many seconds is cut
  int max_garbage_in_a_row = 200;      // lines that are no report, one after the other
  int64_t healthy_after_seconds = 60;  // up this long with reports: the back-off starts over
};

// Counts for one feed (or for the node's whole reporter feed).
struct FeedCounts {
  uint64_t lines = 0;
  uint64_t reports = 0;   // lines read as skimmer reports
  uint64_t garbage = 0;   // lines that were not, after log-in
  uint64_t flooded = 0;   // lines dropped by the rate limit
  uint64_t verified = 0;  // verdicts: verified or QSY
  uint64_t busted = 0;
  uint64_t unverified = 0;
  uint64_t refused = 0;   // skimmer or DX call refused, no band
  uint64_t passed = 0;    // handed to intake
  uint64_t accepted = 0;  // taken by intake
  uint64_t connects = 0;
  uint64_t drops = 0;

  void Count(const SkimmerDecision& decision);
};

// Events per minute over the last minute, in one-second buckets (no allocation).
class FeedRate {
 public:
  void Add(int64_t now_seconds, uint32_t n = 1);
  uint32_t PerMinute(int64_t now_seconds) const;
  // How many were added in that second (0 once it has left the last minute).
  uint32_t InSecond(int64_t second) const;

 private:
  void Advance(int64_t now_seconds) const;
  mutable std::array<uint32_t, 60> buckets_{};
  mutable int64_t last_ = 0;
};

// One skimmer report as SKIMMER/STATUS <call> shows it.
struct RecentReport {
  SysTime at{};
  std::string dx_call;
  std::string spotter;
  std::string freq_text;
  std::string mode_column;  // "CW    18 dB"
  SkimmerVerdict verdict = SkimmerVerdict::kUnverified;
  int skimmers = 0;
};

// The last reports of every call, newest last, in a ring of fixed size.
class RecentReports {
 public:
  explicit RecentReports(size_t capacity = 4096) : capacity_(capacity) {}
  void Add(RecentReport report);
  // The reports of a call (upper case), newest first, at most max.
  std::vector<const RecentReport*> Of(std::string_view call, size_t max) const;

 private:
  size_t capacity_;
  std::deque<RecentReport> ring_;
};

// One feed as the status and the console show it.
struct FeedStatus {
  std::string name;
  std::string type;   // FeedWhoType, or "REPORTER"
  std::string state;  // "connected", "logging in", "connecting", "waiting", "off"
  std::string peer;   // host:port
  uint32_t lines_per_minute = 0;
  uint32_t spots_per_minute = 0;
  FeedCounts counts;
};

// The SKIMMER/STATUS reply: a line per feed with its rates and counts, then with a call the
// call's recent reports.
std::vector<std::string> FeedStatusLines(const std::vector<FeedStatus>& feeds,
                                         std::string_view call,
                                         const std::vector<const RecentReport*>& reports);

// "mqtt.example.org", "mqtt://mqtt.example.org:1883/", "tcp://10.0.0.1" with the port key
// as fallback: host and port of the broker.  False when no host is named.
bool ParseBrokerAddress(std::string_view url, std::string_view port_text, std::string& host,
                        int& port);

}  // namespace qx
