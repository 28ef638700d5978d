#include "frontend/connection_limits.h"

#include <iterator>

namespace qx {

Refusal ConnectionLimits::Admit(const std::string& address, size_t open_total, Time now) {
  // Forgetting idle addresses once per window keeps the table as small as the traffic of one
  // window, however many addresses come and go.
  if (now >= next_prune_) Prune(now);
  Address& a = by_address_[address];
  if (a.connects == 0 || now - a.window_start >= settings_.window) {
    a.window_start = now;
    a.connects = 0;
  }
  ++a.connects;
  if (settings_.max_connects_per_window > 0 && a.connects > settings_.max_connects_per_window) {
    return Refusal::kRate;
  }
  if (settings_.max_per_address > 0 && a.open >= settings_.max_per_address) {
    return Refusal::kPerAddress;
  }
  if (settings_.max_connections > 0 && open_total >= settings_.max_connections) {
    return Refusal::kTotal;
  }
  ++a.open;
  return Refusal::kNone;
}

void ConnectionLimits::Closed(const std::string& address) {
  const auto it = by_address_.find(address);
  if (it != by_address_.end() && it->second.open > 0) --it->second.open;
}

void ConnectionLimits::Prune(Time now) {
  for (auto it = by_address_.begin(); it != by_address_.end();) {
    const Address& a = it->second;
    it = a.open == 0 && now - a.window_start >= settings_.window ? by_address_.erase(it)
                                                                 : std::next(it);
  }
  next_prune_ = now + settings_.window;
}

std::string ConnectionLimits::RefusalLine(Refusal refusal) const {
  switch (refusal) {
    case Refusal::kTotal:
      return "Sorry, this node has as many connections as it takes (" +
             std::to_string(settings_.max_connections) + "); try again later.\r\n";
    case Refusal::kPerAddress:
      return "Too many connections from your address (" +
             std::to_string(settings_.max_per_address) + "); try again later.\r\n";
    case Refusal::kRate: {
      const long long ms = settings_.window.count();
      const std::string window =
          ms % 1000 == 0 ? std::to_string(ms / 1000) + " seconds" : std::to_string(ms) + " ms";
      return "Too many new connections from your address (more than " +
             std::to_string(settings_.max_connects_per_window) + " in " + window +
             "); try again later.\r\n";
    }
    case Refusal::kNone:
      break;
  }
  return "";
}

std::string_view ConnectionLimits::Name(Refusal refusal) {
  switch (refusal) {
    case Refusal::kTotal:
      return "max_connections";
    case Refusal::kPerAddress:
      return "per_address";
    case Refusal::kRate:
      return "rate";
    case Refusal::kNone:
      break;
  }
  return "none";
}

}  // namespace qx
