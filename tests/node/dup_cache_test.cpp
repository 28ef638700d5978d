#include "node/dup_cache.h"

#include <gtest/gtest.h>

#include <deque>

namespace qx {
namespace {

TEST(RelayDupCache, LegacyLinesDifferOnlyInHops) {
  EXPECT_EQ(RelayDupCache::LegacyKey("PC16^Q8YYY^Q8USR - 1^H15^\r\n"),
            RelayDupCache::LegacyKey("PC16^Q8YYY^Q8USR - 1^H14^"));
  EXPECT_EQ(RelayDupCache::LegacyKey("PC12^Q5USR^*^hi^ ^Q9ZZZ-2^0^H30^~"),
            RelayDupCache::LegacyKey("PC12^Q5USR^*^hi^ ^Q9ZZZ-2^0^H3^~"));
  EXPECT_NE(RelayDupCache::LegacyKey("PC16^Q8YYY^Q8USR - 1^H15^"),
            RelayDupCache::LegacyKey("PC16^Q8YYY^Q8ABC - 1^H15^"));
  // No hop field: the whole line is the key.
  EXPECT_EQ(RelayDupCache::LegacyKey("PC20^"), "PC20^");

  RelayDupCache cache;
  EXPECT_FALSE(cache.SeenLegacy("PC16^Q8YYY^Q8USR - 1^H15^", 1000));
  EXPECT_TRUE(cache.SeenLegacy("PC16^Q8YYY^Q8USR - 1^H13^", 1059));
  EXPECT_FALSE(cache.SeenLegacy("PC16^Q8YYY^Q8USR - 1^H13^", 1061));
}

TEST(RelayDupCache, WindowsPerKind) {
  RelayDupCache cache;
  EXPECT_FALSE(cache.SeenPc41("Q5USR", "1", 0));
  EXPECT_TRUE(cache.SeenPc41("Q5USR", "1", 17 * 3600));
  EXPECT_FALSE(cache.SeenPc41("Q5USR", "2", 17 * 3600));
  EXPECT_FALSE(cache.SeenPc41("Q5USR", "1", 18 * 3600 + 1));

  EXPECT_FALSE(cache.SeenPc93("Q5USR", "hello", "Q9ZZZ-2", 0));
  EXPECT_TRUE(cache.SeenPc93("Q5USR", "hello", "Q9ZZZ-2", 44));
  EXPECT_FALSE(cache.SeenPc93("Q5USR", "hello", "Q8YYY", 44));
  EXPECT_FALSE(cache.SeenPc93("Q5USR", "hello", "Q9ZZZ-2", 46));

  // Announcements compare letters and digits only, and only the first 30.
  EXPECT_FALSE(
      cache.SeenAnnounce("Q5USR", "*", "Contest this weekend, 40m CW: everyone welcome!", 0));
  EXPECT_TRUE(
      cache.SeenAnnounce("Q5USR", "*", "contest this weekend 40m cw everyone WELCOME ...", 3600));
  EXPECT_FALSE(
      cache.SeenAnnounce("Q6USR", "*", "Contest this weekend, 40m CW: everyone welcome!", 3600));
}

TEST(RelayDupCache, BoundedByCapacity) {
  RelayDupCache cache(100);
  for (int i = 0; i < 1000; ++i) cache.Seen("k" + std::to_string(i), 3600, 0);
  EXPECT_LE(cache.size(), 100u);
  EXPECT_TRUE(cache.Seen("k999", 3600, 1));  // the newest survive
  EXPECT_FALSE(cache.Seen("k0", 3600, 1));   // the oldest went first
}

// Four nodes in a ring, each relaying every new sentence to both neighbours except the one
// it came from: with the cache each node delivers each sentence exactly once.
TEST(RelayDupCache, RingDeliversOnce) {
  constexpr int kNodes = 4;
  RelayDupCache caches[kNodes];
  int delivered[kNodes] = {};
  struct Hop {
    int to, from;
    std::string line;
  };
  std::deque<Hop> wire;
  const std::string lines[] = {"PC12^Q5USR^*^ring test^ ^Q0NODE^0^H30^~", "PC41^Q5USR^1^Fred^H30^~",
                               "PC16^Q0NODE^Q5USR - 1^H15^"};
  for (const std::string& l : lines) {
    caches[0].SeenLegacy(l, 0);  // the origin remembers what it sent
    wire.push_back({1, 0, l});
    wire.push_back({kNodes - 1, 0, l});
  }
  int steps = 0;
  while (!wire.empty() && ++steps < 1000) {
    Hop h = wire.front();
    wire.pop_front();
    if (caches[h.to].SeenLegacy(h.line, 1)) continue;
    ++delivered[h.to];
    for (int next : {(h.to + 1) % kNodes, (h.to + kNodes - 1) % kNodes}) {
      if (next != h.from) wire.push_back({next, h.to, h.line});
    }
  }
  EXPECT_LT(steps, 1000);
  EXPECT_EQ(delivered[0], 0);
  for (int n = 1; n < kNodes; ++n) EXPECT_EQ(delivered[n], 3) << n;
}

}  // namespace
}  // namespace qx
