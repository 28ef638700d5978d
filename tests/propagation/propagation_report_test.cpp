#include "propagation/propagation_report.h"

#include <gtest/gtest.h>

#include "core/text_util.h"
#include "propagation/propagation_history.h"

namespace qx {
namespace {

std::vector<std::string> F(std::string_view line) {
  std::vector<std::string> out;
  for (std::string_view f : Split(line, '^')) out.emplace_back(f);
  return out;
}

const SysTime kNow = MakeUtc(2026, 11, 5, 15, 20);

TEST(Pc23Test, TakesPaddedFieldsAndHoldsTheTimeWindow) {
  WwvReport r;
  ASSERT_EQ(ReadPc23(F("PC23^ 5-Nov-2026^15^220^  4^ 1^R=212 SA:mo=>mo-hi^q4log^Q4LOG^H48^~"), kNow,
                     true, r),
            ReportCheck::kOk);
  EXPECT_EQ(r.date, "05-Nov-2026");
  EXPECT_EQ(r.hour, 15);
  EXPECT_EQ(r.sfi, 220);
  EXPECT_EQ(r.a, 4);
  EXPECT_EQ(r.k, 1);
  EXPECT_EQ(r.logger, "Q4LOG");
  EXPECT_EQ(WwvUserLine(r), "WWV de Q4LOG <15>: SFI=220, A=4, K=1, R=212 SA:mo=>mo-hi");

  const auto check = [](std::string_view line, SysTime now = kNow) {
    WwvReport ignored;
    return ReadPc23(F(line), now, true, ignored);
  };
  // Age: an hour back is the limit, 25 minutes ahead too.
  EXPECT_EQ(check("PC23^05-Nov-2026^14^220^4^1^x^Q4LOG^Q4LOG^H9^", MakeUtc(2026, 11, 5, 15)),
            ReportCheck::kOk);
  EXPECT_EQ(check("PC23^05-Nov-2026^14^220^4^1^x^Q4LOG^Q4LOG^H9^", MakeUtc(2026, 11, 5, 15, 0, 1)),
            ReportCheck::kTooOld);
  EXPECT_EQ(check("PC23^05-Nov-2026^14^220^4^1^x^Q4LOG^Q4LOG^H9^"), ReportCheck::kTooOld);
  EXPECT_EQ(check("PC23^05-Nov-2026^15^220^4^1^x^Q4LOG^Q4LOG^H9^", MakeUtc(2026, 11, 5, 14, 35)),
            ReportCheck::kOk);
  EXPECT_EQ(check("PC23^05-Nov-2026^16^220^4^1^x^Q4LOG^Q4LOG^H9^"), ReportCheck::kAhead);
  EXPECT_EQ(check("PC23^04-Nov-2026^15^220^4^1^x^Q4LOG^Q4LOG^H9^"), ReportCheck::kTooOld);
  // Just after midnight yesterday's last hour is still fresh.
  EXPECT_EQ(check("PC23^04-Nov-2026^23^220^4^1^x^Q4LOG^Q4LOG^H9^", MakeUtc(2026, 11, 5)),
            ReportCheck::kOk);
  // The fields themselves.
  EXPECT_EQ(check("PC23^05-Nov-2026^24^220^4^1^x^Q4LOG^Q4LOG^H9^"), ReportCheck::kBadHour);
  EXPECT_EQ(check("PC23^05-Nov-2026^1x^220^4^1^x^Q4LOG^Q4LOG^H9^"), ReportCheck::kBadHour);
  EXPECT_EQ(check("PC23^31-Nov-2026^15^220^4^1^x^Q4LOG^Q4LOG^H9^"), ReportCheck::kBadDate);
  EXPECT_EQ(check("PC23^05-Nov-2026^15^220^4^10^x^Q4LOG^Q4LOG^H9^"), ReportCheck::kOutOfRange);
  EXPECT_EQ(check("PC23^05-Nov-2026^15^220^401^1^x^Q4LOG^Q4LOG^H9^"), ReportCheck::kOutOfRange);
  EXPECT_EQ(check("PC23^05-Nov-2026^15^-1^4^1^x^Q4LOG^Q4LOG^H9^"), ReportCheck::kOutOfRange);
  EXPECT_EQ(check("PC23^05-Nov-2026^15^2.5^4^1^x^Q4LOG^Q4LOG^H9^"), ReportCheck::kOutOfRange);
  EXPECT_EQ(check("PC23^05-Nov-2026^15^220^4^1^x^^Q4LOG^H9^"), ReportCheck::kMalformed);
  EXPECT_EQ(check("PC23^05-Nov-2026^15^220^4^1^x^Q4 LOG^Q4LOG^H9^"), ReportCheck::kMalformed);
  EXPECT_EQ(check("PC23^05-Nov-2026^15^220^4^1^x^Q4LOG"), ReportCheck::kMalformed);
  EXPECT_EQ(check("PC23^05-Nov-2026^15^220^4^1^" + std::string(101, 'x') + "^Q4LOG^Q4LOG^H9^"),
            ReportCheck::kMalformed);
}

TEST(Pc73Test, ReadsBuildsAndChecks) {
  WcyReport r;
  ASSERT_EQ(ReadPc73(F("PC73^05-Nov-2026^15^220^  3^1^0^212^act^qui^no^Q4LOG-3^Q6VVV-7^H96^"), kNow,
                     true, r),
            ReportCheck::kOk);
  EXPECT_EQ(WcyUserLine(r),
            "WCY de Q4LOG-3 <15> : K=1 expK=0 A=3 R=212 SFI=220 SA=act GMF=qui Au=no");
  // What we build reads back to the same report, padded as peers expect.
  const std::string built = BuildPc73(r, 30);
  EXPECT_EQ(built, "PC73^05-Nov-2026^15^220^  3^  1^0^212^act^qui^no^Q4LOG-3^Q6VVV-7^H30^\r\n");
  WcyReport again;
  ASSERT_EQ(ReadPc73(F(Trim(built)), kNow, true, again), ReportCheck::kOk);
  EXPECT_EQ(WcyUserLine(again), WcyUserLine(r));

  WcyReport ignored;
  EXPECT_EQ(ReadPc73(F("PC73^05-Nov-2026^15^220^3^1^10^212^act^qui^no^Q4LOG^Q6VVV^H9^"), kNow, true,
                     ignored),
            ReportCheck::kOutOfRange);  // expected K
  EXPECT_EQ(
      ReadPc73(F("PC73^05-Nov-2026^15^220^3^1^0^212^^qui^no^Q4LOG^Q6VVV^H9^"), kNow, true, ignored),
      ReportCheck::kMalformed);
  EXPECT_EQ(ReadPc73(F("PC73^05-Nov-2026^12^220^3^1^0^212^act^qui^no^Q4LOG^Q6VVV^H9^"), kNow, true,
                     ignored),
            ReportCheck::kTooOld);
  // Today's file is read without the age window.
  EXPECT_EQ(ReadPc73(F("PC73^05-Nov-2026^02^220^3^1^0^212^act^qui^no^Q4LOG^Q6VVV^H9^"), kNow, false,
                     ignored),
            ReportCheck::kOk);
}

TEST(PropagationHistoryTest, RepeatsAreKeptOutForTwelveHours) {
  PropagationHistory h;
  WwvReport w{"05-Nov-2026", 15, 220, 4, 1, "forecast", "Q4LOG", "Q4LOG"};
  EXPECT_TRUE(h.AddWwv(w, kNow));
  WwvReport other_node = w;
  other_node.origin = "Q6VVV";  // the same report over another route
  other_node.forecast = "changed on the way";
  EXPECT_FALSE(h.AddWwv(other_node, kNow + std::chrono::minutes(1)));
  WwvReport second_logger = w;
  second_logger.logger = "Q5ABC";
  EXPECT_TRUE(h.AddWwv(second_logger, kNow));
  WwvReport new_k = w;
  new_k.k = 2;
  EXPECT_TRUE(h.AddWwv(new_k, kNow));
  EXPECT_FALSE(h.AddWwv(w, kNow + std::chrono::hours(11)));
  EXPECT_TRUE(h.AddWwv(w, kNow + std::chrono::hours(12)));
  ASSERT_EQ(h.wwv().size(), 4u);
  EXPECT_EQ(h.wwv().Newest(1)[0]->logger, "Q4LOG");
  EXPECT_EQ(h.wwv().Newest(10)[1]->k, 2);  // newest first
  EXPECT_TRUE(h.HasWwvFor("05-Nov-2026", 15));
  EXPECT_FALSE(h.HasWwvFor("05-Nov-2026", 12));
  EXPECT_TRUE(h.HasWwvBetween(MakeUtc(2026, 11, 5, 15), MakeUtc(2026, 11, 5, 18)));
  EXPECT_FALSE(h.HasWwvBetween(MakeUtc(2026, 11, 5, 12), MakeUtc(2026, 11, 5, 15)));

  // A WCY is one per hour, whoever logged it.
  WcyReport c{"05-Nov-2026", 15, 220, 3, 1, 0, 212, "act", "qui", "no", "Q4LOG", "Q6VVV"};
  EXPECT_TRUE(h.AddWcy(c, kNow));
  c.logger = "Q5ABC";
  c.k = 4;
  EXPECT_FALSE(h.AddWcy(c, kNow));
  c.hour = 16;
  EXPECT_TRUE(h.AddWcy(c, kNow));
}

TEST(WwvCommandTest, FiguresAreRangeChecked) {
  WwvReport r;
  std::string error;
  ASSERT_TRUE(ParseWwvCommand(" sf=150 , A=12,K=3,Minor w/G1, R1 -> No Storms", r, error));
  EXPECT_EQ(r.sfi, 150);
  EXPECT_EQ(r.a, 12);
  EXPECT_EQ(r.k, 3);
  EXPECT_EQ(r.forecast, "Minor w/G1, R1 -> No Storms");
  ASSERT_TRUE(ParseWwvCommand("SF=70,A=0,K=0", r, error));
  EXPECT_EQ(r.forecast, "");
  for (const char* bad : {"", "SF=150", "SF=150,A=12", "A=12,SF=150,K=3", "SF=150,A=12,K=10",
                          "SF=1000,A=1,K=1", "SF=x,A=1,K=1", "SF=150,A=-1,K=1", "SF 150,A=1,K=1"}) {
    EXPECT_FALSE(ParseWwvCommand(bad, r, error)) << bad;
    EXPECT_FALSE(error.empty()) << bad;
  }
  size_t n = 0;
  EXPECT_TRUE(ShowCount("", 5, 100, n));
  EXPECT_EQ(n, 5u);
  EXPECT_TRUE(ShowCount("500", 5, 100, n));
  EXPECT_EQ(n, 100u);
  EXPECT_FALSE(ShowCount("0", 5, 100, n));
  EXPECT_FALSE(ShowCount("five", 5, 100, n));
}

}  // namespace
}  // namespace qx
