#include "spots/dupes.h"

#include <fmt/format.h>
#include <gtest/gtest.h>

#include "core/monitor.h"
#include "spots/bands.h"
#include "spots/intake.h"
#include "spots/rate_limit.h"
#include "spots/spot_history.h"
#include "tests/testlib/test_util.h"

namespace qx {
namespace {

using std::chrono::minutes;
using std::chrono::seconds;

const SysTime kT0 = MakeUtc(2026, 11, 22, 3, 15, 0);

Spot MakeSpot(std::string_view dx, double khz, std::string_view spotter = "DL1XYZ",
              std::string_view hops = "H30") {
  Spot s;
  EXPECT_TRUE(SpotFromSentence(fmt::format("PC61^{:.1f}^{}^22-Nov-2026^0315Z^test^{}^DB0SUE^"
                                           "192.0.2.1^{}^~",
                                           khz, dx, spotter, hops),
                               s));
  return s;
}

// The same call near the frequency within ten minutes is a duplicate whoever spots it; the
// same sentence over another link is one for an hour, whatever its hop count.
TEST(DupeDetectorTest, SameCallNearTheFrequencyOrTheSameSentenceWithinTheirWindows) {
  DupeDetector d;
  EXPECT_FALSE(d.DupeFound(MakeSpot("K1ABC", 14025.0), kT0));
  EXPECT_TRUE(d.DupeFound(MakeSpot("K1ABC", 14026.5, "G4ABC"), kT0 + minutes(5)));
  EXPECT_TRUE(d.DupeFound(MakeSpot("K1ABC", 14022.0, "G4ABC"), kT0 + minutes(9)));
  // Another band, another call: not duplicates.
  EXPECT_FALSE(d.DupeFound(MakeSpot("K1ABC", 7025.0), kT0 + minutes(1)));
  EXPECT_FALSE(d.DupeFound(MakeSpot("K1ABD", 14025.0), kT0 + minutes(1)));
  EXPECT_FALSE(d.DupeFound(MakeSpot("K1ABC", 14030.0, "G4ABC"), kT0 + minutes(2)));
  // After the window the call may be spotted again, and that starts a new window.
  EXPECT_FALSE(d.DupeFound(MakeSpot("K1ABC", 14025.0, "G4ABC"), kT0 + minutes(10) + seconds(1)));
  EXPECT_TRUE(d.DupeFound(MakeSpot("K1ABC", 14025.0, "G5ABC"), kT0 + minutes(11)));
  // The first sentence again, with another hop count, after the call window.
  EXPECT_TRUE(d.DupeFound(MakeSpot("K1ABC", 14025.0, "DL1XYZ", "H12"), kT0 + minutes(30)));
  EXPECT_FALSE(d.DupeFound(MakeSpot("K1ABC", 14025.0, "DL1XYZ", "H12"), kT0 + minutes(61)));
}

TEST(DupeDetectorTest, MemoryIsBounded) {
  DupeOptions o;
  o.max_records = 4;
  DupeDetector d(o);
  for (int i = 0; i < 10; ++i) {
    EXPECT_FALSE(d.DupeFound(MakeSpot("K" + std::to_string(i) + "AA", 14025.0), kT0));
  }
  EXPECT_EQ(d.size(), 4u);
  EXPECT_FALSE(d.DupeFound(MakeSpot("K0AA", 14025.0), kT0));  // forgotten
  EXPECT_TRUE(d.DupeFound(MakeSpot("K9AA", 14025.0), kT0));   // still known
  // Records expire with time as well.
  EXPECT_FALSE(d.DupeFound(MakeSpot("K9AA", 14025.0), kT0 + minutes(61)));
  EXPECT_EQ(d.size(), 1u);
}

TEST(RateLimitTest, LimitsPerMinuteAndHighestRates) {
  SpotRateLimiter r(SpotRates{5, 2, 2}, SpotRates{1, 1, 4});
  EXPECT_EQ(r.Admit("K1ABC", "A", kT0), RateVerdict::kAdmitted);
  EXPECT_EQ(r.Admit("K1ABC", "B", kT0), RateVerdict::kAdmitted);
  EXPECT_EQ(r.Admit("K1ABC", "C", kT0), RateVerdict::kTooManyForDx);
  EXPECT_EQ(r.Admit("K2ABC", "A", kT0), RateVerdict::kAdmitted);
  EXPECT_EQ(r.Admit("K3ABC", "A", kT0), RateVerdict::kTooManyBySpotter);
  EXPECT_EQ(r.Admit("K4ABC", "D", kT0), RateVerdict::kTooManySpots);
  EXPECT_TRUE(r.TakeHighestChanged());
  EXPECT_FALSE(r.TakeHighestChanged());
  EXPECT_EQ(r.highest().per_minute, 6);
  EXPECT_EQ(r.highest().per_dx, 3);
  EXPECT_EQ(r.highest().per_spotter, 4);  // seen before, never lowered
  // A new minute starts afresh.
  EXPECT_EQ(r.Admit("K1ABC", "A", kT0 + seconds(60)), RateVerdict::kAdmitted);
  EXPECT_FALSE(r.TakeHighestChanged());
  SpotRateLimiter unlimited;
  for (int i = 0; i < 1000; ++i)
    ASSERT_EQ(unlimited.Admit("K1ABC", "A", kT0), RateVerdict::kAdmitted);
}

TEST(SpotHistoryTest, KeepsTheNewestAndSurvivesAReload) {
  qx::testing::TempDir tmp;
  const BandTable bands = BandTable::SetupFreqRanges();
  {
    SpotHistory h(3, tmp.path() / "dx");
    for (int i = 0; i < 4; ++i) {
      Spot s = MakeSpot("K" + std::to_string(i) + "ABC", i % 2 ? 7025.0 : 14025.0);
      s.slots[kSlotComment] = i == 3 ? "FT8 -10dB" : "cw";
      s.received = kT0 + minutes(i);
      h.Add(s);
    }
    EXPECT_EQ(h.size(), 3u);
    const auto all = h.Find(SpotQuery{});
    ASSERT_EQ(all.size(), 3u);
    EXPECT_EQ(all[0]->dx_call(), "K3ABC");
    EXPECT_EQ(all[2]->dx_call(), "K1ABC");
  }
  const std::string file = qx::testing::ReadFile(tmp.path() / "dx" / "22-Nov-2026.txt");
  EXPECT_EQ(std::count(file.begin(), file.end(), '\n'), 4);
  EXPECT_TRUE(file.starts_with(
      "PC61^14025.0^K0ABC^22-Nov-2026^0315Z^cw^DL1XYZ^DB0SUE^192.0.2.1^H30^~\r\n"));

  SpotHistory h(3, tmp.path() / "dx");
  Monitor monitor;
  std::vector<std::string> console;
  monitor.Subscribe([&](const MonitorLine& l) { console.emplace_back(l.text); });
  EXPECT_EQ(h.LoadToday(kT0 + minutes(30), bands, &monitor), 4u);
  EXPECT_EQ(console.front(), "Loading DX Spots");
  const auto all = h.Find(SpotQuery{10, "", 0, {}, {}, {}});
  ASSERT_EQ(all.size(), 3u);
  EXPECT_EQ(all[0]->dx_call(), "K3ABC");
  EXPECT_EQ(all[0]->ModeFlags, bands.BandBit(7025.0) | kModeFt8);
  EXPECT_EQ(all[0]->received, MakeUtc(2026, 11, 22, 3, 15));

  EXPECT_EQ(h.Find(SpotQuery{10, "k2abc", 0, {}, {}, {}}).size(), 1u);
  EXPECT_EQ(h.Find(SpotQuery{10, "K*", 0, {}, {}, {}}).size(), 3u);
  EXPECT_EQ(h.Find(SpotQuery{10, "K2*", 0, {}, {}, {}}).size(), 1u);
  EXPECT_EQ(h.Find(SpotQuery{10, "K2", 0, {}, {}, {}}).size(), 0u);
  EXPECT_EQ(h.Find(SpotQuery{10, "", bands.BitByName("40m"), {}, {}, {}}).size(), 2u);
  EXPECT_EQ(h.Find(SpotQuery{10, "", bands.BitByName("20"), {}, {}, {}}).size(), 1u);
  EXPECT_EQ(h.Find(SpotQuery{1, "", 0, {}, {}, {}}).size(), 1u);
  // A user's filter: the count is of the spots it lets through.
  const auto shown =
      h.Find(SpotQuery{2, "", 0, [](const Spot& s) { return s.dx_call() != "K3ABC"; }, {}, {}});
  ASSERT_EQ(shown.size(), 2u);
  EXPECT_NE(shown[0]->dx_call(), "K3ABC");
  EXPECT_NE(shown[1]->dx_call(), "K3ABC");
}

TEST(BandTableTest, RangesAndBitsLeaveTheModeBitsFree) {
  const BandTable b = BandTable::SetupFreqRanges();
  uint32_t seen = 0;
  for (const BandRange& r : b.ranges()) {
    EXPECT_EQ(r.bit & kModeMask, 0u) << r.name;
    EXPECT_EQ(seen & r.bit, 0u) << r.name;
    seen |= r.bit;
    EXPECT_EQ(b.BandBit(r.low_khz), r.bit);
    EXPECT_EQ(b.BandBit(r.high_khz), r.bit);
  }
  EXPECT_EQ(b.BandBit(136.0), b.BitByName("2200m"));
  EXPECT_EQ(b.BandBit(14074.0), b.BitByName("20m"));
  EXPECT_EQ(b.BandBit(10368100.0), b.BitByName("3cm"));
  EXPECT_EQ(b.BandBit(130.0), 0u);
  EXPECT_EQ(b.BandBit(14500.0), 0u);
  EXPECT_EQ(b.BandBit(0), 0u);
  EXPECT_EQ(b.BitByName("11m"), 0u);
}

}  // namespace
}  // namespace qx
