#include "feeds/skimmer_verifier.h"

#include <gtest/gtest.h>

#include <cstdio>

#include "core/config.h"
#include "feeds/feed_spot.h"
#include "spots/bad_lists.h"
#include "spots/intake.h"

namespace qx {
namespace {

using std::chrono::minutes;
using std::chrono::seconds;

const SysTime kT0 = MakeUtc(2026, 3, 14, 18, 54, 0);

SkimmerReport Report(std::string_view skimmer, double khz, std::string_view dx,
                     std::string_view mode = "CW", std::string_view rest = "18 dB 26 WPM CQ") {
  char line[200];
  std::snprintf(line, sizeof line, "DX de %.*s-#: %.2f %.*s %.*s %.*s 1854Z", int(skimmer.size()),
                skimmer.data(), khz, int(dx.size()), dx.data(), int(mode.size()), mode.data(),
                int(rest.size()), rest.data());
  SkimmerReport r;
  EXPECT_EQ(ParseSkimmerLine(line, r), SkimmerLineError::kNone) << line;
  return r;
}

class VerifierTest : public ::testing::Test {
 protected:
  static VerifierSettings Defaults() {
    VerifierSettings s;
    s.origin_node = "XX0QX";
    return s;
  }
  const SkimmerDecision& At(seconds offset, std::string_view skimmer, double khz,
                            std::string_view dx, std::string_view mode = "CW") {
    return v_.Decide(Report(skimmer, khz, dx, mode), kT0 + offset);
  }
  // Three skimmers agree on the call at khz, starting at offset.
  void Verify(std::string_view dx, double khz, seconds offset = seconds(0)) {
    At(offset, "DL1AAA", khz, dx);
    At(offset, "G4BBB", khz + 0.1, dx);
    ASSERT_EQ(At(offset, "W3CCC", khz - 0.1, dx).verdict, SkimmerVerdict::kVerified);
  }

