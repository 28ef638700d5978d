#include "core/net_address.h"

#include "core/text_util.h"

namespace qx {

namespace ip = boost::asio::ip;

std::string_view PeerHost(std::string_view peer) {
  if (peer.starts_with('[')) {
    const size_t close = peer.find(']');
    return close == std::string_view::npos ? peer.substr(1) : peer.substr(1, close - 1);
  }
  const size_t colon = peer.find(':');
  // One colon: IPv4 (or a name) with a port; more than one: a bare IPv6 address.
  if (colon != std::string_view::npos && peer.find(':', colon + 1) == std::string_view::npos) {
    return peer.substr(0, colon);
  }
  return peer;
}

namespace {

// The address as IPv4 where it is one, also when written as IPv4-mapped IPv6.
bool ParseAddress(std::string_view text, ip::address& out) {
  boost::system::error_code ec;
  out = ip::make_address(std::string(text), ec);
  if (ec) return false;
  if (out.is_v6() && out.to_v6().is_v4_mapped()) {
    out = ip::make_address_v4(ip::v4_mapped, out.to_v6());
  }
  return true;
}

}  // namespace

bool AddressList::Add(std::string_view text, std::string* bad) {
  bool all_good = true;
  std::string normalised(text);
  for (char& c : normalised) {
    if (c == ',' || c == ';' || c == '\t') c = ' ';
  }
  for (std::string_view item : Split(normalised, ' ')) {
    item = Trim(item);
    if (item.empty()) continue;
    const size_t slash = item.find('/');
    ip::address address;
    long long bits = -1;
    bool ok = ParseAddress(item.substr(0, slash), address);
    if (ok && slash != std::string_view::npos) {
      ok = ParseInt(item.substr(slash + 1), bits) && bits >= 0 &&
           bits <= (address.is_v4() ? 32 : 128);
    }
    if (!ok) {
      all_good = false;
      if (bad) {
        if (!bad->empty()) *bad += ", ";
        bad->append(item);
      }
      continue;
    }
    if (address.is_v4()) {
      entries_.emplace_back(ip::network_v4(address.to_v4(), bits < 0 ? 32 : int(bits)).canonical());
    } else {
      entries_.emplace_back(
          ip::network_v6(address.to_v6(), bits < 0 ? 128 : int(bits)).canonical());
    }
  }
  return all_good;
}

bool AddressList::Contains(std::string_view text) const {
  ip::address address;
  if (!ParseAddress(PeerHost(text), address)) return false;
  for (const Entry& entry : entries_) {
    if (const auto* n4 = std::get_if<ip::network_v4>(&entry)) {
      if (address.is_v4() &&
          ip::network_v4(address.to_v4(), n4->prefix_length()).canonical() == *n4) {
        return true;
      }
    } else if (const auto* n6 = std::get_if<ip::network_v6>(&entry)) {
      if (address.is_v6() &&
          ip::network_v6(address.to_v6(), n6->prefix_length()).canonical() == *n6) {
        return true;
      }
    }
  }
  return false;
}

}  // namespace qx
