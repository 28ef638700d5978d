#include "spots/spot_line.h"

#include <cmath>
#include <cstdio>
#include <cstring>

#include "core/text_util.h"

namespace qx {

namespace {

// Writes text at a 1-based column of a template of width characters, cutting at the end.
void WriteAt(char* tmpl, size_t width, size_t column, std::string_view text) {
  if (column < 1 || column > width) return;
  const size_t at = column - 1;
  const size_t n = std::min(text.size(), width - at);
  std::memcpy(tmpl + at, text.data(), n);
}

void Append(std::string& out, std::string_view text, size_t width, bool right) {
  if (text.size() < width && right) out.append(width - text.size(), ' ');
  out += text;
  if (text.size() < width && !right) out.append(width - text.size(), ' ');
}

}  // namespace

void BuildDxDeBody(std::string_view spotter, std::string_view frequency, std::string_view dx_call,
                   std::string_view comment, char* out) {
  constexpr size_t w = kDxDeBodyWidth;
  std::memset(out, ' ', w);
  std::memcpy(out, "DX de", 5);
  const size_t ls = spotter.size();
  const size_t lf = frequency.size();
  const size_t ld = dx_call.size();
  WriteAt(out, w, 7, spotter);
  const size_t p = ls + 7;
  WriteAt(out, w, p, ":");
  // Right-aligned to end at column 24 while there is room; past that, the frequency moves
  // two columns per extra character of spotter call (kept so: lines from other nodes of the
  // network look the same).
  const size_t f = (p + lf < 25) ? 25 - lf : 2 * p + lf - 24;
  WriteAt(out, w, f, frequency);
  const size_t d = f + lf + 2;
  WriteAt(out, w, d, dx_call);
  const size_t c = (d + ld + 2 >= 41) ? d + ld + 2 : 40;
  WriteAt(out, w, c, comment);
}

std::string DxDeBody(std::string_view spotter, std::string_view frequency, std::string_view dx_call,
                     std::string_view comment) {
  std::string out(kDxDeBodyWidth, ' ');
  BuildDxDeBody(spotter, frequency, dx_call, comment, out.data());
  return out;
}

size_t FormatFrequency(double khz, int decimals, char* out) {
  if (!std::isfinite(khz) || khz < 0 || khz >= 1e12) {
    std::memcpy(out, "0.0", 3);
    return 3;
  }
  // From hundredths, so that 14025.15 shows as 14025.2 and never as 14025.1 through binary
  // noise.
  const long long hundredths = std::llround(khz * 100.0);
  int n = 0;
  if (decimals >= 2) {
    n = std::snprintf(out, 32, "%lld.%02lld", hundredths / 100, hundredths % 100);
  } else {
    const long long tenths = (hundredths + 5) / 10;
    n = std::snprintf(out, 32, "%lld.%lld", tenths / 10, tenths % 10);
  }
  return n > 0 ? size_t(n) : 0;
}

size_t BuildDxDeLine(const Spot& spot, int decimals, std::string_view locator, char* out) {
  char freq[32];
  const size_t lf = FormatFrequency(spot.FrequencyKHz, decimals, freq);
  BuildDxDeBody(spot.spotter(), std::string_view(freq, lf), spot.dx_call(), spot.comment(), out);
  std::memset(out + kDxDeBodyWidth, ' ', kDxDeLineWidth - kDxDeBodyWidth);
  const std::string_view time = spot.time();
  WriteAt(out, kDxDeLineWidth, 71, time.substr(0, 5));
  size_t n = kDxDeLineWidth;
  if (!locator.empty()) {
    const size_t room = kDxDeLineMax - 8 - n;  // keeps room for a bell and CR LF
    out[n++] = ' ';
    const size_t k = std::min(locator.size(), room);
    std::memcpy(out + n, locator.data(), k);
    n += k;
  }
  return n;
}

uint8_t ExtraColumnsOf(const SessionSettings& session) {
  uint8_t mask = 0;
  if (session.Has(kSwGridSquare)) mask |= kColSpotterGrid;
  if (session.Has(kSwDxsQth)) mask |= kColSpotterState;
  if (session.Has(kSwDxsCty)) mask |= kColSpotterCountry;
  if (session.Has(kSwDxCq)) mask |= kColDxCq;
  if (session.Has(kSwDxItu)) mask |= kColDxItu;
  if (session.Has(kSwDxGrid)) mask |= kColDxGrid;
  if (session.Has(kSwUsState)) mask |= kColDxState;
  return mask;
}

uint8_t FittingColumns(uint8_t mask, const ExtraColumnTexts& texts, size_t line_length,
                       size_t width) {
  uint8_t fit = 0;
  size_t used = line_length;
  for (int i = 0; i < kExtraColumnCount; ++i) {
    const uint8_t bit = uint8_t(1u << i);
    if (!(mask & bit) || texts.text[i].empty()) continue;
    used += 1 + texts.text[i].size();
    if (used > width) break;
    fit |= bit;
  }
  return fit;
}

void AppendExtraColumns(std::string& line, uint8_t mask, const ExtraColumnTexts& texts) {
  for (int i = 0; i < kExtraColumnCount; ++i) {
    if (!(mask & (1u << i)) || texts.text[i].empty()) continue;
    line += ' ';
    line += texts.text[i];
  }
}

std::string_view LocatorOf(double latitude, double longitude, char* out4) {
  if (!(latitude >= -90 && latitude <= 90 && longitude >= -180 && longitude <= 180)) return {};
  const double lon = std::min(longitude + 180.0, 359.999999);
  const double lat = std::min(latitude + 90.0, 179.999999);
  out4[0] = char('A' + int(lon / 20));
  out4[1] = char('A' + int(lat / 10));
  out4[2] = char('0' + int(std::fmod(lon, 20.0) / 2));
  out4[3] = char('0' + int(std::fmod(lat, 10.0)));
  return std::string_view(out4, 4);
}

std::string ShowDxLine(const Spot& spot, int decimals) {
  char freq[32];
  const size_t lf = FormatFrequency(spot.FrequencyKHz, decimals, freq);
  std::string out;
  out.reserve(80 + spot.comment().size());
  Append(out, std::string_view(freq, lf), 9, true);
  out += "  ";
  Append(out, spot.dx_call(), 12, false);
  out += ' ';
  out += spot.date();
  out += ' ';
  out += spot.time();
  out += "  ";
  out += Trim(spot.comment());
  out += "  <";
  out += spot.spotter();
  out += '>';
  return out;
}

std::string SpotListLine(const Spot& spot, std::string_view country_column,
                         std::string_view marker) {
  std::string out;
  out.reserve(100 + spot.comment().size());
  out += spot.SourceTag;
  out += ' ';
  out += spot.time();
  out += ' ';
  Append(out, spot.frequency_text(), 10, true);
  out += ' ';
  Append(out, spot.dx_call(), 12, false);
  out += ' ';
  Append(out, Trim(spot.comment()), 30, false);
  out += ' ';
  Append(out, spot.spotter(), 12, false);
  out += ' ';
  if (!country_column.empty()) {
    out += country_column;
  } else if (spot.spotter_country) {
    out += spot.spotter_country->prefix;
  }
  if (!marker.empty()) {
    out += ' ';
    out += marker;
  }
  return out;
}

}  // namespace qx
