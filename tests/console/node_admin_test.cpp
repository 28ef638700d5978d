// The console's administration calls against the real node and front-end: what a sysop changes
// on the page counts for the next spot, log-in or node link at once, lands in the node's files,
// and leaves an audit line in the node's log.  One node run for all of it: the programs are
// slow to start, and the changes do not get in each other's way.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/socket.h>
#include <unistd.h>

#include <string>
#include <thread>

#include "tests/console/node_console_site.h"

namespace qx::testing {
namespace {

using nlohmann::json;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;
using namespace std::chrono_literals;

TEST_F(NodeConsoleTest, ListsPasswordsNeighboursLinksUsersAndRestartCountAtOnce) {
  NodeSite node("K1QXA");
  // Behind an HTTPS proxy the live view takes the public site's origin and no other.
  node.Setting("Console Public Address", "https://cluster.example.org");
  StartNode(node);
  WsClient proxied, stranger;
  EXPECT_EQ(proxied.Connect(node.console_port(), login_.cookie, "https://cluster.example.org"),
            101);
  EXPECT_EQ(stranger.Connect(node.console_port(), login_.cookie, "https://evil.example.net"), 403);

  auto spotter = node.LogInAs("G4ABC", "", "Bob");
  auto reader = node.LogInAs("G4XYZ", "", "Sue");

  // A bad word counts for the very next spot.
  Post("lists/BadWords/add", {{"item", "ft8spam"}});
  EXPECT_THAT(Get("lists/BadWords")["items"], ElementsAre("FT8SPAM"));
  spotter->SendLine("DX 14025 JA1AAA FT8SPAM here");
  spotter->SendLine("DX 14026 JA1BBB fine");
  ASSERT_TRUE(reader->ReadUntil("JA1BBB")) << reader->received();
  EXPECT_THAT(reader->received(), Not(HasSubstr("JA1AAA")));
  EXPECT_EQ(ReadFileText(node.home() / "data/files/badwords.txt").value_or(""), "FT8SPAM\r\n");

  // Address lists take addresses only; an import names what it refused and keeps the rest.
  EXPECT_THAT(Post("lists/IpNotOk/add", {{"item", "192.0.2.300"}}, 400)["error"].get<std::string>(),
              HasSubstr("not an IP address"));
  const json imported =
      Post("lists/TorList/import", {{"text",
                                     "# exit list\nExitNode ABCD\nExitAddress 198.51.100.7 x\n"
                                     "203.0.113.9, 2001:db8::1\nnonsense\n198.51.100.7\n"}});
  EXPECT_EQ(imported["added"], 3);
  EXPECT_EQ(imported["already"], 1);
  EXPECT_EQ(imported["refused"].size(), 1u);
  const json searched = Get("lists/TorList?q=203.0");
  EXPECT_THAT(searched["items"], ElementsAre("203.0.113.9"));
  EXPECT_EQ(searched["total"], 3);
  Post("lists/TorList/remove", {{"item", "203.0.113.9"}});
  EXPECT_EQ(Get("lists/TorList")["total"], 2);

  // A password is written, then only the call shows; the call must give it at its next log-in.
  Post("passwords/set", {{"call", "g4pw"}, {"password", "s3cret"}, {"level", "1"}});
  const json pw = Get("passwords");
  ASSERT_EQ(pw["calls"].size(), 1u);
  EXPECT_EQ(pw["calls"][0], json({{"call", "G4PW"}, {"level", 1}, {"password", "set"}}));
  EXPECT_THAT(pw.dump(), Not(HasSubstr("s3cret")));
  auto guarded = node.Connect();
  guarded->SendLine("G4PW");
  EXPECT_TRUE(guarded->ReadUntil("password: ")) << guarded->received();

  // A neighbour defined with its address logs in as a node.
  Post("nodes/save", {{"call", "k7leg"}, {"type", "ARC"}, {"addresses", "127.0.0.1"}});
  Post("nodes/save", {{"call", "K7BAD"}, {"addresses", "300.1.1.1"}}, 400);
  Post("nodes/save", {{"call", "K7BAD"}}, 400);  // neither addresses nor password: never let in
  const json links = Get("links");
  ASSERT_EQ(links["nodes"].size(), 1u);
  EXPECT_EQ(links["nodes"][0]["call"], "K7LEG");
  EXPECT_EQ(links["nodes"][0]["addresses"], "127.0.0.1");
  ASSERT_TRUE(LinkLegacyPeer(node, "K7LEG"));

  // A neighbour removed takes its password with it.
  Post("nodes/save", {{"call", "K7PW"}, {"password", "Secret7"}});
  EXPECT_THAT(ReadFileText(node.home() / "data/files/passwords.dat").value_or(""),
              HasSubstr("K7PW"));
  Post("nodes/remove", {{"call", "k7pw"}});
  EXPECT_EQ(Get("links")["nodes"].size(), 1u);
  EXPECT_THAT(ReadFileText(node.home() / "data/files/passwords.dat").value_or(""),
              Not(HasSubstr("K7PW")));

  // An outgoing connection that cannot be opened says why.
  Post("links/save", {{"name", "K7OFF"},
                      {"remoteKind", "QXC"},
                      {"address", "127.0.0.1"},
                      {"port", FreePort()},
                      {"active", true}});
  json off;
  ASSERT_TRUE(WaitFor(
      [&] {
        const json now = Get("links");
        for (const json& l : now["links"]) {
          if (l["name"] == "K7OFF" && !l["lastError"].get<std::string>().empty()) off = l;
        }
        return !off.is_null();
      },
      20s))
      << node.node().Output();
  EXPECT_THAT(off["lastError"].get<std::string>(), HasSubstr("refused"));

  // One that connects but is refused at the log-in says so, with the other node's words.
  const int refusing_port = FreePort();
  const int listener = ListenLoopback(refusing_port);
  ASSERT_GE(listener, 0);
  std::thread refuser([listener] {
    const int fd = ::accept(listener, nullptr, nullptr);
    const std::string_view prompt = "login: ";
    (void)!::write(fd, prompt.data(), prompt.size());
    char call[64];
    (void)!::read(fd, call, sizeof call);
    const std::string_view no = "Sorry, you are not a known node\r\n";
    (void)!::write(fd, no.data(), no.size());
    ::close(fd);
  });
  Post("links/save", {{"name", "K7NO"},
                      {"remoteKind", "QXC"},
                      {"address", "127.0.0.1"},
                      {"port", refusing_port},
                      {"active", true}});
  std::string refused;
  EXPECT_TRUE(WaitFor(
      [&] {
        const json now = Get("links");  // kept: the loop's range must outlive the call
        for (const json& l : now["links"]) {
          if (l["name"] == "K7NO") refused = l["lastError"].get<std::string>();
        }
        return !refused.empty();
      },
      20s))
      << node.node().Output();
  refuser.join();
  ::close(listener);
  EXPECT_EQ(refused, "closed by K7NO during the log-in (it said: Sorry, you are not a known node)");

  // Users: listed a page at a time from their records; a lock-out disconnects at once and
  // refuses the next log-in.
  auto user = node.LogInAs("M0ABC", "", "Bob");
  node.LogInAs("M0DEF", "", "Dan")->SendLine("SET/QTH Leeds");
  const json page = Get("users?q=M0&limit=1");
  EXPECT_EQ(page["total"], 2);
  ASSERT_EQ(page["users"].size(), 1u);
  EXPECT_EQ(page["users"][0]["call"], "M0ABC");
  EXPECT_EQ(page["users"][0]["name"], "Bob");
  EXPECT_GT(page["users"][0]["stream"], 0);
  EXPECT_EQ(Get("users?q=M0&offset=1&limit=1")["users"][0]["call"], "M0DEF");
  EXPECT_THAT(Get("users/M0ABC")["settings"].dump(), HasSubstr("\"Name\",\"Bob\""));
  Get("users/NOSUCH", 404);
  Post("users/lockout", {{"call", "M0ABC"}, {"locked", true}});
  EXPECT_TRUE(user->WaitClosed()) << user->received();
  EXPECT_EQ(Get("users?q=M0ABC")["users"][0]["lockedOut"], true);
  auto again = node.Connect();
  again->SendLine("M0ABC");
  EXPECT_TRUE(again->ReadUntil("LockedOut ")) << again->received();

  // A settings change is written to the log as what it was and what it became.
  Post("settings", {{"changes", {{"Connection Retry", "120"}}}});

  // The restart button restarts the node without dropping a telnet user, answered at once.
  Post("restart", json{{"confirm", true}});
  ASSERT_TRUE(node.WaitOutput("Recovery complete", 2)) << node.node().Output();
  EXPECT_TRUE(node.node().Running());
  reader->ClearReceived();
  reader->SendLine("SH/TIME");
  EXPECT_TRUE(reader->ReadUntil("QXC >")) << reader->received();

  const std::string log = ErrorLog(node);
  EXPECT_THAT(log, HasSubstr("Sysop added FT8SPAM to bad words"));
  EXPECT_THAT(log, HasSubstr("Sysop added 3 entries to anonymity-network addresses"));
  EXPECT_THAT(log, HasSubstr("Sysop set the password of G4PW"));
  EXPECT_THAT(log, HasSubstr("Sysop set Connection Retry 60 \u2192 120"));
  EXPECT_THAT(log, HasSubstr("Sysop locked out M0ABC and disconnected 1 stream(s)"));
  EXPECT_THAT(log, HasSubstr("restart requested by a sysop"));
  EXPECT_THAT(log, Not(HasSubstr("s3cret")));
}

}  // namespace
}  // namespace qx::testing
