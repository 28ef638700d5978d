// The per-connection state of the listener for programs, kept out of the line-based
// connection code: a request whose head is still being read, and the WebSocket stream or
// HTTP poll a connection became.  Only the front-end's own files include this.
#pragma once

#include <array>
#include <string>

#include "frontend/frontend_server_internal.h"
#include "frontend/http_request.h"
#include "frontend/websocket_codec.h"

namespace qx {

// A connection on the web port before its request is known: no stream yet, so nothing of it
// reaches the node until the request has been read and accepted.
struct WebPending {
  explicit WebPending(tcp::socket s) : socket(std::move(s)), timer(socket.get_executor()) {}
  tcp::socket socket;
  asio::steady_timer timer;
  HttpRequestParser parser;
  std::string address;  // counted by the connection limits
  std::string peer;
  std::array<char, 2048> buf;
  bool done = false;
};
using WebPendingPtr = std::shared_ptr<WebPending>;

struct WebSession {
  WebSession(const asio::any_io_executor& ex, bool is_stream, size_t max_message)
      : timer(ex), decoder(max_message), stream(is_stream) {}
  // Stream: the ping after a silence.  Poll: the deadline of the node's answer.
  asio::steady_timer timer;
  WsDecoder decoder;
  bool stream;              // a WebSocket; else an HTTP poll
  std::string opening;      // written before anything else: the 101 answer
  std::string early_input;  // bytes that came with the request head
  std::string partial;      // stream: node text not yet ended by a line end
  std::string answer;       // poll: the node's answer so far
  std::string web_address;  // counted by "WebSocket Max Per Address"; empty if not
  SteadyTime last_traffic{};
  bool close_sent = false;
  bool answered = false;
  bool timed_out = false;
  bool answer_too_big = false;
};

}  // namespace qx
