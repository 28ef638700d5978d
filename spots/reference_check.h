// Whether a downloaded reference file is what it claims to be, read with the same parsers
// that use it: a country file must give countries, a known-calls file must be calls.  An
// HTML error page, a cut-off answer or some other file fails here and never replaces the
// file in use.  Pure; safe on any thread (it touches only its arguments).
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "spots/country.h"

namespace qx {

// "" when text reads as a country file (loaded into *out when out is given), else why not.
// Fewer than min_countries countries, or more malformed lines and entries than countries,
// is no country file.
std::string CheckCountryFile(std::string_view text, size_t min_countries, CountryLookup* out);

// "" when text is a one-call-a-line list ("#" lines are comments) of at least one call and
// nearly every line (nine in ten) is a call; *calls gets the count of calls.
std::string CheckCallFile(std::string_view text, size_t* calls);

}  // namespace qx
