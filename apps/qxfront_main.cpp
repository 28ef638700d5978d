// qxfront: the connection front-end.  Owns every user and node TCP connection and relays each
// as a numbered stream over one local link to the node.
#include <sys/resource.h>

#include <unistd.h>
#include <boost/asio/io_context.hpp>
#include <boost/asio/signal_set.hpp>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <string>
#include <string_view>
#include <thread>

#include "core/file_util.h"
#include "core/link_secret.h"
#include "core/text_util.h"
#include "frontend/front_log.h"
#include "frontend/frontend_server.h"
#include "frontend/frontend_settings.h"

namespace {

constexpr std::string_view kUsage =
    "Usage: qxfront --home DIR [--output-limit BYTES] [--threads N] [TEST TIMES]\n"
    "       qxfront --version | --help\n"
    "\n"
    "Reads DIR/cluster.cfg (keys \"Winsock IP\", \"Winsock Port\", \"Frontend Ports\",\n"
    "\"Station Text\", \"Max Connections\", \"Max Connections Per Address\",\n"
    "\"Max Connects Per Minute\", \"Login Timeout\", \"WebSocket Port\",\n"
    "\"WebSocket Max Per Address\", \"Frontend Threads\"), waits for the node's link on\n"
    "Winsock IP:Port, accepts users and nodes on every Frontend Ports port and programs\n"
    "(WebSocket /stream, HTTP /spots) on the WebSocket Port.  Only a node that proves it\n"
    "knows the secret in DIR/link.key (made by whichever of qxfront and qxcluster starts\n"
    "first) gets the link.\n"
    "  --output-limit BYTES  output queued for one connection before its reader is told\n"
    "                        that output is dropped (default 1048576)\n"
    "  --threads N           threads that own the connections' sockets, instead of\n"
    "                        Frontend Threads (default: one per core)\n"
    "Times in milliseconds, for tests:\n"
    "  --login-timeout-ms MS    instead of Login Timeout\n"
    "  --connect-window-ms MS   the window of Max Connects Per Minute (60000)\n"
    "  --stall-timeout-ms MS    a reader behind that takes nothing for this long is closed\n"
    "                           (60000)\n"
    "  --counters-every-ms MS   how often the counters go to the node (10000)\n"
    "  --web-timeout-ms MS      for a program's request head and the node's answer to a\n"
    "                           poll (10000)\n"
    "  --web-ping-ms MS         silence on a WebSocket before the front-end pings (30000)\n";

// Thousands of connections need more descriptors than the usual soft limit.
void RaiseDescriptorLimit() {
  rlimit lim{};
  if (getrlimit(RLIMIT_NOFILE, &lim) != 0) return;
  const rlim_t before = lim.rlim_cur;
  if (lim.rlim_cur < lim.rlim_max) {
    lim.rlim_cur = lim.rlim_max;
    if (setrlimit(RLIMIT_NOFILE, &lim) != 0) lim.rlim_cur = before;
  }
  const auto text = [](rlim_t v) {
    return v == RLIM_INFINITY ? std::string("unlimited") : std::to_string(v);
  };
  qx::FrontLog("Open-file limit " + text(lim.rlim_cur) +
               (lim.rlim_cur != before ? " (raised from " + text(before) + ")" : std::string()) +
               ", hard limit " + text(lim.rlim_max));
}

}  // namespace

