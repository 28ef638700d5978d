#include "spots/intake.h"

#include <gtest/gtest.h>

#include <functional>
#include <map>

#include "core/monitor.h"
#include "core/program_dir.h"
#include "core/stream_table.h"
#include "core/text_util.h"
#include "spots/bad_lists.h"
#include "spots/bands.h"
#include "spots/dupes.h"
#include "spots/dx_command.h"
#include "spots/rate_limit.h"
#include "tests/testlib/test_util.h"

namespace qx {
namespace {

using qx::testing::ReadFile;
using qx::testing::TempDir;

constexpr std::string_view kGood =
    "PC61^14025.0^K1ABC^22-Nov-2026^0315Z^test^DL1XYZ^DB0SUE^192.0.2.1^H30^~";
constexpr int kNodeStream = 5;

// The call check as intake relies on it: upper-cases, refuses empty calls, calls beginning
// with "Q" or with a character below "1", and calls without a digit.
bool FakeValidCall(std::string& call) {
  ToUpperInPlace(call);
  if (call.empty() || call[0] == 'Q' || call[0] < '1') return false;
  return call.find_first_of("0123456789") != std::string::npos;
}

class IntakeTest : public ::testing::Test {
 protected:
  IntakeTest() : dir_(tmp_.path()), clock_(MakeUtc(2026, 11, 22, 3, 15, 30)) {
    std::string error;
    dir_.CreateTree(&error);
    streams_.EnsureCapacity(kNodeStream);
    streams_.at(kNodeStream).call = "DB0SUE";
    streams_.at(kNodeStream).state = kStateNodePc9x;
    countries_["K"] = CountryInfo{"United States", "K", 5, 8, "NA", 37, -91};
    countries_["DL"] = CountryInfo{"Germany", "DL", 14, 28, "EU", 51, 10};
    countries_["G"] = CountryInfo{"England", "G", 14, 27, "EU", 52, -1};
    monitor_.Subscribe([this](const MonitorLine& l) {
      if (l.channel == MonitorChannel::kSpots) spot_list_ += std::string(l.text) + "\n";
    });
    IntakeDeps deps;
    deps.bad_lists = &lists_;
    deps.bands = &bands_;
    deps.dupes = &dupes_;
    deps.rates = &rates_;
    deps.valid_call = FakeValidCall;
    deps.country_of = [this](std::string_view call) -> const CountryInfo* {
      for (size_t n = std::min<size_t>(call.size(), 2); n > 0; --n) {
        auto it = countries_.find(std::string(call.substr(0, n)));
        if (it != countries_.end()) return &it->second;
      }
      return nullptr;
    };
    deps.dir = &dir_;
    deps.monitor = &monitor_;
    deps.streams = &streams_;
    deps.clock = &clock_;
    deps.node_call = "DB0QX";
    intake_ = std::make_unique<SpotIntake>(std::move(deps));
  }

  IntakeResult Run(std::string_view sentence, bool local = false) {
    IntakeRequest r;
    r.sentence = sentence;
    r.source_stream = kNodeStream;
    r.is_local = local;
    return intake_->Process(r);
  }
  // A request as a feed, a trial or a neighbour makes it: set() fills in the rest.
  IntakeResult Request(std::string_view sentence, const std::function<void(IntakeRequest&)>& set) {
    IntakeRequest r;
    r.sentence = sentence;
    set(r);
    return intake_->Process(r);
  }
  std::string Log(std::string_view rel) {
    const auto p = dir_.Data() / rel;
    return std::filesystem::exists(p) ? ReadFile(p) : std::string();
  }
  // Every file under data/ with its text.
  std::map<std::string, std::string> AllLogs() {
    std::map<std::string, std::string> out;
    for (const auto& e : std::filesystem::recursive_directory_iterator(dir_.Data())) {
      if (e.is_regular_file()) {
        out[std::filesystem::relative(e.path(), dir_.Data()).generic_string()] = ReadFile(e.path());
      }
    }
    return out;
  }

