#include "core/memory_ceiling.h"

#include <gtest/gtest.h>

namespace qx {
namespace {

constexpr size_t kMb = 1u << 20;

TEST(MemoryCeilingTest, ShedsTheLargestSheddableBacklogNearTheCeiling) {
  MemoryCeiling c(100);
  const SysTime t0 = SysTime{} + std::chrono::hours(1000);
  const std::vector<Backlog> backlogs = {
      {"link output", 50 * kMb, false}, {"spot history", 20 * kMb, true}, {"dupes", 5 * kMb, true}};
  EXPECT_EQ(c.Check(89 * kMb, backlogs, t0).shed, -1);  // below nine tenths
  MemoryDecision d = c.Check(91 * kMb, backlogs, t0);
  EXPECT_EQ(d.shed, 1);  // the link output is larger but is bounded elsewhere
  EXPECT_EQ(d.note,
            "memory 91 MB of MaxMem 100 MB; link output 50 MB, spot history 20 MB, dupes 5 MB; "
            "shedding the spot history");
  // Not again at once: what was shed needs a moment to show in the resident size.
  EXPECT_EQ(c.Check(95 * kMb, backlogs, t0 + std::chrono::seconds(10)).shed, -1);
  EXPECT_EQ(c.Check(95 * kMb, backlogs, t0 + std::chrono::seconds(30)).shed, 1);
  d = c.Check(70 * kMb, backlogs, t0 + std::chrono::seconds(40));
  EXPECT_EQ(d.note, "memory back to 70 MB of MaxMem 100 MB");
  d = c.Check(99 * kMb, {{"link output", kMb, false}}, t0 + std::chrono::seconds(41));
  EXPECT_EQ(d.shed, -1);
  EXPECT_TRUE(d.note.ends_with("nothing left to shed")) << d.note;

  MemoryCeiling off(0);
  EXPECT_EQ(off.Check(size_t(1) << 40, backlogs, t0).note, "");
}

TEST(MemoryCeilingTest, ReadsTheResidentSize) {
  EXPECT_EQ(ResidentBytesFromStatm("2000 512 300 10 0 400 0\n", 4096), 512u * 4096);
  EXPECT_EQ(ResidentBytesFromStatm("garbage", 4096), 0u);
  EXPECT_GT(ResidentBytes(), 0u);
}

}  // namespace
}  // namespace qx
