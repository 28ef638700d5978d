#include "node/pc41.h"

#include "spots/call_sign.h"

#include <gtest/gtest.h>

#include <tuple>

#include "core/monitor.h"
#include "tests/node/node_test_util.h"

namespace qx {
namespace {

class Pc41Test : public ::testing::Test {
 protected:
  Pc41Test() {
    monitor_.Subscribe([this](const MonitorLine& l) { shown_.push_back(std::string(l.text)); });
    deps_.monitor = &monitor_;
    deps_.bad_word = [](std::string_view v) { return v.find("BADWORD") != std::string_view::npos; };
    // Calls for this test: letters and digits with at least one digit, "/" and "-" allowed.
    deps_.valid_call = [](std::string_view c) {
      bool digit = false;
      for (char ch : c) {
        if (ch >= '0' && ch <= '9')
          digit = true;
        else if (!(ch >= 'A' && ch <= 'Z') && ch != '/' && ch != '-')
          return false;
      }
      return digit && c.size() >= 3;
    };
    deps_.bad_data_log = [this](std::string_view text, std::string_view line) {
      bad_.push_back(std::string(text) + "|" + std::string(line));
    };
    deps_.store = [this](std::string_view call, std::string_view record) {
      stored_.push_back(std::string(call) + "|" + std::string(record));
    };
  }

  Pc41Result Run(std::string_view line) {
    sentence_ = test::MakeSentence(line);
    return ProcessPC41(sentence_, lists_, state_, deps_);
  }

