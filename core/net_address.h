// Network addresses as the sysop writes them in the configuration ("192.0.2.7",
// "192.0.2.0/24", "2001:db8::/32") and as the front-end reports a peer ("ip:port",
// "[v6]:port").  Pure: no name lookups.
#pragma once

#include <boost/asio/ip/address.hpp>
#include <boost/asio/ip/network_v4.hpp>
#include <boost/asio/ip/network_v6.hpp>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace qx {

// The address part of a peer text: "192.0.2.7:4000" -> "192.0.2.7", "[::1]:4000" -> "::1";
// a text without a port is returned as it stands.
std::string_view PeerHost(std::string_view peer);

// A set of addresses and networks.  An IPv4 peer that arrives as an IPv4-mapped IPv6 address
// (::ffff:192.0.2.7) matches its IPv4 entries.
class AddressList {
 public:
  // Adds the comma- or blank-separated entries of text.  Entries that are neither an address
  // nor a network are skipped and named in *bad (when given); true when none was bad.
  bool Add(std::string_view text, std::string* bad = nullptr);
  bool Contains(std::string_view address) const;
  bool empty() const { return entries_.empty(); }

 private:
  using Entry = std::variant<boost::asio::ip::network_v4, boost::asio::ip::network_v6>;
  std::vector<Entry> entries_;
};

}  // namespace qx