  TempDir tmp_;
  ProgramDir dir_;
  ManualClock clock_;
  StreamTable streams_;
  Monitor monitor_;
  std::string spot_list_;
  BadLists lists_;
  BandTable bands_ = BandTable::SetupFreqRanges();
  DupeDetector dupes_;
  SpotRateLimiter rates_;
  std::map<std::string, CountryInfo> countries_;
  std::unique_ptr<SpotIntake> intake_;
};

std::string With(std::string_view base, int field, std::string_view value) {
  std::vector<std::string_view> f = Split(base, '^');
  f[size_t(field)] = value;
  return Join(f, "^");
}

TEST_F(IntakeTest, GoodSpotIsAcceptedWithItsDerivedValues) {
  const IntakeResult r = Run(With(kGood, 5, "ft8 -12dB"));
  ASSERT_TRUE(r.accepted()) << VerdictName(r.verdict);
  ASSERT_NE(r.spot, nullptr);
  EXPECT_DOUBLE_EQ(r.spot->FrequencyKHz, 14025.0);
  EXPECT_EQ(r.spot->ModeFlags, bands_.BandBit(14025.0) | kModeFt8);
  EXPECT_EQ(r.spot->spotter_country->prefix, "DL");
  EXPECT_EQ(r.spot->dx_country->prefix, "K");
  EXPECT_EQ(r.spot->SourceTag, "DX  Cluster");
  EXPECT_EQ(r.spot->Sentence(), With(kGood, 5, "ft8 -12dB"));
  EXPECT_TRUE(r.reply.empty());
  EXPECT_NE(spot_list_.find("DX  Cluster"), std::string::npos);
  EXPECT_TRUE(AllLogs().empty());
}

TEST_F(IntakeTest, FrequencyIsReadWithPointOrCommaAndWrittenBackAsText) {
  const IntakeResult r = Run(With(kGood, 1, "14025,5"));
  ASSERT_TRUE(r.accepted());
  EXPECT_EQ(r.spot->frequency_text(), "14025.5");
  EXPECT_EQ(Run(With(With(kGood, 1, "7005"), 2, "K2ABC")).spot->frequency_text(), "7005.0");
}

TEST_F(IntakeTest, Pc11IsReadIntoThePc61Slots) {
  const IntakeResult r =
      Run("PC11^28025.0^Q4DX^22-Nov-2026^0300Z^pc11 from legacy^G4USR^G7XXX^H24^~");
  // "Q4DX" is refused by the call check: a placeholder of the protocol notes.
  EXPECT_EQ(r.verdict, SpotVerdict::kInvalidDxCall);
  const IntakeResult ok = Run("PC11^28025.0^K4DX^22-Nov-2026^0300Z^cq^G4USR^G7XXX^H24^~");
  ASSERT_TRUE(ok.accepted()) << VerdictName(ok.verdict);
  EXPECT_EQ(ok.spot->address(), "");
  EXPECT_EQ(ok.spot->hops(), "H24");
  EXPECT_EQ(ok.spot->Sentence(), "PC11^28025.0^K4DX^22-Nov-2026^0300Z^cq^G4USR^G7XXX^H24^~");
  // A converted PC11 that lost its trailer is still complete.
  EXPECT_TRUE(Run("PC11^28026.0^K5DX^22-Nov-2026^0300Z^cq^G4USR^G7XXX^H29").accepted());
  EXPECT_TRUE(AllLogs().empty()) << "PC11 has no address to judge";
}

struct RefusalCase {
  std::string name;
  std::function<void(BadLists&)> setup;
  std::string sentence;
  bool local;
  SpotVerdict verdict;
  std::string log;       // file under data/ that receives the line, "" for none
  std::string log_text;  // what that line holds
  std::string marker;    // what the spot list shows, "" for nothing in particular
};

TEST_F(IntakeTest, EachRefusalHasItsReasonLogAndMarker) {
  const std::string g(kGood), bad = "badspots/bad-22-Nov-2026.txt";
  const std::vector<RefusalCase> cases = {
      {"question", nullptr, With(g, 5, "QRV?? bcn"), false, SpotVerdict::kDoubleQuestionMark, "",
       "", ""},
      {"fields", nullptr, "PC61^14025.0^K1ABC^22-Nov-2026^0315Z^x^DL1XYZ^DB0SUE", false,
       SpotVerdict::kFieldCount, "", "", ""},
      {"fields14", nullptr, g + "^a^b^c", false, SpotVerdict::kFieldCount, "", "", ""},
      {"nodate", nullptr, With(g, 3, "99-Foo-9999"), false, SpotVerdict::kBadDateTime, bad,
       "Bad Date/Time^" + With(g, 3, "99-Foo-9999"), ""},
      {"feb31", nullptr, With(g, 3, "31-Feb-2026"), false, SpotVerdict::kBadDateTime, bad,
       "Bad Date/Time^" + With(g, 3, "31-Feb-2026"), ""},
      {"longtime", nullptr, With(g, 4, "99999Z"), false, SpotVerdict::kBadDateTime, bad,
       "Bad Date/Time^" + With(g, 4, "99999Z"), ""},
      {"hour25", nullptr, With(g, 4, "2561Z"), false, SpotVerdict::kBadDateTime, bad,
       "Bad Date/Time^" + With(g, 4, "2561Z"), ""},
      {"pc11time", nullptr, "PC11^14025.0^K1ABC^22-Nov-2026^1260Z^x^DL1XYZ^DB0SUE^H5^~", false,
       SpotVerdict::kBadDateTime, bad,
       "Bad Date/Time^PC11^14025.0^K1ABC^22-Nov-2026^1260Z^x^DL1XYZ^DB0SUE^H5^~", ""},
      {"longspotter", nullptr, With(g, 6, std::string(31, 'K') + "1"), false,
       SpotVerdict::kSpotterTooLong, bad,
       "Bad Spotter Call^" + With(g, 6, std::string(31, 'K') + "1"), ""},
      {"old", nullptr, With(g, 4, "0214Z"), false, SpotVerdict::kOutOfTime, bad,
       "Too Old^" + With(g, 4, "0214Z"), ""},
      {"ahead", nullptr, With(g, 4, "0331Z"), false, SpotVerdict::kOutOfTime, bad,
       "Ahead Of Time^" + With(g, 4, "0331Z"), ""},
      {"badip", [](BadLists& l) { l.AddRefusedAddress("192.0.2.1"); }, g, false,
       SpotVerdict::kRefusedAddress, "badspotsIP/Bad-22-Nov-2026", g + " DB0SUE", "### Bad IP ###"},
      {"tor", [](BadLists& l) { l.AddTorAddress("192.0.2.1"); }, g, false, SpotVerdict::kTorAddress,
       "badspotsTor/Bad-22-Nov-2026", g + " DB0SUE", "### Bad IP ###"},
      {"badcall", nullptr, With(g, 2, "Q1ABC"), false, SpotVerdict::kInvalidDxCall, "", "",
       "* BAD *"},
      {"spotter", [](BadLists& l) { l.SetSpotterNok({"dl1xyz"}); }, With(g, 6, "DL1XYZ-2"), false,
       SpotVerdict::kSpotterNok, "badspotters/22-Nov-2026.log",
       "SpotterNok - spotter^" + With(g, 6, "DL1XYZ-2"), "### Spotter Bad ###"},
      {"localspotter", [](BadLists& l) { l.SetSpotterNok({"DL1XYZ"}); }, g, true,
       SpotVerdict::kSpotterNok, "badspotters/22-Nov-2026.log", "SpotterNok - local spotter^" + g,
       "### Spotter Bad ###"},
      {"node", [](BadLists& l) { l.SetNodeNok({"DB0SUE"}); }, g, false, SpotVerdict::kNodeNok,
       "badnodes/22-Nov-2026.log", "NodeNok" + g, ""},
      {"freq", nullptr, With(g, 1, "14500.0"), false, SpotVerdict::kBadFrequency,
       "badinfo/badfreq22-Nov-2026.txt", With(g, 1, "14500.0") + " DB0SUE", "*Bad*"},
      {"freqjunk", nullptr, With(g, 1, "abc"), false, SpotVerdict::kBadFrequency,
       "badinfo/badfreq22-Nov-2026.txt", With(g, 1, "abc") + " DB0SUE", "*Bad*"},
      {"request", nullptr, With(g, 5, "PSE QSL"), false, SpotVerdict::kRequest, "", "", ""},
      {"badword", [](BadLists& l) { l.AddBadWord("idiot"); }, With(g, 5, "you idiot!!"), false,
       SpotVerdict::kBadWord, bad, "Bad Word^" + With(g, 5, "you idiot!!"), ""},
      {"phrase", [](BadLists& l) { l.AddBadWord("go away"); }, With(g, 5, "now Go Away x"), false,
       SpotVerdict::kBadPhrase, bad, "Bad Phrase^" + With(g, 5, "now Go Away x"), ""},
      {"wordspotter", [](BadLists& l) { l.AddBadWord("DL1XYZ"); }, g, false,
       SpotVerdict::kBadWordSpotter, bad, "Bad word - spotter " + g, ""},
      {"worddx", [](BadLists& l) { l.AddBadWord("K1ABC"); }, g, false, SpotVerdict::kBadWordDx, bad,
       "Bad word dx^" + g, ""},
      {"dxnok", [](BadLists& l) { l.SetDxNok({"K1A*"}); }, g, false, SpotVerdict::kDxNok, bad,
       "DxNok - ^" + g, ""},
      {"notissued", nullptr, With(g, 6, "N0CALL"), false, SpotVerdict::kSpotterNotIssued, bad,
       " Spotter call not issued^DB0QX" + With(g, 6, "N0CALL"), ""},
      {"cty", nullptr, With(g, 6, "ZZ9ZZ"), false, SpotVerdict::kSpotterCountryUnknown, bad,
       "Bad Spotter Cty " + With(g, 6, "ZZ9ZZ"), "QQ"},
  };
  for (const RefusalCase& c : cases) {
    SCOPED_TRACE(c.name);
    lists_ = BadLists();
    dupes_.Clear();
    spot_list_.clear();
    std::filesystem::remove_all(dir_.Data());
    std::string error;
    dir_.CreateTree(&error);
    if (c.setup) c.setup(lists_);

    const IntakeResult r = Run(c.sentence, c.local);
    EXPECT_EQ(r.verdict, c.verdict) << VerdictName(r.verdict);
    EXPECT_EQ(r.spot, nullptr);
    EXPECT_TRUE(r.reply.empty());
    std::map<std::string, std::string> logs = AllLogs();
    logs.erase("badinfo/" + DateText(clock_.Now()) + ".log");  // bad-word hits, tested below
    logs.erase("badspotsTor/BadCall-22-Nov-2026");
    logs.erase("badinfo/NotIssued.dat");
    if (c.log.empty()) {
      EXPECT_TRUE(logs.empty()) << logs.begin()->first;
    } else {
      ASSERT_EQ(logs.size(), 1u) << logs.begin()->first;
      EXPECT_EQ(logs.begin()->first, c.log);
      // One line: the time, a blank and the reason with the sentence, or the text as given.
      const std::string& text = logs.begin()->second;
      EXPECT_TRUE(text.ends_with(c.log_text + "\r\n")) << text;
      EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 1);
    }
    if (!c.marker.empty()) {
      EXPECT_NE(spot_list_.find(c.marker), std::string::npos) << spot_list_;
    }
  }
}

// Whatever path a spot took, no slot keeps a control character: a bell or an escape
// sequence never reaches a terminal, Chr 4 never cuts a message to the front-end.
TEST_F(IntakeTest, ControlCharactersNeverReachTheSpot) {
  const IntakeResult r = Run(With(With(kGood, 5, "\a\x1b[2Jcq\x04 up\b\x7f"), 6, "DL1\x01XYZ"));
  ASSERT_TRUE(r.accepted()) << VerdictName(r.verdict);
  EXPECT_EQ(r.spot->Sentence(), With(kGood, 5, "[2Jcq up"));

  const DxCommandResult dx = DxCommand(
      "DX 7005 K2ABC \x07\x07 loud\x1b[5m \x04"
      "cq",
      "DL1ABC", "DB0QX", "192.0.2.7", clock_.Now());
  ASSERT_TRUE(dx.ok);
  EXPECT_EQ(dx.text,
            "PC61^7005.0^K2ABC^22-Nov-2026^0315Z^loud[5m cq^DL1ABC^DB0QX^192.0.2.7^H100^~");
  EXPECT_TRUE(Run(dx.text, true).accepted());
}

TEST_F(IntakeTest, LocalUserIsToldOnlyAboutAnInvalidDxCall) {
  const IntakeResult r = Run(With(kGood, 2, "0ABC"), true);
  EXPECT_EQ(r.verdict, SpotVerdict::kInvalidDxCall);
  EXPECT_EQ(r.reply, "Error - Invalid Dx Call\r\n");
  EXPECT_TRUE(Run(With(kGood, 2, "0ABC"), false).reply.empty());
  EXPECT_TRUE(Run(With(kGood, 1, "14500.0"), true).reply.empty());
}

TEST_F(IntakeTest, VerboseSpotterRefusalShowsTheEarlyNotice) {
  lists_.SetSpotterNok({"DL1XYZ"});
  Run(kGood);
  EXPECT_EQ(spot_list_.find(" Dropped, Bad Spotter"), std::string::npos);
  IntakeOptions o;
  o.show_dropped_bad_spotter = true;
  intake_->set_options(o);
  EXPECT_EQ(Run(kGood).verdict, SpotVerdict::kSpotterNok);
  const size_t early = spot_list_.find(" Dropped, Bad Spotter");
  ASSERT_NE(early, std::string::npos);
  EXPECT_LT(early, spot_list_.rfind("### Spotter Bad ###"));
}

// A Tor hit also records the spotter; a PC11 is judged by the address its caller knows; a
// PC61 address that is no public one is logged but no reason to refuse the spot.
TEST_F(IntakeTest, AddressesTheSpotCameFrom) {
  lists_.AddTorAddress("2001:db8::1");
  EXPECT_EQ(Run(With(kGood, 8, "2001:DB8::1")).verdict, SpotVerdict::kTorAddress);
  EXPECT_EQ(Log("badspotsTor/BadCall-22-Nov-2026"), "DL1XYZ\r\n");

  lists_.AddRefusedAddress("198.51.100.9");
  EXPECT_EQ(Request("PC11^14025.0^K1ABC^22-Nov-2026^0315Z^cq^G4USR^G7XXX^H24^~",
                    [](IntakeRequest& r) {
                      r.source_stream = kNodeStream;
                      r.known_address = "198.51.100.9";
                    })
                .verdict,
            SpotVerdict::kRefusedAddress);
  EXPECT_NE(spot_list_.find("### Bad IP PC11 ###"), std::string::npos);

  EXPECT_TRUE(Run(With(kGood, 8, "")).accepted());
  EXPECT_TRUE(Run(With(With(kGood, 8, "node.example"), 2, "K2ABC")).accepted());
  EXPECT_TRUE(Run(With(With(kGood, 8, "2001:db8::7"), 2, "K3ABC")).accepted());
  const std::string log = Log("badinfo/Newpc61.log");
  EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), 2) << log;
  EXPECT_NE(log.find("node.example"), std::string::npos);
}

