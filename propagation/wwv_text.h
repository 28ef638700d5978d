// Reads the space-weather agency's three-hourly "Geophysical Alert" text into the figures of
// a WWV report.  The text is prose meant for radio announcers, and its wording has changed
// over the years ("estimated planetary A-index 5", "mid-latitude A-index 4", a K index
// given as "1.33" or "2"), so the reader looks for the figures by their names rather than by
// the line they stand on.  Pure.
#pragma once

#include <string>
#include <string_view>

#include "propagation/propagation_report.h"

namespace qx {

struct WwvText {
  std::string date;  // "05-Jan-2024", from the issue line
  int hour = 0;      // the hour the K index was measured (else the issue hour)
  int sfi = 0;
  int a = 0;
  int k = 0;             // rounded to the nearest whole number
  std::string forecast;  // "No Storms -> Minor w/G1", "" when the text says nothing
};

// False when the text lacks a figure a WWV needs (issue date, solar flux, A or K index) or
// one is out of range; error then says which.
bool ParseWwvText(std::string_view text, WwvText& out, std::string& error);

}  // namespace qx
