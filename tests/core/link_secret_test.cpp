// The link secret file and the proofs made with it.
#include "core/link_secret.h"

#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <set>
#include <thread>
#include <vector>

#include "tests/testlib/test_util.h"

namespace qx {
namespace {

mode_t ModeOf(const std::filesystem::path& p) {
  struct stat st {};
  ::stat(p.c_str(), &st);
  return st.st_mode & 0777;
}

TEST(LinkSecretTest, CreatedOnceThenReadBackPrivate) {
  testing::TempDir dir;
  const LinkSecret made = LoadOrCreateLinkSecret(dir.path());
  ASSERT_TRUE(made.usable()) << made.error;
  EXPECT_EQ(made.key.size(), 32u);
  ASSERT_EQ(made.notes.size(), 1u);
  EXPECT_NE(made.notes[0].find("Created the link secret"), std::string::npos);
  const auto file = dir / "link.key";
  EXPECT_EQ(ModeOf(file), 0600u);
  const std::string text = testing::ReadFile(file);
  EXPECT_EQ(text.size(), 65u);
  EXPECT_EQ(text.back(), '\n');

  const LinkSecret read = LoadOrCreateLinkSecret(dir.path());
  EXPECT_EQ(read.key, made.key);
  EXPECT_TRUE(read.notes.empty());

  // Readable by others: made private again, and said so.
  ::chmod(file.c_str(), 0644);
  const LinkSecret fixed = LoadOrCreateLinkSecret(dir.path());
  EXPECT_EQ(fixed.key, made.key);
  ASSERT_EQ(fixed.notes.size(), 1u);
  EXPECT_NE(fixed.notes[0].find("its mode is now 0600"), std::string::npos);
  EXPECT_EQ(ModeOf(file), 0600u);
}

TEST(LinkSecretTest, ProgramsStartingTogetherEndWithOneSecret) {
  for (int round = 0; round < 20; ++round) {
    testing::TempDir dir;
    std::vector<LinkSecret> got(4);
    std::vector<std::thread> threads;
    for (auto& g : got) {
      threads.emplace_back([&dir, &g] { g = LoadOrCreateLinkSecret(dir.path()); });
    }
    for (auto& t : threads) t.join();
    std::set<std::string> keys;
    for (const auto& g : got) {
      ASSERT_TRUE(g.usable()) << g.error;
      keys.insert(g.key);
    }
    EXPECT_EQ(keys.size(), 1u);
  }
}

TEST(LinkSecretTest, AFileBeingWrittenIsWaitedForAndABadOneRefused) {
  testing::TempDir dir;
  const auto file = dir / "link.key";
  // Created empty by the other program, which writes the key a moment later.
  testing::WriteFile(file, "");
  ::chmod(file.c_str(), 0600);
  const std::string hex(64, 'a');
  std::thread writer([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    testing::WriteFile(file, hex + "\n");
  });
  const LinkSecret s = LoadOrCreateLinkSecret(dir.path());
  writer.join();
  EXPECT_EQ(s.key, std::string(32, '\xaa'));

  for (const char* bad :
       {"not a key at all, but long enough to be one if it were hex....\n", "abcd\n"}) {
    testing::WriteFile(file, bad);
    const LinkSecret b = LoadOrCreateLinkSecret(dir.path());
    EXPECT_FALSE(b.usable());
    EXPECT_NE(b.error.find("does not hold a key of 64 hex digits"), std::string::npos) << bad;
  }

  // A symbolic link in its place is not followed, not even to a good key.
  testing::WriteFile(dir / "elsewhere", hex);
  std::filesystem::remove(file);
  std::filesystem::create_symlink(dir / "elsewhere", file);
  const LinkSecret l = LoadOrCreateLinkSecret(dir.path());
  EXPECT_FALSE(l.usable());
  EXPECT_NE(l.error.find("symbolic link"), std::string::npos) << l.error;
}

TEST(LinkSecretTest, ProofsDependOnKeyNoncesAndDirection) {
  const std::string key(32, 'k');
  const std::string a = MakeLinkNonce(), b = MakeLinkNonce();
  EXPECT_EQ(a.size(), kLinkNonceDigits);
  EXPECT_NE(a, b);
  EXPECT_TRUE(ValidLinkNonce(a));
  EXPECT_FALSE(ValidLinkNonce("abc"));
  EXPECT_FALSE(ValidLinkNonce(std::string(31, 'a') + "g"));
  EXPECT_FALSE(ValidLinkNonce(std::string(65, 'a')));

  const std::string node = NodeLinkProof(key, a, b);
  EXPECT_EQ(node.size(), kLinkProofDigits);
  EXPECT_EQ(node, NodeLinkProof(key, a, b));
  // Neither proof can stand in for the other, nor for another key or nonce.
  EXPECT_NE(node, FrontLinkProof(key, b, a));
  EXPECT_NE(node, NodeLinkProof(key, b, a));
  EXPECT_NE(node, NodeLinkProof(std::string(32, 'j'), a, b));
  // The message is exactly "node|<fe nonce>|<node nonce>" under HMAC-SHA256 (the value
  // comes from an independent HMAC implementation).
  EXPECT_EQ(NodeLinkProof("key", "f", "n"),
            "4251245a4c9c1aa54be64907681f149bf4e3b68cb6088d1159acb58254133d90");
}

}  // namespace
}  // namespace qx
