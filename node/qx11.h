// The spot sentence between nodes of this software, "QX11", and the enhanced spot line that
// companion clients get in place of "DX de": the same layout, so that one reader serves both.
// It carries what a PC61 cannot: the mode and whether it was stated, where the spot came
// from, the skimmer verdict, both stations' country, zones and locator, and the spot's Id at
// its origin.  docs/spot-formats.md defines it field by field.
//
//   QX11^1^14025.0^DL1XYZ^24-Nov-2026^2201Z^up 2^K1ABC^XX0QX-1^198.51.100.7^CW^S^C^^0^
//     K^5^8^FN42^DL^14^28^^1234^H99^~
//
// Pure code: the builder writes into a caller's buffer, the parser only looks at its line.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "spots/spot.h"

namespace qx {

inline constexpr std::string_view kQx11Header = "QX11";
// The layout this node writes.  A reader takes any version from 1 up: a later version only
// adds fields in front of the hop count, which a reader that does not know them skips.
inline constexpr int kQx11Version = 1;

// Field positions of version 1; the hop count and "~" are always the last two fields.
enum Qx11Field : int {
  kQxHeader = 0,
  kQxVersion,
  kQxFrequency,
  kQxDxCall,
  kQxDate,
  kQxTime,
  kQxComment,
  kQxSpotter,
  kQxOrigin,
  kQxAddress,
  kQxMode,
  kQxModeHow,  // "S" stated, "I" inferred from the band plan, "" no mode known
  kQxSource,   // "C" cluster, "S" skimmer, "R" reporter, "W" web gateway
  kQxSkimmerVerdict,
  kQxSkimmerCount,
  kQxSpotterPrefix,
  kQxSpotterCq,
  kQxSpotterItu,
  kQxSpotterGrid,
  kQxDxPrefix,
  kQxDxCq,
  kQxDxItu,
  kQxDxGrid,
  kQxOriginId,
  kQxKnownFields,  // fields before the hop count in version 1
};
inline constexpr int kQx11MinFields = kQxKnownFields + 2;  // and the hop count and "~"

// The sentence of spot with the given hop text ("H99") and spotter address (pass "" where
// the address may not travel), without line end; replaces out.  The mode is the one the
// origin gave, else the one the comment names, else the band plan's guess.  Zones and
// prefixes come from the spot's countries.
void BuildQx11(const Spot& spot, std::string_view hops, std::string_view address, std::string& out);

// A parsed sentence.  The views point into the line given to ParseQx11.
struct Qx11Spot {
  int version = 0;
  std::string_view frequency, dx_call, date, time, comment, spotter, origin, address;
  std::string_view mode;
  bool mode_stated = false;
  SpotSource source = SpotSource::kCluster;
  char skimmer_verdict = 0;
  int skimmer_count = 0;
  std::string_view spotter_prefix, spotter_grid, dx_prefix, dx_grid;
  int spotter_cq = 0, spotter_itu = 0, dx_cq = 0, dx_itu = 0;
  uint64_t origin_id = 0;
  std::string_view hops;
};

// Reads a QX11 line (without line end).  False, with a short reason in *error, when it is
// not one this node can take: too few fields, no "~" at the end, no hop count before it, a
// version or number that is no number, an empty call or frequency, an unknown verdict.
// Unknown source letters read as a cluster spot; fields behind the known ones are skipped.
bool ParseQx11(std::string_view line, Qx11Spot& out, std::string* error);

// The PC61-shaped sentence intake reads (PC11 when there is no address), and the spot
// fields the sentence cannot hold, for IntakeRequest::carried.
std::string Qx11IntakeSentence(const Qx11Spot& q);
void Qx11Carried(const Qx11Spot& q, Spot& carried);

}  // namespace qx
