#include "info/astro.h"

#include <gtest/gtest.h>

#include <cstdlib>

#include "core/time_text.h"

namespace qx {
namespace {

// Reference times (UTC) from the sunrise algorithm of the Almanac for Computers (US Naval
// Observatory, 1990; zenith 90 deg 50'), worked independently of the code under test.  They
// agree with the published almanac tables: London at the June solstice rises 04:43 and sets
// 21:21 BST, New York at the December solstice 07:17 and 16:32 EST.
struct SunCase {
  const char* place;
  int year, month, day;
  double lat, lon;
  int rise, set;  // minutes after 0000Z; -1 when not checked
};

TEST(SunRiseSetTest, AgreesWithAlmanacWithinAMinute) {
  const SunCase cases[] = {
      {"London", 2024, 6, 21, 51.5074, -0.1278, 3 * 60 + 43, 20 * 60 + 22},
      {"New York", 2024, 12, 21, 40.7128, -74.0060, 12 * 60 + 17, 21 * 60 + 32},
      // Sydney sets on 20 March UTC; its rising that UTC day is the next local morning.
      {"Sydney", 2025, 3, 20, -33.8688, 151.2093, -1, 8 * 60 + 8},
  };
  for (const SunCase& c : cases) {
    const RiseSet r = SunRiseSet(MakeUtc(c.year, c.month, c.day), c.lat, c.lon);
    EXPECT_FALSE(r.always_up || r.always_down) << c.place;
    if (c.rise >= 0) {
      EXPECT_LE(std::abs(r.rise_minute - c.rise), 1) << c.place << " rise";
    }
    EXPECT_LE(std::abs(r.set_minute - c.set), 1) << c.place << " set";
  }
}

TEST(SunRiseSetTest, PolarNightAndMidnightSun) {
  const RiseSet winter = SunRiseSet(MakeUtc(2024, 12, 21), 69.65, 18.96);  // Tromso
  EXPECT_TRUE(winter.always_down);
  EXPECT_EQ(winter.rise_minute, -1);
  const RiseSet summer = SunRiseSet(MakeUtc(2024, 6, 21), 69.65, 18.96);
  EXPECT_TRUE(summer.always_up);
  EXPECT_EQ(summer.set_minute, -1);
}

TEST(MoonTest, PhaseAtKnownQuarters) {
  // January 2024: new moon 11th 11:57Z, first quarter 18th 03:53Z, full moon 25th 17:54Z.
  const MoonPhase new_moon = MoonPhaseAt(MakeUtc(2024, 1, 11, 11, 57));
  EXPECT_LT(new_moon.illuminated, 0.01);
  const MoonPhase quarter = MoonPhaseAt(MakeUtc(2024, 1, 18, 3, 53));
  EXPECT_NEAR(quarter.illuminated, 0.5, 0.03);
  EXPECT_TRUE(quarter.waxing);
  const MoonPhase full = MoonPhaseAt(MakeUtc(2024, 1, 25, 17, 54));
  EXPECT_GT(full.illuminated, 0.99);
  EXPECT_FALSE(MoonPhaseAt(MakeUtc(2024, 1, 28)).waxing);
}

TEST(MoonTest, FullMoonRisesAroundSunsetAndSetsAroundSunrise) {
  // Opposite the sun, the full moon rises near sunset and sets near sunrise; a wrong sidereal
  // time or sign of longitude moves it by hours.
  const auto day = MakeUtc(2024, 1, 25);
  const RiseSet moon = MoonRiseSet(day, 51.5, -0.13);
  const RiseSet sun = SunRiseSet(day, 51.5, -0.13);
  ASSERT_GE(moon.rise_minute, 0);
  ASSERT_GE(moon.set_minute, 0);
  EXPECT_LE(std::abs(moon.rise_minute - sun.set_minute), 90);
  EXPECT_LE(std::abs(moon.set_minute - sun.rise_minute), 90);
  // At the moment found, the moon stands at its rising altitude (about +0.1 deg).
  const double at_rise = DaysSinceJ2000(day) + moon.rise_minute / 1440.0;
  EXPECT_NEAR(MoonAltitude(at_rise, 51.5, -0.13), 0.1, 0.3);
}

}  // namespace
}  // namespace qx
