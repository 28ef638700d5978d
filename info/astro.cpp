#include "info/astro.h"

#include <algorithm>
#include <cmath>
#include <numbers>

namespace qx {
namespace {

constexpr double kDeg = std::numbers::pi / 180.0;

double Norm360(double deg) {
  const double r = std::fmod(deg, 360.0);
  return r < 0 ? r + 360.0 : r;
}

struct Equatorial {
  double ra = 0;   // degrees
  double dec = 0;  // degrees
};

double Obliquity(double days) { return 23.439 - 0.0000004 * days; }

Equatorial FromEcliptic(double lambda, double beta, double days) {
  const double e = Obliquity(days) * kDeg;
  const double l = lambda * kDeg, b = beta * kDeg;
  const double ra = std::atan2(std::sin(l) * std::cos(e) - std::tan(b) * std::sin(e), std::cos(l));
  const double dec = std::asin(std::sin(b) * std::cos(e) + std::cos(b) * std::sin(e) * std::sin(l));
  return {Norm360(ra / kDeg), dec / kDeg};
}

double SunLongitude(double days) {
  const double l = 280.460 + 0.9856474 * days;
  const double g = (357.528 + 0.9856003 * days) * kDeg;
  return Norm360(l + 1.915 * std::sin(g) + 0.020 * std::sin(2 * g));
}

struct MoonEcliptic {
  double lambda = 0;    // degrees
  double beta = 0;      // degrees
  double parallax = 0;  // horizontal parallax, degrees
};

MoonEcliptic MoonPosition(double days) {
  const double t = days / 36525.0;
  const auto s = [t](double a, double b) { return std::sin((a + b * t) * kDeg); };
  const auto c = [t](double a, double b) { return std::cos((a + b * t) * kDeg); };
  MoonEcliptic m;
  m.lambda =
      Norm360(218.32 + 481267.881 * t + 6.29 * s(135.0, 477198.87) - 1.27 * s(259.3, -413335.36) +
              0.66 * s(235.7, 890534.22) + 0.21 * s(269.9, 954397.74) - 0.19 * s(357.5, 35999.05) -
              0.11 * s(186.5, 966404.03));
  m.beta = 5.13 * s(93.3, 483202.02) + 0.28 * s(228.2, 960400.89) - 0.28 * s(318.3, 6003.15) -
           0.17 * s(217.6, -407332.21);
  m.parallax = 0.9508 + 0.0518 * c(135.0, 477198.87) + 0.0095 * c(259.3, -413335.36) +
               0.0078 * c(235.7, 890534.22) + 0.0028 * c(269.9, 954397.74);
  return m;
}

double Altitude(const Equatorial& eq, double days, double latitude, double longitude) {
  const double gmst = 280.46061837 + 360.98564736629 * days;
  const double hour_angle = (gmst + longitude - eq.ra) * kDeg;
  const double lat = latitude * kDeg, dec = eq.dec * kDeg;
  const double sin_alt =
      std::sin(lat) * std::sin(dec) + std::cos(lat) * std::cos(dec) * std::cos(hour_angle);
  return std::asin(std::clamp(sin_alt, -1.0, 1.0)) / kDeg;
}

// Scans the day in steps of ten minutes for the horizon crossings of f (altitude minus the
// altitude of the event) and refines each by halving.  A body that grazes the horizon and
// back within one step is not seen; at ten minutes that is a matter of seconds of daylight.
template <typename F>
RiseSet FindEvents(double day0, F f) {
  constexpr int kStepMinutes = 10;
  constexpr double kStep = kStepMinutes / 1440.0;
  RiseSet r;
  double prev = f(day0);
  bool any_up = prev > 0, any_down = prev <= 0;
  for (int i = 1; i * kStepMinutes <= 1440; ++i) {
    const double t1 = day0 + i * kStep;
    const double cur = f(t1);
    any_up = any_up || cur > 0;
    any_down = any_down || cur <= 0;
    if ((prev <= 0) != (cur <= 0)) {
      double lo = t1 - kStep, hi = t1;
      const bool rising = cur > 0;
      for (int k = 0; k < 20; ++k) {
        const double mid = (lo + hi) / 2;
        if ((f(mid) > 0) == rising) {
          hi = mid;
        } else {
          lo = mid;
        }
      }
      const int minute = int(std::lround((hi - day0) * 1440.0));
      if (minute < 1440) {
        int& slot = rising ? r.rise_minute : r.set_minute;
        if (slot < 0) slot = minute;
      }
    }
    prev = cur;
  }
  r.always_up = r.rise_minute < 0 && r.set_minute < 0 && !any_down;
  r.always_down = r.rise_minute < 0 && r.set_minute < 0 && !any_up;
  return r;
}

}  // namespace

double DaysSinceJ2000(std::chrono::system_clock::time_point t) {
  const double unix_seconds = std::chrono::duration<double>(t.time_since_epoch()).count();
  // 2000-01-01 12:00:00 UTC is 946728000 seconds after the Unix epoch.
  return (unix_seconds - 946728000.0) / 86400.0;
}

double SunAltitude(double days, double latitude, double longitude) {
  return Altitude(FromEcliptic(SunLongitude(days), 0, days), days, latitude, longitude);
}

double MoonAltitude(double days, double latitude, double longitude) {
  const MoonEcliptic m = MoonPosition(days);
  return Altitude(FromEcliptic(m.lambda, m.beta, days), days, latitude, longitude);
}

RiseSet SunRiseSet(std::chrono::system_clock::time_point day_start, double latitude,
                   double longitude) {
  constexpr double kHorizon = -0.833;  // refraction 34', semi-diameter 16'
  return FindEvents(DaysSinceJ2000(day_start),
                    [&](double d) { return SunAltitude(d, latitude, longitude) - kHorizon; });
}

RiseSet MoonRiseSet(std::chrono::system_clock::time_point day_start, double latitude,
                    double longitude) {
  return FindEvents(DaysSinceJ2000(day_start), [&](double d) {
    // The moon is near enough for its parallax to lower it by up to a degree; refraction
    // and its semi-diameter raise it again.
    const double horizon = 0.7275 * MoonPosition(d).parallax - 0.5667;
    return MoonAltitude(d, latitude, longitude) - horizon;
  });
}

MoonPhase MoonPhaseAt(std::chrono::system_clock::time_point t) {
  const double days = DaysSinceJ2000(t);
  const MoonEcliptic m = MoonPosition(days);
  const double diff = (m.lambda - SunLongitude(days)) * kDeg;
  // Elongation from the sun; the phase angle is its supplement to within a tenth of a degree.
  const double elongation = std::acos(std::cos(m.beta * kDeg) * std::cos(diff));
  MoonPhase p;
  p.illuminated = (1 - std::cos(elongation)) / 2;
  p.waxing = std::sin(diff) > 0;
  return p;
}

}  // namespace qx
