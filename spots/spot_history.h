// The spots of the recent past: the last `Maximum DX Spots` accepted spots in memory (a
// ring), and the day's spot file data/dx/<date text>.txt with one spot a line, appended
// on every accepted spot and read back at start.  SH/DX asks it, and so do the JSON streams
// that resume after the last spot a program saw.
//
// A line is the spot's sentence, preceded by "#<number> " when the spot has its node-wide
// number.  Lines of older files have none: they get fresh numbers when today's file is
// loaded.
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
class SpotIdCounter;

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
  // Where LoadToday numbers the spots of lines that carry no number (and tells the numbers
  // it reads); null leaves them 0.
  void set_ids(SpotIdCounter* ids) { ids_ = ids; }

  // The numbered spots after `after`, oldest first, at most limit: from memory when it
  // still holds the spot after `after`, else from the day files of `now` and the day before.
  // `gap` is set when spots after `after` were forgotten (neither memory nor the files keep
  // them); what is still kept is returned all the same.
  std::vector<Spot> SpotsAfter(uint64_t after, size_t limit, SysTime now, const BandTable& bands,
                               bool& gap) const;
  // The number of the newest spot in memory, 0 when none.
  uint64_t last_id() const;

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
  SpotIdCounter* ids_ = nullptr;
};

// The day-file line of a spot: "#<number> " (when numbered) and the sentence, no line end.
std::string DayFileLine(const Spot& spot);
// Reads a day-file line into spot (number, slots, frequency); false when unreadable.
bool SpotFromDayFileLine(std::string_view line, Spot& spot);

}  // namespace qx
