#include "filters/spot_facts.h"

#include <bit>
#include <cctype>

#include "core/text_util.h"

namespace qx {
namespace {

struct SubBand {
  double low_khz;
  double high_khz;  // exclusive
  SpotMode mode;
};

// The FT8 and FT4 calling frequencies: the dial frequency plus the 3 kHz of audio the
// signals occupy.  Looked at before the segments below.
constexpr SubBand kChannels[] = {
    {1840.0, 1843.0, SpotMode::kFt8},     {3573.0, 3575.5, SpotMode::kFt8},
    {3575.5, 3578.5, SpotMode::kFt4},     {5357.0, 5360.0, SpotMode::kFt8},
    {7047.5, 7050.5, SpotMode::kFt4},     {7074.0, 7077.0, SpotMode::kFt8},
    {10136.0, 10139.0, SpotMode::kFt8},   {10140.0, 10143.0, SpotMode::kFt4},
    {14074.0, 14077.0, SpotMode::kFt8},   {14080.0, 14083.0, SpotMode::kFt4},
    {18100.0, 18103.0, SpotMode::kFt8},   {18104.0, 18107.0, SpotMode::kFt4},
    {21074.0, 21077.0, SpotMode::kFt8},   {21140.0, 21143.0, SpotMode::kFt4},
    {24915.0, 24918.0, SpotMode::kFt8},   {24919.0, 24922.0, SpotMode::kFt4},
    {28074.0, 28077.0, SpotMode::kFt8},   {28180.0, 28183.0, SpotMode::kFt4},
    {50313.0, 50316.0, SpotMode::kFt8},   {50318.0, 50321.0, SpotMode::kFt4},
    {144170.0, 144173.0, SpotMode::kFt4}, {144174.0, 144177.0, SpotMode::kFt8},
    {144360.0, 144363.0, SpotMode::kMsk},
};

// CW, data and phone segments, close to the band plans of all three regions; where they
// differ the wider CW and data segments are taken, since phone spots usually say so.
constexpr SubBand kSegments[] = {
    {1800.0, 1838.0, SpotMode::kCw},       {1838.0, 1843.0, SpotMode::kData},
    {1843.0, 2000.01, SpotMode::kSsb},     {3500.0, 3570.0, SpotMode::kCw},
    {3570.0, 3600.0, SpotMode::kData},     {3600.0, 4000.01, SpotMode::kSsb},
    {5250.0, 5354.0, SpotMode::kCw},       {5354.0, 5360.0, SpotMode::kData},
    {5360.0, 5450.01, SpotMode::kSsb},     {7000.0, 7040.0, SpotMode::kCw},
    {7040.0, 7060.0, SpotMode::kData},     {7060.0, 7300.01, SpotMode::kSsb},
    {10100.0, 10130.0, SpotMode::kCw},     {10130.0, 10150.01, SpotMode::kData},
    {14000.0, 14070.0, SpotMode::kCw},     {14070.0, 14100.0, SpotMode::kData},
    {14100.0, 14350.01, SpotMode::kSsb},   {18068.0, 18095.0, SpotMode::kCw},
    {18095.0, 18111.0, SpotMode::kData},   {18111.0, 18168.01, SpotMode::kSsb},
    {21000.0, 21070.0, SpotMode::kCw},     {21070.0, 21150.0, SpotMode::kData},
    {21150.0, 21450.01, SpotMode::kSsb},   {24890.0, 24915.0, SpotMode::kCw},
    {24915.0, 24930.0, SpotMode::kData},   {24930.0, 24990.01, SpotMode::kSsb},
    {28000.0, 28070.0, SpotMode::kCw},     {28070.0, 28300.0, SpotMode::kData},
    {28300.0, 29700.01, SpotMode::kSsb},   {50000.0, 50100.0, SpotMode::kCw},
    {50100.0, 50300.0, SpotMode::kSsb},    {50300.0, 50400.0, SpotMode::kData},
    {50400.0, 54000.01, SpotMode::kSsb},   {144000.0, 144100.0, SpotMode::kCw},
    {144100.0, 148000.01, SpotMode::kSsb},
};

// Comment words that name a mode intake does not mark.  A word matches whole (the comment
// is cut at every character that is not a letter or digit).
struct ModeWord {
  std::string_view word;
  SpotMode mode;
};
constexpr ModeWord kModeWords[] = {
    {"CW", SpotMode::kCw},     {"SSB", SpotMode::kSsb},     {"USB", SpotMode::kSsb},
    {"LSB", SpotMode::kSsb},   {"AM", SpotMode::kSsb},      {"FM", SpotMode::kSsb},
    {"JT65", SpotMode::kData}, {"JT9", SpotMode::kData},    {"Q65", SpotMode::kData},
    {"JS8", SpotMode::kData},  {"OLIVIA", SpotMode::kData}, {"MFSK", SpotMode::kData},
    {"DIGI", SpotMode::kData}, {"DATA", SpotMode::kData},   {"SSTV", SpotMode::kData},
};

bool IsWordChar(char c) { return std::isalnum(static_cast<unsigned char>(c)) != 0; }

void FillStation(StationFacts& out, std::string_view call, const CountryInfo* country,
                 const StateLookup* states) {
  out.call = ToUpper(call);
  out.country = country;
  if (country != nullptr) {
    out.country_key = CountryKey(country->prefix);
    out.continent = ContinentFromText(country->continent);
    out.cq_zone = country->cq_zone > 0 && country->cq_zone < 128 ? uint8_t(country->cq_zone) : 0;
    out.itu_zone =
        country->itu_zone > 0 && country->itu_zone < 128 ? uint8_t(country->itu_zone) : 0;
  }
  if (states != nullptr) out.state = StateKey(states->StateOf(out.call));
}

}  // namespace

std::string_view SpotModeName(SpotMode mode) {
  switch (mode) {
    case SpotMode::kCw:
      return "CW";
    case SpotMode::kSsb:
      return "SSB";
    case SpotMode::kRtty:
      return "RTTY";
    case SpotMode::kFt8:
      return "FT8";
    case SpotMode::kFt4:
      return "FT4";
    case SpotMode::kPsk:
      return "PSK";
    case SpotMode::kMsk:
      return "MSK";
    case SpotMode::kData:
      return "DATA";
    case SpotMode::kUnknown:
      break;
  }
  return "UNKNOWN";
}

Continent ContinentFromText(std::string_view text) {
  static constexpr std::string_view kNames[] = {"AF", "AN", "AS", "EU", "NA", "OC", "SA"};
  for (size_t i = 0; i < std::size(kNames); ++i) {
    if (EqualsIgnoreCase(kNames[i], text)) return static_cast<Continent>(i + 1);
  }
  return Continent::kNone;
}

uint64_t CountryKey(std::string_view main_prefix) {
  uint64_t key = 0;
  for (size_t i = 0; i < main_prefix.size() && i < 8; ++i) {
    key = (key << 8) |
          static_cast<unsigned char>(std::toupper(static_cast<unsigned char>(main_prefix[i])));
  }
  return key;
}

uint16_t StateKey(std::string_view state) {
  if (state.size() != 2 || !IsWordChar(state[0]) || !IsWordChar(state[1])) return 0;
  return uint16_t((std::toupper(static_cast<unsigned char>(state[0])) << 8) |
                  std::toupper(static_cast<unsigned char>(state[1])));
}

SpotMode InferMode(double khz) {
  for (const SubBand& b : kChannels) {
    if (khz >= b.low_khz && khz < b.high_khz) return b.mode;
  }
  for (const SubBand& b : kSegments) {
    if (khz >= b.low_khz && khz < b.high_khz) return b.mode;
  }
  return SpotMode::kUnknown;
}

bool StatedMode(uint32_t mode_flags, std::string_view upper_comment, SpotMode& mode) {
  if (mode_flags & kModeFt8) {
    mode = SpotMode::kFt8;
  } else if (mode_flags & kModeFt4) {
    mode = SpotMode::kFt4;
  } else if (mode_flags & kModeRtty) {
    mode = SpotMode::kRtty;
  } else if (mode_flags & kModePsk) {
    mode = SpotMode::kPsk;
  } else if (mode_flags & kModeMsk) {
    mode = SpotMode::kMsk;
  } else {
    size_t i = 0;
    while (i < upper_comment.size()) {
      while (i < upper_comment.size() && !IsWordChar(upper_comment[i])) ++i;
      const size_t start = i;
      while (i < upper_comment.size() && IsWordChar(upper_comment[i])) ++i;
      const std::string_view word = upper_comment.substr(start, i - start);
      for (const ModeWord& w : kModeWords) {
        if (word == w.word) {
          mode = w.mode;
          return true;
        }
      }
    }
    return false;
  }
  return true;
}

SpotFacts MakeSpotFacts(const Spot& spot, const BandTable& bands, const StateLookup* states) {
  SpotFacts f;
  f.khz = spot.FrequencyKHz;
  f.band_bit = bands.BandBit(spot.FrequencyKHz);
  f.band_index = f.band_bit != 0 ? std::countr_zero(f.band_bit) : -1;
  f.comment = ToUpper(spot.comment());
  f.mode_stated = StatedMode(spot.ModeFlags, f.comment, f.mode);
  if (!f.mode_stated) f.mode = InferMode(f.khz);
  f.beacon = spot.IsBeacon;
  if (spot.SourceTag == SourceTagText(SpotSource::kSkimmer)) {
    f.source = SourceKind::kSkimmer;
  } else if (spot.SourceTag == SourceTagText(SpotSource::kReporter)) {
    f.source = SourceKind::kReporter;
  }
  FillStation(f.dx, spot.dx_call(), spot.dx_country, states);
  FillStation(f.spotter, spot.spotter(), spot.spotter_country, states);
  f.origin = ToUpper(spot.origin_node());
  return f;
}

SpotFacts MakeOriginFacts(std::string_view announcer, std::string_view text,
                          std::string_view origin_node, const CountryLookup* countries,
                          const StateLookup* states) {
  SpotFacts f;
  f.comment = ToUpper(text);
  FillStation(f.spotter, announcer, countries ? countries->Find(announcer) : nullptr, states);
  f.origin = ToUpper(origin_node);
  return f;
}

}  // namespace qx
