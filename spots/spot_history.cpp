#include "spots/spot_history.h"

#include <algorithm>
#include <system_error>

#include "core/file_util.h"
#include "core/monitor.h"
#include "core/text_util.h"
#include "spots/bands.h"
#include "spots/call_sign.h"
#include "spots/intake.h"
#include "spots/spot_ids.h"

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

std::string DayFileLine(const Spot& spot) {
  std::string line;
  if (spot.Id != 0) {
    line += '#';
    line += std::to_string(spot.Id);
    line += ' ';
  }
  line += spot.Sentence();
  return line;
}

bool SpotFromDayFileLine(std::string_view line, Spot& spot) {
  line = Trim(line);
  spot.Id = 0;
  if (line.starts_with('#')) {
    const size_t blank = line.find(' ');
    long long id = 0;
    if (blank == std::string_view::npos || !ParseInt(line.substr(1, blank - 1), id) || id <= 0) {
      return false;
    }
    spot.Id = uint64_t(id);
    line.remove_prefix(blank + 1);
  }
  return SpotFromSentence(line, spot);
}

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
  std::string line = DayFileLine(spot);
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
    if (!SpotFromDayFileLine(line, spot) || !TimeOfSpot(spot, spot.received)) continue;
    upper = ToUpper(spot.comment());
    spot.ModeFlags = bands.BandBit(spot.FrequencyKHz) | ClassifyMode(upper);
    spot.IsBeacon = IsBeaconSpot(spot.dx_call(), upper);
    spots.push_back(spot);
  }
  return spots;
}

size_t SpotHistory::LoadToday(SysTime now, const BandTable& bands, Monitor* monitor) {
  if (monitor) monitor->Console("Loading DX Spots");
  std::vector<Spot> spots = ReadDay(now, bands);
  for (Spot& spot : spots) {
    if (ids_ && spot.Id == 0) {
      spot.Id = ids_->Next();
    } else if (ids_) {
      ids_->Observe(spot.Id);
    }
    Keep(spot);
  }
  if (monitor) monitor->Console("   ... done");
  return spots.size();
}

uint64_t SpotHistory::last_id() const {
  if (count_ == 0) return 0;
  return ring_[(next_ + ring_.size() - 1) % ring_.size()].Id;
}

std::vector<Spot> SpotHistory::SpotsAfter(uint64_t after, size_t limit, SysTime now,
                                          const BandTable& bands, bool& gap) const {
  gap = false;
  std::vector<Spot> out;
  if (limit == 0) return out;
  // Memory first: newest to oldest until the spot at or before `after` is met.
  std::vector<const Spot*> found;
  bool covered = false;
  for (size_t i = 0; i < count_; ++i) {
    const Spot& s = ring_[(next_ + ring_.size() - 1 - i) % ring_.size()];
    if (s.Id == 0) continue;
    if (s.Id <= after) {
      covered = true;
      break;
    }
    found.push_back(&s);
  }
  if (covered || after == 0) {
    const size_t n = std::min(limit, found.size());
    for (size_t i = 0; i < n; ++i) out.push_back(*found[found.size() - 1 - i]);
    return out;
  }
  // Memory forgot some (the ring turned over, or the memory ceiling dropped the oldest): the
  // day files keep every spot of yesterday and today.
  std::vector<Spot> days = ReadDay(now - std::chrono::days(1), bands);
  std::vector<Spot> today = ReadDay(now, bands);
  days.insert(days.end(), std::make_move_iterator(today.begin()),
              std::make_move_iterator(today.end()));
  covered = false;
  for (Spot& s : days) {
    if (s.Id == 0) continue;
    if (s.Id <= after) {
      covered = true;
      continue;
    }
    if (out.size() < limit) out.push_back(std::move(s));
  }
  if (!covered) {
    gap = true;
    // The files may not reach as far back as memory does (a day file lost, or none kept).
    if (out.empty() || (!found.empty() && found.back()->Id < out.front().Id)) {
      out.clear();
      const size_t n = std::min(limit, found.size());
      for (size_t i = 0; i < n; ++i) out.push_back(*found[found.size() - 1 - i]);
    }
  }
  return out;
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
