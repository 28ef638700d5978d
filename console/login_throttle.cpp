#include "console/login_throttle.h"

#include <algorithm>

#include "core/text_util.h"

namespace qx {

namespace ip = boost::asio::ip;

ip::address ClientAddress(const ip::address& peer, std::string_view forwarded_for,
                          bool trust_proxy) {
  if (!trust_proxy || forwarded_for.empty()) return peer;
  const bool loopback =
      peer.is_loopback() || (peer.is_v6() && peer.to_v6().is_v4_mapped() &&
                             ip::make_address_v4(ip::v4_mapped, peer.to_v6()).is_loopback());
  if (!loopback) return peer;
  const size_t comma = forwarded_for.rfind(',');
  std::string_view last =
      Trim(comma == std::string_view::npos ? forwarded_for : forwarded_for.substr(comma + 1));
  if (last.size() > 2 && last.front() == '[' && last.back() == ']') {
    last = last.substr(1, last.size() - 2);
  }
  boost::system::error_code ec;
  const ip::address client = ip::make_address(std::string(last), ec);
  return ec ? peer : client;
}

std::string ThrottleKey(const ip::address& address) {
  if (address.is_v4()) return address.to_string();
  const ip::address_v6 v6 = address.to_v6();
  if (v6.is_v4_mapped()) return ip::make_address_v4(ip::v4_mapped, v6).to_string();
  ip::address_v6::bytes_type bytes = v6.to_bytes();
  std::fill(bytes.begin() + 8, bytes.end(), 0);
  return ip::address_v6(bytes).to_string() + "/64";
}

bool LoginThrottle::Begin(const std::string& key, Clock::time_point now) {
  auto it = entries_.find(key);
  if (it == entries_.end()) {
    if (entries_.size() >= options_.max_addresses) MakeRoom();
    it = entries_.emplace(key, Entry{}).first;
  } else if (it->second.busy) {
    return false;
  } else if (now - it->second.last_failure > options_.forget_after) {
    it->second.failures = 0;
  }
  it->second.busy = true;
  return true;
}

std::chrono::milliseconds LoginThrottle::Result(const std::string& key, bool ok,
                                                Clock::time_point now) {
  Entry& e = entries_[key];
  if (ok) {
    e.failures = 0;
    return std::chrono::milliseconds(0);
  }
  e.failures = std::min(e.failures + 1, 1000);
  e.last_failure = now;
  return options_.base_delay * (1 << std::min(e.failures - 1, options_.max_doublings));
}

void LoginThrottle::End(const std::string& key) {
  const auto it = entries_.find(key);
  if (it == entries_.end()) return;
  it->second.busy = false;
  // Only failures need remembering.
  if (it->second.failures == 0) entries_.erase(it);
}

int LoginThrottle::failures(const std::string& key) const {
  const auto it = entries_.find(key);
  return it == entries_.end() ? 0 : it->second.failures;
}

// Forgets the address whose last failure is oldest.  Addresses with a log-in under way stay:
// each holds a connection, so there are never more of them than connection slots.
void LoginThrottle::MakeRoom() {
  auto oldest = entries_.end();
  for (auto it = entries_.begin(); it != entries_.end(); ++it) {
    if (it->second.busy) continue;
    if (oldest == entries_.end() || it->second.last_failure < oldest->second.last_failure) {
      oldest = it;
    }
  }
  if (oldest != entries_.end()) entries_.erase(oldest);
}

}  // namespace qx
