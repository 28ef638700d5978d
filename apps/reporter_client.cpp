#include "apps/reporter_client.h"

#include <sys/ioctl.h>

#include <boost/asio/post.hpp>
#include <mutex>

#ifdef QX_HAVE_MOSQUITTO
#include <mosquitto.h>
#endif

namespace qx {
namespace {

using boost::asio::ip::tcp;

// Packets read in one turn of the event loop before the others get theirs.
constexpr int kPacketsPerTurn = 256;
constexpr auto kProbeTimeout = std::chrono::seconds(10);

}  // namespace

bool ReporterClient::Supported() {
#ifdef QX_HAVE_MOSQUITTO
  return true;
#else
  return false;
#endif
}

ReporterClient::ReporterClient(boost::asio::io_context& io, ReporterClientOptions options,
                               OnMessage on_message, OnEvent on_event)
    : io_(io),
      options_(std::move(options)),
      on_message_(std::move(on_message)),
      on_event_(std::move(on_event)),
      resolver_(io),
      probe_(io),
      timer_(io),
      descriptor_(io) {}

ReporterClient::~ReporterClient() {
  *alive_ = false;
  Stop();
}

std::string_view ReporterClient::state() const {
  switch (state_) {
    case State::kOff:
      return "off";
    case State::kResolving:
    case State::kProbing:
      return "connecting";
    case State::kConnected:
      return "connected";
    case State::kWaiting:
      break;
  }
  return "waiting";
}

#ifdef QX_HAVE_MOSQUITTO

bool ReporterClient::Start() {
  static std::once_flag init;
  std::call_once(init, [] { mosquitto_lib_init(); });
  Attempt();
  return true;
}

void ReporterClient::Stop() {
  ++generation_;
  boost::system::error_code ec;
  resolver_.cancel();
  probe_.close(ec);
  timer_.cancel();
  ReleaseSocket();
  if (mosq_) {
    mosquitto_disconnect(mosq_);
    mosquitto_destroy(mosq_);
    mosq_ = nullptr;
  }
  state_ = State::kOff;
}

void ReporterClient::ReleaseSocket() {
  // The socket is libmosquitto's: asio only waits on it and must never close it.
  if (descriptor_.is_open()) {
    boost::system::error_code ec;
    descriptor_.cancel(ec);
    descriptor_.release();
  }
  read_waiting_ = false;
  write_waiting_ = false;
}

void ReporterClient::Attempt() {
  const uint64_t gen = ++generation_;
  state_ = State::kResolving;
  resolver_.async_resolve(
      options_.host, std::to_string(options_.port),
      [this, gen, alive = alive_](const boost::system::error_code& ec,
                                  tcp::resolver::results_type results) {
        if (!*alive || gen != generation_) return;
        if (ec || results.empty()) {
          Fail("cannot resolve " + options_.host + ": " + (ec ? ec.message() : "no address"));
          return;
        }
        OnResolved(results.begin()->endpoint());
      });
}

void ReporterClient::OnResolved(const tcp::endpoint& endpoint) {
  const uint64_t gen = generation_;
  state_ = State::kProbing;
  boost::system::error_code ignored;
  probe_.close(ignored);
  timer_.expires_after(kProbeTimeout);
  timer_.async_wait([this, gen, alive = alive_](const boost::system::error_code& ec) {
    if (ec || !*alive || gen != generation_ || state_ != State::kProbing) return;
    boost::system::error_code e;
    probe_.close(e);  // the connect below completes with "operation aborted"
  });
  probe_.async_connect(endpoint, [this, gen, endpoint,
                                  alive = alive_](const boost::system::error_code& ec) {
    if (!*alive || gen != generation_) return;
    timer_.cancel();
    boost::system::error_code e;
    probe_.close(e);
    if (ec) {
      Fail("cannot connect to " + peer() + ": " +
           (ec == boost::asio::error::operation_aborted ? std::string("timed out") : ec.message()));
      return;
    }
    ConnectLibrary(endpoint.address().to_string());
  });
}

void ReporterClient::ConnectLibrary(const std::string& address) {
  if (!mosq_) {
    mosq_ = mosquitto_new(options_.client_id.empty() ? nullptr : options_.client_id.c_str(), true,
                          this);
    if (!mosq_) {
      Fail("cannot make an MQTT client");
      return;
    }
    mosquitto_connect_callback_set(mosq_, &ReporterClient::OnConnectCallback);
    mosquitto_message_callback_set(mosq_, &ReporterClient::OnMessageCallback);
  }
  const int rc =
      mosquitto_connect(mosq_, address.c_str(), options_.port, options_.keepalive_seconds);
  if (rc != MOSQ_ERR_SUCCESS) {
    Fail(std::string("cannot connect to ") + peer() + ": " + mosquitto_strerror(rc));
    return;
  }
  const int fd = mosquitto_socket(mosq_);
  boost::system::error_code ec;
  descriptor_.assign(fd, ec);
  if (ec) {
    Fail("cannot watch the broker's socket: " + ec.message());
    return;
  }
  state_ = State::kConnected;
  ++connects_;
  on_event_("connected to the reporter broker " + peer());
  WaitRead();
  WaitWrite();
}

void ReporterClient::WaitRead() {
  if (read_waiting_ || !descriptor_.is_open()) return;
  read_waiting_ = true;
  const uint64_t gen = generation_;
  descriptor_.async_wait(boost::asio::posix::stream_descriptor::wait_read,
                         [this, gen, alive = alive_](const boost::system::error_code& ec) {
                           if (!*alive || gen != generation_) return;
                           read_waiting_ = false;
                           if (ec) return;
                           OnReadable();
                         });
}

void ReporterClient::OnReadable() {
  if (!mosq_ || state_ != State::kConnected) return;
  const int fd = mosquitto_socket(mosq_);
  for (int i = 0; i < kPacketsPerTurn; ++i) {
    const int rc = mosquitto_loop_read(mosq_, 1);
    if (rc != MOSQ_ERR_SUCCESS) {
      Fail(std::string("the reporter broker connection dropped: ") + mosquitto_strerror(rc));
      return;
    }
    int pending = 0;
    if (::ioctl(fd, FIONREAD, &pending) != 0 || pending <= 0) break;
    if (i + 1 == kPacketsPerTurn) {
      // More is waiting: served after whatever else the loop has to do.
      const uint64_t gen = generation_;
      boost::asio::post(io_, [this, gen, alive = alive_] {
        if (*alive && gen == generation_) OnReadable();
      });
      if (mosquitto_want_write(mosq_)) WaitWrite();
      return;
    }
  }
  if (mosquitto_want_write(mosq_)) WaitWrite();
  WaitRead();
}

void ReporterClient::WaitWrite() {
  if (write_waiting_ || !descriptor_.is_open() || !mosq_ || !mosquitto_want_write(mosq_)) return;
  write_waiting_ = true;
  const uint64_t gen = generation_;
  descriptor_.async_wait(
      boost::asio::posix::stream_descriptor::wait_write,
      [this, gen, alive = alive_](const boost::system::error_code& ec) {
        if (!*alive || gen != generation_) return;
        write_waiting_ = false;
        if (ec || !mosq_) return;
        const int rc = mosquitto_loop_write(mosq_, 1);
        if (rc != MOSQ_ERR_SUCCESS) {
          Fail(std::string("cannot write to the reporter broker: ") + mosquitto_strerror(rc));
          return;
        }
        WaitWrite();
      });
}

void ReporterClient::Tick() {
  if (!mosq_ || state_ != State::kConnected) return;
  const int rc = mosquitto_loop_misc(mosq_);
  if (rc != MOSQ_ERR_SUCCESS) {
    Fail(std::string("the reporter broker stopped answering: ") + mosquitto_strerror(rc));
    return;
  }
  WaitWrite();
}

void ReporterClient::Fail(std::string_view reason) {
  if (state_ == State::kConnected) {
    ++drops_;
  }
  ReleaseSocket();
  if (mosq_) {
    mosquitto_disconnect(mosq_);
    mosquitto_destroy(mosq_);
    mosq_ = nullptr;
  }
  const int delay = backoff_.NextDelay();
  on_event_(std::string(reason) + "; trying again in " + std::to_string(delay) + " s");
  state_ = State::kWaiting;
  const uint64_t gen = ++generation_;
  timer_.expires_after(std::chrono::seconds(delay));
  timer_.async_wait([this, gen, alive = alive_](const boost::system::error_code& ec) {
    if (!ec && *alive && gen == generation_) Attempt();
  });
}

void ReporterClient::OnConnectCallback(mosquitto* m, void* self, int rc) {
  auto* c = static_cast<ReporterClient*>(self);
  if (rc != 0) {
    // Failing here would destroy the client inside its own callback: leave it to the loop.
    const uint64_t gen = c->generation_;
    boost::asio::post(c->io_, [c, gen, rc, alive = c->alive_] {
      if (*alive && gen == c->generation_) {
        c->Fail(std::string("the reporter broker refused us: ") + mosquitto_connack_string(rc));
      }
    });
    return;
  }
  c->backoff_.Reset();
  const int sub = mosquitto_subscribe(m, nullptr, c->options_.topic.c_str(), 0);
  if (sub != MOSQ_ERR_SUCCESS) {
    c->on_event_(std::string("cannot subscribe to ") + c->options_.topic + ": " +
                 mosquitto_strerror(sub));
  }
}

void ReporterClient::OnMessageCallback(mosquitto*, void* self, const mosquitto_message* msg) {
  auto* c = static_cast<ReporterClient*>(self);
  ++c->messages_;
  if (!msg || !msg->payload || msg->payloadlen <= 0) return;
  c->on_message_(msg->topic ? std::string_view(msg->topic) : std::string_view(),
                 std::string_view(static_cast<const char*>(msg->payload), size_t(msg->payloadlen)));
}

#else  // no libmosquitto in this build

bool ReporterClient::Start() {
  on_event_("this build has no MQTT support (libmosquitto): the reporter feed stays off");
  return false;
}
void ReporterClient::Stop() { state_ = State::kOff; }
void ReporterClient::Tick() {}
void ReporterClient::Attempt() {}
void ReporterClient::OnResolved(const tcp::endpoint&) {}
void ReporterClient::ConnectLibrary(const std::string&) {}
void ReporterClient::WaitRead() {}
void ReporterClient::WaitWrite() {}
void ReporterClient::OnReadable() {}
void ReporterClient::Fail(std::string_view) {}
void ReporterClient::ReleaseSocket() {}
void ReporterClient::OnConnectCallback(mosquitto*, void*, int) {}
void ReporterClient::OnMessageCallback(mosquitto*, void*, const mosquitto_message*) {}

#endif

}  // namespace qx
