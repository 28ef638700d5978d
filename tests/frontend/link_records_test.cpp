#include "frontend/link_records.h"

#include <gtest/gtest.h>

#include <vector>

namespace qx {
namespace {

TEST(LinkRecordsTest, EachRecordHasTheFieldsTheNodeReads) {
  std::string out;
  AppendConnectRequest(out, 3, "192.0.2.7:50123", 41, "in", 0);
  EXPECT_EQ(out, "AA03^Connect Request^3^192.0.2.7:50123^41^in^0\x03");
  out.clear();
  AppendConnectRequest(out, 12, "198.51.100.2:7300", 42, "out:GB7XX", 9);
  EXPECT_EQ(out, "AA03^Connect Request^12^198.51.100.2:7300^42^out:GB7XX^9\x03");
  out.clear();
  AppendStreamClosed(out, 41, 3, "output overflow");
  EXPECT_EQ(out, "AA17^41^3^output overflow\x03");
  out.clear();
  AppendKeepAlive(out);
  EXPECT_EQ(out, "AA18\x03");
  out.clear();
  AppendAnnounce(out, "GB7QX front end", "0.1.0", "ab12");
  EXPECT_EQ(out, "QRV GB7QX front end^0.1.0^ab12\x03");
  out.clear();
  AppendChallenge(out, "00ff");
  EXPECT_EQ(out, "AA39^00ff\x03");
  out.clear();
  AppendOpenFailed(out, "GB7XX", "Connection refused");
  EXPECT_EQ(out, "AA19^GB7XX^Connection refused\x03");
  out.clear();
  AppendStreamReport(out, StreamReport{41, 3, "192.0.2.7:50123", 2, "G4ABC", 5, "in", "p=9"});
  EXPECT_EQ(out, "AA38^41^3^192.0.2.7:50123^2^G4ABC^5^in^p=9\x03");
  out.clear();
  const std::pair<std::string_view, uint64_t> counters[] = {{"open_connections", 7},
                                                            {"refused_rate_total", 12}};
  AppendCounters(out, counters);
  EXPECT_EQ(out, "AA20^open_connections=7^refused_rate_total=12\x03");
}

TEST(LinkRecordsTest, StreamListCountsAndJoinsWithCommas) {
  std::string out;
  const std::vector<int> none;
  AppendStreamList(out, none);
  EXPECT_EQ(out, "AA01^0^\x03");
  out.clear();
  const std::vector<int> three{1, 2, 7};
  AppendStreamList(out, three);
  EXPECT_EQ(out, "AA01^3^1,2,7\x03");
}

TEST(LinkRecordsTest, DataKeepsCaretsButOtherFieldsCannotSplitTheRecord) {
  std::string out;
  AppendStreamData(out, 5, "PC11^14025.0^DL1ABC^\r\n");
  EXPECT_EQ(out, "AA00^5^PC11^14025.0^DL1ABC^\r\n\x03");
  out.clear();
  AppendStreamReport(out, StreamReport{7, 2, "p^e\x03r", 1, "G4^ABC\x04", 0, "out:A^B", "x^y"});
  EXPECT_EQ(out, "AA38^7^2^per^1^G4ABC^0^out:AB^xy\x03");
  out.clear();
  AppendAnnounce(out, "a^b", "1\x03", "p\x04");
  EXPECT_EQ(out, "QRV ab^1^p\x03");
}

TEST(LinkRecordsTest, StreamAttributesLoseSeparatorsAndControlsAndStayShort) {
  EXPECT_EQ(CleanStreamAttributes("priv=9^a\x03\x04\r\n\t\x7f b\xc3\xa9"), "priv=9a b\xc3\xa9");
  EXPECT_EQ(CleanStreamAttributes(std::string(300, 'x')).size(), kMaxStreamAttributes);
  EXPECT_EQ(CleanStreamAttributes(std::string(300, '^') + "ok"), "ok");
}

TEST(LinkRecordsTest, RecordsAppendOneAfterAnother) {
  std::string out;
  AppendStreamData(out, 1, "a\r\n");
  AppendKeepAlive(out);
  AppendStreamData(out, 2, "b\r\n");
  EXPECT_EQ(out,
            "AA00^1^a\r\n\x03"
            "AA18\x03"
            "AA00^2^b\r\n\x03");
}

}  // namespace
}  // namespace qx