  BandTable bands_ = BandTable::SetupFreqRanges();
  SkimmerVerifier v_{bands_, Defaults()};
};

TEST_F(VerifierTest, ThreeSkimmersThatAgreeVerifyTheCallAndItGoesOnOnce) {
  EXPECT_EQ(At(seconds(0), "DL1AAA", 14025.1, "K1ABC").outcome, SkimmerOutcome::kHeld);
  // The same skimmer again is still one skimmer.
  EXPECT_EQ(At(seconds(5), "DL1AAA", 14025.1, "K1ABC").skimmers, 1);
  EXPECT_EQ(At(seconds(9), "G4BBB", 14025.2, "K1ABC").outcome, SkimmerOutcome::kHeld);
  const SkimmerDecision& d = At(seconds(20), "W3CCC", 14024.9, "K1ABC");
  ASSERT_EQ(d.outcome, SkimmerOutcome::kPass);
  EXPECT_EQ(d.verdict, SkimmerVerdict::kVerified);
  EXPECT_EQ(d.skimmers, 3);
  EXPECT_EQ(d.sentence,
            "PC11^14024.90^K1ABC^14-Mar-2026^1854Z^CW    18 dB 26 WPM CQ V3^W3CCC-#^XX0QX^H30^~");
  // Once per call and band in the dupe window, however many skimmers follow; another band
  // is another spot.
  EXPECT_EQ(At(seconds(30), "JA1DDD", 14025.0, "K1ABC").outcome, SkimmerOutcome::kDuplicate);
  Verify("K1ABC", 7025.0, seconds(40));
  // Skimmers 0.5 kHz apart do not agree.
  At(seconds(0), "DL1AAA", 21025.0, "K2XYZ");
  At(seconds(0), "G4BBB", 21025.2, "K2XYZ");
  EXPECT_EQ(At(seconds(0), "W3CCC", 21025.5, "K2XYZ").verdict, SkimmerVerdict::kUnverified);
}

TEST_F(VerifierTest, TheSpotEntersIntakeAsItIs) {
  Verify("K1ABC", 14025.0);
  const std::string sentence = At(seconds(700), "W3CCC", 14025.0, "K1ABC").sentence;
  ASSERT_FALSE(sentence.empty());
  BadLists lists;
  ManualClock clock(kT0 + seconds(700));
  const CountryInfo country{"Somewhere", "X", 1, 1, "EU", 0, 0};
  IntakeDeps deps;
  deps.bad_lists = &lists;
  deps.bands = &bands_;
  deps.clock = &clock;
  deps.country_of = [&](std::string_view) { return &country; };
  SpotIntake intake(std::move(deps));
  const IntakeResult r = intake.Process(FeedIntakeRequest(sentence, SpotSource::kSkimmer, 7));
  ASSERT_TRUE(r.accepted()) << VerdictName(r.verdict);
  EXPECT_EQ(r.spot->dx_call(), "K1ABC");
  EXPECT_EQ(r.spot->spotter(), "W3CCC-#");
  EXPECT_EQ(r.spot->comment(), "CW    18 dB 26 WPM CQ V1");
  EXPECT_EQ(r.spot->SourceTag, SourceTagText(SpotSource::kSkimmer));
  EXPECT_EQ(r.spot->SourceStream, 7);
}

TEST_F(VerifierTest, AOneLetterBustIsBustedWithTheCorrectedCall) {
  Verify("K1ABC", 14025.0);
  const SkimmerDecision& d = At(seconds(30), "OK1EEE", 14025.05, "K1ABD");
  EXPECT_EQ(d.verdict, SkimmerVerdict::kBusted);
  EXPECT_EQ(d.outcome, SkimmerOutcome::kBustedDropped);
  EXPECT_EQ(d.corrected_call, "K1ABC");
  EXPECT_EQ(d.busted_folder, "cw");
  EXPECT_EQ(d.busted_file, "14-Mar-2026.log");
  EXPECT_EQ(d.busted_line, "1854:30Z 14025.05 K1ABD for K1ABC de OK1EEE-# CW    18 dB");
  // "A" heard as "E" and "T"; an extra leading "T".
  EXPECT_EQ(At(seconds(31), "OK1EEE", 14025.0, "K1ETBC").corrected_call, "K1ABC");
  EXPECT_EQ(At(seconds(32), "OK1EEE", 14025.0, "TK1ABC").corrected_call, "K1ABC");
  // Too far from the verified call, or two slips away from it: only unverified.
  EXPECT_EQ(At(seconds(33), "OK1EEE", 14025.2, "K1ABF").verdict, SkimmerVerdict::kUnverified);
  EXPECT_EQ(At(seconds(34), "OK1EEE", 14025.0, "K2ABD").verdict, SkimmerVerdict::kUnverified);
  EXPECT_EQ(At(seconds(35), "OK1EEE", 14025.0, "K1ABC").verdict, SkimmerVerdict::kVerified);
}

TEST_F(VerifierTest, KnownCallsAndTheSwitchesDecideWhatABustBecomes) {
  v_.lists().known_calls.LoadText("# known calls\nK1ABD\nW1XYZ\n");
  Verify("K1ABC", 14025.0);
  // A call the database knows is not a slip of one it does not know.
  EXPECT_EQ(At(seconds(1), "OK1EEE", 14025.0, "K1ABD").verdict, SkimmerVerdict::kUnverified);
  Verify("W1XYZ", 7010.0);
  EXPECT_EQ(At(seconds(1), "OK1EEE", 7010.0, "W1XYW").verdict, SkimmerVerdict::kBusted);
  // Without verification of CW spots the busted spot goes on, saying what it should be (the
  // speed gives way to keep the tag in view).
  VerifierSettings s = v_.settings();
  s.cw_verified = false;
  v_.set_settings(s);
  const SkimmerDecision& d = At(seconds(2), "OK1EEE", 7010.0, "W1XYY");
  EXPECT_EQ(d.outcome, SkimmerOutcome::kPass);
  EXPECT_NE(d.sentence.find("^CW    18 dB CQ B(W1XYZ)^"), std::string::npos);
}

TEST_F(VerifierTest, AVerifiedCallThatMovesIsAQsyAndGoesOnAgain) {
  Verify("K1ABC", 14025.0);
  const SkimmerDecision& q = At(seconds(60), "OK1EEE", 14027.0, "K1ABC");
  EXPECT_EQ(q.verdict, SkimmerVerdict::kQsy);
  EXPECT_EQ(q.outcome, SkimmerOutcome::kPass);
  EXPECT_NE(q.sentence.find(" Q1^"), std::string::npos);
  // The next skimmer there is no news; 0.3 kHz from the verified place is no move.
  EXPECT_EQ(At(seconds(61), "JA1DDD", 14027.0, "K1ABC").outcome, SkimmerOutcome::kDuplicate);
  EXPECT_EQ(At(seconds(62), "VK2FFF", 14025.3, "K1ABC").verdict, SkimmerVerdict::kVerified);
  // A third skimmer at the new place verifies it there.
  EXPECT_EQ(At(seconds(63), "ZS6GGG", 14027.1, "K1ABC").verdict, SkimmerVerdict::kVerified);
  EXPECT_EQ(At(seconds(64), "LU1HHH", 14029.0, "K1ABC").verdict, SkimmerVerdict::kQsy);
}

TEST_F(VerifierTest, ReportsAndVerificationsExpire) {
  At(seconds(0), "DL1AAA", 14025.0, "K1ABC");
  At(seconds(0), "G4BBB", 14025.0, "K1ABC");
  // The first two are older than the window by now.
  EXPECT_EQ(At(minutes(11), "W3CCC", 14025.0, "K1ABC").skimmers, 1);
  Verify("K2ABC", 14030.0);
  // The dupe window has passed but the call is still verified here.
  const SkimmerDecision& again = At(minutes(11), "OK1EEE", 14030.0, "K2ABC");
  EXPECT_EQ(again.outcome, SkimmerOutcome::kPass);
  EXPECT_EQ(again.verdict, SkimmerVerdict::kVerified);
  // Past the hold nothing is known of it: neither verified nor a base for busts.
  EXPECT_EQ(At(minutes(45), "OK1EEE", 14030.0, "K2ABD").verdict, SkimmerVerdict::kUnverified);
  EXPECT_EQ(At(minutes(45), "OK1EEE", 14030.0, "K2ABC").verdict, SkimmerVerdict::kUnverified);
}

TEST_F(VerifierTest, ListsRefuseOrWaiveAsNamed) {
  v_.lists().skimmer_nok.AddCommaList("dl1aaa, G4BBB-#");
  v_.lists().skimmer_dx_nok.Add("K9BAD");
  v_.lists().bad_cw_dx.LoadText("# invented by CW decoding\nEK1ABC\n");
  v_.lists().do_not_verify.Add("4U1UN");
  EXPECT_EQ(At(seconds(0), "DL1AAA", 14025.0, "K1ABC").outcome, SkimmerOutcome::kRefusedSkimmer);
  EXPECT_EQ(At(seconds(0), "G4BBB", 14025.0, "K1ABC").outcome, SkimmerOutcome::kRefusedSkimmer);
  EXPECT_EQ(At(seconds(0), "W3CCC", 14025.0, "K9BAD").outcome, SkimmerOutcome::kRefusedDx);
  EXPECT_EQ(At(seconds(0), "W3CCC", 14025.0, "EK1ABC").outcome, SkimmerOutcome::kRefusedDx);
  EXPECT_EQ(At(seconds(0), "W3CCC", 14080.0, "EK1ABC", "RTTY").outcome, SkimmerOutcome::kHeld);
  const SkimmerDecision& d = At(seconds(0), "W3CCC", 14100.0, "4U1UN");
  EXPECT_EQ(d.outcome, SkimmerOutcome::kPass);
  EXPECT_EQ(d.verdict, SkimmerVerdict::kUnverified);
  EXPECT_NE(d.sentence.find(" ?1^"), std::string::npos);
  EXPECT_EQ(At(seconds(0), "W3CCC", 99999.0, "K1ABC").outcome, SkimmerOutcome::kOffBand);
}

TEST_F(VerifierTest, TheSwitchesComeFromTheSettingsAndChooseWhatGoesOn) {
  Config config;
  config.Set("Skimmer Data Spots Verified", "False");
  config.Set("Skimmer Dupes Not Allowed", "False");
  config.Set("SkimmerDoNotVerify", "K1ABC,VP8XX");
  VerifierSettings s = VerifierSettingsFromConfig(config, v_.settings());
  EXPECT_TRUE(s.cw_verified);
  EXPECT_FALSE(s.vhf_uhf_verified);
  v_.set_settings(s);
  LoadVerifierListsFromConfig(config, v_.lists());
  EXPECT_TRUE(v_.lists().do_not_verify.Contains("VP8XX"));

  EXPECT_EQ(At(seconds(0), "DL1AAA", 14074.0, "K2XYZ", "FT8").outcome, SkimmerOutcome::kPass);
  EXPECT_EQ(At(seconds(0), "DL1AAA", 14025.0, "K2XYZ").outcome, SkimmerOutcome::kHeld);
  // VHF and UHF spots need no verification unless switched on.
  EXPECT_EQ(At(seconds(0), "DL1AAA", 50090.0, "K2XYZ").outcome, SkimmerOutcome::kPass);
  // Dupes allowed: every report of a verified call goes on.
  Verify("W1AW", 7020.0);
  EXPECT_EQ(At(seconds(1), "OK1EEE", 7020.0, "W1AW").outcome, SkimmerOutcome::kPass);
}

TEST_F(VerifierTest, AnUnverifiedSpotThatGoesOnIsFollowedByItsVerification) {
  v_.lists().do_not_verify.Add("K1ABC");
  EXPECT_EQ(At(seconds(0), "DL1AAA", 14025.0, "K1ABC").outcome, SkimmerOutcome::kPass);
  EXPECT_EQ(At(seconds(1), "G4BBB", 14025.0, "K1ABC").outcome, SkimmerOutcome::kDuplicate);
  EXPECT_EQ(At(seconds(2), "W3CCC", 14025.0, "K1ABC").outcome, SkimmerOutcome::kPass);
  EXPECT_EQ(At(seconds(3), "JA1DDD", 14025.0, "K1ABC").outcome, SkimmerOutcome::kDuplicate);
}

TEST_F(VerifierTest, CommentsKeepTheirTagWithinTheWidthUsersSee) {
  v_.lists().do_not_verify.Add("4U1UN");
  const SkimmerDecision& d =
      v_.Decide(Report("OH6BG", 14100.0, "4U1UN", "CW", "20 dB 22 WPM NCDXF B"), kT0);
  EXPECT_EQ(d.comment, "CW    20 dB NCDXF BCN ?1");
  VerifierSettings s = v_.settings();
  s.data_verified = false;
  v_.set_settings(s);
  EXPECT_EQ(v_.Decide(Report("DL8LAS", 14074.0, "K1ABC", "FT8", "-12 dB FN42 CQ"), kT0).comment,
            "FT8  -12 dB FN42 CQ ?1");
}

TEST_F(VerifierTest, MemoryStaysBoundedWhateverTheRate) {
  VerifierSettings s = v_.settings();
  s.max_calls = 100;
  v_.set_settings(s);
  char call[16];
  for (int i = 0; i < 5000; ++i) {
    std::snprintf(call, sizeof call, "K%dA%c%c", i % 10, 'A' + (i / 10) % 26, 'A' + (i / 260) % 26);
    v_.Decide(Report("DL1AAA", 14000.0 + (i % 300), call), kT0 + seconds(i / 100));
    ASSERT_LE(v_.calls_held(), 100u);
  }
  // The newest still count: a verification among the flood works.
  Verify("W1AW", 7020.0, seconds(50));
  // Everything is swept once the longest window has passed.
  At(minutes(200), "DL1AAA", 14025.0, "K1ABC");
  EXPECT_EQ(v_.calls_held(), 1u);
}

TEST(BustTest, OneSlipOfTheDecoder) {
  for (auto [reported, verified] : std::vector<std::pair<const char*, const char*>>{
           {"K1ABD", "K1ABC"},
           {"K1AB", "K1ABC"},
           {"TK1ABC", "K1ABC"},
           {"K1ABCE", "K1ABC"},
           {"K1ETBC", "K1ABC"},    // A = .- read as E T
           {"DL1SEAB", "DL1HAB"},  // H = .... read as S E
           {"R5AB", "RHEAB"},      // H E read together as 5
       }) {
    EXPECT_TRUE(IsBustOf(reported, verified)) << reported << " " << verified;
  }
  for (auto [reported, verified] : std::vector<std::pair<const char*, const char*>>{
           {"K1ABC", "K1ABC"},
           {"K2ABD", "K1ABC"},
           {"K1ABCDE", "K1ABC"},
           {"K1TEBC", "K1ABC"},  // T E is N, not A
           {"W1XYZ", "K1ABC"},
       }) {
    EXPECT_FALSE(IsBustOf(reported, verified)) << reported << " " << verified;
  }
}

TEST(CallListTest, ReadsOneCallALineAndCommaLists) {
  CallList list;
  EXPECT_EQ(list.LoadText("# Known calls\r\nk1abc\r\n\r\n  DL1XYZ  \nnot a call\n#K9NO\n"), 2u);
  list.AddCommaList("W1AW, ,g4abc");
  EXPECT_TRUE(list.Contains("K1ABC"));
  EXPECT_TRUE(list.Contains("DL1XYZ"));
  EXPECT_TRUE(list.Contains("G4ABC"));
  EXPECT_FALSE(list.Contains("K9NO"));
  EXPECT_EQ(list.size(), 4u);
  EXPECT_FALSE(list.LoadFile("/nonexistent/MASTER.SCP"));
}

}  // namespace
}  // namespace qx
