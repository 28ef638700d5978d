// Which new inbound connections the front-end keeps.  A flood of connections must cost the
// front-end little and never reach the node: past a limit a connection is refused with one
// line saying why.  Three limits, each turned off by 0:
//  - the connections held in all,
//  - the connections held from one address,
//  - the new connections from one address within a window (a minute): past that number every
//    further one is refused until the window is over; refused ones count as well.
// Loopback addresses count like any other.  Pure: time comes from the caller.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>

namespace qx {

enum class Refusal : uint8_t { kNone, kTotal, kPerAddress, kRate };

struct ConnectionLimitSettings {
  size_t max_connections = 10000;
  size_t max_per_address = 20;
  size_t max_connects_per_window = 10;
  std::chrono::milliseconds window{60000};
};

class ConnectionLimits {
 public:
  using Time = std::chrono::steady_clock::time_point;

  explicit ConnectionLimits(ConnectionLimitSettings settings) : settings_(settings) {}

  // A new inbound connection from address while open_total connections (of any kind) are
  // held.  Counts it towards the address's rate; kNone means it may stay, and it is then held
  // from the address until Closed.
  Refusal Admit(const std::string& address, size_t open_total, Time now);
  // A connection that Admit let in has closed.
  void Closed(const std::string& address);

  const ConnectionLimitSettings& settings() const { return settings_; }
  // Addresses remembered: those with connections held or a window still running.
  size_t addresses() const { return by_address_.size(); }

  // The line (with CR LF) a refused connection is sent before it is closed.
  std::string RefusalLine(Refusal refusal) const;
  // A short name for logs and counters: "max_connections", "per_address", "rate".
  static std::string_view Name(Refusal refusal);

 private:
  struct Address {
    size_t open = 0;
    size_t connects = 0;  // in the window that began at window_start
    Time window_start{};
  };
  void Prune(Time now);

  ConnectionLimitSettings settings_;
  std::unordered_map<std::string, Address> by_address_;
  Time next_prune_{};
};

}  // namespace qx
