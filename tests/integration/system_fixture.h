// Starts the real programs in a temporary program directory on free loopback ports, and
// always stops what it started.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "tests/testlib/program_site.h"

namespace qx::testing {

class SystemFixture : public ::testing::Test, protected ProgramSite {
 protected:
  // A small country file, so that spotters with these prefixes have a country.
  void WriteCountryFile() {
    WriteFile(home() / "data/files/cty_wt_mod.dat",
              "United States:            05:  08:  NA:   37.53:    91.67:     5.0:  K:\r\n"
              "    AA,AB,AC,AD,AE,AF,AG,AI,AJ,AK,K,N,W;\r\n"
              "Fed. Rep. of Germany:     14:  28:  EU:   51.00:   -10.00:    -1.0:  DL:\r\n"
              "    DA,DB,DC,DD,DE,DF,DG,DH,DI,DJ,DK,DL,DM,DN,DO,DP,DQ,DR;\r\n");
  }
  void StartAll(std::string_view extra_config = "") {
    WriteConfig(extra_config);
    WriteCountryFile();
    StartFront();
    StartNode();
  }

  // Logs a call in through the name question; returns the client at its first prompt.
  std::unique_ptr<LineClient> LogIn(std::string_view call, std::string_view name = "Ann") {
    return LogInAs(call, {}, name);
  }
  std::string ErrorLogText() const {
    std::string all;
    std::error_code ec;
    for (const auto& f : std::filesystem::directory_iterator(home() / "data/log", ec)) {
      if (f.path().filename().string().starts_with("error-")) all += ReadFile(f.path());
    }
    return all;
  }
};

}  // namespace qx::testing
