#include "apps/json_streams.h"

#include "core/error_log.h"
#include "core/stream_output.h"
#include "core/stream_table.h"
#include "core/text_util.h"
#include "spots/distribution.h"
#include "spots/spot_history.h"
#include "stream/json_format.h"
#include "stream/stream_target.h"
#include "users/access_lists.h"
#include "users/filter_book.h"
#include "users/user_record.h"

namespace qx {

namespace {

// What an anonymous stream takes: what a new user gets (spots of every kind, announcements to
// ALL and WX, WWV/WCY) except talk and log-in notices, narrowed to the types it asked for.
constexpr uint32_t kAnonymousSwitches = (kDefaultSwitches & ~(kSwTalk | kSwLogin)) | kSwJson;

// The switches a stream's types govern.  A type it did not ask for turns its switches off;
// one it asked for leaves them as the user (or a new user) has them, so that a user who
// turned WX off on telnet does not get it on a stream either.
constexpr uint32_t kTypeSwitches = kSwDxSpots | kSwAnnouncements | kSwWx | kSwWwv | kSwWcy;

uint32_t SwitchesOfTypes(uint8_t types) {
  uint32_t on = 0;
  if (types & kStreamSpots) on |= kSwDxSpots;
  if (types & kStreamAnnounce) on |= kSwAnnouncements | kSwWx;
  if (types & kStreamWwv) on |= kSwWwv;
  if (types & kStreamWcy) on |= kSwWcy;
  return on;
}

}  // namespace

JsonStreams::JsonStreams(JsonStreamDeps deps) : deps_(std::move(deps)) {}

bool JsonStreams::OnConnectRequest(int stream) {
  if (!IsJsonStreamKind(deps_.streams->at(stream).kind)) return false;
  Open(stream, /*recovered=*/false);
  return true;
}

bool JsonStreams::OnRecovered(int stream) {
  if (!IsJsonStreamKind(deps_.streams->at(stream).kind)) return false;
  Open(stream, /*recovered=*/true);
  return true;
}

void JsonStreams::Refuse(int stream, bool poll, int status, std::string_view text) {
  const StreamEntry& e = deps_.streams->at(stream);
  if (deps_.log) {
    deps_.log->Write("JsonStream", "refused " + e.peer_address + ": " + std::string(text));
  }
  std::string out;
  if (poll) out = "Status: " + std::to_string(status) + "\r\n";
  out += ErrorJson(text);
  deps_.out->SendToStream(stream, out);
  deps_.out->CloseStream(stream);
}

bool JsonStreams::Open(int stream, bool recovered) {
  StreamEntry& e = deps_.streams->at(stream);
  const StreamRequest request = ParseStreamKind(e.kind);
  const bool poll = request.kind == StreamKind::kHttpPoll;
  if (poll && recovered && e.state == kStateJsonPoll) {
    // Answered before the restart; only its close may not have happened yet.
    deps_.out->CloseStream(stream);
    return false;
  }
  if (request.status != 200) {
    Refuse(stream, poll, request.status, request.error);
    return false;
  }
  if (!Admit(stream, request, recovered)) return false;
  if (poll) {
    AnswerPoll(stream, request);
    return true;
  }
  if (recovered) return true;  // the client stayed connected: nothing to greet or replay
  const uint64_t last = deps_.last_id ? deps_.last_id() : 0;
  deps_.out->SendToStream(stream, HelloJson(deps_.clock->Now(), deps_.node_call, deps_.version,
                                            e.call, /*read_only=*/true, last));
  if (request.has_since && (request.types & kStreamSpots)) Replay(stream, request);
  return true;
}

bool JsonStreams::Admit(int stream, const StreamRequest& request, bool recovered) {
  StreamEntry& e = deps_.streams->at(stream);
  const bool poll = request.kind == StreamKind::kHttpPoll;
  SessionSettings session;
  session.switches = kAnonymousSwitches;
  if (!request.call.empty()) {
    if (!deps_.access->CheckPassword(request.call, request.password)) {
      Refuse(stream, poll, 401, "call and password do not match a user of this node");
      return false;
    }
    session = deps_.store->Load(request.call, kStateJsonStream).settings;
    session.Set(kSwJson, true);
  } else if (deps_.require_login) {
    Refuse(stream, poll, 401, "this node serves streams to its users only: give call and password");
    return false;
  }
  session.switches &= ~(kTypeSwitches & ~SwitchesOfTypes(request.types));
  e.session = std::move(session);
  e.call = request.call;
  e.privilege = 0;
  e.login_stage = LoginStage::kLoggedIn;
  deps_.filters->Load(stream, e.session);
  for (std::string_view rule : Split(request.filter, ';')) {
    rule = Trim(rule);
    if (rule.empty()) continue;
    const UserFilters::Reply reply = deps_.filters->Apply(stream, rule, e.session);
    if (!reply.ok) {
      deps_.filters->Drop(stream);
      Refuse(stream, poll, 400, "unknown filter \"" + std::string(rule) + "\": " + reply.text);
      return false;
    }
  }
  e.state = poll ? kStateJsonPoll : kStateJsonStream;
  // The front-end ends a connection's log-in time at its first identity with a call, and
  // reports the state back after a restart.
  deps_.out->SetStreamIdentity(stream, e.call.empty() ? "ANONYMOUS" : std::string_view(e.call),
                               e.state);
  if (!recovered && deps_.log) {
    deps_.log->Write("JsonStream", std::string(poll ? "poll" : "stream") + " from " +
                                       e.peer_address + " as " +
                                       (e.call.empty() ? "anonymous" : e.call));
  }
  return true;
}

std::vector<Spot> JsonStreams::Wanted(int stream, uint64_t after, bool& gap) const {
  const StreamEntry& e = deps_.streams->at(stream);
  std::vector<Spot> kept =
      deps_.history->SpotsAfter(after, SIZE_MAX, deps_.clock->Now(), *deps_.bands, gap);
  std::vector<Spot> out;
  for (Spot& s : kept) {
    if (SwitchesAllow(e.session, s) && deps_.filters->Shows(stream, e, s)) {
      out.push_back(std::move(s));
    }
  }
  return out;
}

void JsonStreams::Replay(int stream, const StreamRequest& request) {
  bool gap = false;
  std::vector<Spot> spots = Wanted(stream, request.since, gap);
  if (spots.size() > deps_.replay_max) {
    spots.erase(spots.begin(), spots.end() - long(deps_.replay_max));
    gap = true;
  }
  if (gap) {
    deps_.out->SendToStream(stream, GapJson(request.since, spots.empty() ? 0 : spots.front().Id));
  }
  if (spots.empty()) return;
  deps_.streams->at(stream).json_replaying = true;
  ReplayStep(stream, deps_.streams->at(stream).tag,
             std::make_shared<std::vector<Spot>>(std::move(spots)), 0);
}

void JsonStreams::ReplayStep(int stream, int64_t tag, std::shared_ptr<std::vector<Spot>> spots,
                             size_t next) {
  if (!deps_.streams->InRange(stream)) return;
  StreamEntry& e = deps_.streams->at(stream);
  // The client went away (and the number may already serve another connection).
  if (e.state != kStateJsonStream || e.tag != tag || !e.json_replaying) return;
  std::string out;
  while (true) {
    const size_t end = std::min(spots->size(), next + kReplayChunk);
    for (; next < end; ++next) deps_.spot_json((*spots)[next], out);
    if (next == spots->size()) break;
    deps_.out->SendToStream(stream, out);
    out.clear();
    if (deps_.later) {
      deps_.later(kReplayPause,
                  [this, stream, tag, spots, next] { ReplayStep(stream, tag, spots, next); });
      return;
    }
  }
  // Spots accepted while the replay was under way are in the history by now; after them the
  // stream is live, with nothing in between on this one thread.
  const uint64_t last = spots->back().Id;
  spots.reset();
  bool gap = false;
  for (const Spot& s : Wanted(stream, last, gap)) deps_.spot_json(s, out);
  e.json_replaying = false;
  if (!out.empty()) deps_.out->SendToStream(stream, out);
}

void JsonStreams::AnswerPoll(int stream, const StreamRequest& request) {
  bool gap = false;
  std::vector<Spot> spots = Wanted(stream, request.has_since ? request.since : 0, gap);
  // From a number: the first spots after it, so that the next poll goes on from the last.
  // Without one: the newest.
  if (spots.size() > request.limit) {
    if (request.has_since) {
      spots.resize(request.limit);
    } else {
      spots.erase(spots.begin(), spots.end() - long(request.limit));
    }
  }
  std::string body = "Status: 200\r\n[";
  std::string one;
  for (size_t i = 0; i < spots.size(); ++i) {
    one.clear();
    deps_.spot_json(spots[i], one);
    while (!one.empty() && (one.back() == '\n' || one.back() == '\r')) one.pop_back();
    if (i) body += ",\r\n";
    body += one;
  }
  body += "]\r\n";
  deps_.out->SendToStream(stream, body);
  deps_.out->CloseStream(stream);
}

void JsonStreams::OnLine(int stream, std::string_view line) {
  if (Trim(line).empty()) return;
  deps_.out->SendToStream(
      stream, ErrorJson("this stream is read-only; commands are taken on a telnet session "
                        "(SET/JSON gives it the same objects)"));
}

void JsonStreams::Heartbeat() {
  const std::string beat = HeartbeatJson(deps_.clock->Now(), deps_.last_id ? deps_.last_id() : 0);
  StreamTable& t = *deps_.streams;
  for (int s = 1; s <= t.high_socket(); ++s) {
    const StreamEntry& e = t.at(s);
    if (e.state == kStateJsonStream || (e.IsUser() && e.session.Has(kSwJson))) {
      deps_.out->SendToStream(s, beat);
    }
  }
}

}  // namespace qx