  Monitor monitor_;
  Pc41Deps deps_;
  Pc41Lists lists_;
  NodeNetState state_;
  PcSentence sentence_;
  std::vector<std::string> shown_, bad_, stored_;
};

TEST_F(Pc41Test, StoresAndFilesTheRecordLine) {
  const Pc41Result r = Run("PC41^Q5USR-2^1^Fred Smith^H5^~");
  EXPECT_TRUE(r.processed);
  EXPECT_TRUE(r.relay);
  ASSERT_EQ(stored_.size(), 1u);
  EXPECT_EQ(stored_[0], "Q5USR-2|PC41^^PC41^Q5USR-2^1^Fred Smith^H5^~");
  ASSERT_NE(lists_.Find(1, "Q5USR"), nullptr);
  EXPECT_EQ(*lists_.Find(1, "Q5USR"), "Q5USR Fred Smith");
  // Field 1 ends as the base call; the hop was decremented and is below the cap.
  EXPECT_EQ(sentence_.fields[1], "Q5USR");
  EXPECT_EQ(sentence_.fields[4], "H4");
  // A portable call is filed under a name a file can have.
  EXPECT_TRUE(Run("PC41^K1ABC/P^2^Boston^H5^~").processed);
  ASSERT_EQ(stored_.size(), 2u);
  EXPECT_EQ(stored_[1], "K1ABCpP|PC41^^PC41^K1ABCpP^2^Boston^H5^~");
  EXPECT_EQ(sentence_.fields[1], "K1ABC/P");
  EXPECT_EQ(*lists_.Find(2, "K1ABC/P"), "K1ABC/P Boston");
}

TEST_F(Pc41Test, MalformedSentencesAreIgnored) {
  EXPECT_FALSE(Run("PC41^Q5USR^1^Fred^extra^H5^~").processed);
  EXPECT_FALSE(Run("PC41^Q5USR^1^Fred^H5^").processed);
  EXPECT_FALSE(Run("PC41^Q5USR^1^Fred^H5").processed);
  EXPECT_FALSE(Run("PC41^Q5USR^9^Fred^H5^~").processed);  // no such type
  EXPECT_FALSE(Run("PC41^notacall^1^Fred^H5^~").processed);
  EXPECT_FALSE(Run("PC41^Q5USR^2^^H5^~").processed);
  EXPECT_TRUE(stored_.empty());
  EXPECT_TRUE(shown_.empty());
  for (int t = 1; t <= 5; ++t) EXPECT_EQ(lists_.Count(t), 0u);
}

TEST_F(Pc41Test, RejectionsWithReports) {
  EXPECT_FALSE(Run("PC41^Q5USR^1^a BADWORD here^H5^~").processed);
  ASSERT_EQ(bad_.size(), 1u);
  EXPECT_EQ(bad_[0], "Bad Word PC41 = a BADWORD here^|PC41^Q5USR^1^a BADWORD here^H5^~");

  EXPECT_FALSE(Run("PC41^Q5USR^4^my home^H5^~").processed);
  EXPECT_FALSE(Run("PC41^Q5USR^1^who?^H5^~").processed);
  ASSERT_EQ(shown_.size(), 2u);
  EXPECT_EQ(shown_[0], " BAD home node");
  EXPECT_EQ(shown_[1], " BAD Data ");
  EXPECT_TRUE(stored_.empty());
  EXPECT_EQ(lists_.Count(4), 0u);

  EXPECT_TRUE(Run("PC41^Q5USR^4^Q9ZZZ-2^H5^~").processed);
  EXPECT_EQ(lists_.Count(4), 1u);
}

// The node checks the calls in user information with the log-in's strict rule: a call no
// user could log in with is neither the subject of a PC41 nor a home node.
TEST_F(Pc41Test, CallsPassTheStrictLogInRule) {
  deps_.valid_call = [](std::string_view call) {
    CallCheckContext context;
    context.node_call = "K1QXA";
    std::string c(call);
    return ValidCall(c, /*strict=*/true, context);
  };
  for (const char* line : {"PC41^N0CALL^1^Fred^H5^~", "PC41^K1QXA^1^Fred^H5^~",
                           "PC41^W5USR/QRP^1^Fred^H5^~", "PC41^W5USR^4^N0CALL^H5^~"}) {
    EXPECT_FALSE(Run(line).processed) << line;
  }
  EXPECT_TRUE(stored_.empty());
  EXPECT_TRUE(Run("PC41^W5USR/P^4^K9PCX-2^H5^~").processed);
  EXPECT_EQ(lists_.Count(4), 1u);
}

TEST_F(Pc41Test, RepeatIsStoredOnceAndReplacementKeepsTheCount) {
  EXPECT_TRUE(Run("PC41^Q5USR^1^Fred^H30^~").processed);
  const Pc41Result again = Run("PC41^Q5USR^1^Fred^H29^~");
  EXPECT_FALSE(again.processed);
  EXPECT_FALSE(again.relay);
  EXPECT_EQ(stored_.size(), 1u);
  EXPECT_EQ(lists_.Count(1), 1u);

  EXPECT_TRUE(Run("PC41^Q5USR-7^1^Frederick^H30^~").processed);
  EXPECT_EQ(lists_.Count(1), 1u);
  EXPECT_EQ(*lists_.Find(1, "Q5USR"), "Q5USR Frederick");
  EXPECT_EQ(stored_.size(), 2u);

  EXPECT_TRUE(Run("PC41^Q6USR^1^Anne^H30^~").processed);
  EXPECT_EQ(lists_.Count(1), 2u);
  EXPECT_TRUE(Run("PC41^Q6USR^5^JO01AA^H30^~").processed);
  EXPECT_EQ(lists_.Count(5), 1u);
}

// Hops are capped at eleven; the last hop is used here and not relayed.
TEST_F(Pc41Test, HopsAreCappedAtEleven) {
  const std::tuple<const char*, const char*, bool> kCases[] = {
      {"H50", "H11", true}, {"H13", "H11", true}, {"H12", "H11", true},
      {"H5", "H4", true},   {"H1", "H0", false},
  };
  char info = 'A';
  for (const auto& [in, out, relay] : kCases) {
    const Pc41Result r = Run(std::string("PC41^Q5USR^1^") + info++ + "^" + in + "^~");
    EXPECT_TRUE(r.processed) << in;
    EXPECT_EQ(r.relay, relay) << in;
    EXPECT_EQ(sentence_.fields[4], out) << in;
  }
  Run("PC41^Q5USR^1^F^H50^~");
  EXPECT_EQ(sentence_.Join(), "PC41^Q5USR^1^F^H11^~");
}

TEST_F(Pc41Test, StoreFailureCostsOnlyThatSentence) {
  std::vector<std::string> errors;
  state_ = NodeNetState([&errors](int, std::string_view tag, std::string_view text) {
    errors.push_back(std::string(tag) + std::string(text));
  });
  deps_.store = [](std::string_view, std::string_view) { throw std::runtime_error("disk full"); };
  EXPECT_FALSE(Run("PC41^Q5USR^1^Fred^H5^~").processed);
  ASSERT_EQ(errors.size(), 1u);
  EXPECT_EQ(errors[0], "ProcessPC41 disk full step 10 PC41^Q5USR^1^Fred^H5^~");
}

}  // namespace
}  // namespace qx