// A bad-word hit is logged with the spot's fields and counts against the address, which the
// sysop may have refused after so many offences.
TEST_F(IntakeTest, BadWordHitsAreLoggedAndCanRefuseTheAddress) {
  lists_.AddBadWord("SPAM");
  lists_.set_auto_refuse_after(2);
  EXPECT_EQ(Run(With(kGood, 5, "buy spam, now")).verdict, SpotVerdict::kBadWord);
  EXPECT_EQ(Log("badinfo/22-Nov-2026.log"),
            std::string(With(kGood, 5, "buy spam, now")) + " 0315 BadWordCheck PC11\r\n");
  EXPECT_EQ(lists_.offences("192.0.2.1"), 1);
  EXPECT_EQ(Run(With(kGood, 5, "x")).verdict, SpotVerdict::kAccepted);
  Run(With(kGood, 5, "spam"));
  EXPECT_EQ(Run(With(With(kGood, 5, "y"), 2, "K9ZZ")).verdict, SpotVerdict::kRefusedAddress);
}

TEST_F(IntakeTest, DuplicatesAndRateLimitsComeLast) {
  EXPECT_TRUE(Run(kGood).accepted());
  EXPECT_EQ(Run(kGood).verdict, SpotVerdict::kDuplicate);
  rates_.set_limits(SpotRates{0, 0, 2});
  EXPECT_TRUE(Run(With(kGood, 2, "K2ABC")).accepted());
  EXPECT_EQ(Run(With(kGood, 2, "K3ABC")).verdict, SpotVerdict::kRateLimited);
  EXPECT_NE(Log("badspots/bad-22-Nov-2026.txt").find("Rate limit - spots per spotter^"),
            std::string::npos);
}

