// An asynchronous HTTP(S) GET on the node's io_context: one request, one answer through a
// callback, never an exception.  Conditional headers let a caller that keeps the validators
// of the last answer be told "304 Not Modified" instead of receiving the same text again;
// the body is bounded and the whole exchange has a time limit, so a slow or hostile server
// costs the node nothing but a failed result.
#pragma once

#include <boost/asio/io_context.hpp>
#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

namespace qx {

struct Url {
  bool https = false;
  std::string host;
  std::string port;    // "80" / "443" unless given
  std::string target;  // path and query, "/" when empty
};

// "http://host[:port]/path" or "https://..."; false for anything else (other schemes,
// user info, an empty host, a port that is no number).
bool ParseUrl(std::string_view text, Url& out);

struct HttpGetRequest {
  std::string url;
  std::string if_modified_since;  // sent when not empty
  std::string if_none_match;
  size_t max_body = 1024 * 1024;
  std::chrono::milliseconds timeout{30000};
  std::string user_agent = "QX Cluster";
};

struct HttpGetResult {
  int status = 0;  // 0 when no answer was read; error says why
  std::string error;
  std::string body;
  std::string last_modified;
  std::string etag;
};

// Runs the request; done is called exactly once, on the io_context's thread.
void HttpGet(boost::asio::io_context& io, HttpGetRequest request,
             std::function<void(HttpGetResult)> done);

}  // namespace qx
