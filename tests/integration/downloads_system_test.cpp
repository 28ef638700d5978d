// Reference data in a running node: the sysop's UPDATE fetches the country file from a local
// HTTP server, the node installs and uses it at once; a wrong file changes nothing.
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/read_until.hpp>
#include <boost/asio/write.hpp>
#include <mutex>
#include <thread>

#include "spots/country.h"
#include "tests/testlib/node_sites.h"

namespace qx::testing {
namespace {

namespace asio = boost::asio;
using ::testing::HasSubstr;

// Serves one text, which the test may change, to every GET.
class FileServer {
 public:
  FileServer() : acceptor_(io_, {asio::ip::make_address("127.0.0.1"), 0}) {
    Accept();
    thread_ = std::thread([this] { io_.run(); });
  }
  ~FileServer() {
    io_.stop();
    thread_.join();
  }
  int port() const { return acceptor_.local_endpoint().port(); }
  void Serve(std::string text) {
    std::lock_guard lock(mutex_);
    text_ = std::move(text);
  }

 private:
  void Accept() {
    acceptor_.async_accept([this](boost::system::error_code ec, asio::ip::tcp::socket s) {
      if (ec) return;
      auto socket = std::make_shared<asio::ip::tcp::socket>(std::move(s));
      auto in = std::make_shared<std::string>();
      asio::async_read_until(
          *socket, asio::dynamic_buffer(*in), "\r\n\r\n",
          [this, socket, in](boost::system::error_code ec, size_t) {
            if (ec) return;
            std::lock_guard lock(mutex_);
            auto out = std::make_shared<std::string>(
                "HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(text_.size()) + "\r\n\r\n" +
                text_);
            asio::async_write(*socket, asio::buffer(*out),
                              [socket, out](boost::system::error_code, size_t) {});
          });
      Accept();
    });
  }
  std::mutex mutex_;
  std::string text_;
  asio::io_context io_;
  asio::ip::tcp::acceptor acceptor_;
  std::thread thread_;
};

TEST(DownloadsSystemTest, SysopUpdateInstallsTheCountryFileAndTheNodeUsesIt) {
  if (!std::filesystem::exists(kSystemCountryFile)) GTEST_SKIP() << "no country file";
  const std::string original = ReadFile(kSystemCountryFile);
  CountryLookup lookup;
  ASSERT_TRUE(lookup.LoadText(original));
  const std::string newer =
      original + "Testland:  14:  28:  EU:  51.00:  -10.00:  -1.0:  QX9:\r\n    QX9;\r\n";

  FileServer server;
  server.Serve(newer);
  NodeSite node("K1QXA");
  node.Setting("Country File URL",
               fmt::format("http://127.0.0.1:{}/cty_wt_mod.dat", server.port()));
  node.Setting("Download Hours", "0");  // only when asked
  node.Password("K1SYS", "secret", 5);
  node.Start();
  auto user = node.LogIn("W1AAA");
  user->SendLine("UPDATE");
  ASSERT_TRUE(user->ReadUntil("UPDATE - sysop command error")) << user->received();

  auto sysop = node.LogIn("K1SYS", "secret");
  sysop->SendLine("UPDATE");
  ASSERT_TRUE(sysop->ReadUntil("Fetching the reference files")) << sysop->received();
  ASSERT_TRUE(node.WaitOutput(
      fmt::format("Country file reloaded: {} countries", lookup.country_count() + 1)))
      << node.node().Output();
  EXPECT_EQ(ReadFile(node.home() / "data/files/cty_wt_mod.dat"), newer);

  // An error page in its place is refused; the installed file stays.
  server.Serve("<html><body>Service Unavailable</body></html>\r\n" +
               std::string(newer.size(), ' '));
  sysop->SendLine("UPDATE cty_wt_mod.dat");
  ASSERT_TRUE(node.WaitOutput("Download of cty_wt_mod.dat failed: not a country file"))
      << node.node().Output();
  EXPECT_EQ(ReadFile(node.home() / "data/files/cty_wt_mod.dat"), newer);
  sysop->ClearReceived();
  sysop->SendLine("UPDATE STATUS");
  ASSERT_TRUE(sysop->ReadUntil("Program:")) << sysop->received();
  EXPECT_THAT(sysop->received(), HasSubstr("cty_wt_mod.dat   failed: not a country file"));
}

}  // namespace
}  // namespace qx::testing
