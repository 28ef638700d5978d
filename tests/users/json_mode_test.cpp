// SET/JSON as a program uses it: the switch is kept with the user's record, prompts stop, and
// spots arrive as JSON objects through the same switches and filters as spot lines.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "spots/distribution.h"
#include "stream/json_format.h"
#include "tests/users/user_fixture.h"

namespace qx::testing {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;

class JsonModeTest : public LoggedInFixture {
 protected:
  struct Sink final : SpotSink {
    explicit Sink(RecordingOutput& out) : out(out) {}
    void SendToStream(int stream, std::string_view text) override {
      out.SendToStream(stream, text);
    }
    RecordingOutput& out;
  };
  // Distributes a spot as the node does, with the node's JSON form for JSON users.
  void Distribute(double khz, std::string_view dx, std::string_view spotter) {
    const Spot spot = filters_.SampleSpot(khz, dx, spotter, "cq", "XX0QX-1");
    distributor_.OutputSpotToAll(spot);
  }
  Sink sink_{out_};
  SpotDistributor distributor_{streams_, sink_};
};

TEST_F(JsonModeTest, SwitchIsStoredAndPromptsStop) {
  EXPECT_EQ(Run("SET/JSON"), "JSON output enabled\r\n");
  EXPECT_TRUE(streams_.at(1).session.Has(kSwJson));
  Type(1, "SH/DXBM");
  EXPECT_THAT(Take(1), Not(HasSubstr(" de XX0QX-1 ")));  // an answer, and no prompt after it
  // The next log-in of the call is in JSON mode from the start.
  LogIn(2, "K1ABC-2");
  EXPECT_TRUE(streams_.at(2).session.Has(kSwJson));
  Take(2);
  Type(2, "SET/NOJSON");
  EXPECT_THAT(Take(2), HasSubstr("JSON output disabled\r\nK1ABC-2 de XX0QX-1 "));
}

TEST_F(JsonModeTest, SpotsComeAsObjectsThroughTheUsersFilters) {
  distributor_.set_filter(&filters_);
  distributor_.set_json_maker(
      [](const Spot& spot, std::string& out) { AppendSpotJson(out, spot, {}); });
  Run("SET/JSON");
  Run("ACC/SPOTS on 20m");
  LogIn(2, "W1AW");  // a terminal user beside the JSON one
  Take(2);
  Distribute(14025, "JA1XYZ", "DL1AAA");
  Distribute(7025, "JA1XYZ", "DL1AAA");  // 40 m: the JSON user's filter holds it back
  const std::string json = Take(1);
  EXPECT_EQ(std::count(json.begin(), json.end(), '\n'), 1) << json;
  EXPECT_THAT(json, HasSubstr("\"type\":\"spot\""));
  EXPECT_THAT(json, HasSubstr("\"freq_hz\":14025000"));
  EXPECT_THAT(json, HasSubstr("\"call\":\"JA1XYZ\""));
  const std::string lines = Take(2);
  EXPECT_THAT(lines, HasSubstr("DX de DL1AAA:    14025.0  JA1XYZ"));
  EXPECT_THAT(lines, HasSubstr("DX de DL1AAA:     7025.0  JA1XYZ"));
  EXPECT_THAT(lines, Not(HasSubstr("{")));
}

}  // namespace
}  // namespace qx::testing
