#include "core/config.h"

#include <sys/stat.h>

#include <map>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "core/error_log.h"
#include "core/file_util.h"
#include "core/text_util.h"
#include "core/time_text.h"
#include "tests/testlib/test_util.h"

namespace qx {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;

std::vector<std::string> Lines(std::string_view text) {
  std::vector<std::string> out;
  for (auto l : SplitLines(text)) out.emplace_back(l);
  return out;
}

// The line index of the first line starting with key + "^", or -1.
int LineOf(const std::vector<std::string>& lines, std::string_view key) {
  const std::string prefix = std::string(key) + "^";
  for (size_t i = 0; i < lines.size(); ++i) {
    if (lines[i].rfind(prefix, 0) == 0) return int(i);
  }
  return -1;
}

TEST(ConfigDefaults, NewInstallationHasAWorkingSetup) {
  const Config c;
  EXPECT_EQ(c.Get("Cluster Call"), "XX0QX-1");
  EXPECT_EQ(c.Get("Winsock IP"), "127.0.0.1");
  EXPECT_EQ(c.GetInt("Winsock Port", 0), 7399);
  EXPECT_EQ(c.Get("Winsock App Path"), "qxfront");
  EXPECT_EQ(c.GetInt("Connection Retry", 0), 60);
  EXPECT_EQ(c.GetInt("Maximum DX Spots", 0), 5000);
  EXPECT_EQ(c.GetInt("Default Display Dx", 0), 30);
  EXPECT_EQ(c.GetInt("Maximum Display Dx", 0), 100);
  EXPECT_EQ(c.GetInt("NewMaxSpotsPerMin", 0), 2000);
  EXPECT_EQ(c.GetInt("NewMaxSpotsPerMinPerDx", 0), 20);
  EXPECT_EQ(c.GetInt("NewMaxSpotsPerMinPerSpotter", 0), 30);
  EXPECT_EQ(c.Get("Console Address"), "127.0.0.1");
  EXPECT_EQ(c.GetInt("Console Port", 0), 7380);
  EXPECT_EQ(c.Get("Station Text"), "QX Cluster node");
  EXPECT_THAT(FrontendPorts(c), ElementsAre(7300));
  EXPECT_EQ(c.source(), ConfigSource::kDefaults);
  // Unknown keys read as empty; GetInt falls back on junk.
  EXPECT_EQ(c.Get("No Such Key"), "");
  EXPECT_EQ(c.GetInt("Cluster Call", -5), -5);
}

TEST(FormatCfg, FollowsTheKeyTableOrder) {
  Config c;
  c.nodes().push_back({"XX9NOD-2", "QXC", "True", ""});
  c.outgoing().push_back({"Link", "DXS", "10.0.0.1", "7300", "True"});
  c.Set("Zeta Unknown", "z");
  const auto lines = Lines(FormatCfg(c));
  EXPECT_EQ(lines.front(), "Cluster Call^XX0QX-1");
  const std::string_view order =
      "Cluster Call|Winsock IP|Winsock Port|Winsock App Path|Top|Raw Window Monitor|"
      "Maximum DX Spots|Conflict Width|Outgoing Connections Top|Outgoing Connections Left|"
      "Outgoing Connections Width|Outgoing Connections Height|Bulletin Height|PC9x Top|"
      "Mail Tx Height|Connection Retry|Bulletin Addresses|AnnNok|Node Call & Node Type|Node Call|"
      "Node Type|Local Node|Outgoing Cluster|RemoteNodeIs|IP Address|IP Port|Cluster Active|"
      "Logon 1|Log Out|Logon Port 0|Logon Port 8|Frontend Ports|Auto Start|"
      "HighestSpotsPerMinPerSpotter|Console Address|Console Port|Help Address|"
      "SSID Help Address|Station Text|Max Connections|Login Timeout|Zeta Unknown";
  int last = -1;
  for (std::string_view key : Split(order, '|')) {
    const int at = LineOf(lines, key);
    ASSERT_GE(at, 0) << key;
    EXPECT_GT(at, last) << key;
    last = at;
  }
  EXPECT_EQ(last, int(lines.size()) - 1);
  EXPECT_EQ(lines[LineOf(lines, "Node Call & Node Type")], "Node Call & Node Type^XX9NOD-2 QXC");
  // Every line ends with CR LF.
  const std::string text = FormatCfg(c);
  EXPECT_EQ(text.substr(text.size() - 2), "\r\n");
  EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), std::count(text.begin(), text.end(), '\r'));
}

