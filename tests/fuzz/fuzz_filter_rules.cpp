// The filter commands on arbitrary bytes: no crash or stall; an error names a word that
// stands at its position in the command; an accepted rule survives the user record and
// decides the same way after it.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "filters/user_filters.h"
#include "spots/bands.h"
#include "spots/country.h"

namespace {

constexpr char kCountries[] =
    "United States:  05:  08:  NA:   37.60:    91.87:     5.0:  K:\n"
    "    AA,K,N,W;\n"
    "Germany:        14:  28:  EU:   51.00:   -10.00:    -1.0:  DL:\n"
    "    DA,DL;\n";

void Require(bool condition) {
  if (!condition) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const qx::BandTable* bands = new qx::BandTable(qx::BandTable::SetupFreqRanges());
  static const qx::CountryLookup* countries = [] {
    auto* c = new qx::CountryLookup();
    c->LoadText(kCountries);
    return c;
  }();
  static const qx::SpotFacts* facts = [] {
    qx::Spot s;
    s.slots[qx::kSlotDxCall] = "K1ABC";
    s.slots[qx::kSlotSpotter] = "DL1AAA-2";
    s.slots[qx::kSlotComment] = "CQ TEST PSK31 up 2";
    s.slots[qx::kSlotOriginNode] = "XX0QX";
    s.FrequencyKHz = 14070.5;
    s.dx_country = countries->Find("K1ABC");
    s.spotter_country = countries->Find("DL1AAA");
    return new qx::SpotFacts(qx::MakeSpotFacts(s, *bands, nullptr));
  }();

  std::string_view typed(reinterpret_cast<const char*>(data), size);
  const qx::FilterParseResult parsed = qx::ParseFilterCommand(typed, {bands, countries});
  if (!parsed.command) {
    while (!typed.empty() && (typed.front() == ' ' || typed.front() == '\t')) {
      typed.remove_prefix(1);
    }
    while (!typed.empty() && (typed.back() == ' ' || typed.back() == '\t')) typed.remove_suffix(1);
    const qx::FilterError& e = parsed.error;
    Require(!e.message.empty());
    Require(e.position <= typed.size());
    Require(typed.substr(e.position, e.word.size()) == e.word);
  }

  qx::UserFilters filters(*bands, countries);
  const qx::UserFilters::Reply reply = filters.Apply(typed);
  Require(reply.ok == parsed.command.has_value());
  for (int minute : {0, 600, 1439}) {
    filters.Check(*facts, minute);
  }
  filters.CheckAnnounce(*facts);
  filters.CheckWwv(*facts);
  filters.Describe();

  // The numbers of the band-mode mask live in the record's own "DXBM" line.
  qx::UserFilters loaded(*bands, countries);
  loaded.SetDxbm(filters.dxbm(), filters.dxbm2());
  Require(loaded.Load(filters.RecordLines()).empty());
  Require(loaded.RecordLines() == filters.RecordLines());
  for (int minute : {0, 600, 1439}) {
    Require(loaded.Check(*facts, minute).pass == filters.Check(*facts, minute).pass);
  }
  return 0;
}