// The console lists recent refusals with the rule in words; duplicates, which a linked node
// sees by the hundred, have a ring of their own so they never push the others out.
TEST_F(IntakeTest, RefusalsAreKeptWithTheRuleInWordsAndDuplicatesApart) {
  lists_.AddBadWord("FT8SPAM");
  EXPECT_EQ(Run(With(kGood, 5, "FT8SPAM here")).verdict, SpotVerdict::kBadWord);
  EXPECT_EQ(Run("PC61^14025.0^K1ABC").verdict, SpotVerdict::kFieldCount);
  EXPECT_EQ(
      Request(With(kGood, 5, "FT8SPAM again"), [](IntakeRequest& r) { r.trial = true; }).verdict,
      SpotVerdict::kBadWord);  // a trial is not kept
  std::vector<const SpotRefusal*> kept = intake_->RecentRefusals();
  ASSERT_EQ(kept.size(), 2u);
  EXPECT_EQ(kept[0]->rule, "bad word: FT8SPAM (badwords.txt)");
  EXPECT_EQ(kept[0]->spot.dx_call(), "K1ABC");
  EXPECT_EQ(kept[0]->spot.comment(), "FT8SPAM here");
  EXPECT_EQ(kept[0]->time, clock_.Now());
  EXPECT_EQ(kept[1]->rule, "3 fields where a spot has 10 to 13 (unreadable sentence)");
  EXPECT_EQ(kept[1]->spot.comment(), "PC61^14025.0^K1ABC");  // what there was, whole
  EXPECT_TRUE(kept[1]->spot.dx_call().empty());

  ASSERT_TRUE(Run(kGood).accepted());
  for (size_t i = 0; i < SpotIntake::kRecentRefusals + 5; ++i) {
    ASSERT_EQ(Run(kGood).verdict, SpotVerdict::kDuplicate);
  }
  kept = intake_->RecentRefusals();
  ASSERT_EQ(kept.size(), SpotIntake::kRecentRefusals + 2);
  EXPECT_EQ(kept[0]->verdict, SpotVerdict::kBadWord);
  EXPECT_EQ(kept.back()->rule, "duplicate: K1ABC already spotted on this frequency lately");
}

