// A logged-in user's switches and display settings, mirrored on the stream so that spot
// distribution reads them without knowing about user records or the command interpreter.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace qx {

// One bit of the "SETTINGS" word per SET/ switch.  The numbers are stored in user records,
// so a bit never changes its meaning; new switches take new bits.
enum SwitchBit : uint32_t {
  kSwDxSpots = 1u << 0,        // DX_ANNOUNCEMENTS / NODX_ANNOUNCEMENTS
  kSwBottomOfBand = 1u << 1,   // DX_BOB_ANNOUNCEMENTS
  kSwAnnouncements = 1u << 2,  // ANNOUNCEMENTS
  kSwWwv = 1u << 3,
  kSwWcy = 1u << 4,
  kSwWx = 1u << 5,
  kSwTalk = 1u << 6,
  kSwBeep = 1u << 7,
  kSwDxCq = 1u << 8,
  kSwDxItu = 1u << 9,
  kSwDxGrid = 1u << 10,
  kSwUsState = 1u << 11,
  kSwEnhanced = 1u << 12,  // XX0QX
  kSwDxsQth = 1u << 13,
  kSwDxsCty = 1u << 14,
  kSwSelfSpots = 1u << 15,
  kSwBeaconSpots = 1u << 16,
  kSwCwSpots = 1u << 17,
  kSwFt4Spots = 1u << 18,
  kSwFt8Spots = 1u << 19,
  kSwMskSpots = 1u << 20,
  kSwPskSpots = 1u << 21,
  kSwRttySpots = 1u << 22,
  kSwSkimmerSpots = 1u << 23,
  kSwSkimmerDupes = 1u << 24,
  kSwOwnSkimmer = 1u << 25,
  kSwPskReporter = 1u << 26,
  kSwLogin = 1u << 27,
  kSwEcho = 1u << 28,
  kSwGridSquare = 1u << 29,
  kSwFilters = 1u << 30,
  // JSON: the session is one JSON object per line (spots, announcements, talk, WWV/WCY, and
  // every command's answer as a reply object) and gets no prompts; for programs.
  kSwJson = 1u << 31,
};

// What a new user gets: spots, announcements, talk, WWV/WCY/WX, every mode, login notices,
// and the skimmer reports of their own call.  Machine-made spots (skimmer and reporter) come
// at rates that would bury people's spots, so a user asks for them (SET/SKIMMERSPOTS,
// SET/PSKR); skimmer dupes likewise.
constexpr uint32_t kDefaultSwitches =
    kSwDxSpots | kSwBottomOfBand | kSwAnnouncements | kSwWwv | kSwWcy | kSwWx | kSwTalk |
    kSwSelfSpots | kSwBeaconSpots | kSwCwSpots | kSwFt4Spots | kSwFt8Spots | kSwMskSpots |
    kSwPskSpots | kSwRttySpots | kSwOwnSkimmer | kSwLogin | kSwFilters;

constexpr uint32_t kDefaultDxbmMask = 1006827524u;
constexpr uint32_t kDefaultDxbmMask2 = 15370u;
constexpr int kDefaultWidth = 75;

struct SessionSettings {
  std::string name;  // "" until known; shown as "Unknown Name"
  std::string qth;
  std::string location;
  std::string home_node;
  std::string grid;
  uint32_t switches = kDefaultSwitches;
  int width = kDefaultWidth;
  int resolution = 1;  // decimals of the frequency in spot lines: 1 or 2
  uint32_t dxbm = kDefaultDxbmMask;
  uint32_t dxbm2 = kDefaultDxbmMask2;
  // The stored "FILTER" lines of the settings set, as the record holds them; the compiled
  // filters live with the stream in the users library.
  std::vector<std::string> filter_lines;
  int mail_number = 0;
  std::string prompt_form;  // "" (node default), "%M>" or ">"
  int settings_set = 0;     // 0, or the SSID when it is 16 or more
  std::string last_login;   // "24-Nov-2026 1952Z" of the last log-in; "" never recorded
  int spots_posted = 0;     // spots this person entered on this node

  bool Has(uint32_t bit) const { return (switches & bit) != 0; }
  void Set(uint32_t bit, bool on) { switches = on ? (switches | bit) : (switches & ~bit); }
};

}  // namespace qx
