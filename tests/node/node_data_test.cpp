#include "node/node_data.h"

#include <gtest/gtest.h>

#include <map>
#include <memory>

#include "core/stream_table.h"
#include "core/time_text.h"
#include "tests/node/node_test_util.h"

namespace qx {
namespace {

constexpr int kPeer = 1;    // established PC9x link to Q9ZZZ-2
constexpr int kLegacy = 2;  // established legacy link to Q7XXX
constexpr int kFeed = 3;    // reverse-beacon feed

class ProcessNodeDataTest : public ::testing::Test {
 protected:
  ProcessNodeDataTest() : clock_(MakeUtc(2026, 11, 21, 22, 22, 42)) {
    streams_.EnsureCapacity(4);
    streams_.at(kPeer).call = "Q9ZZZ-2";
    streams_.at(kPeer).state = kStateNodePc9x;
    streams_.at(kLegacy).call = "Q7XXX";
    streams_.at(kLegacy).state = kStateNodeLegacy;
    streams_.at(kFeed).state = kStateFeedRbn;
    monitor_.Subscribe([this](const MonitorLine& l) {
      shown_.push_back({std::string(l.text), std::string(l.colour)});
    });
    Build(NodeOptions{"Q1AAA", "0.1", 0, true, false});
  }

  void Build(NodeOptions options) {
    NodeDeps deps;
    deps.streams = &streams_;
    deps.monitor = &monitor_;
    deps.output = &out_;
    deps.clock = &clock_;
    deps.errors = [this](int code, std::string_view tag, std::string_view text) {
      errors_.push_back({code, std::string(tag), std::string(text)});
    };
    deps.feed = [this](int stream, int kind, std::string_view line) {
      feed_.push_back(std::to_string(stream) + "/" + std::to_string(kind) + " " +
                      std::string(line));
    };
    deps.spot_intake = [this](const PcSentence& s, int source, int stream) {
      spots_.push_back({source, s.line});
      EXPECT_EQ(stream, s.stream);
      return true;
    };
    deps.relay = [this](int from, const PcSentence& s) { relayed_.push_back(s.Join()); };
    deps.pc93 = [this](PcSentence& s) {
      pc93_.push_back(s.line);
      return NodeDeps::Pc93Outcome::kDelivered;
    };
    deps.pc41.valid_call = [](std::string_view c) { return c.size() >= 3; };
    deps.counts_changed = [this] { ++counts_changed_; };
    proc_ = std::make_unique<NodeProcessor>(std::move(options), std::move(deps));
  }

  bool Feed(int stream, std::string_view line) { return proc_->ProcessNodeData(stream, line); }
  const std::string& Carry(int stream) { return streams_.at(stream).node_carry; }

