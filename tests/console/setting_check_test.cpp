#include "console/setting_check.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace qx {
namespace {

struct Case {
  SettingKind kind;
  std::vector<std::string> good;
  std::vector<std::string> bad;
};

TEST(SettingCheckTest, EachKindTakesWhatTheNodeCanUseAndRefusesTheRestWithAReason) {
  const std::vector<Case> cases = {
      {SettingKind::kSwitch, {"True", "false", " TRUE "}, {"", "yes", "1", "on"}},
      {SettingKind::kNumber, {"0", "250", "100000000"}, {"", "-1", "12a", "1.5", "100000001"}},
      {SettingKind::kPort, {"1", "7380", " 65535"}, {"", "0", "65536", "80x", "-80"}},
      {SettingKind::kPortOrOff, {"", "0", "7373", "65535"}, {"65536", "80x", "-1"}},
      {SettingKind::kPortList,
       {"7300", "7300,7301, 8000"},
       {"", "7300,,7301", "7300,0", "1,2,3,4,5,6,7,8,9,10"}},
      {SettingKind::kIpAddress,
       {"127.0.0.1", "0.0.0.0", "::1", "::", "fe80::1"},
       {"foo", "", "localhost", "127.0.0.256", "1.2.3", "127.0.0.1:7380"}},
      {SettingKind::kUrl,
       {"", "https://example.org/help", "HTTP://example.org:8080/a?b=c", "http://[::1]:80/"},
       {"example.org", "ftp://example.org/", "https://", "https://exa mple.org/",
        "https://example.org:99999/", "https://-bad/"}},
      {SettingKind::kPublicSite,
       {"", "https://cluster.example.org", "http://192.0.2.7:8080/"},
       {"cluster.example.org", "https://cluster.example.org/console", "wss://cluster.example.org"}},
      {SettingKind::kText, {"", "anything at all"}, {"a^b", "two\nlines"}},
  };
  for (const Case& c : cases) {
    for (const std::string& v : c.good) {
      EXPECT_EQ(CheckSettingValue(c.kind, v), "") << SettingKindName(c.kind) << " " << v;
    }
    for (const std::string& v : c.bad) {
      EXPECT_NE(CheckSettingValue(c.kind, v), "") << SettingKindName(c.kind) << " " << v;
    }
  }
  // The reason names what is wanted, so the sysop can put it right.
  EXPECT_NE(CheckSettingValue(SettingKind::kIpAddress, "foo").find("IP address"),
            std::string::npos);
  EXPECT_NE(CheckSettingValue(SettingKind::kPort, "0").find("1 to 65535"), std::string::npos);
}

TEST(SettingCheckTest, SitesReduceToTheOriginABrowserSends) {
  EXPECT_EQ(OriginOfSite("https://Cluster.Example.ORG/"), "https://cluster.example.org");
  EXPECT_EQ(OriginOfSite("https://cluster.example.org:443"), "https://cluster.example.org");
  EXPECT_EQ(OriginOfSite("http://cluster.example.org:80"), "http://cluster.example.org");
  EXPECT_EQ(OriginOfSite("https://cluster.example.org:8443"), "https://cluster.example.org:8443");
  EXPECT_EQ(OriginOfSite("http://[::1]:7380"), "http://[::1]:7380");
  EXPECT_EQ(OriginOfSite("https://cluster.example.org/console"), "");
  EXPECT_EQ(OriginOfSite(""), "");

  // The console's own page (plain http to the Host it was reached by) or the public site.
  EXPECT_TRUE(LiveViewOriginAllowed("http://127.0.0.1:7380", "127.0.0.1:7380", ""));
  EXPECT_TRUE(LiveViewOriginAllowed("", "127.0.0.1:7380", ""));
  EXPECT_FALSE(LiveViewOriginAllowed("http://127.0.0.1:7381", "127.0.0.1:7380", ""));
  EXPECT_FALSE(LiveViewOriginAllowed("https://c.example.org", "c.example.org", ""));
  EXPECT_TRUE(
      LiveViewOriginAllowed("https://c.example.org", "c.example.org", "https://c.example.org"));
  EXPECT_TRUE(
      LiveViewOriginAllowed("https://c.example.org", "127.0.0.1:7380", "https://c.example.org/"));
  EXPECT_FALSE(
      LiveViewOriginAllowed("https://d.example.org", "c.example.org", "https://c.example.org"));
  EXPECT_FALSE(LiveViewOriginAllowed("null", "c.example.org", "https://c.example.org"));
}

}  // namespace
}  // namespace qx
