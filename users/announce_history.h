// The announcements of the recent past, local and from the network: the last `Maximum
// Announcements` in memory, and the day's file data/ann/ann-<date text> with one line per
// announcement ("<unix seconds>^<from>^<to>^<text>"), appended as each is shown and read back
// at start-up.  SH/ANNOUNCE lists them.  It also holds the AnnNok list: calls whose
// announcements this node neither shows nor passes on.  Pure apart from the file; time comes in.
#pragma once

#include <cstddef>
#include <deque>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "core/time_text.h"

namespace qx {

struct Announcement {
  SysTime at{};
  std::string from;
  std::string to;  // "*" (everybody), "SYSOP" or "WX"
  std::string text;

  // As SH/ANNOUNCE lists it: date, time, then the line users were sent.
  std::string ListLine() const;
  // The day file's line (no line end), and back; false for a line that is not one.
  std::string FileLine() const;
  static bool FromFileLine(std::string_view line, Announcement& out);
};

class AnnounceHistory {
 public:
  // ann_dir is data/ann; an empty path keeps the history in memory only.
  AnnounceHistory(size_t capacity, std::filesystem::path ann_dir);

  // Keeps the announcement and appends it to the file of its day.
  void Add(const Announcement& a);
  // "Loading Announcements": today's file (UTC) into memory, replacing what was there.
  // Returns how many were read.
  size_t LoadToday(SysTime now);
  // Newest first, at most count.
  std::vector<const Announcement*> Newest(size_t count) const;
  size_t size() const { return kept_.size(); }
  std::filesystem::path DayFile(SysTime t) const;

  // SH/ANNOUNCE [n]: the lines to send, newest first; none when the argument is not a
  // count of 1 or more.  The count defaults to default_count and stops at max_count.
  std::vector<std::string> Show(std::string_view args, int default_count, int max_count) const;

  // The AnnNok list: a call (matching with or without SSID) or a prefix ending in "*".
  void SetBadAnnouncers(const std::vector<std::string>& entries);
  bool IsBadAnnouncer(std::string_view call) const;

 private:
  void Keep(const Announcement& a);

  size_t capacity_;
  std::filesystem::path dir_;
  std::deque<Announcement> kept_;
  std::vector<std::string> bad_calls_;     // upper case
  std::vector<std::string> bad_prefixes_;  // upper case, without the "*"
};

}  // namespace qx
