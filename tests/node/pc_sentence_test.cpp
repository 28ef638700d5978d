#include "node/pc_sentence.h"

#include <gtest/gtest.h>

#include <optional>

#include "node/pc_builders.h"
#include "tests/node/node_test_util.h"

namespace qx {
namespace {

class HopsOkTest : public ::testing::Test {
 protected:
  NodeNetState state_{[this](int code, std::string_view tag, std::string_view text) {
    errors_.push_back({code, std::string(tag), std::string(text)});
  }};
  std::vector<test::ErrorEntry> errors_;

  bool Hops(std::string& h) { return state_.HopsOk(h); }
};

// Hop fields in the order they arrive on one state: whether the sentence goes on, the field
// after the check, whether it was the last hop (unset: not judged) and the error logged.
TEST_F(HopsOkTest, CountsDownFlagsTheLastHopAndReportsMalformedFields) {
  struct Case {
    std::string in;
    bool ok;
    std::string out;
    std::optional<bool> last;
    std::string error;
  };
  const Case cases[] = {
      {"H99", true, "H98", false, ""},
      {"H2", true, "H1", false, ""},
      {"H100", true, "H99", false, ""},
      {"H1", false, "H0", true, ""},  // used here, not passed on
      {"H5", true, "H4", false, ""},  // a good count clears the flag again
      {"H", false, "H0", true, ""},
      {"H101", false, "H101", {}, ""},  // out of range: left as it is
      {"H0", false, "H0", {}, ""},
      {"H-3", false, "H-3", {}, ""},
      {"X99", false, "X99", {}, "HopsOk"},
      {"", false, "", {}, "HopsOk"},
      {"H1234", false, "H0", true, "HopsOk "},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.in);
    const size_t errors_before = errors_.size();
    std::string h = c.in;
    EXPECT_EQ(Hops(h), c.ok);
    EXPECT_EQ(h, c.out);
    if (c.last) {
      EXPECT_EQ(state_.last_hop(), *c.last);
    }
    if (c.in == "H99") {
      EXPECT_EQ(state_.last_hop_count(), 99);  // the count as it came
    }
    if (c.error.empty()) {
      EXPECT_EQ(errors_.size(), errors_before);
    } else {
      ASSERT_EQ(errors_.size(), errors_before + 1);
      EXPECT_EQ(errors_.back().tag, c.error);
    }
  }
}

TEST(PcCheckFlags, StartUpTable) {
  const PcCheckFlags f;
  EXPECT_EQ(f.Get(10), PcCheckFlags::kTerminator);
  EXPECT_EQ(f.Get(11), PcCheckFlags::kHopField | PcCheckFlags::kTerminator);
  EXPECT_EQ(f.Get(16), PcCheckFlags::kHopField);
  EXPECT_EQ(f.Get(41), PcCheckFlags::kTerminator);
  EXPECT_EQ(f.Get(61), 3);
  EXPECT_EQ(f.Get(92), PcCheckFlags::kHopField);
  for (int n : {18, 19, 20, 22, 51, 50, 39}) EXPECT_EQ(f.Get(n), 0) << n;
  EXPECT_EQ(f.Get(9), 0);
  EXPECT_EQ(f.Get(100), 0);
}

TEST(SplitFields, KeepsEmptyFieldsAndReusesTheVector) {
  std::vector<std::string> fields;
  SplitFields("PC16^Q8YYY^Q8USR - 1^H15^", fields);
  ASSERT_EQ(fields.size(), 5u);
  EXPECT_EQ(fields[2], "Q8USR - 1");
  EXPECT_EQ(fields[4], "");
  SplitFields("a", fields);
  ASSERT_EQ(fields.size(), 1u);
  EXPECT_EQ(fields[0], "a");
  SplitFields("", fields);
  ASSERT_EQ(fields.size(), 1u);
  EXPECT_EQ(fields[0], "");
}

TEST(LeadingNumber, FollowsTheLeadingDigits) {
  EXPECT_EQ(LeadingNumber("92"), 92);
  EXPECT_EQ(LeadingNumber("1A"), 1);
  EXPECT_EQ(LeadingNumber("AB"), 0);
  EXPECT_EQ(LeadingNumber(""), 0);
  EXPECT_EQ(LeadingNumber("-7x"), -7);
  EXPECT_GT(LeadingNumber("99999999999999999999"), 0);
}

// The lines the network tests do not already read whole: the "here" flag, user information,
// the keep-alive, and talk and announcements with carets and addresses.
TEST(Builders, LinesThisNodeWrites) {
  EXPECT_EQ(BuildPc19("Q1AAA", true, "5457"), "PC19^1^Q1AAA^1^5457^H99^\r\n");
  EXPECT_EQ(BuildPc41("Q1USR", 1, "Fred"), "PC41^Q1USR^1^Fred^H99^~\r\n");
  EXPECT_EQ(BuildPc50("Q1AAA", 12), "PC50^Q1AAA^12^H99^\r\n");
  EXPECT_EQ(BuildPc10("Q5USR", "Q7USR", "hi ^there", "Q1AAA"),
            "PC10^Q5USR^Q7USR^hi ~there^*^ ^Q1AAA^~\r\n");
  EXPECT_EQ(BuildPc10("Q5USR", "Q7USR", "hi", "Q1AAA", "Q7XXX"),
            "PC10^Q5USR^Q7XXX^hi^*^Q7USR^Q1AAA^~\r\n");
  EXPECT_EQ(BuildPc12("Q5USR", "*", "full announcement", false, "Q1AAA"),
            "PC12^Q5USR^*^full announcement^ ^Q1AAA^0^H99^~\r\n");
  EXPECT_EQ(BuildPc12("Q5USR", "*", "sysop", true, "Q1AAA"),
            "PC12^Q5USR^*^sysop^*^Q1AAA^0^H99^~\r\n");
  EXPECT_EQ(BuildPc93("Q1AAA", "80736", "Q8USR", "Q5USR", "*", "#873 a^b", "", "2001:db8::1"),
            "PC93^Q1AAA^80736^Q8USR^Q5USR^*^#873 a~b^^2001,db8,,1^H99^\r\n");
  EXPECT_EQ(BuildPc93("Q1AAA", "80597", "Q8USR", "Q7USR", "*", "talk", "Q7XXX"),
            "PC93^Q1AAA^80597^Q8USR^Q7USR^*^talk^Q7XXX^H99^\r\n");
  // A local announcement travels one hop.
  EXPECT_EQ(BuildPc93("Q1AAA", "80598", "*", "Q7USR", "*", "near", {}, {}, 1),
            "PC93^Q1AAA^80598^*^Q7USR^*^near^^H1^\r\n");
  EXPECT_EQ(BuildPc12("Q5USR", "*", "near", false, "Q1AAA", false, 1),
            "PC12^Q5USR^*^near^ ^Q1AAA^0^H1^~\r\n");
}

TEST(Builders, Pc92Family) {
  const std::vector<Pc92Entry> users = {{1, "Q5USR", {"198.51.100.7"}}};
  EXPECT_EQ(BuildPc92Add("Q1AAA", "80728", users),
            "PC92^Q1AAA^80728^A^^1Q5USR:198.51.100.7^H99^\r\n");
  EXPECT_EQ(BuildPc92Delete("Q1AAA", "80788", {{1, "Q5USR", {}}}),
            "PC92^Q1AAA^80788^D^^1Q5USR^H99^\r\n");
  const Pc92Entry own{5, "Q1AAA", {"5457"}};
  EXPECT_EQ(
      BuildPc92Config("Q1AAA", "80562", own, {{1, "Q8USR", {"198.51.100.20"}}, {7, "Q7XXX", {}}}),
      "PC92^Q1AAA^80562^C^5Q1AAA:5457^1Q8USR:198.51.100.20^7Q7XXX^H99^\r\n");
  const Pc92Entry own_k{5, "Q1AAA", {"5457", "46"}};
  EXPECT_EQ(BuildPc92Keepalive("Q1AAA", "80562.01", own_k, 1, 1),
            "PC92^Q1AAA^80562.01^K^5Q1AAA:5457:46^1^1^H99^\r\n");
  EXPECT_EQ(BuildPc92Keepalive("Q1AAA", "80563", own_k, 2, 0, "127.0.0.1", "qx/0.1"),
            "PC92^Q1AAA^80563^K^5Q1AAA:5457:46^2^0^127.0.0.1^qx/0.1^H99^\r\n");
  // An IPv6 address travels with "," instead of ":".
  EXPECT_EQ(FormatPc92Entry({1, "Q5USR", {"2001:db8::7"}}), "1Q5USR:2001,db8,,7");
}

}  // namespace
}  // namespace qx
