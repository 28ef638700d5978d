// A scripted skimmer feed server on loopback, for trying a node's feed connections by hand
// and under load: it asks each connection for its call the way feed servers do, then sends
// raw skimmer lines at a set rate.  Each call is reported by several skimmers close together
// in frequency, so that the node's verification stage has something to verify; now and then
// a report is a one-character slip of a call (a bust) or a line of chatter.
//
//   feed_server --port 7550 [--rate 50] [--calls 200] [--skimmers 4] [--garbage 100]
//               [--seconds 0]
//
// --rate lines a second; --garbage: every n-th line is not a report (0: none); --seconds:
// stop after that long (0: run until interrupted).  Several connections are served at once.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string>
#include <thread>
#include <vector>

namespace {

struct Options {
  int port = 7550;
  int rate = 50;
  int calls = 200;
  int skimmers = 4;
  int garbage = 100;
  int seconds = 0;
};

struct Client {
  int fd = -1;
  bool logged_in = false;
  std::string input;
};

std::string CallOf(int i) {
  return fmt::format("K{}{}{}", i % 10, char('A' + i / 26 % 26), char('A' + i % 26)) + "X";
}

std::string Line(const Options& o, uint64_t n) {
  if (o.garbage > 0 && n % uint64_t(o.garbage) == uint64_t(o.garbage - 1)) {
    return fmt::format("To ALL de XX9XX: chatter number {}", n);
  }
  const int call = int(n / uint64_t(o.skimmers) % uint64_t(o.calls));
  const int skimmer = int(n % uint64_t(o.skimmers));
  const double khz = 14000.0 + call * 0.7 + skimmer * 0.1;
  std::string dx = CallOf(call);
  if (n % 97 == 0) dx.back() = 'Y';  // a slip of the last character
  const std::time_t t = std::time(nullptr);
  std::tm tm{};
  gmtime_r(&t, &tm);
  // Skimmers of real prefixes: the node refuses spotters of no known country.
  static constexpr const char* kPrefixes[] = {"DL", "G", "OH", "W", "JA", "VE"};
  return fmt::format("DX de {}{}SK-#:  {:.1f}  {}  CW  {} dB  {} WPM  CQ  {:02}{:02}Z",
                     kPrefixes[skimmer % 6], skimmer / 6 + 1, khz, dx, 10 + skimmer, 20 + call % 15,
                     tm.tm_hour, tm.tm_min);
}

bool SendAll(int fd, std::string_view text) {
  while (!text.empty()) {
    const ssize_t n = ::send(fd, text.data(), text.size(), MSG_NOSIGNAL);
    if (n <= 0) return false;
    text.remove_prefix(size_t(n));
  }
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  Options o;
  for (int i = 1; i + 1 < argc; i += 2) {
    const std::string key = argv[i];
    const int value = std::atoi(argv[i + 1]);
    if (key == "--port")
      o.port = value;
    else if (key == "--rate")
      o.rate = std::max(1, value);
    else if (key == "--calls")
      o.calls = std::max(1, value);
    else if (key == "--skimmers")
      o.skimmers = std::max(1, value);
    else if (key == "--garbage")
      o.garbage = std::max(0, value);
    else if (key == "--seconds")
      o.seconds = std::max(0, value);
    else {
      std::fprintf(stderr, "unknown option %s\n", key.c_str());
      return 2;
    }
  }
  const int listener = ::socket(AF_INET, SOCK_STREAM, 0);
  int one = 1;
  ::setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  addr.sin_port = htons(uint16_t(o.port));
  if (::bind(listener, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
      ::listen(listener, 8) != 0) {
    std::fprintf(stderr, "cannot listen on 127.0.0.1:%d: %s\n", o.port, std::strerror(errno));
    return 1;
  }
  std::printf("feed server on 127.0.0.1:%d, %d lines a second\n", o.port, o.rate);
  std::fflush(stdout);

  std::vector<Client> clients;
  uint64_t n = 0;
  const auto start = std::chrono::steady_clock::now();
  auto next = start;
  const auto interval = std::chrono::microseconds(1'000'000 / o.rate);
  while (o.seconds == 0 ||
         std::chrono::steady_clock::now() - start < std::chrono::seconds(o.seconds)) {
    std::vector<pollfd> fds{{listener, POLLIN, 0}};
    for (const Client& c : clients) fds.push_back({c.fd, POLLIN, 0});
    const auto wait = std::chrono::duration_cast<std::chrono::milliseconds>(
        next - std::chrono::steady_clock::now());
    ::poll(fds.data(), fds.size(), int(std::max<int64_t>(0, wait.count())));
    if (fds[0].revents & POLLIN) {
      const int fd = ::accept(listener, nullptr, nullptr);
      if (fd >= 0 && SendAll(fd, "Please enter your call: ")) clients.push_back({fd, false, {}});
    }
    for (size_t i = 0; i < clients.size(); ++i) {
      if (!(fds[i + 1].revents & (POLLIN | POLLHUP | POLLERR))) continue;
      char buf[512];
      const ssize_t got = ::recv(clients[i].fd, buf, sizeof buf, 0);
      if (got <= 0) {
        ::close(clients[i].fd);
        clients[i].fd = -1;
        continue;
      }
      clients[i].input.append(buf, size_t(got));
      const size_t end = clients[i].input.find_first_of("\r\n");
      if (!clients[i].logged_in && end != std::string::npos) {
        const std::string call = clients[i].input.substr(0, end);
        clients[i].logged_in = true;
        std::printf("logged in: %s\n", call.c_str());
        std::fflush(stdout);
        SendAll(clients[i].fd, "Hello " + call + ", this is a scripted feed.\r\n");
      }
      if (clients[i].input.size() > 4096) clients[i].input.clear();
    }
    std::erase_if(clients, [](const Client& c) { return c.fd < 0; });
    while (std::chrono::steady_clock::now() >= next) {
      const std::string line = Line(o, n++) + "\r\n";
      for (Client& c : clients) {
        if (c.logged_in && !SendAll(c.fd, line)) {
          ::close(c.fd);
          c.fd = -1;
        }
      }
      std::erase_if(clients, [](const Client& c) { return c.fd < 0; });
      next += interval;
    }
  }
  for (const Client& c : clients) ::close(c.fd);
  ::close(listener);
  return 0;
}
