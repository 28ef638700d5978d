// The console server through real sockets: a ConsoleServer on a loopback port with a fake
// node, its io_context on a thread of the test, and plain clients that speak HTTP and
// WebSocket to it.
#include <sys/socket.h>
#include <sys/stat.h>

#include <chrono>
#include <future>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include "console/console_server.h"
#include "tests/console/console_client.h"
#include "tests/console/fake_console_model.h"
#include "tests/testlib/test_util.h"

namespace qx {
namespace {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
using nlohmann::json;
using ::testing::HasSubstr;
using namespace std::chrono_literals;

using Reply = qx::testing::ConsoleReply;

using qx::testing::ConsoleClient;
using qx::testing::WsClient;
using Login = qx::testing::ConsoleLogin;

class ConsoleServerTest : public ::testing::Test {
 protected:
  ConsoleServerTest() {
    options_.address = "127.0.0.1";
    options_.port = 0;
    options_.password_file = dir_ / "data/cfg/console.pw";
    options_.kdf_iterations = 1000;
    options_.failed_login_delay = 300ms;
    options_.header_timeout = 700ms;
    options_.body_timeout = 700ms;
    options_.idle_timeout = 1000ms;
    options_.ws_queue_limit = 16;
  }

  void SetUp() override { StartServer(); }

  void StartServer() {
    server_ = std::make_unique<ConsoleServer>(io_, model_, options_);
    const auto r = server_->Start();
    ASSERT_TRUE(r.ok) << r.error;
    password_ = r.new_password;
    port_ = server_->port();
    guard_.emplace(io_.get_executor());
    thread_ = std::thread([this] { io_.run(); });
  }

  void TearDown() override {
    if (!thread_.joinable()) return;
    OnIo([this] { server_->Stop(); });
    guard_.reset();
    // Everything was closed, so the loop runs dry; a loop that does not is a fault here.
    auto done = std::async(std::launch::async, [this] { thread_.join(); });
    if (done.wait_for(10s) != std::future_status::ready) {
      ADD_FAILURE() << "the io_context did not run dry after Stop";
      io_.stop();
    }
    done.wait();
  }

  // Runs f on the server's thread (where the model lives) and waits for it.
  template <typename F>
  auto OnIo(F f) -> decltype(f()) {
    std::packaged_task<decltype(f())()> task(std::move(f));
    auto result = task.get_future();
    asio::post(io_, [&task] { task(); });
    return result.get();
  }

  Reply Fetch(http::verb method, const std::string& target, const std::string& body = "",
              const std::vector<std::pair<std::string, std::string>>& headers = {}) {
    return ConsoleClient(port_).Fetch(method, target, body, headers);
  }
  Reply Get(const std::string& target, const Login* login = nullptr) {
    return ConsoleClient(port_).Get(target, login);
  }
  Reply Post(const std::string& target, const json& body, const Login* login,
             bool with_csrf = true) {
    return ConsoleClient(port_).Post(target, body, login, with_csrf);
  }
  Login LogIn() { return ConsoleClient(port_).LogIn(password_); }

  // Sends raw bytes and returns what comes back until the server closes or limit passes.
  std::string Raw(std::string_view bytes, std::chrono::milliseconds limit = 3s) {
    qx::testing::LineClient c;
    EXPECT_TRUE(c.Connect(port_));
    c.Send(bytes);
    c.WaitClosed(limit);
    return c.received();
  }

  // A number from /metrics, or -1 when the line is missing.
  double Metric(const std::string& line_start) {
    const std::string body = Get("/metrics").body();
    const size_t at = body.find("\n" + line_start + " ");
    if (at == std::string::npos) return -1;
    return std::stod(body.substr(at + line_start.size() + 2));
  }

