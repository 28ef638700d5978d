#include "users/user_record.h"

#include <gtest/gtest.h>

#include "core/file_util.h"
#include "core/stream_table.h"
#include "tests/testlib/test_util.h"

namespace qx {
namespace {

// A call's record file drops the SSID and writes "/" as "p"; SSIDs from 16 up have their own
// set of settings.
TEST(UserFileName, DropsTheSsidWritesSlashAsPAndSplitsSetsAtSixteen) {
  const struct {
    const char* call;
    const char* file;  // nullptr: not asked
    int set;
  } cases[] = {{"XX9ABC-3", "XX9ABC", 0},
               {"XX9ABC", "XX9ABC", 0},
               {"XX9ABC-15", "XX9ABC", 0},
               {"XX9ABC-16", "XX9ABC", 16},
               {"XX9ABC-99", "XX9ABC", 99},
               {"XX9ABC-X", nullptr, 0},
               {"K1ABC/P-2", "K1ABCpP", 0},
               {"K1ABCpP", "K1ABCpP", 0},  // already filed
               {"", "", 0},
               {"..", "", 0},
               {"A B", "", 0}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.call);
    if (c.file) {
      EXPECT_EQ(UserFileName(c.call), c.file);
    }
    EXPECT_EQ(SettingsSet(c.call), c.set);
  }
}

TEST(ParseLocation, DegreesMinutesAndHemispheres) {
  double lat = 0, lon = 0;
  ASSERT_TRUE(ParseLocation("49 11 N 122 30 W", lat, lon));
  EXPECT_NEAR(lat, 49.1833, 1e-3);
  EXPECT_NEAR(lon, -122.5, 1e-9);
  ASSERT_TRUE(ParseLocation(" 51  1 n 0 2 e ", lat, lon));
  EXPECT_NEAR(lat, 51.0167, 1e-3);
  EXPECT_NEAR(lon, 0.0333, 1e-3);
  ASSERT_TRUE(ParseLocation("33 52.5 S 151 12 E", lat, lon));
  EXPECT_NEAR(lat, -33.875, 1e-9);
  const char* bad[] = {"",
                       "49 11 N",
                       "49 11 X 122 30 W",
                       "91 0 N 0 0 E",
                       "49 60 N 1 0 E",
                       "49 11 N 181 0 W",
                       "49 11 NN 1 0 E",
                       "a b N c d W",
                       "90 30 N 0 0 E"};
  for (const char* text : bad) EXPECT_FALSE(ParseLocation(text, lat, lon)) << text;
}

TEST(ApplyUserRecord, KeysDefaultsAndSets) {
  const std::string text =
      "PC41^0^1^Ann\r\n"
      "\"WIDTH\"^0^0\r\n"
      "SETTINGS^0^12345\r\n"
      "DXBM^0^0/0\r\n"
      "FILTER^0^1^DOC/ON,K\r\n"
      "MAILNUMBER^0^17\r\n"
      "RESOLUTION^0^2\r\n"
      "PROMPT^0^%M>\r\n"
      "WIDTH^16^120\r\n"
      "DXBM^16^7/8\r\n"
      "PC41^16^2^Springfield\r\n"
      "PC41^0^3^49 11 n 122 30 w\r\n"
      "GARBAGE LINE\r\n";
  SessionSettings s;
  ApplyUserRecord(text, 0, s);
  EXPECT_EQ(s.name, "Ann");
  EXPECT_EQ(s.qth, "Springfield");  // PC41 lines belong to every set
  EXPECT_EQ(s.location, "49 11 N 122 30 W");
  EXPECT_EQ(s.width, 75);  // stored 0 loads as 75; the quotes are dropped
  EXPECT_EQ(s.switches, 12345u);
  EXPECT_EQ(s.dxbm, 1040382980u);  // stored 0/0
  EXPECT_EQ(s.dxbm2, 15880u);
  EXPECT_EQ(s.filter_lines, std::vector<std::string>{"1^DOC/ON,K"});
  EXPECT_EQ(s.mail_number, 17);
  EXPECT_EQ(s.resolution, 2);
  EXPECT_EQ(s.prompt_form, "%M>");

  SessionSettings s16;
  ApplyUserRecord(text, 16, s16);
  EXPECT_EQ(s16.width, 120);
  EXPECT_EQ(s16.dxbm, 7u);
  EXPECT_EQ(s16.dxbm2, 8u);
  EXPECT_EQ(s16.switches, kDefaultSwitches);
  EXPECT_EQ(s16.mail_number, 0);
  EXPECT_EQ(s16.name, "Ann");

  // A location that does not parse is not kept; junk numbers keep the defaults.
  SessionSettings bad;
  ApplyUserRecord("PC41^0^3^somewhere\nDXBM^0^abc\nSETTINGS^0^x\nRESOLUTION^0^7\n", 0, bad);
  EXPECT_EQ(bad.location, "");
  EXPECT_EQ(bad.dxbm, kDefaultDxbmMask);
  EXPECT_EQ(bad.switches, kDefaultSwitches);
  EXPECT_EQ(bad.resolution, 1);
  EXPECT_EQ(DisplayName(bad), "Unknown Name");
}

TEST(ReplaceRecordLine, ReplacesOnlyItsKeyAndSet) {
  const std::string text = "PC41^0^1^Ann\r\nWIDTH^0^80\r\nWIDTH^16^90\r\nODD^0^x\r\n";
  EXPECT_EQ(ReplaceRecordLine(text, "WIDTH", 0, "100"),
            "PC41^0^1^Ann\r\nWIDTH^0^100\r\nWIDTH^16^90\r\nODD^0^x\r\n");
  EXPECT_EQ(ReplaceRecordLine(text, "WIDTH", 20, "60"), text + "WIDTH^20^60\r\n");
  // Duplicates collapse into one line; LF input comes out CR LF.
  EXPECT_EQ(ReplaceRecordLine("DXBM^0^1/1\nDXBM^^2/2\n\n", "DXBM", 0, "3/3"), "DXBM^0^3/3\r\n");
  EXPECT_EQ(ReplacePc41Line(text, 1, "Bob"),
            "PC41^0^1^Bob\r\nWIDTH^0^80\r\nWIDTH^16^90\r\nODD^0^x\r\n");
  EXPECT_EQ(ReplacePc41Line("", 5, "JO01AA"), "PC41^0^5^JO01AA\r\n");
}

TEST(KindDefaults, NodesPassEverythingFeedsGetNothing) {
  EXPECT_EQ(UserKindFromCode("qxc"), UserKind::kNode);
  EXPECT_EQ(UserKindFromCode("SUM"), UserKind::kNode);
  EXPECT_EQ(UserKindFromCode("SKM"), UserKind::kSkimmer);
  EXPECT_EQ(UserKindFromCode("RBN"), UserKind::kRbn);
  EXPECT_EQ(UserKindFromCode("FT8"), UserKind::kFt8);
  EXPECT_EQ(UserKindFromCode(""), UserKind::kUser);
  const SessionSettings node = KindDefaults(UserKind::kNode);
  EXPECT_EQ(node.dxbm, kWideDxbmMask);
  EXPECT_FALSE(node.Has(kSwFilters));
  EXPECT_TRUE(node.Has(kSwDxSpots));
  const SessionSettings feed = KindDefaults(UserKind::kRbn);
  EXPECT_EQ(feed.switches, 0u);
}

class UserStoreTest : public ::testing::Test {
 protected:
  UserStoreTest() : dir_(tmp_.path()), store_(dir_) {
    std::string error;
    EXPECT_TRUE(dir_.CreateTree(&error)) << error;
  }
  std::string Read(const std::filesystem::path& p) {
    auto t = ReadFileText(p);
    return t ? *t : std::string("<missing>");
  }

