#include "filters/spot_facts.h"

#include <gtest/gtest.h>

#include "tests/filters/filter_fixture.h"

namespace qx {
namespace {

using testing::FilterWorld;

TEST(SpotFactsTest, ModeIsStatedByTheCommentOrInferredFromTheSubBand) {
  struct Case {
    double khz;
    std::string_view comment;
    SpotMode mode;
    bool stated;
  };
  const Case cases[] = {
      {14025.0, "", SpotMode::kCw, false},
      {14075.5, "", SpotMode::kFt8, false},
      {14081.0, "", SpotMode::kFt4, false},
      {14090.0, "", SpotMode::kData, false},
      {14195.0, "", SpotMode::kSsb, false},
      {7074.0, "", SpotMode::kFt8, false},
      {1820.0, "", SpotMode::kCw, false},
      {144300.0, "", SpotMode::kSsb, false},
      {10368000.0, "", SpotMode::kUnknown, false},
      // The comment wins over the sub-band, intake's mode bits over other words.
      {14195.0, "up 5 cw", SpotMode::kCw, true},
      {14025.0, "tnx USB", SpotMode::kSsb, true},
      {14085.0, "RTTY cq", SpotMode::kRtty, true},
      {14025.0, "FT8 cw?", SpotMode::kFt8, true},
      {14074.0, "jt65a", SpotMode::kFt8, false},  // no whole word: inferred
      {14076.0, "JT65", SpotMode::kData, true},
      {14200.0, "CWT", SpotMode::kSsb, false},
  };
  FilterWorld w;
  for (const Case& c : cases) {
    const SpotFacts f = w.Facts(c.khz, "K1ABC", "DL1AAA", c.comment);
    EXPECT_EQ(f.mode, c.mode) << c.khz << " " << c.comment;
    EXPECT_EQ(f.mode_stated, c.stated) << c.khz << " " << c.comment;
  }
}

TEST(SpotFactsTest, StationsCarryCountryZonesContinentAndState) {
  FilterWorld w;
  Spot s = w.MakeSpot(21025.0, "k1abc", "VE3XYZ", "Loud Signal", "xx0qx-2");
  s.IsBeacon = true;
  s.SourceTag = SourceTagText(SpotSource::kSkimmer);
  const SpotFacts f = MakeSpotFacts(s, w.bands, &w.states);
  EXPECT_EQ(f.band_bit, w.bands.BitByName("15m"));
  EXPECT_EQ(f.band_index, 29);
  EXPECT_EQ(f.dx.call, "K1ABC");
  EXPECT_EQ(f.dx.country_key, CountryKey("K"));
  EXPECT_EQ(f.dx.continent, Continent::kNa);
  EXPECT_EQ(f.dx.cq_zone, 5);
  EXPECT_EQ(f.dx.itu_zone, 8);
  EXPECT_EQ(f.dx.state, StateKey("ma"));
  EXPECT_EQ(f.spotter.country_key, CountryKey("VE"));
  EXPECT_EQ(f.spotter.itu_zone, 9);
  EXPECT_EQ(f.spotter.state, StateKey("ON"));
  EXPECT_EQ(f.comment, "LOUD SIGNAL");
  EXPECT_EQ(f.origin, "XX0QX-2");
  EXPECT_TRUE(f.beacon);
  EXPECT_EQ(f.source, SourceKind::kSkimmer);

  // Without country or state data the facts say "unknown", never a wrong value.
  const SpotFacts bare = MakeSpotFacts(w.MakeSpot(21025.0, "ZZ9ZZ", "ZZ8ZZ"), w.bands, nullptr);
  EXPECT_EQ(bare.dx.country_key, 0u);
  EXPECT_EQ(bare.dx.continent, Continent::kNone);
  EXPECT_EQ(bare.dx.cq_zone, 0);
  EXPECT_EQ(bare.spotter.state, 0);
  EXPECT_EQ(bare.source, SourceKind::kHuman);

  const SpotFacts ann = MakeOriginFacts("dl1aaa", "Net at 20z", "XX0QX", &w.countries, nullptr);
  EXPECT_EQ(ann.spotter.country_key, CountryKey("DL"));
  EXPECT_EQ(ann.spotter.continent, Continent::kEu);
  EXPECT_EQ(ann.band_index, -1);
  EXPECT_EQ(ann.comment, "NET AT 20Z");
}

TEST(SpotFactsTest, KeysIgnoreCaseAndRefuseWhatIsNotAKey) {
  EXPECT_EQ(CountryKey("dl"), CountryKey("DL"));
  EXPECT_NE(CountryKey("D"), CountryKey("DL"));
  EXPECT_EQ(CountryKey(""), 0u);
  EXPECT_EQ(StateKey("on"), StateKey("ON"));
  EXPECT_EQ(StateKey("ONT"), 0);
  EXPECT_EQ(StateKey("O "), 0);
  EXPECT_EQ(ContinentFromText("oc"), Continent::kOc);
  EXPECT_EQ(ContinentFromText("XX"), Continent::kNone);
}

}  // namespace
}  // namespace qx
