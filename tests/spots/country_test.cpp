#include "spots/country.h"

#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "tests/testlib/test_util.h"

namespace qx {
namespace {

constexpr char kFile[] =
    "# Test country file\n"
    "United States:            05:  08:  NA:   37.60:    91.87:     5.0:  K:\n"
    "    AA,K,N,W,=KH6XX,=K6ZZ(3)[6],\n"
    "# a comment between entries\n"
    "    =W1AW<41.7/72.7>,=N2NL/MM(7);\n"
    "Hawaii:                   31:  61:  OC:   21.12:   157.48:    10.0:  KH6:\n"
    "    KH6,KH7;\n"
    "Canada:                   05:  09:  NA:   44.35:    78.75:     5.0:  VE:\n"
    "    VA,VE,VE8(2)[4],VY1[2];\n"
    "Spain:                    14:  37:  EU:   40.37:     4.88:    -1.0:  EA:\n"
    "    EA,EB;\n"
    "Canary Islands:           33:  36:  AF:   28.32:    15.85:     0.0:  EA8:\n"
    "    EA8,EB8;\n"
    "European Turkey:          20:  39:  EU:   41.02:   -28.97:    -2.0:  *TA1:\n"
    "    TA1{AS}~-3.0~;\n"
    "Germany:                  14:  28:  EU:   51.00:   -10.00:    -1.0:  DL:\n"
    "    DA,DL;\n"
    "Conway Reef:              32:  56:  OC:  -22.00:  -175.00:   -12.0:  3D2/c:\n"
    "    =3D2CR;\n";

std::string WithCrLf(std::string_view text) {
  std::string out;
  for (char c : text) {
    if (c == '\n') out += '\r';
    out += c;
  }
  return out;
}

// Loaded from a file written here; the parameter selects CR LF or LF line ends.
class CountryLookupTest : public ::testing::TestWithParam<bool> {
 protected:
  void SetUp() override {
    const auto path = dir_ / "cty.dat";
    testing::WriteFile(path, GetParam() ? WithCrLf(kFile) : std::string(kFile));
    ASSERT_TRUE(lookup_.LoadFile(path));
  }

  std::string CountryOf(std::string_view call) const {
    const CountryInfo* info = lookup_.Find(call);
    return info == nullptr ? "none" : info->country;
  }

