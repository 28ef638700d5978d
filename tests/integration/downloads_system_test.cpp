// Reference data in a running node: the sysop's UPDATE fetches the country file from a local
// HTTP server, the node installs and uses it at once (the skimmer verification its known-calls
// database too); a wrong file changes nothing.
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "spots/country.h"
#include "tests/testlib/http_server.h"
#include "tests/testlib/node_sites.h"

namespace qx::testing {
namespace {

using ::testing::HasSubstr;

TEST(DownloadsSystemTest, SysopUpdateInstallsTheCountryFileAndTheNodeUsesIt) {
  if (!std::filesystem::exists(kSystemCountryFile)) GTEST_SKIP() << "no country file";
  const std::string original = ReadFile(kSystemCountryFile);
  CountryLookup lookup;
  ASSERT_TRUE(lookup.LoadText(original));
  const std::string newer =
      original + "Testland:  14:  28:  EU:  51.00:  -10.00:  -1.0:  QX9:\r\n    QX9;\r\n";

  HttpTestServer server;
  server.Serve("/cty_wt_mod.dat", {newer});
  server.Serve("/MASTER.SCP", {"# known calls\r\nK1ABC\r\nDL1XYZ\r\nJA1QQQ\r\n"});
  NodeSite node("K1QXA");
  node.Setting("Country File URL",
               fmt::format("http://127.0.0.1:{}/cty_wt_mod.dat", server.port()));
  node.Setting("Known Calls URL", fmt::format("http://127.0.0.1:{}/MASTER.SCP", server.port()));
  node.Setting("Download Hours", "0");  // only when asked
  node.Password("K1SYS", "secret", 5);
  node.Start();
  auto user = node.LogIn("W1AAA");
  user->SendLine("UPDATE");
  ASSERT_TRUE(user->ReadUntil("UPDATE - sysop command error")) << user->received();

  auto sysop = node.LogIn("K1SYS", "secret");
  sysop->SendLine("UPDATE");
  ASSERT_TRUE(sysop->ReadUntil("Fetching the reference files")) << sysop->received();
  ASSERT_TRUE(node.WaitOutput(
      fmt::format("Country file reloaded: {} countries", lookup.country_count() + 1)))
      << node.node().Output();
  EXPECT_EQ(ReadFile(node.home() / "data/files/cty_wt_mod.dat"), newer);
  // The skimmer verification takes the new known-calls database without a restart.
  ASSERT_TRUE(node.WaitOutput("Skimmer verification reloaded MASTER.SCP")) << node.node().Output();

  // An error page in its place is refused; the installed file stays.
  server.Serve("/cty_wt_mod.dat", {"<html><body>Service Unavailable</body></html>\r\n" +
                                   std::string(newer.size(), ' ')});
  sysop->SendLine("UPDATE cty_wt_mod.dat");
  ASSERT_TRUE(node.WaitOutput("Download of cty_wt_mod.dat failed: not a country file"))
      << node.node().Output();
  EXPECT_EQ(ReadFile(node.home() / "data/files/cty_wt_mod.dat"), newer);
  sysop->ClearReceived();
  sysop->SendLine("UPDATE STATUS");
  ASSERT_TRUE(sysop->ReadUntil("Program:")) << sysop->received();
  EXPECT_THAT(sysop->received(), HasSubstr("cty_wt_mod.dat   failed: not a country file"));
}

}  // namespace
}  // namespace qx::testing