TEST(ParseCfg, RoundTripsEveryKeyGroup) {
  Config c;
  c.Set("Cluster Call", "XX9QX-2");
  c.Set("Winsock Port", "7401");
  c.Set("Font", "Lucida Console");
  c.Set("Logon Port 3", "Telnet");
  c.Set("Frontend Ports", "7300,7301,8000");
  c.Set("Help Address", "http://h/x^y");  // a caret inside a value survives
  c.Set("LocalBadIp", "10.1.1.1,10.2.2.2");
  c.Set("Last Version Reported", "");
  c.nodes().push_back({"XX9NOD-2", "QXC", "True", ""});
  c.nodes().push_back({"XX8ABC", "DXS", "False", "192.0.2.0/24, 2001:db8::7"});
  c.outgoing().push_back({"First", "QXC", "10.0.0.1", "7300", "True"});
  c.outgoing().push_back({"Second", "ARC", "host.example", "23", "False"});
  c.feeds().push_back({"RBN", "RBN", "feed.example", "7000", "XX9QX", "True"});
  c.feeds().push_back({"Own", "SKIMMER", "10.0.0.9", "7550", "", "False"});
  c.List("DxNok").items = {"XX1BAD", "XX2BAD"};
  c.List("LockOuts").items = {"XX3LOCK"};
  c.Set("Some Future Key", "kept as is");
  EXPECT_FALSE(c.Set("Another^Odd", "x"));   // would read back as another key
  EXPECT_FALSE(c.Set("Node Call", "XX1A"));  // group keys live in nodes()
  c.Set("Injected", "a\r\nCluster Call^XX0BAD");

  const std::string text = FormatCfg(c);
  const Config back = ParseCfg(text);
  EXPECT_EQ(back.Get("Cluster Call"), "XX9QX-2");
  EXPECT_EQ(back.GetInt("Winsock Port", 0), 7401);
  EXPECT_EQ(back.Get("Font"), "Lucida Console");
  EXPECT_EQ(back.Get("Logon Port 3"), "Telnet");
  EXPECT_EQ(back.Get("Help Address"), "http://h/x^y");
  EXPECT_EQ(back.Get("LocalBadIp"), "10.1.1.1,10.2.2.2");
  EXPECT_THAT(FrontendPorts(back), ElementsAre(7300, 7301, 8000));
  EXPECT_EQ(back.nodes(), c.nodes());
  EXPECT_EQ(back.outgoing(), c.outgoing());
  EXPECT_EQ(back.feeds(), c.feeds());
  EXPECT_TRUE(back.feeds()[0].IsActive());
  EXPECT_EQ(back.feeds()[1].Port(), 7550);
  EXPECT_TRUE(back.nodes()[0].IsLocal());
  EXPECT_FALSE(back.nodes()[1].IsLocal());
  EXPECT_TRUE(back.outgoing()[0].IsActive());
  EXPECT_EQ(back.outgoing()[1].Port(), 23);
  EXPECT_EQ(back.Get("DxNok"), "XX1BAD,XX2BAD");
  EXPECT_EQ(back.Get("Locked Out"), "XX3LOCK");
  EXPECT_THAT(back.FindList("DxNok")->items, ElementsAre("XX1BAD", "XX2BAD"));
  EXPECT_EQ(back.Get("Some Future Key"), "kept as is");
  // The whole text is stable under a second round.
  EXPECT_EQ(FormatCfg(back), FormatCfg(ParseCfg(FormatCfg(back))));
  EXPECT_EQ(back.Get("Injected"), "aCluster Call^XX0BAD");
}

TEST(ParseCfg, UnknownKeysAreWrittenBackUnchangedAfterTheKnownOnes) {
  const std::string text =
      "Private Key One^alpha\r\nCluster Call^XX7AB\r\nprivate key two^ beta \r\n";
  const Config c = ParseCfg(text);
  ASSERT_EQ(c.unknown().size(), 2u);
  const auto lines = Lines(FormatCfg(c));
  ASSERT_GE(lines.size(), 2u);
  EXPECT_EQ(lines[lines.size() - 2], "Private Key One^alpha");
  EXPECT_EQ(lines.back(), "private key two^ beta ");
  EXPECT_EQ(c.Get("Cluster Call"), "XX7AB");
}

