// The sentence builders: the legacy node and user lists split over lines the way legacy
// peers take them, and the start-up configuration for each kind of link.
#include "node/pc_builders.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "core/text_util.h"
#include "node/pc9x_time.h"

namespace qx {
namespace {

// The fields of a line without its CR LF.
std::vector<std::string> Fields(const std::string& line) {
  EXPECT_TRUE(line.ends_with("\r\n")) << line;
  std::vector<std::string> out;
  for (std::string_view f : Split(std::string_view(line).substr(0, line.size() - 2), '^')) {
    out.emplace_back(f);
  }
  return out;
}

TEST(PcBuildersLegacyLists, NodesGoSeveralToAPc19AndNoLineOutgrowsTheBudget) {
  EXPECT_EQ(BuildPc19Lines({{"Q9ZZZ-2", "5300"}, {"Q8YYY", "5457"}}),
            std::vector<std::string>{"PC19^1^Q9ZZZ-2^0^5300^1^Q8YYY^0^5457^H99^\r\n"});
  EXPECT_TRUE(BuildPc19Lines({}).empty());

  std::vector<Pc19Node> many;
  for (int i = 0; i < 40; ++i) many.push_back({"Q" + std::to_string(i) + "NODE-12", "5457"});
  const std::vector<std::string> lines = BuildPc19Lines(many);
  ASSERT_GT(lines.size(), 1u);
  size_t groups = 0;
  for (const std::string& line : lines) {
    EXPECT_LE(line.size(), kLegacyLineBudget + 2) << line;
    const std::vector<std::string> f = Fields(line);
    // PC19, groups of four, the hop field and the empty trailer.
    ASSERT_EQ((f.size() - 3) % 4, 0u) << line;
    EXPECT_EQ(f[0], "PC19");
    EXPECT_EQ(f[f.size() - 2], "H99");
    EXPECT_EQ(f.back(), "");
    for (size_t i = 1; i + 2 < f.size(); i += 4) {
      EXPECT_EQ(f[i], "1");
      EXPECT_EQ(f[i + 1], many[groups].call);
      EXPECT_EQ(f[i + 2], "0");
      EXPECT_EQ(f[i + 3], "5457");
      ++groups;
    }
  }
  EXPECT_EQ(groups, many.size());
}

TEST(PcBuildersLegacyLists, UsersGoSeveralToAPc16OfTheirNode) {
  EXPECT_EQ(BuildPc16Lines("Q8YYY", {"Q8USR", "Q8TWO"}),
            std::vector<std::string>{"PC16^Q8YYY^Q8USR - 1^Q8TWO - 1^H99^\r\n"});
  EXPECT_TRUE(BuildPc16Lines("Q8YYY", {}).empty());

  std::vector<std::string> users;
  for (int i = 0; i < 100; ++i) users.push_back("Q" + std::to_string(i) + "USER/P");
  const std::vector<std::string> lines = BuildPc16Lines("Q8YYY", users);
  ASSERT_GT(lines.size(), 1u);
  size_t n = 0;
  for (const std::string& line : lines) {
    EXPECT_LE(line.size(), kLegacyLineBudget + 2) << line;
    const std::vector<std::string> f = Fields(line);
    ASSERT_GE(f.size(), 5u) << line;
    EXPECT_EQ(f[1], "Q8YYY");
    for (size_t i = 2; i + 2 < f.size(); ++i) EXPECT_EQ(f[i], users[n++] + " - 1");
  }
  EXPECT_EQ(n, users.size());
}

TEST(PcBuildersLegacyLists, AnOverlongCallStillGetsItsOwnLine) {
  const std::string huge(kLegacyLineBudget, 'Q');
  const std::vector<std::string> lines = BuildPc16Lines("Q8YYY", {"Q8USR", huge, "Q8TWO"});
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_EQ(lines[0], "PC16^Q8YYY^Q8USR - 1^H99^\r\n");
  EXPECT_EQ(lines[1], "PC16^Q8YYY^" + huge + " - 1^H99^\r\n");
}

class OurConfigTest : public ::testing::Test {
 protected:
  OurConfigTest() {
    config_.our_call = "Q1AAA";
    config_.version = "5457";
    config_.build = "1";
    config_.nodes = {{5, "Q8YYY", {}}, {7, "Q7XXX", {}}};
    config_.users = {{1, "Q5USR", {"198.51.100.7"}}, {1, "Q5TWO", {}}};
    config_.remote_nodes = {{"Q8YYY", "5300", {"Q8USR"}, {}}, {"Q6WWW", "5457", {}, {}}};
    config_.legacy_neighbours = {{"Q7XXX", "", {"Q7USR", "Q7TWO"}, {"Q7FAR"}},
                                 {"Q7QUIET", "", {}, {}}};
  }
  LocalConfig config_;
  Pc9xStampGenerator stamps_;
};

TEST_F(OurConfigTest, LegacyLinkHearsUsFirstThenTheNodesBeyondWithTheirUsers) {
  const std::vector<std::string> lines = BuildOurConfig(config_, false, stamps_, 80000);
  EXPECT_EQ(lines, (std::vector<std::string>{
                       "PC19^1^Q1AAA^0^5457^1^Q8YYY^0^5300^1^Q6WWW^0^5457^H99^\r\n",
                       "PC16^Q1AAA^Q5USR - 1^Q5TWO - 1^H99^\r\n",
                       "PC16^Q8YYY^Q8USR - 1^H99^\r\n",
                   }));
  // Nothing beyond us: our node alone.
  config_.remote_nodes.clear();
  config_.users.clear();
  EXPECT_EQ(BuildOurConfig(config_, false, stamps_, 80000),
            std::vector<std::string>{"PC19^1^Q1AAA^0^5457^H99^\r\n"});
}

TEST_F(OurConfigTest, Pc9xLinkHearsOurConfigurationThenOneForEachLegacyNeighbour) {
  const std::vector<std::string> lines = BuildOurConfig(config_, true, stamps_, 80000);
  ASSERT_EQ(lines.size(), 4u);
  EXPECT_EQ(lines[0],
            "PC92^Q1AAA^80000^C^5Q1AAA:5457^5Q8YYY^7Q7XXX^1Q5USR:198.51.100.7^1Q5TWO^H99^\r\n");
  EXPECT_EQ(lines[1], "PC92^Q1AAA^80000.01^K^5Q1AAA:5457:1^3^2^H99^\r\n");
  // Each with a stamp of its own, the legacy node flagged as an external node of ours.
  // The nodes it reported behind it come with it, so that this C keeps them.
  EXPECT_EQ(lines[2], "PC92^Q1AAA^80000.02^C^7Q7XXX^7Q7FAR^1Q7USR^1Q7TWO^H99^\r\n");
  EXPECT_EQ(lines[3], "PC92^Q1AAA^80000.03^C^7Q7QUIET^H99^\r\n");
}

}  // namespace
}  // namespace qx