  // A wrong log-in from source (empty: the system's choice); its status and how long the
  // answer took.
  std::pair<unsigned, std::chrono::milliseconds> WrongLogin(const std::string& source,
                                                            const std::string& forwarded = "") {
    std::vector<std::pair<std::string, std::string>> headers{{"Content-Type", "application/json"}};
    if (!forwarded.empty()) headers.emplace_back("X-Forwarded-For", forwarded);
    const auto start = std::chrono::steady_clock::now();
    const Reply r =
        ConsoleClient(port_, source)
            .Fetch(http::verb::post, "/api/login", json{{"password", "not it"}}.dump(), headers);
    EXPECT_TRUE(r[http::field::set_cookie].empty());
    return {r.result_int(), std::chrono::duration_cast<std::chrono::milliseconds>(
                                std::chrono::steady_clock::now() - start)};
  }

  qx::testing::TempDir dir_;
  qx::testing::FakeConsoleModel model_;
  ConsoleServerOptions options_;
  asio::io_context io_;
  std::optional<asio::executor_work_guard<asio::io_context::executor_type>> guard_;
  std::unique_ptr<ConsoleServer> server_;
  std::thread thread_;
  std::string password_;
  int port_ = 0;
};

TEST_F(ConsoleServerTest, FirstStartMakesAPrivatePasswordFile) {
  EXPECT_EQ(password_.size(), 16u);
  EXPECT_EQ(ConsoleServer::PasswordLine(password_), "Console password: " + password_);
  struct stat st {};
  ASSERT_EQ(::stat(options_.password_file.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);
  EXPECT_THAT(qx::testing::ReadFile(options_.password_file), ::testing::Not(HasSubstr(password_)));

  // A second server on the same file keeps the password and announces none.
  asio::io_context io2;
  qx::testing::FakeConsoleModel model2;
  ConsoleServer second(io2, model2, options_);
  const auto r = second.Start();
  ASSERT_TRUE(r.ok) << r.error;
  EXPECT_TRUE(r.new_password.empty());
  second.Stop();
}

TEST_F(ConsoleServerTest, EverythingButLogInNeedsASession) {
  EXPECT_EQ(Get("/api/streams").result_int(), 401u);
  EXPECT_EQ(Get("/api/settings").result_int(), 401u);
  EXPECT_EQ(Post("/api/shutdown", json{{"confirm", true}}, nullptr).result_int(), 401u);
  const Reply page = Get("/");
  EXPECT_EQ(page.result_int(), 303u);
  EXPECT_EQ(page[http::field::location], "/login");
  EXPECT_EQ(Get("/app.js").result_int(), 303u);
  WsClient ws;
  EXPECT_EQ(ws.Connect(port_, ""), 401);
  WsClient forged;
  EXPECT_EQ(forged.Connect(port_, "qxsid=0123456789abcdef0123456789abcdef"), 401);
  EXPECT_FALSE(OnIo([this] { return model_.shutdown_called; }));

  // The log-in page and what it needs are open; so are the metrics.
  const Reply login = Get("/login");
  EXPECT_EQ(login.result_int(), 200u);
  EXPECT_THAT(login.body(), HasSubstr("password"));
  EXPECT_THAT(std::string(login["Content-Security-Policy"]), HasSubstr("default-src 'self'"));
  // Requests one after another on one kept-alive connection, HEAD without a body.
  const std::string two =
      Raw("GET /login HTTP/1.1\r\nHost: x\r\n\r\n"
          "HEAD /style.css HTTP/1.1\r\nHost: x\r\nConnection: close\r\n\r\n");
  EXPECT_THAT(two, ::testing::StartsWith("HTTP/1.1 200"));
  const size_t second = two.find("HTTP/1.1 200", 5);
  ASSERT_NE(second, std::string::npos);
  EXPECT_THAT(two.substr(second), HasSubstr("text/css"));
  EXPECT_THAT(two.substr(second), ::testing::EndsWith("\r\n\r\n"));
  EXPECT_EQ(Get("/login.js").result_int(), 200u);
  EXPECT_EQ(Get("/style.css").result_int(), 200u);
  OnIo([this] { model_.metrics.users = 4; });
  const Reply metrics = Get("/metrics");
  EXPECT_EQ(metrics.result_int(), 200u);
  EXPECT_THAT(metrics.body(), HasSubstr("qx_users 4\n"));
}

TEST_F(ConsoleServerTest, HealthFollowsTheFrontEndLinkWithoutASession) {
  const Reply down = Get("/health");
  EXPECT_EQ(down.result_int(), 503u);
  EXPECT_THAT(down.body(), HasSubstr("link down"));
  EXPECT_EQ(Metric("qx_link_up"), 0);
  OnIo([this] { model_.metrics.link_up = true; });
  const Reply up = Get("/health");
  EXPECT_EQ(up.result_int(), 200u);
  EXPECT_EQ(up.body(), "ok\n");
  EXPECT_EQ(Metric("qx_link_up"), 1);
  EXPECT_THAT(Raw("HEAD /health HTTP/1.1\r\nHost: x\r\nConnection: close\r\n\r\n"),
              ::testing::StartsWith("HTTP/1.1 200"));
  // A health check never changes anything, so it is not a way in for other methods.
  EXPECT_EQ(Fetch(http::verb::post, "/health").result_int(), 401u);
}

TEST_F(ConsoleServerTest, RightPasswordGivesASessionCookieAndChangesNeedTheCsrfToken) {
  const Reply r = Post("/api/login", json{{"password", password_}}, nullptr);
  ASSERT_EQ(r.result_int(), 200u);
  const std::string cookie(r[http::field::set_cookie]);
  EXPECT_THAT(cookie,
              ::testing::MatchesRegex("qxsid=[0-9a-f]{32}; Path=/; HttpOnly; SameSite=Strict"));
  Login login{cookie.substr(0, cookie.find(';')), json::parse(r.body())["csrf"]};
  EXPECT_EQ(login.csrf.size(), 32u);

  EXPECT_EQ(Get("/api/streams", &login).result_int(), 200u);
  const Reply page = Get("/", &login);
  EXPECT_EQ(page.result_int(), 200u);
  EXPECT_THAT(page.body(), HasSubstr("/app.js"));
  EXPECT_EQ(json::parse(Get("/api/session", &login).body())["csrf"], login.csrf);

  // No token, or a wrong one: refused, and nothing changed.
  EXPECT_EQ(Post("/api/lists/LockOuts/add", json{{"item", "K1ABC"}}, &login, false).result_int(),
            403u);
  Login wrong = login;
  wrong.csrf = std::string(32, '0');
  EXPECT_EQ(Post("/api/lists/LockOuts/add", json{{"item", "K1ABC"}}, &wrong).result_int(), 403u);
  EXPECT_TRUE(OnIo([this] { return model_.ListItems("LockOuts")->empty(); }));

  EXPECT_EQ(Post("/api/lists/LockOuts/add", json{{"item", "K1ABC"}}, &login).result_int(), 200u);
  EXPECT_EQ(OnIo([this] { return *model_.ListItems("LockOuts"); }),
            std::vector<std::string>{"K1ABC"});
  EXPECT_EQ(
      Post("/api/settings", json{{"changes", {{"Connection Retry", "30"}}}}, &login).result_int(),
      200u);
  EXPECT_EQ(OnIo([this] { return model_.Value("Connection Retry"); }), "30");

  // A restart is asked for only with the confirmation.
  EXPECT_EQ(Post("/api/restart", json::object(), &login).result_int(), 400u);
  EXPECT_EQ(Post("/api/restart", json{{"confirm", true}}, &login).result_int(), 200u);
  EXPECT_EQ(OnIo([this] { return model_.restarts; }), 1);

  // Shut-down answers first and then ends the node.
  EXPECT_EQ(Post("/api/shutdown", json{{"confirm", true}}, &login).result_int(), 200u);
  EXPECT_TRUE(
      qx::testing::WaitFor([&] { return OnIo([this] { return model_.shutdown_called; }); }));

  // After logging out the cookie is worth nothing, and the live lines of that log-in stop.
  WsClient ws;
  ASSERT_EQ(ws.Connect(port_, login.cookie), 101);
  ASSERT_TRUE(ws.NextOfType("streams"));
  EXPECT_EQ(Post("/api/logout", json::object(), &login).result_int(), 200u);
  EXPECT_EQ(Get("/api/streams", &login).result_int(), 401u);
  OnIo([this] { model_.monitor_obj.Console("after log-out"); });
  EXPECT_FALSE(ws.Next(3s));
}

TEST_F(ConsoleServerTest, PasswordCanBeChanged) {
  Login login = LogIn();
  EXPECT_EQ(
      Post("/api/password", json{{"old", "nope"}, {"new", "new-password-1"}}, &login).result_int(),
      403u);
  EXPECT_EQ(Post("/api/password", json{{"old", password_}, {"new", "short"}}, &login).result_int(),
            400u);
  EXPECT_EQ(Post("/api/password", json{{"old", password_}, {"new", "new-password-1"}}, &login)
                .result_int(),
            200u);
  EXPECT_EQ(Post("/api/login", json{{"password", password_}}, nullptr).result_int(), 401u);
  password_ = "new-password-1";
  LogIn();
  const auto stored = LoadPasswordFile(options_.password_file);
  ASSERT_TRUE(stored);
  EXPECT_TRUE(VerifyPassword(*stored, "new-password-1"));
}

TEST_F(ConsoleServerTest, BadOversizedAndSlowRequestsAreRefused) {
  const Login login = LogIn();
  for (const char* target :
       {"/../../etc/passwd", "/%2e%2e/%2e%2e/etc/passwd", "/a/..%2F..%2Fb",
        "/api/lists/..%2f..%2fx", "/x%00y", "/a\\..\\b", "/%zz", "//etc/passwd"}) {
    EXPECT_EQ(Get(target, &login).result_int(), 400u) << target;
  }
  EXPECT_EQ(Get("/no/such/page", &login).result_int(), 404u);

  // Below the HTTP client library: requests it would not even send.
  const std::string big(options_.body_limit + 1, 'x');
  const std::pair<std::string, std::string> raw_cases[] = {
      {"GET http://elsewhere/ HTTP/1.1\r\nHost: x\r\nConnection: close\r\n\r\n", "400"},
      {"GET ../index.html HTTP/1.1\r\nHost: x\r\nConnection: close\r\n\r\n", "400"},
      {"this is not http\r\n\r\n", "400"},
      {"DELETE /api/streams HTTP/1.1\r\nHost: x\r\nConnection: close\r\nCookie: " + login.cookie +
           "\r\n\r\n",
       "405"},
      {"POST /api/settings HTTP/1.1\r\nHost: x\r\nContent-Type: application/json\r\n"
       "Content-Length: " +
           std::to_string(big.size()) + "\r\n\r\n" + big,
       "413"},
      // The size is refused from the header alone, before the body is sent.
      {"POST /api/login HTTP/1.1\r\nHost: x\r\nContent-Length: 99999999\r\n\r\n", "413"},
      {"GET / HTTP/1.1\r\nHost: x\r\nX-Junk: " + std::string(10000, 'a') + "\r\n\r\n", "431"},
  };
  for (const auto& [bytes, status] : raw_cases) {
    EXPECT_THAT(Raw(bytes), ::testing::StartsWith("HTTP/1.1 " + status)) << bytes.substr(0, 40);
  }

  // A client that starts a request and never finishes it gets 408 and is closed.
  qx::testing::LineClient slow;
  ASSERT_TRUE(slow.Connect(port_));
  const auto start = std::chrono::steady_clock::now();
  slow.Send("GET /api/streams HTTP/1.1\r\nHost: x\r\n");
  EXPECT_TRUE(slow.WaitClosed(5s));
  EXPECT_THAT(slow.received(), ::testing::StartsWith("HTTP/1.1 408"));
  EXPECT_GE(std::chrono::steady_clock::now() - start, 600ms);

  // Same for a body that stops coming.
  qx::testing::LineClient slow_body;
  ASSERT_TRUE(slow_body.Connect(port_));
  slow_body.Send(
      "POST /api/login HTTP/1.1\r\nHost: x\r\nContent-Type: application/json\r\n"
      "Content-Length: 100\r\n\r\n{\"pass");
  EXPECT_TRUE(slow_body.WaitClosed(5s));
  EXPECT_THAT(slow_body.received(), ::testing::StartsWith("HTTP/1.1 408"));

  // Meanwhile a well-behaved client is served at once.
  EXPECT_EQ(Get("/api/streams", &login).result_int(), 200u);
}

TEST_F(ConsoleServerTest, MonitorLinesAndConnectionChangesArriveOnTheWebSocket) {
  const Login login = LogIn();
  WsClient ws;
  ASSERT_EQ(ws.Connect(port_, login.cookie), 101);
  const auto hello = ws.Next();
  ASSERT_TRUE(hello);
  EXPECT_EQ((*hello)["t"], "hello");
  EXPECT_EQ((*hello)["call"], "XX0QX-2");
  ASSERT_TRUE(ws.NextOfType("streams"));

  OnIo([this] {
    model_.monitor_obj.Write(MonitorChannel::kRaw, "K1ABC de XX0QX-2 >", "blue", 7);
    model_.monitor_obj.Write(MonitorChannel::kSpots, std::string("DX de K1ABC: 14025.0 caf\xe9"),
                             "red");
  });
  const auto raw = ws.NextOfType("line");
  ASSERT_TRUE(raw);
  EXPECT_EQ((*raw)["ch"], "raw");
  EXPECT_EQ((*raw)["s"], 7);
  EXPECT_EQ((*raw)["c"], "blue");
  EXPECT_EQ((*raw)["x"], "K1ABC de XX0QX-2 >");
  const auto spot = ws.NextOfType("line");
  ASSERT_TRUE(spot);
  EXPECT_EQ((*spot)["ch"], "spots");
  EXPECT_THAT((*spot)["x"].get<std::string>(), HasSubstr("DX de K1ABC: 14025.0 caf"));

  // A burst of connection changes becomes a snapshot of the streams.
  OnIo([this] {
    model_.streams.push_back(
        {3, "G4XYZ", "user", 1, "127.0.0.1:4000", 0, SysTime{}, "Ann", "", {}});
    for (int i = 0; i < 50; ++i) model_.monitor_obj.Write(MonitorChannel::kConnections, "3");
  });
  const auto snapshot = ws.NextOfType("streams");
  ASSERT_TRUE(snapshot);
  ASSERT_EQ((*snapshot)["streams"].size(), 1u);
  EXPECT_EQ((*snapshot)["streams"][0]["call"], "G4XYZ");
  EXPECT_FALSE(ws.NextOfType("streams", 600ms)) << "one snapshot per burst";

  // A page from another site may not open the socket with the sysop's cookie.
  WsClient foreign;
  EXPECT_EQ(foreign.Connect(port_, login.cookie, "http://evil.example"), 403);
}

TEST_F(ConsoleServerTest, AReaderThatStopsReadingLosesLinesNotTheNodesTime) {
  const Login login = LogIn();
  WsClient stuck;
  ASSERT_EQ(stuck.Connect(port_, login.cookie, "", 4096), 101);
  WsClient live;
  ASSERT_EQ(live.Connect(port_, login.cookie), 101);
  ASSERT_TRUE(live.NextOfType("streams"));

  // The stuck client reads nothing while the node writes far more than any buffer holds.
  constexpr int kLines = 20000;
  const std::string filler(1000, 'x');
  const auto start = std::chrono::steady_clock::now();
  for (int batch = 0; batch < kLines / 1000; ++batch) {
    OnIo([&, batch] {
      for (int i = 0; i < 1000; ++i) {
        model_.monitor_obj.Write(MonitorChannel::kRaw,
                                 "line " + std::to_string(batch * 1000 + i) + " " + filler);
      }
    });
  }
  EXPECT_LT(std::chrono::steady_clock::now() - start, 20s);
  // The node's thread is free: a client that reads gets new lines again as soon as its own
  // backlog has drained (lines that came while it was full were counted, not kept).
  bool saw_still_here = false;
  int attempts = 0;
  for (; attempts < 100 && !saw_still_here; ++attempts) {
    OnIo([this] { model_.monitor_obj.Write(MonitorChannel::kConsole, "still here"); });
    while (auto m = live.Next(200ms)) {
      if ((*m)["t"] == "line" && (*m)["x"] == "still here") {
        saw_still_here = true;
        break;
      }
    }
  }
  EXPECT_TRUE(saw_still_here);

  // Now the stuck client reads: every line is either delivered or counted in a marker.
  uint64_t delivered = 0, dropped = 0;
  std::string marker_text;
  int last_number = -1;
  bool in_order = true;
  while (true) {
    const auto m = stuck.Next(2s);
    if (!m) break;
    if ((*m)["t"] == "dropped") {
      dropped += (*m)["n"].get<uint64_t>();
      marker_text = (*m)["x"];
    } else if ((*m)["t"] == "line" && (*m)["ch"] != "raw") {
      ++delivered;
    } else if ((*m)["t"] == "line") {
      ++delivered;
      const int n = std::stoi((*m)["x"].get<std::string>().substr(5));
      in_order = in_order && n > last_number;
      last_number = n;
    }
  }
  EXPECT_GT(dropped, 0u);
  EXPECT_EQ(delivered + dropped, uint64_t(kLines + attempts));
  EXPECT_TRUE(in_order);
  EXPECT_THAT(marker_text, ::testing::MatchesRegex("\\.\\.\\. [0-9]+ lines dropped \\.\\.\\."));
}

TEST_F(ConsoleServerTest, SlowHeadersAndIdleKeptAliveConnectionsAreClosedInTime) {
  // A kept-alive connection whose next header comes a byte at a time gets 408 once the header
  // time has passed since its first byte, however long each byte keeps it alive.
  qx::testing::LineClient dribble;
  ASSERT_TRUE(dribble.Connect(port_));
  dribble.Send("HEAD /login HTTP/1.1\r\nHost: x\r\n\r\n");
  ASSERT_TRUE(dribble.ReadUntil("\r\n\r\n", 3s));
  dribble.ClearReceived();
  const std::string header =
      "GET /api/streams HTTP/1.1\r\nHost: x\r\nX-Pad: " + std::string(200, 'a') + "\r\n\r\n";
  const auto start = std::chrono::steady_clock::now();
  bool closed = false;
  for (char c : header) {
    if (!dribble.Send(std::string_view(&c, 1))) break;
    if ((closed = dribble.WaitClosed(50ms))) break;
  }
  EXPECT_TRUE(closed);
  EXPECT_LT(std::chrono::steady_clock::now() - start, 2500ms);
  EXPECT_THAT(dribble.received(), ::testing::StartsWith("HTTP/1.1 408"));

  // A kept-alive connection that sends nothing more is closed after the idle time, quietly.
  qx::testing::LineClient idle;
  ASSERT_TRUE(idle.Connect(port_));
  idle.Send("HEAD /login HTTP/1.1\r\nHost: x\r\n\r\n");
  ASSERT_TRUE(idle.ReadUntil("\r\n\r\n", 3s));
  idle.ClearReceived();
  const auto idle_start = std::chrono::steady_clock::now();
  EXPECT_TRUE(idle.WaitClosed(5s));
  EXPECT_GE(std::chrono::steady_clock::now() - idle_start, 900ms);
  EXPECT_EQ(idle.received(), "");

  EXPECT_EQ(Metric("qx_console_connections_closed_total{reason=\"header_timeout\"}"), 1);
  EXPECT_EQ(Metric("qx_console_connections_closed_total{reason=\"idle_timeout\"}"), 1);
}

TEST_F(ConsoleServerTest, WrongPasswordsAreSlowedPerAddressLoggedAndLockNobodyElseOut) {
  // 127.0.0.2 guesses; its header claims another address, which counts for nothing here.  The
  // delay grows with failures in a row.
  const auto [first, first_took] = WrongLogin("127.0.0.2", "10.9.9.9");
  EXPECT_EQ(first, 401u);
  EXPECT_GE(first_took, 300ms);
  EXPECT_GE(WrongLogin("127.0.0.2", "10.9.9.9").second, 600ms);
  auto third = std::async(std::launch::async, [&] { return WrongLogin("127.0.0.2"); });
  std::this_thread::sleep_for(150ms);
  // One log-in at a time per address: its guesses cannot run side by side.
  EXPECT_EQ(WrongLogin("127.0.0.2").first, 429u);

  // While it is slowed down the server keeps serving others: the sysop's own mistake from
  // elsewhere costs only the first delay, and the right password is taken at once.
  EXPECT_EQ(Get("/login").result_int(), 200u);
  const auto [status, took] = WrongLogin("127.0.0.1");
  EXPECT_EQ(status, 401u);
  EXPECT_LT(took, 600ms);
  const auto start = std::chrono::steady_clock::now();
  ConsoleClient(port_, "127.0.0.1").LogIn(password_);
  EXPECT_LT(std::chrono::steady_clock::now() - start, 300ms);
  EXPECT_EQ(third.wait_for(0s), std::future_status::timeout) << "served only after the delay";
  EXPECT_GE(third.get().second, 1200ms) << "the guesser's own delay keeps growing";

  const auto events = OnIo([this] { return model_.events; });
  EXPECT_THAT(events, ::testing::Contains(HasSubstr("wrong console password from 127.0.0.2:")));
  EXPECT_THAT(events, ::testing::Contains(HasSubstr("wrong console password from 127.0.0.1:")));
  EXPECT_THAT(events, ::testing::Not(::testing::Contains(HasSubstr("10.9.9.9"))));
  EXPECT_EQ(Metric("qx_console_logins_refused_total"), 1);

  // A log-in that is not JSON is not even tried (a cross-site form cannot send JSON).
  const Reply form = Fetch(http::verb::post, "/api/login", "password=" + password_,
                           {{"Content-Type", "application/x-www-form-urlencoded"}});
  EXPECT_EQ(form.result_int(), 415u);
}

// Behind an HTTPS reverse proxy the browser's page comes from the public site, while the Host
// the console sees is the proxy's; both the console's own pages and the public site's may
// open the live view, no other site may.
class PublicSiteTest : public ConsoleServerTest {
 protected:
  PublicSiteTest() { options_.public_site = "https://Cluster.Example.org/"; }
};

TEST_F(PublicSiteTest, LiveViewOpensFromTheConsoleOrItsPublicSiteOnly) {
  const Login login = LogIn();
  const std::string own = "http://127.0.0.1:" + std::to_string(port_);
  for (const auto& [origin, status] :
       std::vector<std::pair<std::string, int>>{{own, 101},
                                                {"https://cluster.example.org", 101},
                                                {"https://cluster.example.org:443", 101},
                                                {"http://cluster.example.org", 403},
                                                {"https://cluster.example.org.evil.net", 403},
                                                {"https://evil.example.net", 403},
                                                {"null", 403}}) {
    WsClient ws;
    EXPECT_EQ(ws.Connect(port_, login.cookie, origin), status) << origin;
  }
}

class TrustedProxyTest : public ConsoleServerTest {
 protected:
  TrustedProxyTest() { options_.trust_forwarded_for = true; }
};

TEST_F(TrustedProxyTest, ClientsBehindTheProxyAreCountedByTheirForwardedAddress) {
  // The proxy appends the client's address; what the client wrote before it is not believed.
  EXPECT_GE(WrongLogin("", "10.0.0.8, 10.0.0.9").second, 300ms);
  EXPECT_GE(WrongLogin("", "10.0.0.9").second, 600ms);
  EXPECT_LT(WrongLogin("", "10.0.0.8").second, 600ms);
  EXPECT_LT(WrongLogin("", "").second, 600ms);
  const auto events = OnIo([this] { return model_.events; });
  ASSERT_EQ(events.size(), 4u);
  EXPECT_THAT(events[0], HasSubstr("from 10.0.0.9 via 127.0.0.1:"));
  EXPECT_THAT(events[2], HasSubstr("from 10.0.0.8 via 127.0.0.1:"));
}

// Eight slots, two of them at most for live views.
class ConsoleSlotsTest : public ConsoleServerTest {
 protected:
  ConsoleSlotsTest() {
    options_.max_connections = 8;
    options_.max_live_views = 2;
    options_.header_timeout = 3s;
    options_.idle_timeout = 30s;
    options_.stalled_header_grace = 300ms;
  }

  // count connections that each sent `bytes`, read the answer if want_answer.
  std::vector<std::unique_ptr<qx::testing::LineClient>> Open(int count, std::string_view bytes,
                                                             bool want_answer) {
    std::vector<std::unique_ptr<qx::testing::LineClient>> clients;
    for (int i = 0; i < count; ++i) {
      clients.push_back(std::make_unique<qx::testing::LineClient>());
      EXPECT_TRUE(clients.back()->Connect(port_));
      clients.back()->Send(bytes);
      if (want_answer) {
        EXPECT_TRUE(clients.back()->ReadUntil("\r\n\r\n", 3s));
      }
    }
    return clients;
  }
};

TEST_F(ConsoleSlotsTest, IdleConnectionsMakeRoomOldestFirstAndLiveViewsHaveTheirOwnCap) {
  const Login login = LogIn();
  WsClient views[3];
  EXPECT_EQ(views[0].Connect(port_, login.cookie), 101);
  EXPECT_EQ(views[1].Connect(port_, login.cookie), 101);
  EXPECT_EQ(views[2].Connect(port_, login.cookie), 503);
  EXPECT_TRUE(views[0].NextOfType("streams"));

  // Idle kept-alive connections take the other slots.  Once fewer than a quarter would be
  // free, each newcomer closes the connection idle longest: the fifth and sixth here, and
  // then a request that would have been refused when every slot was held.
  auto idle = Open(6, "HEAD /login HTTP/1.1\r\nHost: x\r\n\r\n", true);
  EXPECT_EQ(Get("/login").result_int(), 200u);
  for (int i = 0; i < 3; ++i) EXPECT_TRUE(idle[i]->WaitClosed(2s)) << i;
  for (int i = 3; i < 6; ++i) EXPECT_FALSE(idle[i]->WaitClosed(100ms)) << i;
  for (int i = 0; i < 10; ++i) EXPECT_EQ(Get("/login").result_int(), 200u);

  // The live views were busy, not idle: they are still there.
  OnIo([this] { model_.monitor_obj.Console("still watching"); });
  const auto line = views[1].NextOfType("line");
  ASSERT_TRUE(line);
  EXPECT_EQ((*line)["x"], "still watching");
  EXPECT_GE(Metric("qx_console_connections_closed_total{reason=\"idle_evicted\"}"), 3);
  EXPECT_EQ(Metric("qx_console_connections_refused_total{reason=\"live_views\"}"), 1);
  EXPECT_EQ(Metric("qx_console_connections{kind=\"websocket\"}"), 2);
}

TEST_F(ConsoleSlotsTest, HeadersThatStallGiveWayOnlyWhenNoSlotIsLeft) {
  auto stalled = Open(8, "GET / HTTP/1.1\r\nHost: x\r\n", false);
  // Within the grace time they might be slow browsers: the newcomer is refused.
  EXPECT_EQ(Raw("HEAD /login HTTP/1.1\r\nHost: x\r\nConnection: close\r\n\r\n", 1s), "");
  std::this_thread::sleep_for(400ms);
  // Past it, the oldest stalled header gives up its slot, without an answer.
  EXPECT_EQ(Get("/login").result_int(), 200u);
  EXPECT_TRUE(stalled[0]->WaitClosed(1s));
  EXPECT_EQ(stalled[0]->received(), "");
  EXPECT_FALSE(stalled[7]->WaitClosed(100ms));
  EXPECT_EQ(Metric("qx_console_connections_refused_total{reason=\"full\"}"), 1);
  EXPECT_GE(Metric("qx_console_connections_closed_total{reason=\"stalled_header_evicted\"}"), 1);
}

}  // namespace
}  // namespace qx
