#include "frontend/http_request.h"

#include <gtest/gtest.h>

#include <string>

namespace qx {
namespace {

using Status = HttpRequestParser::Status;

constexpr std::string_view kUpgrade =
    "GET /stream?band=20m HTTP/1.1\r\nHost: node\r\nUpgrade: WebSocket\r\n"
    "Connection: keep-alive, Upgrade\r\nSec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\n"
    "Sec-WebSocket-Version: 13\r\n\r\n";

// Feeds text in pieces of the given size; returns the final status.
Status FeedInPieces(HttpRequestParser& parser, std::string_view text, size_t piece) {
  Status status = Status::kNeedMore;
  for (size_t i = 0; i < text.size(); i += piece) status = parser.Feed(text.substr(i, piece));
  return status;
}

TEST(HttpRequestParser, ReadsTheSameHeadWhateverThePieces) {
  const std::string text = std::string(kUpgrade) + "\x81\x85";  // a frame sent early
  for (size_t piece : {1, 2, 3, 7, 64, 4096}) {
    HttpRequestParser parser;
    ASSERT_EQ(FeedInPieces(parser, text, piece), Status::kDone) << piece;
    const HttpRequest& r = parser.request();
    EXPECT_EQ(r.method, "GET");
    EXPECT_EQ(r.target, "/stream?band=20m");
    EXPECT_EQ(r.Path(), "/stream");
    EXPECT_EQ(r.Header("sec-websocket-version"), "13");
    EXPECT_TRUE(r.HeaderHasToken("connection", "upgrade"));
    EXPECT_FALSE(r.HeaderHasToken("connection", "close"));
    EXPECT_EQ(parser.rest(), "\x81\x85") << piece;
  }
  // Bare LF line ends and leading blank lines are read too.
  HttpRequestParser lf;
  EXPECT_EQ(lf.Feed("\r\n\nGET /spots HTTP/1.0\nX-A:  b \n\n"), Status::kDone);
  EXPECT_EQ(lf.request().Header("x-a"), "b");
}

TEST(HttpRequestParser, RefusesBrokenAndOversizeHeads) {
  for (std::string_view bad :
       {"GET /x\r\n\r\n", "GET  /x HTTP/1.1\r\nHost: a\r\n\r\n", "GET http://a/x HTTP/1.1\r\n\r\n",
        "GET /x HTTP/2.0\r\nHost: a\r\n\r\n", "GET /x HTTP/1.1\r\n\r\n",
        "GET /x HTTP/1.1\r\nHost: a\r\n folded\r\n\r\n", "GET /x HTTP/1.1\r\nHost a\r\n\r\n",
        "GET /x HTTP/1.1\r\nHost: a\x01\r\n\r\n", "G(T /x HTTP/1.1\r\nHost: a\r\n\r\n"}) {
    HttpRequestParser parser;
    EXPECT_EQ(FeedInPieces(parser, bad, 3), Status::kBadRequest) << bad;
    EXPECT_FALSE(parser.error().empty());
  }
  HttpRequestParser big(256);
  EXPECT_EQ(big.Feed("GET /x HTTP/1.1\r\nHost: a\r\nX: " + std::string(300, 'a')),
            Status::kTooLarge);
  EXPECT_EQ(big.Feed("\r\n\r\n"), Status::kTooLarge);  // stays refused
  std::string many = "GET /x HTTP/1.1\r\n";
  for (size_t i = 0; i <= HttpRequestParser::kMaxHeaders; ++i) many += "X: 1\r\n";
  HttpRequestParser parser;
  EXPECT_EQ(parser.Feed(many + "\r\n"), Status::kBadRequest);
}

HttpRoute RouteOf(std::string_view text) {
  HttpRequestParser parser;
  EXPECT_EQ(parser.Feed(text), Status::kDone) << text;
  return RouteHttpRequest(parser.request());
}

TEST(RouteHttpRequest, StreamsPollsAndRefusals) {
  EXPECT_EQ(RouteOf(kUpgrade).kind, HttpRoute::Kind::kStream);
  EXPECT_EQ(RouteOf("GET /spots?n=5 HTTP/1.1\r\nHost: a\r\n\r\n").kind, HttpRoute::Kind::kPoll);
  const auto status = [](std::string_view text) { return RouteOf(text).status; };
  EXPECT_EQ(status("GET /other HTTP/1.1\r\nHost: a\r\n\r\n"), 404);
  EXPECT_EQ(status("POST /spots HTTP/1.1\r\nHost: a\r\n\r\n"), 405);
  EXPECT_EQ(status("GET /stream HTTP/1.1\r\nHost: a\r\n\r\n"), 426);
  std::string v8(kUpgrade);
  v8.replace(v8.find("Version: 13"), 11, "Version: 8");
  EXPECT_EQ(status(v8), 426);
  std::string bad_key(kUpgrade);
  bad_key.replace(bad_key.find("dGhl"), 4, "dGh!");
  EXPECT_EQ(status(bad_key), 400);
  std::string no_connection(kUpgrade);
  no_connection.replace(no_connection.find("keep-alive, Upgrade"), 19, "keep-alive");
  EXPECT_EQ(status(no_connection), 400);
}

TEST(HttpText, TargetsAreSafeInRecordsAndAnswersAreComplete) {
  EXPECT_EQ(EncodeTargetForLink("/stream?a=b^c%20d\x7f\xc3\xa9"), "/stream?a=b%5Ec%20d%7F%C3%A9");
  const std::string answer = HttpResponse(200, "application/json", "[1]");
  EXPECT_TRUE(answer.starts_with("HTTP/1.1 200 OK\r\n"));
  EXPECT_NE(answer.find("Content-Length: 3\r\n"), std::string::npos);
  EXPECT_NE(answer.find("Access-Control-Allow-Origin: *\r\n"), std::string::npos);
  EXPECT_TRUE(answer.ends_with("Connection: close\r\nAccess-Control-Allow-Origin: *\r\n\r\n[1]"));
}

}  // namespace
}  // namespace qx
