#include "frontend/connection_limits.h"

#include <gtest/gtest.h>

#include <string>

namespace qx {
namespace {

using namespace std::chrono_literals;
using Time = ConnectionLimits::Time;

const Time kT0 = Time() + 1000h;

TEST(ConnectionLimitsTest, HeldConnectionsAreLimitedPerAddressAndInAll) {
  ConnectionLimits limits({/*max_connections=*/4, /*max_per_address=*/2,
                           /*max_connects_per_window=*/0, 60s});
  EXPECT_EQ(limits.Admit("192.0.2.1", 0, kT0), Refusal::kNone);
  EXPECT_EQ(limits.Admit("192.0.2.1", 1, kT0), Refusal::kNone);
  EXPECT_EQ(limits.Admit("192.0.2.1", 2, kT0), Refusal::kPerAddress);
  EXPECT_EQ(limits.Admit("192.0.2.2", 2, kT0), Refusal::kNone);
  // The total counts every connection the caller holds, outgoing ones too.
  EXPECT_EQ(limits.Admit("192.0.2.3", 4, kT0), Refusal::kTotal);
  // A closed connection makes room for its address again.
  limits.Closed("192.0.2.1");
  EXPECT_EQ(limits.Admit("192.0.2.1", 2, kT0), Refusal::kNone);
  EXPECT_EQ(limits.Admit("192.0.2.1", 3, kT0), Refusal::kPerAddress);

  // 0 turns a limit off.
  ConnectionLimits open({0, 0, 0, 60s});
  for (int i = 0; i < 100; ++i) EXPECT_EQ(open.Admit("127.0.0.1", 50000, kT0), Refusal::kNone);
}

TEST(ConnectionLimitsTest, TooManyNewConnectionsAreRefusedForTheRestOfTheWindow) {
  ConnectionLimits limits({0, 0, /*max_connects_per_window=*/3, 60s});
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(limits.Admit("127.0.0.1", 0, kT0 + i * 1s), Refusal::kNone);
    limits.Closed("127.0.0.1");
  }
  EXPECT_EQ(limits.Admit("127.0.0.1", 0, kT0 + 10s), Refusal::kRate);
  EXPECT_EQ(limits.Admit("127.0.0.1", 0, kT0 + 59s), Refusal::kRate);
  EXPECT_EQ(limits.Admit("127.0.0.2", 0, kT0 + 59s), Refusal::kNone);  // others are not hit
  // Refused attempts do not stretch the window: a new one begins a minute after the first.
  EXPECT_EQ(limits.Admit("127.0.0.1", 0, kT0 + 60s), Refusal::kNone);
}

TEST(ConnectionLimitsTest, IdleAddressesAreForgotten) {
  ConnectionLimits limits({0, 0, 10, 60s});
  for (int i = 0; i < 1000; ++i) {
    const std::string address = "10.0." + std::to_string(i / 256) + "." + std::to_string(i % 256);
    EXPECT_EQ(limits.Admit(address, 0, kT0), Refusal::kNone);
    if (i > 0) limits.Closed(address);
  }
  EXPECT_EQ(limits.addresses(), 1000u);
  // A window later only the address that still holds a connection is remembered.
  EXPECT_EQ(limits.Admit("192.0.2.9", 0, kT0 + 61s), Refusal::kNone);
  EXPECT_EQ(limits.addresses(), 2u);
}

TEST(ConnectionLimitsTest, RefusedConnectionsAreToldWhy) {
  ConnectionLimits limits({10000, 20, 10, 60s});
  EXPECT_EQ(limits.RefusalLine(Refusal::kPerAddress),
            "Too many connections from your address (20); try again later.\r\n");
  EXPECT_EQ(limits.RefusalLine(Refusal::kRate),
            "Too many new connections from your address (more than 10 in 60 seconds); try "
            "again later.\r\n");
  EXPECT_EQ(limits.RefusalLine(Refusal::kTotal),
            "Sorry, this node has as many connections as it takes (10000); try again later.\r\n");
}

}  // namespace
}  // namespace qx
