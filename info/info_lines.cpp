#include "info/info_lines.h"

#include <fmt/format.h>

#include <cmath>

#include "core/text_util.h"
#include "core/time_text.h"
#include "info/astro.h"

namespace qx {
namespace {

using std::chrono::system_clock;

// Midnight UTC of the day that contains t.
system_clock::time_point DayStart(system_clock::time_point t) {
  return t - std::chrono::seconds(SecondsOfDay(t));
}

std::string PlaceHead(const Place& p) {
  return fmt::format("{:<10} {:<24} {}", p.label, p.what.substr(0, 24), PositionText(p.position));
}

// "UTC+1", "UTC-5", "UTC+5:30", "UTC".
std::string OffsetText(double hours) {
  const int minutes = int(std::lround(hours * 60));
  if (minutes == 0) return "UTC";
  const int a = std::abs(minutes);
  std::string out = fmt::format("UTC{}{}", minutes < 0 ? '-' : '+', a / 60);
  if (a % 60) out += fmt::format(":{:02}", a % 60);
  return out;
}

}  // namespace

std::string MinuteText(int minute) { return fmt::format("{:02}{:02}Z", minute / 60, minute % 60); }

std::string PositionText(GeoPoint p) {
  return fmt::format("{:.2f}{} {:.2f}{}", std::fabs(p.latitude), p.latitude < 0 ? 'S' : 'N',
                     std::fabs(p.longitude), p.longitude < 0 ? 'W' : 'E');
}

std::optional<Place> ResolvePlace(std::string_view text, const CountryLookup* countries,
                                  const StationPosition& station) {
  text = Trim(text);
  if (text.empty()) return std::nullopt;
  Place place;
  place.label = ToUpper(text);
  // A locator is tried first: "FN42" could never be a call, a call never parses as one.
  if (LocatorPosition(text, place.position)) {
    place.what = "locator";
    return place;
  }
  if (station) {
    if (const auto own = station(place.label)) {
      place.position = *own;
      place.what = "station's own location";
      return place;
    }
  }
  const CountryInfo* c = countries ? countries->Find(place.label) : nullptr;
  if (!c) return std::nullopt;
  place.what = c->country;
  place.position = {c->latitude, c->longitude};
  return place;
}

std::string SunLine(const Place& place, system_clock::time_point now) {
  const RiseSet r = SunRiseSet(DayStart(now), place.position.latitude, place.position.longitude);
  const std::string head = PlaceHead(place);
  if (r.always_up) return head + "  sun up all day";
  if (r.always_down) return head + "  sun down all day";
  return fmt::format("{}  sunrise {}  sunset {}", head,
                     r.rise_minute < 0 ? std::string("none ") : MinuteText(r.rise_minute),
                     r.set_minute < 0 ? std::string("none ") : MinuteText(r.set_minute));
}

std::string MoonLine(const Place& place, system_clock::time_point now) {
  const RiseSet r = MoonRiseSet(DayStart(now), place.position.latitude, place.position.longitude);
  const MoonPhase phase = MoonPhaseAt(now);
  std::string events;
  if (r.always_up) {
    events = "moon up all day";
  } else if (r.always_down) {
    events = "moon down all day";
  } else {
    events = fmt::format("moonrise {}  moonset {}",
                         r.rise_minute < 0 ? std::string("none ") : MinuteText(r.rise_minute),
                         r.set_minute < 0 ? std::string("none ") : MinuteText(r.set_minute));
  }
  return fmt::format("{}  {}  {:.0f}% lit, {}", PlaceHead(place), events, phase.illuminated * 100,
                     phase.waxing ? "waxing" : "waning");
}

std::string HeadingLine(const Place& from, const Place& to) {
  const GreatCirclePath p = PathBetween(from.position, to.position);
  return fmt::format(
      "{} {}: short path {:.0f} deg, {:.0f} km ({:.0f} mi); long path {:.0f} deg, {:.0f} km "
      "({:.0f} mi)",
      to.label, to.what, p.short_bearing, p.short_km, p.short_km / kKmPerMile, p.long_bearing,
      p.long_km, p.long_km / kKmPerMile);
}

std::string CountryLine(std::string_view asked, const CountryInfo& c) {
  return fmt::format("{}: {} {}  CQ {}  ITU {}  {}  {}  {}{}", ToUpper(asked), c.prefix, c.country,
                     c.cq_zone, c.itu_zone, c.continent, PositionText({c.latitude, c.longitude}),
                     OffsetText(c.utc_offset), c.wae_only ? "  (WAE only)" : "");
}

std::string LocalTimeLine(std::string_view asked, const CountryInfo& c,
                          system_clock::time_point now) {
  const auto local = now + std::chrono::minutes(std::lround(c.utc_offset * 60));
  return fmt::format("{}: {} {}  local time {} {}  ({})", ToUpper(asked), c.prefix, c.country,
                     DateText(local), TimeHHnn(local), OffsetText(c.utc_offset));
}

std::vector<std::string> StatUserLines(const UserStats& u) {
  if (!u.known) return {u.call + ": no record on this node"};
  const SessionSettings& s = u.settings;
  const auto or_dash = [](const std::string& v) { return v.empty() ? std::string("-") : v; };
  return {
      fmt::format("User: {}{}", u.call, u.logged_in ? "  (logged in now)" : ""),
      "  Name:         " + (s.name.empty() ? std::string("Unknown Name") : s.name),
      "  QTH:          " + or_dash(s.qth),
      "  Location:     " + or_dash(s.location),
      "  Grid:         " + or_dash(s.grid),
      "  Home node:    " + or_dash(s.home_node),
      "  Last log-in:  " + (s.last_login.empty() ? std::string("not recorded") : s.last_login),
      fmt::format("  Spots posted: {}", s.spots_posted),
  };
}

}  // namespace qx
