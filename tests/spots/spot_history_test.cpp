#include "spots/spot_history.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "core/text_util.h"
#include "spots/bands.h"
#include "spots/intake.h"
#include "spots/spot_ids.h"
#include "spots/spot_line.h"
#include "tests/testlib/test_util.h"

namespace qx {
namespace {

using qx::testing::ReadFile;
using qx::testing::TempDir;
using qx::testing::WriteFile;

bool HasControlChars(std::string_view text) {
  return std::any_of(text.begin(), text.end(), IsControlChar);
}

// A day file may hold what an older version or a neighbour put there: control bytes in a
// comment (Chr 4 ends a message on the front-end link, so one such spot used to cut SH/DX
// short) and dates or times that cannot be.  Start-up reads it all safely.
TEST(SpotHistoryTest, DayFileIsReadCleanAtStartUp) {
  TempDir tmp;
  SpotHistory history(100, tmp.path());
  const SysTime now = MakeUtc(2026, 11, 22, 12, 0, 0);
  const std::string_view tail = "^DL1XYZ^DB0SUE^192.0.2.1^H30^~\r\n";
  std::string file;
  file += "PC61^14025.0^K1ABC^22-Nov-2026^0315Z^first" + std::string(tail);
  file += "PC61^14026.0^K2ABC^22-Nov-2026^0316Z^eot\x04here\x07\x1b[2J" + std::string(tail);
  file += "PC61^14027.0^K3ABC^31-Feb-2026^0317Z^bad date" + std::string(tail);
  file += "PC61^14028.0^K4ABC^22-Nov-2026^2561Z^bad time" + std::string(tail);
  file +=
      "PC61^14029.0^K5\x01"
      "ABC^22-Nov-2026^0318Z^last" +
      std::string(tail);
  WriteFile(history.DayFile(now), file);

  EXPECT_EQ(history.LoadToday(now, BandTable::SetupFreqRanges(), nullptr), 3u);
  const std::vector<const Spot*> spots = history.Find(SpotQuery{});
  ASSERT_EQ(spots.size(), 3u);
  EXPECT_EQ(spots[0]->dx_call(), "K5ABC");
  EXPECT_EQ(spots[1]->comment(), "eothere[2J");
  EXPECT_EQ(spots[1]->received, MakeUtc(2026, 11, 22, 3, 16));
  EXPECT_EQ(spots[2]->comment(), "first");
  for (const Spot* s : spots) {
    const std::string line = ShowDxLine(*s, 1);
    EXPECT_FALSE(HasControlChars(line)) << line;
    EXPECT_NE(line.find(std::string(s->comment()) + "  <DL1XYZ>"), std::string::npos) << line;
  }
}

// Under the memory ceiling the oldest spots leave memory first, across the ring's wrap.
TEST(SpotHistoryTest, DropOldestKeepsTheNewest) {
  SpotHistory history(4, "");
  for (int i = 0; i < 6; ++i) {
    Spot spot;
    spot.slots[kSlotDxCall] = "K" + std::to_string(i) + "ABC";
    spot.slots[kSlotComment] = std::string(100, 'x');
    history.Add(spot);
  }
  const size_t full = history.ApproxBytes();
  EXPECT_EQ(history.DropOldest(3), 3u);
  EXPECT_LT(history.ApproxBytes(), full);
  std::vector<const Spot*> spots = history.Find(SpotQuery{});
  ASSERT_EQ(spots.size(), 1u);
  EXPECT_EQ(spots[0]->dx_call(), "K5ABC");
  // A new country table: the spots kept point into it, never into the old one.
  CountryInfo dl;
  dl.country = "Germany";
  history.RefreshCountries([&](std::string_view call) { return call == "K5ABC" ? &dl : nullptr; });
  EXPECT_EQ(spots[0]->dx_country, &dl);
  EXPECT_EQ(history.DropOldest(5), 1u);
  EXPECT_TRUE(history.Find(SpotQuery{}).empty());
}

Spot NumberedSpot(uint64_t id, SysTime when) {
  Spot spot;
  EXPECT_TRUE(SpotFromSentence("PC61^14025.0^K" + std::to_string(id) +
                                   "A^22-Nov-2026^0315Z^cw^DL1XYZ^DB0SUE^192.0.2.1^H30^~",
                               spot));
  spot.Id = id;
  spot.received = when;
  return spot;
}

// Numbers are never handed out twice: not after a restart, not when the day file lost its
// end in a crash, and lines of files written before numbers existed get fresh ones.
TEST(SpotHistoryTest, NumbersSurviveRestartsAndOldLinesGetNewOnes) {
  TempDir tmp;
  const SysTime now = MakeUtc(2026, 11, 22, 12, 0, 0);
  const BandTable bands = BandTable::SetupFreqRanges();
  const std::filesystem::path counter_file = tmp.path() / "spot_id.state";
  {
    SpotIdCounter ids(counter_file);
    ids.Load();
    SpotHistory history(100, tmp.path() / "dx");
    for (int i = 0; i < 3; ++i) history.Add(NumberedSpot(ids.Next(), now));
    EXPECT_EQ(ids.last(), 3u);
  }
  // An older version's line at the end of the file, and one that cannot be read.
  const std::filesystem::path day = tmp.path() / "dx" / (DateText(now) + ".txt");
  WriteFile(day, ReadFile(day) +
                     "PC61^14026.0^OLD1^22-Nov-2026^0316Z^x^DL1XYZ^DB0SUE^192.0.2.1^H30^~\r\n"
                     "#x12 PC61^14026.0^BAD^22-Nov-2026^0316Z^x^DL1XYZ^DB0SUE^1.2.3.4^H30^~\r\n");
  SpotIdCounter ids(counter_file);
  ids.Load();
  SpotHistory history(100, tmp.path() / "dx");
  history.set_ids(&ids);
  EXPECT_EQ(history.LoadToday(now, bands, nullptr), 4u);
  const std::vector<const Spot*> spots = history.Find(SpotQuery{});
  ASSERT_EQ(spots.size(), 4u);
  EXPECT_EQ(spots[3]->Id, 1u);
  EXPECT_EQ(spots[1]->Id, 3u);
  // Numbers up to the reserved mark may have reached someone before the restart.
  EXPECT_GT(spots[0]->Id, SpotIdCounter::kBlock);
  EXPECT_EQ(history.last_id(), spots[0]->Id);
  EXPECT_GT(ids.Next(), spots[0]->Id);
}

TEST(SpotHistoryTest, SpotsAfterANumberFromMemoryOrTheDayFiles) {
  TempDir tmp;
  const SysTime now = MakeUtc(2026, 11, 22, 12, 0, 0);
  const BandTable bands = BandTable::SetupFreqRanges();
  SpotHistory history(3, tmp.path());  // memory keeps the last three only
  for (uint64_t id = 1; id <= 6; ++id) history.Add(NumberedSpot(id, now));
  const auto ids = [](const std::vector<Spot>& spots) {
    std::vector<uint64_t> out;
    for (const Spot& s : spots) out.push_back(s.Id);
    return out;
  };
  bool gap = true;
  EXPECT_EQ(ids(history.SpotsAfter(4, 10, now, bands, gap)), (std::vector<uint64_t>{5, 6}));
  EXPECT_FALSE(gap);
  // Memory forgot 2 and 3: the day file has them.
  EXPECT_EQ(ids(history.SpotsAfter(1, 10, now, bands, gap)),
            (std::vector<uint64_t>{2, 3, 4, 5, 6}));
  EXPECT_FALSE(gap);
  EXPECT_EQ(ids(history.SpotsAfter(1, 2, now, bands, gap)), (std::vector<uint64_t>{2, 3}));
  EXPECT_TRUE(history.SpotsAfter(6, 10, now, bands, gap).empty());
  EXPECT_FALSE(gap);
  // Nothing keeps spots before 1 any more (the files of two days ago are not read).
  std::filesystem::remove(history.DayFile(now));
  history.Add(NumberedSpot(7, now));
  EXPECT_EQ(ids(history.SpotsAfter(1, 10, now, bands, gap)), (std::vector<uint64_t>{5, 6, 7}));
  EXPECT_TRUE(gap);
}

}  // namespace
}  // namespace qx
