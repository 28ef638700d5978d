#include <gtest/gtest.h>
#include "filters/user_filters.h"
TEST(Smoke, Builds) {
  qx::BandTable bands = qx::BandTable::SetupFreqRanges();
  qx::UserFilters f(bands);
  EXPECT_TRUE(f.Apply("ACC/SPOTS on hf").ok);
}
