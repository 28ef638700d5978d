// Failed console log-ins, counted per client address.
//
// A wrong password is answered only after a delay that doubles with each failure in a row from
// the same address, and an address gets one log-in checked at a time.  Keeping this per
// address means that wrong passwords sent from one place never slow down or lock out the
// sysop logging in from another.  The table is bounded: past its size the address whose last
// failure is oldest is forgotten, and an address that stays quiet long enough starts afresh.
#pragma once

#include <chrono>
#include <cstddef>
#include <string>
#include <string_view>
#include <unordered_map>

#include <boost/asio/ip/address.hpp>

namespace qx {

// The address a request is counted against.  Normally the TCP peer.  With trust_proxy, a peer
// on loopback is taken to be the sysop's own reverse proxy, and the last address in its
// X-Forwarded-For header (the one the proxy itself appended; earlier ones come from the client
// and prove nothing) is the client.  A header that does not end in an address is ignored.
boost::asio::ip::address ClientAddress(const boost::asio::ip::address& peer,
                                       std::string_view forwarded_for, bool trust_proxy);

// The key of the failure table for an address: IPv4 as written (also when mapped into IPv6),
// IPv6 by its /64 prefix, since one host usually holds a whole /64.
std::string ThrottleKey(const boost::asio::ip::address& address);

struct LoginThrottleOptions {
  std::chrono::milliseconds base_delay{1000};  // after the first failure in a row
  int max_doublings = 3;                       // 1 s, 2 s, 4 s, then 8 s for every further one
  size_t max_addresses = 1024;
  std::chrono::seconds forget_after{3600};  // quiet time after which failures are forgotten
};

class LoginThrottle {
 public:
  using Clock = std::chrono::steady_clock;

  explicit LoginThrottle(LoginThrottleOptions options) : options_(options) {}

  // Starts a log-in from key.  False when one from the same key is still being checked or
  // answered: the caller refuses this one (a client cannot run its guesses side by side).
  bool Begin(const std::string& key, Clock::time_point now);
  // Records the outcome of the check that Begin started and returns how long to wait before
  // answering: zero for a right password (which also clears the key's failures).
  std::chrono::milliseconds Result(const std::string& key, bool ok, Clock::time_point now);
  // The answer has gone out; the key may start another log-in.
  void End(const std::string& key);

  int failures(const std::string& key) const;
  size_t size() const { return entries_.size(); }

 private:
  struct Entry {
    int failures = 0;
    bool busy = false;
    Clock::time_point last_failure{};
  };
  void MakeRoom();

  LoginThrottleOptions options_;
  std::unordered_map<std::string, Entry> entries_;
};

}  // namespace qx
