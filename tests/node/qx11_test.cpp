// The QX11 sentence: what this node writes, what it reads back, and what it refuses.
#include "node/qx11.h"

#include <gtest/gtest.h>

#include "tests/node/node_test_util.h"

namespace qx {
namespace {

class Qx11Test : public ::testing::Test {
 protected:
  Qx11Test() {
    us_.prefix = "K";
    us_.cq_zone = 5;
    us_.itu_zone = 8;
    de_.prefix = "DL";
    de_.cq_zone = 14;
    de_.itu_zone = 28;
    spot_.slots = {"PC61",  "14025.0", "DL1XYZ",       "24-Nov-2026", "2201Z", "up 2",
                   "K1ABC", "XX0QX-1", "198.51.100.7", "H100",        "~"};
    spot_.FrequencyKHz = 14025.0;
    spot_.spotter_country = &us_;
    spot_.dx_country = &de_;
    spot_.SpotterGrid = "FN42";
    spot_.IsLocal = true;
    spot_.Id = 1234;
  }
  std::string Build(std::string_view hops = "H99", std::string_view address = "198.51.100.7") {
    std::string out = "left over";
    BuildQx11(spot_, hops, address, out);
    return out;
  }

  CountryInfo us_, de_;
  Spot spot_;
};

TEST_F(Qx11Test, LocalSpotIsWrittenFieldByFieldAndReadBack) {
  const std::string line = Build();
  EXPECT_EQ(line,
            "QX11^1^14025.0^DL1XYZ^24-Nov-2026^2201Z^up 2^K1ABC^XX0QX-1^198.51.100.7^CW^I^C^^^"
            "K^5^8^FN42^DL^14^28^^1234^H99^~");
  Qx11Spot q;
  std::string why;
  ASSERT_TRUE(ParseQx11(line, q, &why)) << why;
  EXPECT_EQ(q.version, 1);
  EXPECT_EQ(q.dx_call, "DL1XYZ");
  EXPECT_EQ(q.comment, "up 2");
  EXPECT_EQ(q.mode, "CW");
  EXPECT_FALSE(q.mode_stated);
  EXPECT_EQ(q.source, SpotSource::kCluster);
  EXPECT_EQ(q.skimmer_verdict, 0);
  EXPECT_EQ(q.spotter_prefix, "K");
  EXPECT_EQ(q.spotter_cq, 5);
  EXPECT_EQ(q.dx_itu, 28);
  EXPECT_EQ(q.spotter_grid, "FN42");
  EXPECT_EQ(q.dx_grid, "");
  EXPECT_EQ(q.origin_id, 1234u);
  EXPECT_EQ(q.hops, "H99");
  // Intake reads it as the PC61 it stands for; without an address, as a PC11.
  EXPECT_EQ(Qx11IntakeSentence(q),
            "PC61^14025.0^DL1XYZ^24-Nov-2026^2201Z^up 2^K1ABC^XX0QX-1^198.51.100.7^H99^~");
  const std::string without_address = Build("H98", "");
  ASSERT_TRUE(ParseQx11(without_address, q, &why)) << why;
  EXPECT_EQ(Qx11IntakeSentence(q),
            "PC11^14025.0^DL1XYZ^24-Nov-2026^2201Z^up 2^K1ABC^XX0QX-1^H98^~");
}

TEST_F(Qx11Test, WhatTheOriginKnewTravelsOnUnchanged) {
  spot_.IsLocal = false;
  spot_.Mode = "RTTY";
  spot_.ModeStated = true;
  spot_.SourceTag = SourceTagText(SpotSource::kSkimmer);
  spot_.SkimmerVerdict = '?';
  spot_.SkimmerCount = 2;
  spot_.DxGrid = "JO62qm";
  spot_.OriginId = 77;
  spot_.spotter_country = nullptr;
  Qx11Spot q;
  const std::string line = Build();
  ASSERT_TRUE(ParseQx11(line, q, nullptr)) << line;
  EXPECT_EQ(q.mode, "RTTY");
  EXPECT_TRUE(q.mode_stated);
  EXPECT_EQ(q.source, SpotSource::kSkimmer);
  EXPECT_EQ(q.skimmer_verdict, '?');
  EXPECT_EQ(q.skimmer_count, 2);
  EXPECT_EQ(q.spotter_prefix, "");
  EXPECT_EQ(q.spotter_cq, 0);
  EXPECT_EQ(q.origin_id, 77u);

  Spot carried;
  Qx11Carried(q, carried);
  spot_.spotter_country = &us_;
  spot_.slots[kSlotHops] = "H99";
  carried.slots = spot_.slots;
  carried.FrequencyKHz = spot_.FrequencyKHz;
  carried.spotter_country = &us_;
  carried.dx_country = &de_;
  std::string again;
  BuildQx11(carried, "H99", "198.51.100.7", again);
  EXPECT_EQ(again, Build());
}

TEST_F(Qx11Test, ModeComesFromTheCommentBeforeTheBandPlan) {
  spot_.slots[kSlotComment] = "loud FT8 -12dB";
  spot_.ModeFlags = kModeFt8;
  EXPECT_TRUE(test::Has(Build(), "^FT8^S^"));
  spot_.slots[kSlotComment] = "usb pileup";
  spot_.ModeFlags = 0;
  EXPECT_TRUE(test::Has(Build(), "^SSB^S^"));
  spot_.slots[kSlotComment] = " ";
  spot_.FrequencyKHz = 10368100.0;  // no band plan up there
  EXPECT_TRUE(test::Has(Build(), "^198.51.100.7^^^C^"));
}

TEST_F(Qx11Test, LaterVersionsAddFieldsBeforeTheHopCount) {
  std::string line = Build();
  line.replace(0, 6, "QX11^7");
  line.insert(line.rfind("^H99"), "^new^fields");
  Qx11Spot q;
  ASSERT_TRUE(ParseQx11(line, q, nullptr)) << line;
  EXPECT_EQ(q.version, 7);
  EXPECT_EQ(q.origin_id, 1234u);
  EXPECT_EQ(q.hops, "H99");
}

TEST_F(Qx11Test, RefusesWhatItCannotReadAndSaysWhy) {
  const std::string good = Build();
  const auto with = [&](int field, std::string_view value) {
    std::string line;
    int i = 0;
    size_t start = 0;
    for (size_t caret = good.find('^');; caret = good.find('^', start)) {
      const std::string_view f =
          std::string_view(good).substr(start, caret == std::string::npos ? caret : caret - start);
      if (i > 0) line += '^';
      line += i == field ? value : f;
      ++i;
      if (caret == std::string::npos) break;
      start = caret + 1;
    }
    return line;
  };
  const int hops = kQxKnownFields, end = kQxKnownFields + 1;
  const struct {
    std::string line;
    std::string reason;
  } cases[] = {
      {with(kQxHeader, "PC61"), "not a QX11"},
      {with(end, ""), "no terminator"},
      {with(hops, "H100"), "no hop count"},
      {with(hops, "h5"), "no hop count"},
      {with(kQxVersion, "0"), "bad version"},
      {with(kQxVersion, "v1"), "bad version"},
      {with(kQxDxCall, ""), "empty frequency or call"},
      {with(kQxFrequency, ""), "empty frequency or call"},
      {with(kQxModeHow, "X"), "bad mode source"},
      {with(kQxMode, "VERYLONGMODE"), "bad mode"},
      {with(kQxSkimmerVerdict, "X"), "bad skimmer verdict"},
      {with(kQxSkimmerVerdict, "VQ"), "bad skimmer verdict"},
      {with(kQxSkimmerCount, "-1"), "bad count or zone"},
      {with(kQxDxCq, "100"), "bad count or zone"},
      {with(kQxSpotterItu, "5a"), "bad count or zone"},
      {with(kQxOriginId, "99999999999999999999"), "bad spot id"},
      {with(kQxDxGrid, "JO62QMJO62QM"), "bad locator"},
      {"QX11^1^14025.0^H99^~", "too few fields"},
  };
  for (const auto& c : cases) {
    Qx11Spot q;
    std::string why;
    EXPECT_FALSE(ParseQx11(c.line, q, &why)) << c.line;
    EXPECT_EQ(why, c.reason) << c.line;
  }
  // An unknown source letter is a cluster spot, not a reason to lose it.
  Qx11Spot q;
  ASSERT_TRUE(ParseQx11(with(kQxSource, "Z"), q, nullptr));
  EXPECT_EQ(q.source, SpotSource::kCluster);
  // Every line cut short is refused, wherever the cut falls.
  for (size_t n = 0; n < good.size(); ++n) {
    EXPECT_FALSE(ParseQx11(std::string_view(good).substr(0, n), q, nullptr)) << n;
  }
}

}  // namespace
}  // namespace qx
