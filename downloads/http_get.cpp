#include "downloads/http_get.h"

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/detached.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/redirect_error.hpp>
#include <boost/asio/ssl.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/ssl.hpp>
#include <optional>

namespace qx {
namespace {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
using boost::system::error_code;

// Everything one request holds; the time-out watchdog keeps it alive as long as it may
// still touch it.
struct State {
  explicit State(asio::io_context& io)
      : resolver(io), stream(io), timer(io), tls(asio::ssl::context::tls_client) {}
  asio::ip::tcp::resolver resolver;
  beast::tcp_stream stream;
  asio::steady_timer timer;
  asio::ssl::context tls;
  std::optional<beast::ssl_stream<beast::tcp_stream>> secure;
  // The socket in use: the plain stream's until TLS takes it over.
  beast::tcp_stream& lowest() { return secure ? beast::get_lowest_layer(*secure) : stream; }
  bool timed_out = false;
};

template <typename Stream>
asio::awaitable<void> Exchange(Stream& stream, const HttpGetRequest& req, const Url& url,
                               HttpGetResult& result) {
  http::request<http::empty_body> request{http::verb::get, url.target, 11};
  request.set(http::field::host, url.host);
  request.set(http::field::user_agent, req.user_agent);
  if (!req.if_modified_since.empty()) {
    request.set(http::field::if_modified_since, req.if_modified_since);
  }
  if (!req.if_none_match.empty()) request.set(http::field::if_none_match, req.if_none_match);
  error_code ec;
  co_await http::async_write(stream, request, asio::redirect_error(asio::use_awaitable, ec));
  if (ec) {
    result.error = "sending the request: " + ec.message();
    co_return;
  }
  beast::flat_buffer buffer;
  http::response_parser<http::string_body> parser;
  parser.body_limit(req.max_body);
  co_await http::async_read(stream, buffer, parser, asio::redirect_error(asio::use_awaitable, ec));
  if (ec) {
    result.error = ec == http::error::body_limit
                       ? "the answer is larger than " + std::to_string(req.max_body) + " bytes"
                       : "reading the answer: " + ec.message();
    co_return;
  }
  http::response<http::string_body>& response = parser.get();
  result.status = int(response.result_int());
  result.body = std::move(response.body());
  result.last_modified = std::string(response[http::field::last_modified]);
  result.etag = std::string(response[http::field::etag]);
  result.location = std::string(response[http::field::location]);
}

asio::awaitable<void> Run(std::shared_ptr<State> st, HttpGetRequest req, Url url,
                          HttpGetResult& result) {
  error_code ec;
  const auto endpoints = co_await st->resolver.async_resolve(
      url.host, url.port, asio::redirect_error(asio::use_awaitable, ec));
  if (ec) {
    result.error = "cannot resolve " + url.host + ": " + ec.message();
    co_return;
  }
  co_await st->stream.async_connect(endpoints, asio::redirect_error(asio::use_awaitable, ec));
  if (ec) {
    result.error = "cannot connect to " + url.host + ": " + ec.message();
    co_return;
  }
  if (!url.https) {
    co_await Exchange(st->stream, req, url, result);
    co_return;
  }
  st->tls.set_default_verify_paths(ec);
  st->tls.set_verify_mode(asio::ssl::verify_peer);
  st->secure.emplace(std::move(st->stream), st->tls);
  st->secure->set_verify_callback(asio::ssl::host_name_verification(url.host));
  // The server name, so that a host sharing its address with others shows the right
  // certificate.
  if (!SSL_set_tlsext_host_name(st->secure->native_handle(), url.host.c_str())) {
    result.error = "cannot set the TLS server name";
    co_return;
  }
  co_await st->secure->async_handshake(asio::ssl::stream_base::client,
                                       asio::redirect_error(asio::use_awaitable, ec));
  if (ec) {
    result.error = "TLS handshake with " + url.host + ": " + ec.message();
    co_return;
  }
  co_await Exchange(*st->secure, req, url, result);
}

}  // namespace

namespace {

// One request, no redirects followed.
void GetOnce(asio::io_context& io, HttpGetRequest request,
             std::function<void(HttpGetResult)> done) {
  Url url;
  if (!ParseUrl(request.url, url)) {
    HttpGetResult r;
    r.error = "not an http or https address: " + request.url;
    asio::post(io, [done = std::move(done), r = std::move(r)]() mutable { done(std::move(r)); });
    return;
  }
  auto st = std::make_shared<State>(io);
  auto result = std::make_shared<HttpGetResult>();
  // One deadline for the whole exchange: when it passes, everything under way is cancelled
  // and the coroutine ends with the error of the cancelled step.
  st->timer.expires_after(request.timeout);
  st->timer.async_wait([st](const error_code& ec) {
    if (ec) return;
    st->timed_out = true;
    st->resolver.cancel();
    error_code ignored;
    st->lowest().socket().close(ignored);
  });
  const auto timeout = request.timeout;
  asio::co_spawn(io, Run(st, std::move(request), std::move(url), *result),
                 [st, result, timeout, done = std::move(done)](std::exception_ptr failure) {
                   st->timer.cancel();
                   if (failure) {
                     *result = HttpGetResult{};
                     result->error = "internal failure";
                   } else if (st->timed_out) {
                     *result = HttpGetResult{};
                     result->error = "no answer within " + std::to_string(timeout.count()) + " ms";
                   }
                   error_code ignored;
                   st->lowest().socket().close(ignored);
                   done(std::move(*result));
                 });
}

bool IsRedirect(int status) {
  return status == 301 || status == 302 || status == 303 || status == 307 || status == 308;
}

constexpr int kMaxRedirects = 5;

void Follow(asio::io_context& io, HttpGetRequest request, int redirects_left,
            std::function<void(HttpGetResult)> done) {
  const std::string asked = request.url;
  GetOnce(
      io, request,
      [&io, request, redirects_left, asked, done = std::move(done)](HttpGetResult result) mutable {
        result.url = asked;
        if (!IsRedirect(result.status) || result.location.empty()) {
          result.location.clear();
          done(std::move(result));
          return;
        }
        std::string next;
        HttpGetResult failed;
        failed.url = asked;
        if (!ResolveRedirect(asked, result.location, next)) {
          failed.error =
              "redirected to an address that cannot be fetched: " + result.location.substr(0, 200);
        } else if (asked.starts_with("https://") && !next.starts_with("https://")) {
          failed.error = "refused a redirect from https to plain http: " + next;
        } else if (redirects_left == 0) {
          failed.error = "more than " + std::to_string(kMaxRedirects) + " redirects (the last to " +
                         next + ")";
        } else {
          request.url = std::move(next);
          Follow(io, std::move(request), redirects_left - 1, std::move(done));
          return;
        }
        done(std::move(failed));
      });
}

}  // namespace

void HttpGet(asio::io_context& io, HttpGetRequest request,
             std::function<void(HttpGetResult)> done) {
  Follow(io, std::move(request), kMaxRedirects, std::move(done));
}

}  // namespace qx
