// The spot record shared by intake, duplicate detection, the history and distribution.  A
// spot is held as the 11 text slots of a "PC61"-shaped sentence so that every stage works on
// the same texts, plus the values intake derives from them.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>

#include "core/time_text.h"
#include "spots/country.h"

namespace qx {

// Slot indexes of the sentence fields.
enum SpotSlot : int {
  kSlotType = 0,
  kSlotFrequency = 1,
  kSlotDxCall = 2,
  kSlotDate = 3,
  kSlotTime = 4,
  kSlotComment = 5,
  kSlotSpotter = 6,
  kSlotOriginNode = 7,
  kSlotAddress = 8,  // the spotter's IP address; empty for "PC11"
  kSlotHops = 9,
  kSlotTrailer = 10,
};
constexpr int kSpotSlots = 11;

// Mode bits of ModeFlags.  They are OR-ed onto the band bit of the frequency (see bands.h,
// which keeps bits 32..512 free for them).
constexpr uint32_t kModeFt8 = 32;
constexpr uint32_t kModeFt4 = 64;
constexpr uint32_t kModeRtty = 128;
constexpr uint32_t kModePsk = 256;
constexpr uint32_t kModeMsk = 512;
constexpr uint32_t kModeMask = kModeFt8 | kModeFt4 | kModeRtty | kModePsk | kModeMsk;

// Where a spot came from; decides its label in the node's own spot list and a few intake
// rules (reporter spots are FT8 without looking at the comment).
enum class SpotSource : uint8_t {
  kCluster,     // a local user or a node link
  kReporter,    // the digital-mode reporter feed
  kSkimmer,     // the skimmer network
  kWebGateway,  // a web spot gateway
};

// The label of each source, blanks included: the spot list aligns on them.
constexpr std::string_view SourceTagText(SpotSource source) {
  switch (source) {
    case SpotSource::kReporter:
      return "PskReporter";
    case SpotSource::kSkimmer:
      return "    RBN    ";
    case SpotSource::kWebGateway:
      return " DX Summit ";
    case SpotSource::kCluster:
      break;
  }
  return "DX  Cluster";
}

struct Spot {
  std::array<std::string, kSpotSlots> slots;
  double FrequencyKHz = 0;
  uint32_t ModeFlags = 0;
  bool IsLocal = false;
  bool IsBeacon = false;  // DX call ends "/B", "/BC", "/BCN", "/BEACON" or comment word "BCN"
  // A skimmer spot the feed's once-per-window rule held back: it reaches only the users who
  // asked for skimmer dupes, and never intake, the history or other nodes.
  bool SkimmerDupe = false;
  int SourceStream = 0;
  std::string_view SourceTag = SourceTagText(SpotSource::kCluster);
  // Pointers into the country table; they stay valid while that table is not reloaded.
  // Spots kept longer (the history) hold them only for display.
  const CountryInfo* spotter_country = nullptr;
  const CountryInfo* dx_country = nullptr;
  SysTime received{};
  // The node-wide number of an accepted spot: increasing, never reused, kept with the spot in
  // the history and the day file so that programs can ask for "every spot after N", also
  // after a restart.  0 until intake accepts the spot.
  uint64_t Id = 0;

  // What a spot sentence between nodes of this software carries beyond PC61, and what intake
  // learns of a feed spot.  Programs and neighbours get it; the "DX de" line shows none of it.
  //
  // The mode was named (in the comment, or by the feed that decoded it), not guessed from
  // where the frequency lies in the band plan.
  bool ModeStated = false;
  // The mode word as the spot's origin gave it ("CW", "FT8"); "" when this node works it out
  // from the comment and the frequency itself.
  std::string Mode;
  // The skimmer verification's verdict, 'V' verified, 'Q' QSY, '?' not verified, 'B' busted;
  // 0 for a spot no skimmer made.  SkimmerCount is the number of skimmers behind it.
  char SkimmerVerdict = 0;
  int SkimmerCount = 0;
  // Four- or six-character locators where they are known (a spotter logged in here with
  // SET/QRA, or what a neighbour of this software sent); "" when not.
  std::string SpotterGrid;
  std::string DxGrid;
  // The spot's Id at the node where it was entered, as a neighbour of this software told it;
  // 0 when unknown (a PC11/PC61 carries none).  A spot entered here has its own Id.
  uint64_t OriginId = 0;

  std::string_view type() const { return slots[kSlotType]; }
  std::string_view frequency_text() const { return slots[kSlotFrequency]; }
  std::string_view dx_call() const { return slots[kSlotDxCall]; }
  std::string_view date() const { return slots[kSlotDate]; }
  std::string_view time() const { return slots[kSlotTime]; }
  std::string_view comment() const { return slots[kSlotComment]; }
  std::string_view spotter() const { return slots[kSlotSpotter]; }
  std::string_view origin_node() const { return slots[kSlotOriginNode]; }
  std::string_view address() const { return slots[kSlotAddress]; }
  std::string_view hops() const { return slots[kSlotHops]; }

  // The slots joined with "^" as a "PC61" sentence (type slot as stored).
  std::string Sentence() const;
};

}  // namespace qx
