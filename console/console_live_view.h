// One browser WebSocket of live lines: a bounded queue of JSON messages.  When the queue is
// full, lines are counted instead of kept; once it has drained to half, a marker tells how
// many were lost, so a browser that stops reading costs the node nothing but the count.
#pragma once

#include <cstdint>
#include <deque>
#include <memory>
#include <string>

#include "console/console_server_internal.h"

namespace qx {

class WsConnection : public std::enable_shared_from_this<WsConnection> {
 public:
  WsConnection(tcp::socket socket, std::shared_ptr<ConsoleServer::Impl> server,
               std::string session_id)
      : ws_(std::move(socket)), server_(std::move(server)), session_id_(std::move(session_id)) {}

  const std::string& session_id() const { return session_id_; }

  // Completes the upgrade that req asked for, then starts reading.
  void Start(Request req);
  void Push(std::shared_ptr<const std::string> msg);
  void Close();

 private:
  void Read();
  void Write();
  void OnWrite(beast::error_code ec);

  websocket::stream<beast::tcp_stream> ws_;
  std::shared_ptr<ConsoleServer::Impl> server_;
  std::string session_id_;
  beast::flat_buffer in_;
  std::deque<std::shared_ptr<const std::string>> queue_;
  bool writing_ = false;
  bool dropping_ = false;
  bool closed_ = false;
  uint64_t dropped_ = 0;
};

}  // namespace qx
