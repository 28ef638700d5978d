#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <deque>
#include <map>
#include <memory>
#include <set>

#include "core/text_util.h"
#include "mail/mail_forwarder.h"
#include "mail/mail_link.h"
#include "tests/testlib/test_util.h"

namespace qx::testing {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using Event = MailLink::Event;

const SysTime kT0 = MakeUtc(2026, 11, 15, 12, 0);

MailSentence Parse(std::string_view line) {
  const auto s = ParseMailSentence(line);
  EXPECT_TRUE(s) << line;
  return s.value_or(MailSentence{});
}

std::vector<std::string> Lines(int n) {
  std::vector<std::string> out;
  for (int i = 1; i <= n; ++i) out.push_back("line " + std::to_string(i));
  return out;
}

MailLink::Outgoing Bulletin(int id, int lines) {
  MailLink::Outgoing o;
  o.id = id;
  o.header.to_node = "DB0BBB";
  o.header.addressee = "ALL";
  o.header.author = "K1ABC";
  o.header.time = MakeUtc(2026, 11, 15, 11, 59);
  o.header.is_private = false;
  o.header.subject = "news";
  o.header.origin = "GB7AAA";
  o.lines = Lines(lines);
  return o;
}

TEST(MailLinkTest, SenderWaitsForEachAckAndFinishes) {
  MailLink link("GB7AAA", "DB0BBB");
  MailLink::Output out;
  ASSERT_TRUE(link.Offer(Bulletin(4, 7), kT0, out));
  EXPECT_FALSE(link.Offer(Bulletin(5, 1), kT0, out));  // one message at a time
  EXPECT_THAT(
      out.sentences,
      ElementsAre("PC28^DB0BBB^GB7AAA^ALL^K1ABC^15-Nov-2026^1159Z^0^news^ ^5^0^ ^GB7AAA^~\r\n"));
  out = {};
  link.OnSentence(Parse("PC30^GB7AAA^DB0BBB^9^"), kT0, out);
  ASSERT_EQ(out.sentences.size(), 5u);
  EXPECT_EQ(out.sentences[0], "PC29^DB0BBB^GB7AAA^9^line 1^~\r\n");
  out = {};
  link.OnSentence(Parse("PC33^GB7AAA^DB0BBB^9^"), kT0, out);  // out of turn
  EXPECT_THAT(out.sentences, IsEmpty());
  EXPECT_EQ(out.notes.size(), 1u);
  out = {};
  link.OnSentence(Parse("PC31^GB7AAA^DB0BBB^9^"), kT0, out);
  EXPECT_THAT(out.sentences,
              ElementsAre("PC29^DB0BBB^GB7AAA^9^line 6^~\r\n", "PC29^DB0BBB^GB7AAA^9^line 7^~\r\n",
                          "PC32^DB0BBB^GB7AAA^9^\r\n"));
  out = {};
  link.OnSentence(Parse("PC33^GB7AAA^DB0BBB^9^"), kT0, out);
  ASSERT_EQ(out.events.size(), 1u);
  EXPECT_EQ(out.events[0].kind, Event::Kind::kSent);
  EXPECT_EQ(out.events[0].id, 4);
  EXPECT_FALSE(link.sending());

  // A text of exactly one tranche still waits for its ack before the end.
  out = {};
  link.Offer(Bulletin(6, 5), kT0, out);
  link.OnSentence(Parse("PC30^GB7AAA^DB0BBB^10^"), kT0, out);
  EXPECT_NE(out.sentences.back(), "PC32^DB0BBB^GB7AAA^10^\r\n");
  out = {};
  link.OnSentence(Parse("PC31^GB7AAA^DB0BBB^10^"), kT0, out);
  EXPECT_THAT(out.sentences, ElementsAre("PC32^DB0BBB^GB7AAA^10^\r\n"));
}

TEST(MailLinkTest, SenderGivesUpOnAbortSilenceAndLinkLoss) {
  MailLink link("GB7AAA", "DB0BBB");
  MailLink::Output out;
  link.Offer(Bulletin(1, 2), kT0, out);
  out = {};
  link.OnSentence(Parse("PC42^GB7AAA^DB0BBB^3^"), kT0, out);  // refused before any stream
  ASSERT_EQ(out.events.size(), 1u);
  EXPECT_EQ(out.events[0].kind, Event::Kind::kFailed);

  out = {};
  link.Offer(Bulletin(2, 7), kT0, out);
  link.OnSentence(Parse("PC30^GB7AAA^DB0BBB^4^"), kT0, out);
  out = {};
  link.Tick(kT0 + MailLink::kAnswerTimeout - std::chrono::seconds(1), out);
  EXPECT_TRUE(out.events.empty());
  link.Tick(kT0 + MailLink::kAnswerTimeout, out);
  EXPECT_THAT(out.sentences, ElementsAre("PC42^DB0BBB^GB7AAA^4^\r\n"));
  ASSERT_EQ(out.events.size(), 1u);
  EXPECT_EQ(out.events[0].id, 2);

  out = {};
  link.Offer(Bulletin(3, 1), kT0, out);
  link.Reset(out);
  EXPECT_EQ(out.events.back().kind, Event::Kind::kFailed);
  EXPECT_FALSE(link.sending());
}

TEST(MailLinkTest, ReceiverAcksTranchesAndRefusesStrayLines) {
  MailLink link("DB0BBB", "GB7AAA");
  MailLink::Output out;
  // A line or an end without its header is answered PC42, never taken.
  link.OnSentence(Parse("PC29^DB0BBB^GB7AAA^1^stray^~"), kT0, out);
  link.OnSentence(Parse("PC32^DB0BBB^GB7AAA^1^"), kT0, out);
  EXPECT_THAT(out.sentences, ElementsAre("PC42^GB7AAA^DB0BBB^1^\r\n", "PC42^GB7AAA^DB0BBB^1^\r\n"));
  EXPECT_TRUE(out.events.empty());
  // From a node that is not this link's neighbour: dropped.
  out = {};
  link.OnSentence(Parse("PC28^DB0BBB^W1XXX^G4XYZ^K1ABC^15-Nov-2026^1159Z^1^hi^ ^5^0^ ^W1XXX^~"),
                  kT0, out);
  EXPECT_TRUE(out.sentences.empty());

  out = {};
  link.OnSentence(Parse("PC28^GB7ZZZ^GB7AAA^G4XYZ^K1ABC^15-Nov-2026^1159Z^1^hi^ ^5^0^ ^W1XXX^~"),
                  kT0, out);
  ASSERT_THAT(out.sentences, ElementsAre("PC30^GB7AAA^DB0BBB^1^\r\n"));
  out = {};
  for (int i = 1; i <= 6; ++i) {
    link.OnSentence(Parse("PC29^DB0BBB^GB7AAA^1^text " + std::to_string(i) + "^~"), kT0, out);
  }
  link.OnSentence(Parse("PC29^DB0BBB^GB7AAA^2^wrong stream^~"), kT0, out);
  EXPECT_THAT(out.sentences, ElementsAre("PC31^GB7AAA^DB0BBB^1^\r\n", "PC42^GB7AAA^DB0BBB^2^\r\n"));
  out = {};
  link.OnSentence(Parse("PC32^DB0BBB^GB7AAA^1^"), kT0, out);
  EXPECT_THAT(out.sentences, ElementsAre("PC33^GB7AAA^DB0BBB^1^\r\n"));
  ASSERT_EQ(out.events.size(), 1u);
  const MailMessage& m = out.events[0].message;
  EXPECT_EQ(out.events[0].kind, Event::Kind::kReceived);
  EXPECT_EQ(m.from, "K1ABC");
  EXPECT_EQ(m.to, "G4XYZ");
  EXPECT_TRUE(m.is_private);
  EXPECT_EQ(m.origin, "W1XXX");
  EXPECT_EQ(m.received_from, "GB7AAA");
  EXPECT_EQ(m.bound_for, "GB7ZZZ");  // addressed beyond us: passed on
  EXPECT_EQ(m.text.size(), 6u);
  EXPECT_EQ(m.text[5], "text 6");

  // A sender that falls silent is given up; its late lines are refused.
  out = {};
  link.OnSentence(Parse("PC28^DB0BBB^GB7AAA^ALL^K1ABC^15-Nov-2026^1159Z^0^b^ ^5^0^ ^GB7AAA^~"), kT0,
                  out);
  link.Tick(kT0 + MailLink::kReceiveTimeout, out);
  EXPECT_FALSE(link.receiving());
  out = {};
  link.OnSentence(Parse("PC29^DB0BBB^GB7AAA^2^late^~"), kT0, out);
  EXPECT_THAT(out.sentences, ElementsAre("PC42^GB7AAA^DB0BBB^2^\r\n"));
}

// Nodes with a store and a forwarder each, joined by links that deliver in order.
class MailNet {
 public:
  struct Node {
    explicit Node(std::filesystem::path dir) : store(dir) { store.Rebuild(); }
    MailStore store;
    std::unique_ptr<MailForwarder> fwd;
    std::map<std::string, int> routes;  // node -> stream
    std::vector<std::string> log;
  };
  struct End {
    std::string node;
    int stream;
  };