// Reporter spots are FT8 and carry their tag; feeds may skip the request filter; beacons
// are flagged by call or comment.
TEST_F(IntakeTest, SourceFlagsAndBeacons) {
  const IntakeResult r = Request(With(With(kGood, 5, "CW 20 dB"), 1, "14074.0"),
                                 [](IntakeRequest& r) { r.source = SpotSource::kReporter; });
  ASSERT_TRUE(r.accepted());
  EXPECT_EQ(r.spot->ModeFlags & kModeMask, kModeFt8);
  EXPECT_EQ(r.spot->SourceTag, "PskReporter");

  EXPECT_TRUE(Request(With(With(kGood, 5, "PSE QSL"), 2, "K6ABC"), [](IntakeRequest& r) {
                r.skip_request_filter = true;
              }).accepted());

  EXPECT_TRUE(Run(With(With(kGood, 2, "DK0WCY/B"), 1, "10144.0")).spot->IsBeacon);
  EXPECT_TRUE(Run(With(With(kGood, 2, "K4ABC"), 5, "bcn 599")).spot->IsBeacon);
  EXPECT_FALSE(Run(With(With(kGood, 2, "K5ABC"), 5, "BCNX")).spot->IsBeacon);
}

// What a spot carries beyond its sentence: whether the mode was stated, a skimmer's verdict
// read from its tag, the local spotter's locator, and whatever a neighbour of this software
// sent with it.  Nothing of one spot stays with the next.
TEST_F(IntakeTest, SpotsLearnTheirModeSourceVerdictAndLocators) {
  IntakeResult r = Request(With(With(kGood, 5, "CW    18 dB 26 WPM CQ V3"), 6, "DL1ABC-#"),
                           [](IntakeRequest& r) {
                             r.source = SpotSource::kSkimmer;
                             r.skip_dupe_check = true;
                           });
  ASSERT_TRUE(r.accepted());
  EXPECT_TRUE(r.spot->ModeStated);
  EXPECT_EQ(r.spot->Mode, "CW");
  EXPECT_EQ(r.spot->SkimmerVerdict, 'V');
  EXPECT_EQ(r.spot->SkimmerCount, 3);

  streams_.EnsureCapacity(3);
  streams_.at(3).session.grid = "JO62";
  r = Request(With(With(kGood, 5, "rtty test"), 2, "DL2ABC"), [](IntakeRequest& r) {
    r.is_local = true;
    r.source_stream = 3;
  });
  ASSERT_TRUE(r.accepted());
  EXPECT_TRUE(r.spot->ModeStated);
  EXPECT_EQ(r.spot->Mode, "");  // worked out again from the mode bits when needed
  EXPECT_EQ(r.spot->SkimmerVerdict, 0);
  EXPECT_EQ(r.spot->SpotterGrid, "JO62");

  Spot carried;
  carried.Mode = "FT4";
  carried.ModeStated = false;
  carried.SkimmerVerdict = 'Q';
  carried.SkimmerCount = 2;
  carried.DxGrid = "FN42";
  carried.OriginId = 77;
  carried.SourceTag = SourceTagText(SpotSource::kWebGateway);
  r = Request(With(kGood, 2, "DL3ABC"), [&](IntakeRequest& r) {
    r.source_stream = kNodeStream;
    r.carried = &carried;
  });
  ASSERT_TRUE(r.accepted());
  EXPECT_EQ(r.spot->Mode, "FT4");
  EXPECT_FALSE(r.spot->ModeStated);
  EXPECT_EQ(r.spot->SkimmerVerdict, 'Q');
  EXPECT_EQ(r.spot->DxGrid, "FN42");
  EXPECT_EQ(r.spot->SpotterGrid, "");
  EXPECT_EQ(r.spot->OriginId, 77u);
  EXPECT_EQ(r.spot->SourceTag, SourceTagText(SpotSource::kWebGateway));

  r = Run(With(kGood, 2, "DL4ABC"));
  ASSERT_TRUE(r.accepted());
  EXPECT_FALSE(r.spot->ModeStated);
  EXPECT_EQ(r.spot->OriginId, 0u);
  EXPECT_EQ(r.spot->DxGrid, "");
}

