#include "filters/band_mode.h"

#include <gtest/gtest.h>

#include <bit>
#include <string>
#include <vector>

#include "filters/filter_rules.h"
#include "spots/bands.h"

namespace qx {
namespace {

const std::vector<std::string> kHf = {"160m", "80m", "60m", "40m", "30m",
                                      "20m",  "17m", "15m", "12m", "10m"};
const std::vector<std::string> kContest = {"160m", "80m", "40m", "20m", "15m", "10m"};
const std::vector<std::string> kWarc = {"60m", "30m", "17m", "12m"};
constexpr SpotMode kModes[] = {SpotMode::kCw,  SpotMode::kSsb,  SpotMode::kRtty,
                               SpotMode::kFt8, SpotMode::kFt4,  SpotMode::kPsk,
                               SpotMode::kMsk, SpotMode::kData, SpotMode::kUnknown};

class BandModeTest : public ::testing::Test {
 protected:
  int Index(std::string_view band) const { return std::countr_zero(bands_.BitByName(band)); }
  bool PassesEveryMode(const BandModeMask& m, std::string_view band) const {
    for (SpotMode mode : kModes) {
      if (!m.Passes(Index(band), mode)) return false;
    }
    return true;
  }
  BandTable bands_ = BandTable::SetupFreqRanges();
};

TEST_F(BandModeTest, TheNamedNumbersMeanWhatTheySay) {
  // The new-user number and what a stored 0/0 becomes: every HF band, 6 m and 2 m in every
  // mode (in fact every band), so a default user never loses a spot.
  for (const BandModeMask& wide : {BandModeMask::FromNumbers(kDxbmNewUser, kDxbmNewUser2),
                                   BandModeMask::FromNumbers(kDxbmStoredZero, kDxbmStoredZero2),
                                   BandModeMask::FromNumbers(0, 0)}) {
    std::vector<std::string> bands = kHf;
    bands.insert(bands.end(), {"6m", "2m", "70cm", "2200m"});
    for (const std::string& band : bands) EXPECT_TRUE(PassesEveryMode(wide, band)) << band;
    EXPECT_TRUE(wide.Everything());
  }
  // The contest number: the six contest bands in every mode, bit for bit, nothing else.
  const BandModeMask contest = BandModeMask::FromNumbers(kDxbmContest, kDxbmContest2);
  uint32_t contest_bits = 0;
  for (const std::string& band : kContest) {
    EXPECT_TRUE(PassesEveryMode(contest, band)) << band;
    contest_bits |= bands_.BitByName(band);
  }
  EXPECT_EQ(contest_bits, kDxbmContest);
  for (const std::string& band : kWarc) {
    EXPECT_FALSE(contest.Passes(Index(band), SpotMode::kCw)) << band;
  }
  EXPECT_FALSE(contest.Passes(Index("6m"), SpotMode::kSsb));
  EXPECT_FALSE(contest.Passes(-1, SpotMode::kSsb));
  EXPECT_EQ(contest.Describe(bands_), "160m,80m,40m,20m,15m,10m");
  // The band bits never collide with the comment's mode bits.
  for (const BandRange& r : bands_.ranges()) EXPECT_EQ(r.bit & kModeMask, 0u) << r.name;
}

TEST_F(BandModeTest, SecondMaskSelectsModeClasses) {
  const uint32_t twenty = bands_.BitByName("20m");
  const BandModeMask cw_only = BandModeMask::FromNumbers(twenty, kDxbmClassCw);
  EXPECT_TRUE(cw_only.Passes(Index("20m"), SpotMode::kCw));
  EXPECT_TRUE(cw_only.Passes(Index("20m"), SpotMode::kUnknown));
  EXPECT_FALSE(cw_only.Passes(Index("20m"), SpotMode::kSsb));
  EXPECT_FALSE(cw_only.Passes(Index("40m"), SpotMode::kCw));
  const BandModeMask digital =
      BandModeMask::FromNumbers(twenty, kDxbmClassWsjt | kDxbmClassData | 1u | 512u);
  EXPECT_TRUE(digital.Passes(Index("20m"), SpotMode::kFt4));
  EXPECT_TRUE(digital.Passes(Index("20m"), SpotMode::kPsk));
  EXPECT_FALSE(digital.Passes(Index("20m"), SpotMode::kRtty));
  EXPECT_EQ(digital.Describe(bands_), "20m-FT8,20m-FT4,20m-PSK,20m-MSK,20m-DATA");
  // No mode class at all: nothing passes, not even an unknown mode.
  EXPECT_FALSE(BandModeMask::FromNumbers(twenty, 2).Passes(Index("20m"), SpotMode::kUnknown));
}

TEST_F(BandModeTest, WordsPassOrRejectBandsAndBandModes) {
  FilterError error;
  auto pass = BandModeMask::FromWords("160-CW, 20 ,40-ft8,vhf", true, bands_, error);
  ASSERT_TRUE(pass.has_value()) << error.Text();
  EXPECT_TRUE(pass->Passes(Index("160m"), SpotMode::kCw));
  EXPECT_FALSE(pass->Passes(Index("160m"), SpotMode::kSsb));
  EXPECT_TRUE(PassesEveryMode(*pass, "20m"));
  EXPECT_TRUE(pass->Passes(Index("40m"), SpotMode::kFt8));
  EXPECT_FALSE(pass->Passes(Index("40m"), SpotMode::kFt4));
  EXPECT_TRUE(PassesEveryMode(*pass, "2m"));
  EXPECT_FALSE(pass->Passes(Index("80m"), SpotMode::kCw));
  EXPECT_EQ(pass->Describe(bands_), "160m-CW,40m-FT8,20m,6m,4m,2m,1.25m");

  auto reject = BandModeMask::FromWords("hf-ft8,60", false, bands_, error);
  ASSERT_TRUE(reject.has_value());
  EXPECT_FALSE(reject->Passes(Index("20m"), SpotMode::kFt8));
  EXPECT_TRUE(reject->Passes(Index("20m"), SpotMode::kFt4));
  EXPECT_FALSE(reject->Passes(Index("60m"), SpotMode::kCw));
  EXPECT_TRUE(PassesEveryMode(*reject, "6m"));

  EXPECT_FALSE(BandModeMask::FromWords("160,21m", true, bands_, error, 10));
  EXPECT_EQ(error.word, "21m");
  EXPECT_EQ(error.position, 14u);
  EXPECT_FALSE(BandModeMask::FromWords("160-XX", true, bands_, error));
  EXPECT_EQ(error.word, "XX");
  EXPECT_FALSE(BandModeMask::FromWords("160,,20", true, bands_, error));
  EXPECT_EQ(error.position, 4u);
}

}  // namespace
}  // namespace qx
