// The spots of the recent past: the last `Maximum DX Spots` accepted spots in memory (a
// ring), and the day's spot file data/dx/<date text>.txt with one sentence a line, appended
// on every accepted spot and read back at start.  SH/DX asks it.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "core/time_text.h"
#include "spots/spot.h"

namespace qx {

class BandTable;
class Monitor;

struct SpotQuery {
  size_t count = 10;
  // Empty: every call.  A call: that DX call.  Ending in "*": DX calls beginning so.
  std::string call;
  uint32_t band_bit = 0;  // 0: every band
  // Unset: every spot.  Otherwise only spots it accepts are shown (and counted).
  std::function<bool(const Spot&)> accept;
  // Empty: every spotter.  Otherwise the spotter's call, with or without an SSID.
  std::string spotter;
  // Empty: any comment.  Otherwise text the comment must hold (case ignored).
  std::string info;
};

class SpotHistory {
 public:
  // dx_dir is data/dx; an empty path keeps the history in memory only.
  SpotHistory(size_t max_spots, std::filesystem::path dx_dir);

  // Keeps the spot and appends its sentence to the file of the day it was received.
  void Add(const Spot& spot);

  // "Loading DX Spots": reads the file of today (UTC) into the ring (the newest win when the
  // file holds more than the ring).
  // Band and mode bits are worked out again from frequency and comment.  Returns the count.
  size_t LoadToday(SysTime now, const BandTable& bands, Monitor* monitor);
  // Forgets every spot in memory (REBUILD reads today's file again afterwards).
  void Clear();

  // The spots that match, newest first, at most query.count.
  std::vector<const Spot*> Find(const SpotQuery& query) const;

  // Every readable spot of the file of the day of `day` (UTC), oldest first, with band and
  // mode bits worked out as at start-up.  Nothing is kept in memory.
  std::vector<Spot> ReadDay(SysTime day, const BandTable& bands) const;
  // The spots of `spots` (oldest first) that match, newest first, at most query.count.
  static std::vector<const Spot*> FindIn(const std::vector<Spot>& spots, const SpotQuery& query);
  static bool Matches(const SpotQuery& query, const Spot& spot);
  // Forgets the n oldest spots in memory (their day file keeps them); for the memory
  // ceiling.  Returns how many went.
  size_t DropOldest(size_t n);
  // After the country table was replaced: every spot in memory looks up its countries
  // again, since what it pointed to went with the old table.
  void RefreshCountries(const std::function<const CountryInfo*(std::string_view call)>& find);
  // Roughly what the spots in memory take, texts included.
  size_t ApproxBytes() const;

  size_t size() const { return count_; }
  size_t capacity() const { return ring_.size(); }
  std::filesystem::path DayFile(SysTime t) const;

 private:
  void Keep(const Spot& spot);

  std::vector<Spot> ring_;
  size_t next_ = 0;  // where the next spot goes
  size_t count_ = 0;
  std::filesystem::path dir_;
};

}  // namespace qx
