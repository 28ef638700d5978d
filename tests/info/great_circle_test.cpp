#include "info/great_circle.h"

#include <gtest/gtest.h>

namespace qx {
namespace {

TEST(GreatCircleTest, KnownPaths) {
  // A quarter of the equator: due east, a quarter of the circumference each way round.
  GreatCirclePath p = PathBetween({0, 0}, {0, 90});
  EXPECT_NEAR(p.short_bearing, 90, 1e-9);
  EXPECT_NEAR(p.long_bearing, 270, 1e-9);
  EXPECT_NEAR(p.short_km, 10007.5, 0.1);
  EXPECT_NEAR(p.long_km, 30022.6, 0.1);
  // London to New York: 5570 km, leaving on 288 degrees (north of west).
  p = PathBetween({51.5074, -0.1278}, {40.7128, -74.0060});
  EXPECT_NEAR(p.short_km, 5570, 5);
  EXPECT_NEAR(p.short_bearing, 288.3, 0.2);
  EXPECT_NEAR(p.long_bearing, 108.3, 0.2);
  // And back: New York leaves for London on 51 degrees.
  EXPECT_NEAR(PathBetween({40.7128, -74.0060}, {51.5074, -0.1278}).short_bearing, 51.2, 0.3);
  // Anywhere to the north pole is due north; a point to itself is no distance.
  EXPECT_NEAR(PathBetween({-33.9, 151.2}, {90, 0}).short_bearing, 0, 1e-6);
  EXPECT_NEAR(PathBetween({10, 10}, {10, 10}).short_km, 0, 1e-9);
}

TEST(LocatorPositionTest, CentresAndRejects) {
  GeoPoint g;
  ASSERT_TRUE(LocatorPosition("FN42", g));
  EXPECT_DOUBLE_EQ(g.latitude, 42.5);
  EXPECT_DOUBLE_EQ(g.longitude, -71.0);
  ASSERT_TRUE(LocatorPosition("io91wm", g));  // London: 51.52N 0.13W
  EXPECT_NEAR(g.latitude, 51.5208, 1e-3);
  EXPECT_NEAR(g.longitude, -0.125, 1e-3);
  ASSERT_TRUE(LocatorPosition("JO01DM41", g));
  EXPECT_NEAR(g.latitude, 51.5063, 1e-3);
  EXPECT_NEAR(g.longitude, 0.2875, 1e-3);
  for (const char* bad : {"", "FN4", "SN42", "FN4A", "FN42YA", "FN42dm4", "K1ABC"}) {
    EXPECT_FALSE(LocatorPosition(bad, g)) << bad;
  }
}

}  // namespace
}  // namespace qx
