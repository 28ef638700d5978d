// The verification stage of skimmer spots: fed one parsed report at a time with the time it
// arrived, it decides whether the call is confirmed by several skimmers, a mis-decoding of a
// confirmed call, a confirmed call that moved, or not confirmed yet, and whether the spot
// goes on to intake.  Pure code: the clock comes in with each report; nothing is written.
//
// Memory is bounded whatever the rate: at most max_calls calls-on-a-band are held (the
// oldest made goes first when a new one needs room), each with at most kMaxReports
// skimmers, and an entry not heard from for the longest of the windows is swept away.
#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <deque>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "core/time_text.h"
#include "feeds/call_list.h"
#include "feeds/skimmer_line.h"
#include "spots/bands.h"

namespace qx {

class Config;

enum class SkimmerVerdict : uint8_t {
  kVerified,    // enough distinct skimmers agree on call and frequency
  kBusted,      // a mis-decoding of a verified call on the same frequency
  kQsy,         // a verified call heard again, away from where it was verified
  kUnverified,  // none of these (yet)
};

enum class SkimmerOutcome : uint8_t {
  kPass,            // goes on to intake: sentence is filled
  kHeld,            // not verified, and spots of its kind must be
  kBustedDropped,   // busted, and spots of its kind must be verified
  kDuplicate,       // the call went on on this band within the dupe window
  kRefusedSkimmer,  // the skimmer is on SkimmerNok
  kRefusedDx,       // the DX call is on SkimmerDxNok, or a CW call on the bad CW list
  kOffBand,         // the frequency is on no band
};

std::string_view SkimmerVerdictName(SkimmerVerdict verdict);
std::string_view SkimmerOutcomeName(SkimmerOutcome outcome);

struct VerifierSettings {
  std::chrono::seconds window{600};          // reports that count together
  std::chrono::seconds verified_hold{1800};  // a verified call is known this long after
  std::chrono::seconds dupe_window{600};     // one spot per call and band in this time
  double agree_khz = 0.3;  // skimmers agree when their frequencies lie within this
  double bust_khz = 0.1;   // a bust sits this close to the verified call
  double qsy_khz = 0.4;    // a verified call this far away has moved
  int min_skimmers = 3;
  // The four switches of the settings file.
  bool dupes_not_allowed = true;
  bool cw_verified = true;
  bool data_verified = true;
  bool vhf_uhf_verified = false;
  double vhf_from_khz = 30000;  // spots from here up count as VHF/UHF
  size_t max_calls = 1u << 16;  // calls-on-a-band held at most
  std::string origin_node;      // the node's call, the origin of the sentences
  std::string hops = "H30";
};

// The four switches from the settings ("True"/"False"); everything else stays as in base.
VerifierSettings VerifierSettingsFromConfig(const Config& config, VerifierSettings base = {});

struct VerifierLists {
  CallList skimmer_nok;     // skimmers whose reports are refused ("DL1ABC" or "DL1ABC-#")
  CallList skimmer_dx_nok;  // DX calls never taken from skimmers
  CallList do_not_verify;   // DX calls passed on without verification
  CallList bad_cw_dx;       // "BadCwSkDx.dat": calls that CW decoding is known to invent
  CallList known_calls;     // the known-calls database (MASTER.SCP)
};

// Fills the three lists kept in the settings; the two files are loaded by their owner.
void LoadVerifierListsFromConfig(const Config& config, VerifierLists& lists);

// True when reported is what a decoder makes of verified by one slip: one character
// changed, added or dropped, or one character read as the two whose Morse code together
// is its code ("A" as "ET", "H" as "SE"), or the other way round.
bool IsBustOf(std::string_view reported, std::string_view verified);

struct SkimmerDecision {
  SkimmerOutcome outcome = SkimmerOutcome::kHeld;
  SkimmerVerdict verdict = SkimmerVerdict::kUnverified;
  int skimmers = 0;            // distinct skimmers agreeing on this frequency in the window
  std::string corrected_call;  // kBusted: the verified call
  // Filled for kPass, kHeld, kBustedDropped and kDuplicate (empty for the refusals):
  std::string comment;   // the spot's comment with the tag at its end
  std::string sentence;  // kPass: what intake takes (FeedIntakeRequest, kSkimmer); the others:
                         // the spot as it would stand, for users who ask for raw reports
  // kBusted: a line for the day's busted log, data/busted/<busted_folder>/<busted_file>.
  std::string_view busted_folder;
  std::string busted_file;
  std::string busted_line;
};

class SkimmerVerifier {
 public:
  static constexpr int kMaxReports = 16;

  SkimmerVerifier(const BandTable& bands, VerifierSettings settings = {});

  // The decision on one report, valid until the next call.
  const SkimmerDecision& Decide(const SkimmerReport& report, SysTime now);

  VerifierLists& lists() { return lists_; }
  const VerifierSettings& settings() const { return settings_; }
  void set_settings(VerifierSettings settings) { settings_ = std::move(settings); }
  size_t calls_held() const { return entries_.size(); }

 private:
  struct Report {
    uint64_t skimmer = 0;
    double khz = 0;
    int64_t t = 0;
  };
  struct Entry {
    std::string call;
    uint32_t band = 0;
    uint64_t generation = 0;
    int64_t touched = 0;
    std::array<Report, kMaxReports> reports{};
    uint8_t count = 0;
    bool verified = false;
    double verified_khz = 0;
    int64_t verified_t = 0;
    uint64_t bucket = 0;  // where the entry stands in by_bucket_ while verified
    bool passed = false;
    double passed_khz = 0;
    int64_t passed_t = 0;
    SkimmerVerdict passed_verdict = SkimmerVerdict::kUnverified;
  };

  Entry& EntryFor(const std::string& call, uint32_t band, int64_t now);
  void Remove(uint64_t key);
  void Sweep(int64_t now);
  void SetVerifiedAt(Entry& entry, uint64_t key, double khz, int64_t now);
  void Unindex(const Entry& entry, uint64_t key);
  // Adds the report and returns how many skimmers agree with it; centre is their mean.
  int AddReport(Entry& entry, uint64_t skimmer, double khz, int64_t now, double& centre);
  const Entry* FindBustOf(const SkimmerReport& report, uint32_t band, int64_t now) const;
  bool VerifiedNow(const Entry& entry, int64_t now) const;
  void BuildComment(const SkimmerReport& report);
  void Finish(const SkimmerReport& report, SysTime now);

  const BandTable& bands_;
  VerifierSettings settings_;
  VerifierLists lists_;
  SkimmerDecision decision_;
  std::unordered_map<uint64_t, Entry> entries_;
  // Entries in the order they were made, for eviction when full; an item whose entry has
  // gone or was made again (another generation) is skipped.
  std::deque<std::pair<uint64_t, uint64_t>> made_;
  uint64_t next_generation_ = 1;
  // Verified entries by band and 100 Hz step, to find the verified calls near a frequency.
  std::unordered_map<uint64_t, std::vector<uint64_t>> by_bucket_;
  int64_t next_sweep_ = 0;
};

}  // namespace qx
