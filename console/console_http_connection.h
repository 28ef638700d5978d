// One HTTP connection of the console: requests one at a time.  Each phase has its own
// deadline: the wait for a request on a kept-alive connection (idle time-out), the header from
// its first byte (or from the connection's opening) and the body.  The server looks at the
// phase to choose connections to close when slots run low.
#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "console/console_server_internal.h"

namespace qx {

class HttpConnection : public std::enable_shared_from_this<HttpConnection> {
 public:
  using Clock = std::chrono::steady_clock;
  enum class Phase { kIdle, kHeader, kBody, kBusy, kClosing };

  HttpConnection(tcp::socket socket, std::shared_ptr<ConsoleServer::Impl> server);

  Phase phase() const { return phase_; }
  Clock::time_point phase_since() const { return phase_since_; }

  void Start();
  void Close();
  // Closed at once to free its slot for a new connection.
  void Evict();

 private:
  void SetPhase(Phase p);
  // One deadline at a time; when it passes, the pending read is cancelled and its handler
  // sees timed_out_.
  void Arm(std::chrono::milliseconds limit);
  void Disarm();
  // Waits for the first bytes of the next request; until they come the connection is idle.
  void WaitForRequest();
  void ReadHeader();
  void OnHeader(beast::error_code ec);
  void OnReadError(beast::error_code ec);
  void Dispatch();
  void Refuse(http::status status);
  void Send(Response res);
  void Finish();
  void Drain();
  void Done();

  beast::tcp_stream stream_;
  std::shared_ptr<ConsoleServer::Impl> server_;
  asio::steady_timer deadline_;
  beast::flat_buffer buffer_{8192};
  std::optional<http::request_parser<http::string_body>> parser_;
  std::shared_ptr<Response> response_;
  asio::ip::address peer_;
  std::string peer_text_;
  Phase phase_ = Phase::kIdle;
  Clock::time_point phase_since_ = Clock::now();
  bool timed_out_ = false;
  bool fresh_ = true;
  bool finishing_ = false;
  uint64_t deadline_generation_ = 0;
  std::array<char, 4096> drain_;
};

}  // namespace qx
