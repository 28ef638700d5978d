// Who is on each stream.  Streams are numbered from 1 by the front-end; the table grows
// (never shrinks) to the highest number it has seen.  Entries live behind stable pointers,
// so a reference taken before the table grows stays valid.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "core/session.h"
#include "core/time_text.h"

namespace qx {

// Stream state codes.  0 free, 3 logging in, 9 timed out / refused; the other codes up to 16
// are logged-in users; above 16 are node links and feeds.
enum StreamState : int {
  kStateFree = 0,
  kStateUser = 1,
  kStateLoggingIn = 3,
  kStateTimedOut = 9,
  kStateUserLast = 16,
  kStateNodeConnecting = 20,  // a node link still in its handshake
  kStateNodePc9x = 21,
  kStateNodeLegacy = 22,
  kStateFeedSkimmer = 31,   // feed code 1
  kStateFeedRbn = 33,       // feed code 3
  kStateFeedReporter = 39,  // feed code 9
  // A program's JSON stream over WebSocket: spots, heartbeats and the announcements and
  // WWV/WCY lines it asked for; no log-in dialogue, and not a user (it is never listed,
  // counted, talked to or announced to the network).
  kStateJsonStream = 40,
  // An HTTP poll: answered at once and closed.
  kStateJsonPoll = 41,
};

inline bool IsUserState(int s) {
  return s > 0 && s <= kStateUserLast && s != kStateLoggingIn && s != kStateTimedOut;
}
inline bool IsNodeState(int s) { return s >= kStateNodeConnecting && s <= kStateNodeLegacy; }
inline bool IsFeedState(int s) {
  return s == kStateFeedSkimmer || s == kStateFeedRbn || s == kStateFeedReporter;
}

// Stages of the log-in dialogue.
enum class LoginStage : uint8_t {
  kAwaitingCall,
  kAwaitingPassword,
  kAwaitingNodePassword,  // a neighbour node's call was typed; its password comes next
  kAwaitingName,
  kAwaitingNameConfirm,
  kLoggedIn,
  kRefused,
};

// A stream's attributes as the node gives them and the front-end keeps them: "^" and control
// characters (Chr 3 and Chr 4 among them) are left out, and the rest is cut to 256 bytes.
inline constexpr size_t kMaxStreamAttributes = 256;
std::string CleanStreamAttributes(std::string_view text);
// The value of one blank-separated "key=value" item of the attributes ("" when absent).
std::string_view StreamAttribute(std::string_view attributes, std::string_view key);

// How a user's stream gets spots: the "DX de" line, or the enhanced sentence a companion
// client reads (asked for with "Send Enhanced DX Spots" or by the client type "QXU"; the
// front-end keeps it with the connection as "fmt=6").
inline constexpr int kSpotFormatDxDe = 0;
inline constexpr int kSpotFormatEnhanced = 6;

struct StreamEntry {
  std::string call;  // set by the log-in or "AA16"; "T/O" after a time-out
  int state = kStateFree;
  int64_t tag = 0;  // the front-end's tag, echoed in every message to the stream
  // A program's stream still being sent the spots it missed: live spots wait in the history
  // until the replay reaches them, so that none comes twice or out of order.
  bool json_replaying = false;
  std::string attribute;  // "AA04" text
  // What the node gave the front-end to keep with the stream (SetStreamAttributes), as the
  // front-end reported it back after a node restart ("AA38").
  std::string frontend_attributes;
  std::string peer_address;      // "ip:port" as the front-end reported it
  int port_index = 0;            // front-end listening port index (0..8; 9 = outgoing)
  std::string connection_label;  // outgoing connection's name, "" for inbound
  // The front-end's kind of the connection: "in", "out:<label>", "ws:<target>" or
  // "http:<target>" (the request target of a WebSocket stream or an HTTP poll).
  std::string kind;
  SysTime since{};

  // Log-in dialogue.
  LoginStage login_stage = LoginStage::kAwaitingCall;
  int password_failures = 0;
  int privilege = 0;
  std::string client_type;  // "QXU", "HRD", ...
  std::string pending_name;

  // Prompt.
  std::string prompt_full;
  std::string prompt_short;
  size_t prompt_insert = 0;
  std::string prompt_counter;  // runaway guard: period stamp, then count from character 10

  SessionSettings session;
  int spot_format = kSpotFormatDxDe;  // the stream's own choice; SET/XX0QX is the record's

  // Node links.
  std::string node_carry;  // NodeCarryBuffer: the unfinished start of a line
  std::string node_class;  // "5^..." (PC9x) or "7^..." (legacy), from the peer's PC18
  int handshake_mask = 0;
  int unanswered_pings = 0;

  // Partial input line (data that did not end in a line end yet).
  std::string line_carry;

  // Sysop display.
  bool monitored = false;
  int display_flags = 0;

  // Output statistics (per-user queue high-water mark as far as the node can see it).
  uint64_t lines_out = 0;

  bool IsUser() const { return IsUserState(state); }
  bool WantsEnhancedSpots() const {
    return spot_format == kSpotFormatEnhanced || session.Has(kSwEnhanced);
  }
  bool IsNode() const { return IsNodeState(state); }
  bool IsFeed() const { return IsFeedState(state); }
  // Spot distribution serves users and programs' JSON streams.
  bool TakesSpots() const { return IsUser() || (state == kStateJsonStream && !json_replaying); }
  // Announcements, WX and WWV/WCY lines (bit: the switch of their kind) reach logged-in users
  // and programs' JSON streams whose switches let them through; a stream's switches hold only
  // the kinds its request asked for.
  bool TakesBroadcast(uint32_t bit) const {
    return (IsUser() || state == kStateJsonStream) && session.Has(bit);
  }
};

class StreamTable {
 public:
  StreamTable();

  int high_socket() const { return high_socket_; }
  bool InRange(int stream) const { return stream >= 1 && stream <= high_socket_; }
  // Grows every column to hold stream; true when it grew.
  bool EnsureCapacity(int stream);
  // The entry of stream (1..high_socket); the caller checks InRange first.
  StreamEntry& at(int stream) { return *entries_[size_t(stream)]; }
  const StreamEntry& at(int stream) const { return *entries_[size_t(stream)]; }
  // Returns the entry to its initial state (a stream that opens or closes).
  void Reset(int stream);

  // The stream the record now being handled concerns.
  int current() const { return current_; }
  void set_current(int stream) { current_ = stream; }

  int CountInState(bool (*pred)(int)) const;
  int CountUsers() const { return CountInState(&IsUserState); }
  int CountNodes() const { return CountInState(&IsNodeState); }
  // The stream of the logged-in user with exactly this call (with SSID), or 0.
  int FindUser(std::string_view call) const;

 private:
  std::vector<std::unique_ptr<StreamEntry>> entries_;  // index 0 unused
  int high_socket_ = 0;
  int current_ = 0;
};

// Sets the current stream for a scope and puts the old one back: a handler that works on
// another stream must leave the current stream as it found it.
class ScopedCurrentStream {
 public:
  ScopedCurrentStream(StreamTable& table, int stream) : table_(table), saved_(table.current()) {
    table_.set_current(stream);
  }
  ~ScopedCurrentStream() { table_.set_current(saved_); }
  ScopedCurrentStream(const ScopedCurrentStream&) = delete;
  ScopedCurrentStream& operator=(const ScopedCurrentStream&) = delete;

 private:
  StreamTable& table_;
  int saved_;
};

}  // namespace qx
