// The texts a spot is shown as: the "DX de" line users receive, the SH/DX history line and
// the line of the node's own spot list.  Pure formatters; the hot ones write into a caller's
// buffer and never allocate.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "spots/spot.h"

namespace qx {

constexpr size_t kDxDeBodyWidth = 66;  // "DX de" + spotter, frequency, DX call, comment
constexpr size_t kDxDeLineWidth = 75;  // the body, blanks, the time "HHnnZ" in columns 71-75
constexpr size_t kDxDeLineMax = 128;   // room for the line, a locator, a bell and CR LF

// Writes the 66 characters of the body into out.  Fields are written over a template of
// blanks at their columns; whatever would fall beyond column 66 is cut off.
void BuildDxDeBody(std::string_view spotter, std::string_view frequency, std::string_view dx_call,
                   std::string_view comment, char* out);
std::string DxDeBody(std::string_view spotter, std::string_view frequency, std::string_view dx_call,
                     std::string_view comment);

// The frequency with 1 or 2 decimals ("14025.0", "14025.12").  out needs 32 bytes.
size_t FormatFrequency(double khz, int decimals, char* out);

// The 75-character line: the body at the given resolution, blanks, and the spot's time
// "HHnnZ" in columns 71 to 75.  With a non-empty locator, a blank and the locator follow.
// Returns the length written to out (at least kDxDeLineMax bytes); no line end.
size_t BuildDxDeLine(const Spot& spot, int decimals, std::string_view locator, char* out);

// The four-character locator of a position ("JO01"); empty for an impossible position.
std::string_view LocatorOf(double latitude, double longitude, char* out4);

// One line of SH/DX:
// "  14025.0  K1ABC        22-Nov-2026 0315Z  test  <DL1ABC>"
std::string ShowDxLine(const Spot& spot, int decimals);

// The node's own spot list: source tag, time, frequency, DX call, comment, spotter and the
// spotter's country column (its prefix, or the text given), then a marker when the spot was
// refused ("* BAD *", "### Spotter Bad ###" ...).
std::string SpotListLine(const Spot& spot, std::string_view country_column,
                         std::string_view marker);

}  // namespace qx