TEST(ParseCfg, KeysAreCaseSensitiveAndJunkIsTolerated) {
  const std::string text =
      "cluster call^lower\n\n   \njunk without caret\n^no key\nWinsock Port^7500\n"
      "Winsock IP^10.9.8.7";  // LF only, no final line end
  const Config c = ParseCfg(text);
  EXPECT_EQ(c.Get("Cluster Call"), "XX0QX-1");
  EXPECT_EQ(c.Get("cluster call"), "lower");
  EXPECT_EQ(c.GetInt("Winsock Port", 0), 7500);
  EXPECT_EQ(c.Get("Winsock IP"), "10.9.8.7");
  // CR LF and LF input give the same settings.
  std::string crlf;
  for (auto l : SplitLines(text)) {
    crlf += l;
    crlf += "\r\n";
  }
  EXPECT_EQ(FormatCfg(ParseCfg(crlf)), FormatCfg(c));
}

TEST(ParseCfg, GroupsWithoutTheCombinedLineStillSplitPerElement) {
  const std::string text =
      "Node Call^XX1A\r\nNode Type^QXC\r\nLocal Node^True\r\n"
      "Node Call^XX2B\r\nNode Type^DXS\r\n"
      "Outgoing Cluster^One\r\nIP Address^1.2.3.4\r\nIP Port^7300\r\n"
      "IP Address^5.6.7.8\r\nIP Port^7301\r\n";
  const Config c = ParseCfg(text);
  ASSERT_EQ(c.nodes().size(), 2u);
  EXPECT_EQ(c.nodes()[1].call, "XX2B");
  EXPECT_EQ(c.nodes()[1].type, "DXS");
  ASSERT_EQ(c.outgoing().size(), 2u);
  EXPECT_EQ(c.outgoing()[0].name, "One");
  EXPECT_EQ(c.outgoing()[1].ip_address, "5.6.7.8");
  EXPECT_EQ(c.outgoing()[1].Port(), 7301);
}

TEST(ConfigList, IgnoresCaseAndStaysConsistentWithItsMirroredKey) {
  ConfigList l;
  EXPECT_TRUE(l.Add("XX1ABC"));
  EXPECT_FALSE(l.Add("xx1abc"));
  EXPECT_FALSE(l.Add("  "));
  EXPECT_TRUE(l.Contains("xX1AbC"));
  EXPECT_FALSE(l.Remove("XX9ZZZ"));
  EXPECT_TRUE(l.Remove("xx1abc"));
  EXPECT_TRUE(l.items.empty());

  // A list mirrored by a key of the configuration stays consistent with it.
  Config c;
  c.Set("Locked Out", "XX1A, XX2B,,");
  EXPECT_THAT(c.List("LockOuts").items, ElementsAre("XX1A", "XX2B"));
  c.List("LockOuts").Add("XX3C");
  c.List("BullAddress").Add("ALL");
  EXPECT_EQ(c.Get("Locked Out"), "XX1A,XX2B,XX3C");
  EXPECT_EQ(c.Get("Bulletin Addresses"), "ALL");
  const auto lines = Lines(FormatCfg(c));
  EXPECT_EQ(lines[LineOf(lines, "Locked Out")], "Locked Out^XX1A,XX2B,XX3C");
}

TEST(ListFile, FormatAndParse) {
  ConfigList l;
  l.window = {100, 200, 3000, 4000};
  l.items = {"XX1ABC", "XX2DEF"};
  const std::string text = FormatListFile(l);
  EXPECT_EQ(text,
            "[Form.Top, .Left, .Height, .Width]\r\n100\r\n200\r\n3000\r\n4000\r\n[Items]\r\n"
            "XX1ABC\r\nXX2DEF\r\n");
  EXPECT_EQ(ParseListFile(text), l);
  // LF only, trailing blanks and blank lines among the items.
  const ConfigList lf =
      ParseListFile("[Form.Top, .Left, .Height, .Width]\n1\n2\n3\n4\n[Items]\nA1 \n\nB2\n");
  EXPECT_EQ(lf.window, (std::array<int, 4>{1, 2, 3, 4}));
  EXPECT_THAT(lf.items, ElementsAre("A1", "B2"));
  // A bare list of calls is read as items.
  EXPECT_THAT(ParseListFile("C1\r\nC2\r\n").items, ElementsAre("C1", "C2"));
  EXPECT_TRUE(ParseListFile("").items.empty());
}

class ConfigFiles : public ::testing::Test {
 protected:
  ConfigFiles()
      : dir_(tmp_.path()), clock_(MakeUtc(2026, 11, 5, 10, 0, 0)), log_(dir_.Data("log"), clock_) {
    std::string error;
    EXPECT_TRUE(dir_.CreateTree(&error)) << error;
  }
  std::string ErrorLogText() {
    auto t = ReadFileText(log_.TodayFile());
    return t ? *t : std::string();
  }
  std::string Read(const std::filesystem::path& p) {
    auto t = ReadFileText(p);
    return t ? *t : std::string("<missing>");
  }

