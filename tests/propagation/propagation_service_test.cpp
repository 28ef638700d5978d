#include "propagation/propagation_service.h"

#include <fmt/format.h>
#include <gtest/gtest.h>

#include "core/file_util.h"
#include "core/stream_output.h"
#include "core/stream_table.h"
#include "core/text_util.h"
#include "propagation/wwv_fetch.h"
#include "tests/testlib/test_util.h"

namespace qx {
namespace {

std::vector<std::string> F(std::string_view line) {
  std::vector<std::string> out;
  for (std::string_view f : Split(line, '^')) out.emplace_back(f);
  return out;
}

struct Recorder : StreamOutput {
  void SendToStream(int stream, std::string_view text) override {
    sent.emplace_back(stream, std::string(text));
  }
  void CloseStream(int) override {}
  void SetStreamIdentity(int, std::string_view, int) override {}
  void SetStreamAttributes(int, std::string_view) override {}
  std::vector<std::pair<int, std::string>> sent;
};

// A node with three users: 1 wants WWV and WCY, 2 wants them with a bell, 3 wants neither;
// stream 4 is a node link, which never gets user lines.
class PropagationServiceTest : public ::testing::Test {
 protected:
  PropagationServiceTest() {
    streams.EnsureCapacity(4);
    for (int s = 1; s <= 4; ++s) streams.at(s).state = kStateUser;
    streams.at(2).session.Set(kSwBeep, true);
    streams.at(3).session.Set(kSwWwv, false);
    streams.at(3).session.Set(kSwWcy, false);
    streams.at(4).state = kStateNodePc9x;
  }
  std::unique_ptr<PropagationService> Make(decltype(PropagationDeps::user_gate) gate = {}) {
    PropagationDeps d;
    d.user_gate = std::move(gate);
    d.streams = &streams;
    d.out = &out;
    d.clock = &clock;
    d.wwv_dir = dir.path() / "wwv";
    d.wcy_dir = dir.path() / "wcy";
    d.log = [this](std::string_view tag, std::string_view text) {
      logged.push_back(std::string(tag) + ": " + std::string(text));
    };
    d.originate = [this](std::string_view s) { originated.emplace_back(s); };
    std::filesystem::create_directories(d.wwv_dir);
    std::filesystem::create_directories(d.wcy_dir);
    return std::make_unique<PropagationService>("Q9NODE", d);
  }

