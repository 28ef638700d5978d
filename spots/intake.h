// Spot intake: every spot -- typed by a local user (as a "PC61" sentence made by the DX
// command), received from a node ("PC11", "PC61") or delivered by a feed -- passes the same
// checks in the same order.  A refused spot is dropped, most refusals leaving one line in a
// dated rejection log and a marker in the node's own spot list; an accepted one is handed
// back to the caller for distribution, relay and the history.
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "core/time_text.h"
#include "spots/spot.h"

namespace qx {

class BadLists;
class BandTable;
class DupeDetector;
class ErrorLog;
class Monitor;
class ProgramDir;
class SpotRateLimiter;
class StreamTable;

enum class SpotVerdict : uint8_t {
  kAccepted,
  kDoubleQuestionMark,  // "??" in the comment
  kFieldCount,          // not 10 to 13 fields
  kBadDateTime,         // a date or time that does not exist ("31-Feb-2026", "2561Z")
  kOutOfTime,           // more than an hour old, or more than 15 minutes ahead of our clock
  kRefusedAddress,      // spotter address in ipnotok.dat
  kTorAddress,          // spotter address in torlist.dat
  kInvalidDxCall,       // the call check refused the DX call
  kSpotterNok,          // spotter in SpotterNok
  kSpotterTooLong,      // a spotter call longer than any call the log-in accepts
  kNodeNok,             // origin node in NodeNok
  kBadFrequency,        // on no band of the band table
  kRequest,             // "PSE QSL" and the like
  kBadWord,             // bad word in the comment
  kBadPhrase,           // bad phrase in the comment
  kBadWordSpotter,
  kBadWordDx,
  kDxNok,                  // DX call in DxNok
  kSpotterNotIssued,       // a call no country issues
  kSpotterCountryUnknown,  // no country for the spotter
  kDuplicate,
  kRateLimited,
};

std::string_view VerdictName(SpotVerdict verdict);

struct IntakeRequest {
  std::string_view sentence;
  int source_stream = 0;
  bool is_local = false;  // a local user's DX command
  SpotSource source = SpotSource::kCluster;
  // Feed input that is known to carry no requests (skimmer and reporter spots, whose
  // comments the feed builds itself) skips the request filter.
  bool skip_request_filter = false;
  // Feed spots, whose repeats the feed judges itself, neither meet nor fill the duplicate
  // detector of people's and nodes' spots.
  bool skip_dupe_check = false;
  // A "PC11" carries no address; when the caller knows the spotter's address (a user of
  // this node, or one a node announced), it is checked against the address lists here.
  std::string_view known_address;
  // A trial (DXTEST): every check runs, but nothing is remembered: no duplicate record, no
  // rate count, no log, nothing in the spot list, no offence counted against the address.
  bool trial = false;
  // What a neighbour of this software sent beside the sentence (mode and whether it was
  // stated, source kind, skimmer verdict and count, locators, the Id at the origin); the
  // accepted spot takes these fields from it.  Null for PC11, PC61 and local spots.
  const Spot* carried = nullptr;
};

struct IntakeResult {
  SpotVerdict verdict = SpotVerdict::kAccepted;
  // For a local user only: the line to send back ("Error - Invalid Dx Call" and CR LF).
  std::string_view reply;
  // The accepted spot; valid until the next call of Process.
  const Spot* spot = nullptr;
  bool accepted() const { return verdict == SpotVerdict::kAccepted; }
};

// A spot intake refused, kept for the sysop's console: what it was, and why in words.
struct SpotRefusal {
  SysTime time{};
  // The spot's fields as far as they were read; a sentence that could not be read at all
  // stands whole in the comment slot.
  Spot spot;
  SpotVerdict verdict = SpotVerdict::kAccepted;
  // The rule that fired and where it comes from: "bad word: FT8SPAM (badwords.txt)".
  std::string rule;
};

struct IntakeDeps {
  BadLists* bad_lists = nullptr;     // required
  const BandTable* bands = nullptr;  // required
  DupeDetector* dupes = nullptr;     // null: no duplicate test
  SpotRateLimiter* rates = nullptr;  // null: no rate limits
  // The call-sign check (upper-cases the call in place); null accepts every call.
  std::function<bool(std::string& call)> valid_call;
  // The country of a call, or nullptr; null function: no country known.
  std::function<const CountryInfo*(std::string_view call)> country_of;
  const ProgramDir* dir = nullptr;       // null: no rejection logs are written
  ErrorLog* error_log = nullptr;         // where a log that cannot be written is reported
  Monitor* monitor = nullptr;            // the spot list (kSpots channel)
  const StreamTable* streams = nullptr;  // the sending stream's call for the logs
  const Clock* clock = nullptr;          // required
  std::string node_call;
  // The next node-wide spot number, asked once per accepted spot (never for a trial); null:
  // spots stay unnumbered.
  std::function<uint64_t()> next_id;
};

struct IntakeOptions {
  // Show " Dropped, Bad Spotter" in the spot list as soon as a refused spotter is seen while
  // the fields are copied (the verbose level of the spotter refusal).
  bool show_dropped_bad_spotter = false;
  // Minutes from UTC to the node's local time, for the "HHnn" of the bad-word log.
  int local_offset_minutes = 0;
  // Log "PC61" sentences whose address field is empty or not an IP address (Newpc61.log).
  bool log_odd_pc61_address = true;
  // A spot older than this, or further ahead of the node's clock, is no news: it is refused
  // (as peers do), and its time never stands in a user's line as if it were now.
  std::chrono::seconds max_age{3600};
  std::chrono::seconds max_ahead{900};
};

class SpotIntake {
 public:
  SpotIntake(IntakeDeps deps, IntakeOptions options = {});