  Node& Add(const std::string& call) {
    auto node = std::make_unique<Node>(tmp_ / call);
    Node& n = *node;
    MailForwarderDeps d;
    d.store = &n.store;
    d.node_call = call;
    d.send = [this, call](int stream, std::string_view text) {
      if (!cut_.contains({call, stream}))
        queue_.push_back({wires_.at({call, stream}), std::string(text)});
    };
    d.route = [&n](std::string_view node) {
      const auto it = n.routes.find(std::string(node));
      return it == n.routes.end() ? 0 : it->second;
    };
    d.receive = [&n, call](MailMessage m) {
      if (n.store.FindKey(m.Key())) return 0;
      if (m.bound_for == call) m.bound_for.clear();
      if (!n.store.Add(m)) return 0;
      n.fwd->Stored(m.number, kT0);
      return m.number;
    };
    d.log = [&n](std::string_view t) { n.log.emplace_back(t); };
    n.fwd = std::make_unique<MailForwarder>(std::move(d));
    nodes_[call] = std::move(node);
    return n;
  }
  void Link(const std::string& a, int sa, const std::string& b, int sb) {
    wires_[{a, sa}] = {b, sb};
    wires_[{b, sb}] = {a, sa};
    nodes_[a]->fwd->LinkUp(sa, b, kT0);
    nodes_[b]->fwd->LinkUp(sb, a, kT0);
  }
  // Delivers until the wires are quiet; the number of sentences carried.
  int Run(SysTime now = kT0) {
    int carried = 0;
    while (!queue_.empty() && carried < 10000) {
      auto [to, text] = queue_.front();
      queue_.pop_front();
      ++carried;
      nodes_[to.node]->fwd->OnSentence(to.stream, text, now);
    }
    return carried;
  }
  Node& operator[](const std::string& call) { return *nodes_.at(call); }
  std::set<std::pair<std::string, int>> cut_;  // ends whose output is lost

