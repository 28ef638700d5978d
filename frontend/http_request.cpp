#include "frontend/http_request.h"

#include <algorithm>

#include "frontend/websocket_codec.h"

namespace qx {
namespace {

bool IsTokenChar(char c) {
  // The characters of a method or header name.
  if ((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9')) return true;
  return std::string_view("!#$%&'*+-.^_`|~").find(c) != std::string_view::npos;
}

bool IsToken(std::string_view s) {
  return !s.empty() && std::all_of(s.begin(), s.end(), IsTokenChar);
}

char Lower(char c) { return c >= 'A' && c <= 'Z' ? char(c - 'A' + 'a') : c; }

bool SameIgnoringCase(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i) {
    if (Lower(a[i]) != Lower(b[i])) return false;
  }
  return true;
}

std::string_view TrimBlanks(std::string_view s) {
  while (!s.empty() && (s.front() == ' ' || s.front() == '\t')) s.remove_prefix(1);
  while (!s.empty() && (s.back() == ' ' || s.back() == '\t')) s.remove_suffix(1);
  return s;
}

// The next line of the head without its line end (CR LF or a lone LF).
std::string_view NextLine(std::string_view& head) {
  const size_t lf = head.find('\n');
  std::string_view line = head.substr(0, lf);
  head.remove_prefix(lf == std::string_view::npos ? head.size() : lf + 1);
  if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
  return line;
}

HttpRoute Refuse(int status, std::string body) {
  return HttpRoute{HttpRoute::Kind::kRefuse, status, std::move(body)};
}

}  // namespace

std::string_view HttpRequest::Header(std::string_view name) const {
  for (const auto& [n, v] : headers) {
    if (n == name) return v;
  }
  return {};
}

bool HttpRequest::HeaderHasToken(std::string_view name, std::string_view token) const {
  for (const auto& [n, v] : headers) {
    if (n != name) continue;
    std::string_view rest = v;
    while (!rest.empty()) {
      const size_t comma = rest.find(',');
      if (SameIgnoringCase(TrimBlanks(rest.substr(0, comma)), token)) return true;
      rest.remove_prefix(comma == std::string_view::npos ? rest.size() : comma + 1);
    }
  }
  return false;
}

std::string_view HttpRequest::Path() const {
  return std::string_view(target).substr(0, target.find('?'));
}

HttpRequestParser::Status HttpRequestParser::Feed(std::string_view bytes) {
  if (status_ == Status::kDone) rest_.append(bytes);
  if (status_ != Status::kNeedMore) return status_;
  // Blank lines before the request line are allowed and skipped.
  if (buffer_.empty()) {
    while (!bytes.empty() && (bytes.front() == '\r' || bytes.front() == '\n')) {
      bytes.remove_prefix(1);
    }
  }
  buffer_.append(bytes);
  // The head ends with an empty line: LF CR LF or LF LF.
  size_t end = std::string::npos;
  size_t body = 0;
  for (size_t i = scanned_; i < buffer_.size(); ++i) {
    if (buffer_[i] != '\n') continue;
    if (i + 1 < buffer_.size() && buffer_[i + 1] == '\n') {
      end = i + 1;
      body = i + 2;
      break;
    }
    if (i + 2 < buffer_.size() && buffer_[i + 1] == '\r' && buffer_[i + 2] == '\n') {
      end = i + 1;
      body = i + 3;
      break;
    }
  }
  if (end == std::string::npos) {
    if (buffer_.size() > max_head_) return Fail("request head too large", Status::kTooLarge);
    // The last two bytes may begin the empty line; look at them again next time.
    scanned_ = buffer_.size() >= 2 ? buffer_.size() - 2 : 0;
    return status_;
  }
  if (end > max_head_) return Fail("request head too large", Status::kTooLarge);
  rest_ = buffer_.substr(body);
  status_ = Parse(std::string_view(buffer_).substr(0, end));
  buffer_.clear();
  buffer_.shrink_to_fit();
  return status_;
}

HttpRequestParser::Status HttpRequestParser::Fail(std::string_view why, Status status) {
  error_ = std::string(why);
  status_ = status;
  buffer_.clear();
  buffer_.shrink_to_fit();
  return status_;
}

HttpRequestParser::Status HttpRequestParser::Parse(std::string_view head) {
  // "GET /stream?x HTTP/1.1": exactly three parts separated by single blanks.
  const std::string_view line = NextLine(head);
  const size_t sp1 = line.find(' ');
  const size_t sp2 = sp1 == std::string_view::npos ? sp1 : line.find(' ', sp1 + 1);
  if (sp2 == std::string_view::npos) return Fail("bad request line");
  const std::string_view method = line.substr(0, sp1);
  const std::string_view target = line.substr(sp1 + 1, sp2 - sp1 - 1);
  const std::string_view version = line.substr(sp2 + 1);
  if (!IsToken(method)) return Fail("bad method");
  // Only the origin form ("/path?query") is served; no control bytes or blanks inside.
  if (target.empty() || target.front() != '/') return Fail("bad request target");
  for (unsigned char c : target) {
    if (c < 33 || c == 127) return Fail("bad request target");
  }
  if (version != "HTTP/1.1" && version != "HTTP/1.0") return Fail("unsupported HTTP version");
  request_.method = std::string(method);
  request_.target = std::string(target);
  request_.version = std::string(version);

  while (!head.empty()) {
    const std::string_view field = NextLine(head);
    if (field.empty()) break;
    // Folded lines are obsolete and a known way to smuggle headers: refused.
    if (field.front() == ' ' || field.front() == '\t') return Fail("folded header line");
    const size_t colon = field.find(':');
    if (colon == std::string_view::npos || !IsToken(field.substr(0, colon))) {
      return Fail("bad header line");
    }
    const std::string_view value = TrimBlanks(field.substr(colon + 1));
    for (unsigned char c : value) {
      if ((c < 32 && c != '\t') || c == 127) return Fail("control byte in a header");
    }
    if (request_.headers.size() >= kMaxHeaders) return Fail("too many headers");
    std::string name(field.substr(0, colon));
    std::transform(name.begin(), name.end(), name.begin(), Lower);
    request_.headers.emplace_back(std::move(name), std::string(value));
  }
  if (request_.version == "HTTP/1.1" && request_.Header("host").empty()) {
    return Fail("no Host header");
  }
  return Status::kDone;
}

HttpRoute RouteHttpRequest(const HttpRequest& request) {
  const std::string_view path = request.Path();
  const bool stream = path == "/stream";
  if (!stream && path != "/spots") return Refuse(404, "Not found: use /stream or /spots.\n");
  if (request.method != "GET") return Refuse(405, "Only GET is served here.\n");
  if (!stream) return HttpRoute{HttpRoute::Kind::kPoll, 0, {}};
  if (!request.HeaderHasToken("upgrade", "websocket")) {
    return Refuse(426, "/stream is a WebSocket: send an upgrade request.\n");
  }
  if (request.version != "HTTP/1.1" || !request.HeaderHasToken("connection", "upgrade")) {
    return Refuse(400, "Bad WebSocket upgrade: Connection: Upgrade over HTTP/1.1 is needed.\n");
  }
  if (request.Header("sec-websocket-version") != "13") {
    return Refuse(426, "Only WebSocket version 13 is spoken here.\n");
  }
  if (!ValidWebSocketKey(request.Header("sec-websocket-key"))) {
    return Refuse(400, "Bad WebSocket upgrade: Sec-WebSocket-Key is missing or malformed.\n");
  }
  return HttpRoute{HttpRoute::Kind::kStream, 0, {}};
}

std::string EncodeTargetForLink(std::string_view target) {
  static constexpr char kHex[] = "0123456789ABCDEF";
  std::string out;
  out.reserve(target.size());
  for (unsigned char c : target) {
    if (c <= 32 || c >= 127 || c == '^') {
      out.push_back('%');
      out.push_back(kHex[c >> 4]);
      out.push_back(kHex[c & 15]);
    } else {
      out.push_back(char(c));
    }
  }
  return out;
}

std::string_view HttpReason(int status) {
  switch (status) {
    case 101:
      return "Switching Protocols";
    case 200:
      return "OK";
    case 204:
      return "No Content";
    case 400:
      return "Bad Request";
    case 403:
      return "Forbidden";
    case 404:
      return "Not Found";
    case 405:
      return "Method Not Allowed";
    case 408:
      return "Request Timeout";
    case 426:
      return "Upgrade Required";
    case 429:
      return "Too Many Requests";
    case 431:
      return "Request Header Fields Too Large";
    case 500:
      return "Internal Server Error";
    case 502:
      return "Bad Gateway";
    case 503:
      return "Service Unavailable";
    case 504:
      return "Gateway Timeout";
    default:
      return "Unknown";
  }
}

std::string HttpResponse(int status, std::string_view content_type, std::string_view body,
                         std::string_view extra_headers) {
  std::string out = "HTTP/1.1 " + std::to_string(status) + " " + std::string(HttpReason(status)) +
                    "\r\nContent-Type: " + std::string(content_type) +
                    "\r\nContent-Length: " + std::to_string(body.size()) +
                    "\r\nConnection: close\r\nAccess-Control-Allow-Origin: *\r\n";
  out.append(extra_headers);
  out += "\r\n";
  out.append(body);
  return out;
}

}  // namespace qx
