#include "spots/reference_check.h"

#include <gtest/gtest.h>

namespace qx {
namespace {

constexpr char kCountries[] =
    "Germany:   14:  28:  EU:   51.00:   -10.00:    -1.0:  DL:\n    DA,DL;\n"
    "Spain:     14:  37:  EU:   40.37:     4.88:    -1.0:  EA:\n    EA,EB;\n"
    "Canada:    05:  09:  NA:   44.35:    78.75:     5.0:  VE:\n    VA,VE;\n";

TEST(ReferenceCheckTest, CountryFileMustGiveEnoughCountries) {
  CountryLookup lookup;
  EXPECT_EQ(CheckCountryFile(kCountries, 3, &lookup), "");
  EXPECT_EQ(lookup.country_count(), 3u);
  ASSERT_NE(lookup.Find("DL1XYZ"), nullptr);
  EXPECT_EQ(lookup.Find("DL1XYZ")->country, "Germany");

  CountryLookup untouched;
  ASSERT_EQ(CheckCountryFile(kCountries, 1, &untouched), "");
  EXPECT_EQ(CheckCountryFile(kCountries, 4, &untouched), "only 3 countries, fewer than 4");
  EXPECT_EQ(CheckCountryFile("<html><body>Not Found</body></html>\n", 1, &untouched),
            "not a country file: no country line reads");
  EXPECT_EQ(untouched.country_count(), 3u);  // a refused text leaves the table alone
}

TEST(ReferenceCheckTest, CallFileMustBeNearlyAllCalls) {
  size_t calls = 0;
  EXPECT_EQ(CheckCallFile("# header\r\nK1ABC\r\nDL1XYZ\r\n\r\nG4ABC\r\n", &calls), "");
  EXPECT_EQ(calls, 3u);
  EXPECT_EQ(CheckCallFile("# only a comment\n", &calls),
            "not a list of calls: no line holds a call");
  std::string html = "<html>\n<head>\n<title>Moved</title>\n</head>\nK1ABC\n";
  EXPECT_EQ(CheckCallFile(html, &calls), "not a list of calls: 4 of 5 lines are no call");
  std::string mostly;
  for (int i = 0; i < 19; ++i) mostly += "K" + std::to_string(i % 10) + "ABC\n";
  EXPECT_EQ(CheckCallFile(mostly + "hello world\n", &calls), "");  // one odd line in twenty
  EXPECT_NE(CheckCallFile(mostly + "a b\nc d\nx y\n", &calls), "");
}

}  // namespace
}  // namespace qx
