// The console's pieces without sockets: the password file, the JSON API, the log
// reader and the metrics text.
#include <sys/stat.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <regex>

#include "console/console_api.h"
#include "console/console_logs.h"
#include "console/console_metrics.h"
#include "console/console_password.h"
#include "tests/console/fake_console_model.h"
#include "tests/testlib/test_util.h"

namespace qx {
namespace {

using nlohmann::json;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

int64_t UnixSeconds(SysTime t) {
  return std::chrono::duration_cast<std::chrono::seconds>(t.time_since_epoch()).count();
}

TEST(ConsolePasswordTest, HashRoundTripFileAndRandomPasswords) {
  qx::testing::TempDir dir;
  const PasswordHash h = HashPassword("correct horse", 1000);
  EXPECT_EQ(h.salt.size(), 16u);
  EXPECT_TRUE(VerifyPassword(h, "correct horse"));
  EXPECT_FALSE(VerifyPassword(h, "correct horsf"));
  EXPECT_FALSE(VerifyPassword(h, ""));
  // Two hashes of the same password differ by their salt.
  EXPECT_NE(HashPassword("correct horse", 1000).hash, h.hash);

  const auto path = dir / "cfg" / "console.pw";
  std::string error;
  ASSERT_TRUE(SavePasswordFile(path, h, &error)) << error;
  struct stat st {};
  ASSERT_EQ(::stat(path.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);
  const auto loaded = LoadPasswordFile(path);
  ASSERT_TRUE(loaded);
  EXPECT_TRUE(VerifyPassword(*loaded, "correct horse"));
  EXPECT_THAT(qx::testing::ReadFile(path), ::testing::StartsWith("pbkdf2-sha256$1000$"));

  // A file that is not a hash line is no password at all.
  for (const char* bad : {"", "secret", "pbkdf2-sha256$0$00112233445566778899$00",
                          "pbkdf2-sha256$10$zz$00", "md5$1$0011223344556677$00"}) {
    EXPECT_FALSE(ParsePasswordHash(bad)) << bad;
  }

  // A made-up password is one a sysop can type, and never the same twice.
  const std::string a = MakeRandomPassword(), b = MakeRandomPassword();
  EXPECT_EQ(a.size(), 16u);
  EXPECT_NE(a, b);
  for (char c : a) EXPECT_TRUE(std::isalnum(static_cast<unsigned char>(c))) << a;
}

class ConsoleApiTest : public ::testing::Test {
 protected:
  json Call(std::string_view method, std::string_view path, std::string_view body = "",
            int expect_status = 200, std::string_view query = "") {
    const ApiReply r = api_.Handle(method, path, query, body);
    EXPECT_EQ(r.status, expect_status) << path << " " << r.body;
    return json::parse(r.body);
  }

  qx::testing::FakeConsoleModel model_;
  ConsoleApi api_{model_};
};

TEST_F(ConsoleApiTest, ListsAddRemoveAndRefuseBadItems) {
  EXPECT_EQ(Call("GET", "lists")["lists"].size(), 12u);
  Call("POST", "lists/LockOuts/add", R"({"item":"k1abc"})");
  EXPECT_EQ(Call("GET", "lists/LockOuts")["items"], json::array({"K1ABC"}));
  // The model's own refusal reaches the sysop as it stands.
  EXPECT_THAT(
      Call("POST", "lists/LockOuts/add", R"({"item":"K1ABC"})", 400)["error"].get<std::string>(),
      HasSubstr("already"));
  Call("POST", "lists/LockOuts/add", R"({"item":"a\nb"})", 400);
  Call("POST", "lists/LockOuts/add", R"({"item":"a^b"})", 400);
  Call("POST", "lists/LockOuts/add", R"({"item":"  "})", 400);
  Call("POST", "lists/NoSuchList/add", R"({"item":"X"})", 404);
  Call("GET", "lists/NoSuchList", "", 404);
  Call("POST", "lists/LockOuts/remove", R"({"item":"K1ABC"})");
  EXPECT_TRUE(Call("GET", "lists/LockOuts")["items"].empty());
  Call("POST", "lists/LockOuts/add", "not json", 400);
}

TEST_F(ConsoleApiTest, ListSearchImportPasswordsNodesAndUsers) {
  // A pasted list is added item by item; the search runs on the server.
  const json imported =
      Call("POST", "lists/LockOuts/import", R"({"text":"k1abc, k2abc\nk1abc\n#note"})");
  EXPECT_EQ(imported["added"], 2);
  EXPECT_EQ(imported["already"], 1);
  const json found = Call("GET", "lists/LockOuts", "", 200, "q=k2");
  EXPECT_EQ(found["items"], json::array({"K2ABC"}));
  EXPECT_EQ(found["total"], 2);
  Call("POST", "lists/LockOuts/import", R"({"text":5})", 400);
  Call("POST", "lists/LockOuts/fetch", R"({"url":"https://example.org/x"})", 400);

  // A password goes in and never comes back out.
  Call("POST", "passwords/set", R"({"call":"G4ABC","password":"pw1","level":"1"})");
  EXPECT_EQ(Call("GET", "passwords")["calls"],
            json::parse(R"([{"call":"G4ABC","level":1,"password":"set"}])"));
  Call("POST", "passwords/set", R"({"call":"G4ABC","password":" pw"})", 400);
  Call("POST", "passwords/set", R"({"call":"G4ABC","password":"a^b"})", 400);
  Call("POST", "passwords/set", R"({"call":"G4ABC","password":"x","level":"12"})", 400);
  Call("POST", "passwords/remove", R"({"call":"G4ABC"})");
  Call("POST", "passwords/remove", R"({"call":"G4ABC"})", 400);

  Call("POST", "nodes/save", R"({"call":"GB7NEW","type":"DXS","addresses":"192.0.2.1"})");
  Call("POST", "nodes/save", R"({"call":"GB7NEW","addresses":"a\nb"})", 400);
  const json links = Call("GET", "links");
  EXPECT_EQ(links["nodes"].back()["addresses"], "192.0.2.1");
  EXPECT_EQ(links["nodes"][0]["password"], "set");
  EXPECT_EQ(links["links"][0]["lastError"], "Connection refused");
  Call("POST", "nodes/remove", R"({"call":"GB7NEW"})");

  const json page = Call("GET", "users", "", 200, "q=k1&offset=0&limit=1");
  EXPECT_EQ(page["total"], 1);
  EXPECT_EQ(page["users"][0]["call"], "K1ABC/P");
  EXPECT_EQ(Call("GET", "users", "", 200, "limit=0")["users"].size(), 1u);  // at least one
  EXPECT_EQ(Call("GET", "users/K1ABC%2FP")["user"]["name"], "Ann");
  Call("GET", "users/NOSUCH", "", 404);
  Call("POST", "users/lockout", R"({"call":"G4ABC","locked":"yes"})", 400);
  Call("POST", "users/lockout", R"({"call":"G4ABC","locked":true})");
  EXPECT_THAT(model_.disconnected, ElementsAre(5));  // the user was on stream 5
}

TEST_F(ConsoleApiTest, SettingsAreValidatedBeforeAnythingIsSaved) {
  const json groups = Call("GET", "settings")["groups"];
  ASSERT_EQ(groups.size(), 3u);
  EXPECT_EQ(groups[0]["keys"][0]["key"], "Cluster Call");
  // The page chooses each input by the key's kind and marks what waits for a restart.
  EXPECT_EQ(groups[0]["keys"][1]["kind"], "address");
  EXPECT_EQ(groups[0]["keys"][1]["restart"], true);
  EXPECT_EQ(groups[2]["keys"][0]["restart"], false);
  Call("POST", "settings", R"({"changes":{"Console Address":"foo"}})", 400);
  EXPECT_EQ(model_.Value("Console Address"), "127.0.0.1");
  // One bad value refuses the whole change.
  Call("POST", "settings", R"({"changes":{"Connection Retry":"30","Winsock Port":"x"}})", 400);
  EXPECT_EQ(model_.Value("Connection Retry"), "60");
  Call("POST", "settings", R"({"changes":{"Connection Retry":"30"}})");
  EXPECT_EQ(model_.Value("Connection Retry"), "30");
  // Nothing that would break the key^value line format gets through.
  Call("POST", "settings", R"({"changes":{"Cluster Call":"A^B"}})", 400);
  Call("POST", "settings", R"({"changes":{"Cluster Call":"A\r\nWinsock Port^1"}})", 400);
  Call("POST", "settings", R"({"changes":{"Cluster Call":5}})", 400);
  EXPECT_EQ(model_.Value("Cluster Call"), "XX0QX-2");
}

TEST_F(ConsoleApiTest, LogonMessagesLinksStreamsAndShutdown) {
  const json sections = Call("GET", "logon")["sections"];
  ASSERT_EQ(sections.size(), 14u);
  EXPECT_EQ(sections[13]["section"], "Log Out");
  Call("POST", "logon", R"({"section":"Logon 2","text":"Welcome\nto the node"})");
  EXPECT_EQ(*model_.LogonMessage("Logon 2"), "Welcome\nto the node");
  Call("POST", "logon", R"({"section":"Logon 9","text":"x"})", 404);

  Call("POST", "links/connect", R"({"name":"GB7AAA"})");
  EXPECT_EQ(Call("GET", "links")["links"][0]["state"], "connecting");
  Call("POST", "links/connect", R"({"name":"NOPE"})", 400);
  Call("POST", "links/save",
       R"({"name":"GB7BBB","remoteKind":"pc9x","address":"10.0.0.2","port":"7300","active":true})");
  Call("POST", "links/save", R"({"name":"GB7CCC","address":"10.0.0.3","port":"99999"})", 400);
  Call("POST", "links/save", R"({"name":"GB7CCC","address":"a^b","port":"23"})", 400);
  Call("POST", "links/save", R"({"name":"","address":"10.0.0.3","port":"23"})", 400);
  json links = Call("GET", "links")["links"];
  ASSERT_EQ(links.size(), 2u);
  EXPECT_EQ(links[1]["name"], "GB7BBB");
  EXPECT_EQ(links[1]["port"], 7300);
  EXPECT_EQ(links[1]["active"], true);
  Call("POST", "links/remove", R"({"name":"GB7BBB"})");
  EXPECT_EQ(Call("GET", "links")["links"].size(), 1u);

  model_.streams.push_back({7,
                            "K1ABC",
                            "user",
                            1,
                            "127.0.0.1:5000",
                            0,
                            MakeUtc(2026, 11, 5, 12),
                            "Bob",
                            "white",
                            {"Filters are on.", "SPOTS A1: acc/spots on hf"}});
  const json streams = Call("GET", "streams")["streams"];
  ASSERT_EQ(streams.size(), 1u);
  EXPECT_EQ(streams[0]["call"], "K1ABC");
  EXPECT_EQ(streams[0]["filters"][1], "SPOTS A1: acc/spots on hf");
  EXPECT_EQ(streams[0]["since"], 1793880000);
  Call("POST", "streams/disconnect", R"({"stream":"7"})", 400);
  Call("POST", "streams/disconnect", R"({"stream":7})");
  EXPECT_THAT(model_.disconnected, ElementsAre(7));

  Call("POST", "shutdown", "{}", 400);
  EXPECT_FALSE(api_.shutdown_requested());
  Call("POST", "shutdown", R"({"confirm":true})");
  EXPECT_TRUE(api_.shutdown_requested());
  Call("DELETE", "streams", "", 405);
  Call("GET", "nothing", "", 404);
}

TEST_F(ConsoleApiTest, MonitorViewIsAllOrNodeTrafficAndABadValueKeepsIt) {
  EXPECT_EQ(Call("GET", "monitor/view")["view"], 0);
  EXPECT_EQ(Call("POST", "monitor/view", R"({"view":1})")["view"], 1);
  for (const char* bad : {R"({"view":2})", R"({"view":-1})", R"({"view":"1"})", R"({"view":1.5})",
                          R"({"view":4294967297})", "{}"}) {
    EXPECT_THAT(Call("POST", "monitor/view", bad, 400)["error"].get<std::string>(),
                HasSubstr("0 (all traffic) or 1 (node traffic)"))
        << bad;
  }
  EXPECT_EQ(model_.monitor_view, 1);
  EXPECT_EQ(Call("POST", "monitor/view", R"({"view":0})")["view"], 0);
}

TEST_F(ConsoleApiTest, SpotsOfADayWithRefusalsNewestFirstSearchedAndFiltered) {
  const auto spot = [](int day, int hour, double khz, const char* band, const char* dx) {
    ConsoleSpot s;
    s.time = MakeUtc(2026, 11, day, hour);
    s.frequency_khz = khz;
    s.band = band;
    s.dx = dx;
    s.spotter = "G4ABC";
    s.comment = "CQ";
    return s;
  };
  model_.spots = {spot(23, 23, 7010, "40m", "OLD1"), spot(24, 10, 14025, "20m", "K1ABC"),
                  spot(24, 11, 7025, "40m", "JA1AAA")};
  ConsoleSpot refused = spot(24, 12, 14030, "20m", "W1XYZ");
  refused.refused = true;
  refused.reason = "bad word";
  refused.rule = "bad word: FT8SPAM (badwords.txt)";
  model_.refusals = {spot(23, 12, 14030, "20m", "LATE"), refused};
  model_.refusals.front().refused = true;

  const auto dx_of = [&](std::string_view query) {
    std::vector<std::string> out;
    const json reply = Call("GET", "spots", "", 200, query);
    for (const json& r : reply["spots"]) out.push_back(r["dx"]);
    return out;
  };
  using V = std::vector<std::string>;
  EXPECT_EQ(dx_of("day=2026-11-24"), (V{"W1XYZ", "JA1AAA", "K1ABC"}));
  const json all = Call("GET", "spots", "", 200, "day=2026-11-24");
  EXPECT_EQ(all["day"], "2026-11-24");
  EXPECT_EQ(all["spots"][0]["rule"], "bad word: FT8SPAM (badwords.txt)");
  EXPECT_EQ(all["spots"][0]["refused"], true);
  EXPECT_EQ(all["spots"][1]["refused"], false);
  EXPECT_EQ(all["spots"][1]["ts"], UnixSeconds(MakeUtc(2026, 11, 24, 11)));
  EXPECT_EQ(dx_of("day=2026-11-24&refused=hide"), (V{"JA1AAA", "K1ABC"}));
  EXPECT_EQ(dx_of("day=2026-11-24&refused=only"), (V{"W1XYZ"}));
  EXPECT_EQ(dx_of("day=2026-11-23"), (V{"OLD1", "LATE"}));
  EXPECT_EQ(dx_of("day=2026-11-24&band=20M"), (V{"W1XYZ", "K1ABC"}));
  EXPECT_EQ(dx_of("day=2026-11-24&q=ft8spam"), (V{"W1XYZ"}));  // the rule is searched too
  EXPECT_EQ(dx_of("day=2026-11-24&q=ja1"), (V{"JA1AAA"}));
  const json one = Call("GET", "spots", "", 200, "day=2026-11-24&limit=1");
  EXPECT_EQ(one["spots"].size(), 1u);
  EXPECT_EQ(one["matched"], 3);
  for (const char* bad : {"day=2026-02-29", "day=yesterday", "day=2026-13-01", "refused=maybe"}) {
    Call("GET", "spots", "", 400, bad);
  }
}

TEST_F(ConsoleApiTest, MonitorHistoryBothDirectionsSearchedByTextStreamAndChannel) {
  ManualClock clock(MakeUtc(2026, 11, 24, 22, 0));
  Monitor& m = model_.monitor_obj;
  m.set_clock(&clock);
  m.KeepHistory(100, std::chrono::hours(2));
  m.Input(5, "sh/dx");
  m.Write(MonitorChannel::kRaw, "14025.0 JA1AAA", "", 5, MonitorDirection::kOut);
  m.Console("Loading DX Spots");
  m.Input(6, "bye");

  const json lines = Call("GET", "monitor/history")["lines"];
  ASSERT_EQ(lines.size(), 4u);
  EXPECT_EQ(lines[0]["x"], "sh/dx");
  EXPECT_EQ(lines[0]["d"], "in");
  EXPECT_EQ(lines[1]["d"], "out");
  EXPECT_EQ(lines[2]["d"], "");
  EXPECT_EQ(lines[0]["ts"], UnixSeconds(clock.Now()) * 1000);
  const auto texts = [&](std::string_view query) {
    std::vector<std::string> out;
    const json reply = Call("GET", "monitor/history", "", 200, query);
    for (const json& l : reply["lines"]) out.push_back(l["x"]);
    return out;
  };
  using V = std::vector<std::string>;
  EXPECT_EQ(texts("stream=5"), (V{"sh/dx", "14025.0 JA1AAA"}));
  EXPECT_EQ(texts("q=SH%2FDX"), (V{"sh/dx"}));
  EXPECT_EQ(texts("ch=console"), (V{"Loading DX Spots"}));
  EXPECT_EQ(texts("limit=2"), (V{"Loading DX Spots", "bye"}));  // the newest, in order
  Call("GET", "monitor/history", "", 400, "stream=x");
}

TEST_F(ConsoleApiTest, LogsAndStatistics) {
  model_.log_files["log/error-05-Nov-2026.log"] = {"one K1ABC", "two", "three k1abc"};
  Call("GET", "logs/tail", "", 404, "name=log/other.log");
  EXPECT_THAT(
      Call("GET", "logs/tail", "", 200, "name=log%2Ferror-05-Nov-2026.log&lines=2")["lines"],
      ElementsAre("two", "three k1abc"));
  EXPECT_THAT(
      Call("GET", "logs/search", "", 200, "name=log/error-05-Nov-2026.log&q=K1ABC")["lines"],
      ElementsAre("three k1abc", "one K1ABC"));
  model_.stats.users = 3;
  model_.stats.uptime_seconds = 3600 * 26 + 60 * 5;
  model_.stats.spots_per_minute_history = {1, 2, 3};
  const json s = Call("GET", "stats");
  EXPECT_EQ(s["users"], 3);
  EXPECT_EQ(s["history"], json::array({1, 2, 3}));
  EXPECT_EQ(s["uptime"], UptimeText(std::chrono::seconds(3600 * 26 + 60 * 5)));
}

TEST_F(ConsoleApiTest, ReferenceDataStateAndUpdateButton) {
  EXPECT_EQ(Call("POST", "downloads/update", "{}", 400)["error"],
            "no reference file or update address is set");
  const SysTime fetched = SysTime{} + std::chrono::seconds(1'800'000'000);
  model_.downloads = {{"cty_wt_mod.dat", "https://h/cty", false, "installed", fetched,
                       fetched + std::chrono::hours(24)},
                      {"MASTER.SCP", "https://h/scp", true, "downloading", {}, std::nullopt}};
  const json d = Call("GET", "downloads");
  ASSERT_EQ(d["files"].size(), 2u);
  EXPECT_EQ(d["files"][0]["outcome"], "installed");
  EXPECT_EQ(d["files"][0]["lastSuccess"], 1'800'000'000);
  EXPECT_EQ(d["files"][0]["next"], 1'800'000'000 + 24 * 3600);
  EXPECT_TRUE(d["files"][1]["next"].is_null());
  EXPECT_EQ(d["program"], "not checked yet");
  Call("POST", "downloads/update", "{}");
  EXPECT_EQ(model_.download_requests, 1);
}

TEST_F(ConsoleApiTest, MailListReadDeleteAndRequeue) {
  ConsoleMail m;
  m.number = 7;
  m.from = "K1ABC";
  m.to = "ALL";
  m.subject = "Field day";
  m.time = SysTime{} + std::chrono::seconds(1'800'000'000);
  m.is_private = false;
  m.forwards = {{"DB0BBB", "acknowledged", 0}, {"W1CCC", "given up", 5}};
  m.text = {"Saturday", ""};
  model_.mail = {m};
  const json list = Call("GET", "mail");
  ASSERT_EQ(list["messages"].size(), 1u);
  EXPECT_EQ(list["messages"][0]["subject"], "Field day");
  EXPECT_EQ(list["messages"][0]["time"], 1'800'000'000);
  EXPECT_FALSE(list["messages"][0]["private"]);
  EXPECT_EQ(list["messages"][0]["forwards"][1],
            json({{"node", "W1CCC"}, {"state", "given up"}, {"attempts", 5}}));
  EXPECT_FALSE(list["messages"][0].contains("text"));  // the list carries no text

  EXPECT_EQ(Call("GET", "mail/read", "", 200, "number=7")["text"], json({"Saturday", ""}));
  Call("GET", "mail/read", "", 404, "number=8");
  for (std::string_view bad : {"", "number=x", "number=0", "number=-3"}) {
    Call("GET", "mail/read", "", 400, bad);
  }

  Call("POST", "mail/requeue", R"({"number":7})");
  EXPECT_EQ(model_.mail[0].forwards[1].state, "queued");
  EXPECT_EQ(Call("POST", "mail/requeue", R"({"number":"7"})", 400)["error"],
            "message 7 is due on no link");
  Call("POST", "mail/delete", R"({"number":"abc"})", 400);
  Call("POST", "mail/delete", R"({"number":7})");
  EXPECT_TRUE(model_.mail.empty());
  Call("POST", "mail/delete", R"({"number":7})", 400);
}

TEST(ConsoleApiTextTest, QueryAndPercentDecoding) {
  EXPECT_EQ(QueryValue("a=1&name=x%20y+z&b", "name"), "x y z");
  EXPECT_EQ(QueryValue("a=1", "name"), "");
  EXPECT_EQ(QueryValue("name=%zz", "name"), "");
  std::string out;
  EXPECT_FALSE(PercentDecode("%4", out, false));
  EXPECT_FALSE(PercentDecode("abc%", out, false));
  EXPECT_TRUE(PercentDecode("%2e%2E/a+b", out, false));
  EXPECT_EQ(out, "../a+b");
  // Latin-1 from a user's line must not break the JSON text.
  EXPECT_EQ(JsonText(json{{"x", std::string("caf\xe9")}}), "{\"x\":\"caf\xef\xbf\xbd\"}");
}

TEST(ConsoleLogFilesTest, ListsTodaysLogsAndReadsOnlyThose) {
  qx::testing::TempDir dir;
  const SysTime now = std::chrono::system_clock::now();
  ManualClock clock(now);
  const std::string today = DateText(now);
  qx::testing::WriteFile(dir / ("log/error-" + today + ".log"), "l1 K1ABC\r\nl2\r\nl3 k1abc\r\n");
  qx::testing::WriteFile(dir / ("badspots/badspots-" + today + ".log"), "bad one\r\n");
  qx::testing::WriteFile(dir / "log/secret.txt", "not for the console\r\n");
  ConsoleLogFiles logs(dir.path(), clock);
  const auto names = logs.List();
  ASSERT_GE(names.size(), 2u);
  EXPECT_EQ(names[0], "log/error-" + today + ".log");
  EXPECT_NE(std::find(names.begin(), names.end(), "badspots/badspots-" + today + ".log"),
            names.end());
  EXPECT_THAT(*logs.Tail(names[0], 2), ElementsAre("l2", "l3 k1abc"));
  EXPECT_THAT(*logs.Search(names[0], "K1ABC", 10), ElementsAre("l3 k1abc", "l1 K1ABC"));
  EXPECT_THAT(*logs.Search(names[0], "K1ABC", 1), ElementsAre("l3 k1abc"));
  EXPECT_FALSE(logs.Tail("log/secret.txt", 10));
  EXPECT_FALSE(logs.Tail("log/../log/secret.txt", 10));
  EXPECT_FALSE(logs.Search("/etc/passwd", "root", 10));

  // Earlier days' files follow today's, newest first; other files stay out of reach.
  const auto age = [&](const std::string& name, int days) {
    qx::testing::WriteFile(dir / name, "old " + name + "\r\n");
    std::filesystem::last_write_time(
        dir / name, std::filesystem::file_time_type::clock::now() - std::chrono::hours(24 * days));
  };
  age("log/error-01-Jan-2020.log", 10);
  age("badnodes/badnodes-02-Jan-2020.log", 9);
  const auto all = logs.List();
  ASSERT_GE(all.size(), 4u);
  EXPECT_EQ(all[0], names[0]);
  EXPECT_THAT(std::vector<std::string>(all.end() - 2, all.end()),
              ElementsAre("badnodes/badnodes-02-Jan-2020.log", "log/error-01-Jan-2020.log"));
  EXPECT_EQ(std::find(all.begin(), all.end(), "log/secret.txt"), all.end());
  EXPECT_THAT(*logs.Tail("log/error-01-Jan-2020.log", 5),
              ElementsAre("old log/error-01-Jan-2020.log"));

  // Only the end of a big file is read for the tail, starting at a whole line.
  std::string big;
  for (int i = 0; i < 60000; ++i) big += "line number " + std::to_string(i) + "\r\n";
  qx::testing::WriteFile(dir / ("badinfo/info-" + today + ".log"), big);
  const auto tail = logs.Tail("badinfo/info-" + today + ".log", 100000);
  ASSERT_TRUE(tail);
  EXPECT_LT(tail->size(), 60000u);
  EXPECT_EQ(tail->back(), "line number 59999");
  EXPECT_THAT(tail->front(), ::testing::StartsWith("line number "));
}

TEST(ConsoleMetricsTest, PrometheusText) {
  ConsoleMetrics m;
  m.users = 12;
  m.nodes = 3;
  m.spots_in = {{"node", 100}, {"user", 5}};
  m.refusals = {{"bad \"call\"", 2}};
  m.spots_filtered = {{"node", 9}};
  m.user_queue_high_water = {{"K1ABC", 40}};
  m.delay_buckets = {{0.001, 3}, {0.01, 7}};
  m.delay_count = 8;
  m.delay_sum_seconds = 0.5;
  m.frontend = {{"open_connections", 5}, {"refused_rate_total", 2}};
  m.feeds = {{"RBN \"cw\"", "RBN", "connected", 600, 40, {{"busted", 3}, {"verified", 30}}},
             {"Own", "SKIMMER", "waiting", 0, 0, {}}};
  const std::string text = FormatMetrics(m);
  for (const char* expected : {
           "qx_feed_up{feed=\"RBN \\\"cw\\\"\",type=\"RBN\"} 1\n",
           "qx_feed_up{feed=\"Own\",type=\"SKIMMER\"} 0\n",
           "qx_feed_events_total{feed=\"RBN \\\"cw\\\"\",event=\"busted\"} 3\n",
           "# TYPE qx_users gauge\nqx_users 12\n",
           "qx_spots_in_total{source=\"node\"} 100\n",
           "# TYPE qx_spots_filtered_total counter\n",
           "qx_spots_filtered_total{source=\"node\"} 9\n",
           "qx_refusals_total{reason=\"bad \\\"call\\\"\"} 2\n",
           "qx_user_output_queue_high_water{call=\"K1ABC\"} 40\n",
           "qx_spot_delivery_delay_seconds_bucket{le=\"0.01\"} 7\n",
           "qx_spot_delivery_delay_seconds_bucket{le=\"+Inf\"} 8\n",
           "qx_spot_delivery_delay_seconds_count 8\n",
           // The front-end's numbers by their own names: "_total" counts, the rest are levels.
           "# TYPE qx_frontend_open_connections gauge\nqx_frontend_open_connections 5\n",
           "# TYPE qx_frontend_refused_rate_total counter\nqx_frontend_refused_rate_total 2\n",
       }) {
    EXPECT_THAT(text, HasSubstr(expected));
  }
  // Every line is a comment or "name{labels} value".
  for (std::string_view line : Split(text, '\n')) {
    if (line.empty() || line.starts_with("#")) continue;
    EXPECT_TRUE(line.starts_with("qx_")) << line;
    EXPECT_NE(line.rfind(' '), std::string_view::npos) << line;
  }
}

// The dashboard shipped for sysops names metrics that exist: the node's and the console's as
// this code prints them, the front-end's as the front-end reports them.
TEST(ConsoleMetricsTest, DashboardNamesOnlyMetricsThatExist) {
  const std::string dashboard =
      qx::testing::ReadFile(std::string(QX_SOURCE_DIR) + "/docs/grafana-dashboard.json");
  const std::string frontend =
      qx::testing::ReadFile(std::string(QX_SOURCE_DIR) + "/frontend/frontend_node_link.cpp");
  const std::string ours = FormatMetrics(ConsoleMetrics{}) + FormatConnectionMetrics({});
  const std::regex name("qx_[a-z0-9_]+");
  int checked = 0;
  for (auto it = std::sregex_iterator(dashboard.begin(), dashboard.end(), name);
       it != std::sregex_iterator(); ++it, ++checked) {
    std::string metric = it->str();
    if (metric.ends_with("_bucket")) metric.resize(metric.size() - 7);
    if (metric.starts_with("qx_frontend_")) {
      EXPECT_THAT(frontend, HasSubstr("\"" + metric.substr(12) + "\"")) << metric;
    } else {
      EXPECT_THAT(ours, HasSubstr("# TYPE " + metric + " ")) << metric;
    }
  }
  EXPECT_GT(checked, 20);
}

}  // namespace
}  // namespace qx
