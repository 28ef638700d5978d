// Mail with a scripted legacy peer that speaks PC28 to PC33 the way other node software does:
// it hands the node a private message and a bulletin, and takes both kinds from it, checking
// every sentence the node sends with the field checks such peers apply before they act.
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <regex>
#include <set>

#include "core/file_util.h"
#include "core/text_util.h"
#include "core/time_text.h"
#include "tests/testlib/node_sites.h"

namespace qx::testing {
namespace {

using ::testing::HasSubstr;
using namespace std::chrono_literals;

// A date as such peers print it: the day space-padded.
std::string PeerDate(SysTime t) {
  std::string d = DateText(t);
  if (d.starts_with('0')) d[0] = ' ';
  return d;
}

// What a peer checks before it acts on a line: calls look like calls, the date and time have
// their fixed forms, stream numbers are numbers, sentences with hops end in H + 1-2 digits.
// Returns the faults found, one line each.
std::string PeerFieldFaults(std::string_view received) {
  static const std::regex kCall("[A-Z0-9]{1,3}[0-9][A-Z0-9]{0,4}[A-Z](-[0-9]{1,2})?");
  static const std::regex kDate(
      "[ 1-3][0-9]-(Jan|Feb|Mar|Apr|May|Jun|Jul|Aug|Sep|Oct|Nov|Dec)-"
      "20[0-9]{2}");
  static const std::regex kTime("([01][0-9]|2[0-3])[0-5][0-9]Z");
  static const std::regex kStream("[0-9]{1,6}");
  static const std::regex kHops("H[0-9]{1,2}");
  static const std::set<std::string> kWithHops = {"PC11", "PC12", "PC16", "PC17", "PC19",
                                                  "PC21", "PC23", "PC24", "PC41", "PC50",
                                                  "PC61", "PC73", "PC92", "PC93"};
  std::string faults;
  for (std::string_view line : Split(received, '\n')) {
    if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
    if (!line.starts_with("PC")) continue;
    std::vector<std::string> f;
    for (std::string_view x : Split(line, '^')) f.emplace_back(x);
    auto fault = [&](std::string_view what) { faults += fmt::format("{}: {}\n", what, line); };
    auto call = [&](size_t i) { return i < f.size() && std::regex_match(f[i], kCall); };
    if (kWithHops.contains(f[0])) {
      size_t last = f.size();
      while (last > 0 && (f[last - 1].empty() || f[last - 1] == "~")) --last;
      if (last == 0 || !std::regex_match(f[last - 1], kHops)) fault("hop field");
    }
    const int pc = f[0].size() == 4 ? std::atoi(f[0].c_str() + 2) : 0;
    if ((pc < 28 || pc > 33) && pc != 42) continue;
    if (!call(1) || !call(2)) fault("node field");
    if (pc == 28) {
      if (f.size() != 15 || f[14] != "~") fault("PC28 layout");
      if (f.size() < 14) continue;
      if (!std::regex_match(f[5], kDate) || !std::regex_match(f[6], kTime)) fault("date/time");
      if (!call(4) || !call(13)) fault("author/origin");
      if (f[7] == "1" && !call(3)) fault("private addressee");
      if (f[7] != "0" && f[7] != "1") fault("private flag");
    } else {
      if (f.size() < 4 || !std::regex_match(f[3], kStream)) fault("stream");
      if (pc == 29 && (f.size() != 6 || f[5] != "~")) fault("PC29 layout");
      if (pc != 29 && (f.size() != 5 || !f[4].empty())) fault("ack layout");
    }
  }
  return faults;
}

class MailPeerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!std::filesystem::exists(kSystemCountryFile)) GTEST_SKIP() << "no country file";
    node_.Setting("Connection Retry", "2");
    node_.Define("K7LEG", "ARC");
    node_.Start();
    peer_ = node_.Connect();
    peer_->SendLine("K7LEG");
    ASSERT_TRUE(peer_->ReadUntil("PC18^")) << peer_->received();
    peer_->SendLine("PC19^1^K7LEG^0^5455^H25^");
    peer_->SendLine("PC16^K7LEG^W7OLD - 1^H25^");
    peer_->SendLine("PC20^");
    ASSERT_TRUE(peer_->ReadUntil("PC22^\r\n")) << peer_->received();
    ASSERT_TRUE(node_.WaitOutput("Node link up: K7LEG (legacy)")) << node_.node().Output();
  }
  // The peer sends a message as such a peer does: header, lines five at a time, end.
  void PeerSends(std::string_view to, bool is_private, std::string_view subject,
                 const std::vector<std::string>& lines) {
    peer_->ClearReceived();
    peer_->SendLine(fmt::format("PC28^K1QXA^K7LEG^{}^W7OLD^{}^{}^{}^{}^ ^5^0^ ^K7LEG^~", to,
                                PeerDate(written_), TimeHHnnZ(written_), is_private ? 1 : 0,
                                subject));
    std::smatch m;
    std::string got;
    const std::regex ack("PC30\\^K7LEG\\^K1QXA\\^([0-9]+)\\^\r\n");
    ASSERT_TRUE(WaitFor([&] {
      peer_->Drain(100ms);
      got = peer_->received();
      return std::regex_search(got, m, ack);
    })) << got;
    const std::string stream = m[1];
    for (size_t i = 0; i < lines.size(); ++i) {
      peer_->SendLine(fmt::format("PC29^K1QXA^K7LEG^{}^{}^~", stream, lines[i]));
      if ((i + 1) % 5 == 0) {
        ASSERT_TRUE(peer_->ReadUntil(fmt::format("PC31^K7LEG^K1QXA^{}^\r\n", stream)))
            << peer_->received();
      }
    }
    peer_->SendLine(fmt::format("PC32^K1QXA^K7LEG^{}^", stream));
    ASSERT_TRUE(peer_->ReadUntil(fmt::format("PC33^K7LEG^K1QXA^{}^\r\n", stream)))
        << peer_->received() << Logs(node_);
    EXPECT_EQ(PeerFieldFaults(peer_->received()), "");
  }
  // The peer takes the message the node offers: acks the header, each full tranche and the
  // end; returns the text lines as they arrived.
  std::vector<std::string> PeerTakes(std::string_view header_start, std::string_view stream) {
    std::vector<std::string> text;
    const auto header = peer_->ReadUntil(header_start, 15s);
    if (!header) {
      ADD_FAILURE() << "no " << header_start << " in " << peer_->received();
      return text;
    }
    seen_ += peer_->received();
    peer_->ClearReceived();
    peer_->SendLine(fmt::format("PC30^K1QXA^K7LEG^{}^", stream));
    const std::string end = fmt::format("PC32^K7LEG^K1QXA^{}^\r\n", stream);
    size_t lines = 0;
    while (true) {
      if (!peer_->ReadUntil("\r\n", 10s)) {
        ADD_FAILURE() << "no end in " << peer_->received();
        return text;
      }
      peer_->Drain(300ms);
      const std::string got = peer_->received();
      const size_t count = NodeSite::Occurrences(got, "PC29^");
      if (got.find(end) != std::string::npos) break;
      if (count >= lines + 5) {
        lines = count;
        peer_->SendLine(fmt::format("PC31^K1QXA^K7LEG^{}^", stream));
      }
    }
    peer_->SendLine(fmt::format("PC33^K1QXA^K7LEG^{}^", stream));
    for (std::string_view line : Split(peer_->received(), '\n')) {
      const std::string prefix = fmt::format("PC29^K7LEG^K1QXA^{}^", stream);
      if (line.starts_with(prefix)) {
        line.remove_prefix(prefix.size());
        if (line.ends_with("^~\r")) line.remove_suffix(3);
        text.emplace_back(line);
      }
    }
    return text;
  }
  // The message file with this number, once its header has what holds.
  bool FileSays(int number, std::string_view what) {
    return WaitFor([&] {
      const auto text = ReadFileText(node_.home() / fmt::format("data/msg/{:06d}.msg", number));
      return text && text->find(what) != std::string::npos;
    });
  }

  NodeSite node_{"K1QXA"};
  // When the peer's messages were written: one time for all, so that a message offered twice
  // is the same message even when a minute passes in between.
  const SysTime written_ = SystemClock().Now();
  std::unique_ptr<LineClient> peer_;
  std::string seen_;  // what the peer received before its last ClearReceived
};

