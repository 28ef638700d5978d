// The node network manager driven through its public interface: several managers joined by
// in-memory wires (what one sends on a stream arrives as lines on the other's stream), or
// one manager talking to a scripted peer.
#include "node/node_network.h"

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <set>

#include "core/config.h"
#include "core/stream_output.h"
#include "core/stream_table.h"
#include "core/text_util.h"
#include "core/time_text.h"
#include "node/qx11.h"
#include "spots/spot.h"
#include "tests/node/node_test_util.h"

namespace qx {
namespace {

using namespace std::chrono_literals;

class FakeOut : public StreamOutput {
 public:
  void SendToStream(int stream, std::string_view text) override {
    sent.push_back({stream, std::string(text)});
  }
  void CloseStream(int stream) override { closed.push_back(stream); }
  void SetStreamIdentity(int stream, std::string_view call, int state) override {
    identity[stream] = {std::string(call), state};
  }
  void SetStreamAttributes(int stream, std::string_view text) override {
    attributes[stream] = std::string(text);
  }
  // Everything sent to stream, joined.
  std::string To(int stream) const {
    std::string all;
    for (const auto& [s, t] : sent) {
      if (s == stream) all += t;
    }
    return all;
  }
  std::vector<std::pair<int, std::string>> sent;
  std::vector<int> closed;
  std::map<int, std::pair<std::string, int>> identity;
  std::map<int, std::string> attributes;
};

size_t Count(std::string_view text, std::string_view what) {
  size_t n = 0;
  for (size_t p = text.find(what); p != std::string_view::npos; p = text.find(what, p + 1)) ++n;
  return n;
}

// One node: its stream table, output and manager.  Spots that reach the intake are kept in a
// set, the way the real intake refuses duplicates, and accepted ones are relayed.
struct TestNode {
  TestNode(std::string call, const std::string& cfg_text, const Clock& clock,
           NodeNetworkOptions base = {})
      : call(std::move(call)), cfg_text(cfg_text), clock(clock), base(base) {
    Build();
  }

  void Build() {
    Config cfg = ParseCfg(cfg_text);
    NodeNetworkOptions o = base;
    o.our_call = this->call;
    o.version = "0.1";
    NodeNetworkDeps d;
    d.streams = &streams;
    d.out = &out;
    d.clock = &clock;
    d.open_outgoing = [this](std::string_view host, int port, std::string_view label) {
      opened.push_back(std::string(label));
    };
    d.spot_intake = [this](std::string_view sentence, int, int stream) {
      return TakeSpot(sentence, nullptr, stream);
    };
    d.qx11_intake = [this](std::string_view sentence, const Spot& carried, int stream) {
      return TakeSpot(sentence, &carried, stream);
    };
    d.pc41.store = [this](std::string_view c, std::string_view line) {
      stored_pc41.push_back(std::string(c) + "|" + std::string(line));
    };
    d.counts_changed = [this] { ++counts_changed; };
    // WWV/WCY: each report taken once, the way the propagation service refuses repeats.
    d.propagation = [this](const PcSentence& s) {
      return seen_reports.insert(s.fields[0] + s.fields[2] + s.fields[7]).second;
    };
    d.errors = [this](int, std::string_view tag, std::string_view text) {
      errors.push_back(std::string(tag) + ": " + std::string(text));
    };
    d.announce_gate = [this](std::string_view from, std::string_view to, std::string_view text,
                             std::string_view origin) {
      return announce_gate ? announce_gate(from, to, text, origin) : NodeNetworkDeps::UserGate();
    };
    net = std::make_unique<NodeNetwork>(o, std::move(d));
    net->Configure(cfg);
    streams.EnsureCapacity(32);
  }

  // The node program restarts while the front-end keeps every connection: the stream table
  // comes back as the front-end reports it (with the attributes it kept), the manager is new,
  // and it starts from the state file when there is one.
  void Restart(bool with_state_file) {
    const std::string saved = net->SavedState();
    net.reset();
    Build();
    std::string error;
    if (with_state_file) {
      ASSERT_TRUE(net->LoadSavedState(saved, &error)) << error;
    }
    for (int s = 1; s <= streams.high_socket(); ++s) {
      StreamEntry& e = streams.at(s);
      e.frontend_attributes = out.attributes[s];
      if (e.state != kStateFree) net->OnStreamRecovered(s);
    }
    net->RecoveryComplete();
  }

  bool TakeSpot(std::string_view sentence, const Spot* carried, int stream) {
    const auto f = Split(sentence, '^');
    const std::string key = std::string(f[1]) + "|" + std::string(f[2]) + "|" + std::string(f[6]);
    intake.push_back(std::string(sentence));
    if (!seen_spots.insert(key).second) return false;
    Spot spot = carried ? *carried : Spot();
    const bool pc61 = f[0] == "PC61";
    for (int i = 0; i <= kSlotOriginNode; ++i) spot.slots[size_t(i)] = f[size_t(i)];
    spot.slots[kSlotAddress] = pc61 ? std::string(f[8]) : "";
    spot.slots[kSlotHops] = std::string(f[pc61 ? 9 : 8]);
    if (carried) last_carried = spot;
    net->RelaySpot(spot, stream);
    return true;
  }

  // A logged-in local user on stream.
  decltype(NodeNetworkDeps::announce_gate) announce_gate;  // the users' rules, when set

  void AddUser(int stream, std::string_view user, uint32_t switches = ~0u) {
    StreamEntry& e = streams.at(stream);
    e.state = kStateUser;
    e.call = std::string(user);
    e.peer_address = "198.51.100.7:4000";
    e.session.switches = switches;
    net->UserLoggedInOut(user, stream, true);
  }

  std::string call;
  std::string cfg_text;
  const Clock& clock;
  NodeNetworkOptions base;
  StreamTable streams;
  FakeOut out;
  std::unique_ptr<NodeNetwork> net;
  std::vector<std::string> opened;
  std::vector<std::string> intake;
  std::set<std::string> seen_spots;
  Spot last_carried;  // the last spot taken from a QX11
  std::set<std::string> seen_reports;
  std::vector<std::string> stored_pc41;
  std::vector<std::string> errors;
  int counts_changed = 0;
};

// Joins nodes: lines sent by one end of a wire arrive at the other.
class Network {
 public:
  explicit Network(const Clock& clock) : clock_(clock) {}

  TestNode& Add(const std::string& call, const std::string& cfg, NodeNetworkOptions o = {}) {
    nodes_.push_back(std::make_unique<TestNode>(call, cfg, clock_, o));
    return *nodes_.back();
  }

  // b calls a through the outgoing connection named label; the link runs its handshake.
  void Link(TestNode& a, int sa, TestNode& b, int sb, const std::string& label) {
    wires_.push_back({&a, sa, &b, sb});
    wires_.push_back({&b, sb, &a, sa});
    StreamEntry& out = b.streams.at(sb);
    b.streams.Reset(sb);
    out.state = kStateLoggingIn;
    out.connection_label = label;
    ASSERT_TRUE(b.net->OnConnectRequest(sb));
    // The acceptor's banner; the caller answers the prompt with its call.
    b.net->OnLine(sb, "Please enter your call: ");
    b.net->OnPartialLine(sb, "login: ");
    a.streams.Reset(sa);
    a.streams.at(sa).state = kStateLoggingIn;
    const std::string first = TakeFrom(b, sb);
    ASSERT_EQ(first, b.call + "\r\n");
    ASSERT_TRUE(a.net->OnNodeLogin(sa, b.call));
    Pump();
  }

  // Delivers until nothing more moves.
  void Pump() {
    for (int round = 0; round < 100; ++round) {
      bool moved = false;
      for (const Wire& w : wires_) {
        std::string text = TakeFrom(*w.from, w.from_stream);
        if (text.empty()) continue;
        moved = true;
        for (std::string_view line : SplitLines(text)) {
          if (!line.empty()) w.to->net->OnLine(w.to_stream, line);
        }
      }
      if (!moved) return;
    }
    FAIL() << "the network never went quiet";
  }

  // Cuts a wire: both ends see their stream close.
  void Cut(TestNode& a, int sa, TestNode& b, int sb) {
    std::erase_if(wires_, [&](const Wire& w) {
      return (w.from == &a && w.from_stream == sa) || (w.from == &b && w.from_stream == sb);
    });
    a.net->OnStreamClosed(sa);
    a.streams.Reset(sa);
    b.net->OnStreamClosed(sb);
    b.streams.Reset(sb);
    Pump();
  }

  // What a node sent on stream since the last take (wires take theirs in Pump).
  std::string TakeFrom(TestNode& n, int stream) {
    std::string text;
    size_t& cursor = cursors_[{&n, stream}];
    for (size_t i = cursor; i < n.out.sent.size(); ++i) {
      if (n.out.sent[i].first == stream) text += n.out.sent[i].second;
    }
    // Remember how far this stream has been read: everything up to the end.
    cursor = n.out.sent.size();
    // Other streams' text before the cursor stays readable through FakeOut::To.
    return text;
  }

