#include "mail/mail_forwarder.h"

#include <fmt/format.h>

#include "core/text_util.h"

namespace qx {

namespace {
constexpr std::chrono::seconds kScanInterval{300};
}  // namespace

MailForwarder::MailForwarder(MailForwarderDeps deps) : deps_(std::move(deps)) {}

void MailForwarder::Log(std::string_view text) const {
  if (deps_.log) deps_.log(text);
}

size_t MailForwarder::Queued(int stream) const {
  const auto it = peers_.find(stream);
  return it == peers_.end() ? 0 : it->second.queue.size();
}

bool MailForwarder::DueOn(const MailMessage& m, int stream, const std::string& peer) const {
  if (m.deleted || m.ForwardedTo(peer) || EqualsIgnoreCase(m.received_from, peer)) return false;
  if (!m.is_private) return !EqualsIgnoreCase(m.origin, peer);
  if (m.bound_for.empty() || !deps_.route) return false;
  return deps_.route(m.bound_for) == stream;
}

void MailForwarder::Enqueue(Peer& p, int number) {
  // The message on its way now is not due again unless it fails (and then it is queued).
  if (p.link.sending_id() == number) return;
  if (p.queued.insert(number).second) p.queue.push_back(number);
}

void MailForwarder::Scan(int stream, Peer& p, SysTime now) {
  for (const auto& [number, m] : deps_.store->index()) {
    if (m.time + kOfferAge < now) continue;
    if (p.attempts[number] >= kMaxAttempts) continue;
    if (DueOn(m, stream, p.link.peer())) Enqueue(p, number);
  }
}

void MailForwarder::LinkUp(int stream, std::string_view peer, SysTime now) {
  peers_.erase(stream);
  Peer& p =
      peers_.emplace(stream, Peer(MailLink(deps_.node_call, std::string(peer)))).first->second;
  Scan(stream, p, now);
  Pump(stream, p, now);
}

void MailForwarder::LinkDown(int stream, SysTime now) {
  const auto it = peers_.find(stream);
  if (it == peers_.end()) return;
  MailLink::Output out;
  it->second.link.Reset(out);
  for (const std::string& note : out.notes) Log(note);
  peers_.erase(it);
}

std::vector<MailForwarder::Pending> MailForwarder::PendingForwards() const {
  std::vector<Pending> out;
  for (const auto& entry : peers_) {
    const int stream = entry.first;
    const auto& p = entry.second;  // a named reference: lambdas cannot take bindings
    auto add = [&](int number, Pending::State state) {
      const auto tries = p.attempts.find(number);
      out.push_back(
          Pending{number, p.link.peer(), state, tries == p.attempts.end() ? 0 : tries->second});
    };
    if (p.link.sending()) add(p.link.sending_id(), Pending::State::kSending);
    for (int number : p.queue) add(number, Pending::State::kQueued);
    for (const auto& [number, tries] : p.attempts) {
      if (tries < kMaxAttempts) continue;
      const MailMessage* m = deps_.store->Find(number);
      if (m && DueOn(*m, stream, p.link.peer())) add(number, Pending::State::kGivenUp);
    }
  }
  return out;
}

bool MailForwarder::Requeue(int number, SysTime now) {
  const MailMessage* m = deps_.store->Find(number);
  if (!m) return false;
  bool queued = false;
  for (auto& [stream, p] : peers_) {
    p.attempts.erase(number);
    if (!DueOn(*m, stream, p.link.peer())) continue;
    queued = true;
    if (p.link.sending_id() == number) continue;
    if (p.queued.insert(number).second) {
      p.queue.push_front(number);
    } else {
      // Already waiting: moved to the front.
      std::erase(p.queue, number);
      p.queue.push_front(number);
    }
    p.next_try = now;
    Pump(stream, p, now);
  }
  return queued;
}

void MailForwarder::Stored(int number, SysTime now) {
  const MailMessage* m = deps_.store->Find(number);
  if (!m) return;
  for (auto& [stream, p] : peers_) {
    if (DueOn(*m, stream, p.link.peer())) {
      Enqueue(p, number);
      Pump(stream, p, now);
    }
  }
  if (m->is_private && !m->bound_for.empty() && (!deps_.route || deps_.route(m->bound_for) == 0)) {
    Log(fmt::format("message {} for {} waits: no route to {} yet", number, m->to, m->bound_for));
  }
}

void MailForwarder::Pump(int stream, Peer& p, SysTime now) {
  while (!p.link.sending() && !p.queue.empty() && now >= p.next_try) {
    const int number = p.queue.front();
    p.queue.pop_front();
    p.queued.erase(number);
    MailMessage m;
    // Still due: it may have been deleted, or confirmed by this neighbour meanwhile.
    if (!deps_.store->ReadFull(number, m) || !DueOn(m, stream, p.link.peer())) continue;
    MailLink::Outgoing o;
    o.id = number;
    o.header.to_node = m.is_private && !m.bound_for.empty() ? m.bound_for : p.link.peer();
    o.header.addressee = m.to;
    o.header.author = m.from;
    o.header.time = m.time;
    o.header.is_private = m.is_private;
    o.header.subject = m.subject;
    o.header.origin = m.origin.empty() ? deps_.node_call : m.origin;
    o.lines = std::move(m.text);
    MailLink::Output out;
    p.link.Offer(std::move(o), now, out);
    Apply(stream, p, out, now);
  }
}

void MailForwarder::Apply(int stream, Peer& p, MailLink::Output& out, SysTime now) {
  for (const std::string& s : out.sentences) deps_.send(stream, s);
  for (const std::string& note : out.notes) Log(note);
  const std::string peer = p.link.peer();
  for (MailLink::Event& e : out.events) {
    switch (e.kind) {
      case MailLink::Event::Kind::kSent:
        p.attempts.erase(e.id);
        if (!deps_.store->Modify(e.id, [&](MailMessage& m) {
              if (!m.ForwardedTo(peer)) m.forwarded_to.push_back(peer);
            })) {
          Log(fmt::format("message {} went to {} but that cannot be written down", e.id, peer));
        }
        break;
      case MailLink::Event::Kind::kFailed: {
        const int tries = ++p.attempts[e.id];
        if (tries >= kMaxAttempts) {
          Log(fmt::format("message {} not forwarded to {} after {} attempts ({})", e.id, peer,
                          tries, e.why));
        } else {
          Log(fmt::format("message {} to {} failed ({}); trying again later", e.id, peer, e.why));
          Enqueue(p, e.id);
          p.next_try = now + kRetryDelay;
        }
        break;
      }
      case MailLink::Event::Kind::kReceived: {
        const int number = deps_.receive ? deps_.receive(std::move(e.message)) : 0;
        if (number > 0) Log(fmt::format("message {} received from {}", number, peer));
        break;
      }
    }
  }
}

bool MailForwarder::OnSentence(int stream, std::string_view line, SysTime now) {
  std::string why;
  const std::optional<MailSentence> s = ParseMailSentence(line, &why);
  if (!s) {
    Log(fmt::format("dropped from stream {}: {} ({})", stream, why, line.substr(0, 120)));
    return false;
  }
  const auto it = peers_.find(stream);
  if (it == peers_.end()) {
    Log(fmt::format("mail sentence on stream {}, which is not a node link, dropped", stream));
    return false;
  }
  MailLink::Output out;
  it->second.link.OnSentence(*s, now, out);
  Apply(stream, it->second, out, now);
  Pump(stream, it->second, now);
  return true;
}

void MailForwarder::Tick(SysTime now) {
  const bool scan = now >= next_scan_;
  if (scan) next_scan_ = now + kScanInterval;
  for (auto& [stream, p] : peers_) {
    MailLink::Output out;
    p.link.Tick(now, out);
    Apply(stream, p, out, now);
    if (scan) Scan(stream, p, now);
    Pump(stream, p, now);
  }
}

}  // namespace qx
