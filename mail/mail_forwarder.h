// Where stored messages travel, and the mail exchange on every neighbour link.  Every
// bulletin goes to each neighbour except the one it came from and its origin; a private
// message bound for another node goes to the neighbour on the route there.  A neighbour that
// confirmed a message is written into it, so a message goes to each neighbour once, also
// across restarts; a failed attempt is tried again after a delay.  Time comes in with each
// call; the node wires the links, routes and sockets.
#pragma once

#include <deque>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "mail/mail_link.h"
#include "mail/mail_store.h"

namespace qx {

struct MailForwarderDeps {
  MailStore* store = nullptr;  // required
  std::string node_call;
  std::function<void(int stream, std::string_view text)> send;  // required
  // The neighbour stream on the best route to a node, 0 when none is known.
  std::function<int(std::string_view node)> route;
  // A complete message from a neighbour; returns its number here (0: not taken).
  std::function<int(MailMessage m)> receive;
  std::function<void(std::string_view text)> log;
};

class MailForwarder {
 public:
  static constexpr std::chrono::seconds kRetryDelay{300};
  static constexpr int kMaxAttempts = 5;
  // Messages older than this are not offered to a link that comes up.
  static constexpr std::chrono::hours kOfferAge{24 * 14};

  explicit MailForwarder(MailForwarderDeps deps);

  // A neighbour link is up; what it has not had yet is queued for it.
  void LinkUp(int stream, std::string_view peer, SysTime now);
  void LinkDown(int stream, SysTime now);
  // A message was stored here; it is queued where it must go.
  void Stored(int number, SysTime now);
  // A PC28..PC33 or PC42 line from stream; false when it is not one (or was malformed, which
  // is logged).
  bool OnSentence(int stream, std::string_view line, SysTime now);
  // Timeouts, retries, and a periodic look for private mail whose route has appeared.
  void Tick(SysTime now);

  size_t Queued(int stream) const;

  // Where a message stands on one neighbour link, for the sysop.
  struct Pending {
    int number = 0;
    std::string peer;
    enum class State { kQueued, kSending, kGivenUp } state = State::kQueued;
    int attempts = 0;  // failed so far
  };
  // Every message under way or stuck, link by link.
  std::vector<Pending> PendingForwards() const;
  // The sysop's "try again now" for a stuck message: its failed attempts are forgotten and it
  // is queued, ahead of the others, on every link it is due on.  False when it is due on none
  // (already confirmed everywhere, deleted, or no route is known yet).
  bool Requeue(int number, SysTime now);

 private:
  struct Peer {
    explicit Peer(MailLink l) : link(std::move(l)) {}
    MailLink link;
    std::deque<int> queue;
    std::set<int> queued;
    std::map<int, int> attempts;  // message -> failed attempts
    SysTime next_try{};
  };

  // Whether message m is due on the link to peer on stream.
  bool DueOn(const MailMessage& m, int stream, const std::string& peer) const;
  void Enqueue(Peer& p, int number);
  void Scan(int stream, Peer& p, SysTime now);
  void Pump(int stream, Peer& p, SysTime now);
  void Apply(int stream, Peer& p, MailLink::Output& out, SysTime now);
  void Log(std::string_view text) const;

  MailForwarderDeps deps_;
  std::map<int, Peer> peers_;
  SysTime next_scan_{};
};

}  // namespace qx
