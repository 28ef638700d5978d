#include "info/great_circle.h"

#include <algorithm>
#include <cmath>
#include <numbers>

namespace qx {
namespace {

constexpr double kDeg = std::numbers::pi / 180.0;

char Up(char c) { return c >= 'a' && c <= 'z' ? char(c - 32) : c; }
bool Between(char c, char lo, char hi) { return c >= lo && c <= hi; }

}  // namespace

GreatCirclePath PathBetween(GeoPoint from, GeoPoint to) {
  const double p1 = from.latitude * kDeg, p2 = to.latitude * kDeg;
  const double dl = (to.longitude - from.longitude) * kDeg;
  // Haversine: well conditioned for short and long distances alike.
  const double h = std::pow(std::sin((p2 - p1) / 2), 2) +
                   std::cos(p1) * std::cos(p2) * std::pow(std::sin(dl / 2), 2);
  const double central = 2 * std::asin(std::sqrt(std::clamp(h, 0.0, 1.0)));
  const double y = std::sin(dl) * std::cos(p2);
  const double x = std::cos(p1) * std::sin(p2) - std::sin(p1) * std::cos(p2) * std::cos(dl);
  double bearing = (x == 0 && y == 0) ? 0 : std::atan2(y, x) / kDeg;
  if (bearing < 0) bearing += 360;
  if (bearing >= 360) bearing -= 360;
  GreatCirclePath p;
  p.short_bearing = bearing;
  p.long_bearing = std::fmod(bearing + 180, 360);
  p.short_km = central * kEarthRadiusKm;
  p.long_km = 2 * std::numbers::pi * kEarthRadiusKm - p.short_km;
  return p;
}

bool LocatorPosition(std::string_view g, GeoPoint& out) {
  if (g.size() != 4 && g.size() != 6 && g.size() != 8) return false;
  if (!Between(Up(g[0]), 'A', 'R') || !Between(Up(g[1]), 'A', 'R')) return false;
  if (!Between(g[2], '0', '9') || !Between(g[3], '0', '9')) return false;
  double lon = (Up(g[0]) - 'A') * 20.0 - 180 + (g[2] - '0') * 2.0;
  double lat = (Up(g[1]) - 'A') * 10.0 - 90 + (g[3] - '0') * 1.0;
  double lon_size = 2.0, lat_size = 1.0;
  if (g.size() >= 6) {
    if (!Between(Up(g[4]), 'A', 'X') || !Between(Up(g[5]), 'A', 'X')) return false;
    lon_size /= 24;
    lat_size /= 24;
    lon += (Up(g[4]) - 'A') * lon_size;
    lat += (Up(g[5]) - 'A') * lat_size;
  }
  if (g.size() == 8) {
    if (!Between(g[6], '0', '9') || !Between(g[7], '0', '9')) return false;
    lon_size /= 10;
    lat_size /= 10;
    lon += (g[6] - '0') * lon_size;
    lat += (g[7] - '0') * lat_size;
  }
  out.longitude = lon + lon_size / 2;
  out.latitude = lat + lat_size / 2;
  return true;
}

}  // namespace qx
