// A small world for the filter tests: the node's band table, four countries, a state table
// and a spot builder that fills the fields as intake would.
#pragma once

#include <cctype>
#include <map>
#include <string>
#include <string_view>

#include "filters/spot_facts.h"
#include "spots/bands.h"
#include "spots/country.h"
#include "spots/intake.h"
#include "spots/spot.h"

namespace qx::testing {

inline constexpr char kCountryText[] =
    "United States:  05:  08:  NA:   37.60:    91.87:     5.0:  K:\n"
    "    AA,K,N,W;\n"
    "Canada:         05:  09:  NA:   44.35:    78.75:     5.0:  VE:\n"
    "    VA,VE,VO,VY;\n"
    "Germany:        14:  28:  EU:   51.00:   -10.00:    -1.0:  DL:\n"
    "    DA,DB,DC,DD,DF,DG,DH,DJ,DK,DL;\n"
    "Japan:          25:  45:  AS:   36.40:  -138.38:    -9.0:  JA:\n"
    "    JA,JE,JF,JG,JH,JI,JJ,JK,JL,JM,JN,JO,JP,JQ,JR,JS,7J,7K,7L,7M,7N,8J,8N;\n";

class MapStates : public StateLookup {
 public:
  std::string_view StateOf(std::string_view call) const override {
    auto it = states.find(std::string(call));
    return it == states.end() ? std::string_view() : std::string_view(it->second);
  }
  std::map<std::string, std::string> states{{"K1ABC", "MA"}, {"VE3XYZ", "ON"}};
};

class FilterWorld {
 public:
  FilterWorld() : bands(BandTable::SetupFreqRanges()) { countries.LoadText(kCountryText); }

  // A spot as intake leaves it: band and comment mode bits, both countries.
  Spot MakeSpot(double khz, std::string_view dx, std::string_view spotter = "DL1AAA",
                std::string_view comment = "", std::string_view origin = "XX0QX") const {
    Spot s;
    s.slots[kSlotType] = "PC61";
    s.slots[kSlotDxCall] = std::string(dx);
    s.slots[kSlotSpotter] = std::string(spotter);
    s.slots[kSlotComment] = std::string(comment);
    s.slots[kSlotOriginNode] = std::string(origin);
    s.FrequencyKHz = khz;
    std::string upper(comment);
    for (char& c : upper) c = char(std::toupper(static_cast<unsigned char>(c)));
    s.ModeFlags = bands.BandBit(khz) | ClassifyMode(upper);
    s.dx_country = countries.Find(dx);
    s.spotter_country = countries.Find(spotter);
    return s;
  }
  SpotFacts Facts(double khz, std::string_view dx, std::string_view spotter = "DL1AAA",
                  std::string_view comment = "", std::string_view origin = "XX0QX") const {
    return MakeSpotFacts(MakeSpot(khz, dx, spotter, comment, origin), bands, &states);
  }

  BandTable bands;
  CountryLookup countries;
  MapStates states;
};

}  // namespace qx::testing
