// Sun and moon for the information commands: rise and set within one UTC day, and the moon's
// illuminated fraction.  Positions come from the low-precision series of the astronomical
// almanacs (the sun to about 0.01 degree, the moon to about 0.3 degree), which puts sun
// times within a minute and moon times within a few minutes; more is not needed to plan a
// grey-line or moon-bounce contact.  Pure code: the day comes in as a value.
#pragma once

#include <chrono>

namespace qx {

// What one body does on one UTC day.  Times are minutes after 0000Z, -1 when there is no
// such event that day (the moon skips a rising or a setting about once a month; at high
// latitudes the sun may stay up or down all day).
struct RiseSet {
  int rise_minute = -1;
  int set_minute = -1;
  bool always_up = false;    // above the horizon the whole day, no event
  bool always_down = false;  // below it the whole day, no event
};

// Days since 2000-01-01 12:00 UT (the J2000.0 epoch) of a point in time.
double DaysSinceJ2000(std::chrono::system_clock::time_point t);

// Altitude in degrees of the sun's or the moon's centre above the horizon (geocentric, no
// refraction) at a place (north and east positive) and a time in days since J2000.
double SunAltitude(double days, double latitude, double longitude);
double MoonAltitude(double days, double latitude, double longitude);

// Sunrise and sunset on the UTC day that begins at day_start: the moments when the upper
// limb touches the horizon, refraction included (the centre 0.833 degree below).
RiseSet SunRiseSet(std::chrono::system_clock::time_point day_start, double latitude,
                   double longitude);
// Moonrise and moonset the same way, with the moon's parallax allowed for.
RiseSet MoonRiseSet(std::chrono::system_clock::time_point day_start, double latitude,
                    double longitude);

// The fraction of the moon's disc lit by the sun (0 new moon, 1 full moon) and whether it
// is growing.
struct MoonPhase {
  double illuminated = 0;
  bool waxing = false;
};
MoonPhase MoonPhaseAt(std::chrono::system_clock::time_point t);

}  // namespace qx
