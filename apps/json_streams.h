// Programs' JSON streams as the front-end hands them over: a WebSocket stream
// ("ws:/stream?since=..&filter=..&call=..&password=..") gets a greeting, the spots it missed
// since the number it names, then every new spot as it is accepted, and a heartbeat every
// 30 s; an HTTP poll ("http:/spots?since=..&limit=..") gets one JSON array of spots and is
// closed.  A WebSocket stream that names more types ("types=spot,announce,wwv,wcy") also gets
// announcements to ALL and WX and WWV/WCY lines, from the same delivery that serves telnet
// users.  There is no log-in dialogue: a stream without call and password is anonymous and
// read-only, one with them gets that user's stored filters and switches; "Stream Requires
// Login" refuses anonymous ones.  After a node restart a WebSocket stream is rebuilt from its
// kind without replaying anything: the client stayed connected and missed nothing.
// docs/json-stream.md has the protocol.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "core/time_text.h"
#include "spots/spot.h"

namespace qx {

class AccessLists;
class BandTable;
class ErrorLog;
class FilterBook;
class SpotHistory;
class StreamOutput;
class StreamTable;
class UserStore;
struct StreamRequest;

struct JsonStreamDeps {
  StreamTable* streams = nullptr;
  StreamOutput* out = nullptr;
  FilterBook* filters = nullptr;
  const UserStore* store = nullptr;
  const AccessLists* access = nullptr;
  const SpotHistory* history = nullptr;
  const BandTable* bands = nullptr;
  const Clock* clock = nullptr;
  ErrorLog* log = nullptr;
  // The spot's JSON object with its line end (the same text live distribution sends).
  std::function<void(const Spot& spot, std::string& out)> spot_json;
  // The number of the newest accepted spot.
  std::function<uint64_t()> last_id;
  // Runs a task on the node's thread after a pause.  Without it a replay is written at once.
  std::function<void(std::chrono::milliseconds, std::function<void()>)> later;
  std::string node_call;
  std::string version;
  bool require_login = false;  // "Stream Requires Login"
  size_t replay_max = 20000;   // "Stream Replay Max", within JsonStreams' bounds
};

class JsonStreams {
 public:
  // Spots replayed to a resuming stream at most ("Stream Replay Max"); an older start is
  // reported as a gap.  A busy node takes some 300 spots a minute, so the default covers a
  // program that was away for an hour (what the history holds still bounds it).  The most a
  // sysop may set is some 80 MB of objects, about seven seconds of replay on loopback.
  static constexpr size_t kDefaultReplayMax = 20000;
  static constexpr size_t kLeastReplayMax = 100;
  static constexpr size_t kMostReplayMax = 200000;
  // A replay goes out in pieces of this many spots (some 100 KB), one piece per pause, so that
  // the node serves everybody else in between and the front-end's bounded queue for the
  // client (1 MiB) is not overrun by a burst the client could not have read yet: some 12 MB/s,
  // 10,000 spots in about 0.4 s.  A client that reads more slowly than that for long is told
  // that output was dropped and resumes from the last number it holds.
  static constexpr size_t kReplayChunk = 250;
  static constexpr std::chrono::milliseconds kReplayPause{10};

  explicit JsonStreams(JsonStreamDeps deps);

  // A new connection: true when its kind is a JSON stream (then it is served here).
  bool OnConnectRequest(int stream);
  // A stream reported back after a node restart: true when it is a JSON stream.
  bool OnRecovered(int stream);
  // A line a program sent (a WebSocket text message).
  void OnLine(int stream, std::string_view line);
  // Every 30 s: a heartbeat to every JSON stream and to every user in JSON mode.
  void Heartbeat();

  void set_require_login(bool on) { deps_.require_login = on; }
  void set_replay_max(size_t spots) { deps_.replay_max = spots; }

 private:
  bool Open(int stream, bool recovered);
  // Authenticates and loads settings and filters; false (after telling the client) when the
  // request cannot be served.
  bool Admit(int stream, const StreamRequest& request, bool recovered);
  void Refuse(int stream, bool poll, int status, std::string_view text);
  void Replay(int stream, const StreamRequest& request);
  // Sends the next piece of a replay; the last piece also sends what was accepted since the
  // replay began and lets live spots through.
  void ReplayStep(int stream, int64_t tag, std::shared_ptr<std::vector<Spot>> spots, size_t next);
  void AnswerPoll(int stream, const StreamRequest& request);
  // The kept spots after `after` that the stream's switches and filters let through.
  std::vector<Spot> Wanted(int stream, uint64_t after, bool& gap) const;

  JsonStreamDeps deps_;
};

}  // namespace qx