TEST(SkimmerTag, EveryVerdictAndWhatIsNoTag) {
  char verdict = 'x';
  int count = -1;
  EXPECT_TRUE(ReadSkimmerTag("CW 18 dB 26 WPM CQ Q12 ", verdict, count));
  EXPECT_EQ(verdict, 'Q');
  EXPECT_EQ(count, 12);
  EXPECT_TRUE(ReadSkimmerTag("CW 18 dB CQ ?1", verdict, count));
  EXPECT_EQ(verdict, '?');
  EXPECT_TRUE(ReadSkimmerTag("CW 18 dB CQ B(K1ABC)", verdict, count));
  EXPECT_EQ(verdict, 'B');
  EXPECT_EQ(count, 0);
  for (std::string_view no : {"", "CW 18 dB CQ", "VK2", "V", "cq V3x", "B(K1ABC", "V99999999"}) {
    EXPECT_FALSE(ReadSkimmerTag(no, verdict, count)) << no;
    EXPECT_EQ(verdict, 0) << no;
  }
  EXPECT_EQ(SkimmerModeWord("PSK31 20 DB"), "PSK");
  EXPECT_EQ(SkimmerModeWord("CWX 20 DB"), "");
}

TEST(IntakeRulesTest, RequestFilterModeOrderAndAddresses) {
  // " PLS " needs a blank on both sides; three characters are never a request.
  const std::pair<const char*, bool> kRequests[] = {
      {"PSE QSL", true},
      {"PLS QSL VIA BURO", true},
      {"QSL PLS", false},
      {"QSL PLS TNX", true},
      {"QSL PSE TNX", true},
      {"PLEASE CALL", true},
      {"PPP PLEASE CALL", true},
      {"XX PLEASE CALL", false},
      {"GOT NIL FROM HIM", true},
      {" NIL ", true},
      {"PSE", false},
      {"NIL", false},
      {"UP 5", false},
  };
  for (auto [comment, request] : kRequests)
    EXPECT_EQ(IsRequestComment(comment), request) << comment;
  const std::pair<const char*, uint32_t> kModes[] = {
      {"FT4 AND FT8", kModeFt8},
      {"FT4", kModeFt4},
      {"FT-4 OR PSK", kModeFt4},
      {"FT-8", kModeFt8},
      {"F/H MODE", kModeFt8},
      {"FOX", kModeFt8},
      {"RTTY PSK31", kModePsk},
      {"RTTY 599", kModeRtty},
      {"MSK144", kModeMsk},
      {"CW 599", 0u},
      {"FT", 0u},
  };
  for (auto [comment, mode] : kModes) EXPECT_EQ(ClassifyMode(comment), mode) << comment;
  const std::pair<std::string, bool> kAddresses[] = {
      {"192.0.2.1", true}, {"2001:db8::1", true}, {"2001,db8,,1", false},
      {"192.0.2", false},  {"", false},           {std::string(100, '1'), false},
  };
  for (const auto& [text, address] : kAddresses) EXPECT_EQ(IsIpAddress(text), address) << text;
}

