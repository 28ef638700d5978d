// relay_load: measures how many lines per second a running qxfront delivers to its clients.
// It plays the node on the link port, opens many client connections to a user port, then
// sends one line to every stream after another as fast as the clients take them, counting
// the CR LF that arrive at the clients.
//
//   relay_load --home DIR --link-port P --user-port Q [--host 127.0.0.1] [--clients 1000]
//              [--seconds 5] [--line-bytes 72] [--window 400]
//
// --home is the front-end's program directory: the link secret (link.key) there is what
// lets the tool prove itself as the node.
// --window is the number of lines per client that may be on their way at once; it keeps the
// front-end's per-connection output below its bound, so nothing is closed for overflow.
#include <sys/epoll.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <thread>
#include <unordered_map>
#include <vector>

#include "core/link_secret.h"
#include "tools/tool_util.h"

namespace {

using namespace qx::tools;

struct Options {
  std::string host = "127.0.0.1";
  std::string home = ".";
  int link_port = 7399;
  int user_port = 7300;
  int clients = 1000;
  double seconds = 5;
  int line_bytes = 72;
  int window = 400;
};

int MustConnect(const std::string& host, int port) {
  const int fd = ConnectTo(port, host);
  if (fd < 0) {
    Die("connect to " + host + " port " + std::to_string(port) + ": " + std::strerror(errno));
  }
  return fd;
}

int LocalPort(int fd) {
  sockaddr_in addr{};
  socklen_t len = sizeof addr;
  ::getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len);
  return ntohs(addr.sin_port);
}

void SendOnLink(int fd, std::string_view data) {
  if (!SendAll(fd, data, std::chrono::microseconds(50))) {
    Die(std::string("send on the link: ") + std::strerror(errno));
  }
}

// Reads records (Chr 3 terminated) from the link until want() says stop.
class LinkReader {
 public:
  explicit LinkReader(int fd) : fd_(fd) {}
  template <typename Want>
  void ReadUntil(Want want, std::chrono::seconds limit = std::chrono::seconds(30)) {
    const auto end = Clock::now() + limit;
    while (true) {
      size_t pos;
      while ((pos = buf_.find('\x03')) != std::string::npos) {
        const std::string record = buf_.substr(0, pos);
        buf_.erase(0, pos + 1);
        if (want(record)) return;
      }
      if (Clock::now() > end) Die("timed out waiting for the front-end");
      char tmp[65536];
      const ssize_t n = ::recv(fd_, tmp, sizeof tmp, 0);
      if (n <= 0) Die("the front-end closed the link");
      buf_.append(tmp, static_cast<size_t>(n));
    }
  }
  std::string TakeRest() { return std::move(buf_); }

 private:
  int fd_;
  std::string buf_;
};

std::vector<std::string_view> Fields(std::string_view record) {
  std::vector<std::string_view> out;
  size_t start = 0;
  while (true) {
    const size_t p = record.find('^', start);
    out.push_back(record.substr(start, p == std::string_view::npos ? p : p - start));
    if (p == std::string_view::npos) break;
    start = p + 1;
  }
  return out;
}

Options ParseOptions(int argc, char** argv) {
  Options o;
  Args args(argc, argv);
  while (args.Next()) {
    if (args.Is("--host")) {
      o.host = args.Value();
    } else if (args.Is("--home")) {
      o.home = args.Value();
    } else if (args.Is("--link-port")) {
      o.link_port = args.Int();
    } else if (args.Is("--user-port")) {
      o.user_port = args.Int();
    } else if (args.Is("--clients")) {
      o.clients = args.Int();
    } else if (args.Is("--seconds")) {
      o.seconds = args.Double();
    } else if (args.Is("--line-bytes")) {
      o.line_bytes = std::max(8, args.Int());
    } else if (args.Is("--window")) {
      o.window = std::max(1, args.Int());
    } else {
      args.Unknown(
          "--home --link-port --user-port --host --clients --seconds --line-bytes --window");
    }
  }
  if (o.clients < 1) Die("--clients must be at least 1");
  return o;
}

}  // namespace