int main(int argc, char** argv) {
  std::string home;
  long long output_limit = 0;
  long long threads = 0;
  struct TimeOption {
    std::string_view flag;
    long long ms = -1;
  };
  TimeOption times[] = {{"--login-timeout-ms"},  {"--connect-window-ms"}, {"--stall-timeout-ms"},
                        {"--counters-every-ms"}, {"--web-timeout-ms"},    {"--web-ping-ms"}};
  for (int i = 1; i < argc; ++i) {
    const std::string_view arg = argv[i];
    if (arg == "--version") {
      std::printf("qxfront %s\n", QX_VERSION);
      return 0;
    }
    if (arg == "--help" || arg == "-h") {
      std::fwrite(kUsage.data(), 1, kUsage.size(), stdout);
      return 0;
    }
    if (arg == "--home" && i + 1 < argc) {
      home = argv[++i];
    } else if (arg == "--output-limit" && i + 1 < argc && qx::ParseInt(argv[i + 1], output_limit) &&
               output_limit > 0) {
      ++i;
    } else if (arg == "--threads" && i + 1 < argc && qx::ParseInt(argv[i + 1], threads) &&
               threads > 0 && threads <= qx::kMaxFrontendThreads) {
      ++i;
    } else if (TimeOption* t = std::find_if(std::begin(times), std::end(times),
                                            [&](const TimeOption& o) { return o.flag == arg; });
               t != std::end(times) && i + 1 < argc && qx::ParseInt(argv[i + 1], t->ms) &&
               t->ms >= 0) {
      ++i;
    } else {
      std::fprintf(stderr, "qxfront: bad argument \"%s\"\n%s", argv[i], kUsage.data());
      return 2;
    }
  }
  if (home.empty()) {
    std::fprintf(stderr, "qxfront: --home DIR is needed\n%s", kUsage.data());
    return 2;
  }
  std::signal(SIGPIPE, SIG_IGN);
  RaiseDescriptorLimit();

  const std::filesystem::path cfg = std::filesystem::path(home) / "cluster.cfg";
  qx::FrontendSettingsResult read = qx::ReadFrontendSettings(cfg);
  if (!read.file_found) qx::FrontLog("No " + cfg.string() + "; using the defaults");
  for (const auto& w : read.warnings) qx::FrontLogError("cluster.cfg: " + w);

  qx::FrontendOptions options;
  options.settings = std::move(read.settings);
  if (output_limit > 0) options.output_limit = static_cast<size_t>(output_limit);
  // Each thread sends to its own share of the sockets; beyond the cores they only take turns.
  if (threads == 0) threads = options.settings.threads;
  if (threads == 0) threads = std::max(1u, std::thread::hardware_concurrency());
  options.threads = static_cast<int>(std::min<long long>(threads, qx::kMaxFrontendThreads));
  qx::LinkSecret secret = qx::LoadOrCreateLinkSecret(home);
  for (const auto& note : secret.notes) qx::FrontLog(note);
  if (!secret.usable()) qx::FrontLogError("Link secret: " + secret.error);
  options.link_secret = std::move(secret.key);
  using Ms = std::chrono::milliseconds;
  options.login_timeout = std::chrono::seconds(options.settings.login_timeout_seconds);
  if (times[0].ms >= 0) options.login_timeout = Ms(times[0].ms);
  if (times[1].ms > 0) options.connect_window = Ms(times[1].ms);
  if (times[2].ms > 0) options.stall_timeout = Ms(times[2].ms);
  if (times[3].ms > 0) options.counters_every = Ms(times[3].ms);
  if (times[4].ms > 0) options.web_request_timeout = options.web_answer_timeout = Ms(times[4].ms);
  if (times[5].ms > 0) options.web_ping_every = Ms(times[5].ms);
  qx::FrontLog(std::string("qxfront ") + QX_VERSION + " starting");

  boost::asio::io_context io(1);
  qx::FrontendServer server(io, std::move(options));
  if (!server.Start()) return 1;
  // The pid file tells scripts (and the sysop) which front-end serves this directory; the
  // front-end outlives the node that may have started it.
  const std::filesystem::path pid_file = std::filesystem::path(home) / "qxfront.pid";
  qx::AtomicWriteFile(pid_file, std::to_string(::getpid()) + "\n");

  boost::asio::signal_set signals(io, SIGINT, SIGTERM);
  signals.async_wait([&](const boost::system::error_code& ec, int sig) {
    if (ec) return;
    qx::FrontLog("Signal " + std::to_string(sig) + " received, shutting down");
    server.Stop();
    io.stop();
  });

  // A fault in one handler is logged and the loop carries on with the others.
  while (true) {
    try {
      io.run();
      break;
    } catch (const std::exception& e) {
      qx::FrontLogError(std::string("Unexpected error: ") + e.what());
    }
  }
  std::error_code ec;
  std::filesystem::remove(pid_file, ec);
  return 0;
}
