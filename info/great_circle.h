// Positions on the earth for the information commands: the great-circle path between two
// places and the position of a Maidenhead locator.
#pragma once

#include <string_view>

namespace qx {

struct GeoPoint {
  double latitude = 0;   // degrees, north positive
  double longitude = 0;  // degrees, east positive
};

struct GreatCirclePath {
  double short_bearing = 0;  // degrees from true north, 0 to 360, at the start
  double long_bearing = 0;   // the opposite direction
  double short_km = 0;
  double long_km = 0;
};

// Mean earth radius (km) used for distances.
constexpr double kEarthRadiusKm = 6371.0;
constexpr double kKmPerMile = 1.609344;

// The path from one place to another on a sphere.  Between a place and itself the bearing
// is 0 and the long path the whole circumference.
GreatCirclePath PathBetween(GeoPoint from, GeoPoint to);

// The centre of a Maidenhead locator of 4, 6 or 8 characters ("FN42", "JO01dm", "IO91wm41");
// false, with nothing changed, for anything else.  Letter case is ignored.
bool LocatorPosition(std::string_view locator, GeoPoint& out);

}  // namespace qx
