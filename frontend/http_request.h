// The HTTP side of the WebSocket listener: reading one request head, deciding what it asks
// for, and writing the short answers.  Programs reach the spot stream with a WebSocket
// upgrade on /stream and poll with a plain GET on /spots; anything else is answered with an
// error and closed.  Pure: bytes in, decisions out, so the parser can be fed in any pieces.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace qx {

struct HttpRequest {
  std::string method;
  std::string target;   // as received: "/stream?filter=..."
  std::string version;  // "HTTP/1.1"
  // Names in lower case, values without surrounding blanks, in the order received.
  std::vector<std::pair<std::string, std::string>> headers;

  // The first header of that (lower-case) name, or empty.
  std::string_view Header(std::string_view name) const;
  // Whether any header of that name lists token (comma-separated, any case).
  bool HeaderHasToken(std::string_view name, std::string_view token) const;
  // The target without its query.
  std::string_view Path() const;
};

class HttpRequestParser {
 public:
  enum class Status : uint8_t {
    kNeedMore,    // the head is not complete yet
    kDone,        // request() holds it; bytes after the head are in rest()
    kBadRequest,  // 400: not a request this listener can read
    kTooLarge,    // 431: the head passed the bound without ending
  };

  static constexpr size_t kDefaultMaxHead = 8 * 1024;
  static constexpr size_t kMaxHeaders = 64;

  explicit HttpRequestParser(size_t max_head = kDefaultMaxHead) : max_head_(max_head) {}

  // Takes the next bytes; once the status is no longer kNeedMore it stays as it is, and
  // bytes fed after the head are added to rest().
  Status Feed(std::string_view bytes);
  Status status() const { return status_; }
  const HttpRequest& request() const { return request_; }
  std::string_view rest() const { return rest_; }
  // Why the request could not be read (for the log).
  std::string_view error() const { return error_; }

 private:
  Status Parse(std::string_view head);
  Status Fail(std::string_view why, Status status = Status::kBadRequest);

  size_t max_head_;
  std::string buffer_;
  size_t scanned_ = 0;  // bytes of buffer_ known to hold no end of head
  Status status_ = Status::kNeedMore;
  HttpRequest request_;
  std::string rest_;
  std::string error_;
};

// What the listener does with a complete request.
struct HttpRoute {
  enum class Kind : uint8_t { kStream, kPoll, kRefuse };
  Kind kind = Kind::kRefuse;
  int status = 0;    // kRefuse: the status to answer
  std::string body;  // kRefuse: a short text saying why
};

// "/stream" with a valid WebSocket upgrade streams, "/spots" with a GET polls; wrong paths
// get 404, wrong methods 405, /stream without an upgrade 426, a broken upgrade 400.
HttpRoute RouteHttpRequest(const HttpRequest& request);

// The target as it goes to the node inside a record: "^", blanks, control bytes, 127 and
// bytes from 128 up are percent-encoded, so the record's fields stay intact.
std::string EncodeTargetForLink(std::string_view target);

// "Not Found" for 404 and so on; "Unknown" for codes this listener never uses.
std::string_view HttpReason(int status);

// A complete answer that closes the connection.  extra_headers, when given, are whole header
// lines each ended by CR LF.
std::string HttpResponse(int status, std::string_view content_type, std::string_view body,
                         std::string_view extra_headers = {});

}  // namespace qx
