#include "frontend/node_messages.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstring>

#include "frontend/link_records.h"

namespace qx {
namespace {

struct RawText {
  std::string_view text;
  NodeMessageKind kind;
};

constexpr std::array<RawText, 3> kRawTexts{{
    {"QX Cluster", NodeMessageKind::kGreeting},
    {"rxAA18", NodeMessageKind::kKeepAliveAnswer},
    {"8270", NodeMessageKind::kStreamListRequest},
}};

template <typename T>
bool ParseNumber(std::string_view text, T& out) {
  if (text.empty()) return false;
  const auto res = std::from_chars(text.data(), text.data() + text.size(), out);
  return res.ec == std::errc() && res.ptr == text.data() + text.size();
}

NodeMessage Malformed(std::string_view message, std::string_view why) {
  NodeMessage m;
  m.kind = NodeMessageKind::kMalformed;
  m.text = message.substr(0, 80);
  m.error = why;
  return m;
}

bool ParseStream(std::string_view text, int& stream) {
  return ParseNumber(text, stream) && stream >= 1;
}

}  // namespace

NodeMessage DecodeNodeMessage(std::string_view message) {
  // Element boundaries; at most a handful are needed, the text of "0" may itself hold Chr 3.
  const size_t first = message.find(kRecordEnd);
  if (first == std::string_view::npos) return Malformed(message, "no elements");
  const std::string_view code = message.substr(0, first);
  const std::string_view rest = message.substr(first + 1);
  NodeMessage m;

  if (code == "0" || code == "5") {
    // Stream first, tag last, and the text everything between (it may hold Chr 3).
    const size_t s_end = rest.find(kRecordEnd);
    const size_t t_begin = rest.rfind(kRecordEnd);
    if (s_end == std::string_view::npos || t_begin == s_end) {
      return Malformed(message, "stream message without text or tag");
    }
    if (!ParseStream(rest.substr(0, s_end), m.stream)) return Malformed(message, "bad stream");
    if (!ParseNumber(rest.substr(t_begin + 1), m.tag)) return Malformed(message, "bad tag");
    m.kind = code == "0" ? NodeMessageKind::kSend : NodeMessageKind::kAttributes;
    m.text = rest.substr(s_end + 1, t_begin - s_end - 1);
    return m;
  }

  if (code == "7") {
    // The list first, the text last: the text is everything after the list and may hold
    // Chr 3.  Every entry is checked here, so the handler walks a list known to be good.
    const size_t list_end = rest.find(kRecordEnd);
    if (list_end == std::string_view::npos) return Malformed(message, "fan-out without text");
    m.label = rest.substr(0, list_end);
    m.text = rest.substr(list_end + 1);
    if (m.label.empty()) return Malformed(message, "fan-out without streams");
    if (m.text.empty()) return Malformed(message, "fan-out without text");
    FanoutTargets targets(m.label);
    int stream = 0;
    uint64_t tag = 0;
    while (targets.Next(stream, tag)) {
      if (++m.targets > static_cast<int>(kMaxFanoutTargets)) {
        return Malformed(message, "fan-out to too many streams");
      }
    }
    if (targets.failed()) return Malformed(message, "bad stream or tag in fan-out");
    m.kind = NodeMessageKind::kFanOut;
    return m;
  }

  // The other messages have a few short elements.
  std::array<std::string_view, 5> el{};
  size_t count = 0;
  std::string_view left = rest;
  while (count < el.size()) {
    const size_t p = left.find(kRecordEnd);
    el[count++] = left.substr(0, p);
    if (p == std::string_view::npos) break;
    left.remove_prefix(p + 1);
  }

  if (code == "1") {
    if (!ParseStream(el[0], m.stream)) return Malformed(message, "bad stream");
    if (count >= 3 && !ParseNumber(el[count - 1], m.tag)) return Malformed(message, "bad tag");
    m.kind = NodeMessageKind::kClose;
    return m;
  }
  if (code == "2") {
    if (count < 2) return Malformed(message, "open request without host and port");
    m.host = el[0];
    if (m.host.empty()) return Malformed(message, "open request without host");
    if (!ParseNumber(el[1], m.port) || m.port < 1 || m.port > 65535) {
      return Malformed(message, "bad port");
    }
    if (count >= 3) m.label = el[2];
    m.kind = NodeMessageKind::kOpen;
    return m;
  }
  if (code == "3") {
    if (count < 3) return Malformed(message, "identity without call and state");
    if (!ParseStream(el[0], m.stream)) return Malformed(message, "bad stream");
    m.text = el[1];
    if (!ParseNumber(el[2], m.state)) return Malformed(message, "bad state");
    if (count >= 4 && !ParseNumber(el[3], m.tag)) return Malformed(message, "bad tag");
    m.kind = NodeMessageKind::kIdentity;
    return m;
  }
  if (code == "4") {
    if (count != 2 || el[0].empty() || el[1].empty()) {
      return Malformed(message, "proof without nonce and proof");
    }
    m.text = el[0];
    m.label = el[1];
    m.kind = NodeMessageKind::kProof;
    return m;
  }
  if (code == "6") {
    m.text = el[0];
    m.kind = NodeMessageKind::kHandOver;
    return m;
  }
  return Malformed(message, "unknown message code");
}

bool FanoutTargets::Next(int& stream, uint64_t& tag) {
  if (done_) return false;
  const size_t comma = left_.find(',');
  const std::string_view entry = left_.substr(0, comma);
  if (comma == std::string_view::npos) {
    done_ = true;
  } else {
    left_.remove_prefix(comma + 1);
  }
  const size_t colon = entry.find(':');
  if (colon == std::string_view::npos || !ParseStream(entry.substr(0, colon), stream) ||
      !ParseNumber(entry.substr(colon + 1), tag)) {
    done_ = failed_ = true;
    return false;
  }
  return true;
}

NodeMessageParser::NodeMessageParser(size_t max_message) : max_message_(max_message) {}

std::span<char> NodeMessageParser::PrepareWrite(size_t min_room) {
  if (read_ > 0) {
    // Move the unread tail to the front; it is at most one partial message.
    const size_t left = end_ - read_;
    if (left > 0) std::memmove(buf_.get(), buf_.get() + read_, left);
    scan_ = scan_ > read_ ? scan_ - read_ : 0;
    end_ = left;
    read_ = 0;
  }
  if (capacity_ - end_ < min_room) {
    size_t cap = std::max<size_t>(capacity_ * 2, 64 * 1024);
    while (cap - end_ < min_room) cap *= 2;
    auto bigger = std::make_unique<char[]>(cap);
    if (end_ > 0) std::memcpy(bigger.get(), buf_.get(), end_);
    buf_ = std::move(bigger);
    capacity_ = cap;
  }
  return {buf_.get() + end_, capacity_ - end_};
}

void NodeMessageParser::Commit(size_t n) { end_ += std::min(n, capacity_ - end_); }

void NodeMessageParser::Feed(std::string_view bytes) {
  const auto room = PrepareWrite(bytes.size());
  if (!bytes.empty()) std::memcpy(room.data(), bytes.data(), bytes.size());
  Commit(bytes.size());
}

void NodeMessageParser::Reset() {
  read_ = scan_ = end_ = 0;
  skipping_ = false;
}

bool NodeMessageParser::Next(NodeMessage& out) {
  while (read_ < end_) {
    const char* base = buf_.get();
    const std::string_view unread(base + read_, end_ - read_);
    scan_ = std::max(scan_, read_);

    if (!skipping_) {
      bool need_more = false;
      for (const RawText& raw : kRawTexts) {
        if (unread.starts_with(raw.text)) {
          read_ += raw.text.size();
          out = NodeMessage{};
          out.kind = raw.kind;
          return true;
        }
        if (raw.text.starts_with(unread)) need_more = true;
      }
      if (need_more) return false;
    }

    const void* eot = std::memchr(base + scan_, kMessageEnd, end_ - scan_);
    if (eot == nullptr) {
      scan_ = end_;
      if (!skipping_ && end_ - read_ > max_message_) {
        out = Malformed(unread, "message too long, dropped");
        skipping_ = true;
        read_ = scan_ = end_;
        return true;
      }
      if (skipping_) read_ = scan_ = end_;
      return false;
    }
    const size_t eot_pos = static_cast<const char*>(eot) - base;
    const std::string_view message(base + read_, eot_pos - read_);
    read_ = scan_ = eot_pos + 1;
    if (skipping_) {
      skipping_ = false;
      continue;
    }
    if (message.empty()) continue;
    out = DecodeNodeMessage(message);
    return true;
  }
  return false;
}

}  // namespace qx