TEST(BadListsTest, BadWordCheckWordRules) {
  BadLists l;
  l.SetBadWordsText("idiot\r\nXY\r\n\r\nspam\r\ngo away\r\n");
  EXPECT_EQ(l.bad_word_count(), 4u);
  EXPECT_EQ(l.FindBadWord("you IDIOT"), "IDIOT");
  EXPECT_EQ(l.FindBadWord("you idiot!"), "IDIOT");
  EXPECT_EQ(l.FindBadWord("idiot,you"), "IDIOT");
  EXPECT_EQ(l.FindBadWord("idiot...?"), "IDIOT");
  EXPECT_EQ(l.FindBadWord("k1abc/spam"), "SPAM");
  EXPECT_EQ(l.FindBadWord("spam./x"), "SPAM");
  EXPECT_EQ(l.FindBadWord("xy xy! xy"), "");  // two characters: skipped
  EXPECT_EQ(l.FindBadWord("xidiot idiotx"), "");
  EXPECT_EQ(l.FindBadWord("go away"), "");  // phrases are not words
  EXPECT_TRUE(l.BadPhraseCheck("please GO AWAY"));
  EXPECT_FALSE(l.BadPhraseCheck("go, away"));
  l.AddBadWord("12345");
  EXPECT_EQ(l.FindBadWord("12345"), "");  // numbers are skipped
  l.set_bad_words_enabled(false);
  EXPECT_EQ(l.FindBadWord("idiot"), "");
}

