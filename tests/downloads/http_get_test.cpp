#include "downloads/http_get.h"

#include <gtest/gtest.h>

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/read_until.hpp>
#include <boost/asio/write.hpp>
#include <memory>

namespace qx {
namespace {

namespace asio = boost::asio;
using asio::ip::tcp;

// A one-file HTTP server on a loopback port: answers 304 when the request carries the
// validator it handed out, 200 with the text otherwise; or, told so, never answers.
class LocalServer {
 public:
  explicit LocalServer(asio::io_context& io)
      : acceptor_(io, tcp::endpoint(asio::ip::make_address("127.0.0.1"), 0)) {
    Accept();
  }
  std::string Url() const {
    return "http://127.0.0.1:" + std::to_string(acceptor_.local_endpoint().port()) +
           "/text/wwv.txt";
  }
  std::string body = "Solar flux 140";
  bool silent = false;
  std::vector<std::string> requests;

 private:
  void Accept() {
    acceptor_.async_accept([this](boost::system::error_code ec, tcp::socket socket) {
      if (ec) return;
      auto s = std::make_shared<tcp::socket>(std::move(socket));
      auto buffer = std::make_shared<std::string>();
      asio::async_read_until(*s, asio::dynamic_buffer(*buffer), "\r\n\r\n",
                             [this, s, buffer](boost::system::error_code ec, size_t n) {
                               if (ec) return;
                               requests.push_back(buffer->substr(0, n));
                               if (!silent)
                                 Answer(s, requests.back());
                               else
                                 held_.push_back(s);
                             });
      Accept();
    });
  }
  void Answer(std::shared_ptr<tcp::socket> s, const std::string& request) {
    const bool fresh =
        request.find("If-Modified-Since: Thu, 05 Nov 2026 15:05:00 GMT") != std::string::npos;
    auto reply = std::make_shared<std::string>(
        fresh ? "HTTP/1.1 304 Not Modified\r\nContent-Length: 0\r\n\r\n"
              : "HTTP/1.1 200 OK\r\nLast-Modified: Thu, 05 Nov 2026 15:05:00 GMT\r\n"
                "ETag: \"v1\"\r\nContent-Length: " +
                    std::to_string(body.size()) + "\r\n\r\n" + body);
    asio::async_write(*s, asio::buffer(*reply), [s, reply](boost::system::error_code, size_t) {});
  }
  tcp::acceptor acceptor_;
  std::vector<std::shared_ptr<tcp::socket>> held_;
};

HttpGetResult Fetch(asio::io_context& io, HttpGetRequest request) {
  HttpGetResult result;
  int calls = 0;
  HttpGet(io, std::move(request), [&](HttpGetResult r) {
    result = std::move(r);
    ++calls;
    io.stop();
  });
  io.restart();
  io.run_for(std::chrono::seconds(10));
  EXPECT_EQ(calls, 1);
  return result;
}

TEST(HttpGetTest, ConditionalGetGetsTheTextOnceThenNotModified) {
  asio::io_context io;
  LocalServer server(io);
  HttpGetRequest request;
  request.url = server.Url();
  HttpGetResult r = Fetch(io, request);
  EXPECT_EQ(r.status, 200) << r.error;
  EXPECT_EQ(r.body, "Solar flux 140");
  EXPECT_EQ(r.last_modified, "Thu, 05 Nov 2026 15:05:00 GMT");
  EXPECT_EQ(r.etag, "\"v1\"");
  ASSERT_EQ(server.requests.size(), 1u);
  EXPECT_TRUE(server.requests[0].starts_with("GET /text/wwv.txt HTTP/1.1\r\n"));

  request.if_modified_since = r.last_modified;
  request.if_none_match = r.etag;
  r = Fetch(io, request);
  EXPECT_EQ(r.status, 304) << r.error;
  EXPECT_EQ(r.body, "");
  ASSERT_EQ(server.requests.size(), 2u);
  EXPECT_NE(server.requests[1].find("If-None-Match: \"v1\""), std::string::npos);
}

TEST(HttpGetTest, OversizeSilentAndUnreachableServersGiveAnError) {
  asio::io_context io;
  LocalServer server(io);
  HttpGetRequest request;
  request.url = server.Url();
  request.max_body = 10;
  HttpGetResult r = Fetch(io, request);
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.error, "the answer is larger than 10 bytes");

  server.silent = true;
  request.timeout = std::chrono::milliseconds(200);
  const auto start = std::chrono::steady_clock::now();
  r = Fetch(io, request);
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.error, "no answer within 200 ms");
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));

  request.url = "http://127.0.0.1:1/wwv.txt";  // nothing listens on port 1
  r = Fetch(io, request);
  EXPECT_EQ(r.status, 0);
  EXPECT_TRUE(r.error.starts_with("cannot connect to 127.0.0.1")) << r.error;
  request.url = "ftp://127.0.0.1/wwv.txt";
  r = Fetch(io, request);
  EXPECT_TRUE(r.error.starts_with("not an http or https address")) << r.error;
}

TEST(HttpGetTest, ParsesTheAddressesItCanFetch) {
  Url u;
  ASSERT_TRUE(ParseUrl("https://services.example.gov/text/wwv.txt", u));
  EXPECT_TRUE(u.https);
  EXPECT_EQ(u.host, "services.example.gov");
  EXPECT_EQ(u.port, "443");
  EXPECT_EQ(u.target, "/text/wwv.txt");
  ASSERT_TRUE(ParseUrl("http://127.0.0.1:8080", u));
  EXPECT_EQ(u.port, "8080");
  EXPECT_EQ(u.target, "/");
  ASSERT_TRUE(ParseUrl("http://[::1]:81/a?b=c", u));
  EXPECT_EQ(u.host, "::1");
  EXPECT_EQ(u.target, "/a?b=c");
  for (const char* bad : {"", "ftp://h/x", "http://", "http://user@h/x", "http://h:0/x",
                          "http://h:99999/", "http://h:x/", "http://h h/"}) {
    EXPECT_FALSE(ParseUrl(bad, u)) << bad;
  }
}

}  // namespace
}  // namespace qx