TEST_F(MailPeerTest, PeerHandsTheNodeMailAndEveryoneIsTold) {
  auto user = node_.LogIn("W1AAA");
  user->ClearReceived();
  const std::vector<std::string> text = {"Line one", "two",  "three",
                                         "four",     "five", "six with a ~ caret"};
  PeerSends("W1AAA", true, "Sked", text);
  ASSERT_TRUE(user->ReadUntil("New mail has arrived for you from W7OLD.   Message # 1"))
      << user->received();
  user->ClearReceived();
  user->SendLine("READ 1");
  ASSERT_TRUE(user->ReadUntil("End of message 1")) << user->received();
  EXPECT_THAT(user->received(),
              HasSubstr("Subject: Sked\r\nLine one\r\ntwo\r\nthree\r\nfour\r\nfive\r\n"
                        "six with a ~ caret\r\n"));

  user->ClearReceived();
  PeerSends("ALL", false, "Contest", {"Rules on the web"});
  ASSERT_TRUE(user->ReadUntil("New bulletin 2 to ALL from W7OLD: Contest\r\n")) << user->received();
  user->ClearReceived();
  user->SendLine("DIR");
  ASSERT_TRUE(user->ReadUntil("QXC >")) << user->received();
  EXPECT_THAT(user->received(), HasSubstr("W7OLD      ALL"));
  EXPECT_THAT(user->received(), HasSubstr("Contest"));

  // A user who was away is told at log-in (by hand: the site's log-in drops what came first).
  PeerSends("W1BBB", true, "For you", {"hello"});
  auto later = node_.Connect();
  later->SendLine("W1BBB");
  ASSERT_TRUE(later->ReadUntil("Please enter your name")) << later->received();
  later->SendLine("Bob");
  ASSERT_TRUE(later->ReadUntil("(Y or N) >")) << later->received();
  later->SendLine("y");
  ASSERT_TRUE(later->ReadUntil("You have mail from W7OLD.   Message # 3.")) << later->received();

  // The same message offered again (another route) is acknowledged and not stored twice.
  PeerSends("ALL", false, "Contest", {"Rules on the web"});
  user->Drain(500ms);
  EXPECT_FALSE(std::filesystem::exists(node_.home() / "data/msg/000004.msg"));
}