 private:
  struct Wire {
    TestNode* from;
    int from_stream;
    TestNode* to;
    int to_stream;
  };
  const Clock& clock_;
  std::vector<std::unique_ptr<TestNode>> nodes_;
  std::vector<Wire> wires_;
  std::map<std::pair<TestNode*, int>, size_t> cursors_;
};

std::string Cfg(std::initializer_list<std::string> defined,
                std::initializer_list<std::string> outgoing = {}) {
  std::string cfg = "Cluster Call^X\r\n";
  // "CALL" is a node of this software; "CALL TYPE" names another type.
  for (const std::string& d : defined) {
    cfg += "Node Call & Node Type^" + d + (d.find(' ') == std::string::npos ? " QXC" : "") + "\r\n";
  }
  for (const std::string& o : outgoing) {
    cfg += "Outgoing Cluster^" + o + "\r\nRemoteNodeIs^QXC" +
           "\r\nIP Address^127.0.0.1\r\nIP Port^7300\r\nCluster Active^True\r\n";
  }
  return cfg;
}

class NodeNetworkTest : public ::testing::Test {
 protected:
  struct Pair {
    TestNode& a;
    TestNode& b;
  };
  // Q2BBB calls Q1AAA and their link comes up: A's end is stream 5, B's stream 7.
  Pair LinkedPair(NodeNetworkOptions o = {}) {
    TestNode& a = net_.Add("Q1AAA", Cfg({"Q2BBB"}), o);
    TestNode& b = net_.Add("Q2BBB", Cfg({"Q1AAA"}, {"Q1AAA"}), o);
    net_.Link(a, 5, b, 7, "Q1AAA");
    return {a, b};
  }
  // n calls the outgoing connection named label on stream.
  static void Call(TestNode& n, int stream, const std::string& label) {
    n.streams.at(stream).state = kStateLoggingIn;
    n.streams.at(stream).connection_label = label;
    ASSERT_TRUE(n.net->OnConnectRequest(stream));
  }
  // The node call logs in to n on stream.
  static void Accept(TestNode& n, int stream, std::string_view call) {
    n.streams.at(stream).state = kStateLoggingIn;
    ASSERT_TRUE(n.net->OnNodeLogin(stream, call));
  }
  // n's timers run for hours in five-minute steps, the wires delivering after each; a legacy
  // neighbour on legacy_stream, when given, keeps its link alive with PC50.
  void RunHours(TestNode& n, int hours, int legacy_stream = 0) {
    for (int i = 0; i < 12 * hours; ++i) {
      clock_.Advance(std::chrono::seconds(300));
      if (legacy_stream != 0) n.net->OnLine(legacy_stream, "PC50^Q7XXX^0^H99^");
      n.net->Tick();
      net_.Pump();
    }
  }
  // A scripted legacy neighbour logs in to n and sends its configuration and PC20; what n
  // answered before the wires delivered again.
  std::string LinkLegacy(TestNode& n, int stream, std::string_view call,
                         std::initializer_list<std::string_view> config) {
    Accept(n, stream, call);
    EXPECT_EQ(Count(net_.TakeFrom(n, stream), "PC18^"), 1u);
    for (std::string_view line : config) n.net->OnLine(stream, line);
    n.net->OnLine(stream, "PC20^");
    EXPECT_EQ(n.streams.at(stream).state, kStateNodeLegacy);
    const std::string reply = net_.TakeFrom(n, stream);
    net_.Pump();
    return reply;
  }
  std::string Stamp() const { return std::to_string(SecondsOfDay(clock_.Now())); }