int main(int argc, char** argv) {
  SetUpTool("relay_load");
  const Options opt = ParseOptions(argc, argv);
  RaiseFileLimit(0);

  // 1. Be the node: greeting, challenge and proof, announcement, stream report.
  const qx::LinkSecret secret = qx::LoadOrCreateLinkSecret(opt.home);
  if (!secret.usable()) Die("link secret: " + secret.error);
  const int link = MustConnect(opt.host, opt.link_port);
  LinkReader reader(link);
  SendOnLink(link, "QX Cluster");
  std::string challenge;
  reader.ReadUntil([&](const std::string& r) {
    if (r.starts_with("AA39^")) challenge = r.substr(5);
    return !challenge.empty();
  });
  const std::string nonce = qx::MakeLinkNonce();
  SendOnLink(link,
             "4\x03" + nonce + "\x03" + qx::NodeLinkProof(secret.key, challenge, nonce) + "\x04");
  reader.ReadUntil([](const std::string& r) { return r.starts_with("QRV "); });
  SendOnLink(link, "8270");
  size_t reports_left = 0;
  reader.ReadUntil([&](const std::string& r) {
    if (r.starts_with("AA01^")) reports_left = std::strtoul(Fields(r)[1].data(), nullptr, 10);
    return r.starts_with("AA01^");
  });
  if (reports_left > 0) {
    reader.ReadUntil(
        [&](const std::string& r) { return r.starts_with("AA38^") && --reports_left == 0; });
  }

  // 2. Open the clients and learn each one's stream and tag.
  struct Client {
    int fd = -1;
    std::string stream;
    std::string tag;
    uint64_t lines = 0;
  };
  std::vector<Client> clients(opt.clients);
  std::unordered_map<std::string, int> by_peer;
  for (int i = 0; i < opt.clients; ++i) {
    clients[i].fd = MustConnect(opt.host, opt.user_port);
    by_peer["127.0.0.1:" + std::to_string(LocalPort(clients[i].fd))] = i;
  }
  int known = 0;
  reader.ReadUntil([&](const std::string& r) {
    if (!r.starts_with("AA03^")) return false;
    const auto f = Fields(r);
    if (f.size() < 7) return false;
    const auto it = by_peer.find(std::string(f[3]));
    if (it == by_peer.end()) return false;
    clients[it->second].stream = std::string(f[2]);
    clients[it->second].tag = std::string(f[4]);
    return ++known == opt.clients;
  });
  std::printf("relay_load: %d clients connected and announced\n", opt.clients);

  // 3. One receiving thread reads every client (and the link, for close reports).
  const int ep = ::epoll_create1(0);
  for (int i = 0; i < opt.clients; ++i) {
    SetNonBlocking(clients[i].fd);
    epoll_event ev{};
    ev.events = EPOLLIN;
    ev.data.u64 = static_cast<uint64_t>(i);
    ::epoll_ctl(ep, EPOLL_CTL_ADD, clients[i].fd, &ev);
  }
  {
    SetNonBlocking(link);
    epoll_event ev{};
    ev.events = EPOLLIN;
    ev.data.u64 = UINT64_MAX;
    ::epoll_ctl(ep, EPOLL_CTL_ADD, link, &ev);
  }
  std::atomic<uint64_t> received{0};
  std::atomic<uint64_t> closes{0};
  std::atomic<int> closed_clients{0};
  std::atomic<bool> stop{false};
  std::string link_rest = reader.TakeRest();
  std::thread receiver([&] {
    std::vector<epoll_event> events(1024);
    std::vector<char> buf(256 * 1024);
    uint64_t local = 0;
    while (!stop.load(std::memory_order_relaxed)) {
      const int n = ::epoll_wait(ep, events.data(), static_cast<int>(events.size()), 100);
      for (int e = 0; e < n; ++e) {
        const uint64_t id = events[e].data.u64;
        const int fd = id == UINT64_MAX ? link : clients[id].fd;
        const ssize_t got = ::recv(fd, buf.data(), buf.size(), 0);
        if (got <= 0) {
          if (got < 0 && (errno == EAGAIN || errno == EINTR)) continue;
          ::epoll_ctl(ep, EPOLL_CTL_DEL, fd, nullptr);
          if (id != UINT64_MAX) closed_clients.fetch_add(1);
          continue;
        }
        if (id == UINT64_MAX) {
          link_rest.append(buf.data(), static_cast<size_t>(got));
          size_t p;
          while ((p = link_rest.find('\x03')) != std::string::npos) {
            if (link_rest.starts_with("AA17^")) closes.fetch_add(1);
            link_rest.erase(0, p + 1);
          }
          continue;
        }
        uint64_t lines = 0;
        const char* at = buf.data();
        const char* end = at + got;
        while ((at = static_cast<const char*>(std::memchr(at, '\n', end - at))) != nullptr) {
          ++lines;
          ++at;
        }
        clients[id].lines += lines;
        local += lines;
        received.store(local, std::memory_order_release);
      }
    }
  });

  // 4. Send one line to every stream, round after round, as fast as the clients take them.
  std::string line = "DX de W1AW:     14025.0  DL1ABC       CQ up 2";
  line.resize(static_cast<size_t>(opt.line_bytes) - 7, ' ');
  line += "1234Z\r\n";
  std::string round;
  for (const Client& c : clients) {
    round += "0\x03" + c.stream + "\x03" + line + "\x03" + c.tag + "\x04";
  }
  const uint64_t window = static_cast<uint64_t>(opt.window) * opt.clients;
  uint64_t sent = 0;
  const auto start = Clock::now();
  const auto warm_until = start + std::chrono::milliseconds(500);
  const auto end = warm_until + std::chrono::duration_cast<Clock::duration>(
                                    std::chrono::duration<double>(opt.seconds));
  uint64_t at_warm = 0;
  bool warmed = false;
  Clock::time_point measured_from;
  while (Clock::now() < end) {
    if (!warmed && Clock::now() >= warm_until) {
      warmed = true;
      at_warm = received.load(std::memory_order_acquire);
      measured_from = Clock::now();
    }
    if (sent - received.load(std::memory_order_acquire) > window) {
      std::this_thread::sleep_for(std::chrono::microseconds(100));
      continue;
    }
    // The link socket is non-blocking now; SendOnLink waits for room when it is full.
    SendOnLink(link, round);
    sent += clients.size();
  }
  const uint64_t at_end = received.load(std::memory_order_acquire);
  const double secs = std::chrono::duration<double>(Clock::now() - measured_from).count();

  // Let what is on its way arrive, so the per-client figures are complete.
  const auto drain_until = Clock::now() + std::chrono::seconds(5);
  while (received.load() < sent && Clock::now() < drain_until) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  stop = true;
  receiver.join();

  uint64_t min_lines = UINT64_MAX, max_lines = 0;
  for (const Client& c : clients) {
    min_lines = std::min(min_lines, c.lines);
    max_lines = std::max(max_lines, c.lines);
  }
  const double rate = static_cast<double>(at_end - at_warm) / secs;
  std::printf("relay_load: clients %d, line %d bytes, window %d lines per client\n", opt.clients,
              opt.line_bytes, opt.window);
  std::printf("relay_load: measured %.2f s: %llu lines delivered, %.0f lines/s, %.1f MB/s\n", secs,
              static_cast<unsigned long long>(at_end - at_warm), rate, rate * opt.line_bytes / 1e6);
  std::printf(
      "relay_load: sent %llu lines in all, delivered %llu; per client %llu..%llu\n",
      static_cast<unsigned long long>(sent), static_cast<unsigned long long>(received.load()),
      static_cast<unsigned long long>(min_lines), static_cast<unsigned long long>(max_lines));
  std::printf("relay_load: streams closed by the front-end: %llu, clients seeing a close: %d\n",
              static_cast<unsigned long long>(closes.load()), closed_clients.load());

  for (const Client& c : clients) ::close(c.fd);
  ::close(link);
  ::close(ep);
  return 0;
}