  testing::TempDir tmp_;
  ProgramDir dir_;
  UserStore store_;
};

TEST_F(UserStoreTest, LoadGivesDefaultsOrTheStoredValuesWithTheirRules) {
  const UserRecordLoad r = store_.Load("XX9NEW-2", kStateLoggingIn);
  EXPECT_FALSE(r.existed);
  EXPECT_EQ(DisplayName(r.settings), "Unknown Name");
  EXPECT_EQ(r.settings.dxbm, 1006827524u);
  EXPECT_EQ(r.settings.dxbm2, 15370u);
  EXPECT_EQ(r.settings.width, 75);
  EXPECT_EQ(r.settings.switches, kDefaultSwitches);
  // A feed stream keeps the feed defaults.
  EXPECT_EQ(store_.Load("XX9SKM", kStateFeedSkimmer, "SKM").settings.switches, 0u);

  testing::WriteFile(dir_.Data("user") / "XX9DEF.dat",
                     "DXBM^0^0/0\r\nWIDTH^0^0\r\nPC41^0^1^\"Joe\"\r\nMAILNUMBER^0^4\r\n");
  const SessionSettings s = store_.Load("XX9DEF-1", kStateUser).settings;
  EXPECT_EQ(s.dxbm, 1040382980u);
  EXPECT_EQ(s.dxbm2, 15880u);
  EXPECT_EQ(s.width, 75);
  EXPECT_EQ(s.name, "Joe");
  EXPECT_EQ(s.mail_number, 4);
}

TEST_F(UserStoreTest, SsidsBelowSixteenShareASet) {
  ASSERT_TRUE(store_.Save("XX9ABC-3", "width", "90"));
  ASSERT_TRUE(store_.Save("XX9ABC-16", "WIDTH", "120"));
  EXPECT_EQ(Read(dir_.Data("user") / "XX9ABC.dat"), "WIDTH^0^90\r\nWIDTH^16^120\r\n");
  EXPECT_EQ(store_.Load("XX9ABC-7", kStateUser).settings.width, 90);
  EXPECT_EQ(store_.Load("XX9ABC", kStateUser).settings.width, 90);
  const UserRecordLoad r16 = store_.Load("XX9ABC-16", kStateUser);
  EXPECT_TRUE(r16.existed);
  EXPECT_EQ(r16.settings.width, 120);
  EXPECT_EQ(r16.settings.settings_set, 16);
  EXPECT_EQ(store_.Load("XX9ABC-17", kStateUser).settings.width, 75);
}

TEST_F(UserStoreTest, SaveKeepsEveryOtherLine) {
  const auto file = dir_.Data("user") / "XX9GHI.dat";
  testing::WriteFile(file,
                     "PC41^0^1^Sue\r\nSETTINGS^0^5\r\nFUTURE^0^keep\r\nDXBM^0^1/2\r\n"
                     "SETTINGS^16^9\r\n");
  ASSERT_TRUE(store_.Save("XX9GHI-5", "SETTINGS", "77"));
  EXPECT_EQ(Read(file),
            "PC41^0^1^Sue\r\nSETTINGS^0^77\r\nFUTURE^0^keep\r\nDXBM^0^1/2\r\n"
            "SETTINGS^16^9\r\n");
  // Quotes, line ends and carets never reach a one-value line; FILTER keeps its carets.
  ASSERT_TRUE(store_.Save("XX9GHI", "PROMPT", "\"%M>\"\r\nWIDTH^0^1"));
  ASSERT_TRUE(store_.Save("XX9GHI", "FILTER", "1^DOC/ON"));
  const SessionSettings s = store_.Load("XX9GHI", kStateUser).settings;
  EXPECT_EQ(s.prompt_form, "%M>WIDTH01");  // carets only survive in FILTER
  EXPECT_EQ(s.width, 75);
  EXPECT_EQ(s.filter_lines, std::vector<std::string>{"1^DOC/ON"});
  EXPECT_EQ(s.switches, 77u);
  EXPECT_FALSE(store_.Save("XX9GHI", "PC41", "x"));
  EXPECT_FALSE(store_.Save("XX9GHI", "BAD^KEY", "x"));
  EXPECT_FALSE(store_.Save("", "WIDTH", "80"));
}

TEST_F(UserStoreTest, PersonalInformationReplacesPerType) {
  ASSERT_TRUE(store_.SavePersonal("XX9JKL-2", 1, "Jim"));
  ASSERT_TRUE(store_.SavePersonal("XX9JKL", 2, "Rivertown"));
  ASSERT_TRUE(store_.SavePersonal("XX9JKL", 1, "James"));
  EXPECT_FALSE(store_.SavePersonal("XX9JKL", 3, "not a place"));
  EXPECT_FALSE(store_.SavePersonal("XX9JKL", 6, "x"));
  ASSERT_TRUE(store_.SavePersonal("XX9JKL", 3, "49 11 n 122 30 w"));
  EXPECT_EQ(Read(dir_.Data("user") / "XX9JKL.dat"),
            "PC41^0^1^James\r\nPC41^0^2^Rivertown\r\nPC41^0^3^49 11 N 122 30 W\r\n");
  const SessionSettings s = store_.Load("XX9JKL-16", kStateUser).settings;
  EXPECT_EQ(s.name, "James");
  EXPECT_EQ(s.qth, "Rivertown");
}

TEST_F(UserStoreTest, ReceivedPc41IsFiledOneLinePerTypeAndNeverOverALocalChoice) {
  const auto local = dir_.Data("user") / "XX9MNO.dat";
  testing::WriteFile(local, "WIDTH^0^80\r\n");
  ASSERT_TRUE(store_.StorePc41("XX9MNO", "PC41^XX9MNO^1^Mona^H30^~", true));
  ASSERT_TRUE(store_.StorePc41("", "PC41^^PC41^XX9MNO^5^JO01AA^H11^~", true));
  ASSERT_TRUE(store_.StorePc41("XX9MNO", "PC41^XX9MNO^1^Monica^H29^~", true));
  ASSERT_TRUE(store_.StorePc41("XX9MNO", "PC41^XX9MNO^2^Elsewhere^H29^~", true));
  // A user with a record here chose name, QTH and location here: the network's are filed
  // beside it, the rest (here the locator) goes into the record.
  EXPECT_EQ(Read(local), "WIDTH^0^80\r\nPC41^0^5^JO01AA\r\n");
  EXPECT_EQ(Read(dir_.Data("userRemote") / "XX9MNO.dat"),
            "PC41^0^1^Monica\r\nPC41^0^2^Elsewhere\r\n");
  ASSERT_TRUE(store_.StorePc41("XX9MNO", "PC41^XX9MNO^1^Mona^H30^~", false));  // our own
  EXPECT_EQ(Read(local), "WIDTH^0^80\r\nPC41^0^5^JO01AA\r\nPC41^0^1^Mona\r\n");

  // No local record: a remote user goes to data/userRemote/, filed under the "p" name.
  ASSERT_TRUE(store_.StorePc41("K1ABCpP", "PC41^K1ABC/P^4^XX9NOD^H30^~", true));
  EXPECT_FALSE(std::filesystem::exists(dir_.Data("user") / "K1ABCpP.dat"));
  EXPECT_EQ(Read(dir_.Data("userRemote") / "K1ABCpP.dat"), "PC41^0^4^XX9NOD\r\n");
  const UserRecordLoad r = store_.Load("K1ABC/P", kStateUser);
  EXPECT_TRUE(r.existed);
  EXPECT_TRUE(r.remote);
  EXPECT_EQ(r.settings.home_node, "XX9NOD");

  // The first local save starts from the remote record.
  ASSERT_TRUE(store_.Save("K1ABC/P-1", "WIDTH", "70"));
  EXPECT_EQ(Read(dir_.Data("user") / "K1ABCpP.dat"), "PC41^0^4^XX9NOD\r\nWIDTH^0^70\r\n");
  EXPECT_FALSE(store_.Load("K1ABC/P", kStateUser).remote);

  // Malformed sentences are refused.
  EXPECT_FALSE(store_.StorePc41("XX9MNO", "PC41^XX9MNO^9^x^H30^~", true));
  EXPECT_FALSE(store_.StorePc41("XX9MNO", "PC41^XX9MNO^1^^H30^~", true));
  EXPECT_FALSE(store_.StorePc41("XX9MNO", "PC11^XX9MNO^1^x^H30^~", true));
  EXPECT_FALSE(store_.StorePc41("XX9MNO", "PC41^XX9MNO", true));
}

TEST_F(UserStoreTest, FailedSaveLeavesTheOldFileWhole) {
  const auto file = dir_.Data("user") / "XX9PQR.dat";
  const std::string before = "PC41^0^1^Pat\r\nWIDTH^0^80\r\n";
  testing::WriteFile(file, before);
  // The temporary file's place is taken, so the write cannot complete.
  std::filesystem::create_directory(dir_.Data("user") / "XX9PQR.dat.tmp");
  EXPECT_FALSE(store_.Save("XX9PQR", "WIDTH", "100"));
  EXPECT_EQ(Read(file), before);
}

}  // namespace
}  // namespace qx