  IntakeResult Process(const IntakeRequest& request);

  // Appends one line to the rejection log the reason selects: "Bad Node" and reasons that
  // begin "NodeNok" to badnodes/, reasons whose first ten characters are "SpotterNok" to
  // badspotters/, every other reason to badspots/.  The line is the UTC time "HHnn:ssZ",
  // a blank, the reason and the sentence.
  void WriteRejection(std::string_view reason, std::string_view sentence);

  // True when a word of text is a bad word; logs the hit to badinfo/<day>.log (the spot's
  // fields joined with "^", a blank, the local time "HHnn", then "BadWordCheck" and label).
  bool BadWordCheck(std::string_view text, const Spot& spot, std::string_view label);

  // The last refusals (not of trials), oldest first: up to kRecentRefusals duplicates and as
  // many of the other reasons.  Valid until the next call of Process.
  std::vector<const SpotRefusal*> RecentRefusals() const;
  static constexpr size_t kRecentRefusals = 1000;

  const IntakeOptions& options() const { return options_; }
  void set_options(const IntakeOptions& options) { options_ = options; }

 private:
  IntakeResult Check(const IntakeRequest& request);
  // rule is the refusal in words for the sysop; spot_read says whether spot_ holds this
  // sentence's fields yet.
  IntakeResult Refuse(SpotVerdict verdict, std::string rule = {}, bool spot_read = true);
  void NoteOffence(std::string_view address);
  void ShowInSpotList(std::string_view country_column, std::string_view marker,
                      std::string_view colour);
  void Append(std::string_view folder, std::string_view file, std::string_view line);
  std::string_view SourceCall() const;

  IntakeDeps deps_;
  IntakeOptions options_;
  Spot spot_;
  std::string upper_comment_;
  std::string sentence_;               // the sentence of the spot in hand, for the logs
  std::string day_;                    // date text of the logs' file names
  bool trial_ = false;                 // the request in hand is a trial
  std::string bad_word_;               // the word BadWordCheck found last
  std::string_view request_sentence_;  // the sentence in hand, during Check
  std::deque<SpotRefusal> refusals_;
  std::deque<SpotRefusal> duplicates_;
};

// --- the rules intake applies, exposed for the history loader and for tests -------------

// Mode bits from an upper-cased comment; the first keyword in this order decides: "FT8",
// "FT4", "FT-8", "FT-4", "FOX" or "F/H", "PSK", "RTTY", "MSK".  Comments of 2 characters
// or less give 0.
uint32_t ClassifyMode(std::string_view upper_comment);
// The mode word a skimmer comment starts with ("CW", "RTTY", ...; "PSK31" gives "PSK"), ""
// when its first word names no mode.
std::string_view SkimmerModeWord(std::string_view upper_comment);
// The skimmer verification's tag, the comment's last word: "V3" verified by 3, "Q2" QSY,
// "?1" unverified, "B(K1ABC)" busted (count 0).  False, with 0 and 0, when the last word is
// no tag.
bool ReadSkimmerTag(std::string_view comment, char& verdict, int& count);
// The request filter on an upper-cased comment of at least 4 characters: true to drop.
bool IsRequestComment(std::string_view upper_comment);
// Beacons: DX call ending "/B", "/BC", "/BCN" or "/BEACON", or the word "BCN" in the comment.
bool IsBeaconSpot(std::string_view dx_call, std::string_view upper_comment);
// A dotted IPv4 address or an IPv6 address (with ":").
bool IsIpAddress(std::string_view text);

// Fills the slots of spot from a "PC11"/"PC61"-shaped sentence (10 to 13 fields) and sets
// FrequencyKHz (decimal point or comma) with the frequency slot as its rounded text.  Control
// characters are left out of every slot, so whatever a sender or an old file held, no slot
// can carry them to a user's terminal.  False when the field count is wrong.  Used by intake
// and by the history loader.
bool SpotFromSentence(std::string_view sentence, Spot& spot);

}  // namespace qx
