// Reads what the node writes on its link.  Messages are elements joined by Chr 3 and ended by
// Chr 4; between messages the node may also write the raw texts "QX Cluster", "rxAA18" and
// "8270", which carry no terminator and may be glued to the next message, so they are
// recognised only where a message would begin.
//
// The parser owns the receive buffer: the socket reads straight into PrepareWrite(), so a
// message is never copied before it is handled.  The views in a NodeMessage point into that
// buffer and stay valid until the next PrepareWrite() or Feed().
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string_view>

#include "core/link_fanout.h"

namespace qx {

// The capability this front-end offers in "AA40", and the most streams one fan-out message may
// name; the node keeps to the same bound (core/link_fanout.h).
inline constexpr std::string_view kFanoutFeature = FanoutGroup::kFeature;
inline constexpr size_t kMaxFanoutTargets = FanoutGroup::kMaxStreams;

enum class NodeMessageKind {
  kGreeting,           // raw "QX Cluster"
  kKeepAliveAnswer,    // raw "rxAA18"
  kStreamListRequest,  // raw "8270"
  kSend,               // "0": stream, text, tag
  kClose,              // "1": stream, tag
  kOpen,               // "2": host, port, label
  kIdentity,           // "3": stream, call (in text), state, tag
  kProof,              // "4": the node's nonce (in text) and its proof (in label)
  kAttributes,         // "5": stream, attributes (in text), tag
  kHandOver,           // "6": the node is stopping (reason in text); hold input from here
  kFanOut,             // "7": one text (in text) for the streams of a list (in label)
  kMalformed,          // error says why; text holds (the start of) the message
};

struct NodeMessage {
  NodeMessageKind kind = NodeMessageKind::kMalformed;
  int stream = 0;
  uint64_t tag = 0;  // 0 matches any connection on the stream
  std::string_view text;
  std::string_view host;
  int port = 0;
  std::string_view label;
  int state = 0;
  int targets = 0;  // kFanOut: the entries in the list
  std::string_view error;
};

// Walks the list of a fan-out message, "<stream>:<tag>,<stream>:<tag>,...".  Next gives one
// entry at a time; false at the end, or at the first entry that cannot be read (then
// failed() is true).  Pure.
class FanoutTargets {
 public:
  explicit FanoutTargets(std::string_view list) : left_(list), done_(list.empty()) {}
  bool Next(int& stream, uint64_t& tag);
  bool failed() const { return failed_; }

 private:
  std::string_view left_;
  bool done_;
  bool failed_ = false;
};

// Decodes one message without its Chr 4.  Pure; used by the parser and by tests.
NodeMessage DecodeNodeMessage(std::string_view message);

class NodeMessageParser {
 public:
  static constexpr size_t kDefaultMaxMessage = 16 * 1024 * 1024;

  explicit NodeMessageParser(size_t max_message = kDefaultMaxMessage);

  // Room for at least min_room more bytes; write into it, then Commit() what was written.
  std::span<char> PrepareWrite(size_t min_room);
  void Commit(size_t n);
  // Copies bytes in (tests and small inputs).
  void Feed(std::string_view bytes);

  // The next complete message, or false when more bytes are needed.  A message longer than
  // the maximum is reported once as kMalformed and skipped up to its Chr 4.
  bool Next(NodeMessage& out);

  // Forgets everything buffered (a new link).
  void Reset();
  // A link that has not yet proved itself gets a small bound, so a stranger cannot make
  // the front-end buffer megabytes; it is raised once the node is known.
  void set_max_message(size_t max_message) { max_message_ = max_message; }
  size_t buffered() const { return end_ - read_; }

 private:
  size_t max_message_;
  std::unique_ptr<char[]> buf_;
  size_t capacity_ = 0;
  size_t read_ = 0;  // start of the unread bytes
  size_t scan_ = 0;  // bytes before this (from read_) hold no Chr 4
  size_t end_ = 0;
  bool skipping_ = false;  // inside an overlong message, dropping up to its Chr 4
};

}  // namespace qx