  testing::TempDir tmp_;
  ProgramDir dir_;
  ManualClock clock_;
  ErrorLog log_;
};

TEST_F(ConfigFiles, WriteThenReadGivesTheSameSettings) {
  Config c;
  c.Set("Cluster Call", "XX9QX-3");
  c.nodes().push_back({"XX9NOD", "QXC", "False", ""});
  c.List("Sysop").Add("XX9OP");
  c.List("DxNok").Add("XX1BAD");
  ASSERT_TRUE(WriteCfgFile(c, dir_));
  EXPECT_EQ(Read(dir_.ConfigFile()), Read(dir_.ConfigBackup()));
  for (const auto& name : Config::ListNames()) {
    EXPECT_TRUE(std::filesystem::exists(dir_.Data("cfg") / (name + ".cfg"))) << name;
    EXPECT_TRUE(std::filesystem::exists(dir_.Data("cfg") / (name + ".cfg.bak"))) << name;
  }
  const auto perms = std::filesystem::status(dir_.Data("cfg") / "Sysop.cfg").permissions();
  EXPECT_EQ(perms & std::filesystem::perms::others_read, std::filesystem::perms::none);

  const Config back = ReadCfgFile(dir_, log_);
  EXPECT_EQ(back.source(), ConfigSource::kMainFile);
  EXPECT_EQ(back.Get("Cluster Call"), "XX9QX-3");
  EXPECT_EQ(back.nodes(), c.nodes());
  EXPECT_THAT(back.FindList("Sysop")->items, ElementsAre("XX9OP"));
  EXPECT_EQ(back.Get("DxNok"), "XX1BAD");
  EXPECT_EQ(ErrorLogText(), "");
}

TEST_F(ConfigFiles, SideFileIsAuthoritativeOverTheJoinedKey) {
  AtomicWriteFile(dir_.ConfigFile(), "Cluster Call^XX1A\r\nDxNok^OLD1,OLD2\r\nAnnNok^KEEP1\r\n");
  ConfigList side;
  side.items = {"NEW1"};
  ASSERT_TRUE(WriteListFile(dir_, "DxNok", side));
  const Config c = ReadCfgFile(dir_, log_);
  EXPECT_EQ(c.Get("DxNok"), "NEW1");
  // No side file for AnnNok: the key fills the list.
  EXPECT_THAT(c.FindList("AnnNok")->items, ElementsAre("KEEP1"));
}

TEST_F(ConfigFiles, ABackupIsReplacedOnlyByASaveAtLeastAsLong) {
  Config big;
  big.Set("Station Text", std::string(500, 'x'));
  ASSERT_TRUE(WriteCfgFile(big, dir_));
  const std::string long_text = Read(dir_.ConfigBackup());
  const Config small;
  ASSERT_TRUE(WriteCfgFile(small, dir_));
  EXPECT_EQ(Read(dir_.ConfigFile()), FormatCfg(small));
  EXPECT_EQ(Read(dir_.ConfigBackup()), long_text);
  big.Set("Station Text", std::string(900, 'y'));
  ASSERT_TRUE(WriteCfgFile(big, dir_));
  EXPECT_EQ(Read(dir_.ConfigBackup()), FormatCfg(big));

  // A list by its number of items; an equal number replaces the backup.
  const auto bak = dir_.Data("cfg") / "LockOuts.cfg.bak";
  const auto save = [&](std::vector<std::string> items) {
    ConfigList l;
    l.items = std::move(items);
    EXPECT_TRUE(WriteListFile(dir_, "LockOuts", l));
    EXPECT_EQ(Read(dir_.Data("cfg") / "LockOuts.cfg"), FormatListFile(l));
    return FormatListFile(l);
  };
  const std::string three = save({"A1", "B2", "C3"});
  EXPECT_EQ(Read(bak), three);
  save({"A1"});
  EXPECT_EQ(Read(bak), three);
  const std::string same_length = save({"X1", "Y2", "Z3"});
  EXPECT_EQ(Read(bak), same_length);
  const std::string longer = save({"X1", "Y2", "Z3", "W4"});
  EXPECT_EQ(Read(bak), longer);
}

// The identity of a file: a rewrite (temp file + rename) gives it a new inode.
ino_t Inode(const std::filesystem::path& p) {
  struct stat st {};
  return ::stat(p.c_str(), &st) == 0 ? st.st_ino : 0;
}