TEST(BadListsTest, CallListsMatchAsDocumented) {
  BadLists l;
  l.SetDxNok({"k1abc", "VP8*", " "});
  l.SetSpotterNok({"DL1XYZ-5"});
  l.SetNodeNok({"DB0SUE"});
  const struct {
    bool (BadLists::*is)(std::string_view) const;
    const char* call;
    bool listed;
  } kCases[] = {
      {&BadLists::IsDxNok, "K1ABC", true},         {&BadLists::IsDxNok, "k1abc", true},
      {&BadLists::IsDxNok, "K1ABCD", false},       {&BadLists::IsDxNok, "VP8ABC", true},
      {&BadLists::IsDxNok, "VP2ABC", false},       {&BadLists::IsSpotterNok, "DL1XYZ", true},
      {&BadLists::IsSpotterNok, "dl1xyz-2", true}, {&BadLists::IsSpotterNok, "DL1XY", false},
      {&BadLists::IsNodeNok, "DB0SUE-7", true},    {&BadLists::IsNodeNok, "DB0SU", false},
  };
  for (const auto& c : kCases) EXPECT_EQ((l.*c.is)(c.call), c.listed) << c.call;
  for (auto [call, not_issued] :
       {std::pair{"N0CALL", true}, std::pair{"0A1B", true}, std::pair{"1B1ABC", true},
        std::pair{"1A0KM", false}, std::pair{"K1ABC-2", false}}) {
    EXPECT_EQ(CallNotIssued(call), not_issued) << call;
  }
}

TEST(BadListsTest, LoadBadWordsMovesTheNewFileIn) {
  TempDir tmp;
  ProgramDir dir(tmp.path());
  std::string error;
  ASSERT_TRUE(dir.CreateTree(&error));
  qx::testing::WriteFile(dir.Data("files") / "badwords.txt", "old\r\n");
  qx::testing::WriteFile(tmp.path() / "badwords.txt", "one\r\ntwo words\r\n\r\nthree\r\n");
  Monitor monitor;
  std::vector<std::string> console;
  monitor.Subscribe([&](const MonitorLine& l) { console.emplace_back(l.text); });
  BadLists l;
  EXPECT_EQ(l.LoadBadWords(dir, &monitor), 3u);
  EXPECT_FALSE(std::filesystem::exists(tmp.path() / "badwords.txt"));
  EXPECT_EQ(ReadFile(dir.Data("files") / "badwords.txt"), "one\r\ntwo words\r\n\r\nthree\r\n");
  EXPECT_EQ(console, (std::vector<std::string>{"Loading Bad Words", "3 found   ... done",
                                               "Bad Words loaded"}));
  EXPECT_EQ(l.FindBadWord("three"), "THREE");
  EXPECT_EQ(l.FindBadWord("old"), "");
}

TEST(BadListsTest, AddressFiles) {
  TempDir tmp;
  qx::testing::WriteFile(tmp.path() / "ipnotok.dat", "# refused\r\n192.0.2.9\r\n2001:db8::9\r\n");
  qx::testing::WriteFile(tmp.path() / "torlist.dat",
                         "ExitNode 1234\nExitAddress 198.51.100.3 2026-11-21 10:00:00\n");
  BadLists l;
  EXPECT_TRUE(l.LoadRefusedAddresses(tmp.path() / "ipnotok.dat"));
  EXPECT_TRUE(l.LoadTorAddresses(tmp.path() / "torlist.dat"));
  EXPECT_FALSE(l.LoadTorAddresses(tmp.path() / "missing.dat"));
  EXPECT_TRUE(l.IsRefusedAddress("192.0.2.9"));
  EXPECT_TRUE(l.IsRefusedAddress("2001:DB8::9"));
  EXPECT_FALSE(l.IsRefusedAddress("# refused"));
  EXPECT_FALSE(l.IsTorAddress("198.51.100.3"));  // the failed load emptied it
  l.LoadTorAddresses(tmp.path() / "torlist.dat");
  EXPECT_TRUE(l.IsTorAddress("198.51.100.3"));
  EXPECT_FALSE(l.IsTorAddress("ExitNode"));
}

}  // namespace
}  // namespace qx
