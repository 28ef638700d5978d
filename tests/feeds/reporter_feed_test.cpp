#include "feeds/reporter_feed.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include <fmt/format.h>

#include "feeds/feed_spot.h"
#include "spots/bad_lists.h"
#include "spots/intake.h"
#include "spots/spot.h"

namespace qx {
namespace {

using std::chrono::seconds;

const SysTime kT0 = MakeUtc(2026, 3, 14, 18, 54, 0);
const int64_t kUnix0 = std::chrono::duration_cast<seconds>(kT0.time_since_epoch()).count();

std::string Payload(std::string_view sender, std::string_view receiver, int64_t hz = 14074653,
                    std::string_view mode = "FT8", int64_t t = kUnix0 - 20) {
  return fmt::format(
      R"({{"sq":30142870791,"f":{},"md":"{}","rp":-12,"t":{},"sc":"{}","sl":"FN42ab12",)"
      R"("rc":"{}","rl":"JO31","sa":291,"ra":230,"b":"20m"}})",
      hz, mode, t, sender, receiver);
}

TEST(ReporterPayloadTest, ReadsTheReportFields) {
  ReporterReport r;
  ASSERT_EQ(ParseReporterPayload(Payload("k1abc", "DL1XYZ/P"), r), ReporterError::kNone);
  EXPECT_EQ(r.sequence, 30142870791u);
  EXPECT_EQ(r.hz, 14074653);
  EXPECT_EQ(r.mode, "FT8");
  EXPECT_TRUE(r.has_snr);
  EXPECT_EQ(r.snr_db, -12);
  EXPECT_EQ(r.unix_time, kUnix0 - 20);
  EXPECT_EQ(r.sender, "K1ABC");
  EXPECT_EQ(r.sender_grid, "FN42");
  EXPECT_EQ(r.receiver, "DL1XYZ/P");
  EXPECT_EQ(r.receiver_grid, "JO31");
  EXPECT_EQ(r.band, "20m");
}

TEST(ReporterPayloadTest, GarbageGivesAnErrorNeverAnException) {
  const std::string ok = Payload("K1ABC", "DL1XYZ");
  auto with = [&](std::string_view from, std::string_view to) {
    std::string s = ok;
    s.replace(s.find(from), from.size(), to);
    return s;
  };
  const std::vector<std::pair<std::string, ReporterError>> cases = {
      {"", ReporterError::kNotJson},
      {"{\"f\":14074000,", ReporterError::kNotJson},
      {"\xff\xfe{}", ReporterError::kNotJson},
      {std::string(600, '[') + std::string(600, ']'), ReporterError::kNotObject},
      {"[1,2]", ReporterError::kNotObject},
      {"null", ReporterError::kNotObject},
      {"{}", ReporterError::kBadFrequency},
      {with("14074653", "\"14O74\""), ReporterError::kBadFrequency},
      {with("14074653", "{}"), ReporterError::kBadFrequency},
      {with("14074653", "-5"), ReporterError::kBadFrequency},
      {with("\"FT8\"", "8"), ReporterError::kBadMode},
      {with("\"FT8\"", "\"FT8^X\""), ReporterError::kBadMode},
      {with("\"K1ABC\"", "\"K1^BC\""), ReporterError::kBadSender},
      {with("\"K1ABC\"", "null"), ReporterError::kBadSender},
      {with("\"DL1XYZ\"", "\"DL1 XYZ\""), ReporterError::kBadReceiver},
      {with("-12", "\"loud\""), ReporterError::kBadSnr},
      {with("-12", "300"), ReporterError::kBadSnr},
      {with(fmt::format("{}", kUnix0 - 20), "[]"), ReporterError::kBadTime},
      {std::string(5000, ' ') + ok, ReporterError::kTooLong},
  };
  for (const auto& [payload, error] : cases) {
    ReporterReport r;
    EXPECT_EQ(ParseReporterPayload(payload, r), error) << payload.substr(0, 80);
  }
  // Quoted numbers and missing optional fields are fine.
  ReporterReport r;
  EXPECT_EQ(ParseReporterPayload(R"({"f":"7074000","md":"FT4","sc":"K1ABC","rc":"DL1XYZ"})", r),
            ReporterError::kNone);
  EXPECT_FALSE(r.has_snr);
  EXPECT_FALSE(r.has_time);
}

class ReporterFeedTest : public ::testing::Test {
 protected:
  BandTable bands_ = BandTable::SetupFreqRanges();
};

TEST_F(ReporterFeedTest, OneSpotPerStationBandAndModeInTheWindow) {
  ReporterSettings s;
  s.hold = seconds(0);
  ReporterFeed feed(bands_, s);
  const ReporterResult& first = feed.Offer(Payload("K1ABC", "DL1XYZ"), kT0);
  ASSERT_EQ(first.outcome, ReporterOutcome::kSpot);
  Spot spot;
  ASSERT_TRUE(SpotFromSentence(first.sentence, spot));
  EXPECT_EQ(spot.dx_call(), "K1ABC");
  EXPECT_EQ(spot.spotter(), "DL1XYZ");
  EXPECT_EQ(spot.origin_node(), "REP0RTER");
  EXPECT_EQ(spot.frequency_text(), "14074.7");
  EXPECT_EQ(spot.time(), "1853Z");  // the time of reception, not of arrival
  EXPECT_EQ(spot.comment(), "FT8  -12 dB FN42 R1");
  EXPECT_EQ(feed.Offer(Payload("K1ABC", "G4ABC"), kT0 + seconds(5)).outcome,
            ReporterOutcome::kCollapsed);
  EXPECT_EQ(feed.Offer(Payload("K1ABC", "G4ABC", 14074000), kT0 + seconds(6)).outcome,
            ReporterOutcome::kCollapsed);
  EXPECT_EQ(feed.Offer(Payload("K1ABC", "G4ABC", 14080000, "FT4"), kT0 + seconds(7)).outcome,
            ReporterOutcome::kSpot);
  EXPECT_EQ(feed.Offer(Payload("K1ABC", "G4ABC", 7074000), kT0 + seconds(8)).outcome,
            ReporterOutcome::kSpot);
  EXPECT_EQ(
      feed.Offer(Payload("K1ABC", "JA1ABC", 14074000, "FT8", kUnix0 + 290), kT0 + seconds(301))
          .outcome,
      ReporterOutcome::kSpot);
}

TEST_F(ReporterFeedTest, AHeldSpotCountsTheReceiversHeardDuringItsHold) {
  ReporterFeed feed(bands_);  // a hold of 30 s
  std::vector<std::string> spots;
  auto take = [&](std::string_view s) { spots.emplace_back(s); };
  EXPECT_EQ(feed.Offer(Payload("K1ABC", "DL1XYZ"), kT0).outcome, ReporterOutcome::kHeld);
  EXPECT_EQ(feed.Offer(Payload("K1ABC", "G4ABC"), kT0 + seconds(3)).outcome,
            ReporterOutcome::kCollapsed);
  feed.Offer(Payload("K1ABC", "G4ABC"), kT0 + seconds(4));  // the same receiver again
  feed.Offer(Payload("K1ABC", "JA1ABC"), kT0 + seconds(5));
  EXPECT_EQ(feed.TakeDue(kT0 + seconds(29), take), 0u);
  EXPECT_EQ(feed.TakeDue(kT0 + seconds(30), take), 1u);
  ASSERT_EQ(spots.size(), 1u);
  EXPECT_NE(spots[0].find("^FT8  -12 dB FN42 R3^DL1XYZ^REP0RTER^"), std::string::npos);
  EXPECT_EQ(feed.Offer(Payload("K1ABC", "VK2ABC"), kT0 + seconds(40)).outcome,
            ReporterOutcome::kCollapsed);
  EXPECT_EQ(feed.TakeDue(kT0 + seconds(200), take), 0u);
  EXPECT_FALSE(feed.NextDue().has_value());
  // A hold is timed to the clock's resolution, not to whole seconds: a report 0.7 s into a
  // second is due 0.7 s into the second a hold later, and not a moment before.
  const SysTime first = kT0 + seconds(400) + std::chrono::milliseconds(700);
  EXPECT_EQ(feed.Offer(Payload("K2XYZ", "DL1XYZ", 14074000, "FT8", kUnix0 + 400), first).outcome,
            ReporterOutcome::kHeld);
  ASSERT_TRUE(feed.NextDue().has_value());
  EXPECT_EQ(*feed.NextDue(), first + seconds(30));
  EXPECT_EQ(feed.TakeDue(first + seconds(30) - std::chrono::milliseconds(1), take), 0u);
  EXPECT_EQ(feed.TakeDue(first + seconds(30), take), 1u);
  // Intake takes the sentence as it is, as an FT8 spot of this source.
  BadLists lists;
  ManualClock clock(kT0 + seconds(30));
  const CountryInfo country{"Somewhere", "X", 1, 1, "EU", 0, 0};
  IntakeDeps deps;
  deps.bad_lists = &lists;
  deps.bands = &bands_;
  deps.clock = &clock;
  deps.country_of = [&](std::string_view) { return &country; };
  SpotIntake intake(std::move(deps));
  const IntakeResult r = intake.Process(FeedIntakeRequest(spots[0], SpotSource::kReporter, 3));
  ASSERT_TRUE(r.accepted()) << VerdictName(r.verdict);
  EXPECT_EQ(r.spot->ModeFlags & kModeMask, kModeFt8);
  EXPECT_EQ(r.spot->SourceTag, "PskReporter");
}

TEST_F(ReporterFeedTest, StaleOffBandAndRejectedReportsMakeNoSpot) {
  ReporterFeed feed(bands_);
  EXPECT_EQ(feed.Offer(Payload("K1ABC", "DL1XYZ", 14074000, "FT8", kUnix0 - 7200), kT0).outcome,
            ReporterOutcome::kStale);
  EXPECT_EQ(feed.Offer(Payload("K1ABC", "DL1XYZ", 99999999999), kT0).outcome,
            ReporterOutcome::kOffBand);
  const ReporterResult& bad = feed.Offer("{\"f\":", kT0);
  EXPECT_EQ(bad.outcome, ReporterOutcome::kRejected);
  EXPECT_EQ(bad.error, ReporterError::kNotJson);
  EXPECT_EQ(feed.entries(), 0u);
}

TEST_F(ReporterFeedTest, MemoryStaysBoundedWhateverTheRate) {
  ReporterSettings s;
  s.max_entries = 50;
  ReporterFeed feed(bands_, s);
  for (int i = 0; i < 2000; ++i) {
    feed.Offer(Payload(fmt::format("K{}AB{}", i % 10, char('A' + i / 10 % 26)) +
                           std::string(1, char('A' + i / 260 % 26)),
                       "DL1XYZ"),
               kT0 + seconds(i / 100));
    ASSERT_LE(feed.entries(), 50u);
  }
  EXPECT_GT(feed.lost(), 0u);
  size_t spots = 0;
  feed.TakeDue(kT0 + seconds(100), [&](std::string_view) { ++spots; });
  EXPECT_LE(spots, 50u);
  feed.TakeDue(kT0 + seconds(1000), [&](std::string_view) { ++spots; });
  EXPECT_EQ(feed.entries(), 0u);
}

}  // namespace
}  // namespace qx
