// The web console on a fake node, for trying the pages and for the browser test's
// console-only run.  Lists and settings are kept in files under --home as the node keeps
// them.  Lines on standard input drive it:
//   user <stream> <call> <name>   a user appears in the connections list
//   spot <text>                   a line in the spot list ("refused ..." lines come in red);
//                                 "DX de <spotter>: <kHz> <dx> <comment>" also makes a row of
//                                 the Spots table (a refused one: spotter refused)
//   input <stream> <text>         a line a user typed
//   line <text>                   a console line
//   quit
#include <cmath>
#include <cstdio>
#include <iostream>
#include <sstream>
#include <string>

#include <boost/asio.hpp>

#include "console/console_server.h"
#include "tests/console/fake_console_model.h"

namespace {

namespace asio = boost::asio;

class DemoModel : public qx::testing::FakeConsoleModel {
 public:
  DemoModel(std::filesystem::path home, asio::io_context& io)
      : FakeConsoleModel(std::move(home)), io_(io) {}
  void Shutdown() override {
    std::puts("Shut down asked for");
    std::fflush(stdout);
    io_.stop();
  }

 private:
  asio::io_context& io_;
};

void ReadCommands(asio::posix::stream_descriptor& in, asio::streambuf& buf, DemoModel& model,
                  asio::io_context& io) {
  asio::async_read_until(in, buf, '\n', [&](boost::system::error_code ec, size_t n) {
    if (ec) return;
    std::string line(asio::buffers_begin(buf.data()), asio::buffers_begin(buf.data()) + long(n));
    buf.consume(n);
    while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) line.pop_back();
    const std::string word = line.substr(0, line.find(' '));
    const std::string rest = line.size() > word.size() ? line.substr(word.size() + 1) : "";
    if (word == "user") {
      std::istringstream fields(rest);
      qx::ConsoleStream s;
      fields >> s.number >> s.call >> s.name;
      s.kind = "user";
      s.state = 1;
      s.peer = "127.0.0.1:50" + std::to_string(s.number);
      s.since = std::chrono::system_clock::now();
      s.colour = "white";
      model.streams.push_back(s);
      model.monitor().Write(qx::MonitorChannel::kRaw, s.call + " logged in", "green", s.number);
      model.monitor().Write(qx::MonitorChannel::kConnections, std::to_string(s.number));
    } else if (word == "spot") {
      const bool refused = rest.starts_with("refused");
      model.monitor().Write(qx::MonitorChannel::kSpots, rest, refused ? "red" : "");
      std::istringstream fields(rest.substr(
          rest.find("DX de") == std::string::npos ? rest.size() : rest.find("DX de") + 5));
      qx::ConsoleSpot row;
      if (fields >> row.spotter >> row.frequency_khz >> row.dx) {
        if (row.spotter.ends_with(':')) row.spotter.pop_back();
        std::getline(fields, row.comment);
        row.time = std::chrono::system_clock::now();
        row.band = row.frequency_khz >= 14000 && row.frequency_khz <= 14350 ? "20m" : "";
        row.origin = "XX0QX-2";
        row.source = "DX  Cluster";
        row.refused = refused;
        if (refused) {
          row.reason = "spotter refused";
          row.rule = "spotter refused: " + row.spotter + " (SpotterNok list)";
          model.refusals.push_back(row);
        } else {
          model.spots.push_back(row);
        }
      }
    } else if (word == "input") {
      std::istringstream fields(rest);
      int stream = 0;
      fields >> stream;
      std::string text;
      std::getline(fields, text);
      model.monitor().Input(stream, text.empty() ? text : text.substr(1));
    } else if (word == "line") {
      model.monitor().Console(rest);
    } else if (word == "quit") {
      io.stop();
      return;
    }
    ReadCommands(in, buf, model, io);
  });
}

}  // namespace

int main(int argc, char** argv) {
  std::filesystem::path home = std::filesystem::current_path();
  int port = 7380;
  for (int i = 1; i + 1 < argc; i += 2) {
    const std::string arg = argv[i];
    if (arg == "--home") home = argv[i + 1];
    if (arg == "--port") port = std::stoi(argv[i + 1]);
  }
  asio::io_context io;
  DemoModel model(home, io);
  model.monitor().KeepHistory(5000, std::chrono::hours(2));
  model.log_files["log/error-demo.log"] = {"22-Nov-2026 0412:05Z StartUp  StartUp sub running",
                                           "22-Nov-2026 0413:10Z DataArrival  where = 3"};
  for (int i = 0; i < 180; ++i) {
    model.stats.spots_per_minute_history.push_back(int(40 + 30 * std::sin(i / 15.0)));
  }
  model.stats.spots_per_minute = model.stats.spots_per_minute_history.back();
  model.stats.highest_spots_per_minute = 70;
  model.stats.refusals = {{"bad call", 3}, {"rate", 1}};
  qx::ConsoleMail bulletin;
  bulletin.number = 17;
  bulletin.from = "K1ABC";
  bulletin.to = "ALL";
  bulletin.subject = "Field day";
  bulletin.time = std::chrono::system_clock::now();
  bulletin.is_private = false;
  bulletin.origin = "GB7QX";
  bulletin.forwards = {{"DB0BBB", "acknowledged", 0}, {"W1CCC", "given up", 5}};
  bulletin.text = {"Saturday from 1200Z", "73"};
  model.mail.push_back(bulletin);

  qx::ConsoleServerOptions options;
  options.port = port;
  options.password_file = home / "data" / "cfg" / "console.pw";
  qx::ConsoleServer server(io, model, options);
  const auto started = server.Start();
  if (!started.ok) {
    std::cerr << "console_demo: " << started.error << "\n";
    return 1;
  }
  if (!started.new_password.empty()) {
    std::cout << qx::ConsoleServer::PasswordLine(started.new_password) << "\n";
  }
  std::cout << "Console port: " << server.port() << std::endl;

  asio::posix::stream_descriptor in(io, ::dup(0));
  asio::streambuf buf;
  ReadCommands(in, buf, model, io);
  asio::signal_set signals(io, SIGINT, SIGTERM);
  signals.async_wait([&](boost::system::error_code, int) { io.stop(); });
  io.run();
  server.Stop();
  return 0;
}
