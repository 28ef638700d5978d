// The canonical view of a spot that every filter works on.  It is built once per spot when
// the spot is taken in (never per user): the band, the mode and whether the comment stated it,
// the calls and the comment in upper case, and both stations' country, continent, zones and
// state as small values that a compiled rule compares without string work.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "spots/bands.h"
#include "spots/country.h"
#include "spots/spot.h"

namespace qx {

// The modes a filter can name.  kUnknown is a frequency outside every sub-band plan with no
// mode in the comment (microwave bands, mostly).
enum class SpotMode : uint8_t { kCw, kSsb, kRtty, kFt8, kFt4, kPsk, kMsk, kData, kUnknown };
inline constexpr int kSpotModeCount = 9;
constexpr uint16_t ModeBit(SpotMode mode) { return uint16_t(1u << static_cast<int>(mode)); }
inline constexpr uint16_t kAllModeBits = (1u << kSpotModeCount) - 1;
// "CW", "SSB", ... "DATA", "UNKNOWN".
std::string_view SpotModeName(SpotMode mode);

enum class Continent : uint8_t { kNone, kAf, kAn, kAs, kEu, kNa, kOc, kSa };
// "EU" -> kEu, ignoring case; kNone for anything else.
Continent ContinentFromText(std::string_view text);

enum class SourceKind : uint8_t { kHuman, kSkimmer, kReporter };

// A country's main prefix ("DL", "K", "3D2/r"), upper-cased and packed into eight bytes so
// that a rule compares one integer.  Prefixes longer than eight characters keep their first
// eight; 0 is "no country".
uint64_t CountryKey(std::string_view main_prefix);
// A two-letter US state or Canadian province ("MA", "ON") packed into 16 bits; 0 when the
// text is not exactly two letters or digits.
uint16_t StateKey(std::string_view state);

// The US state or Canadian province of a call; "" when unknown.  The node has no such data
// yet: "where known" is whatever an implementation of this answers.
class StateLookup {
 public:
  virtual ~StateLookup() = default;
  virtual std::string_view StateOf(std::string_view call) const = 0;
};

// What the filters know of one station (the DX station, the spotter, an announcer).
struct StationFacts {
  std::string call;  // upper case, as in the spot
  const CountryInfo* country = nullptr;
  uint64_t country_key = 0;
  Continent continent = Continent::kNone;
  uint8_t cq_zone = 0;   // 0 unknown
  uint8_t itu_zone = 0;  // 0 unknown
  uint16_t state = 0;    // StateKey, 0 unknown
};

struct SpotFacts {
  double khz = 0;
  uint32_t band_bit = 0;  // the band table's bit, 0 off every band
  int band_index = -1;    // the position of band_bit (0..31), -1 off every band
  SpotMode mode = SpotMode::kUnknown;
  bool mode_stated = false;  // the comment named the mode (or the feed did)
  bool beacon = false;
  SourceKind source = SourceKind::kHuman;
  StationFacts dx;
  StationFacts spotter;
  std::string origin;   // origin node, upper case
  std::string comment;  // upper case
};

// The mode a frequency's sub-band suggests: the FT8/FT4 calling frequencies (dial frequency
// plus 3 kHz of audio), then the CW / data / phone segments of 160 m to 2 m.  kUnknown off
// those plans.
SpotMode InferMode(double khz);
// The mode the comment states ("FT8", "CW", "USB", ...) when it names one; the spot's mode
// bits from intake come first.  Returns false when the comment names none.
bool StatedMode(uint32_t mode_flags, std::string_view upper_comment, SpotMode& mode);

// The facts of an accepted spot.  The country pointers are those intake set on the spot;
// states may be null.
SpotFacts MakeSpotFacts(const Spot& spot, const BandTable& bands, const StateLookup* states);

// The facts of an announcement or WX line: the announcer stands in the spotter's place, the
// text in the comment's, no frequency.  Filters for announcements use only those fields.
SpotFacts MakeOriginFacts(std::string_view announcer, std::string_view text,
                          std::string_view origin_node, const CountryLookup* countries,
                          const StateLookup* states);

}  // namespace qx
