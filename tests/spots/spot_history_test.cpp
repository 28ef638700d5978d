#include "spots/spot_history.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "core/text_util.h"
#include "spots/bands.h"
#include "spots/spot_line.h"
#include "tests/testlib/test_util.h"

namespace qx {
namespace {

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

}  // namespace
}  // namespace qx
