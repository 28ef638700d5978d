#include "core/net_address.h"

#include <gtest/gtest.h>

namespace qx {
namespace {

TEST(PeerHost, TakesTheAddressOutOfEveryPeerForm) {
  EXPECT_EQ(PeerHost("192.0.2.7:4000"), "192.0.2.7");
  EXPECT_EQ(PeerHost("[2001:db8::7]:4000"), "2001:db8::7");
  EXPECT_EQ(PeerHost("2001:db8::7"), "2001:db8::7");
  EXPECT_EQ(PeerHost("192.0.2.7"), "192.0.2.7");
  EXPECT_EQ(PeerHost("[::1"), "::1");
  EXPECT_EQ(PeerHost(""), "");
}

TEST(AddressList, MatchesAddressesAndNetworksOfBothFamilies) {
  AddressList list;
  std::string bad;
  EXPECT_FALSE(list.Add("192.0.2.7, 198.51.100.0/24 2001:db8::/32;nonsense,10.0.0.0/33", &bad));
  EXPECT_EQ(bad, "nonsense, 10.0.0.0/33");
  EXPECT_FALSE(list.empty());
  for (const char* in : {"192.0.2.7", "192.0.2.7:1234", "198.51.100.250:9", "[2001:db8:1::5]:7",
                         "::ffff:192.0.2.7"}) {
    EXPECT_TRUE(list.Contains(in)) << in;
  }
  for (const char* out : {"192.0.2.8", "198.51.101.1", "2001:db9::1", "10.0.0.1", "", "x"}) {
    EXPECT_FALSE(list.Contains(out)) << out;
  }
  AddressList none;
  EXPECT_TRUE(none.Add(" , "));
  EXPECT_TRUE(none.empty());
  EXPECT_FALSE(none.Contains("127.0.0.1"));
}

}  // namespace
}  // namespace qx
