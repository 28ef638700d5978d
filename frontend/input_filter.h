// What the front-end does to the bytes a connection sends before they go to the node:
// telnet negotiation is taken out (options are refused, so clients never wait for an answer),
// control characters are taken out, and the bytes are cut into lines.
//
// Control characters never reach the node, from users and neighbour nodes alike: Chr 3 and
// Chr 4 end records and messages on the link, and the others would end up in stored spots
// and in what other users see.  TAB becomes a blank.  Backspace and DEL remove the previous
// character of the current line (character-mode telnet clients send them as typed); an ANSI
// escape sequence (ESC [ parameters final byte) goes whole, a lone ESC alone.  Bytes from 128
// up stay: calls and names come in UTF-8 or Latin-1.
//
// A complete line goes on with its own line end (CR LF, LF CR, CR or LF); the caller flushes
// an incomplete line after a quiet spell, so that prompts without a line end get through.  A
// line is cut at kMaxLine bytes; the rest of it up to the line end is dropped.
#pragma once

#include <cstddef>
#include <cstdint>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace qx {

class InputAssembler {
 public:
  static constexpr size_t kMaxLine = 2048;

  // Appends the complete lines found in bytes to lines and the telnet refusals owed to the
  // peer to reply.  Neither buffer is cleared.
  void Feed(std::string_view bytes, std::string& lines, std::string& reply);

  bool has_partial() const { return !partial_.empty(); }
  // Appends the incomplete line (without a line end) to lines.  Later bytes of the same line
  // count towards its cut.
  void FlushPartial(std::string& lines);

 private:
  enum class Telnet : uint8_t { kData, kIac, kOption, kSub, kSubIac };
  enum class Escape : uint8_t { kNone, kEsc, kCsi };

  void Data(char ch, std::string& lines);
  void EndLine(char end, std::string& lines);
  void EraseLast();

  Telnet telnet_ = Telnet::kData;
  Escape escape_ = Escape::kNone;
  uint8_t verb_ = 0;
  std::string partial_;
  size_t line_length_ = 0;  // bytes of the current line kept so far, flushed ones included
  // The last line ended with a lone CR (or LF); an LF (or CR) right after belongs to it.
  char end_pair_ = 0;
  bool ended_in_this_feed_ = false;
};

// Input held for a stream while no node is connected.  Bounded: beyond the limit the oldest
// input is dropped, whole lines where possible.
class HeldInput {
 public:
  static constexpr size_t kDefaultLimit = 64 * 1024;

  explicit HeldInput(size_t limit = kDefaultLimit) : limit_(limit) {}
  void Append(std::string_view data);
  std::string_view text() const { return text_; }
  bool empty() const { return text_.empty(); }
  void Clear();
  size_t dropped_bytes() const { return dropped_; }

 private:
  size_t limit_;
  std::string text_;
  size_t dropped_ = 0;
};

// Stream numbers: the lowest free number from 1 upward.
class StreamNumbers {
 public:
  int Allocate();
  // False when the number was not in use (a bookkeeping slip; nothing changes).
  bool Release(int stream);
  bool InUse(int stream) const;
  size_t in_use() const { return in_use_count_; }

 private:
  std::vector<bool> used_{false};  // index 0 never used
  std::set<int> free_below_high_;  // released numbers below high_
  int high_ = 0;                   // every number above is free
  size_t in_use_count_ = 0;
};

}  // namespace qx
