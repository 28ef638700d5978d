// Output waiting for one connection's socket.  Bounded, but a reader that falls behind is
// told rather than cut off: when a text would pass the bound, one line saying that output
// is being dropped is queued in its place and every further text is dropped (its lines
// counted) until the queue has drained below half the bound; then one line says how many
// lines were lost and output resumes.  Whoever owns the socket decides what to do with a
// reader that makes no progress at all.
//
// The bytes handed out for a socket write stay put while new text is queued, so a write may
// be in flight at any time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

namespace qx {

class OutputQueue {
 public:
  enum class Added : uint8_t {
    kQueued,   // the text waits for the socket
    kBehind,   // the text was dropped and the notice queued: an episode of dropping begins
    kDropped,  // the text was dropped: the reader is still behind
  };

  explicit OutputQueue(size_t limit) : limit_(limit) {}

  Added Add(std::string_view text) { return Add(text, LinesIn(text)); }
  // The same for a text that counts as the given number of lines when dropped.
  Added Add(std::string_view text, uint64_t lines);
  // For readers that take messages rather than lines (WebSocket clients): nothing is queued
  // when dropping begins, and when it ends notice(lines dropped) is queued as it is.
  void set_resume_notice(std::function<std::string(uint64_t)> notice) {
    resume_notice_ = std::move(notice);
  }
  // The bytes for the next socket write; empty when nothing waits.  Valid until Wrote.
  std::string_view NextWrite();
  // n bytes of NextWrite went out.  When that ends an episode (the queue drained below half
  // the bound) the notice of the loss is queued and the number of lines dropped is returned;
  // otherwise 0.
  uint64_t Wrote(size_t n);
  void Clear();

  size_t pending() const { return queued_.size() + writing_.size() - written_; }
  bool empty() const { return pending() == 0; }
  bool behind() const { return behind_; }
  // Lines a text counts as when dropped: its line ends, at least one.
  static uint64_t LinesIn(std::string_view text);

 private:
  void Queue(std::string_view text);

  size_t limit_;
  std::string queued_;
  std::string writing_;
  size_t written_ = 0;  // bytes of writing_ already written
  bool behind_ = false;
  bool at_line_start_ = true;  // the last byte queued ended a line (or nothing was queued)
  uint64_t dropped_lines_ = 0;
  std::function<std::string(uint64_t)> resume_notice_;
};

}  // namespace qx