  ManualClock clock_{MakeUtc(2026, 11, 21, 22, 0, 0)};
  Network net_{clock_};
};

// Link start-up ----------------------------------------------------------------------------

TEST_F(NodeNetworkTest, TwoNodesLinkInBothRolesAndSeeEachOther) {
  TestNode& a = net_.Add("Q1AAA", Cfg({"Q2BBB"}));
  TestNode& b = net_.Add("Q2BBB", Cfg({"Q1AAA"}, {"Q1AAA"}));
  b.net->SetReady(true);
  b.net->Tick();
  ASSERT_EQ(b.opened, std::vector<std::string>{"Q1AAA"});
  net_.Link(a, 5, b, 7, "Q1AAA");

  EXPECT_EQ(a.streams.at(5).state, kStateNodePc9x);
  EXPECT_EQ(b.streams.at(7).state, kStateNodePc9x);
  EXPECT_EQ(a.out.identity[5], (std::pair<std::string, int>{"Q2BBB", kStateNodePc9x}));
  EXPECT_EQ(b.out.identity[7], (std::pair<std::string, int>{"Q1AAA", kStateNodePc9x}));
  // Only the acceptor introduced itself with PC18.
  EXPECT_EQ(Count(a.out.To(5), "PC18^QX Cluster Version: 5457 Build: 0.001 pc9x^5457^"), 1u);
  EXPECT_EQ(Count(b.out.To(7), "PC18"), 0u);
  ASSERT_NE(a.net->view().FindNode("Q2BBB"), nullptr);
  ASSERT_NE(b.net->view().FindNode("Q1AAA"), nullptr);
  EXPECT_EQ(a.net->NodeCount(), 1);
  ASSERT_EQ(a.net->Links().size(), 1u);
  EXPECT_TRUE(a.net->Links()[0].up);
  EXPECT_FALSE(a.net->Links()[0].outgoing);
  EXPECT_TRUE(b.net->Links()[0].outgoing);

  // Users logged in before and after the link count on the other side.
  a.AddUser(1, "Q5USR");
  net_.Pump();
  EXPECT_EQ(b.net->RemoteUserCount(), 1);
  a.net->UserLoggedInOut("Q5USR", 1, false);
  net_.Pump();
  EXPECT_EQ(b.net->RemoteUserCount(), 0);
}

TEST_F(NodeNetworkTest, DefinedNodesAndTheStyleTheirTypeExpects) {
  EXPECT_EQ(NodeNetwork::StyleOfType("QXC"), NodeNetwork::Style::kPc9x);
  EXPECT_EQ(NodeNetwork::StyleOfType("dxs pc9x"), NodeNetwork::Style::kPc9x);
  EXPECT_EQ(NodeNetwork::StyleOfType("ARC"), NodeNetwork::Style::kLegacy);
  EXPECT_EQ(NodeNetwork::StyleOfType(""), NodeNetwork::Style::kLegacy);
  TestNode& a = net_.Add("Q1AAA", Cfg({"Q2BBB"}));
  EXPECT_FALSE(a.net->OnNodeLogin(3, "Q5USR"));  // an undefined call is no node
  EXPECT_TRUE(a.net->IsDefinedNode("q2bbb"));
  EXPECT_TRUE(a.out.sent.empty());
  // The "Nodes" list defines nodes too.
  Config cfg = ParseCfg(Cfg({"Q2BBB"}));
  cfg.List("Nodes").Add("Q3CCC ARC");
  cfg.List("LocalNodes").Add("Q4DDD");
  a.net->Configure(cfg);
  EXPECT_TRUE(a.net->IsDefinedNode("Q2BBB"));
  EXPECT_TRUE(a.net->IsDefinedNode("Q3CCC"));
  EXPECT_TRUE(a.net->IsDefinedNode("Q4DDD"));
}

TEST_F(NodeNetworkTest, AcceptsALegacyPeerWithStrayLinesAndMissingTrailers) {
  TestNode& a = net_.Add("Q1AAA", Cfg({"Q7XXX"}));
  a.AddUser(1, "Q5USR");
  Accept(a, 4, "Q7XXX");
  EXPECT_EQ(net_.TakeFrom(a, 4), "PC18^QX Cluster Version: 5457 Build: 0.001 pc9x^5457^\r\n");
  for (std::string_view l :
       {"0", "PC19^1^Q7XXX^0^5455^H25^", "PC16^Q7XXX^Q7USR - 1^H25^", "PC20"}) {
    a.net->OnLine(4, l);
  }
  const std::string reply = net_.TakeFrom(a, 4);
  EXPECT_TRUE(test::Has(reply, "PC19^1^Q1AAA^0^5457^H99^\r\n"));
  EXPECT_TRUE(test::Has(reply, "PC16^Q1AAA^Q5USR - 1^H99^\r\n"));
  EXPECT_EQ(reply.substr(reply.size() - 7), "PC22^\r\n");
  EXPECT_EQ(a.streams.at(4).state, kStateNodeLegacy);
  EXPECT_EQ(a.net->RemoteUserCount(), 1);
  // Legacy peers hear about users in PC16/PC17.
  a.net->UserLoggedInOut("Q6NEW", 2, true);
  EXPECT_EQ(net_.TakeFrom(a, 4), "PC16^Q1AAA^Q6NEW - 1^H99^\r\n");
}

// A pc9x node of another kind: its second prompt arrives caught up with its PC18.
TEST_F(NodeNetworkTest, CallsAPc9xAcceptorThatSpeaksPc92) {
  TestNode& b = net_.Add("Q8YYY", Cfg({"Q9ZZZ-2"}, {"Q9ZZZ-2"}));
  Call(b, 6, "Q9ZZZ-2");
  b.net->OnLine(6, "Please enter your call: ");
  EXPECT_EQ(net_.TakeFrom(b, 6), "Q8YYY\r\n");
  const std::string t = Stamp();
  b.net->OnLine(6, "login: PC18^ExampleNode Version: 2.3 Build: 120 pc9x 91^5300^");
  const std::string config = net_.TakeFrom(b, 6);
  EXPECT_TRUE(test::Has(config, "PC92^Q8YYY^" + t + "^C^5Q8YYY:5457^"));
  EXPECT_TRUE(config.ends_with("PC20^\r\n")) << config;
  b.net->OnLine(6, "PC92^Q9ZZZ-2^" + t + "^A^^5Q8YYY:127.0.0.1^H99^");
  b.net->OnLine(6, "PC92^Q9ZZZ-2^" + t + ".01^K^5Q9ZZZ-2:5300:^1^0^127.0.0.1^none/none^H99^");
  b.net->OnLine(6, "PC22^");
  EXPECT_EQ(b.streams.at(6).state, kStateNodePc9x);
  const NetworkView::Node* peer = b.net->view().FindNode("Q9ZZZ-2");
  ASSERT_NE(peer, nullptr);
  EXPECT_EQ(peer->version, "5300");
}

// Relay ------------------------------------------------------------------------------------

class RingTest : public NodeNetworkTest {
 protected:
  // A (stream 11 to B, 13 to C), B (21 to A, 23 to C), C (31 to A, 32 to B).
  void SetUp() override {
    // A knows B as a node of this software, C as a PC9x node of another kind.
    a_ = &net_.Add("Q1AAA", Cfg({"Q2BBB", "Q3CCC DXS pc9x"}, {"Q2BBB"}));
    b_ = &net_.Add("Q2BBB", Cfg({"Q1AAA", "Q3CCC"}, {"Q3CCC"}));
    c_ = &net_.Add("Q3CCC", Cfg({"Q1AAA", "Q2BBB"}, {"Q1AAA"}));
    net_.Link(*b_, 21, *a_, 11, "Q2BBB");
    net_.Link(*c_, 32, *b_, 23, "Q3CCC");
    net_.Link(*a_, 13, *c_, 31, "Q1AAA");
    a_->AddUser(1, "Q5USR");
    b_->AddUser(1, "Q6USR");
    c_->AddUser(1, "Q7USR");
    c_->AddUser(2, "Q7QUIET", kDefaultSwitches & ~(kSwAnnouncements | kSwTalk | kSwWx));
    net_.Pump();
  }
  // A fourth, legacy neighbour Q7XXX logs in to A on stream 15 and sends its configuration.
  void LinkLegacyToA(std::initializer_list<std::string_view> config) {
    a_->net->Configure(ParseCfg(Cfg({"Q2BBB", "Q3CCC DXS pc9x", "Q7XXX ARC"}, {"Q2BBB"})));
    LinkLegacy(*a_, 15, "Q7XXX", config);
    net_.TakeFrom(*a_, 15);
  }
  Spot LocalSpot(std::string_view address) {
    Spot s;
    s.slots = {"PC61",    "14025.0", "Q4DX",  "21-Nov-2026",        "2200Z",
               "cq test", "Q5USR",   "Q1AAA", std::string(address), "H100",
               "~"};
    s.IsLocal = true;
    return s;
  }
  TestNode* a_;
  TestNode* b_;
  TestNode* c_;
};

TEST_F(RingTest, EveryNodeKnowsEveryUser) {
  for (TestNode* n : {a_, b_, c_}) {
    EXPECT_EQ(n->net->NodeCount(), 2) << n->call;
    EXPECT_EQ(n->net->Links().size(), 2u) << n->call;
  }
  EXPECT_EQ(a_->net->RemoteUserCount(), 3);
  EXPECT_EQ(c_->net->RemoteUserCount(), 2);
  const auto who = a_->net->Lines("who");
  ASSERT_EQ(who.size(), 3u);
  EXPECT_TRUE(test::Has(who[0], "Q6USR"));
}

TEST_F(RingTest, SpotFromAPrivateOrUnknownAddressTravelsAsPc11) {
  for (const char* address : {"192.168.1.2", "127.0.0.1", ""}) {
    const size_t before = Count(a_->out.To(13), "PC11^");
    Spot s = LocalSpot(address);
    s.slots[kSlotDxCall] = std::string("Q4DX") + (address[0] ? address : "none");
    a_->net->RelaySpot(s, 1);
    EXPECT_EQ(Count(a_->out.To(13), "PC11^"), before + 1) << address;
    EXPECT_EQ(Count(a_->out.To(13), "PC61^"), 0u) << address;
    // Nor does a QX11 carry it.
    const std::string qx11 = a_->out.To(11);
    EXPECT_TRUE(test::Has(qx11, "^Q5USR^Q1AAA^^"));
    if (address[0]) {
      EXPECT_EQ(qx11.find("^" + std::string(address) + "^"), std::string::npos) << address;
    }
  }
}

// A spot in hand whose hop field went bad never starts afresh: it is not passed on and the
// decrement logs it.  (What a neighbour sends with a bad count or control characters stops
// at the node-data checks.)  A spot on its last hop is used here but goes no further.
TEST_F(RingTest, SpotsTravelOnOnlyWithARealHopCount) {
  Spot in_hand = LocalSpot("198.51.100.7");
  in_hand.slots[kSlotHops] = "h5";
  a_->net->RelaySpot(in_hand, 1);
  EXPECT_EQ(Count(a_->out.To(11) + a_->out.To(13), "Q4DX"), 0u);
  ASSERT_EQ(a_->errors.size(), 1u);
  EXPECT_EQ(a_->errors[0], "HopsOk: hop field = h5");
  b_->net->OnLine(21, "PC11^7010.0^Q4LAST^21-Nov-2026^2200Z^last hop^Q5USR^Q1AAA^H1^~");
  EXPECT_EQ(b_->seen_spots.size(), 1u);
  EXPECT_EQ(Count(b_->out.To(23), "Q4LAST"), 0u);
}

// One spot, three kinds of neighbour: the node of this software hears everything QX11 can
// say, the PC9x node of another kind a PC61, the legacy node a PC11.  It reaches every node
// once, one hop less at each, and never goes back.
TEST_F(RingTest, EachKindOfNeighbourGetsTheSpotOnceInItsOwnSentence) {
  LinkLegacyToA({"PC19^1^Q7XXX^0^5455^H25^"});
  Spot s = LocalSpot("198.51.100.7");
  s.Id = 42;
  s.SpotterGrid = "FN42";
  s.FrequencyKHz = 14025.0;
  const size_t mark = a_->out.sent.size();
  a_->net->RelaySpot(s, 1);
  std::map<int, std::string> sent;  // read without taking: the wires still deliver it
  for (size_t i = mark; i < a_->out.sent.size(); ++i) {
    sent[a_->out.sent[i].first] += a_->out.sent[i].second;
  }
  const std::string to_b = sent[11], to_c = sent[13], to_legacy = sent[15];
  EXPECT_EQ(to_b,
            "QX11^1^14025.0^Q4DX^21-Nov-2026^2200Z^cq test^Q5USR^Q1AAA^198.51.100.7^CW^I^C^^^^^^"
            "FN42^^^^^42^H99^~\r\n");
  EXPECT_EQ(to_c, "PC61^14025.0^Q4DX^21-Nov-2026^2200Z^cq test^Q5USR^Q1AAA^198.51.100.7^H99^~\r\n");
  EXPECT_EQ(to_legacy, "PC11^14025.0^Q4DX^21-Nov-2026^2200Z^cq test^Q5USR^Q1AAA^H99^~\r\n");
  // B took what QX11 carried; what B passes on to C (also of this software) keeps it.
  net_.Pump();
  EXPECT_EQ(b_->last_carried.OriginId, 42u);
  EXPECT_EQ(b_->last_carried.SpotterGrid, "FN42");
  EXPECT_EQ(b_->last_carried.Mode, "CW");
  EXPECT_TRUE(test::Has(b_->out.To(23), "^Q1AAA^198.51.100.7^CW^"));
  EXPECT_TRUE(test::Has(b_->out.To(23), "^FN42^^^^^42^H98^~"));
  // C heard it from A and from B and took it once; nobody sent it back towards A.
  EXPECT_EQ(b_->seen_spots.size(), 1u);
  EXPECT_EQ(c_->seen_spots.size(), 1u);
  EXPECT_EQ(b_->intake.size() + c_->intake.size(), 3u);
  EXPECT_TRUE(a_->intake.empty());
  EXPECT_EQ(Count(b_->out.To(21) + c_->out.To(31), "Q4DX"), 0u);
}

// A QX11 from a neighbour of this software goes through intake like a PC61 and on to the
// other kinds of neighbour as PC61 and PC11, one hop less, and once only.
TEST_F(RingTest, Qx11FromANeighbourGoesOnInTheOthersSentences) {
  LinkLegacyToA({"PC19^1^Q7XXX^0^5455^H25^"});
  Spot s = LocalSpot("198.51.100.9");
  s.slots[kSlotOriginNode] = "Q2BBB";
  s.slots[kSlotSpotter] = "Q6USR";
  s.SkimmerVerdict = 'V';
  s.SkimmerCount = 3;
  s.OriginId = 9;
  s.DxGrid = "JO62";
  std::string line;
  BuildQx11(s, "H20", "198.51.100.9", line);
  a_->net->OnLine(11, line);
  a_->net->OnLine(11, line);  // heard again: a duplicate
  EXPECT_EQ(a_->intake.size(), 2u);
  EXPECT_EQ(a_->intake[0],
            "PC61^14025.0^Q4DX^21-Nov-2026^2200Z^cq test^Q6USR^Q2BBB^198.51.100.9^H20^~");
  EXPECT_EQ(a_->last_carried.SkimmerVerdict, 'V');
  EXPECT_EQ(a_->last_carried.SkimmerCount, 3);
  EXPECT_EQ(a_->last_carried.OriginId, 9u);
  EXPECT_EQ(a_->last_carried.DxGrid, "JO62");
  EXPECT_EQ(net_.TakeFrom(*a_, 13),
            "PC61^14025.0^Q4DX^21-Nov-2026^2200Z^cq test^Q6USR^Q2BBB^198.51.100.9^H19^~\r\n");
  EXPECT_EQ(net_.TakeFrom(*a_, 15),
            "PC11^14025.0^Q4DX^21-Nov-2026^2200Z^cq test^Q6USR^Q2BBB^H19^~\r\n");
  EXPECT_EQ(net_.TakeFrom(*a_, 11), "");  // never back where it came from

  // One that cannot be read is logged with the reason and the neighbour, and goes nowhere.
  a_->net->OnLine(11, "QX11^1^14025.0^Q4BAD^21-Nov-2026^2200Z^x^Q6USR^Q2BBB^H20^~");
  a_->net->OnLine(11, std::string(line).replace(line.rfind("H20"), 3, "H0"));
  EXPECT_EQ(a_->intake.size(), 2u);
  ASSERT_EQ(a_->errors.size(), 2u);
  EXPECT_TRUE(test::Has(a_->errors[0], "QX11: spot dropped (too few fields)"));
  EXPECT_TRUE(test::Has(a_->errors[1], "(no hop count)"));
  EXPECT_TRUE(test::Has(a_->errors[1], "from Q2BBB"));
  EXPECT_EQ(net_.TakeFrom(*a_, 13) + net_.TakeFrom(*a_, 15), "");
}

TEST_F(RingTest, AnnouncementReachesEveryUserOnce) {
  a_->net->Announce("Q5USR", "*", "full announcement");
  net_.Pump();
  EXPECT_EQ(Count(b_->out.To(1), "To ALL de Q5USR: full announcement\r\n"), 1u);
  EXPECT_EQ(Count(c_->out.To(1), "To ALL de Q5USR: full announcement\r\n"), 1u);
  EXPECT_EQ(Count(a_->out.To(1), "full announcement"), 0u);  // the sender's node shows it itself
  EXPECT_EQ(Count(c_->out.To(2), "full announcement"), 0u);  // SET/NOANNOUNCE
  a_->net->Announce("Q5USR", "WX", "rain");
  net_.Pump();
  EXPECT_EQ(Count(b_->out.To(1), "WX de Q5USR: rain\r\n"), 1u);
  EXPECT_EQ(Count(c_->out.To(2), "rain"), 0u);

  // The same announcement again a minute later (a new stamp, past the 45 s PC93 window):
  // nobody sees it twice and it does not go round again.
  clock_.Advance(std::chrono::seconds(60));
  const size_t b_sent = b_->out.To(23).size();
  b_->net->OnLine(21, "PC93^Q1AAA^" + Stamp() + "^*^Q5USR^*^full announcement^^^H99^");
  net_.Pump();
  EXPECT_EQ(Count(b_->out.To(1), "full announcement"), 1u);
  EXPECT_EQ(b_->out.To(23).size(), b_sent);
}

TEST_F(RingTest, ReceivedAnnouncementsReachOnlyTheirAudienceAndPassEachUsersRules) {
  b_->AddUser(2, "Q6SYS");
  b_->streams.at(2).privilege = 5;
  net_.Pump();
  // A sysop announcement is for the sysops only.
  clock_.Advance(1s);
  b_->net->OnLine(21, "PC93^Q1AAA^" + Stamp() + "^SYSOP^Q5USR^*^sysops only^^^H99^");
  EXPECT_EQ(Count(b_->out.To(2), "To SYSOP de Q5USR: sysops only\r\n"), 1u);
  EXPECT_EQ(Count(b_->out.To(1), "sysops only"), 0u);
  // A legacy node's PC12 that a PC9x neighbour passes on is shown once, also when the same
  // announcement comes as PC93 as well.
  b_->net->OnLine(21, "PC12^Q7OLD^*^old style^ ^Q7XXX^0^H29^~");
  clock_.Advance(1s);
  b_->net->OnLine(21, "PC93^Q1AAA^" + Stamp() + "^*^Q7OLD^*^old style^Q7XXX^^H99^");
  EXPECT_EQ(Count(b_->out.To(1), "To ALL de Q7OLD: old style\r\n"), 1u);

  // The users' rules are asked once per announcement, of either kind.
  std::vector<std::string> asked;
  b_->announce_gate = [&](std::string_view from, std::string_view to, std::string_view text,
                          std::string_view origin) {
    asked.push_back(fmt::format("{}|{}|{}|{}", from, to, text, origin));
    return [wx = to == "WX"](int stream, const StreamEntry& user) {
      return !(wx && stream == 1 && user.call == "Q6USR");  // user 1 refuses WX
    };
  };
  clock_.Advance(1s);
  b_->net->OnLine(21, "PC93^Q1AAA^" + Stamp() + "^WX^Q5USR^*^foggy^^^H99^");
  b_->net->OnLine(21, "PC12^Q7OLD^*^new style^ ^Q7XXX^0^H29^~");
  EXPECT_EQ(asked, (std::vector<std::string>{"Q5USR|WX|foggy|Q1AAA", "Q7OLD|*|new style|Q7XXX"}));
  EXPECT_EQ(Count(b_->out.To(1), "foggy"), 0u);
  EXPECT_EQ(Count(b_->out.To(2), "WX de Q5USR: foggy\r\n"), 1u);
  EXPECT_EQ(Count(b_->out.To(1), "To ALL de Q7OLD: new style\r\n"), 1u);
}

TEST_F(RingTest, TalkFollowsTheRouteToTheUsersNode) {
  ASSERT_TRUE(a_->net->Talk("Q5USR", "Q7USR", "hello there"));
  EXPECT_EQ(Count(a_->out.To(13), "^Q7USR^Q5USR^*^hello there^"), 1u);
  EXPECT_EQ(Count(a_->out.To(11), "hello there"), 0u);
  net_.Pump();
  EXPECT_EQ(Count(c_->out.To(1), "Q7USR de Q5USR: hello there\r\n"), 1u);
  EXPECT_EQ(Count(b_->out.To(1), "hello there"), 0u);
  EXPECT_FALSE(a_->net->Talk("Q5USR", "Q0NONE", "nobody"));
  ASSERT_TRUE(a_->net->Talk("Q5USR", "Q7QUIET", "shh"));
  net_.Pump();
  EXPECT_EQ(Count(c_->out.To(2), "shh"), 0u);  // SET/NOTALK
}

TEST_F(RingTest, UserInformationIsFiledOnceOnEveryOtherNode) {
  a_->net->SendPc41("PC41^Q5USR^1^Ann^H99^~\r\n");
  net_.Pump();
  EXPECT_EQ(b_->stored_pc41.size(), 1u);
  EXPECT_EQ(c_->stored_pc41.size(), 1u);
  EXPECT_TRUE(a_->stored_pc41.empty());
  ASSERT_FALSE(b_->stored_pc41.empty());
  EXPECT_EQ(b_->stored_pc41[0].substr(0, 16), "Q5USR|PC41^^PC41");
  // What a neighbour would refuse as bad data is not sent at all.
  const size_t sent_before = a_->out.sent.size();
  a_->net->SendPc41("PC41^Q5USR^2^Where?^H99^~\r\n");
  EXPECT_EQ(a_->out.sent.size(), sent_before);
}

TEST_F(RingTest, LinkCheckForAnotherNodeGoesTowardsIt) {
  b_->net->OnLine(21, "PC51^Q3CCC^Q1AAA^1^");
  EXPECT_EQ(Count(b_->out.To(23), "PC51^Q3CCC^Q1AAA^1^\r\n"), 1u);
  b_->net->OnLine(23, "PC51^Q3CCC^Q1AAA^1^");  // would go back where it came from
  EXPECT_EQ(Count(b_->out.To(23), "PC51^Q3CCC^Q1AAA^1^\r\n"), 1u);
}

TEST_F(RingTest, LostLinkIsAnnouncedAndTheViewHealsAtOnce) {
  // C heard A's sentences over both links: first through B, then the copy straight from A.
  EXPECT_EQ(c_->net->view().FindNode("Q1AAA")->routes, (std::map<int, int>{{31, 100}, {32, 98}}));
  net_.Cut(*b_, 21, *a_, 11);
  // The neighbours hear that the link is gone ...
  EXPECT_EQ(Count(b_->out.To(23), "^D^^5Q1AAA^H99^"), 1u);
  EXPECT_EQ(Count(a_->out.To(13), "^D^^5Q2BBB^H99^"), 1u);
  EXPECT_EQ(b_->net->Links().size(), 1u);
  // ... but nobody loses a node or a user: the way round the ring is known already.
  for (TestNode* n : {a_, b_, c_}) {
    EXPECT_EQ(n->net->NodeCount(), 2) << n->call;
    EXPECT_EQ(n->net->view().UserCount(), n == c_ ? 2 : 3) << n->call;
  }
  EXPECT_EQ(b_->net->view().RouteTo("Q5USR"), 23);
  EXPECT_EQ(a_->net->view().RouteTo("Q6USR"), 13);
  ASSERT_TRUE(b_->net->Talk("Q6USR", "Q5USR", "around"));
  net_.Pump();
  EXPECT_EQ(Count(a_->out.To(1), "Q5USR de Q6USR: around\r\n"), 1u);

  // A's next full configuration, due soon after its link change, changes nothing of that.
  clock_.Advance(900s);
  for (TestNode* n : {a_, b_, c_}) n->net->Tick();
  net_.Pump();
  EXPECT_EQ(b_->net->NodeCount(), 2);
  EXPECT_EQ(b_->net->view().RouteTo("Q5USR"), 23);

  // The second link of B goes too: now A, C and their users are gone for B.
  net_.Cut(*c_, 32, *b_, 23);
  EXPECT_EQ(b_->net->NodeCount(), 0);
  EXPECT_EQ(b_->net->RemoteUserCount(), 0);
  EXPECT_EQ(a_->net->view().FindNode("Q2BBB"), nullptr);
  EXPECT_EQ(a_->net->RemoteUserCount(), 2);
}

TEST_F(RingTest, LegacyNeighbourHearsOnlyOfNodesThatAreReallyGone) {
  LinkLegacyToA({"PC19^1^Q7XXX^0^5455^H25^"});
  // B is still reached through C: no PC21 for it, nor for what C says of its lost links.
  net_.Cut(*b_, 21, *a_, 11);
  std::string sent = net_.TakeFrom(*a_, 15);
  EXPECT_EQ(Count(sent, "PC21^"), 0u) << sent;
  // The last way to B and C goes: both are gone.
  net_.Cut(*a_, 13, *c_, 31);
  sent = net_.TakeFrom(*a_, 15);
  EXPECT_EQ(Count(sent, "PC21^Q2BBB^Gone^"), 1u) << sent;
  EXPECT_EQ(Count(sent, "PC21^Q3CCC^Gone^"), 1u) << sent;
  EXPECT_EQ(a_->net->NodeCount(), 1);  // the legacy neighbour itself
}

TEST_F(RingTest, LostLegacyLinkTakesItsNodesOffThePc9xSide) {
  LinkLegacyToA({"PC19^1^Q7XXX^0^5455^1^Q6OLD^0^5455^H25^"});
  ASSERT_NE(b_->net->view().FindNode("Q6OLD"), nullptr);
  a_->net->OnStreamClosed(15);
  a_->streams.Reset(15);
  net_.Pump();
  EXPECT_EQ(Count(a_->out.To(11), "^D^^7Q7XXX^7Q6OLD^H99^"), 1u) << a_->out.To(11);
  for (TestNode* n : {a_, b_, c_}) {
    EXPECT_EQ(n->net->view().FindNode("Q7XXX"), nullptr) << n->call;
    EXPECT_EQ(n->net->view().FindNode("Q6OLD"), nullptr) << n->call;
    EXPECT_EQ(n->net->NodeCount(), 2) << n->call;
  }
}

TEST_F(RingTest, LegacyNeighbourGetsPc12AndPc10) {
  LinkLegacyToA({"PC19^1^Q7XXX^0^5455^H25^", "PC16^Q7XXX^Q7OLD - 1^H25^"});
  // The legacy node's user is known network-wide through PC92 sent on its behalf.
  EXPECT_EQ(b_->net->view().RouteTo("Q7OLD"), 21);

  b_->net->Announce("Q6USR", "*", "to the old ones");
  net_.Pump();
  const std::string sent = net_.TakeFrom(*a_, 15);
  EXPECT_EQ(Count(sent, "PC12^Q6USR^*^to the old ones^ ^Q2BBB^0^H99^~"), 1u) << sent;

  // A PC12 from the legacy side reaches every user once, however often it comes in.
  a_->net->OnLine(15, "PC12^Q7OLD^*^old news^ ^Q7XXX^0^H30^~");
  a_->net->OnLine(15, "PC12^Q7OLD^*^old news^ ^Q7XXX^0^H29^~");
  net_.Pump();
  EXPECT_EQ(Count(a_->out.To(1), "To ALL de Q7OLD: old news\r\n"), 1u);
  EXPECT_EQ(Count(c_->out.To(1), "To ALL de Q7OLD: old news\r\n"), 1u);

  // Talk from the legacy side to a user on C, and back.
  a_->net->OnLine(15, "PC10^Q7OLD^Q7USR^hi from afar^*^ ^Q7XXX^~");
  net_.Pump();
  EXPECT_EQ(Count(c_->out.To(1), "Q7USR de Q7OLD: hi from afar\r\n"), 1u);
  ASSERT_TRUE(c_->net->Talk("Q7USR", "Q7OLD", "hi back"));
  net_.Pump();
  EXPECT_EQ(Count(net_.TakeFrom(*a_, 15), "PC10^Q7USR^Q7OLD^hi back^*^ ^Q3CCC^~"), 1u);
}

// Legacy and PC9x neighbours learn the whole network through us ------------------------------

// A (Q1AAA) with a PC9x chain behind it: B (Q2BBB, A's stream 11) and C (Q3CCC, behind B), and
// room for scripted legacy neighbours (Q7XXX on stream 15, Q4OLD on stream 16).
class MixedNetworkTest : public NodeNetworkTest {
 protected:
  void SetUp() override {
    a_ = &net_.Add("Q1AAA", Cfg({"Q2BBB", "Q7XXX", "Q4OLD"}));
    b_ = &net_.Add("Q2BBB", Cfg({"Q1AAA", "Q3CCC"}, {"Q1AAA"}));
    c_ = &net_.Add("Q3CCC", Cfg({"Q2BBB"}, {"Q2BBB"}));
    b_->AddUser(1, "Q6USR");
    c_->AddUser(1, "Q3USR");
  }
  void LinkPc9xChain() {
    net_.Link(*a_, 11, *b_, 21, "Q1AAA");
    net_.Link(*b_, 23, *c_, 32, "Q2BBB");
  }
  std::string LinkLegacy(int stream, std::string_view call,
                         std::initializer_list<std::string_view> config) {
    return NodeNetworkTest::LinkLegacy(*a_, stream, call, config);
  }
  TestNode* a_;
  TestNode* b_;
  TestNode* c_;
};

TEST_F(MixedNetworkTest, LegacyPeersLinkingLaterLearnEveryNodeAndUserButNeverThemselves) {
  LinkPc9xChain();
  ASSERT_NE(a_->net->view().FindNode("Q3CCC"), nullptr);
  a_->AddUser(1, "Q5USR");

  const std::string first = LinkLegacy(
      15, "Q7XXX",
      {"PC19^1^Q7XXX^0^5455^1^Q7FAR^0^5455^H25^", "PC16^Q7XXX^Q7OLD - 1^Q7TWO - 1^H25^"});
  // Our node first, then everything beyond us in the same sentence; users per node.
  EXPECT_TRUE(test::Has(first, "PC19^1^Q1AAA^0^5457^1^Q2BBB^0^5457^1^Q3CCC^0^5457^H99^\r\n"));
  EXPECT_TRUE(test::Has(first, "PC16^Q1AAA^Q5USR - 1^H99^\r\n"));
  EXPECT_TRUE(test::Has(first, "PC16^Q2BBB^Q6USR - 1^H99^\r\n"));
  EXPECT_TRUE(test::Has(first, "PC16^Q3CCC^Q3USR - 1^H99^\r\n"));
  // Its own node, the node behind it and its users, which it has just told us, are not
  // described back to it.
  EXPECT_EQ(Count(first, "Q7XXX"), 0u) << first;
  EXPECT_EQ(Count(first, "Q7FAR"), 0u) << first;
  EXPECT_EQ(Count(first, "Q7OLD"), 0u) << first;
  EXPECT_EQ(first.substr(first.size() - 7), "PC22^\r\n");

  // A second legacy neighbour hears of the first and its users too.
  const std::string second = LinkLegacy(16, "Q4OLD", {"PC19^1^Q4OLD^0^5455^H25^"});
  EXPECT_TRUE(test::Has(second, "^1^Q7XXX^0^5455^"));
  EXPECT_TRUE(test::Has(second, "PC16^Q7XXX^Q7OLD - 1^Q7TWO - 1^H99^\r\n"));
  EXPECT_EQ(Count(second, "Q4OLD"), 0u) << second;
  // Meanwhile nothing about the first came back on its own link.
  const std::string to_first = net_.TakeFrom(*a_, 15);
  EXPECT_EQ(Count(to_first, "Q7XXX"), 0u) << to_first;
  EXPECT_EQ(Count(to_first, "Q7OLD"), 0u) << to_first;
  EXPECT_TRUE(test::Has(to_first, "PC19^1^Q4OLD^0^"));
}

TEST_F(MixedNetworkTest, LegacyCallerLearnsTheNetworkBeyondTheNodeItCalls) {
  LinkPc9xChain();
  // This time A calls the legacy node, which answers with a banner, a prompt without its
  // line end, stray lines and a status-text PC18.
  Config cfg = ParseCfg(Cfg({"Q2BBB"}, {"Q7XXX"}));
  a_->net->Configure(cfg);
  Call(*a_, 6, "Q7XXX");
  a_->net->OnLine(6, "Welcome to the old node");
  EXPECT_TRUE(a_->net->OnPartialLine(6, "login: "));
  EXPECT_EQ(net_.TakeFrom(*a_, 6), "Q1AAA\r\n");
  a_->net->OnLine(6, "PC38^Q7XXX^~");
  a_->net->OnLine(6, "PC18^ 1 nodes, 0 local / 1 total users  Max users 0  Uptime 0 00:00^5447^~");
  const std::string config = net_.TakeFrom(*a_, 6);
  EXPECT_TRUE(test::Has(config, "PC19^1^Q1AAA^0^5457^1^Q2BBB^0^5457^1^Q3CCC^0^5457^H99^\r\n"));
  EXPECT_TRUE(test::Has(config, "PC16^Q3CCC^Q3USR - 1^H99^\r\n"));
  EXPECT_EQ(config.substr(config.size() - 7), "PC20^\r\n");
  a_->net->OnLine(6, "PC19^1^Q7XXX^0^5455^H25^");
  a_->net->OnLine(6, "PC22^");
  EXPECT_EQ(a_->streams.at(6).state, kStateNodeLegacy);
  ASSERT_EQ(a_->net->Links().size(), 2u);
  for (const auto& l : a_->net->Links()) EXPECT_EQ(l.pc9x, l.peer != "Q7XXX") << l.peer;
}

TEST_F(MixedNetworkTest, Pc9xConfigurationsReachLinkedLegacyPeersAsTheirChanges) {
  LinkLegacy(15, "Q7XXX", {"PC19^1^Q7XXX^0^5455^H25^", "PC16^Q7XXX^Q7OLD - 1^H25^"});
  LinkLegacy(16, "Q4OLD", {"PC19^1^Q4OLD^0^5455^H25^"});
  net_.TakeFrom(*a_, 15);
  net_.TakeFrom(*a_, 16);
  b_->AddUser(2, "Q6TWO");
  // B's link-up configuration and C's, relayed by B, arrive as the nodes and their users.
  LinkPc9xChain();
  const std::string heard = net_.TakeFrom(*a_, 15);
  EXPECT_EQ(Count(heard, "PC16^Q2BBB^Q6USR - 1^Q6TWO - 1^H99^\r\n"), 1u) << heard;
  EXPECT_EQ(Count(heard, "PC16^Q3CCC^Q3USR - 1^H99^\r\n"), 1u) << heard;
  // Each node is known before its users (legacy peers drop users of unknown nodes).
  EXPECT_LT(heard.find("PC19^1^Q2BBB^0^5457^"), heard.find("PC16^Q2BBB")) << heard;
  EXPECT_LT(heard.find("PC19^1^Q3CCC^0^5457^"), heard.find("PC16^Q3CCC")) << heard;
  EXPECT_EQ(Count(net_.TakeFrom(*a_, 16), "PC16^Q3CCC^Q3USR - 1^"), 1u);

  // A later full configuration tells only what changed: a new user, a user gone, a new node.
  clock_.Advance(30s);
  a_->net->OnLine(
      11, "PC92^Q2BBB^" + Stamp() + "^C^5Q2BBB:5457^5Q1AAA^5Q3CCC^5Q6NEW:5460^1Q6USR^1Q6LATE^H99^");
  const std::string change = net_.TakeFrom(*a_, 15);
  EXPECT_EQ(change,
            "PC19^1^Q6NEW^0^5460^H99^\r\nPC16^Q2BBB^Q6LATE - 1^H99^\r\nPC17^Q6TWO^Q2BBB^H99^\r\n");
  EXPECT_EQ(net_.TakeFrom(*a_, 16), change);
  // The same list again changes nothing.
  clock_.Advance(30s);
  a_->net->OnLine(
      11, "PC92^Q2BBB^" + Stamp() + "^C^5Q2BBB:5457^5Q1AAA^5Q3CCC^5Q6NEW:5460^1Q6USR^1Q6LATE^H99^");
  EXPECT_EQ(net_.TakeFrom(*a_, 15), "");

  // B speaks for Q7XXX (linked to it as well): the other legacy neighbour hears it, Q7XXX
  // itself hears nothing of itself.
  clock_.Advance(30s);
  a_->net->OnLine(11, "PC92^Q2BBB^" + Stamp() + "^C^7Q7XXX^1Q7OLD^1Q7NEW^H99^");
  EXPECT_EQ(net_.TakeFrom(*a_, 15), "");
  const std::string to_second = net_.TakeFrom(*a_, 16);
  EXPECT_TRUE(test::Has(to_second, "PC16^Q7XXX^Q7OLD - 1^Q7NEW - 1^H99^\r\n"));
  // And nothing ever went back to B in legacy words.
  EXPECT_EQ(Count(a_->out.To(11), "PC16^"), 0u);
  EXPECT_EQ(Count(a_->out.To(11), "PC19^"), 0u);
}

TEST_F(MixedNetworkTest, DeparturesReachLegacyPeersOnlyForWhatHasReallyGone) {
  LinkPc9xChain();
  LinkLegacy(15, "Q7XXX", {"PC19^1^Q7XXX^0^5455^H25^", "PC16^Q7XXX^Q7OLD - 1^H25^"});
  LinkLegacy(16, "Q4OLD", {"PC19^1^Q4OLD^0^5455^H25^"});
  net_.TakeFrom(*a_, 15);
  net_.TakeFrom(*a_, 16);
  b_->net->UserLoggedInOut("Q6USR", 1, false);
  net_.Pump();
  EXPECT_EQ(net_.TakeFrom(*a_, 15), "PC17^Q6USR^Q2BBB^H99^\r\n");
  EXPECT_EQ(net_.TakeFrom(*a_, 16), "PC17^Q6USR^Q2BBB^H99^\r\n");
  // B loses C, which A reached only through B: the node is gone for the legacy side too.
  net_.Cut(*b_, 23, *c_, 32);
  EXPECT_EQ(a_->net->view().FindNode("Q3CCC"), nullptr);
  EXPECT_EQ(Count(net_.TakeFrom(*a_, 15), "PC21^Q3CCC^Gone^H99^\r\n"), 1u);
  EXPECT_EQ(Count(net_.TakeFrom(*a_, 16), "PC21^Q3CCC^Gone^H99^\r\n"), 1u);
  // B drops a link to Q7XXX, which is still our own neighbour: nobody hears it has gone.
  clock_.Advance(10s);
  a_->net->OnLine(11, "PC92^Q2BBB^" + Stamp() + "^D^^7Q7XXX^H99^");
  EXPECT_EQ(net_.TakeFrom(*a_, 15), "");
  EXPECT_EQ(net_.TakeFrom(*a_, 16), "");
  ASSERT_NE(a_->net->view().FindNode("Q7XXX"), nullptr);
}

TEST_F(MixedNetworkTest, Pc9xPeersLearnTheUsersBehindOurLegacyNeighbours) {
  LinkLegacy(15, "Q7XXX", {"PC19^1^Q7XXX^0^5455^H25^", "PC16^Q7XXX^Q7OLD - 1^Q7TWO - 1^H25^"});
  LinkPc9xChain();
  // At link-up B hears a configuration for the legacy node, on its behalf and with its users.
  const std::string to_b = a_->out.To(11);
  EXPECT_EQ(Count(to_b, "^C^7Q7XXX^1Q7OLD^1Q7TWO^H99^\r\n"), 1u) << to_b;
  EXPECT_EQ(b_->net->view().RouteTo("Q7OLD"), 21);
  // Nothing of it goes back to the legacy node.
  EXPECT_EQ(Count(a_->out.To(15), "Q7OLD"), 0u);

  // Then hourly, with the keep-alive.  The legacy neighbour keeps the link alive with PC50.
  RunHours(*a_, 1, 15);
  EXPECT_EQ(Count(a_->out.To(11), "^C^7Q7XXX^1Q7OLD^1Q7TWO^H99^\r\n"), 2u);
  EXPECT_TRUE(a_->out.closed.empty());
  // Relayed by B, it reaches C, which linked after A's link-up.
  EXPECT_EQ(c_->net->view().RouteTo("Q7TWO"), 32);
  // Another node that is linked to the same legacy node described it lately: A leaves it.
  a_->net->OnLine(11, "PC92^Q2BBB^" + Stamp() + "^C^7Q7XXX^1Q7OLD^1Q7TWO^H99^");
  RunHours(*a_, 1, 15);
  EXPECT_EQ(Count(a_->out.To(11), "^C^7Q7XXX^1Q7OLD^1Q7TWO^H99^\r\n"), 2u);
  EXPECT_GE(Count(a_->out.To(11), "^K^5Q1AAA"), 2u);
  RunHours(*a_, 1, 15);
  EXPECT_EQ(Count(a_->out.To(11), "^C^7Q7XXX^1Q7OLD^1Q7TWO^H99^\r\n"), 3u);
}

TEST_F(MixedNetworkTest, NodesBehindALegacyNeighbourHangUnderItAndOutliveOurFullConfiguration) {
  LinkPc9xChain();
  LinkLegacy(15, "Q7XXX", {"PC19^1^Q7XXX^0^5455^1^Q7FAR^0^5455^H25^"});
  // B hears the far node under the legacy neighbour, not under A.
  EXPECT_EQ(Count(a_->out.To(11), "^A^7Q7XXX^7Q7FAR^H99^\r\n"), 1u) << a_->out.To(11);
  const NetworkView::Node* legacy = b_->net->view().FindNode("Q7XXX");
  ASSERT_NE(legacy, nullptr);
  EXPECT_EQ(legacy->child_nodes.count("Q7FAR"), 1u);

  // A's full configurations (after the link change, then every few hours) list only A's
  // neighbours and users; the far node stays in B's view all the same.
  RunHours(*a_, 1, 15);
  ASSERT_GE(Count(a_->out.To(11), "^C^5Q1AAA"), 1u);
  EXPECT_NE(b_->net->view().FindNode("Q7FAR"), nullptr);
  EXPECT_NE(c_->net->view().FindNode("Q7FAR"), nullptr);

  // The legacy neighbour loses it: it goes from the PC9x side too.
  a_->net->OnLine(15, "PC21^Q7FAR^Gone^H25^");
  net_.Pump();
  EXPECT_EQ(b_->net->view().FindNode("Q7FAR"), nullptr);
  EXPECT_NE(b_->net->view().FindNode("Q7XXX"), nullptr);
}

TEST_F(MixedNetworkTest, LegacyPeersHearOfEveryNodeThatLeavesTheView) {
  LinkPc9xChain();
  LinkLegacy(15, "Q7XXX", {"PC19^1^Q7XXX^0^5455^H25^"});
  net_.TakeFrom(*a_, 15);
  // B reports a new neighbour, which describes a node of its own.
  clock_.Advance(10s);
  a_->net->OnLine(11, "PC92^Q2BBB^" + Stamp() + "^C^5Q2BBB:5457^5Q1AAA^5Q3CCC^5Q6NEW^1Q6USR^H99^");
  a_->net->OnLine(11, "PC92^Q6NEW^" + Stamp() + "^C^5Q6NEW:5457^5Q6FAR^H98^");
  std::string sent = net_.TakeFrom(*a_, 15);
  ASSERT_NE(sent.find("^Q6FAR^"), std::string::npos) << sent;
  // B loses it: the node named goes, and so does the one that hung below it.
  clock_.Advance(10s);
  a_->net->OnLine(11, "PC92^Q2BBB^" + Stamp() + "^D^^5Q6NEW^H99^");
  sent = net_.TakeFrom(*a_, 15);
  EXPECT_EQ(Count(sent, "PC21^Q6NEW^Gone^"), 1u) << sent;
  EXPECT_EQ(Count(sent, "PC21^Q6FAR^Gone^"), 1u) << sent;
  EXPECT_EQ(a_->net->view().FindNode("Q6FAR"), nullptr);

  // A full list that no longer names a node, even one whose hops ran out (not passed on).
  clock_.Advance(10s);
  a_->net->OnLine(11, "PC92^Q2BBB^" + Stamp() + "^C^5Q2BBB:5457^5Q1AAA^5Q3CCC^5Q6TWO^H99^");
  ASSERT_NE(net_.TakeFrom(*a_, 15).find("^Q6TWO^"), std::string::npos);
  clock_.Advance(10s);
  a_->net->OnLine(11, "PC92^Q2BBB^" + Stamp() + "^C^5Q2BBB:5457^5Q1AAA^5Q3CCC^H1^");
  EXPECT_EQ(a_->net->view().FindNode("Q6TWO"), nullptr);
  EXPECT_EQ(Count(net_.TakeFrom(*a_, 15), "PC21^Q6TWO^Gone^"), 1u);
  // The node comes back: the legacy side hears of it again.
  clock_.Advance(10s);
  a_->net->OnLine(11, "PC92^Q2BBB^" + Stamp() + "^C^5Q2BBB:5457^5Q1AAA^5Q3CCC^5Q6TWO^H99^");
  EXPECT_TRUE(test::Has(net_.TakeFrom(*a_, 15), "^Q6TWO^"));

  // C sends no keep-alive (only A's timers run): after three hours it expires, and the
  // legacy neighbour, which keeps nodes until told, hears so.
  RunHours(*a_, 3, 15);
  EXPECT_EQ(a_->net->view().FindNode("Q3CCC"), nullptr);
  EXPECT_EQ(Count(a_->out.To(15), "PC21^Q3CCC^Gone^"), 1u);
}

TEST_F(MixedNetworkTest, LegacyPeersHearRemovalsWhicheverLinkBroughtTheList) {
  // A second PC9x neighbour of A, beyond which lies the same far node.
  a_->net->Configure(ParseCfg(Cfg({"Q2BBB", "Q7XXX", "Q4OLD", "Q3CCC"})));
  c_->net->Configure(ParseCfg(Cfg({"Q2BBB", "Q1AAA"}, {"Q2BBB", "Q1AAA"})));
  LinkPc9xChain();
  net_.Link(*a_, 13, *c_, 31, "Q1AAA");
  LinkLegacy(15, "Q7XXX", {"PC19^1^Q7XXX^0^5455^H25^"});
  net_.TakeFrom(*a_, 15);
  clock_.Advance(10s);
  const std::string first = Stamp();
  clock_.Advance(10s);
  const std::string second = Stamp();
  // The far node's next full list comes over the other link.
  a_->net->OnLine(11, "PC92^Q8FAR^" + first + "^C^5Q8FAR:5457^1Q8ONE^1Q8TWO^H90^");
  ASSERT_NE(net_.TakeFrom(*a_, 15).find("Q8TWO - 1"), std::string::npos);
  a_->net->OnLine(13, "PC92^Q8FAR^" + second + "^C^5Q8FAR:5457^1Q8ONE^H90^");
  const std::string sent = net_.TakeFrom(*a_, 15);
  EXPECT_EQ(sent, "PC17^Q8TWO^Q8FAR^H99^\r\n");
}

TEST_F(MixedNetworkTest, LegacyEchoOfAPc9xNodeMakesNoGhost) {
  LinkPc9xChain();
  LinkLegacy(15, "Q7XXX", {"PC19^1^Q7XXX^0^5455^H25^"});
  net_.TakeFrom(*a_, 15);
  // The legacy neighbour is also linked to B and passes on what B told it of C.
  a_->net->OnLine(15, "PC19^1^Q3CCC^0^5457^H14^");
  a_->net->OnLine(15, "PC17^Q3USR^Q3CCC^H14^");
  a_->net->OnLine(15, "PC21^Q3CCC^Gone^H14^");
  net_.Pump();
  EXPECT_EQ(Count(a_->out.To(11), "7Q3CCC"), 0u) << a_->out.To(11);
  const NetworkView::Node* c = a_->net->view().FindNode("Q3CCC");
  ASSERT_NE(c, nullptr);
  EXPECT_EQ(c->routes.count(15), 0u);
  EXPECT_EQ(c->users.count("Q3USR"), 1u);
  EXPECT_EQ(a_->net->view().FindNode("Q7XXX")->child_nodes.count("Q3CCC"), 0u);
  // When C really goes, A forgets it.
  a_->net->OnLine(15, "PC19^1^Q3CCC^0^5457^H13^");
  net_.Cut(*b_, 23, *c_, 32);
  EXPECT_EQ(a_->net->view().FindNode("Q3CCC"), nullptr);
  EXPECT_EQ(b_->net->view().FindNode("Q3CCC"), nullptr);
}

// Keep-alive -------------------------------------------------------------------------------

// Link checks are answered and timed; the keep-alive and the full configuration (soon after
// the link came up, then every few hours) go out on their timers and pass the neighbour's
// checks, and no link is dropped meanwhile.
TEST_F(NodeNetworkTest, PingsKeepaliveAndFullConfigurationRunOnTheirTimers) {
  NodeNetworkOptions o;
  o.first_ping_delay = 10;
  o.ping_interval = 300;
  o.keepalive_interval = 3600;
  o.config_interval = 4 * 3600;
  o.config_after_change = 900;
  auto [a, b] = LinkedPair(o);
  const size_t k0 = Count(a.out.To(5), "^K^5Q1AAA");
  const size_t c0 = Count(a.out.To(5), "^C^5Q1AAA");
  clock_.Advance(9s);
  a.net->Tick();
  EXPECT_EQ(Count(a.out.To(5), "PC51"), 0u);
  clock_.Advance(1s);
  a.net->Tick();
  EXPECT_EQ(Count(a.out.To(5), "PC51^Q2BBB^Q1AAA^1^\r\n"), 1u);
  clock_.Advance(250ms);
  net_.Pump();
  EXPECT_EQ(Count(b.out.To(7), "PC51^Q1AAA^Q2BBB^0^\r\n"), 1u);
  ASSERT_EQ(a.net->Links().size(), 1u);
  EXPECT_NEAR(a.net->Links()[0].last_rtt_ms, 250.0, 1.0);
  const auto lines = a.net->Lines("links");
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_TRUE(test::Has(lines[1], "Q2BBB"));
  EXPECT_TRUE(test::Has(lines[1], "PC9x"));
  EXPECT_TRUE(test::Has(lines[1], " 250 "));

  const auto tick = [&](std::chrono::seconds d) {
    clock_.Advance(d);
    a.net->Tick();
    b.net->Tick();
    net_.Pump();  // each answers the other's pings
  };
  tick(889s);  // 899.25 s after the link came up
  EXPECT_EQ(Count(a.out.To(5), "^C^5Q1AAA"), c0);
  tick(1s);
  EXPECT_EQ(Count(a.out.To(5), "^C^5Q1AAA"), c0 + 1);
  tick(2700s);
  EXPECT_EQ(Count(a.out.To(5), "^K^5Q1AAA"), k0 + 1);
  for (int i = 0; i < 48; ++i) tick(300s);
  EXPECT_EQ(Count(a.out.To(5), "^C^5Q1AAA"), c0 + 2);
  EXPECT_EQ(Count(a.out.To(5), "^K^5Q1AAA"), k0 + 5);
  EXPECT_NE(b.net->view().FindNode("Q1AAA"), nullptr);
  EXPECT_TRUE(a.out.closed.empty());
  EXPECT_TRUE(b.out.closed.empty());
}

// A legacy link is dropped after two unanswered checks, unless anything at all comes back.
TEST_F(NodeNetworkTest, UnansweredPingsOrAPc39DropALinkAndAnyTrafficCountsAsAnAnswer) {
  TestNode& a = net_.Add("Q1AAA", Cfg({"Q7XXX", "Q8YYY"}));
  for (auto [stream, peer] : {std::pair{4, "Q7XXX"}, std::pair{6, "Q8YYY"}}) {
    Accept(a, stream, peer);
    a.net->OnLine(stream, "PC20^");
    ASSERT_EQ(a.streams.at(stream).state, kStateNodeLegacy);
    net_.TakeFrom(a, stream);
  }
  clock_.Advance(10s);
  a.net->Tick();
  for (int i = 0; i < 13; ++i) {
    clock_.Advance(300s);
    a.net->Tick();
    a.net->OnLine(6, "PC50^Q8YYY^3^H99^");
    if (i == 0) {
      EXPECT_EQ(Count(net_.TakeFrom(a, 4), "PC51^Q7XXX^Q1AAA^1^"), 2u);
      EXPECT_TRUE(a.out.closed.empty());
    }
  }
  EXPECT_EQ(a.out.closed, std::vector<int>{4});
  EXPECT_EQ(Count(net_.TakeFrom(a, 4), "PC39^Q1AAA^"), 1u);
  // Legacy neighbours get PC50 every hour.
  EXPECT_GE(Count(a.out.To(6), "PC50^Q1AAA^"), 1u);
  // A PC39 closes the link, but only one from the neighbour itself.
  a.net->OnLine(6, "PC39^Q6OTHER^bye^H30^");
  EXPECT_EQ(a.out.closed, std::vector<int>{4});
  a.net->OnLine(6, "PC39^Q8YYY^Disconnected by System Op^H30^");
  EXPECT_EQ(a.out.closed, (std::vector<int>{4, 6}));
}

// Peers send K hourly: our own, shorter K interval must not expire them any sooner.
TEST_F(NodeNetworkTest, QuietNodeExpiresAfterThreeHoursUnlessItSendsAKeepalive) {
  NodeNetworkOptions o;
  o.keepalive_interval = 600;
  auto [a, b] = LinkedPair(o);
  // Two nodes beyond B, each heard once.
  const auto far = [&](std::string_view call, std::string_view type) {
    a.net->OnLine(5, fmt::format("PC92^{}^{}^{}^5{}:5457^1^0^H97^", call, Stamp(), type, call));
  };
  far("Q8FAR", "K");
  far("Q9FAR", "C");
  ASSERT_EQ(a.net->NodeCount(), 3);
  // Only A's timers run: B sends no keep-alive of its own but answers A's link checks.
  RunHours(a, 2);
  far("Q9FAR", "K");
  const int changes = a.counts_changed;
  RunHours(a, 1);
  EXPECT_EQ(a.net->view().FindNode("Q8FAR"), nullptr);
  EXPECT_GT(a.counts_changed, changes);
  ASSERT_NE(a.net->view().FindNode("Q9FAR"), nullptr);
  EXPECT_EQ(a.net->NodeCount(), 2);
  for (int hour = 0; hour < 4; ++hour) {  // a K every hour keeps it
    far("Q9FAR", "K");
    RunHours(a, 1);
    ASSERT_NE(a.net->view().FindNode("Q9FAR"), nullptr) << "hour " << hour;
  }
  RunHours(a, 10);
  // The neighbour never goes while its link stands; the other one did.
  EXPECT_EQ(a.net->view().Nodes(), std::vector<std::string>{"Q2BBB"});
  EXPECT_TRUE(a.out.closed.empty());
}

// Outgoing connections, sysop commands, restart -------------------------------------------------

// The outgoing connection is tried once the front-end link is ready, again after the retry
// interval when it failed, and again after a sysop's DISCONNECT, which says goodbye.
TEST_F(NodeNetworkTest, OutgoingConnectionIsRetriedAndComesBackAfterADisconnect) {
  NodeNetworkOptions o;
  o.retry_interval = 60;
  TestNode& a = net_.Add("Q1AAA", Cfg({"Q2BBB"}), o);
  TestNode& b = net_.Add("Q2BBB", Cfg({"Q1AAA"}, {"Q1AAA"}), o);
  b.net->Tick();
  EXPECT_TRUE(b.opened.empty());
  b.net->SetReady(true);
  b.net->Tick();
  ASSERT_EQ(b.opened.size(), 1u);
  b.net->OnOutgoingFailed("Q1AAA", "Connection refused");
  clock_.Advance(59s);
  b.net->Tick();
  EXPECT_EQ(b.opened.size(), 1u);
  clock_.Advance(1s);
  b.net->Tick();
  EXPECT_EQ(b.opened.size(), 2u);
  // CONNECT while an attempt is on its way, DISCONNECT when there is no link.
  EXPECT_EQ(b.net->LinkCommand("Q9NONE", true), "Q9NONE: no outgoing connection defined");
  EXPECT_EQ(b.net->LinkCommand("Q1AAA", false), "Q1AAA: not connected");

  net_.Link(a, 5, b, 7, "Q1AAA");
  EXPECT_EQ(b.net->LinkCommand("Q1AAA", false), "Disconnecting Q1AAA");
  EXPECT_EQ(b.out.closed, std::vector<int>{7});
  EXPECT_TRUE(test::Has(net_.TakeFrom(b, 7), "PC39^Q2BBB^Disconnected by System Op^H99^"));
  net_.Cut(a, 5, b, 7);
  EXPECT_EQ(a.net->NodeCount(), 0);
  EXPECT_TRUE(b.net->Links().empty());
  clock_.Advance(60s);
  b.net->Tick();
  ASSERT_EQ(b.opened.size(), 3u);
  net_.Link(a, 6, b, 8, "Q1AAA");
  EXPECT_EQ(a.net->NodeCount(), 1);
  EXPECT_EQ(b.streams.at(8).state, kStateNodePc9x);
}

TEST_F(NodeNetworkTest, NodesCallingEachOtherAtOnceKeepOneLink) {
  TestNode& a = net_.Add("Q1AAA", Cfg({"Q2BBB"}, {"Q2BBB"}));
  TestNode& b = net_.Add("Q2BBB", Cfg({"Q1AAA"}, {"Q1AAA"}));
  Call(a, 3, "Q2BBB");
  Call(b, 3, "Q1AAA");
  // Each side's call arrives at the other on stream 4.
  Accept(a, 4, "Q2BBB");
  Accept(b, 4, "Q1AAA");
  // Q1AAA's call (A's stream 3, B's stream 4) is the one that stays.
  EXPECT_EQ(a.out.closed, std::vector<int>{4});
  EXPECT_EQ(b.out.closed, std::vector<int>{3});
  ASSERT_EQ(a.net->Links().size(), 1u);
  EXPECT_TRUE(a.net->Links()[0].outgoing);
  ASSERT_EQ(b.net->Links().size(), 1u);
  EXPECT_FALSE(b.net->Links()[0].outgoing);
}

// A chain A <- B <- C (each calls the one before) with users on every node; B restarts.
class RestartTest : public NodeNetworkTest {
 protected:
  void SetUp() override {
    b.AddUser(1, "Q5OLD");
    b.AddUser(2, "Q5GONE");
    net_.Link(a, 5, b, 7, "Q1AAA");
    net_.Link(b, 8, c, 6, "Q2BBB");
    a.AddUser(3, "Q6AAA");
    c.AddUser(4, "Q7CCC");
    b.AddUser(9, "Q5NEW");  // after the links came up
    net_.Pump();
    ASSERT_NE(a.net->view().FindNode("Q3CCC"), nullptr);
  }
  // What n sent on stream from its message number from on.
  static std::string Since(const TestNode& n, int stream, size_t from) {
    std::string all;
    for (size_t i = from; i < n.out.sent.size(); ++i) {
      if (stream == 0 || n.out.sent[i].first == stream) all += n.out.sent[i].second;
    }
    return all;
  }
  // B's users as A knows them.
  std::set<std::string> UsersOfBOnA() {
    const NetworkView::Node* n = a.net->view().FindNode("Q2BBB");
    return n ? n->users : std::set<std::string>{};
  }
  TestNode& a = net_.Add("Q1AAA", Cfg({"Q2BBB"}));
  TestNode& b = net_.Add("Q2BBB", Cfg({"Q1AAA", "Q3CCC"}, {"Q1AAA"}));
  TestNode& c = net_.Add("Q3CCC", Cfg({"Q2BBB"}, {"Q2BBB"}));
};

TEST_F(RestartTest, LinksResumeWithoutAHandshakeAndTheViewComesBack) {
  const size_t a_sent = a.out.sent.size(), c_sent = c.out.sent.size(), b_sent = b.out.sent.size();
  // Q5GONE leaves while the node is down: the front-end no longer reports the stream.
  b.streams.Reset(2);
  b.Restart(/*with_state_file=*/true);
  EXPECT_EQ(Count(Since(b, 0, b_sent), "PC18"), 0u);
  ASSERT_EQ(b.net->Links().size(), 2u);
  for (const auto& l : b.net->Links()) EXPECT_TRUE(l.up) << l.peer;
  net_.Pump();
  // The neighbours saw no new start: no handshake line, no close, the link still up.
  for (TestNode* n : {&a, &c}) {
    EXPECT_EQ(Count(Since(*n, 0, n == &a ? a_sent : c_sent), "PC2"), 0u);
    EXPECT_TRUE(n->out.closed.empty());
    EXPECT_TRUE(n->net->Links()[0].up);
  }
  // The full list after the restart names every user logged in now, also those who came
  // after the link, and takes away the one who left meanwhile.
  EXPECT_EQ(UsersOfBOnA(), (std::set<std::string>{"Q5NEW", "Q5OLD"}));
  // B knows at once what lies beyond its neighbours, and talk finds its way.
  ASSERT_NE(b.net->view().FindNode("Q3CCC"), nullptr);
  EXPECT_EQ(b.net->view().FindNode("Q3CCC")->users, std::set<std::string>{"Q7CCC"});
  EXPECT_EQ(b.net->RemoteUserCount(), 2);
  EXPECT_TRUE(b.net->Talk("Q5OLD", "Q6AAA", "after the restart"));
  net_.Pump();
  EXPECT_EQ(Count(a.out.To(3), "Q6AAA de Q5OLD: after the restart"), 1u);
  EXPECT_TRUE(c.net->Talk("Q7CCC", "Q5NEW", "welcome back"));
  net_.Pump();
  EXPECT_EQ(Count(b.out.To(9), "Q5NEW de Q7CCC: welcome back"), 1u);
  EXPECT_EQ(b.net->WhoType(4), "");  // no link
}

TEST_F(RestartTest, WithoutAStateFileAcceptedLinksAreAskedAndTheHandshakeCompletes) {
  // A link of another node that is caught in its start-up cannot resume and starts over.
  b.streams.at(12).call = "Q3CCC";
  b.streams.at(12).state = kStateNodeConnecting;
  const size_t b_sent = b.out.sent.size(), c_sent = c.out.sent.size();
  const SysTime up_since = b.net->Links()[0].since;
  clock_.Advance(2min);
  b.Restart(/*with_state_file=*/false);
  // The front-end kept when each link began and what kind of node it reaches.
  for (const auto& l : b.net->Links()) EXPECT_EQ(l.since, up_since) << l.peer;
  EXPECT_EQ(b.net->WhoType(7), "NODE QXC");
  EXPECT_EQ(b.out.closed, std::vector<int>{12});
  // Only the accepting side introduces itself: C hears PC18, A (whom B called) does not.
  EXPECT_EQ(Count(Since(b, 7, b_sent), "PC18"), 0u);
  EXPECT_EQ(Count(Since(b, 8, b_sent), "PC18"), 1u);
  net_.Pump();
  // C answers with its configuration and PC20, and B completes the handshake with PC22.
  EXPECT_EQ(Count(Since(c, 6, c_sent), "PC20^"), 1u);
  EXPECT_EQ(Count(Since(b, 8, b_sent), "PC22^"), 1u);
  EXPECT_EQ(b.net->view().FindNode("Q3CCC")->users, std::set<std::string>{"Q7CCC"});
  EXPECT_EQ(UsersOfBOnA(), (std::set<std::string>{"Q5GONE", "Q5NEW", "Q5OLD"}));
}

TEST(NodeNetworkAddress, PublicAddresses) {
  for (const char* a : {"198.51.100.7", "8.8.8.8", "2001:db8::1", "2001,db8,,1", "172.32.0.1"}) {
    EXPECT_TRUE(NodeNetwork::IsPublicAddress(a)) << a;
  }
  for (const char* a :
       {"", "127.0.0.1", "10.1.2.3", "172.16.0.1", "172.31.255.255", "192.168.0.1", "169.254.1.1",
        "::1", "fe80::1", "fd00::1", "1.2.3", "256.1.1.1", "example.org", "0.0.0.0"}) {
    EXPECT_FALSE(NodeNetwork::IsPublicAddress(a)) << a;
  }
}

TEST_F(MixedNetworkTest, WwvGoesToEveryNeighbourAndWcyOnlyToPc9xOnes) {
  LinkPc9xChain();
  LinkLegacy(15, "Q7XXX", {"PC19^1^Q7XXX^0^5455^H25^"});
  net_.TakeFrom(*a_, 11);
  // From B: on to the legacy neighbour with one hop less, never back; a repeat stops here.
  a_->net->OnLine(11, "PC23^05-Nov-2026^15^220^4^1^x^Q4LOG^Q2BBB^H20^~");
  a_->net->OnLine(11, "PC23^05-Nov-2026^15^220^4^1^x^Q4LOG^Q2BBB^H19^~");
  a_->net->OnLine(11, "PC73^05-Nov-2026^15^220^  3^1^0^212^act^qui^no^Q4LOG^Q2BBB^H20^");
  EXPECT_EQ(net_.TakeFrom(*a_, 15), "PC23^05-Nov-2026^15^220^4^1^x^Q4LOG^Q2BBB^H19^~\r\n");
  EXPECT_EQ(net_.TakeFrom(*a_, 11), "");
  // From the legacy side: through B to C; the last hop is used but not passed on.
  a_->net->OnLine(15, "PC23^05-Nov-2026^16^220^4^1^x^Q4LOG^Q7XXX^H9^~");
  a_->net->OnLine(15, "PC23^05-Nov-2026^17^220^4^1^x^Q4LOG^Q7XXX^H1^~");
  net_.Pump();
  EXPECT_EQ(c_->seen_reports.count("PC2316Q4LOG"), 1u);
  EXPECT_EQ(b_->seen_reports.count("PC2317Q4LOG"), 0u);
  EXPECT_EQ(a_->seen_reports.count("PC2317Q4LOG"), 1u);
  // What this node makes goes out on every link that takes it.
  a_->net->SendPropagation("PC73^05-Nov-2026^18^220^  3^1^0^212^act^qui^no^Q1AAA^Q1AAA^H30^\r\n");
  EXPECT_EQ(net_.TakeFrom(*a_, 15), "");
  EXPECT_EQ(Count(net_.TakeFrom(*a_, 11), "PC73^"), 1u);
}

}  // namespace
}  // namespace qx
