// The node's subscription to the digital-mode reporter network's message broker (MQTT),
// driven from the node's own io_context: libmosquitto does the protocol, the node's event
// loop does the waiting on its socket (no thread of libmosquitto's own).  The host name is
// resolved asynchronously and the address is tried with an asynchronous connect first, so
// that the library's own connect, which blocks, only ever meets a broker that answers.
// A connection that fails or drops is tried again with a growing pause.
#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/posix/stream_descriptor.hpp>
#include <boost/asio/steady_timer.hpp>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "feeds/feed_streams.h"

struct mosquitto;
struct mosquitto_message;

namespace qx {

struct ReporterClientOptions {
  std::string host;
  int port = 1883;
  std::string topic = "#";  // the subscription's topic filter
  std::string client_id;    // empty: the library makes one
  int keepalive_seconds = 60;
};

class ReporterClient {
 public:
  using OnMessage = std::function<void(std::string_view topic, std::string_view payload)>;
  using OnEvent = std::function<void(std::string_view text)>;

  ReporterClient(boost::asio::io_context& io, ReporterClientOptions options, OnMessage on_message,
                 OnEvent on_event);
  ~ReporterClient();
  ReporterClient(const ReporterClient&) = delete;
  ReporterClient& operator=(const ReporterClient&) = delete;

  // False (with the reason given to on_event) when this build has no MQTT support.
  bool Start();
  void Stop();
  // Once a second: the protocol's keep-alive.
  void Tick();

  // "connected", "connecting", "waiting" (for the next attempt) or "off".
  std::string_view state() const;
  uint64_t messages() const { return messages_; }
  uint64_t connects() const { return connects_; }
  uint64_t drops() const { return drops_; }
  std::string peer() const { return options_.host + ":" + std::to_string(options_.port); }

  static bool Supported();

 private:
  enum class State { kOff, kResolving, kProbing, kConnected, kWaiting };

  void Attempt();
  void OnResolved(const boost::asio::ip::tcp::endpoint& endpoint);
  void ConnectLibrary(const std::string& address);
  void WaitRead();
  void WaitWrite();
  void OnReadable();
  void Fail(std::string_view reason);
  void ReleaseSocket();

  static void OnConnectCallback(mosquitto* m, void* self, int rc);
  static void OnMessageCallback(mosquitto* m, void* self, const mosquitto_message* msg);

  boost::asio::io_context& io_;
  ReporterClientOptions options_;
  OnMessage on_message_;
  OnEvent on_event_;
  boost::asio::ip::tcp::resolver resolver_;
  boost::asio::ip::tcp::socket probe_;
  boost::asio::steady_timer timer_;
  boost::asio::posix::stream_descriptor descriptor_;
  mosquitto* mosq_ = nullptr;
  State state_ = State::kOff;
  bool write_waiting_ = false;
  bool read_waiting_ = false;
  FeedBackoff backoff_;
  uint64_t generation_ = 0;  // completions of an earlier attempt are ignored
  uint64_t messages_ = 0;
  uint64_t connects_ = 0;
  uint64_t drops_ = 0;
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

}  // namespace qx
