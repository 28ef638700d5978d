#include "spots/spot_line.h"

#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <tuple>
#include <utility>
#include <vector>

#include "core/stream_table.h"
#include "spots/distribution.h"

namespace qx {
namespace {

// The frequency ends at column 24 unless a long spotter call pushes it right, the DX call
// starts at column 27 and the comment at 40 (two columns behind a long DX call), and the
// template is 66 columns whatever the fields hold.
TEST(DxDeBodyTest, ColumnsMoveOnlyForLongCallsAndTheWidthIsFixed) {
  const struct {
    const char *spotter, *dx, *comment, *body;
  } kCases[] = {
      {"K1ABC", "DL1XYZ", "test",
       "DX de K1ABC:     14025.0  DL1XYZ       test                       "},
      {"VE3ABC/VE2", "DL1XYZ", "test",  // 10: still ends at 24, right after the colon
       "DX de VE3ABC/VE2:14025.0  DL1XYZ       test                       "},
      {"OH2ABC/MM12", "DL1XYZ", "test",  // 11: directly after the colon
       "DX de OH2ABC/MM12:14025.0  DL1XYZ      test                       "},
      {"OH2ABCD/MM12", "DL1XYZ", "test",  // 12: one blank after the colon
       "DX de OH2ABCD/MM12: 14025.0  DL1XYZ    test                       "},
      {"K1ABC", "VP8/DL1ABC/P", "test",
       "DX de K1ABC:     14025.0  VP8/DL1ABC/P  test                      "},
      {"K1ABC", "VP8/DL1ABC", "test",
       "DX de K1ABC:     14025.0  VP8/DL1ABC   test                       "},
      {"K1ABC", "DL1XYZ", "0123456789abcdefghijklmnopqrstuvwxyz",  // cut at column 66
       "DX de K1ABC:     14025.0  DL1XYZ       0123456789abcdefghijklmnopq"},
  };
  for (const auto& c : kCases) {
    EXPECT_EQ(DxDeBody(c.spotter, "14025.0", c.dx, c.comment), c.body) << c.spotter << " " << c.dx;
  }
  const std::string huge(200, 'X');
  EXPECT_EQ(DxDeBody(huge, huge, huge, huge).size(), 66u);
  EXPECT_EQ(DxDeBody("", "", "", "").substr(0, 7), "DX de :");
}

Spot MakeSpot() {
  Spot s;
  s.slots = {"PC61",  "14025.12", "DL1XYZ",    "22-Nov-2026", "0315Z", "test",
             "K1ABC", "DB0QX",    "192.0.2.7", "H30",         "~"};
  s.FrequencyKHz = 14025.12;
  return s;
}

TEST(FrequencyAndLocatorTest, RoundedToOneOrTwoDecimalsAndLocatorFromPosition) {
  char buf[32];
  const std::tuple<double, int, const char*> kFreqs[] = {{14025.12, 1, "14025.1"},
                                                         {14025.15, 1, "14025.2"},
                                                         {14025.0, 2, "14025.00"},
                                                         {14025.07, 2, "14025.07"},
                                                         {1850.96, 1, "1851.0"}};
  for (const auto& [khz, decimals, text] : kFreqs) {
    EXPECT_EQ(std::string(buf, FormatFrequency(khz, decimals, buf)), text);
  }
  const std::tuple<double, double, const char*> kGrids[] = {
      {51.5, -0.1, "IO91"}, {42.4, -71.1, "FN42"}, {-33.9, 151.2, "QF56"}, {95, 0, ""}};
  for (const auto& [lat, lon, grid] : kGrids) EXPECT_EQ(LocatorOf(lat, lon, buf), grid);
}

TEST(DxDeLineTest, TimeInColumns71To75AndLocatorAfter) {
  char buf[kDxDeLineMax];
  const Spot s = MakeSpot();
  const std::string line(buf, BuildDxDeLine(s, 1, "", buf));
  EXPECT_EQ(line, "DX de K1ABC:     14025.1  DL1XYZ       test                           0315Z");
  const std::string wide(buf, BuildDxDeLine(s, 2, "FN42", buf));
  EXPECT_EQ(wide.substr(0, 26), "DX de K1ABC:    14025.12  ");
  EXPECT_EQ(wide.substr(70), "0315Z FN42");
}

TEST(ShowDxLineTest, Layout) {
  Spot s = MakeSpot();
  s.FrequencyKHz = 14025.0;
  s.slots[kSlotDxCall] = "K1ABC";
  s.slots[kSlotSpotter] = "DL1ABC";
  EXPECT_EQ(ShowDxLine(s, 1), "  14025.0  K1ABC        22-Nov-2026 0315Z  test  <DL1ABC>");
  EXPECT_EQ(ShowDxLine(s, 2), " 14025.00  K1ABC        22-Nov-2026 0315Z  test  <DL1ABC>");
}

class RecordingSink : public SpotSink {
 public:
  void SendToStream(int stream, std::string_view text) override {
    sent[stream] += std::string(text);
  }
  std::map<int, std::string> sent;
};

class DistributionTest : public ::testing::Test {
 protected:
  StreamEntry& AddUser(int stream, std::string call) {
    streams_.EnsureCapacity(stream);
    StreamEntry& e = streams_.at(stream);
    e.call = std::move(call);
    e.state = kStateUser;
    e.login_stage = LoginStage::kLoggedIn;
    return e;
  }
  StreamTable streams_;
  RecordingSink sink_;
  CountryInfo usa_{"United States", "K", 5, 8, "NA", 42.4, -71.1};
};

TEST_F(DistributionTest, EachUserGetsTheirVariantAndLinesAreBuiltOncePerVariant) {
  AddUser(1, "G1AAA");                             // defaults: 75, 1 decimal
  AddUser(2, "G2BBB");                             // same as 1
  AddUser(3, "G3CCC").session.resolution = 2;      // two decimals
  AddUser(4, "G4DDD").session.Set(kSwBeep, true);  // bell
  StreamEntry& grid = AddUser(5, "G5EEE");         // locator
  grid.session.width = 80;
  grid.session.Set(kSwGridSquare, true);
  AddUser(6, "G6FFF").session.width = 40;              // narrow
  AddUser(7, "G7GGG").session.Set(kSwDxSpots, false);  // spots off
  AddUser(8, "G8HHH").state = kStateLoggingIn;         // not logged in
  AddUser(9, "DB0XX").state = kStateNodePc9x;          // a node
  StreamEntry& narrow_grid = AddUser(10, "G0JJJ");     // asked, but 75 wide
  narrow_grid.session.Set(kSwGridSquare, true);
  AddUser(11, "G1KKK").session.width = 60;  // the comment gives way to the time

  Spot s = MakeSpot();
  s.spotter_country = &usa_;
  SpotDistributor dist(streams_, sink_);
  const DistributionStats stats = dist.OutputSpotToAll(s);

  const std::string base =
      "DX de K1ABC:     14025.1  DL1XYZ       test                           0315Z";
  EXPECT_EQ(stats.users, 8);
  EXPECT_EQ(stats.lines_built, 3);  // 1 decimal, 2 decimals, 1 decimal with locator
  EXPECT_EQ(sink_.sent[1], base + "\r\n");
  EXPECT_EQ(sink_.sent[2], base + "\r\n");
  EXPECT_EQ(sink_.sent[3],
            "DX de K1ABC:    14025.12  DL1XYZ       test                           0315Z\r\n");
  EXPECT_EQ(sink_.sent[4], base + "\a\r\n");
  EXPECT_EQ(sink_.sent[5], base + " FN42\r\n");
  EXPECT_EQ(sink_.sent[6], base.substr(0, 34) + " 0315Z\r\n");
  EXPECT_EQ(sink_.sent[10], base + "\r\n");
  EXPECT_EQ(sink_.sent[11], base.substr(0, 54) + " 0315Z\r\n");
  EXPECT_EQ(sink_.sent.count(7), 0u);
  EXPECT_EQ(sink_.sent.count(8), 0u);
  EXPECT_EQ(sink_.sent.count(9), 0u);
}

// Users of one text reach the sink one after the other, whatever their order in the table,
// so that the link can send the text once for all of them.
TEST_F(DistributionTest, UsersOfOneTextAreHandedOnTogether) {
  class OrderSink : public SpotSink {
   public:
    void SendToStream(int, std::string_view) override {}
    void SendSpotToStream(int stream, const std::shared_ptr<const std::string>& text) override {
      calls.emplace_back(stream, text.get());
    }
    std::vector<std::pair<int, const std::string*>> calls;
  } order;
  AddUser(1, "G1AAA");
  AddUser(2, "G2BBB").session.resolution = 2;
  AddUser(3, "G3CCC");
  AddUser(4, "G4DDD").session.Set(kSwBeep, true);
  AddUser(5, "G5EEE");
  AddUser(6, "G6FFF").session.resolution = 2;
  SpotDistributor dist(streams_, order);
  EXPECT_EQ(dist.OutputSpotToAll(MakeSpot()).users, 6);
  std::vector<int> streams;
  for (const auto& [stream, text] : order.calls) streams.push_back(stream);
  EXPECT_EQ(streams, (std::vector<int>{1, 3, 5, 2, 6, 4}));
  EXPECT_EQ(order.calls[0].second, order.calls[2].second);
  EXPECT_EQ(order.calls[3].second, order.calls[4].second);
  EXPECT_NE(order.calls[2].second, order.calls[3].second);
}

// A sink that holds spot lines (the link while the front-end is behind) gets one text per
// variant, shared between users, and a held text survives the next spot unchanged.
TEST_F(DistributionTest, HeldSpotTextsAreSharedAndNotReusedForTheNextSpot) {
  class HoldingSink : public SpotSink {
   public:
    void SendToStream(int, std::string_view) override {}
    void SendSpotToStream(int stream, const std::shared_ptr<const std::string>& text) override {
      held.emplace_back(stream, text);
    }
    std::vector<std::pair<int, std::shared_ptr<const std::string>>> held;
  } holding;
  AddUser(1, "G1AAA");
  AddUser(2, "G2BBB");
  AddUser(3, "G3CCC").session.resolution = 2;
  SpotDistributor dist(streams_, holding);
  Spot s = MakeSpot();
  dist.OutputSpotToAll(s);
  ASSERT_EQ(holding.held.size(), 3u);
  EXPECT_EQ(holding.held[0].second, holding.held[1].second);  // same variant: one text
  EXPECT_NE(holding.held[0].second, holding.held[2].second);
  const std::string first = *holding.held[0].second;

  s.slots[2] = "JA1ZZZ";
  dist.OutputSpotToAll(s);
  ASSERT_EQ(holding.held.size(), 6u);
  EXPECT_EQ(*holding.held[0].second, first);
  EXPECT_NE(holding.held[3].second->find("JA1ZZZ"), std::string::npos);

  // Once the sink lets go, the next spot may build into the same text again.
  holding.held.clear();
  s.slots[2] = "VK2YYY";
  dist.OutputSpotToAll(s);
  ASSERT_EQ(holding.held.size(), 3u);
  EXPECT_NE(holding.held[0].second->find("VK2YYY"), std::string::npos);
}

TEST_F(DistributionTest, LocatorLookupWinsAndFilterIsAsked) {
  StreamEntry& u = AddUser(1, "G1AAA");
  u.session.width = 82;
  u.session.Set(kSwGridSquare, true);
  AddUser(2, "G2BBB");
  Spot s = MakeSpot();
  s.spotter_country = &usa_;
  SpotDistributor dist(streams_, sink_);
  dist.set_locator_lookup([](std::string_view call) {
    return call == "K1ABC" ? std::string_view("FN42lk") : std::string_view();
  });
  // Prepared once per spot, then asked per user.
  struct NotG2 : SpotFilter {
    void Prepare(const Spot&) override { ++prepared; }
    bool Passes(int, const StreamEntry& e, const Spot&) override { return e.call != "G2BBB"; }
    int prepared = 0;
  } filter;
  dist.set_filter(&filter);
  dist.OutputSpotToAll(s);
  EXPECT_EQ(filter.prepared, 1);
  EXPECT_EQ(sink_.sent[1].substr(70), "0315Z FN42lk\r\n");
  EXPECT_EQ(sink_.sent.count(2), 0u);

  // The next spot is built afresh, not served from the last one's lines.
  sink_.sent.clear();
  s.slots[kSlotDxCall] = "JA1ZZZ";
  dist.OutputSpotToAll(s);
  EXPECT_NE(sink_.sent[1].find("JA1ZZZ"), std::string::npos);
}

TEST_F(DistributionTest, ExtraColumnsInOrderAsTheWidthAllowsBuiltOncePerChoice) {
  CountryInfo germany{"Germany", "DL", 14, 28, "EU", 51.0, 10.0};
  const auto all = [](StreamEntry& e, int width) -> StreamEntry& {
    e.session.width = width;
    for (uint32_t bit :
         {kSwGridSquare, kSwDxsQth, kSwDxsCty, kSwDxCq, kSwDxItu, kSwDxGrid, kSwUsState}) {
      e.session.Set(bit, true);
    }
    return e;
  };
  all(AddUser(1, "G1AAA"), 120);
  all(AddUser(2, "G2BBB"), 120).session.resolution = 2;
  all(AddUser(3, "G3CCC"), 91);  // room for 16 characters behind the time
  all(AddUser(4, "G4DDD"), 80);  // 5: the spotter's locator only
  all(AddUser(5, "G5EEE"), 75);  // the standard line: no room
  AddUser(6, "G6FFF").session.width = 120;
  AddUser(6, "G6FFF").session.Set(kSwDxCq, true);  // one column, asked alone
  AddUser(7, "G7GGG").session.width = 120;
  AddUser(7, "G7GGG").session.Set(kSwDxCq, true);  // same choice as user 6

  Spot s = MakeSpot();
  s.spotter_country = &usa_;
  s.dx_country = &germany;
  SpotDistributor dist(streams_, sink_);
  int state_asks = 0;
  dist.set_state_lookup([&](std::string_view call) {
    ++state_asks;
    return call == "K1ABC" ? std::string_view("MA") : std::string_view();
  });
  const DistributionStats stats = dist.OutputSpotToAll(s);
  const std::string base =
      "DX de K1ABC:     14025.1  DL1XYZ       test                           0315Z";
  // The DX call has no state: that column is left out, not shown empty.
  EXPECT_EQ(sink_.sent[1], base + " FN42 MA K CQ14 IT28 JO51\r\n");
  EXPECT_EQ(sink_.sent[2].substr(70), "0315Z FN42 MA K CQ14 IT28 JO51\r\n");
  EXPECT_EQ(sink_.sent[3], base + " FN42 MA K CQ14\r\n");  // IT28 would make 95
  EXPECT_EQ(sink_.sent[4], base + " FN42\r\n");
  EXPECT_EQ(sink_.sent[5], base + "\r\n");
  EXPECT_EQ(sink_.sent[6], base + " CQ14\r\n");
  EXPECT_EQ(sink_.sent[7], sink_.sent[6]);
  // Two base lines, then one per (resolution, columns): 1+2 full, 3, 4, 6 and 7.
  EXPECT_EQ(stats.lines_built, 2 + 5);
  EXPECT_EQ(state_asks, 2);  // the spotter and the DX call, once per spot
}

TEST_F(DistributionTest, UserSwitchesForKindsOfSpots) {
  // A new user gets people's spots of every mode, but no machine-made ones until asked.
  AddUser(1, "G1AAA");
  AddUser(2, "G2BBB").session.Set(kSwFt8Spots, false);
  AddUser(3, "G3CCC").session.Set(kSwBeaconSpots, false);
  AddUser(4, "G4DDD").session.switches |= kSwPskReporter | kSwSkimmerSpots;
  StreamEntry& dupes = AddUser(5, "G5EEE");
  dupes.session.switches |= kSwPskReporter | kSwSkimmerSpots | kSwSkimmerDupes;
  dupes.session.Set(kSwCwSpots, false);
  SpotDistributor dist(streams_, sink_);
  auto receivers = [&](const Spot& spot) {
    sink_.sent.clear();
    dist.OutputSpotToAll(spot);
    std::string who;
    for (const auto& [stream, text] : sink_.sent) who += std::to_string(stream);
    return who;
  };
  Spot s = MakeSpot();
  s.ModeFlags = kModeFt8 | 16;
  EXPECT_EQ(receivers(s), "1345");
  s.ModeFlags = kModeFt4 | 16;
  s.IsBeacon = true;
  EXPECT_EQ(receivers(s), "1245");
  s.IsBeacon = false;
  s.SourceTag = SourceTagText(SpotSource::kReporter);
  EXPECT_EQ(receivers(s), "45");
  s.SourceTag = SourceTagText(SpotSource::kSkimmer);
  s.ModeFlags = 16;
  s.slots[kSlotComment] = "CW    18 dB 26 WPM CQ V3";
  EXPECT_EQ(receivers(s), "4");
  s.slots[kSlotComment] = "RTTY  25 dB 45 BPS CQ V3";
  s.ModeFlags = kModeRtty | 16;
  s.SkimmerDupe = true;
  EXPECT_EQ(receivers(s), "5");
}

// Companion clients get the enhanced sentence in place of the line, whether the connection
// or the record asked; it is made once per spot and shared, and the others keep their lines.
TEST_F(DistributionTest, EnhancedUsersShareOneSentenceOthersKeepTheirLine) {
  AddUser(1, "G1AAA").session.Set(kSwBeep, true);
  AddUser(2, "G2BBB").spot_format = kSpotFormatEnhanced;
  StreamEntry& record = AddUser(3, "G3CCC");
  record.session.Set(kSwEnhanced, true);
  record.session.Set(kSwBeep, true);
  record.session.width = 40;
  AddUser(4, "G4DDD").spot_format = kSpotFormatEnhanced;
  AddUser(5, "G5EEE");
  Spot s = MakeSpot();

  // Without a formatter everyone gets the line: the reference for those who keep it.
  RecordingSink plain;
  SpotDistributor reference(streams_, plain);
  reference.OutputSpotToAll(s);
  EXPECT_NE(plain.sent[2].find("DX de K1ABC:"), std::string::npos);

  SpotDistributor dist(streams_, sink_);
  int formatted = 0;
  dist.set_enhanced_formatter([&](const Spot& spot, std::string& out) {
    ++formatted;
    out = "QX11^" + std::string(spot.dx_call());
  });
  struct NotG4 : SpotFilter {
    void Prepare(const Spot&) override {}
    bool Passes(int, const StreamEntry& e, const Spot&) override { return e.call != "G4DDD"; }
  } filter;
  dist.set_filter(&filter);
  const DistributionStats stats = dist.OutputSpotToAll(s);
  EXPECT_EQ(formatted, 1);
  EXPECT_EQ(stats.users, 4);
  EXPECT_EQ(stats.filtered, 1);
  EXPECT_EQ(sink_.sent[2], "QX11^DL1XYZ\r\n");
  EXPECT_EQ(sink_.sent[3], "QX11^DL1XYZ\r\n");  // neither cut to the width nor a bell
  EXPECT_EQ(sink_.sent.count(4), 0u);
  EXPECT_EQ(sink_.sent[1], plain.sent[1]);
  EXPECT_EQ(sink_.sent[5], plain.sent[5]);
  EXPECT_NE(sink_.sent[1].find("DX de K1ABC:"), std::string::npos);

  // The next spot gets its own sentence.
  sink_.sent.clear();
  s.slots[kSlotDxCall] = "JA1ZZZ";
  dist.OutputSpotToAll(s);
  EXPECT_EQ(sink_.sent[2], "QX11^JA1ZZZ\r\n");
  EXPECT_EQ(formatted, 2);
}

}  // namespace
}  // namespace qx
