// One user's filters, compiled: the band-mode mask, the keyword rules (DOC, DXCTY, KEYWORD,
// BANDTIME, ...) and the numbered accept/reject lines for spots, announcements and WWV.
// Check answers for one spot without allocating and names the rule that decided.
#pragma once

#include <array>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "filters/band_mode.h"
#include "filters/filter_rules.h"
#include "filters/spot_facts.h"

namespace qx {

// The views point into the user's rules: valid until the filters are next changed.
struct FilterDecision {
  bool pass = true;
  std::string_view rule_id;    // "" when no rule decided (no filters)
  std::string_view rule_text;  // the rule as typed; for the band-mode mask its words
};

class alignas(64) UserFilters {
 public:
  // Both must outlive the filters.  countries may be null.
  explicit UserFilters(const BandTable& bands, const CountryLookup* countries = nullptr);

  struct Reply {
    bool ok = false;   // false: error is the one reply line, nothing changed
    std::string text;  // the reply line
  };
  // SET/FILTER ..., SET/DXBM ..., ACCEPT/..., REJECT/..., CLEAR/...
  Reply Apply(std::string_view typed);

  // The order: band-mode mask, keyword rules, reject lines 0-9, accept lines 0-9.  A spot
  // that passes no accept line, when there is one, is dropped.
  FilterDecision Check(const SpotFacts& facts, int utc_minute_of_day) const;
  // A spot decision in a few bytes, for the per-user path of distribution and for keeping:
  // it reads only the mask and the block of code, and holds the deciding rule's id and place.
  // NameOf turns it into Check's answer while the filters are unchanged.
  struct Verdict {
    bool pass = true;
    int16_t rule = -1;         // the rule's place among the kind's rules; < 0: see Check
    std::array<char, 8> id{};  // the rule's id, up to eight characters, "" when none decided
    std::string_view Id() const { return {id.data(), strnlen(id.data(), id.size())}; }
  };
  Verdict DecideSpot(const SpotFacts& facts, int utc_minute_of_day) const;
  FilterDecision NameOf(const Verdict& v) const { return Name(FilterKind::kSpots, v); }
  // Announcements (AOC, AOS, the ANNOUNCE lines) and WX/WWV (WOC, WOS, the WWV lines), on
  // facts from MakeOriginFacts.
  FilterDecision CheckAnnounce(const SpotFacts& facts) const;
  FilterDecision CheckWwv(const SpotFacts& facts) const;

  // The band-mode numbers as stored in the "DXBM" line.
  uint32_t dxbm() const { return dxbm_; }
  uint32_t dxbm2() const { return dxbm2_; }
  void SetDxbm(uint32_t mask, uint32_t mask2);
  const BandModeMask& band_mode() const { return band_mode_; }

  // The value of each "FILTER" line after the settings set: "<kind>^<id>^<typed text>".
  std::vector<std::string> RecordLines() const;
  // Replaces the rules with stored lines.  A line that no longer parses is skipped; its
  // error text is returned.  The DXBM numbers are not part of these (SetDxbm).
  std::vector<std::string> Load(const std::vector<std::string>& lines);
  // For SH/FILTER: the band-mode mask in words, then every rule as typed.
  std::vector<std::string> Describe() const;
  bool HasRules() const;

 private:
  static constexpr int16_t kNoRule = -1;
  static constexpr int16_t kNoAccept = -2;  // there were accept lines and none matched
  static constexpr int16_t kMask = -3;      // the band-mode mask
  Verdict Decide(FilterKind kind, const SpotFacts& facts, int utc_minute) const;
  FilterDecision Name(FilterKind kind, const Verdict& v) const;
  void Insert(FilterRule rule);
  void RemoveRule(FilterKind kind, std::string_view id);
  // Copies the kind's rules, in order, into its one block of code.
  void Compile(FilterKind kind);

  void SetBandMode(BandModeMask mask, std::string typed);

  // What a decision reads comes first, in the object's first two cache lines: per kind, every
  // rule's code side by side in one block (a header word per rule: its rank, accept or
  // reject, its position among the rules and the length of its code; then the code), with the
  // mask between the block for spots and the other two.
  std::vector<uint64_t> spot_code_;
  BandModeMask band_mode_;
  std::array<std::vector<uint64_t>, 2> origin_code_;  // announcements, WWV
  std::vector<uint64_t>& CodeOf(FilterKind kind);
  const std::vector<uint64_t>& CodeOf(FilterKind kind) const;
  const BandTable* bands_;
  const CountryLookup* countries_;
  uint32_t dxbm_ = kDxbmNewUser;
  uint32_t dxbm2_ = kDxbmNewUser2;
  std::string band_mode_typed_;  // "SET/FILTER DXBM/..." as typed; "" while the numbers rule
  std::string band_mode_text_;   // what a decision by the mask names
  // Per kind, ordered: keyword rules, then R0-R9, then A0-A9.  Read only to name the rule
  // that decided, to list and to store the rules.
  std::array<std::vector<FilterRule>, 3> rules_;
};

}  // namespace qx
