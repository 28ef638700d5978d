// Call-sign rules and the country lookup on arbitrary bytes: no crash, and the results keep
// their promises (a valid call is upper case without line ends or blanks; BaseCall and
// StripTelnetPrefix return a part of their input).
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>
#include <unordered_set>

#include "spots/call_sign.h"
#include "spots/country.h"

namespace {

constexpr char kCountries[] =
    "United States:  05:  08:  NA:   37.60:    91.87:     5.0:  K:\n"
    "    AA,K,N,W,=W1AW<41.7/72.7>,=N2NL/MM(7),KH6XX(31)[61];\n"
    "Canary Islands: 33:  36:  AF:   28.32:    15.85:     0.0:  EA8:\n"
    "    EA8,EB8;\n"
    "Germany:        14:  28:  EU:   51.00:   -10.00:    -1.0:  DL:\n"
    "    DA,DL{EU}~-1.0~;\n";

void Require(bool condition) {
  if (!condition) std::abort();
}

bool Within(std::string_view part, std::string_view whole) {
  return part.empty() ||
         (part.data() >= whole.data() && part.data() + part.size() <= whole.data() + whole.size());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const qx::CountryLookup* countries = [] {
    auto* c = new qx::CountryLookup();
    c->LoadText(kCountries);
    return c;
  }();
  static const std::unordered_set<std::string> special{"RBN"};
  static const std::unordered_set<std::string> locked{"XX9BAD"};

  const std::string_view input(reinterpret_cast<const char*>(data), size);

  qx::CallCheckContext ctx;
  ctx.special_calls = &special;
  ctx.locked_out = &locked;
  ctx.countries = countries;
  ctx.node_call = "XX0QX-1";
  ctx.on_bad_compound = [](void*, std::string_view call) { Require(!call.empty()); };

  for (bool strict : {true, false}) {
    std::string call(input);
    if (qx::ValidCall(call, strict, ctx)) {
      Require(!call.empty());
      for (char c : call) Require(!(c >= 'a' && c <= 'z'));
      // A locked-out call passes before the blank and character tests, so that log-in
      // refuses it as locked out; every other valid call is clean.
      if (!(strict && qx::IsLockedOut(call, locked))) {
        for (char c : call) Require(c != ' ' && c != '\r' && c != '\n');
      }
      if (strict) Require(call.size() <= qx::kMaxLoginCallLength);
    }
  }

  const std::string_view base = qx::BaseCall(input);
  Require(Within(base, input) && base.size() <= input.size());
  const std::string_view stripped = qx::StripTelnetPrefix(input);
  Require(Within(stripped, input));
  Require(stripped.empty() || (static_cast<unsigned char>(stripped[0]) >= 49 &&
                               static_cast<unsigned char>(stripped[0]) < 240));

  const qx::CountryInfo* info = countries->Find(input);
  Require(info == nullptr || !info->country.empty());

  // The bytes as a country file of their own.
  qx::CountryLookup own;
  if (own.LoadText(input)) {
    Require(own.country_count() > 0);
    own.Find("K1ABC/P");
    own.Find(input);
  }
  return 0;
}