 private:
  TempDir tmp_;
  std::map<std::string, std::unique_ptr<Node>> nodes_;
  std::map<std::pair<std::string, int>, End> wires_;
  std::deque<std::pair<End, std::string>> queue_;
};

MailMessage Written(std::string to, bool is_private, std::string origin, int lines) {
  MailMessage m;
  m.from = "K1ABC";
  m.to = std::move(to);
  m.time = kT0;
  m.subject = "subject";
  m.is_private = is_private;
  m.origin = std::move(origin);
  m.text = Lines(lines);
  return m;
}

TEST(MailForwarderTest, BulletinGoesRoundARingOnceEverywhere) {
  MailNet net;
  for (const char* n : {"GB7AAA", "DB0BBB", "W1CCC"}) net.Add(n);
  net.Link("GB7AAA", 1, "DB0BBB", 1);
  net.Link("DB0BBB", 2, "W1CCC", 1);
  net.Link("W1CCC", 2, "GB7AAA", 2);
  MailMessage m = Written("ALL", false, "GB7AAA", 12);
  ASSERT_TRUE(net["GB7AAA"].store.Add(m));
  net["GB7AAA"].fwd->Stored(m.number, kT0);
  const int carried = net.Run();
  EXPECT_LT(carried, 200);
  for (const char* n : {"GB7AAA", "DB0BBB", "W1CCC"}) {
    ASSERT_EQ(net[n].store.index().size(), 1u) << n;
    MailMessage got;
    ASSERT_TRUE(net[n].store.ReadFull(net[n].store.index().begin()->first, got));
    EXPECT_EQ(got.text, Lines(12)) << n;
  }
  EXPECT_THAT(net["GB7AAA"].store.Find(1)->forwarded_to, ElementsAre("DB0BBB", "W1CCC"));
  // Nothing is due again when the links come back up.
  net.Link("GB7AAA", 1, "DB0BBB", 1);
  net.Link("W1CCC", 2, "GB7AAA", 2);
  EXPECT_LT(net.Run(), 30);
  EXPECT_EQ(net["W1CCC"].store.index().size(), 1u);
}

TEST(MailForwarderTest, PrivateMailFollowsTheRouteAndIsRetried) {
  MailNet net;
  for (const char* n : {"GB7AAA", "DB0BBB", "W1CCC"}) net.Add(n);
  net["GB7AAA"].routes["W1CCC"] = 1;
  net["DB0BBB"].routes["W1CCC"] = 2;
  net.Link("GB7AAA", 1, "DB0BBB", 1);
  net.Link("DB0BBB", 2, "W1CCC", 1);
  net.cut_.insert({"DB0BBB", 2});  // B's link to C loses what B sends
  MailMessage m = Written("G4XYZ", true, "GB7AAA", 3);
  m.bound_for = "W1CCC";
  ASSERT_TRUE(net["GB7AAA"].store.Add(m));
  net["GB7AAA"].fwd->Stored(m.number, kT0);
  net.Run();
  ASSERT_EQ(net["DB0BBB"].store.index().size(), 1u);
  EXPECT_EQ(net["DB0BBB"].store.index().begin()->second.bound_for, "W1CCC");
  EXPECT_TRUE(net["W1CCC"].store.index().empty());
  EXPECT_THAT(net["GB7AAA"].store.Find(1)->forwarded_to, ElementsAre("DB0BBB"));

  // B's offer to C goes unanswered: given up after the timeout, tried again after the delay.
  net.cut_.clear();
  SysTime t = kT0 + MailLink::kAnswerTimeout;
  net["DB0BBB"].fwd->Tick(t);
  net.Run(t);
  EXPECT_TRUE(net["W1CCC"].store.index().empty());
  EXPECT_EQ(net["DB0BBB"].fwd->Queued(2), 1u);
  t += MailForwarder::kRetryDelay;
  net["DB0BBB"].fwd->Tick(t);
  net.Run(t);
  ASSERT_EQ(net["W1CCC"].store.index().size(), 1u);
  const MailMessage& arrived = net["W1CCC"].store.index().begin()->second;
  EXPECT_EQ(arrived.bound_for, "");  // delivered here
  EXPECT_EQ(arrived.origin, "GB7AAA");
  EXPECT_EQ(arrived.to, "G4XYZ");
  EXPECT_EQ(net["DB0BBB"].fwd->Queued(2), 0u);
}

TEST(MailForwarderTest, StuckForwardIsShownAndSentAgainOnRequest) {
  using State = MailForwarder::Pending::State;
  MailNet net;
  for (const char* n : {"GB7AAA", "DB0BBB"}) net.Add(n);
  net.Link("GB7AAA", 1, "DB0BBB", 1);
  net.cut_.insert({"GB7AAA", 1});
  MailMessage m = Written("ALL", false, "GB7AAA", 2);
  ASSERT_TRUE(net["GB7AAA"].store.Add(m));
  MailForwarder& fwd = *net["GB7AAA"].fwd;
  fwd.Stored(m.number, kT0);
  ASSERT_EQ(fwd.PendingForwards().size(), 1u);
  EXPECT_EQ(fwd.PendingForwards()[0].state, State::kSending);
  EXPECT_EQ(fwd.PendingForwards()[0].peer, "DB0BBB");

  SysTime t = kT0;
  for (int i = 0; i < MailForwarder::kMaxAttempts; ++i) {
    t += MailLink::kAnswerTimeout;
    fwd.Tick(t);
    t += MailForwarder::kRetryDelay;
    fwd.Tick(t);
  }
  ASSERT_EQ(fwd.PendingForwards().size(), 1u);
  EXPECT_EQ(fwd.PendingForwards()[0].state, State::kGivenUp);
  EXPECT_EQ(fwd.PendingForwards()[0].attempts, MailForwarder::kMaxAttempts);

  net.cut_.clear();
  EXPECT_FALSE(fwd.Requeue(99, t));
  EXPECT_TRUE(fwd.Requeue(m.number, t));
  net.Run(t);
  EXPECT_EQ(net["DB0BBB"].store.index().size(), 1u);
  EXPECT_THAT(fwd.PendingForwards(), IsEmpty());
  EXPECT_FALSE(fwd.Requeue(m.number, t));  // confirmed: nothing left to do
}

}  // namespace
}  // namespace qx::testing
