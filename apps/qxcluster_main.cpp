// qxcluster: the DX-cluster node.  All connections come through qxfront; this process owns
// the node's state and runs on one thread.
#include <boost/asio/io_context.hpp>
#include <boost/asio/signal_set.hpp>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <string>

#include <fcntl.h>
#include <unistd.h>

#include "apps/cluster_node.h"
#include "core/time_text.h"

namespace {

// What the program returns when it should be restarted but could not run itself again.
constexpr int kExitRestart = 75;

// Descriptors that a library opened without close-on-exec (a listening socket of the last
// run) must not live on in the next run, where they would hold its ports.
void MarkDescriptorsCloseOnExec() {
  std::error_code ec;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd", ec)) {
    const std::string name = entry.path().filename().string();
    char* end = nullptr;
    const long fd = std::strtol(name.c_str(), &end, 10);
    if (end == name.c_str() || *end != '\0' || fd <= 2) continue;
    fcntl(int(fd), F_SETFD, fcntl(int(fd), F_GETFD) | FD_CLOEXEC);
  }
}

void PrintHelp() {
  std::puts(
      "usage: qxcluster [--home DIR] [--debug] [--no-start-frontend] [--version] [--help]\n"
      "  --home DIR           the program directory: cluster.cfg and the data/ tree\n"
      "                       (default: .)\n"
      "  --debug              more detail in the logs\n"
      "  --no-start-frontend  never start qxfront; something else (systemd) runs it\n"
      "The node connects to its connection front-end (qxfront) at Winsock IP:Winsock Port\n"
      "of cluster.cfg and, unless told not to, starts it when it cannot be reached.");
}

}  // namespace

int main(int argc, char** argv) {
  qx::ClusterNodeOptions options;
  options.home = std::filesystem::current_path();
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--version") {
      std::printf("qxcluster %s\n", QX_VERSION);
      return 0;
    } else if (arg == "--help" || arg == "-h") {
      PrintHelp();
      return 0;
    } else if (arg == "--home" && i + 1 < argc) {
      options.home = argv[++i];
    } else if (arg == "--debug") {
      options.debug = true;
    } else if (arg == "--no-start-frontend") {
      options.start_frontend = false;
    } else {
      std::fprintf(stderr, "qxcluster: unknown argument %s\n", arg.c_str());
      PrintHelp();
      return 2;
    }
  }
  std::error_code ec;
  options.program = std::filesystem::canonical("/proc/self/exe", ec);
  if (ec) options.program = argv[0];
  options.home = std::filesystem::absolute(options.home);

  bool restart = false;
  {
    boost::asio::io_context io;
    qx::ClusterNode node(io, options);
    const qx::SystemClock clock;
    node.monitor().Subscribe([&clock](const qx::MonitorLine& line) {
      if (line.channel != qx::MonitorChannel::kConsole) return;
      std::cout << qx::TimeHHnnssZ(clock.Now()) << ' ' << line.text << '\n' << std::flush;
    });
    // Signals first, so that a stop request during start-up still ends the node cleanly.
    boost::asio::signal_set signals(io, SIGINT, SIGTERM);
    signals.async_wait([&](const boost::system::error_code& e, int) {
      if (e) return;
      // A second signal does not wait for the hand-over.
      signals.async_wait([&](const boost::system::error_code& again, int) {
        if (again) return;
        node.Stop();
        io.stop();
      });
      node.StopAfterHandOver([&] { io.stop(); });
    });
    std::string error;
    if (!node.Start(&error)) {
      std::fprintf(stderr, "qxcluster: %s\n", error.c_str());
      return 1;
    }
    io.run();
    node.Stop();
    restart = node.restart_requested();
  }  // every file and socket of this run is closed here
  if (!restart) return 0;
  // RESTART: the same program (a new binary, if one was installed) with the same arguments,
  // in this process, so whoever watches it (a service manager, a launcher) sees no exit.  The
  // front-end holds every connection and reports them back to the new run.
  std::fflush(nullptr);
  MarkDescriptorsCloseOnExec();
  execv(options.program.c_str(), argv);
  std::fprintf(stderr, "qxcluster: restart failed (%s); exiting for a restart by the service\n",
               std::strerror(errno));
  // Not 0, so that a service manager that restarts on failure starts the node again.
  return kExitRestart;
}
