#include "spots/spot_history.h"

#include <algorithm>
#include <system_error>

#include "core/file_util.h"
#include "core/monitor.h"
#include "core/text_util.h"
#include "spots/bands.h"
#include "spots/call_sign.h"
#include "spots/intake.h"

namespace qx {

namespace {

// The receive time of a stored spot from its date and time texts ("22-Nov-2026", "0315Z");
// false when they are no real date and time.
bool TimeOfSpot(const Spot& s, SysTime& out) {
  SpotDate d;
  int hour = 0;
  int minute = 0;
  if (!ParseSpotDate(s.date(), d) || !ParseSpotTime(s.time(), hour, minute)) return false;
  out = MakeUtc(d.year, d.month, d.day, hour, minute);
  return true;
}

}  // namespace

SpotHistory::SpotHistory(size_t max_spots, std::filesystem::path dx_dir)
    : ring_(max_spots == 0 ? 1 : max_spots), dir_(std::move(dx_dir)) {}

std::filesystem::path SpotHistory::DayFile(SysTime t) const {
  return dir_ / (DateText(t) + ".txt");
}

void SpotHistory::Keep(const Spot& spot) {
  ring_[next_] = spot;
  next_ = (next_ + 1) % ring_.size();
  if (count_ < ring_.size()) ++count_;
}

size_t SpotHistory::DropOldest(size_t n) {
  n = std::min(n, count_);
  const size_t oldest = (next_ + ring_.size() - count_) % ring_.size();
  for (size_t i = 0; i < n; ++i) {
    Spot& slot = ring_[(oldest + i) % ring_.size()];
    // Moved out, so that the texts' memory goes with it (assigning would keep it).
    Spot gone = std::move(slot);
    slot = Spot{};
  }
  count_ -= n;
  return n;
}

void SpotHistory::RefreshCountries(
    const std::function<const CountryInfo*(std::string_view call)>& find) {
  for (size_t i = 0; i < count_; ++i) {
    Spot& s = ring_[(next_ + ring_.size() - 1 - i) % ring_.size()];
    s.dx_country = find(s.dx_call());
    s.spotter_country = find(s.spotter());
  }
}

size_t SpotHistory::ApproxBytes() const {
  size_t bytes = ring_.size() * sizeof(Spot);
  for (const Spot& s : ring_) {
    for (const std::string& slot : s.slots) {
      if (slot.capacity() > 15) bytes += slot.capacity() + 1;  // beyond the short-string room
    }
  }
  return bytes;
}

void SpotHistory::Add(const Spot& spot) {
  Keep(spot);
  if (dir_.empty()) return;
  std::string line = spot.Sentence();
  line += "\r\n";
  if (!AppendToFile(DayFile(spot.received), line)) {
    std::error_code ec;
    std::filesystem::create_directories(dir_, ec);
    AppendToFile(DayFile(spot.received), line);
  }
}

std::vector<Spot> SpotHistory::ReadDay(SysTime day, const BandTable& bands) const {
  std::vector<Spot> spots;
  if (dir_.empty()) return spots;
  const std::optional<std::string> text = ReadFileText(DayFile(day));
  if (!text) return spots;
  Spot spot;
  std::string upper;
  for (std::string_view line : SplitLines(*text)) {
    // A line an older version wrote, or one edited by hand, may hold anything: it is held to
    // what intake asks of a new spot (SpotFromSentence leaves control characters out; a date
    // or time that cannot be is not taken).
    if (!SpotFromSentence(Trim(line), spot) || !TimeOfSpot(spot, spot.received)) continue;
    upper = ToUpper(spot.comment());
    spot.ModeFlags = bands.BandBit(spot.FrequencyKHz) | ClassifyMode(upper);
    spot.IsBeacon = IsBeaconSpot(spot.dx_call(), upper);
    spots.push_back(spot);
  }
  return spots;
}

size_t SpotHistory::LoadToday(SysTime now, const BandTable& bands, Monitor* monitor) {
  if (monitor) monitor->Console("Loading DX Spots");
  const std::vector<Spot> spots = ReadDay(now, bands);
  for (const Spot& spot : spots) Keep(spot);
  if (monitor) monitor->Console("   ... done");
  return spots.size();
}

void SpotHistory::Clear() {
  for (Spot& s : ring_) s = Spot();
  next_ = 0;
  count_ = 0;
}

bool SpotHistory::Matches(const SpotQuery& query, const Spot& s) {
  if (query.band_bit && !(s.ModeFlags & query.band_bit)) return false;
  if (!query.call.empty()) {
    std::string_view call = query.call;
    const bool prefix = call.back() == '*';
    if (prefix) call.remove_suffix(1);
    const std::string_view dx = s.dx_call();
    if (prefix ? !StartsWithIgnoreCase(dx, call) : !EqualsIgnoreCase(dx, call)) return false;
  }
  if (!query.spotter.empty() && !EqualsIgnoreCase(s.spotter(), query.spotter) &&
      !EqualsIgnoreCase(BaseCall(s.spotter()), query.spotter)) {
    return false;
  }
  if (!query.info.empty() && !ContainsIgnoreCase(s.comment(), query.info)) return false;
  return !query.accept || query.accept(s);
}

std::vector<const Spot*> SpotHistory::Find(const SpotQuery& query) const {
  std::vector<const Spot*> out;
  for (size_t i = 0; i < count_ && out.size() < query.count; ++i) {
    const Spot& s = ring_[(next_ + ring_.size() - 1 - i) % ring_.size()];
    if (Matches(query, s)) out.push_back(&s);
  }
  return out;
}

std::vector<const Spot*> SpotHistory::FindIn(const std::vector<Spot>& spots,
                                             const SpotQuery& query) {
  std::vector<const Spot*> out;
  for (auto it = spots.rbegin(); it != spots.rend() && out.size() < query.count; ++it) {
    if (Matches(query, *it)) out.push_back(&*it);
  }
  return out;
}

}  // namespace qx
