// The link between qxfront and qxcluster on the real programs: strangers on the link port
// are refused while users go on as before, a real node that restarts while its old link is
// dead gets in, and a process posing as the front-end learns nothing from the node.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>

#include "core/link_secret.h"
#include "tests/integration/system_fixture.h"

namespace qx::testing {
namespace {

using namespace std::chrono_literals;
using ::testing::HasSubstr;

// A process that listens on the link port in place of the front-end.
class FakeFrontEnd {
 public:
  explicit FakeFrontEnd(int port) : listen_fd_(ListenLoopback(port)), listening_(listen_fd_ >= 0) {}
  ~FakeFrontEnd() {
    if (conn_ >= 0) ::close(conn_);
    if (listen_fd_ >= 0) ::close(listen_fd_);
  }
  bool listening() const { return listening_; }
  bool Accept() {
    pollfd p{listen_fd_, POLLIN, 0};
    if (::poll(&p, 1, 20000) != 1) return false;
    conn_ = ::accept4(listen_fd_, nullptr, nullptr, SOCK_CLOEXEC);
    return conn_ >= 0;
  }
  void Send(std::string_view text) { ::send(conn_, text.data(), text.size(), MSG_NOSIGNAL); }
  // Reads until needle arrives or the node closes; true when needle arrived.
  bool ReadUntil(std::string_view needle, std::chrono::milliseconds limit = 10s) {
    const auto end = std::chrono::steady_clock::now() + limit;
    char buf[4096];
    while (got_.find(needle) == std::string::npos) {
      const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
          end - std::chrono::steady_clock::now());
      pollfd p{conn_, POLLIN, 0};
      if (left.count() <= 0 || ::poll(&p, 1, int(left.count())) != 1) return false;
      const ssize_t n = ::recv(conn_, buf, sizeof buf, 0);
      if (n <= 0) {
        closed_ = true;
        return false;
      }
      got_.append(buf, size_t(n));
    }
    return true;
  }
  bool closed() const { return closed_; }
  const std::string& got() const { return got_; }

 private:
  int listen_fd_ = -1;
  int conn_ = -1;
  bool listening_ = false;
  bool closed_ = false;
  std::string got_;
};

class SecuritySystemTest : public SystemFixture {
 protected:
  std::string FrontErrors() const { return ReadFile(home() / "qxfront.err"); }
};

TEST_F(SecuritySystemTest, StrangersOnTheLinkPortAreRefusedAndAKilledNodeGetsBackIn) {
  StartAll();
  auto a = LogIn("DL1ABC", "Hans");
  auto b = LogIn("K1XYZ", "Joe");

  LineClient silent, wrong, garbage;
  ASSERT_TRUE(silent.Connect(link_port_));
  ASSERT_TRUE(wrong.Connect(link_port_));
  ASSERT_TRUE(wrong.Send("QX Cluster"));
  ASSERT_TRUE(wrong.ReadUntil("\x03"));
  ASSERT_TRUE(wrong.received().starts_with("AA39^"));
  ASSERT_TRUE(wrong.Send("4\x03" + MakeLinkNonce() + "\x03" + std::string(64, '0') + "\x04"));
  ASSERT_TRUE(garbage.Connect(link_port_));
  ASSERT_TRUE(garbage.Send("QX Cluster8270AA00^1^sh/users\r\n\x04"));

  // Users notice nothing while strangers knock.
  a->SendLine("DX 14025 K1ABC test");
  ASSERT_TRUE(b->ReadUntil("DX de DL1ABC:    14025.0  K1ABC")) << b->received();

  EXPECT_TRUE(wrong.WaitClosed());
  EXPECT_TRUE(garbage.WaitClosed());
  EXPECT_TRUE(silent.WaitClosed(8s));
  // The strangers got the challenge at most: no call, no address, no user's text.
  EXPECT_EQ(wrong.received().find("DL1ABC"), std::string::npos);
  EXPECT_EQ(garbage.received().find("DL1ABC"), std::string::npos);
  EXPECT_TRUE(silent.received().empty());
  ASSERT_TRUE(WaitFor([&] { return FrontErrors().find("(3 so far)") != std::string::npos; }))
      << FrontErrors();
  EXPECT_THAT(FrontErrors(), HasSubstr(": wrong proof (1 so far)"));
  EXPECT_THAT(FrontErrors(), HasSubstr(": no proof in time"));

  b->ClearReceived();
  a->SendLine("DX 7005 K1ABC after");
  ASSERT_TRUE(b->ReadUntil("DX de DL1ABC:     7005.0  K1ABC")) << b->received();

  // A node killed while its link is up (the front-end may not notice at once) and started
  // again must still get in, and its users carry on.
  node_->Kill();
  StartNode();
  ASSERT_TRUE(WaitFor(
      [&] {
        return ErrorLogText().find("Recovery complete") != std::string::npos ||
               node_->Output().find("Recovery complete") != std::string::npos;
      },
      20s));
  a->ClearReceived();
  a->SendLine("SH/NAME");
  EXPECT_TRUE(a->ReadUntil("Name is Hans")) << a->received();
}

TEST_F(SecuritySystemTest, AFakeFrontEndWithoutTheSecretLearnsNothingFromTheNode) {
  WriteConfig();
  WriteCountryFile();
  auto owner = std::make_unique<FakeFrontEnd>(link_port_);
  FakeFrontEnd& fake = *owner;
  ASSERT_TRUE(fake.listening());
  StartNode();
  ASSERT_TRUE(fake.Accept());
  ASSERT_TRUE(fake.ReadUntil("QX Cluster"));
  const std::string challenge = MakeLinkNonce();
  fake.Send("AA39^" + challenge + "\x03");
  ASSERT_TRUE(fake.ReadUntil("\x04"));
  // It cannot make the proof, so it announces itself without one and reports a user.
  fake.Send("QRV GB7XX fake^1.0^" + std::string(64, 'f') +
            "\x03"
            "AA03^Connect Request^1^192.0.2.1:5000^1^in^0\x03");
  fake.ReadUntil("never", 5s);
  EXPECT_TRUE(fake.closed());
  EXPECT_EQ(fake.got().find("8270"), std::string::npos) << fake.got();
  EXPECT_EQ(fake.got().find("login"), std::string::npos) << fake.got();
  EXPECT_TRUE(WaitFor([&] {
    return ErrorLogText().find("could not prove it knows the link secret") != std::string::npos;
  })) << ErrorLogText();

  // The real front-end takes the port back and the node comes to it by itself.
  owner.reset();
  StartFront();
  auto c = LogIn("K1ABC");
  c->SendLine("SH/NAME");
  EXPECT_TRUE(c->ReadUntil("Name is Ann")) << c->received();
}

}  // namespace
}  // namespace qx::testing
