#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/integration/system_fixture.h"

namespace qx::testing {
namespace {

using ::testing::HasSubstr;

class StartupTest : public SystemFixture {};

TEST_F(StartupTest, NewNodeCreatesItsTreeAndStopsCleanly) {
  WriteConfig();
  StartNode();
  ASSERT_TRUE(WaitFor([&] {
    return ErrorLogText().find("StartUp sub running") != std::string::npos;
  })) << node_->Output();
  for (const char* sub : {"cfg", "log/conn", "dx", "badspots", "badspotsTor", "busted/ft8", "user",
                          "userRemote", "files", "unzipped"}) {
    EXPECT_TRUE(std::filesystem::is_directory(home() / "data" / sub)) << sub;
  }
  EXPECT_THAT(ErrorLogText(), HasSubstr(" StartUp sub running "));
  EXPECT_TRUE(
      WaitFor([&] { return node_->Output().find("Loading DX Spots") != std::string::npos; }));
  EXPECT_THAT(node_->Output(), HasSubstr("   ... done"));
  EXPECT_EQ(node_->Stop(), 0);
}

TEST_F(StartupTest, MissingConfigurationFallsBackAndNewOneIsWritten) {
  // No cluster.cfg and no backup: the node starts on its built-in configuration and writes it.
  StartNode();
  ASSERT_TRUE(WaitFor([&] { return std::filesystem::exists(home() / "cluster.cfg"); }));
  EXPECT_THAT(ReadFile(home() / "cluster.cfg"), HasSubstr("Winsock Port^7399\r\n"));
  EXPECT_THAT(ErrorLogText(), HasSubstr("cluster.cfg doesn't exist"));
  EXPECT_EQ(node_->Stop(), 0);
}

TEST_F(StartupTest, VersionAndHelp) {
  ChildProcess v(QX_CLUSTER_BIN, {"--version"}, home(), "version");
  ASSERT_TRUE(WaitFor([&] { return !v.Running(); }));
  EXPECT_THAT(v.Output(), HasSubstr("qxcluster "));
  ChildProcess f(QX_FRONT_BIN, {"--version"}, home(), "fversion");
  ASSERT_TRUE(WaitFor([&] { return !f.Running(); }));
  EXPECT_THAT(f.Output(), HasSubstr("qxfront "));
}

}  // namespace
}  // namespace qx::testing
