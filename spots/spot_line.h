// The texts a spot is shown as: the "DX de" line users receive, the SH/DX history line and
// the line of the node's own spot list.  Pure formatters; the hot ones write into a caller's
// buffer and never allocate.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "core/session.h"
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

// The columns a user may ask for behind the time, in the order they appear.  Each is one
// blank and a short text: the spotter's locator (SET/GRIDSQUARE), the spotter's state or
// province (SET/DXSQTH) and country prefix (SET/DXSCTY), then the DX station's CQ zone
// "CQ14" (SET/DXCQ), ITU zone "IT28" (SET/DXITU), locator (SET/DXGRID) and US state
// (SET/USSTATE).  A column whose value is unknown is left out.
enum ExtraColumn : uint8_t {
  kColSpotterGrid = 1u << 0,
  kColSpotterState = 1u << 1,
  kColSpotterCountry = 1u << 2,
  kColDxCq = 1u << 3,
  kColDxItu = 1u << 4,
  kColDxGrid = 1u << 5,
  kColDxState = 1u << 6,
};
constexpr int kExtraColumnCount = 7;

// The columns a user's switches ask for.
uint8_t ExtraColumnsOf(const SessionSettings& session);

// One spot's column texts, indexed by the column's bit number; "" when unknown.
struct ExtraColumnTexts {
  std::string_view text[kExtraColumnCount];
};

// Of the columns in mask, those that fit whole behind a line of line_length characters
// within width: taken in order, and the first that does not fit ends the list, so a
// narrower screen loses columns from the end, never a piece of one.
uint8_t FittingColumns(uint8_t mask, const ExtraColumnTexts& texts, size_t line_length,
                       size_t width);
// Appends the columns of mask (each a blank and its text) to line.
void AppendExtraColumns(std::string& line, uint8_t mask, const ExtraColumnTexts& texts);

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
