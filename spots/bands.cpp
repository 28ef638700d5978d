#include "spots/bands.h"

#include <algorithm>

#include "core/text_util.h"

namespace qx {

BandTable BandTable::SetupFreqRanges() {
  // Every amateur allocation from 2200 m to the millimetre bands, each range wide enough to
  // hold the band plans of all three regions.  A band is one bit of the 32-bit mode word;
  // bits 32 to 512 (values) carry the modes, so the bands take bits 0-4 and 10-31.  The
  // positions make the band-mode numbers users know mean what they say (docs/filters.md):
  // the six contest bands 160, 80, 40, 20, 15 and 10 m sit on bits 2, 14, 15, 17, 29, 30;
  // the other HF bands, 6 m and 2 m on 11, 12, 13, 26, 27, 28.
  return BandTable({
      {135.0, 138.0, 1u << 0, "2200m"},
      {472.0, 479.0, 1u << 1, "630m"},
      {1800.0, 2000.0, 1u << 2, "160m"},
      {3500.0, 4000.0, 1u << 14, "80m"},
      {5250.0, 5450.0, 1u << 11, "60m"},
      {7000.0, 7300.0, 1u << 15, "40m"},
      {10100.0, 10150.0, 1u << 12, "30m"},
      {14000.0, 14350.0, 1u << 17, "20m"},
      {18068.0, 18168.0, 1u << 13, "17m"},
      {21000.0, 21450.0, 1u << 29, "15m"},
      {24890.0, 24990.0, 1u << 26, "12m"},
      {28000.0, 29700.0, 1u << 30, "10m"},
      {50000.0, 54000.0, 1u << 27, "6m"},
      {70000.0, 71000.0, 1u << 3, "4m"},
      {144000.0, 148000.0, 1u << 28, "2m"},
      {222000.0, 225000.0, 1u << 4, "1.25m"},
      {420000.0, 450000.0, 1u << 10, "70cm"},
      {902000.0, 928000.0, 1u << 16, "33cm"},
      {1240000.0, 1300000.0, 1u << 18, "23cm"},
      {2300000.0, 2450000.0, 1u << 19, "13cm"},
      {3300000.0, 3500000.0, 1u << 20, "9cm"},
      {5650000.0, 5925000.0, 1u << 21, "6cm"},
      {10000000.0, 10500000.0, 1u << 22, "3cm"},
      {24000000.0, 24250000.0, 1u << 23, "1.2cm"},
      {47000000.0, 47200000.0, 1u << 24, "6mm"},
      {75500000.0, 81000000.0, 1u << 25, "4mm"},
      {122250000.0, 250000000.0, 1u << 31, "2.5mm"},  // 2.5 mm and everything above
  });
}

BandTable::BandTable(std::vector<BandRange> ranges) : ranges_(std::move(ranges)) {
  std::sort(ranges_.begin(), ranges_.end(),
            [](const BandRange& a, const BandRange& b) { return a.low_khz < b.low_khz; });
}

const BandRange* BandTable::Find(double khz) const {
  // The last range starting at or below khz is the only candidate.
  auto it = std::upper_bound(ranges_.begin(), ranges_.end(), khz,
                             [](double f, const BandRange& r) { return f < r.low_khz; });
  if (it == ranges_.begin()) return nullptr;
  --it;
  return khz <= it->high_khz ? &*it : nullptr;
}

uint32_t BandTable::BandBit(double khz) const {
  const BandRange* r = Find(khz);
  return r ? r->bit : 0;
}

uint32_t BandTable::BitByName(std::string_view name) const {
  for (const BandRange& r : ranges_) {
    if (EqualsIgnoreCase(r.name, name)) return r.bit;
    // "20" for "20m"
    if (r.name.size() == name.size() + 1 && EqualsIgnoreCase(r.name.substr(0, name.size()), name) &&
        r.name.back() == 'm') {
      return r.bit;
    }
  }
  return 0;
}

}  // namespace qx
