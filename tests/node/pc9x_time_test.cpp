#include "node/pc9x_time.h"

#include <gtest/gtest.h>

#include <set>

namespace qx {
namespace {

using V = Pc9xTimeCheck::Verdict;

TEST(Pc9xTimeCheck, StampsOfAnOriginMustRise) {
  Pc9xTimeCheck check("Q1AAA");
  EXPECT_EQ(check.Check("Q9ZZZ-2", "80562", 80562, true), V::kAccept);
  EXPECT_EQ(check.Check("Q9ZZZ-2", "80562", 80563, false), V::kNotNewer);  // shared by PC93
  EXPECT_EQ(check.Check("Q9ZZZ-2", "80562.01", 80563, false), V::kAccept);
  EXPECT_EQ(check.Check("Q9ZZZ-2", "80500", 80563, true), V::kNotNewer);
  // Another origin has its own history.
  EXPECT_EQ(check.Check("Q8YYY", "80500", 80563, true), V::kAccept);
  EXPECT_DOUBLE_EQ(check.Last("Q9ZZZ-2"), 80562.01);
  EXPECT_DOUBLE_EQ(check.Last("nobody"), -1);
}

// Origins that come and go (or that a peer invents) must not fill memory; the ones heard
// lately are kept.
TEST(Pc9xTimeCheck, TableOfOriginsIsBoundedAndKeepsTheRecentOnes) {
  Pc9xTimeCheck check("Q1AAA");
  const size_t n = Pc9xTimeCheck::kMaxOrigins + 1000;
  for (size_t i = 0; i < n; ++i) {
    ASSERT_EQ(check.Check("Q" + std::to_string(i) + "X", "80000", 80000, true), V::kAccept);
    if (i % 1000 == 0) {
      ASSERT_EQ(check.Check("Q0KEEP", std::to_string(80000 + i / 1000 + 1), 80000, true),
                V::kAccept);
    }
  }
  EXPECT_LE(check.size(), Pc9xTimeCheck::kMaxOrigins);
  EXPECT_GT(check.Last("Q0KEEP"), 80000);
  EXPECT_DOUBLE_EQ(check.Last("Q1X"), -1);  // among the first heard: forgotten
  EXPECT_DOUBLE_EQ(check.Last("Q" + std::to_string(n - 1) + "X"), 80000);
}

TEST(Pc9xTimeCheck, BadStampsAndClockSkew) {
  Pc9xTimeCheck check("Q1AAA");
  EXPECT_EQ(check.Check("Q9ZZZ-2", "abc", 100, true), V::kBadStamp);
  EXPECT_EQ(check.Check("Q9ZZZ-2", "86400", 100, true), V::kBadStamp);
  EXPECT_EQ(check.Check("Q9ZZZ-2", "-1", 100, true), V::kBadStamp);
  EXPECT_EQ(check.Check("Q9ZZZ-2", "", 100, true), V::kBadStamp);
  EXPECT_EQ(check.Check("Q9ZZZ-2", "1000", 1901, true), V::kClockSkew);
  EXPECT_EQ(check.Check("Q9ZZZ-2", "1000", 1900, true), V::kAccept);
  // A replayed PC93 from early in the day, hours later.
  EXPECT_EQ(check.Check("Q8YYY", "100", 40000, false), V::kClockSkew);
  // Our own PC92 coming back round a loop.
  EXPECT_EQ(check.Check("Q1AAA", "1900", 1900, true), V::kOwnOrigin);
}

TEST(Pc9xTimeCheck, AcrossMidnight) {
  Pc9xTimeCheck check("Q1AAA");
  // Our clock 23:59:50; a stamp from just after midnight on a fast peer is within 15 min.
  EXPECT_EQ(check.Check("Q9ZZZ-2", "86300", 86390, true), V::kAccept);
  EXPECT_EQ(check.Check("Q9ZZZ-2", "20", 86390, true), V::kAccept);  // a new day
  EXPECT_EQ(check.Check("Q9ZZZ-2", "60", 30, true), V::kAccept);
  // Yesterday's stamp arriving late after the wrap: greater, but older.
  EXPECT_EQ(check.Check("Q9ZZZ-2", "86350", 70, true), V::kNotNewer);
  EXPECT_EQ(check.Check("Q9ZZZ-2", "61", 70, true), V::kAccept);
}

TEST(Pc9xStampGenerator, UniqueWithinOneSecond) {
  Pc9xStampGenerator gen;
  EXPECT_EQ(gen.Next(80562), "80562");
  EXPECT_EQ(gen.Next(80562), "80562.01");
  EXPECT_EQ(gen.Next(80562), "80562.02");
  EXPECT_EQ(gen.Next(80563), "80563");
  // A clock stepping back never repeats a stamp.
  EXPECT_EQ(gen.Next(80560), "80563.01");
  std::set<std::string> seen;
  for (int i = 0; i < 250; ++i) EXPECT_TRUE(seen.insert(gen.Next(81000)).second) << i;
  // Stamps from the generator pass the receiving check one after another.
  Pc9xTimeCheck check("Q8YYY");
  Pc9xStampGenerator fresh;
  for (int i = 0; i < 5; ++i) {
    EXPECT_EQ(check.Check("Q1AAA", fresh.Next(500), 500, false), V::kAccept) << i;
  }
}

}  // namespace
}  // namespace qx