  qx::testing::TempDir dir;
  StreamTable streams;
  Recorder out;
  ManualClock clock{MakeUtc(2026, 11, 5, 15, 20)};
  std::vector<std::string> logged;
  std::vector<std::string> originated;
};

TEST_F(PropagationServiceTest, EachReportAsksTheUsersGateOnceAndSkipsWhomItRefuses) {
  std::vector<std::string> asked;
  std::vector<int> users_asked;
  auto service = Make([&](std::string_view logger, std::string_view origin, std::string_view line) {
    asked.push_back(fmt::format("{}|{}|{}", logger, origin, line));
    return [&, refuse = logger == "Q4LOG"](int stream, const StreamEntry&) {
      users_asked.push_back(stream);
      return !(refuse && stream == 1);
    };
  });
  service->OnPc23(F("PC23^05-Nov-2026^15^220^4^1^No Storms^Q4LOG^Q6VVV^H20^~"));
  service->OnPc73(F("PC73^05-Nov-2026^15^220^3^1^0^212^act^qui^no^Q5LOG^Q6VVV^H9^"));
  EXPECT_EQ(asked, (std::vector<std::string>{
                       "Q4LOG|Q6VVV|WWV de Q4LOG <15>: SFI=220, A=4, K=1, No Storms",
                       "Q5LOG|Q6VVV|WCY de Q5LOG <15> : K=1 expK=0 A=3 R=212 SFI=220 SA=act "
                       "GMF=qui Au=no"}));
  EXPECT_EQ(users_asked, (std::vector<int>{1, 2, 1, 2}));  // only users with the switch on
  ASSERT_EQ(out.sent.size(), 3u);
  EXPECT_EQ(out.sent[0].first, 2);
  EXPECT_EQ(out.sent[1].first, 1);
}

TEST_F(PropagationServiceTest, ReceivedReportsAreShownKeptAndSurviveARestart) {
  auto service = Make();
  using Intake = PropagationService::Intake;
  const auto pc23 = F("PC23^05-Nov-2026^15^220^4^1^No Storms^Q4LOG^Q6VVV^H20^~");
  EXPECT_EQ(service->OnPc23(pc23), Intake::kNew);
  EXPECT_EQ(service->OnPc23(pc23), Intake::kRepeat);
  EXPECT_EQ(service->OnPc23(F("PC23^05-Nov-2026^15^220^4^12^x^Q4LOG^Q6VVV^H20^~")),
            Intake::kRefused);
  EXPECT_EQ(service->OnPc73(F("PC73^05-Nov-2026^15^220^3^1^0^212^act^qui^no^Q4LOG^Q6VVV^H9^")),
            Intake::kNew);
  ASSERT_EQ(logged.size(), 1u);
  EXPECT_NE(logged[0].find("number out of range"), std::string::npos);
  EXPECT_TRUE(originated.empty());  // relaying received ones is the network's job

  const std::vector<std::pair<int, std::string>> expected{
      {1, "WWV de Q4LOG <15>: SFI=220, A=4, K=1, No Storms\r\n"},
      {2, "WWV de Q4LOG <15>: SFI=220, A=4, K=1, No Storms\a\r\n"},
      {1, "WCY de Q4LOG <15> : K=1 expK=0 A=3 R=212 SFI=220 SA=act GMF=qui Au=no\r\n"},
      {2, "WCY de Q4LOG <15> : K=1 expK=0 A=3 R=212 SFI=220 SA=act GMF=qui Au=no\a\r\n"}};
  EXPECT_EQ(out.sent, expected);

  // A sysop's WWV goes to the users and out to the network as ours with 30 hops.
  EXPECT_EQ(service->EnterWwv("q9sys", "SF=221,A=5,K=2,Minor"),
            "WWV sent: WWV de Q9SYS <15>: SFI=221, A=5, K=2, Minor");
  ASSERT_EQ(originated.size(), 1u);
  EXPECT_EQ(originated[0], "PC23^05-Nov-2026^15^221^5^2^Minor^Q9SYS^Q9NODE^H30^~\r\n");
  EXPECT_EQ(service->EnterWwv("Q9SYS", "SF=221,A=5,K=2,Minor"), "This WWV has been sent already.");
  EXPECT_EQ(service->EnterWwv("Q9SYS", "SF=221,A=5"),
            "Syntax: WWV SF=<solar flux>,A=<A index>,K=<K index>,<forecast>");
  EXPECT_EQ(originated.size(), 1u);

  // A fetched report for an hour the network already carried is not sent again.
  WwvReport fetched{"05-Nov-2026", 15, 230, 6, 2, "", "", ""};
  EXPECT_FALSE(service->OriginateWwv(fetched));
  fetched.hour = 14;
  EXPECT_TRUE(service->OriginateWwv(fetched));
  EXPECT_EQ(originated.back(), "PC23^05-Nov-2026^14^230^6^2^^Q9NODE^Q9NODE^H30^~\r\n");

  std::vector<std::string> before;
  ASSERT_TRUE(service->ShowWwv("", 5, 100, before));
  ASSERT_EQ(before.size(), 4u);  // header and three reports, newest first
  EXPECT_NE(before[1].find("<Q9NODE>"), std::string::npos);
  EXPECT_NE(before[3].find("<Q4LOG>"), std::string::npos);
  std::vector<std::string> two;
  ASSERT_TRUE(service->ShowWwv("2", 5, 100, two));
  EXPECT_EQ(two.size(), 3u);
  EXPECT_FALSE(service->ShowWwv("x", 5, 100, two));

  // After a restart, later the same day, today's reports are back; a repeat stays one.
  clock.Advance(std::chrono::hours(3));
  service = Make();
  EXPECT_EQ(service->LoadToday(), 4u);
  std::vector<std::string> after;
  ASSERT_TRUE(service->ShowWwv("", 5, 100, after));
  EXPECT_EQ(after, before);
  std::vector<std::string> wcy;
  ASSERT_TRUE(service->ShowWcy("", 5, 100, wcy));
  ASSERT_EQ(wcy.size(), 2u);
  EXPECT_NE(wcy[1].find("act"), std::string::npos);
  EXPECT_EQ(service->OnPc23(pc23), PropagationService::Intake::kRefused);  // old by now
  // The next day starts empty.
  clock.Advance(std::chrono::hours(12));
  service = Make();
  EXPECT_EQ(service->LoadToday(), 0u);
}

// The fetch with the HTTP GET replaced by a scripted server.
class WwvFetchTest : public PropagationServiceTest {
 protected:
  std::string Text(int day, int hhmm, std::string_view k = "1.33") {
    return fmt::format(
        ":Product: Geophysical Alert Message wwv.txt\n:Issued: 2026 Nov {:02} {:04} UTC\n"
        "Solar flux 140 and estimated planetary A-index 6.\n"
        "The estimated planetary K-index at {:04} UTC on {:02} November was {}.\n",
        day, hhmm + 5, hhmm, day, k);
  }
  void Start() {
    service = Make();
    WwvFetchOptions o;
    o.url = "http://127.0.0.1:1/wwv.txt";
    fetcher = std::make_unique<WwvFetcher>(o, clock, *service,
                                           [this](const WwvFetchRequest& r, auto done) {
                                             requests.push_back(r);
                                             pending = std::move(done);
                                           });
  }
  void Answer(WwvFetchReply reply) {
    ASSERT_TRUE(pending);
    auto done = std::move(pending);
    pending = nullptr;
    done(reply);
  }
  std::unique_ptr<PropagationService> service;
  std::unique_ptr<WwvFetcher> fetcher;
  std::vector<WwvFetchRequest> requests;
  std::function<void(const WwvFetchReply&)> pending;
};

TEST_F(WwvFetchTest, FetchesAtStartUpRetriesUntilIssuedAndThenEveryThreeHours) {
  clock.Set(MakeUtc(2026, 11, 5, 15, 2));  // period 15-18, text not out yet
  Start();
  fetcher->Tick();
  ASSERT_EQ(requests.size(), 1u);
  EXPECT_EQ(requests[0].url, "http://127.0.0.1:1/wwv.txt");
  EXPECT_EQ(requests[0].if_modified_since, "");
  fetcher->Tick();
  EXPECT_EQ(requests.size(), 1u);  // one at a time
  Answer({200, "", Text(5, 1200), "Thu, 05 Nov 2026 12:05:00 GMT", "\"a1\""});
  EXPECT_EQ(fetcher->last_outcome(), "not issued yet");
  EXPECT_TRUE(originated.empty());

  clock.Advance(std::chrono::minutes(14));
  fetcher->Tick();
  EXPECT_EQ(requests.size(), 1u);
  clock.Advance(std::chrono::minutes(1));
  fetcher->Tick();
  ASSERT_EQ(requests.size(), 2u);
  EXPECT_EQ(requests[1].if_modified_since, "Thu, 05 Nov 2026 12:05:00 GMT");
  EXPECT_EQ(requests[1].if_none_match, "\"a1\"");
  Answer({304, "", "", "", ""});
  EXPECT_EQ(fetcher->last_outcome(), "not modified");

  clock.Advance(std::chrono::minutes(15));
  fetcher->Tick();
  ASSERT_EQ(requests.size(), 3u);
  Answer({200, "", Text(5, 1500, "2.50"), "Thu, 05 Nov 2026 15:05:00 GMT", ""});
  ASSERT_EQ(originated.size(), 1u);
  EXPECT_EQ(originated[0], "PC23^05-Nov-2026^15^140^6^3^^Q9NODE^Q9NODE^H30^~\r\n");
  EXPECT_EQ(out.sent.size(), 2u);  // the two users who want WWV

  // Nothing more this period; the next begins ten minutes after 18:00.
  clock.Set(MakeUtc(2026, 11, 5, 18, 9));
  fetcher->Tick();
  EXPECT_EQ(requests.size(), 3u);
  clock.Set(MakeUtc(2026, 11, 5, 18, 10));
  fetcher->Tick();
  ASSERT_EQ(requests.size(), 4u);
  Answer({0, "connection refused", "", "", ""});
  EXPECT_EQ(fetcher->last_outcome(), "failed: connection refused");
  EXPECT_EQ(originated.size(), 1u);
}

TEST_F(WwvFetchTest, AReportTheNetworkCarriedMakesTheFetchNeedless) {
  clock.Set(MakeUtc(2026, 11, 5, 15, 20));
  Start();
  ASSERT_EQ(service->OnPc23(F("PC23^05-Nov-2026^15^220^4^1^x^Q4LOG^Q6VVV^H20^~")),
            PropagationService::Intake::kNew);
  fetcher->Tick();
  EXPECT_TRUE(requests.empty());
  EXPECT_EQ(fetcher->last_outcome(), "already carried");

  // Arriving while the fetch is under way: the fetched one is not sent.
  clock.Set(MakeUtc(2026, 11, 5, 18, 10));
  fetcher->Tick();
  ASSERT_EQ(requests.size(), 1u);
  ASSERT_EQ(service->OnPc23(F("PC23^05-Nov-2026^18^220^4^1^x^Q4LOG^Q6VVV^H20^~")),
            PropagationService::Intake::kNew);
  Answer({200, "", Text(5, 1800), "", ""});
  EXPECT_EQ(fetcher->last_outcome(), "already carried");
  EXPECT_TRUE(originated.empty());

  // A node started late in a period sends nothing other nodes would refuse as old.
  clock.Set(MakeUtc(2026, 11, 5, 22, 50));
  fetcher->Tick();
  ASSERT_EQ(requests.size(), 2u);
  Answer({200, "", Text(5, 2100), "", ""});
  EXPECT_EQ(fetcher->last_outcome(), "too old to send");
  EXPECT_TRUE(originated.empty());
}

}  // namespace
}  // namespace qx
