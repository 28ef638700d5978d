#include "downloads/http_get.h"

#include <gtest/gtest.h>

#include "tests/testlib/http_server.h"

namespace qx {
namespace {

namespace asio = boost::asio;
using testing::HttpTestServer;
using testing::ServedFile;

// The one file these tests fetch, with both validators.
void ServeWwv(HttpTestServer& server, bool silent = false) {
  ServedFile file("Solar flux 140", "\"v1\"", 0, silent);
  file.last_modified = "Thu, 05 Nov 2026 15:05:00 GMT";
  server.Serve("/text/wwv.txt", file);
}

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
  HttpTestServer server(io);
  ServeWwv(server);
  HttpGetRequest request;
  request.url = server.Url("/text/wwv.txt");
  HttpGetResult r = Fetch(io, request);
  EXPECT_EQ(r.status, 200) << r.error;
  EXPECT_EQ(r.body, "Solar flux 140");
  EXPECT_EQ(r.last_modified, "Thu, 05 Nov 2026 15:05:00 GMT");
  EXPECT_EQ(r.etag, "\"v1\"");
  ASSERT_EQ(server.requests().size(), 1u);
  EXPECT_TRUE(server.requests()[0].starts_with("GET /text/wwv.txt HTTP/1.1\r\n"));

  request.if_modified_since = r.last_modified;
  request.if_none_match = r.etag;
  r = Fetch(io, request);
  EXPECT_EQ(r.status, 304) << r.error;
  EXPECT_EQ(r.body, "");
  ASSERT_EQ(server.requests().size(), 2u);
  EXPECT_NE(server.requests()[1].find("If-None-Match: \"v1\"\r\n"), std::string::npos);
  EXPECT_NE(server.requests()[1].find("If-Modified-Since: Thu, 05 Nov 2026 15:05:00 GMT\r\n"),
            std::string::npos);
}

TEST(HttpGetTest, OversizeSilentAndUnreachableServersGiveAnError) {
  asio::io_context io;
  HttpTestServer server(io);
  ServeWwv(server);
  HttpGetRequest request;
  request.url = server.Url("/text/wwv.txt");
  request.max_body = 10;
  HttpGetResult r = Fetch(io, request);
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.error, "the answer is larger than 10 bytes");

  ServeWwv(server, /*silent=*/true);
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

// Reference files move (a new host, http to https): the fetch follows where they went, and
// says where it ended, but not round in circles.
TEST(HttpGetTest, FollowsRedirectsAWayAndNoFurther) {
  asio::io_context io;
  HttpTestServer server(io);
  ServeWwv(server);
  ServedFile moved;
  moved.location = "../text/wwv.txt#top";  // relative to /old/wwv.txt
  server.Serve("/old/wwv.txt", moved);
  moved.location = server.Url("/old/wwv.txt");
  server.Serve("/older", moved);
  moved.location = "/loop";
  server.Serve("/loop", moved);
  HttpGetRequest request;
  request.url = server.Url("/older");
  HttpGetResult r = Fetch(io, request);
  EXPECT_EQ(r.status, 200) << r.error;
  EXPECT_EQ(r.body, "Solar flux 140");
  EXPECT_EQ(r.url, server.Url("/text/wwv.txt"));
  EXPECT_EQ(server.requests().size(), 3u);

  request.url = server.Url("/loop");
  r = Fetch(io, request);
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.error, "more than 5 redirects (the last to " + server.Url("/loop") + ")");
  EXPECT_EQ(server.requests().size(), 3u + 6u);

  std::string next;
  const struct {
    const char* base;
    const char* location;
    const char* expected;  // nullptr: refused
  } kCases[] = {
      {"https://a.example/x/y.txt?q=1", "z.txt", "https://a.example/x/z.txt"},
      {"http://a.example:8080/x/y", "/z", "http://a.example:8080/z"},
      {"https://a.example/x", "//b.example/z", "https://b.example/z"},
      {"http://[::1]:81/x/y", "z", "http://[::1]:81/x/z"},
      {"http://a.example/x/y/z", "../../w/./v?a=../b", "http://a.example/w/v?a=../b"},
      {"http://a.example/x/y", "..", "http://a.example/"},
      {"http://a.example/x", "https://b.example/", "https://b.example/"},
      {"http://a.example/x", "ftp://b.example/", nullptr},
      {"http://a.example/x", "mailto:a@b.example", nullptr},
      {"http://a.example/x", "", nullptr},
      {"http://a.example/x", "/a b", nullptr},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(std::string(c.base) + " + " + c.location);
    EXPECT_EQ(ResolveRedirect(c.base, c.location, next), c.expected != nullptr);
    if (c.expected) {
      EXPECT_EQ(next, c.expected);
    }
  }
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
