#include "stream/json_format.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "core/text_util.h"
#include "spots/intake.h"

namespace qx {
namespace {

using nlohmann::json;

// Every formatter promises one object per line, CR LF ended, with no raw control byte.
json ParseLine(const std::string& text) {
  EXPECT_TRUE(text.ends_with("\r\n")) << text;
  const std::string body = text.substr(0, text.size() - 2);
  for (char c : body) EXPECT_FALSE(IsControlChar(c)) << text;
  EXPECT_EQ(body.find('\n'), std::string::npos);
  json j = json::parse(body);
  EXPECT_EQ(j["v"], kJsonSchemaVersion);
  return j;
}

Spot MakeSpot(std::string_view sentence) {
  Spot spot;
  EXPECT_TRUE(SpotFromSentence(sentence, spot));
  return spot;
}

TEST(JsonFormatTest, SpotCarriesItsNumberStationsAndSource) {
  CountryInfo usa{"United States", "K", 5, 8, "NA"};
  CountryInfo germany{"Germany", "DL", 14, 28, "EU"};
  Spot spot = MakeSpot(
      "PC61^14025.1^K1ABC^24-Nov-2026^2154Z^CW 22 dB 25 WPM \"CQ\"\x07 V3^DL1XYZ-#^DB0SUE^"
      "192.0.2.1^H30^~");
  spot.Id = 4711;
  spot.dx_country = &usa;
  spot.spotter_country = &germany;
  spot.SourceTag = SourceTagText(SpotSource::kSkimmer);
  std::string out;
  AppendSpotJson(out, spot, {"20m", "CW", "feed", "FN42", ""});
  const json j = ParseLine(out);
  EXPECT_EQ(j["type"], "spot");
  EXPECT_EQ(j["id"], 4711);
  EXPECT_EQ(j["time"], "2026-11-24T21:54:00Z");
  EXPECT_DOUBLE_EQ(j["freq_khz"].get<double>(), 14025.1);
  EXPECT_EQ(j["freq_hz"], 14025100);
  EXPECT_EQ(j["band"], "20m");
  EXPECT_EQ(j["mode"], "CW");
  EXPECT_EQ(j["mode_source"], "feed");
  EXPECT_EQ(j["dx"]["call"], "K1ABC");
  EXPECT_EQ(j["dx"]["country"], "United States");
  EXPECT_EQ(j["dx"]["continent"], "NA");
  EXPECT_EQ(j["dx"]["cq"], 5);
  EXPECT_EQ(j["dx"]["itu"], 8);
  EXPECT_EQ(j["dx"]["grid"], "FN42");
  EXPECT_EQ(j["spotter"]["call"], "DL1XYZ-#");
  EXPECT_FALSE(j["spotter"].contains("grid"));           // unknown keys are left out, not empty
  EXPECT_EQ(j["comment"], "CW 22 dB 25 WPM \"CQ\" V3");  // the bell never reaches a program
  EXPECT_EQ(j["origin"], "DB0SUE");
  EXPECT_EQ(j["source"], "skimmer");
  EXPECT_EQ(j["skimmer"]["verdict"], "V");
  EXPECT_EQ(j["skimmer"]["count"], 3);
  EXPECT_EQ(j["beacon"], false);
}

TEST(JsonFormatTest, SpotWithoutKnownFactsLeavesThemOut) {
  Spot spot = MakeSpot("PC11^1836.5^XX9X^24-Nov-2026^0101Z^B(XX9XX)^G4ABC^GB7ABC^H5^~");
  spot.SourceTag = SourceTagText(SpotSource::kSkimmer);
  std::string out;
  AppendSpotJson(out, spot, {});
  const json j = ParseLine(out);
  EXPECT_FALSE(j.contains("id"));
  EXPECT_FALSE(j.contains("mode"));
  EXPECT_FALSE(j.contains("band"));
  EXPECT_FALSE(j["dx"].contains("country"));
  EXPECT_EQ(j["freq_hz"], 1836500);
  EXPECT_EQ(j["skimmer"]["verdict"], "B");
  EXPECT_EQ(j["skimmer"]["correction"], "XX9XX");

  Spot reporter = MakeSpot("PC61^7074.0^K1ABC^24-Nov-2026^0101Z^FT8 -12 dB R5^G4ABC^GB7ABC^^H5^~");
  reporter.SourceTag = SourceTagText(SpotSource::kReporter);
  out.clear();
  AppendSpotJson(out, reporter, {});
  EXPECT_EQ(ParseLine(out)["reporter"]["count"], 5);
}

TEST(JsonFormatTest, StringsAreEscapedAndKeptValid) {
  std::string out;
  AppendJsonString(out, std::string("a\"b\\c\x01\x1b[2J\x7f\xc3\xa9\xff", 14));
  EXPECT_EQ(out, "\"a\\\"b\\\\c\\u0001\\u001b[2J\\u007f\xc3\xa9\\ufffd\"");
  EXPECT_EQ(json::parse(out).get<std::string>(), "a\"b\\c\x01\x1b[2J\x7f\xc3\xa9\xef\xbf\xbd");
}

TEST(JsonFormatTest, OtherMessageTypes) {
  const SysTime t = MakeUtc(2026, 11, 24, 21, 54, 7);
  json j = ParseLine(AnnounceJson(t, "G1ABC", "ALL", "Contest this weekend"));
  EXPECT_EQ(j["type"], "announce");
  EXPECT_EQ(j["time"], "2026-11-24T21:54:07Z");
  EXPECT_EQ(j["to"], "ALL");
  j = ParseLine(TalkJson(t, "G1ABC", "K1ABC", "hello"));
  EXPECT_EQ(j["type"], "talk");
  EXPECT_EQ(j["from"], "G1ABC");
  j = ParseLine(PropagationJson("wwv", t, "WWV de W1AW <18>: SFI=150, A=5, K=2, Flux=high"));
  EXPECT_EQ(j["type"], "wwv");
  EXPECT_EQ(j["from"], "W1AW");
  EXPECT_EQ(j["sfi"], 150);
  EXPECT_EQ(j["k"], 2);
  EXPECT_EQ(j["flux"], "high");
  j = ParseLine(ReplyJson({"line 1", "line 2"}));
  EXPECT_EQ(j["text"], json::array({"line 1", "line 2"}));
  j = ParseLine(HeartbeatJson(t, 99));
  EXPECT_EQ(j["type"], "heartbeat");
  EXPECT_EQ(j["last_id"], 99);
  j = ParseLine(GapJson(10, 250));
  EXPECT_EQ(j["after"], 10);
  EXPECT_EQ(j["next"], 250);
  j = ParseLine(DroppedJson(1));
  EXPECT_EQ(j["type"], "dropped");
  EXPECT_EQ(j["count"], 1);
  EXPECT_EQ(j["text"], "1 spot was dropped: the node could not keep up");
  j = ParseLine(HelloJson(t, "XX0QX", "1.0", "", true, 7));
  EXPECT_EQ(j["node"], "XX0QX");
  EXPECT_FALSE(j.contains("user"));
  EXPECT_EQ(j["read_only"], true);
  EXPECT_EQ(ParseLine(ErrorJson("unknown filter"))["type"], "error");
}

// What a terminal user would read, as a JSON user gets it.
TEST(JsonFormatTest, TerminalTextBecomesTypedObjects) {
  const SysTime t = MakeUtc(2026, 11, 24, 21, 54, 0);
  const std::string text = TextAsJson(
      "\r\nCommand result line\r\nsecond\r\nTo ALL de G1ABC: meeting at 20z\a\r\n"
      "K1ABC de G2XYZ: hi there\r\nWX de G1ABC: rain\r\nWCY de DK0WCY-1 <21> : K=3 expK=2\r\n",
      "K1ABC", t);
  std::vector<json> objects;
  for (size_t at = 0; at < text.size();) {
    const size_t end = text.find("\r\n", at) + 2;
    objects.push_back(ParseLine(text.substr(at, end - at)));
    at = end;
  }
  ASSERT_EQ(objects.size(), 5u);
  EXPECT_EQ(objects[0]["text"], json::array({"Command result line", "second"}));
  EXPECT_EQ(objects[1]["type"], "announce");
  EXPECT_EQ(objects[1]["text"], "meeting at 20z");
  EXPECT_EQ(objects[2]["type"], "talk");
  EXPECT_EQ(objects[2]["from"], "G2XYZ");
  EXPECT_EQ(objects[3]["to"], "WX");
  EXPECT_EQ(objects[4]["type"], "wcy");
  EXPECT_EQ(objects[4]["expk"], 2);
  EXPECT_EQ(TextAsJson("\r\n", "K1ABC", t), "");
}

}  // namespace
}  // namespace qx
