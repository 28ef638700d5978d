#include "console/login_throttle.h"

#include <gtest/gtest.h>

namespace qx {
namespace {

using namespace std::chrono_literals;
using Clock = LoginThrottle::Clock;
namespace ip = boost::asio::ip;

LoginThrottleOptions Small() { return LoginThrottleOptions{100ms, 3, 3, 60s}; }

// One failed log-in from key at now; its delay.
std::chrono::milliseconds Fail(LoginThrottle& t, const std::string& key, Clock::time_point now) {
  EXPECT_TRUE(t.Begin(key, now));
  const auto delay = t.Result(key, false, now);
  t.End(key);
  return delay;
}

TEST(LoginThrottle, DelayDoublesPerAddressAndARightPasswordClearsIt) {
  LoginThrottle t(Small());
  const auto now = Clock::now();
  EXPECT_EQ(Fail(t, "10.0.0.1", now), 100ms);
  EXPECT_EQ(Fail(t, "10.0.0.1", now), 200ms);
  EXPECT_EQ(Fail(t, "10.0.0.1", now), 400ms);
  EXPECT_EQ(Fail(t, "10.0.0.1", now), 800ms);
  EXPECT_EQ(Fail(t, "10.0.0.1", now), 800ms);
  // Another address starts from the beginning.
  EXPECT_EQ(Fail(t, "10.0.0.2", now), 100ms);

  ASSERT_TRUE(t.Begin("10.0.0.1", now));
  EXPECT_EQ(t.Result("10.0.0.1", true, now), 0ms);
  t.End("10.0.0.1");
  EXPECT_EQ(t.failures("10.0.0.1"), 0);
  EXPECT_EQ(t.size(), 1u) << "a clean address is not kept";
  EXPECT_EQ(Fail(t, "10.0.0.1", now), 100ms);

  // An address quiet for long enough starts afresh.
  EXPECT_EQ(Fail(t, "10.0.0.2", now + 61s), 100ms);
}

TEST(LoginThrottle, OneLogInAtATimePerAddress) {
  LoginThrottle t(Small());
  const auto now = Clock::now();
  ASSERT_TRUE(t.Begin("a", now));
  EXPECT_FALSE(t.Begin("a", now));
  EXPECT_TRUE(t.Begin("b", now));
  t.Result("a", false, now);
  EXPECT_FALSE(t.Begin("a", now)) << "still busy while its answer is delayed";
  t.End("a");
  EXPECT_TRUE(t.Begin("a", now));
}

TEST(LoginThrottle, TableIsBoundedAndForgetsTheOldestFailureButNotOneUnderWay) {
  LoginThrottle t(Small());
  const auto now = Clock::now();
  Fail(t, "old", now);
  Fail(t, "mid", now + 1s);
  ASSERT_TRUE(t.Begin("busy", now + 2s));  // older than nothing, but under way
  EXPECT_TRUE(t.Begin("new", now + 3s));
  EXPECT_EQ(t.size(), 3u);
  EXPECT_EQ(t.failures("old"), 0);
  EXPECT_EQ(t.failures("mid"), 1);
  EXPECT_FALSE(t.Begin("busy", now + 3s));
}

TEST(ClientAddress, ForwardedForIsBelievedOnlyFromATrustedProxyOnLoopback) {
  const auto loopback = ip::make_address("127.0.0.1");
  const auto remote = ip::make_address("192.0.2.7");
  EXPECT_EQ(ClientAddress(loopback, "10.0.0.9", false), loopback);
  EXPECT_EQ(ClientAddress(remote, "10.0.0.9", true), remote);
  // The last entry is the one the proxy added; earlier ones are the client's own word.
  EXPECT_EQ(ClientAddress(loopback, "1.2.3.4, 10.0.0.9", true), ip::make_address("10.0.0.9"));
  EXPECT_EQ(ClientAddress(ip::make_address("::1"), " [2001:db8::5] ", true),
            ip::make_address("2001:db8::5"));
  EXPECT_EQ(ClientAddress(ip::make_address("::ffff:127.0.0.1"), "10.0.0.9", true),
            ip::make_address("10.0.0.9"));
  for (const char* bad : {"", "10.0.0.9, unknown", "10.0.0.9:4000", "not an address"}) {
    EXPECT_EQ(ClientAddress(loopback, bad, true), loopback) << bad;
  }
}

TEST(ClientAddress, IPv6IsCountedByItsSlash64) {
  EXPECT_EQ(ThrottleKey(ip::make_address("192.0.2.7")), "192.0.2.7");
  EXPECT_EQ(ThrottleKey(ip::make_address("::ffff:192.0.2.7")), "192.0.2.7");
  EXPECT_EQ(ThrottleKey(ip::make_address("2001:db8:1:2:aaaa::1")), "2001:db8:1:2::/64");
  EXPECT_EQ(ThrottleKey(ip::make_address("2001:db8:1:2:bbbb::9")), "2001:db8:1:2::/64");
}

}  // namespace
}  // namespace qx
