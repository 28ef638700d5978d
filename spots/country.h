// Call sign to country: the country file (the "cty.dat" format that logging programs use)
// loaded into a prefix table.  Exact calls ("=" entries) win over prefixes; among prefixes
// the longest match wins; portable designators are handled as loggers do.
//
// File format: a country line of eight colon-terminated fields
//   Name: CQ zone: ITU zone: Continent: Latitude: Longitude: UTC offset: Main prefix:
// (longitude and UTC offset with west positive; a "*" before the main prefix marks an
// entity that counts for WAE only), followed by comma-separated entries that may run over
// several lines and end with ";".  An entry is a prefix, or "=" and a whole call, with
// optional overrides: "(cq)", "[itu]", "<lat/long>", "{continent}", "~utc offset~".  Lines
// starting with "#" are comments; CR LF and LF line ends are both accepted.
//
// Look-up of portable calls:
//   - an exact entry for the whole call (SSID removed) always wins;
//   - "/P", "/M", "/QRP", "/QRPP", "/A", "/B" and a call-area digit ("/4") keep the home
//     country.  The call-area digit does not move the zones (a US station signing /6 keeps
//     the zones of its home entry);
//   - "/MM" and "/AM" (maritime and aeronautical mobile) are in no country: nothing;
//   - of two remaining parts, the shorter one (the first on equal length) is where the
//     station operates when it matches a prefix ("EA8/K1ABC", "K1ABC/VE3"); otherwise the
//     longer part is looked up as the home call.
#pragma once

#include <cstddef>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace qx {

struct CountryInfo {
  std::string country;  // "Germany"
  std::string prefix;   // the country's main prefix, "DL" (without the WAE "*")
  int cq_zone = 0;
  int itu_zone = 0;
  std::string continent;  // "EU"
  double latitude = 0;    // degrees, north positive
  double longitude = 0;   // degrees, east positive (the file stores west positive)
  double utc_offset = 0;  // hours ahead of UTC, east positive (the file stores west positive)
  bool wae_only = false;  // "*" before the main prefix: a WAE entity, not a DXCC one
};

class CountryLookup {
 public:
  // Calls longer than this are never found.
  static constexpr size_t kMaxCallLength = 64;

  CountryLookup();
  ~CountryLookup();
  CountryLookup(CountryLookup&&) noexcept;
  CountryLookup& operator=(CountryLookup&&) noexcept;

  // Parses country-file text.  On success replaces what was loaded before; returns false
  // (and keeps the earlier table) when nothing usable was found.  Malformed country lines
  // and entries are skipped and counted.
  bool LoadText(std::string_view text);
  bool LoadFile(const std::filesystem::path& path);
  bool empty() const;
  size_t country_count() const;
  // Country lines and entries skipped as malformed by the last successful load.
  size_t skipped_count() const;

  // The country of a call, or nothing ("none") when no entry matches.  Case and an SSID
  // ("-5") are ignored.
  std::optional<CountryInfo> NewLookUpCallsign(std::string_view call) const;
  // The same without copying or allocating: a pointer into the table (valid until the next
  // successful load or the lookup's end), or nullptr.  For hot paths.
  const CountryInfo* Find(std::string_view call) const;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace qx
