// The band-range table: which frequencies the node accepts as spots, and the band bit each
// range gives to a spot's ModeFlags.  One place for "which band is this frequency on".
#pragma once

#include <cstdint>
#include <string_view>
#include <vector>

namespace qx {

struct BandRange {
  double low_khz;
  double high_khz;  // inclusive
  uint32_t bit;
  std::string_view name;  // "20m", "70cm"
};

class BandTable {
 public:
  // The node's ranges, ordered by frequency.
  static BandTable SetupFreqRanges();
  explicit BandTable(std::vector<BandRange> ranges);

  // The band bit of a frequency, 0 when it lies on no band.
  uint32_t BandBit(double khz) const;
  const BandRange* Find(double khz) const;
  // The bit of a band by its name ("20m", "20M", "20"), 0 when unknown.
  uint32_t BitByName(std::string_view name) const;
  const std::vector<BandRange>& ranges() const { return ranges_; }

 private:
  std::vector<BandRange> ranges_;  // sorted by low_khz, not overlapping
};

}  // namespace qx
