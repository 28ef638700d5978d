#include "spots/dx_query.h"

#include <gtest/gtest.h>

#include "core/text_util.h"
#include "spots/bands.h"
#include "spots/intake.h"
#include "spots/spot_history.h"

namespace qx {
namespace {

class ShowDxParseTest : public ::testing::Test {
 protected:
  // The words after "SH/DX" as the interpreter passes them.
  bool Parse(std::string_view line, ShowDxRequest& r) {
    std::string_view args = line;
    args.remove_prefix(std::min(args.size(), size_t(6)));  // "SH/DX "
    return ParseShowDx(args, bands_, 30, 100, r, &error_);
  }
  uint32_t Bit(std::string_view band) const { return bands_.BitByName(band); }

  BandTable bands_ = BandTable::SetupFreqRanges();
  std::string error_;
};

TEST_F(ShowDxParseTest, TheFormsUsersTypeCombine) {
  ShowDxRequest r;
  ASSERT_TRUE(Parse("SH/DX", r));
  EXPECT_EQ(r.query.count, 30u);
  EXPECT_EQ(r.day, -1);
  EXPECT_FALSE(r.all);

  ASSERT_TRUE(Parse("SH/DX 20 ON 20M BY K1ABC", r)) << error_;
  EXPECT_EQ(r.query.count, 20u);
  EXPECT_EQ(r.query.band_bit, Bit("20m"));
  EXPECT_EQ(r.query.spotter, "K1ABC");
  EXPECT_TRUE(r.query.call.empty());

  ASSERT_TRUE(Parse("SH/DX vp8 on 160m info cw day 2 all", r)) << error_;
  EXPECT_EQ(r.query.call, "VP8*");
  EXPECT_EQ(r.query.band_bit, Bit("160m"));
  EXPECT_EQ(r.query.info, "cw");
  EXPECT_EQ(r.day, 2);
  EXPECT_TRUE(r.all);

  // A band on its own; "ON 20" is the band, a bare 20 the count; the count has a ceiling.
  ASSERT_TRUE(Parse("SH/DX 40M", r));
  EXPECT_EQ(r.query.band_bit, Bit("40m"));
  ASSERT_TRUE(Parse("SH/DX ON 20 5000", r));
  EXPECT_EQ(r.query.band_bit, Bit("20m"));
  EXPECT_EQ(r.query.count, 100u);
  ASSERT_TRUE(Parse("SH/DX K1ABC* DAY 0", r));
  EXPECT_EQ(r.query.call, "K1ABC*");
  EXPECT_EQ(r.day, 0);
}

TEST_F(ShowDxParseTest, WrongArgumentsAreRefusedWithAReason) {
  for (const char* line :
       {"SH/DX ON", "SH/DX ON 17Q", "SH/DX BY", "SH/DX BY K1*", "SH/DX DAY", "SH/DX DAY -1",
        "SH/DX DAY 400", "SH/DX DAY x", "SH/DX INFO", "SH/DX 0", "SH/DX 5 6", "SH/DX K1A W1B",
        "SH/DX ON 20M ON 40M", "SH/DX BY K1A BY K2B", "SH/DX ALL ALL", "SH/DX K1^A",
        "SH/DX DAY 1 DAY 2"}) {
    ShowDxRequest r;
    error_.clear();
    EXPECT_FALSE(Parse(line, r)) << line;
    EXPECT_FALSE(error_.empty()) << line;
  }
}

// The request finds what it names in a day's spots, newest first.
TEST_F(ShowDxParseTest, AParsedRequestSelectsSpots) {
  std::vector<Spot> spots;
  const auto add = [&](const char* sentence) {
    Spot s;
    ASSERT_TRUE(SpotFromSentence(sentence, s));
    s.ModeFlags = bands_.BandBit(s.FrequencyKHz);
    spots.push_back(s);
  };
  add("PC61^14025.0^VP8ABC^22-Nov-2026^0300Z^cw up^K1ABC-2^DB0SUE^192.0.2.1^H30^~");
  add("PC61^7025.0^VP8ABC^22-Nov-2026^0301Z^CW^K1ABC^DB0SUE^192.0.2.1^H30^~");
  add("PC61^14030.0^VP8XYZ^22-Nov-2026^0302Z^CW^W1AW^DB0SUE^192.0.2.1^H30^~");
  add("PC61^14031.0^K9VP8^22-Nov-2026^0303Z^CW^K1ABC^DB0SUE^192.0.2.1^H30^~");
  add("PC61^14032.0^VP8ABC^22-Nov-2026^0304Z^ssb^K1ABC^DB0SUE^192.0.2.1^H30^~");
  ShowDxRequest r;
  ASSERT_TRUE(Parse("SH/DX VP8 ON 20M BY K1ABC INFO CW", r));
  std::vector<const Spot*> found = SpotHistory::FindIn(spots, r.query);
  ASSERT_EQ(found.size(), 1u);
  EXPECT_EQ(found[0]->spotter(), "K1ABC-2");
  ASSERT_TRUE(Parse("SH/DX 2 VP8", r));
  found = SpotHistory::FindIn(spots, r.query);
  ASSERT_EQ(found.size(), 2u);
  EXPECT_EQ(found[0]->time(), "0304Z");
  EXPECT_EQ(found[1]->dx_call(), "VP8XYZ");
}

}  // namespace
}  // namespace qx