TEST_F(MailPeerTest, NodeHandsThePeerMailForItsUsersAndBulletins) {
  // The peer tells the network where its user is at home.
  peer_->SendLine("PC41^W7OLD^4^K7LEG^H30^~");
  auto user = node_.LogIn("W1AAA");
  ASSERT_TRUE(WaitFor([&] {
    for (const char* dir : {"data/user/W7OLD.dat", "data/userRemote/W7OLD.dat"}) {
      const auto text = ReadFileText(node_.home() / dir);
      if (text && text->find("K7LEG") != std::string::npos) return true;
    }
    return false;
  })) << Logs(node_);
  peer_->ClearReceived();
  user->SendLine("SP W7OLD");
  ASSERT_TRUE(user->ReadUntil("Enter the subject")) << user->received();
  user->SendLine("QSL via bureau ^ please");
  const std::vector<std::string> text = {"1", "2", "3", "4", "5", "six ^ caret", "7"};
  for (const std::string& line : text) user->SendLine(line);
  user->SendLine("/EX");
  ASSERT_TRUE(user->ReadUntil("Message no 1 saved")) << user->received();
  const std::vector<std::string> got = PeerTakes("PC28^K7LEG^K1QXA^W7OLD^W1AAA^", "41");
  EXPECT_THAT(got, ::testing::ElementsAre("1", "2", "3", "4", "5", "six ~ caret", "7"));
  EXPECT_THAT(peer_->received(), HasSubstr("PC32^K7LEG^K1QXA^41^\r\n"));
  EXPECT_TRUE(FileSays(1, "ForwardedTo: K7LEG")) << Logs(node_);

  peer_->ClearReceived();
  user->SendLine("SEND ALL");
  ASSERT_TRUE(user->ReadUntil("Enter the subject")) << user->received();
  user->SendLine("Field day");
  user->SendLine("Saturday");
  user->SendLine("/EX");
  const std::vector<std::string> bulletin = PeerTakes("PC28^K7LEG^K1QXA^ALL^W1AAA^", "42");
  EXPECT_THAT(bulletin, ::testing::ElementsAre("Saturday"));
  EXPECT_TRUE(FileSays(2, "ForwardedTo: K7LEG")) << Logs(node_);
  EXPECT_EQ(PeerFieldFaults(seen_ + peer_->received()), "");
}

}  // namespace
}  // namespace qx::testing
