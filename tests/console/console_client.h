// Plain HTTP and WebSocket clients for the console's tests: requests with the session cookie
// and the CSRF token as the page sends them, and the live lines of the WebSocket.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <boost/asio.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/websocket.hpp>
#include <nlohmann/json.hpp>

namespace qx::testing {

// Kept apart so that the aliases below do not reach the tests that include this.
namespace console_client {
namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
namespace websocket = beast::websocket;
using tcp = asio::ip::tcp;
using nlohmann::json;
using namespace std::chrono_literals;

using ConsoleReply = http::response<http::string_body>;

struct ConsoleLogin {
  std::string cookie;  // "qxsid=<id>"
  std::string csrf;
};

class WsClient {
 public:
  // Connects and upgrades; the handshake's HTTP status (101 when accepted).
  int Connect(int port, const std::string& cookie, const std::string& origin = "",
              int receive_buffer = 0) {
    tcp::socket& s = ws_.next_layer();
    s.open(tcp::v4());
    if (receive_buffer > 0) s.set_option(asio::socket_base::receive_buffer_size(receive_buffer));
    s.connect(tcp::endpoint(asio::ip::make_address("127.0.0.1"), uint16_t(port)));
    ws_.set_option(websocket::stream_base::decorator([cookie, origin](websocket::request_type& r) {
      if (!cookie.empty()) r.set(http::field::cookie, cookie);
      if (!origin.empty()) r.set(http::field::origin, origin);
    }));
    websocket::response_type res;
    beast::error_code ec;
    ws_.handshake(res, "127.0.0.1:" + std::to_string(port), "/ws", ec);
    return int(res.result_int());
  }

  // The next message, or nullopt when none came within limit.  A read that is still waiting
  // when the time is up stays pending for the next call (cancelling it would end the stream).
  std::optional<json> Next(std::chrono::milliseconds limit = 5s) {
    if (!reading_) {
      reading_ = true;
      done_ = false;
      buffer_.clear();
      ws_.async_read(buffer_, [this](beast::error_code e, size_t) {
        ec_ = e;
        done_ = true;
      });
    }
    io_.restart();
    const auto end = std::chrono::steady_clock::now() + limit;
    while (!done_ && std::chrono::steady_clock::now() < end) io_.run_one_until(end);
    if (!done_) return std::nullopt;
    reading_ = false;
    if (ec_) return std::nullopt;
    return json::parse(beast::buffers_to_string(buffer_.data()));
  }

  bool closed() const { return done_ && ec_; }

  // Reads until a message of type t arrives.
  std::optional<json> NextOfType(std::string_view t, std::chrono::milliseconds limit = 5s) {
    const auto end = std::chrono::steady_clock::now() + limit;
    while (std::chrono::steady_clock::now() < end) {
      auto m = Next(std::chrono::duration_cast<std::chrono::milliseconds>(
          end - std::chrono::steady_clock::now()));
      if (!m) return std::nullopt;
      if ((*m)["t"] == t) return m;
    }
    return std::nullopt;
  }

 private:
  asio::io_context io_;
  websocket::stream<tcp::socket> ws_{io_};
  beast::flat_buffer buffer_;
  beast::error_code ec_;
  bool reading_ = false;
  bool done_ = false;
};

// Requests to a console on a loopback port.
class ConsoleClient {
 public:
  // source: the loopback address to connect from (127.0.0.2 and so on), to act as another
  // client; empty for the system's choice.
  explicit ConsoleClient(int port, std::string source = "")
      : port_(port), source_(std::move(source)) {}

  ConsoleReply Fetch(http::verb method, const std::string& target, const std::string& body = "",
                     const std::vector<std::pair<std::string, std::string>>& headers = {}) {
    asio::io_context io;
    beast::tcp_stream stream(io);
    if (!source_.empty()) {
      stream.socket().open(tcp::v4());
      stream.socket().bind(tcp::endpoint(asio::ip::make_address(source_), 0));
    }
    stream.connect(tcp::endpoint(asio::ip::make_address("127.0.0.1"), uint16_t(port_)));
    http::request<http::string_body> req{method, target, 11};
    req.set(http::field::host, "127.0.0.1:" + std::to_string(port_));
    for (const auto& [k, v] : headers) req.set(k, v);
    req.body() = body;
    req.prepare_payload();
    beast::flat_buffer buffer;
    ConsoleReply res;
    beast::error_code ec;
    http::write(stream, req, ec);
    if (!ec) http::read(stream, buffer, res, ec);
    EXPECT_FALSE(ec) << ec.message();
    return res;
  }

  ConsoleReply Get(const std::string& target, const ConsoleLogin* login = nullptr) {
    std::vector<std::pair<std::string, std::string>> h;
    if (login) h.emplace_back("Cookie", login->cookie);
    return Fetch(http::verb::get, target, "", h);
  }

  ConsoleReply Post(const std::string& target, const json& body, const ConsoleLogin* login,
                    bool with_csrf = true) {
    std::vector<std::pair<std::string, std::string>> h{{"Content-Type", "application/json"}};
    if (login) {
      h.emplace_back("Cookie", login->cookie);
      if (with_csrf) h.emplace_back("X-CSRF-Token", login->csrf);
    }
    return Fetch(http::verb::post, target, body.dump(), h);
  }

  ConsoleLogin LogIn(const std::string& password) {
    const ConsoleReply r = Post("/api/login", json{{"password", password}}, nullptr);
    EXPECT_EQ(r.result_int(), 200u) << r.body();
    const std::string set_cookie(r[http::field::set_cookie]);
    ConsoleLogin login;
    login.cookie = set_cookie.substr(0, set_cookie.find(';'));
    login.csrf = json::parse(r.body()).value("csrf", "");
    return login;
  }

 private:
  int port_;
  std::string source_;
};

}  // namespace console_client

using console_client::ConsoleClient;
using console_client::ConsoleLogin;
using console_client::ConsoleReply;
using console_client::WsClient;

}  // namespace qx::testing
