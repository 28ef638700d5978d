// The replies of the information commands (SH/SUN, SH/MOON, SH/HEADING, SH/PREFIX, SH/DXCC,
// SH/TIME <prefix>, STAT/USER), built from values so that they are tested without a node.
// The interpreter finds the places and records; everything here is pure.
#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/session.h"
#include "info/great_circle.h"
#include "spots/country.h"

namespace qx {

// A place that a command talks about: what the user typed (or their own call), what it is,
// and where.
struct Place {
  std::string label;  // "K1ABC", "DL", "JO01"
  std::string what;   // "United States", "locator", "K1ABC's location"
  GeoPoint position;
};

// The station's own position when one is known from its record (SET/LOCATION or SET/QRA).
using StationPosition = std::function<std::optional<GeoPoint>(std::string_view call)>;

// A locator ("FN42", "JO01dm") is a locator; anything else is a call or prefix, placed by
// the station's own position when known, else by its country's.  Nothing for a text that
// is neither.
std::optional<Place> ResolvePlace(std::string_view text, const CountryLookup* countries,
                                  const StationPosition& station);

// "42.40N 71.10W".
std::string PositionText(GeoPoint p);

// "K1ABC  United States  42.40N 71.10W  sunrise 1132Z  sunset 2118Z" for the UTC day that
// contains now; "sun up all day" / "sun down all day" at high latitudes.
std::string SunLine(const Place& place, std::chrono::system_clock::time_point now);
// The moon's rising, setting and lit fraction on the UTC day of now.
std::string MoonLine(const Place& place, std::chrono::system_clock::time_point now);
// Bearing both ways and distance from one place to another.
std::string HeadingLine(const Place& from, const Place& to);
// A country file entry: prefix, name, zones, continent, position, UTC offset.
std::string CountryLine(std::string_view asked, const CountryInfo& c);
// The local time in a country from the country file's offset.
std::string LocalTimeLine(std::string_view asked, const CountryInfo& c,
                          std::chrono::system_clock::time_point now);

// What STAT/USER shows of a user record.
struct UserStats {
  std::string call;
  bool known = false;  // a record exists
  SessionSettings settings;
  bool logged_in = false;
};
std::vector<std::string> StatUserLines(const UserStats& u);

// "HHnnZ" of minutes after midnight UTC.
std::string MinuteText(int minute);

}  // namespace qx
