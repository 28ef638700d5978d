// The band-mode mask: which modes a user takes on which band, before any other filter.  Set
// as two numbers ("SET/DXBM mask/mask2", the stored "DXBM" line) or in words
// ("SET/FILTER DXBM/PASS 160-CW,20,40-FT8").  docs/filters.md explains the bits.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "filters/spot_facts.h"
#include "spots/bands.h"

namespace qx {

struct FilterError;

// The numbers with a name.  The first mask is a set of band bits of the band table; the
// second a set of mode classes (below).
inline constexpr uint32_t kDxbmNewUser = 1006827524u;  // every band, every mode
inline constexpr uint32_t kDxbmNewUser2 = 15370u;
inline constexpr uint32_t kDxbmStoredZero = 1040382980u;  // what a stored 0/0 becomes
inline constexpr uint32_t kDxbmStoredZero2 = 15880u;
inline constexpr uint32_t kDxbmContest = 1610792964u;  // 160, 80, 40, 20, 15, 10 m
inline constexpr uint32_t kDxbmContest2 = 65535u;

// Mode classes of the second mask.  Other bits of it mean nothing.
inline constexpr uint32_t kDxbmClassCw = 1u << 3;      // CW
inline constexpr uint32_t kDxbmClassPhone = 1u << 10;  // SSB and other phone
inline constexpr uint32_t kDxbmClassRtty = 1u << 11;   // RTTY
inline constexpr uint32_t kDxbmClassWsjt = 1u << 12;   // FT8, FT4
inline constexpr uint32_t kDxbmClassData = 1u << 13;   // PSK, MSK, other data
// A first mask holding all of these bits (160 m to 12 m, 6 m and 2 m: the bits of the
// new-user number) is read as every band.
inline constexpr uint32_t kDxbmWideBands = kDxbmNewUser;

// The band bits a word names: a band-table name ("20m", "20", "70cm") or a group: "hf"
// (160 m to 10 m), "vhf" (6 m to 1.25 m), "uhf" (70 cm to 13 cm).  0 when unknown.
uint32_t BandBitsByName(std::string_view name, const BandTable& bands);
// The mode bits a word names ("cw", "ssb", "rtty", "ft8", "ft4", "psk", "msk", "data");
// 0 when unknown.
uint16_t ModeBitsByName(std::string_view name);

class BandModeMask {
 public:
  // Every band (and a spot off every band), every mode.
  BandModeMask();
  static BandModeMask FromNumbers(uint32_t mask, uint32_t mask2);
  // "160-CW,20,40-FT8": a band alone is every mode on it; a band may be a band-table name
  // ("20m", "20") or "hf", "vhf", "uhf".  pass: exactly the list passes; otherwise
  // everything but the list.  Nothing on error (error says where).
  static std::optional<BandModeMask> FromWords(std::string_view list, bool pass,
                                               const BandTable& bands, FilterError& error,
                                               size_t offset = 0);

  // band_index is SpotFacts::band_index (-1 off every band).
  bool Passes(int band_index, SpotMode mode) const {
    return (modes_[static_cast<size_t>(band_index + 1)] & ModeBit(mode)) != 0;
  }
  bool Everything() const;
  // The mask in words: "every band, every mode" or "160m,20m,40m-FT8".
  std::string Describe(const BandTable& bands) const;
  bool operator==(const BandModeMask&) const = default;

 private:
  std::array<uint16_t, 33> modes_{};  // [0] off every band, [1 + bit position] a band
};

}  // namespace qx
