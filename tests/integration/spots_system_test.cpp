#include <cstdlib>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "core/text_util.h"
#include "tests/integration/system_fixture.h"

namespace qx::testing {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;

class SpotsSystemTest : public SystemFixture {};

// A companion client that names itself gets the enhanced sentence in place of the line, with
// what the node knows of the spot, and keeps it when the node restarts; a plain user keeps
// the line.
TEST_F(SpotsSystemTest, CompanionClientGetsTheEnhancedSentenceAcrossARestart) {
  StartAll();
  auto client = LogIn("DL1ABC", "Hans");
  auto plain = LogIn("K1XYZ", "Joe");
  client->SendLine("/CTCP DXS QXU 1.0");
  plain->SendLine("SET/QRA FN42");
  ASSERT_TRUE(plain->ReadUntil("Grid set to FN42"));
  plain->ClearReceived();
  plain->SendLine("DX 14025 DL2ZZZ up 2");
  ASSERT_TRUE(client->ReadUntil("^H99^~\r\n")) << client->received();
  const std::string got = client->received();
  const size_t at = got.find("QX11^1^14025.0^DL2ZZZ^");
  ASSERT_NE(at, std::string::npos) << got;
  EXPECT_NE(got.find("^up 2^K1XYZ^XX0QX-1^^CW^I^C^^^K^5^8^FN42^DL^14^28^^", at), std::string::npos)
      << got;
  EXPECT_THAT(got, Not(HasSubstr("DX de K1XYZ")));
  ASSERT_TRUE(plain->ReadUntil("\r\n")) << plain->received();
  EXPECT_THAT(plain->received(), HasSubstr("DX de K1XYZ:     14025.0  DL2ZZZ       up 2"));

  ASSERT_EQ(node().Stop(), 0);
  StartNode();
  ASSERT_TRUE(WaitFor([&] {
    return node().Output().find("Recovery complete") != std::string::npos;
  })) << node().Output();
  client->ClearReceived();
  plain->SendLine("DX 14030 DL3ZZZ after the restart");
  ASSERT_TRUE(client->ReadUntil("^H99^~\r\n")) << client->received();
  EXPECT_THAT(client->received(), HasSubstr("QX11^1^14030.0^DL3ZZZ^"));
}

// What users see of spots on one node: the exact "DX de" line, control characters dropped on
// the way in, refusals, SH/DX order, the beep setting, and the extra columns behind the time.
TEST_F(SpotsSystemTest, LinesListsRefusalsAndExtraColumnsEndToEnd) {
  WriteFile(home() / "data/files/states.dat", "K1XYZ MA\n");
  StartAll();
  auto a = LogIn("DL1ABC", "Hans");
  auto b = LogIn("K1XYZ", "Joe");
  // The "DX de" body is fixed in 66 columns; the time follows in columns 71-75.
  a->SendLine("DX 14025 K1ABC test");
  ASSERT_TRUE(b->ReadUntil("\r\n")) << b->received();
  std::string line = b->received().substr(0, b->received().find("\r\n"));
  ASSERT_EQ(line.size(), 75u) << line;
  EXPECT_EQ(line.substr(0, 66),
            "DX de DL1ABC:    14025.0  K1ABC        test                       ");
  EXPECT_EQ(line.substr(66, 4), "    ");
  EXPECT_EQ(line[74], 'Z');
  // The spotter sees it too, and gets the prompt after it.
  EXPECT_TRUE(a->ReadUntil("QXC >"));
  EXPECT_THAT(a->received(), HasSubstr("DX de DL1ABC:    14025.0  K1ABC"));

  // Chr 4 ends every message from the node to the front-end; typed into a comment it must be
  // gone before the node sees it, or the spot would be stored with it and cut every list
  // that shows it.  A character-mode client's corrections are applied on the way, too.
  a->ClearReceived();
  b->ClearReceived();
  ASSERT_TRUE(a->Send("DX 14027 K3XYZ cq\x04 tesx\bt \x1b[1mup\x1b[0m\r\n"));
  ASSERT_TRUE(b->ReadUntil("\r\n")) << b->received();
  EXPECT_THAT(b->received(), HasSubstr("DX de DL1ABC:    14027.0  K3XYZ        cq test up     "));
  ASSERT_TRUE(a->ReadUntil("QXC >"));
  a->SendLine("DX 14030 K2ABC next");
  ASSERT_TRUE(a->ReadUntil("K2ABC"));
  ASSERT_TRUE(a->ReadUntil("QXC >"));
  std::string list = Command(*a, "SH/DX 2");
  // Both lines whole, newest first, and the prompt after them.
  const std::vector<std::string_view> lines = Split(list, '\n');
  ASSERT_EQ(lines.size(), 4u) << list;
  EXPECT_TRUE(lines[0].starts_with("  14030.0  K2ABC  ")) << lines[0];
  EXPECT_TRUE(lines[0].ends_with("Z  next  <DL1ABC>\r")) << lines[0];
  EXPECT_TRUE(lines[1].starts_with("  14027.0  K3XYZ  ")) << lines[1];
  EXPECT_TRUE(lines[1].ends_with("Z  cq test up  <DL1ABC>\r")) << lines[1];
  EXPECT_THAT(lines[2], HasSubstr("QXC >"));
  EXPECT_EQ(list.find_first_of(std::string("\x04\x08\x1b", 3)), std::string::npos);

  // A refused spot gets its error (when the user can do something about it) and the prompt,
  // reaches nobody, and what intake refused lands in its log.
  b->Drain(std::chrono::milliseconds(300));
  b->ClearReceived();
  EXPECT_THAT(Command(*a, "DX 14025"), HasSubstr("Error - DX 14025\r\n"));
  EXPECT_THAT(Command(*a, "DX 129.9 K1ABC"), HasSubstr("Error - invalid frequency\r\n"));
  EXPECT_THAT(Command(*a, "DX 14025 QQ1ABC"), HasSubstr("Error - Invalid Dx Call\r\n"));
  EXPECT_THAT(Command(*a, "DX 14025 K7QSL PSE QSL"), Not(HasSubstr("DX de")));
  EXPECT_THAT(Command(*a, "DX 99999999 K1ABC test"), Not(HasSubstr("DX de")));
  b->Drain(std::chrono::milliseconds(300));
  EXPECT_THAT(b->received(), Not(HasSubstr("DX de")));
  std::string bad_frequencies;
  for (const auto& f : std::filesystem::directory_iterator(home() / "data/badinfo")) {
    if (f.path().filename().string().starts_with("badfreq")) bad_frequencies += ReadFile(f.path());
  }
  EXPECT_THAT(bad_frequencies, HasSubstr("99999999")) << bad_frequencies;

  for (int i = 1; i <= 5; ++i) {
    Command(*a, "DX " + std::to_string(14000 + 10 * i) + " K" + std::to_string(i) + "AB spot");
  }
  list = Command(*a, "SH/DX 5");
  const size_t k5 = list.find("K5AB");
  const size_t k1 = list.find("K1AB");
  ASSERT_NE(k5, std::string::npos) << list;
  ASSERT_NE(k1, std::string::npos) << list;
  EXPECT_LT(k5, k1);
  EXPECT_THAT(list, HasSubstr("  14050.0  K5AB         "));
  EXPECT_THAT(list, HasSubstr("  spot  <DL1ABC>\r\n"));

  // The beep setting survives a reconnect.
  Command(*a, "SET/BEEP");
  a->SendLine("SET/NOBEEP");
  ASSERT_TRUE(a->ReadUntil("Beep disabled"));
  a->SendLine("BYE");
  ASSERT_TRUE(a->WaitClosed());
  auto again = LogIn("DL1ABC");
  again->SendLine("SH/BEEP");
  EXPECT_TRUE(again->ReadUntil("Beep is disabled")) << again->received();
  again->SendLine("DX 21025 K9AB bell test");
  ASSERT_TRUE(again->ReadUntil("DX de"));
  EXPECT_TRUE(again->ReadUntil("QXC >"));
  EXPECT_THAT(again->received(), Not(HasSubstr("\a")));

  // The columns behind the time come from the spotter's session (its locator), the state
  // table read at start-up and the DX call's country; posting counts in the spotter's record.
  for (const char* setting : {"SET/WIDTH 100", "SET/GRIDSQUARE", "SET/DXSQTH", "SET/DXCQ"}) {
    Command(*again, setting);
  }
  b->ClearReceived();
  b->SendLine("SET/QRA FN42");
  ASSERT_TRUE(b->ReadUntil("Grid set to FN42"));
  b->SendLine("DX 14025 DL2ZZZ test");
  ASSERT_TRUE(again->ReadUntil("Z FN42 MA CQ14\r\n")) << again->received();
  ASSERT_TRUE(b->ReadUntil("DL2ZZZ"));
  EXPECT_THAT(Command(*b, "STAT/USER"), HasSubstr("  Spots posted: 1\r\n"));
}

// The highest spot rate is kept across restarts, but a climbing rate must not rewrite the
// configuration every second: the first rise is saved at once, the rest at the latest at stop.
TEST_F(SpotsSystemTest, HighestSpotRateIsSavedAtOnceThenAtStop) {
  StartAll();
  auto a = LogIn("DL1ABC", "Hans");
  const auto saved = [&] {
    const std::string cfg = ReadFile(home() / "cluster.cfg");
    const size_t at = cfg.find("HighestSpotsPerMin^");
    return at == std::string::npos ? -1 : std::atoi(cfg.c_str() + at + 19);
  };
  a->SendLine("DX 14025 K1ABC first");
  ASSERT_TRUE(a->ReadUntil("QXC >"));
  ASSERT_TRUE(WaitFor([&] { return saved() == 1; }, std::chrono::seconds(5))) << saved();
  for (const char* call : {"K1ABD", "K1ABE"})
    Command(*a, std::string("DX 14026 ") + call + " more");
  std::this_thread::sleep_for(std::chrono::milliseconds(2500));
  EXPECT_EQ(saved(), 1);  // not rewritten within the minute
  ASSERT_EQ(node_->Stop(), 0);
  EXPECT_GE(saved(), 2);  // 3, or 2 when a new minute began between the spots
}

}  // namespace
}  // namespace qx::testing
