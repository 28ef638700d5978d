// Reception reports of the digital-mode reporter network, as its message broker publishes
// them (topic "pskr/filter/v2/<band>/<mode>/<sender>/<receiver>/...", a JSON object):
//
//   {"sq":30142870791,"f":14074653,"md":"FT8","rp":-12,"t":1662407712,"sc":"K1ABC",
//    "sl":"FN42ab","rc":"DL1XYZ","rl":"JO31","sa":291,"ra":230,"b":"20m"}
//
// f is in Hz, rp the signal-to-noise ratio, t the Unix time of reception, sc and sl the
// sender (the DX station) and its locator, rc and rl the receiver.  Each report becomes a
// spot by the receiver at the pseudo-node "REP0RTER"; the many receivers that hear one
// station become one spot per window that says how many heard it.  Pure code: the clock
// comes in with each call; nothing is written.
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>

#include "core/time_text.h"
#include "spots/bands.h"

namespace qx {

inline constexpr std::string_view kReporterOriginNode = "REP0RTER";

struct ReporterReport {
  uint64_t sequence = 0;  // sq, 0 when absent
  int64_t hz = 0;
  std::string mode;  // md, upper case
  bool has_snr = false;
  int snr_db = 0;
  bool has_time = false;
  int64_t unix_time = 0;
  std::string sender;         // sc, upper case
  std::string sender_grid;    // the first four characters of sl when it is a locator
  std::string receiver;       // rc, upper case
  std::string receiver_grid;  // rl, likewise
  std::string band;           // b, as sent
};

enum class ReporterError : uint8_t {
  kNone,
  kTooLong,  // larger than any report
  kNotJson,
  kNotObject,
  kBadFrequency,  // f missing, not a number, or not positive
  kBadMode,       // md missing or not a short word
  kBadSender,     // sc missing or not shaped like a call
  kBadReceiver,   // rc likewise
  kBadSnr,        // rp present but not a number in range
  kBadTime,       // t present but not a number
};

std::string_view ReporterErrorName(ReporterError error);

// Reads one payload.  Never throws: text that is not JSON, or fields of the wrong type, give
// an error.  Fields that do not matter to a spot (sa, ra, the receiver's locator when
// malformed) are ignored.
ReporterError ParseReporterPayload(std::string_view payload, ReporterReport& out,
                                   size_t max_payload = 4096);

struct ReporterSettings {
  std::chrono::seconds window{300};    // one spot per DX call, band and mode in this time
  std::chrono::seconds hold{30};       // a new spot waits this long for more receivers
  std::chrono::seconds max_age{3600};  // older reports are no news
  std::chrono::seconds max_ahead{900};
  size_t max_entries = 1u << 15;  // DX calls, bands and modes held at most
  size_t max_payload = 4096;
  std::string hops = "H30";
};

enum class ReporterOutcome : uint8_t {
  kSpot,       // sentence is the spot (a hold of zero)
  kHeld,       // the first report of the station: its spot comes from TakeDue
  kCollapsed,  // counted into a spot held or already sent
  kRejected,   // error says why
  kOffBand,
  kStale,  // its time is too old or too far ahead
};

std::string_view ReporterOutcomeName(ReporterOutcome outcome);

struct ReporterResult {
  ReporterOutcome outcome = ReporterOutcome::kRejected;
  ReporterError error = ReporterError::kNone;
  std::string sentence;  // kSpot: what intake takes (FeedIntakeRequest, kReporter)
};

class ReporterFeed {
 public:
  static constexpr int kMaxReceiversCounted = 32;

  explicit ReporterFeed(const BandTable& bands, ReporterSettings settings = {});

  // One payload; the result is valid until the next call.
  const ReporterResult& Offer(std::string_view payload, SysTime now);
  // Hands on each held spot whose hold has passed, oldest first, and forgets stations whose
  // window has passed.  Call it at NextDue() (and about once a second for the expiry).
  // Returns the number of spots.
  size_t TakeDue(SysTime now, const std::function<void(std::string_view sentence)>& on_spot);
  // When the oldest held spot falls due, to the clock's full resolution (so that a caller
  // with a timer hands it on then, not up to a tick later); nullopt when none is held.
  std::optional<SysTime> NextDue() const;

  size_t entries() const { return entries_.size(); }
  // Held spots lost because the table was full before their hold passed.
  size_t lost() const { return lost_; }

 private:
  struct Entry {
    uint64_t generation = 0;
    int64_t created = 0;
    bool released = false;
    int receivers = 0;
    uint64_t receiver_hashes[kMaxReceiversCounted] = {};
    std::string sender;
    std::string mode;
    uint32_t band = 0;
    std::string receiver;  // the first receiver: the spotter
    std::string grid;
    bool has_snr = false;
    int snr_db = 0;
    double khz = 0;
    int64_t spot_time = 0;
  };
  struct Item {
    uint64_t key;
    uint64_t generation;
    int64_t at;
  };
  struct DueItem {
    uint64_t key;
    uint64_t generation;
    SysTime at;
  };

  void Expire(int64_t now);
  void Release(Entry& entry, std::string& out) const;
  static void Count(Entry& entry, std::string_view receiver);

  const BandTable& bands_;
  ReporterSettings settings_;
  ReporterResult result_;
  ReporterReport report_;
  std::unordered_map<uint64_t, Entry> entries_;
  std::deque<Item> made_;        // creation order, for expiry and eviction
  std::deque<DueItem> pending_;  // held spots in the order they fall due
  uint64_t next_generation_ = 1;
  size_t lost_ = 0;
  std::string due_sentence_;
};

}  // namespace qx
