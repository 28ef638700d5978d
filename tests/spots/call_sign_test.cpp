#include "spots/call_sign.h"

#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <unordered_set>
#include <utility>
#include <vector>

#include "spots/country.h"

namespace qx {
namespace {

constexpr char kCountries[] =
    "United States:  05:  08:  NA:   37.60:    91.87:     5.0:  K:\n"
    "    AA,K,N,W;\n"
    "Germany:        14:  28:  EU:   51.00:   -10.00:    -1.0:  DL:\n"
    "    DA,DL;\n";

class ValidCallTest : public ::testing::Test {
 protected:
  ValidCallTest() {
    EXPECT_TRUE(countries_.LoadText(kCountries));
    ctx_.special_calls = &special_;
    ctx_.locked_out = &locked_;
    ctx_.countries = &countries_;
    ctx_.node_call = "XX0QX-1";
    ctx_.on_bad_compound = [](void* user, std::string_view call) {
      static_cast<std::vector<std::string>*>(user)->emplace_back(call);
    };
    ctx_.on_bad_compound_user = &bad_compounds_;
  }

  bool Check(std::string call, bool strict) { return ValidCall(call, strict, ctx_); }

  std::unordered_set<std::string> special_{"RBN", "SKIMMER"};
  std::unordered_set<std::string> locked_{"XX9BAD", "BADCALL"};
  CountryLookup countries_;
  CallCheckContext ctx_;
  std::vector<std::string> bad_compounds_;
};

struct Case {
  const char* call;
  bool strict;
  bool lenient;
  const char* why;
};

TEST_F(ValidCallTest, RulesInBothModes) {
  const Case cases[] = {
      {"", false, false, "empty"},
      {"K1ABC", true, true, "plain call"},
      {"K1A", true, true, "three characters"},
      {"K1", false, false, "shorter than three"},
      {"ABC1", false, false, "three leading letters"},
      {"ABC1DE", false, false, "three letters before the first digit"},
      {"AB1CDE", true, true, "two letters before the first digit"},
      {"2E0ABC", true, true, "digit first, letter second"},
      {"22ABC", false, false, "digit first, digit second"},
      {"2EABC", false, false, "only digit is the first character"},
      {"ABCDEF", false, false, "no digit"},
      {"123", false, false, "no letter"},
      {"4U1ITU", true, true, "digit-letter prefix"},
      {"XX9ABC1", false, false, "trailing digit without / or -"},
      {"XX9ABC/1", true, true, "trailing digit after /"},
      {"XX9ABC-1", true, true, "one-digit SSID"},
      {"XX9ABC-01", true, true, "two-digit SSID"},
      {"XX9ABC-123", false, false, "three-character SSID"},
      {"XX9ABC-A", false, false, "SSID not numeric"},
      {"XX9ABC-", false, false, "ends in -"},
      {"K1A-1", true, true, "- at position 4"},
      {"K1-1", false, false, "- at position 3"},
      {"K1AB-1-2", false, false, "two hyphens"},
      {"K1ABC_X", false, false, "character outside A-Z 0-9 /"},
      {"K1ABC/", false, false, "ends in /"},
      {"K1ABC/P", true, true, "portable"},
      {"DL/K1ABC", true, true, "prefix before call"},
      {"SH/DX", false, false, "a command at the call prompt"},
      {"SHOW/DX", false, false, "a command at the call prompt"},
      {"sh/dx", false, false, "a command in lower case"},
      {"Q1ABC", false, false, "starts with Q"},
      {" K1ABC", false, false, "starts with a blank"},
      {"0K1ABC", false, false, "first character below 1"},
      {"K1 ABC", false, false, "blank inside"},
      {"ECHO", false, false, "echo probe"},
      {"ECHOTEST1", false, false, "echo probe"},
      {"RBN", true, true, "special call of odd shape"},
      {"SKIMMER", true, true, "special call of odd shape"},
      {"RBNX", false, false, "not on the special list"},
      {"N0CALL", false, true, "placeholder call"},
      {"K1ABC/QRP", false, true, "/Q"},
      {"XX0QX-1", false, true, "the node's own call"},
      {"BADCALL", true, false, "locked out counts as valid at log-in"},
      {"XX9BAD-3", true, true, "locked out by its base call"},
      {"K1ABC/W1XYZ", false, true, "two US calls joined"},
      {"K1ABC/DL1XYZ", true, true, "two countries"},
      {"K1ABC/W1X", true, true, "second part too short for the country test"},
      {"XX9ABC/XX8DEF", true, true, "parts of no known country"},
      {"K1ABC/ABCDEFGHIJKLMNOPQRSTUVWX", true, true, "30 characters"},
      {"K1ABC/ABCDEFGHIJKLMNOPQRSTUVWXY", false, true, "31 characters"},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(Check(c.call, true), c.strict) << c.call << " strict: " << c.why;
    EXPECT_EQ(Check(c.call, false), c.lenient) << c.call << " lenient: " << c.why;
  }
}

// The call is left upper-cased without its line end, and a line end hides nothing.
TEST_F(ValidCallTest, CleansTheCallInPlaceAndLineEndsHideNothing) {
  const struct {
    const char *in, *out;
    bool strict, valid;
  } kCases[] = {{"k1abc-5\r\n", "K1ABC-5", true, true},  {"dl1xyz  \n", "DL1XYZ", false, true},
                {"qx1abc", "QX1ABC", true, false},       {"N0CALL\r\n", "N0CALL", true, false},
                {"xx0qx-1\r\n", "XX0QX-1", true, false}, {"badcall \r\n", "BADCALL", true, true},
                {"\r\n", nullptr, true, false}};
  for (const auto& c : kCases) {
    std::string call = c.in;
    EXPECT_EQ(ValidCall(call, c.strict, ctx_), c.valid) << c.in;
    if (c.out != nullptr) {
      EXPECT_EQ(call, c.out);
    }
  }
}

TEST_F(ValidCallTest, CompoundOfOneCountryIsReportedAtLogInOnly) {
  EXPECT_FALSE(Check("k1abc/w1xyz", true));
  ASSERT_EQ(bad_compounds_.size(), 1u);
  EXPECT_EQ(bad_compounds_[0], "K1ABC/W1XYZ");

  EXPECT_TRUE(Check("K1ABC/W1XYZ", false));
  EXPECT_TRUE(Check("K1ABC/DL1XYZ", true));
  EXPECT_EQ(bad_compounds_.size(), 1u);
}

TEST_F(ValidCallTest, WorksWithoutAnyLists) {
  const CallCheckContext none;
  for (auto [in, valid] : {std::pair{"K1ABC/W1XYZ", true}, std::pair{"RBN", false},
                           std::pair{"BADCALL", false}, std::pair{"XX9ABC-1", true}}) {
    std::string call = in;
    EXPECT_EQ(ValidCall(call, true, none), valid) << in;
  }
}

TEST(BaseCall, CutsAtTheFirstHyphenFromPositionFour) {
  const std::pair<const char*, const char*> cases[] = {
      {"K1ABC-5", "K1ABC"}, {"XX9ABC-01", "XX9ABC"}, {"K1ABC", "K1ABC"},
      {"K1A-1", "K1A"},     {"K1-5", "K1-5"},        {"AB-CD-1", "AB-CD"},
      {"-1-2", "-1-2"},     {"XX9ABC-", "XX9ABC"},   {"", ""},
      {"K-", "K-"},
  };
  for (const auto& [call, base] : cases) EXPECT_EQ(BaseCall(call), base) << call;
}

TEST(CallHelpers, AbbreviationsTelnetPrefixAndLockOut) {
  const std::tuple<const char*, int, const char*, bool> kAbbrevs[] = {
      {"READ", 1, "R", true},      {"READ", 1, "read", true}, {"READ", 1, "Rea", true},
      {"READ", 1, "READS", false}, {"READ", 1, "", false},    {"READ", 1, "X", false},
      {"HELP", 4, "HEL", false},   {"HELP", 4, "help", true}, {"SHOW", 2, "sH", true},
      {"SHOW", 2, "SX", false},    {"YES", 1, "y", true},     {"NO", 1, "maybe", false},
      {"YES", 1, "yes ", false}};
  for (const auto& [keyword, min, typed, match] : kAbbrevs) {
    EXPECT_EQ(MatchAbbrev(keyword, min, typed), match) << keyword << " " << typed;
  }
  // Telnet negotiation and characters below "1" go before the call.
  const std::pair<const char*, const char*> kTelnet[] = {
      {"\xff\xfb\x01K1ABC", "K1ABC"},
      {"\xff\xfd\x03\xff\xfb\x18 0K1ABC", "K1ABC"},
      {"K1ABC", "K1ABC"},
      {"1\xf0x", "1\xf0x"},
      {"\xff\xfd\x03", ""},
      {"", ""}};
  for (const auto& [in, out] : kTelnet) EXPECT_EQ(StripTelnetPrefix(in), out) << in;
  // Lock-out compares the base call, ignoring case.
  const std::unordered_set<std::string> locked{"XX9BAD"};
  for (auto [call, out] :
       {std::pair{"XX9BAD", true}, std::pair{"xx9bad-5", true}, std::pair{"XX9BA", false},
        std::pair{"XX9BADX", false}, std::pair{"XX9BAD/P", false}}) {
    EXPECT_EQ(IsLockedOut(call, locked), out) << call;
  }
  EXPECT_FALSE(IsLockedOut("XX9BAD", {}));
}

}  // namespace
}  // namespace qx
