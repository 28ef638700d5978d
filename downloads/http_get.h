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

#include "downloads/url.h"

namespace qx {

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
  std::string url;       // the address that answered: the request's, or where redirects led
  std::string location;  // a redirect's Location while it is followed; empty in results
};

// Runs the request; done is called exactly once, on the io_context's thread.  Redirects
// (301, 302, 303, 307, 308) are followed up to five times, each step with the whole time
// limit; one from https to plain http is refused, since it would hand reference data to
// whoever sits on the path.
void HttpGet(boost::asio::io_context& io, HttpGetRequest request,
             std::function<void(HttpGetResult)> done);

}  // namespace qx
