#include "frontend/link_records.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <vector>

#include "core/text_util.h"

namespace qx {
namespace {

using ::testing::ElementsAre;

// The records in out, each checked for its end.
std::vector<std::string> Records(const std::string& out) {
  EXPECT_TRUE(out.ends_with('\x03'));
  std::vector<std::string> records;
  for (auto r : Split(std::string_view(out).substr(0, out.size() - 1), '\x03')) {
    records.emplace_back(r);
  }
  return records;
}

TEST(LinkRecordsTest, EachRecordHasTheFieldsTheNodeReadsOneAfterAnother) {
  std::string out;
  AppendConnectRequest(out, 3, "192.0.2.7:50123", 41, "in", 0);
  AppendConnectRequest(out, 12, "198.51.100.2:7300", 42, "out:GB7XX", 9);
  AppendStreamClosed(out, 41, 3, "output overflow");
  AppendKeepAlive(out);
  AppendAnnounce(out, "GB7QX front end", "0.1.0", "ab12");
  AppendChallenge(out, "00ff");
  AppendOpenFailed(out, "GB7XX", "Connection refused");
  AppendStreamReport(out, StreamReport{41, 3, "192.0.2.7:50123", 2, "G4ABC", 5, "in", "p=9"});
  const std::pair<std::string_view, uint64_t> counters[] = {{"open_connections", 7},
                                                            {"refused_rate_total", 12}};
  AppendCounters(out, counters);
  AppendStreamList(out, std::vector<int>{});
  AppendStreamList(out, std::vector<int>{1, 2, 7});
  EXPECT_THAT(
      Records(out),
      ElementsAre("AA03^Connect Request^3^192.0.2.7:50123^41^in^0",
                  "AA03^Connect Request^12^198.51.100.2:7300^42^out:GB7XX^9",
                  "AA17^41^3^output overflow", "AA18", "QRV GB7QX front end^0.1.0^ab12",
                  "AA39^00ff", "AA19^GB7XX^Connection refused",
                  "AA38^41^3^192.0.2.7:50123^2^G4ABC^5^in^p=9",
                  "AA20^open_connections=7^refused_rate_total=12", "AA01^0^", "AA01^3^1,2,7"));
}

TEST(LinkRecordsTest, DataKeepsCaretsButOtherFieldsCannotSplitTheRecord) {
  std::string out;
  AppendStreamData(out, 5, "PC11^14025.0^DL1ABC^\r\n");
  AppendStreamReport(out, StreamReport{7, 2, "p^e\x03r", 1, "G4^ABC\x04", 0, "out:A^B", "x^y"});
  AppendAnnounce(out, "a^b", "1\x03", "p\x04");
  AppendOpenFailed(out, "a\x03^b", "c\x04");
  EXPECT_THAT(Records(out),
              ElementsAre("AA00^5^PC11^14025.0^DL1ABC^\r\n", "AA38^7^2^per^1^G4ABC^0^out:AB^xy",
                          "QRV ab^1^p", "AA19^ab^c"));
}

TEST(LinkRecordsTest, StreamAttributesLoseSeparatorsAndControlsAndStayShort) {
  EXPECT_EQ(CleanStreamAttributes("priv=9^a\x03\x04\r\n\t\x7f b\xc3\xa9"), "priv=9a b\xc3\xa9");
  EXPECT_EQ(CleanStreamAttributes(std::string(300, 'x')).size(), kMaxStreamAttributes);
  EXPECT_EQ(CleanStreamAttributes(std::string(300, '^') + "ok"), "ok");
}

}  // namespace
}  // namespace qx