  StreamTable streams_;
  Monitor monitor_;
  ManualClock clock_;
  test::RecordingOutput out_;
  std::vector<test::ErrorEntry> errors_;
  std::vector<test::ShownLine> shown_;
  std::vector<std::string> feed_;
  std::vector<std::pair<int, std::string>> spots_;
  std::vector<std::string> relayed_;
  std::vector<std::string> pc93_;
  int counts_changed_ = 0;
  std::unique_ptr<NodeProcessor> proc_;
};

// Spots go to intake with their source code (111 for PC11, 161 for PC61) and without the
// line-end characters around them.  Peers pass PC11 on as built ("^~"), without the trailer
// after a PC61 became a PC11, and with an empty last field: each is one spot, and the ping
// after it is answered.
TEST_F(ProcessNodeDataTest, EveryShapeOfSpotGoesToIntakeAndTheNextLineStandsAlone) {
  EXPECT_TRUE(
      Feed(kPeer, "\nPC61^14074.0^Q3DX^21-Nov-2026^2225Z^ft8^Q5USR^Q9ZZZ-2^198.51.100.7^H30^~"));
  const std::string spot = "PC11^28025.0^Q4DX^21-Nov-2026^2222Z^x^Q7USR^Q7XXX^";
  for (const std::string tail : {"H30", "H7^", "H24^~"}) {
    EXPECT_TRUE(Feed(kPeer, spot + tail + "\r")) << tail;
    EXPECT_TRUE(Feed(kPeer, "PC51^Q1AAA^Q9ZZZ-2^1^")) << tail;
    EXPECT_TRUE(Carry(kPeer).empty()) << tail;
  }
  EXPECT_TRUE(Feed(kLegacy, spot + "H25^~"));  // a legacy link's spot is coded the same
  const std::vector<std::pair<int, std::string>> kTaken = {
      {161, "PC61^14074.0^Q3DX^21-Nov-2026^2225Z^ft8^Q5USR^Q9ZZZ-2^198.51.100.7^H30^~"},
      {111, spot + "H30"},
      {111, spot + "H7^"},
      {111, spot + "H24^~"},
      {111, spot + "H25^~"}};
  EXPECT_EQ(spots_, kTaken);
  EXPECT_EQ(out_.sent.size(), 3u);
  EXPECT_TRUE(errors_.empty());
  EXPECT_TRUE(shown_.empty());
}

// Only text that came without its line end is kept; the pieces and the rest make one line.
TEST_F(ProcessNodeDataTest, APieceWithoutItsLineEndIsJoinedWithTheRest) {
  using End = NodeProcessor::LineEnd;
  EXPECT_FALSE(proc_->ProcessNodeData(kLegacy, "PC11^28025.0^Q4DX^21-Nov-", End::kMissing));
  EXPECT_FALSE(proc_->ProcessNodeData(kLegacy, "2026^2222Z^split^Q7USR", End::kMissing));
  EXPECT_TRUE(spots_.empty());
  EXPECT_TRUE(Feed(kLegacy, "^Q7XXX^H24^~"));
  ASSERT_EQ(spots_.size(), 1u);
  EXPECT_EQ(spots_[0].second, "PC11^28025.0^Q4DX^21-Nov-2026^2222Z^split^Q7USR^Q7XXX^H24^~");
  EXPECT_TRUE(Carry(kLegacy).empty());
  // A piece whose line end comes alone is the whole line.
  EXPECT_FALSE(proc_->ProcessNodeData(kLegacy, "PC16^Q7XXX^Q7USR - 1^H25^", End::kMissing));
  EXPECT_TRUE(Feed(kLegacy, ""));
  EXPECT_EQ(proc_->view().UserCount(), 1);
  EXPECT_TRUE(errors_.empty());
}

// A whole line that fails the trailer check is logged and dropped, and never taken as the
// start of the next one: the ping after it is answered every time.
TEST_F(ProcessNodeDataTest, AWholeMalformedLineIsLoggedAndTheNextOneProcessed) {
  const std::string kBad[] = {
      "PC11^28025.0^Q4DX^21-Nov-2026^2222Z^x^Q7USR^Q7XXX^~",   // no hop count
      "PC11^28025.0^Q4DX^21-Nov-2026^2222Z^x^Q7USR^Q7XXX",     // nor here
      "PC11^28025.0^Q4DX^21-Nov-2026^2222Z^x^Q7USR^Q7XXX^H0",  // none left
      "PC16^Q9ZZZ-2^Q9USR - 1^H0^",
      "PC16^Q9ZZZ-2^Q9USR - 1^H100^",
      "PC10^Q5USR^Q7USR^hello^*^ ^Q9ZZZ-2^",
      "PC10^Q5USR^Q7USR^hello^*^ ^Q9ZZZ-2^x",
      "PC10^Q5USR^Q7USR^hello^*^ ^Q9ZZZ-2^junk",
      "PC92^Q9ZZZ-2^80562^K^5Q9ZZZ-2:5300:^1^0^H99",
      "PC0A^x^",
  };
  for (const std::string& line : kBad) {
    errors_.clear();
    out_.sent.clear();
    EXPECT_FALSE(Feed(kPeer, line)) << line;
    ASSERT_EQ(errors_.size(), 1u) << line;
    EXPECT_EQ(errors_[0].code, 2000);
    EXPECT_EQ(errors_[0].tag, "HopeCheckEtc ");
    EXPECT_TRUE(test::Has(errors_[0].text, "line = " + line + " from Q9ZZZ-2"));
    EXPECT_TRUE(Carry(kPeer).empty()) << line;
    EXPECT_TRUE(Feed(kPeer, "PC51^Q1AAA^Q9ZZZ-2^1^")) << line;
    EXPECT_EQ(out_.sent.size(), 1u) << line;
  }
  EXPECT_TRUE(spots_.empty());
  EXPECT_EQ(proc_->view().UserCount(), 0);
  // An empty last field where "~" belongs is also shown on the monitor.
  ASSERT_EQ(shown_.size(), 1u);
  EXPECT_EQ(shown_[0].text, " Protocol Violation" + kBad[5] + "\r\n");
  EXPECT_EQ(shown_[0].colour, "blue");
}

// Pieces that never meet a line end must not make the kept text grow without end: past its
// bound it is dropped and logged, and the next whole sentence is taken again.
TEST_F(ProcessNodeDataTest, EndlessPiecesAreBoundedAndTheLinkRecovers) {
  const std::string piece = "PC11^28025.0^Q4DX^21-Nov-2026^2222Z^x^Q7USR^Q7XXX^H24";
  size_t longest = 0;
  const size_t pieces = NodeProcessor::kMaxNodeCarry / piece.size() + 10;
  for (size_t i = 0; i < pieces; ++i) {
    proc_->ProcessNodeData(kLegacy, piece, NodeProcessor::LineEnd::kMissing);
    longest = std::max(longest, Carry(kLegacy).size());
  }
  EXPECT_LE(longest, NodeProcessor::kMaxNodeCarry);
  EXPECT_GT(longest, NodeProcessor::kMaxNodeCarry - piece.size());
  ASSERT_FALSE(errors_.empty());
  EXPECT_EQ(errors_.back().tag, "ProcessNodeData ");
  EXPECT_TRUE(test::Has(errors_.back().text, "dropped from Q7XXX"));
  // The line that ends the pieces goes with them; the one after it stands alone.
  Feed(kLegacy, "^~");
  EXPECT_TRUE(Carry(kLegacy).empty());
  EXPECT_TRUE(Feed(kLegacy, piece + "^~"));
  ASSERT_FALSE(spots_.empty());
  EXPECT_EQ(spots_.back().second, piece + "^~");
}

// A hop count the network never gives (none left, more than 99, lower case, another letter,
// nothing where the count belongs) would end or restart a spot's travel.  The trailer check
// lets every PC61 through, so the spot handler refuses it, with a "HopsOk" entry, before
// intake; a PC11 with one is refused and logged by the trailer check.
TEST_F(ProcessNodeDataTest, SpotsNeedARealHopCount) {
  const std::string pc61 = "PC61^14074.0^Q3DX^21-Nov-2026^2225Z^ft8^Q5USR^Q9ZZZ-2^198.51.100.7^";
  const std::string pc11 = "PC11^28025.0^Q4DX^21-Nov-2026^2222Z^x^Q7USR^Q7XXX^";
  const std::string kHops = "HopsOk", kTrailer = "HopeCheckEtc ";
  const struct {
    std::string line;
    std::string logged_as;  // empty: taken
  } kCases[] = {
      {pc61 + "H1^~", ""},        {pc61 + "H99^~", ""},
      {pc61 + "H07", ""},         {pc11 + "H1^~", ""},
      {pc11 + "H99^~", ""},       {pc11 + "H99", ""},
      {pc61 + "H0^~", kHops},     {pc61 + "H100^~", kHops},
      {pc61 + "H999^~", kHops},   {pc61 + "h5^~", kHops},
      {pc61 + "X5^~", kHops},     {pc61 + "H5x^~", kHops},
      {pc61 + "~", kHops},        {pc61 + "^~", kHops},
      {pc11 + "H0^~", kTrailer},  {pc11 + "H100^~", kTrailer},
      {pc11 + "h5^~", kTrailer},  {pc11 + "~", kTrailer},
      {pc11 + "H5x^~", kTrailer}, {pc11 + "H100", kTrailer},
      {pc61 + "H7", ""},  // a PC61 needs no trailer, whatever the table says
  };
  proc_->check_flags().Set(61, 3);
  for (const auto& c : kCases) {
    spots_.clear();
    errors_.clear();
    Feed(kPeer, c.line);
    EXPECT_EQ(spots_.size(), c.logged_as.empty() ? 1u : 0u) << c.line;
    EXPECT_TRUE(relayed_.empty()) << c.line;
    ASSERT_EQ(errors_.size(), c.logged_as.empty() ? 0u : 1u) << c.line;
    if (!c.logged_as.empty()) {
      EXPECT_EQ(errors_[0].tag, c.logged_as) << c.line;
      EXPECT_TRUE(test::Has(errors_[0].text, c.line));
      EXPECT_TRUE(test::Has(errors_[0].text, "from Q9ZZZ-2"));
    }
  }
  EXPECT_EQ(proc_->check_flags().Get(61), 0);
}

// Control characters from a neighbour never get further than the line they came in: not to
// intake, not to users (talk and announcements), not to the next node.
TEST_F(ProcessNodeDataTest, ControlCharactersFromANeighbourAreLeftOut) {
  EXPECT_TRUE(Feed(kPeer,
                   "PC61^14074.0^Q3D\x01X^21-Nov-2026^2225Z^\aft8\x1b[2J \x04"
                   "cq\b\x7f^"
                   "Q5USR^Q9ZZZ-2^198.51.100.7^H30^~"));
  ASSERT_EQ(spots_.size(), 1u);
  EXPECT_EQ(spots_[0].second,
            "PC61^14074.0^Q3DX^21-Nov-2026^2225Z^ft8[2J cq^Q5USR^Q9ZZZ-2^198.51.100.7^H30^~");

  clock_.Set(MakeUtc(2026, 11, 21, 22, 25, 30));  // 80730
  EXPECT_TRUE(Feed(kPeer, "PC93^Q9ZZZ-2^80730^*^Q5\tUSR^*^ring\a\a the\r bell^^^H99^"));
  ASSERT_EQ(pc93_.size(), 1u);
  EXPECT_EQ(pc93_[0], "PC93^Q9ZZZ-2^80730^*^Q5USR^*^ring the bell^^^H99^");
  ASSERT_EQ(relayed_.size(), 1u);
  EXPECT_EQ(relayed_[0], "PC93^Q9ZZZ-2^80730^*^Q5USR^*^ring the bell^^^H98^");

  EXPECT_TRUE(Feed(kPeer,
                   "PC41^Q5USR^1^Fr\x1b"
                   "ed^H30^~"));
  EXPECT_EQ(proc_->pc41_lists().Count(1), 1u);
  ASSERT_EQ(relayed_.size(), 2u);
  EXPECT_EQ(relayed_[1], "PC41^Q5USR^1^Fred^H11^~");
}

TEST_F(ProcessNodeDataTest, Pc92IsUpperCasedOnceWhole) {
  clock_.Set(MakeUtc(2026, 11, 21, 22, 22, 42));  // 80562
  EXPECT_FALSE(proc_->ProcessNodeData(kPeer, "PC92^q9zzz-2^80562^K^5q9zzz-2:5300:^1^0^127.0",
                                      NodeProcessor::LineEnd::kMissing));
  EXPECT_TRUE(Feed(kPeer, ".0.1^none/none^H99^"));
  ASSERT_EQ(relayed_.size(), 1u);
  EXPECT_EQ(relayed_[0], "PC92^Q9ZZZ-2^80562^K^5Q9ZZZ-2:5300:^1^0^127.0.0.1^NONE/NONE^H98^");
  ASSERT_NE(proc_->view().FindNode("Q9ZZZ-2"), nullptr);
  EXPECT_EQ(proc_->view().FindNode("Q9ZZZ-2")->version, "5300");
}

TEST_F(ProcessNodeDataTest, HeaderChecksHandlerFaultsAndFeedLines) {
  EXPECT_FALSE(Feed(kPeer, "login: "));
  EXPECT_FALSE(Feed(kPeer, "Please enter your call: "));
  EXPECT_TRUE(errors_.empty());
  EXPECT_TRUE(Carry(kPeer).empty());

  EXPECT_FALSE(Feed(kPeer, "PC111^a^b^H5^~"));
  ASSERT_EQ(errors_.size(), 1u);
  EXPECT_EQ(errors_[0].tag, "ProcessNodeData");
  EXPECT_EQ(errors_[0].text, "PC111^a^b^H5^~");

  EXPECT_FALSE(Feed(kPeer, "PC40^Q1AAA^Q9ZZZ-2^x^"));
  ASSERT_EQ(errors_.size(), 2u);
  EXPECT_EQ(errors_[1].tag, "Data Not Processed PCnr ");
  EXPECT_EQ(errors_[1].text, "40 PC40^Q1AAA^Q9ZZZ-2^x^");
  EXPECT_EQ(proc_->state().current_sentence, 40);

  // A lower-case header is no sentence of ours.
  EXPECT_FALSE(Feed(kPeer, "pc11^28025.0^Q4DX^21-Nov-2026^2222Z^x^Q7USR^Q7XXX^H24^~"));
  EXPECT_FALSE(Feed(kPeer, "pc92^Q9ZZZ-2^80562^K^5Q9ZZZ-2:5300:^1^0^H99^"));
  ASSERT_EQ(errors_.size(), 4u);
  EXPECT_EQ(errors_[2].code, 999);
  EXPECT_EQ(errors_[2].tag, "ProcessNodeData ");
  EXPECT_EQ(errors_[2].text.rfind("from Q9ZZZ-2 PCnr ", 0), 0u);
  EXPECT_TRUE(test::Has(errors_[2].text, "where = pc11^"));

  // A handler's fault costs its line only.
  proc_->SetHandler(50, [](PcSentence&) -> bool { throw std::runtime_error("boom"); });
  EXPECT_FALSE(Feed(kLegacy, "PC50^Q7XXX^3^H99^"));
  ASSERT_EQ(errors_.size(), 5u);
  EXPECT_TRUE(test::Has(errors_[4].text, "boom"));
  EXPECT_TRUE(Feed(kLegacy, "PC16^Q7XXX^Q7USR - 1^H25^"));

  // Lines of a feed are no sentences: they go to the feed as they are.
  EXPECT_TRUE(Feed(kFeed, "DX de Q2SKM-#: 14025.0 Q3DX CW 12 dB 22 WPM CQ 2222Z\r"));
  ASSERT_EQ(feed_.size(), 1u);
  EXPECT_EQ(feed_[0], "3/3 DX de Q2SKM-#: 14025.0 Q3DX CW 12 dB 22 WPM CQ 2222Z");
  EXPECT_EQ(proc_->state().current_feed_kind, 3);
  EXPECT_TRUE(spots_.empty());
}

TEST_F(ProcessNodeDataTest, Pc51LinkCheckAndTheUnansweredCount) {
  streams_.at(kPeer).unanswered_pings = 2;
  EXPECT_TRUE(Feed(kPeer, "PC51^Q1AAA^Q9ZZZ-2^1^"));
  ASSERT_EQ(out_.sent.size(), 1u);
  EXPECT_EQ(out_.sent[0].stream, kPeer);
  EXPECT_EQ(out_.sent[0].text, "PC51^Q9ZZZ-2^Q1AAA^0^\r\n");
  EXPECT_EQ(streams_.at(kPeer).unanswered_pings, 0);

  // A request for another node is not answered here.
  EXPECT_FALSE(Feed(kPeer, "PC51^Q8YYY^Q9ZZZ-2^1^"));
  EXPECT_EQ(out_.sent.size(), 1u);

  // An answer resets the count even on a link that is still starting.
  streams_.at(kPeer).state = kStateNodeConnecting;
  streams_.at(kPeer).unanswered_pings = 2;
  EXPECT_TRUE(Feed(kPeer, "PC51^Q1AAA^Q9ZZZ-2^0^"));
  EXPECT_EQ(streams_.at(kPeer).unanswered_pings, 0);
  // Any sentence resets it on an established link, only an answer on a starting one.
  streams_.at(kLegacy).unanswered_pings = 2;
  Feed(kLegacy, "PC50^Q7XXX^3^H99^");
  EXPECT_EQ(streams_.at(kLegacy).unanswered_pings, 0);
  streams_.at(kLegacy).state = kStateNodeConnecting;
  streams_.at(kLegacy).unanswered_pings = 2;
  Feed(kLegacy, "PC50^Q7XXX^3^H99^");
  EXPECT_EQ(streams_.at(kLegacy).unanswered_pings, 2);
}

TEST_F(ProcessNodeDataTest, Pc18RecordsTheNeighboursClassAndPc16ItsUsers) {
  Feed(kPeer, "PC18^ExampleNode Version: 2.3 Build: 120 pc9x 91^5457^");
  EXPECT_EQ(streams_.at(kPeer).node_class, "5^5457");
  Feed(kLegacy, "PC18^ 1 nodes, 0 local / 1 total users  Max users 0  Uptime 0 00:00^5447^~");
  EXPECT_EQ(streams_.at(kLegacy).node_class, "7^5447");
  // A legacy link's PC16 counts only for the node itself.
  EXPECT_TRUE(Feed(kLegacy, "PC16^Q7XXX^Q7USR - 1^H25^"));
  EXPECT_FALSE(Feed(kLegacy, "PC16^Q6WWW^Q6USR - 1^H25^"));
  EXPECT_EQ(proc_->view().UserCount(), 1);
  EXPECT_EQ(proc_->view().RouteTo("Q7USR"), kLegacy);
}

TEST_F(ProcessNodeDataTest, Pc41IsStoredAndRelayedWithCappedHops) {
  EXPECT_TRUE(Feed(kPeer, "PC41^Q5USR^1^Fred^H30^~"));
  ASSERT_EQ(relayed_.size(), 1u);
  EXPECT_EQ(relayed_[0], "PC41^Q5USR^1^Fred^H11^~");
  EXPECT_EQ(proc_->pc41_lists().Count(1), 1u);
  EXPECT_FALSE(Feed(kLegacy, "PC41^Q5USR^1^Fred^H29^~"));
  EXPECT_EQ(relayed_.size(), 1u);
}

TEST_F(ProcessNodeDataTest, Pc93PassesTheTimeAndDuplicateChecks) {
  clock_.Set(MakeUtc(2026, 11, 21, 22, 25, 30));  // 80730
  const std::string ann = "PC93^Q9ZZZ-2^80730^*^Q5USR^*^full announcement^^198.51.100.7^H99^";
  EXPECT_TRUE(Feed(kPeer, ann));
  EXPECT_FALSE(Feed(kPeer, ann));  // same stamp again
  ASSERT_EQ(pc93_.size(), 1u);
  ASSERT_EQ(relayed_.size(), 1u);
  EXPECT_EQ(relayed_[0], "PC93^Q9ZZZ-2^80730^*^Q5USR^*^full announcement^^198.51.100.7^H98^");

  // Same text from the same origin with a new stamp within 45 s: a duplicate.
  EXPECT_FALSE(Feed(kPeer, "PC93^Q9ZZZ-2^80735^*^Q5USR^*^full announcement^^198.51.100.7^H99^"));
  EXPECT_EQ(pc93_.size(), 1u);

  // A local-only announce is delivered but not relayed.
  EXPECT_TRUE(Feed(kPeer, "PC93^Q9ZZZ-2^80740^*^Q5USR^LOCAL^just here^^^H99^"));
  EXPECT_EQ(pc93_.size(), 2u);
  EXPECT_EQ(relayed_.size(), 1u);

  // Too few fields: ignored at the shared entry.
  EXPECT_FALSE(Feed(kPeer, "PC93^Q9ZZZ-2^H99^"));
}

TEST_F(ProcessNodeDataTest, Pc92TopologyEntryFollowsTheOption) {
  clock_.Set(MakeUtc(2026, 11, 21, 22, 25, 28));  // 80728
  const std::string add = "PC92^Q9ZZZ-2^80728^A^^1Q5USR:198.51.100.7^H99^";
  EXPECT_FALSE(Feed(kPeer, add));
  EXPECT_EQ(proc_->view().UserCount(), 0);

  Build(NodeOptions{"Q1AAA", "0.1", 0, true, true});
  EXPECT_TRUE(Feed(kPeer, add));
  EXPECT_EQ(proc_->view().UserCount(), 1);
  EXPECT_EQ(proc_->view().RouteTo("Q5USR"), kPeer);
  // A D for an origin nobody knows is neither taken nor relayed.
  const size_t relayed = relayed_.size();
  EXPECT_FALSE(Feed(kPeer, "PC92^Q6WWW^80729^D^^1Q6USR^H99^"));
  EXPECT_EQ(relayed_.size(), relayed);
  EXPECT_EQ(proc_->view().FindNode("Q6WWW"), nullptr);
  // ... nor is its stamp kept: that origin's first real sentence, a second older, is taken.
  EXPECT_TRUE(Feed(kPeer, "PC92^Q6WWW^80728^A^^1Q6USR^H99^"));
  // Our own call as origin is never taken.
  EXPECT_FALSE(Feed(kPeer, "PC92^Q1AAA^80729^A^^1Q7USR^H99^"));
  EXPECT_EQ(proc_->view().UserCount(), 2);
}

TEST_F(ProcessNodeDataTest, Pc92RepeatOverASecondLinkIsRememberedAsARoute) {
  Build(NodeOptions{"Q1AAA", "0.1", 0, true, true});
  constexpr int kSecond = 4;  // a second PC9x link, to Q8YYY
  streams_.at(kSecond).call = "Q8YYY";
  streams_.at(kSecond).state = kStateNodePc9x;
  proc_->view().LinkUp(kPeer, "Q9ZZZ-2", true);
  proc_->view().LinkUp(kSecond, "Q8YYY", true);
  clock_.Set(MakeUtc(2026, 11, 21, 22, 25, 28));  // 80728
  EXPECT_TRUE(Feed(kPeer, "PC92^Q6WWW^80728^C^5Q6WWW:5457^7Q5OLD^1Q6USR^H97^"));
  // An older sentence of the origin that arrives late says nothing about the way it came.
  EXPECT_TRUE(Feed(kPeer, "PC92^Q6WWW^80729^A^7Q5OLD^1Q5USR^H97^"));
  EXPECT_FALSE(Feed(kSecond, "PC92^Q6WWW^80728^C^5Q6WWW:5457^7Q5OLD^1Q6USR^H96^"));
  EXPECT_EQ(proc_->view().FindNode("Q6WWW")->routes.count(kSecond), 0u);
  // The copy of the last one does, and is neither applied nor passed on again.
  EXPECT_FALSE(Feed(kSecond, "PC92^Q6WWW^80729^A^7Q5OLD^1Q5USR^H96^"));
  EXPECT_EQ(relayed_.size(), 2u);
  EXPECT_EQ(proc_->view().FindNode("Q6WWW")->routes,
            (std::map<int, int>{{kPeer, 97}, {kSecond, 96}}));
}

TEST_F(ProcessNodeDataTest, QuietNodeIsForgottenWithItsTimeStamp) {
  Build(NodeOptions{"Q1AAA", "0.1", 0, true, true});
  proc_->view().LinkUp(kPeer, "Q9ZZZ-2", true);
  clock_.Set(MakeUtc(2026, 11, 21, 22, 25, 28));  // 80728
  EXPECT_TRUE(Feed(kPeer, "PC92^Q6WWW^80728^K^5Q6WWW:5457:1^1^0^H97^"));
  for (int i = 0; i < NetworkView::kLife - 1; ++i) EXPECT_TRUE(proc_->ExpireQuietNodes().empty());
  const int changes = counts_changed_;
  EXPECT_EQ(proc_->ExpireQuietNodes(), std::vector<std::string>{"Q6WWW"});
  EXPECT_EQ(counts_changed_, changes + 1);
  EXPECT_EQ(proc_->view().FindNode("Q6WWW"), nullptr);
  EXPECT_EQ(proc_->time_check().Last("Q6WWW"), -1);
  EXPECT_NE(proc_->view().FindNode("Q9ZZZ-2"), nullptr);
  // Back the next day, earlier in the day than the last stamp it sent: welcome all the same.
  clock_.Set(MakeUtc(2026, 11, 22, 19, 0, 0));  // 68400
  EXPECT_TRUE(Feed(kPeer, "PC92^Q6WWW^68400^K^5Q6WWW:5457:1^1^0^H97^"));
  EXPECT_NE(proc_->view().FindNode("Q6WWW"), nullptr);
}

}  // namespace
}  // namespace qx
