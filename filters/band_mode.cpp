#include "filters/band_mode.h"

#include <bit>
#include <vector>

#include "core/text_util.h"
#include "filters/filter_rules.h"

namespace qx {
namespace {

constexpr uint16_t kKnownModes = kAllModeBits & ~ModeBit(SpotMode::kUnknown);

// The modes of the second mask's classes.
uint16_t ModesOfClasses(uint32_t mask2) {
  uint16_t modes = 0;
  if (mask2 & kDxbmClassCw) modes |= ModeBit(SpotMode::kCw);
  if (mask2 & kDxbmClassPhone) modes |= ModeBit(SpotMode::kSsb);
  if (mask2 & kDxbmClassRtty) modes |= ModeBit(SpotMode::kRtty);
  if (mask2 & kDxbmClassWsjt) modes |= ModeBit(SpotMode::kFt8) | ModeBit(SpotMode::kFt4);
  if (mask2 & kDxbmClassData) {
    modes |= ModeBit(SpotMode::kPsk) | ModeBit(SpotMode::kMsk) | ModeBit(SpotMode::kData);
  }
  return modes;
}

// A spot whose mode nothing tells passes wherever its band takes any mode.
uint16_t WithUnknown(uint16_t modes) {
  return (modes & kKnownModes) != 0 ? uint16_t(modes | ModeBit(SpotMode::kUnknown))
                                    : uint16_t(modes & kKnownModes);
}

}  // namespace

uint32_t BandBitsByName(std::string_view name, const BandTable& bands) {
  struct Group {
    std::string_view name;
    double low_khz, high_khz;
  };
  static constexpr Group kGroups[] = {
      {"HF", 1800.0, 30000.0}, {"VHF", 30000.0, 300000.0}, {"UHF", 300000.0, 3000000.0}};
  for (const Group& g : kGroups) {
    if (!EqualsIgnoreCase(name, g.name)) continue;
    uint32_t bits = 0;
    for (const BandRange& r : bands.ranges()) {
      if (r.low_khz >= g.low_khz && r.low_khz < g.high_khz) bits |= r.bit;
    }
    return bits;
  }
  return bands.BitByName(name);
}

uint16_t ModeBitsByName(std::string_view name) {
  for (int m = 0; m < kSpotModeCount; ++m) {
    const SpotMode mode = static_cast<SpotMode>(m);
    if (mode != SpotMode::kUnknown && EqualsIgnoreCase(name, SpotModeName(mode))) {
      return ModeBit(mode);
    }
  }
  return 0;
}

BandModeMask::BandModeMask() { modes_.fill(kAllModeBits); }

BandModeMask BandModeMask::FromNumbers(uint32_t mask, uint32_t mask2) {
  if (mask == 0 && mask2 == 0) {
    mask = kDxbmStoredZero;
    mask2 = kDxbmStoredZero2;
  }
  BandModeMask m;
  const uint16_t modes = WithUnknown(ModesOfClasses(mask2));
  const bool every_band = (mask & kDxbmWideBands) == kDxbmWideBands;
  m.modes_[0] = every_band ? modes : 0;
  for (int bit = 0; bit < 32; ++bit) {
    m.modes_[static_cast<size_t>(bit + 1)] = (every_band || (mask >> bit) & 1u) ? modes : 0;
  }
  return m;
}

std::optional<BandModeMask> BandModeMask::FromWords(std::string_view list, bool pass,
                                                    const BandTable& bands, FilterError& error,
                                                    size_t offset) {
  BandModeMask m;
  if (pass) m.modes_.fill(0);
  size_t pos = 0;
  size_t items = 0;
  while (pos <= list.size()) {
    size_t end = list.find(',', pos);
    if (end == std::string_view::npos) end = list.size();
    const std::string_view raw = list.substr(pos, end - pos);
    const std::string_view item = Trim(raw);
    const size_t at = offset + pos + (item.empty() ? 0 : size_t(item.data() - raw.data()));
    if (item.empty()) {
      error = {at, "", "empty item in the band list"};
      return std::nullopt;
    }
    if (++items > kMaxListItems) {
      error = {at, std::string(item), "too many items in the list"};
      return std::nullopt;
    }
    const size_t dash = item.find('-');
    const std::string_view band_word = item.substr(0, dash);
    const uint32_t band_bits = BandBitsByName(band_word, bands);
    if (band_bits == 0) {
      error = {at, std::string(band_word), "unknown band"};
      return std::nullopt;
    }
    uint16_t modes = kAllModeBits;
    if (dash != std::string_view::npos) {
      const std::string_view mode_word = item.substr(dash + 1);
      modes = ModeBitsByName(mode_word);
      if (modes == 0) {
        error = {at + dash + 1, std::string(mode_word), "unknown mode"};
        return std::nullopt;
      }
    }
    for (int bit = 0; bit < 32; ++bit) {
      if (!((band_bits >> bit) & 1u)) continue;
      uint16_t& slot = m.modes_[static_cast<size_t>(bit + 1)];
      slot = pass ? uint16_t(slot | modes) : uint16_t(slot & ~modes);
    }
    pos = end + 1;
  }
  for (size_t i = 1; i < m.modes_.size(); ++i) m.modes_[i] = WithUnknown(m.modes_[i]);
  return m;
}

bool BandModeMask::Everything() const {
  for (uint16_t modes : modes_) {
    if (modes != kAllModeBits) return false;
  }
  return true;
}

std::string BandModeMask::Describe(const BandTable& bands) const {
  if (Everything()) return "every band, every mode";
  std::vector<std::string> items;
  for (const BandRange& r : bands.ranges()) {
    const uint16_t modes = modes_[static_cast<size_t>(std::countr_zero(r.bit) + 1)] & kKnownModes;
    if (modes == kKnownModes) {
      items.emplace_back(r.name);
      continue;
    }
    for (int mode = 0; mode < kSpotModeCount; ++mode) {
      if (modes & (1u << mode)) {
        items.push_back(std::string(r.name) + "-" +
                        std::string(SpotModeName(static_cast<SpotMode>(mode))));
      }
    }
  }
  return items.empty() ? "no band" : Join(items, ",");
}

}  // namespace qx
