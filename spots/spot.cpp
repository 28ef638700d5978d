#include "spots/spot.h"

namespace qx {

std::string Spot::Sentence() const {
  // A "PC11" has no address field: hops follow the origin node directly.
  const bool pc11 = slots[kSlotType] == "PC11";
  std::string out;
  size_t total = 0;
  for (const std::string& s : slots) total += s.size() + 1;
  out.reserve(total);
  for (int i = 0; i < kSpotSlots; ++i) {
    if (pc11 && i == kSlotAddress) continue;
    if (!out.empty()) out.push_back('^');
    out += slots[size_t(i)];
  }
  return out;
}

}  // namespace qx