  testing::TempDir dir_;
  CountryLookup lookup_;
};

TEST_P(CountryLookupTest, ReadsTheCountryLine) {
  EXPECT_EQ(lookup_.country_count(), 8u);
  EXPECT_EQ(lookup_.skipped_count(), 0u);
  const std::optional<CountryInfo> de = lookup_.NewLookUpCallsign("DL1ABC");
  ASSERT_TRUE(de.has_value());
  EXPECT_EQ(de->country, "Germany");
  EXPECT_EQ(de->prefix, "DL");
  EXPECT_EQ(de->cq_zone, 14);
  EXPECT_EQ(de->itu_zone, 28);
  EXPECT_EQ(de->continent, "EU");
  EXPECT_DOUBLE_EQ(de->latitude, 51.0);
  EXPECT_DOUBLE_EQ(de->longitude, 10.0);  // east positive
  EXPECT_DOUBLE_EQ(de->utc_offset, 1.0);
  EXPECT_FALSE(de->wae_only);

  const CountryInfo* us = lookup_.Find("K1ABC");
  ASSERT_NE(us, nullptr);
  EXPECT_DOUBLE_EQ(us->longitude, -91.87);
  EXPECT_DOUBLE_EQ(us->utc_offset, -5.0);

  const CountryInfo* ta = lookup_.Find("TA1ABC");
  ASSERT_NE(ta, nullptr);
  EXPECT_TRUE(ta->wae_only);
  EXPECT_EQ(ta->prefix, "TA1");

  const CountryInfo* ea8 = lookup_.Find("EA8AB");
  ASSERT_NE(ea8, nullptr);
  EXPECT_FALSE(std::signbit(ea8->utc_offset));  // Greenwich is +0, not -0

  const CountryInfo* reef = lookup_.Find("3d2cr");
  ASSERT_NE(reef, nullptr);
  EXPECT_EQ(reef->prefix, "3D2/c");  // the main prefix as written
  EXPECT_DOUBLE_EQ(reef->longitude, 175.0);
  EXPECT_DOUBLE_EQ(reef->latitude, -22.0);
  EXPECT_EQ(lookup_.Find("3D2AB"), nullptr);
}

// The country each call is placed in: an exact entry matches the whole call only, the
// longest prefix wins, portable designators keep the home country, a prefix before or after
// the call gives the country of operation (a part that is no known prefix leaves the longer
// part as the home call), and maritime or aeronautical mobile has no country.
TEST_P(CountryLookupTest, EachCallFindsItsCountry) {
  const std::pair<std::string, std::vector<const char*>> by_country[] = {
      {"United States",
       {"K1ABC/P", "K1ABC/M", "K1ABC/QRP", "K1ABC/A", "K1ABC/B", "K1ABC/4", "K1ABC/QRPP", "k1abc/p",
        "K1ABC-5", "K1ABC/P/4", "KH6XX", "KH1Z", "AA1A"}},
      {"Hawaii", {"KH6XY", "KH6XXA", "KH7Z", "DL1ABC/KH6", "KH6/DL1ABC"}},
      {"Canary Islands", {"EA8ABC", "EB8ABC", "EA8/K1ABC", "K1ABC/EA8", "EA8/K1ABC/P"}},
      {"Spain", {"EA1ABC"}},
      {"Germany", {"DL1ABC/P", "DL1ABC/XQ"}},
      {"Canada", {"VE/DL1ABC-2"}},
      {"none", {"A1A", "K1ABC/MM", "DL1ABC/AM", "K1ABC/MM/P"}},
  };
  for (const auto& [country, calls] : by_country) {
    for (const char* call : calls) EXPECT_EQ(CountryOf(call), country) << call;
  }
  // Exact entries carry their own position and zones, also behind a designator or /MM.
  for (const char* call : {"W1AW", "W1AW/P"}) {
    const CountryInfo* w1aw = lookup_.Find(call);
    ASSERT_NE(w1aw, nullptr) << call;
    EXPECT_DOUBLE_EQ(w1aw->latitude, 41.7);
    EXPECT_DOUBLE_EQ(w1aw->longitude, -72.7);
    EXPECT_EQ(w1aw->cq_zone, 5);
  }
  const CountryInfo* n2nl = lookup_.Find("N2NL/MM");
  ASSERT_NE(n2nl, nullptr);
  EXPECT_EQ(n2nl->cq_zone, 7);
}

TEST_P(CountryLookupTest, ZoneOverrides) {
  const std::tuple<const char*, int, int> cases[] = {
      {"VE8ABC", 2, 4}, {"VY1ABC", 5, 2}, {"VE3ABC", 5, 9}, {"K6ZZ", 3, 6}, {"K6ZY", 5, 8}};
  for (const auto& [call, cq, itu] : cases) {
    const CountryInfo* info = lookup_.Find(call);
    ASSERT_NE(info, nullptr) << call;
    EXPECT_EQ(info->cq_zone, cq) << call;
    EXPECT_EQ(info->itu_zone, itu) << call;
  }
  EXPECT_EQ(lookup_.Find("VE8ABC")->country, "Canada");
  const CountryInfo* ta = lookup_.Find("TA1X");
  ASSERT_NE(ta, nullptr);
  EXPECT_EQ(ta->continent, "AS");
  EXPECT_DOUBLE_EQ(ta->utc_offset, 3.0);
}

TEST_P(CountryLookupTest, JunkFindsNothing) {
  for (const char* call : {"", "/", "//", "-", "ZZ9ZZ", "123", "\xff\xfe", "K1ABC/MM/AM"}) {
    EXPECT_EQ(lookup_.Find(call), nullptr) << call;
  }
  EXPECT_FALSE(lookup_.NewLookUpCallsign("ZZ9ZZ").has_value());
  EXPECT_EQ(lookup_.Find(std::string(CountryLookup::kMaxCallLength + 1, 'K')), nullptr);
}

INSTANTIATE_TEST_SUITE_P(LineEnds, CountryLookupTest, ::testing::Bool(),
                         [](const auto& info) { return info.param ? "CrLf" : "Lf"; });

TEST(CountryLookup, MalformedLinesAreSkippedAndTheRestLoads) {
  CountryLookup lookup;
  ASSERT_TRUE(lookup.LoadText(
      "Nowhere: xx: 08: NA: 1.0: 2.0: 0.0: NW:\n"  // bad zone: the line and its list go
      "    NW;\n"
      "stray text\n"
      "Germany: 14: 28: EU: 51.0: -10.0: -1.0: DL:\n"
      "    DL,D*X,=DL1(,DA;\n"  // two bad entries among good ones
      "Spain: 14: 37: EU: 40.37: 4.88: -1.0: EA:\n"
      "    EA\n"  // no ";": the next country line starts anew
      "Canary Islands: 33: 36: AF: 28.32: 15.85: 0.0: EA8: EA8;\n"));
  EXPECT_EQ(lookup.country_count(), 3u);
  EXPECT_EQ(lookup.skipped_count(), 4u);
  EXPECT_EQ(lookup.Find("NW1A"), nullptr);
  EXPECT_EQ(lookup.Find("DA1A")->country, "Germany");
  EXPECT_EQ(lookup.Find("EA1A")->country, "Spain");
  EXPECT_EQ(lookup.Find("EA8A")->country, "Canary Islands");
}

// Without a file every lookup answers none; a failed reload keeps the table it had.
TEST(CountryLookup, AMissingFileFindsNothingAndAFailedReloadKeepsTheTable) {
  testing::TempDir dir;
  CountryLookup lookup;
  EXPECT_FALSE(lookup.LoadFile(dir / "missing.dat"));
  EXPECT_TRUE(lookup.empty());
  EXPECT_EQ(lookup.Find("K1ABC"), nullptr);
  EXPECT_FALSE(lookup.NewLookUpCallsign("DL1ABC").has_value());
  ASSERT_TRUE(lookup.LoadText("Germany: 14: 28: EU: 51.0: -10.0: -1.0: DL:\n    DL;\n"));
  EXPECT_FALSE(lookup.LoadText("# nothing here\n"));
  ASSERT_NE(lookup.Find("DL1A"), nullptr);
  ASSERT_TRUE(lookup.LoadText("Spain: 14: 37: EU: 40.37: 4.88: -1.0: EA:\n    EA;\n"));
  EXPECT_EQ(lookup.Find("DL1A"), nullptr);
  EXPECT_EQ(lookup.Find("EA1A")->country, "Spain");

  CountryLookup moved = std::move(lookup);
  EXPECT_EQ(moved.Find("EA1A")->country, "Spain");
}

}  // namespace
}  // namespace qx
