#include "core/frontend_counters.h"

#include <gtest/gtest.h>

#include <string>

namespace qx {
namespace {

TEST(FrontendCounterValuesTest, KeepsTheLastValueOfEveryNameKnownOrNot) {
  FrontendCounterValues v;
  EXPECT_EQ(v.Take("AA20^open_connections=7^refused_rate_total=2"), 0u);
  EXPECT_EQ(v.Take("AA20^open_connections=5^something_new_total=18446744073709551615"), 0u);
  EXPECT_EQ(v.values().at("open_connections"), 5u);
  EXPECT_EQ(v.values().at("refused_rate_total"), 2u);  // not in this record: kept
  EXPECT_EQ(v.values().at("something_new_total"), 18446744073709551615u);
  EXPECT_EQ(v.Take("AA20"), 0u);
  EXPECT_EQ(v.values().size(), 3u);
}

TEST(FrontendCounterValuesTest, PairsThatCannotBeReadAreLeftOut) {
  FrontendCounterValues v;
  EXPECT_EQ(v.Take("AA20^no_value^Bad-Name=1^x=^y=-1^z=12a^=3^"
                   "good=4^" +
                   std::string(65, 'n') + "=1"),
            7u);
  ASSERT_EQ(v.values().size(), 1u);
  EXPECT_EQ(v.values().at("good"), 4u);

  // The table does not grow past its bound; names already known still update.
  for (size_t i = 0; i < FrontendCounterValues::kMaxNames + 10; ++i) {
    v.Take("AA20^n" + std::to_string(i) + "=1");
  }
  EXPECT_EQ(v.values().size(), FrontendCounterValues::kMaxNames);
  EXPECT_EQ(v.Take("AA20^good=9^another=1"), 1u);
  EXPECT_EQ(v.values().at("good"), 9u);
}

}  // namespace
}  // namespace qx