TEST_F(ConfigFiles, ASaveRewritesOnlyTheFilesWhoseTextChanged) {
  Config c;
  c.Set("HighestSpotsPerMin", "10");
  c.List("DxNok").Add("XX1BAD");
  ASSERT_TRUE(WriteCfgFile(c, dir_));
  std::map<std::string, ino_t> before;
  for (const auto& f : std::filesystem::directory_iterator(dir_.Data("cfg"))) {
    before[f.path().filename().string()] = Inode(f.path());
  }
  ASSERT_TRUE(before.contains("DxNok.cfg"));
  const ino_t cfg_before = Inode(dir_.ConfigFile());

  // A new highest rate changes the configuration only: no list file is written again.
  c.Set("HighestSpotsPerMin", "11");
  ASSERT_TRUE(WriteCfgFile(c, dir_));
  EXPECT_NE(Inode(dir_.ConfigFile()), cfg_before);
  EXPECT_THAT(Read(dir_.ConfigFile()), HasSubstr("HighestSpotsPerMin^11"));
  for (const auto& [name, inode] : before) {
    EXPECT_EQ(Inode(dir_.Data("cfg") / name), inode) << name;
  }

  // A changed list is written with its backup; a list edited by hand is put right again.
  c.List("DxNok").Add("XX2BAD");
  AtomicWriteFile(dir_.Data("cfg") / "LockOuts.cfg", "edited by hand\r\n");
  ASSERT_TRUE(WriteCfgFile(c, dir_));
  EXPECT_NE(Inode(dir_.Data("cfg") / "DxNok.cfg"), before["DxNok.cfg"]);
  EXPECT_NE(Inode(dir_.Data("cfg") / "DxNok.cfg.bak"), before["DxNok.cfg.bak"]);
  EXPECT_EQ(Read(dir_.Data("cfg") / "DxNok.cfg"), FormatListFile(*c.FindList("DxNok")));
  EXPECT_EQ(Read(dir_.Data("cfg") / "DxNok.cfg.bak"), FormatListFile(*c.FindList("DxNok")));
  EXPECT_EQ(Read(dir_.Data("cfg") / "LockOuts.cfg"), FormatListFile(ConfigList{}));
  EXPECT_EQ(Inode(dir_.Data("cfg") / "AnnNok.cfg"), before["AnnNok.cfg"]);
  EXPECT_THAT(ReadCfgFile(dir_, log_).FindList("DxNok")->items, ElementsAre("XX1BAD", "XX2BAD"));
}

TEST_F(ConfigFiles, MissingOrEmptyFilesFallBackToTheirBackupThenToDefaults) {
  const std::string load_error = "05-Nov-2026 1000:00Z Form_Load " + dir_.ConfigFile().string();
  AtomicWriteFile(dir_.ConfigBackup(), "Cluster Call^XX5BAK\nWinsock Port^7555\n");
  const Config missing = ReadCfgFile(dir_, log_);
  EXPECT_EQ(missing.source(), ConfigSource::kBackup);
  EXPECT_EQ(missing.Get("Cluster Call"), "XX5BAK");
  EXPECT_EQ(missing.GetInt("Winsock Port", 0), 7555);
  EXPECT_EQ(ErrorLogText(), load_error + " doesn't exist\r\n");

  AtomicWriteFile(dir_.ConfigFile(), "");
  const Config empty = ReadCfgFile(dir_, log_);
  EXPECT_EQ(empty.source(), ConfigSource::kBackup);
  EXPECT_EQ(empty.Get("Cluster Call"), "XX5BAK");
  EXPECT_THAT(ErrorLogText(), ::testing::EndsWith(load_error + " is empty.\r\n"));

  std::filesystem::remove(dir_.ConfigFile());
  std::filesystem::remove(dir_.ConfigBackup());
  const Config none = ReadCfgFile(dir_, log_);
  EXPECT_EQ(none.source(), ConfigSource::kDefaults);
  EXPECT_EQ(none.Get("Winsock IP"), "127.0.0.1");

  // A list file falls back to its own backup the same way.
  ConfigList l;
  l.items = {"A1", "B2"};
  ASSERT_TRUE(WriteListFile(dir_, "SpotterNok", l));
  std::filesystem::remove(dir_.Data("cfg") / "SpotterNok.cfg");
  const Config c = ReadCfgFile(dir_, log_);
  EXPECT_THAT(c.FindList("SpotterNok")->items, ElementsAre("A1", "B2"));
  EXPECT_EQ(c.Get("SpotterNok"), "A1,B2");
}

}  // namespace
}  // namespace qx
