// Call sign to country: the country file (the "cty.dat" format that logging programs use)
// loaded into a prefix table.  Exact calls ("=" entries) win over prefixes; among prefixes
// the longest match wins; portable designators are handled as loggers do.
#pragma once

#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace qx {

struct CountryInfo {
  std::string country;    // "Germany"
  std::string prefix;     // the country's main prefix, "DL"
  int cq_zone = 0;
  int itu_zone = 0;
  std::string continent;  // "EU"
  double latitude = 0;    // degrees, north positive
  double longitude = 0;   // degrees, east positive (the file stores west positive)
};

class CountryLookup {
 public:
  CountryLookup();
  ~CountryLookup();
  CountryLookup(CountryLookup&&) noexcept;
  CountryLookup& operator=(CountryLookup&&) noexcept;

  // Parses country-file text; returns false when nothing usable was found.  Replaces what
  // was loaded before.
  bool LoadText(std::string_view text);
  bool LoadFile(const std::filesystem::path& path);
  bool empty() const;
  size_t country_count() const;

  // The country of a call, or nothing ("none") when no entry matches.
  std::optional<CountryInfo> NewLookUpCallsign(std::string_view call) const;
  // The same without copying: a pointer into the table, or nullptr.  For hot paths.
  const CountryInfo* Find(std::string_view call) const;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace qx
