#include "frontend/output_queue.h"

#include <algorithm>

namespace qx {
namespace {

// A buffer grown beyond this by a burst is given back once it is empty.
constexpr size_t kKeepCapacity = 256 * 1024;

constexpr std::string_view kBehindNotice =
    "*** Spots are being dropped: your connection cannot keep up with them.\r\n";

}  // namespace

uint64_t OutputQueue::LinesIn(std::string_view text) {
  return std::max<uint64_t>(1, uint64_t(std::count(text.begin(), text.end(), '\n')));
}

void OutputQueue::Queue(std::string_view text) {
  if (text.empty()) return;
  queued_.append(text);
  at_line_start_ = text.back() == '\n';
}

OutputQueue::Added OutputQueue::Add(std::string_view text, uint64_t lines) {
  if (behind_) {
    dropped_lines_ += lines;
    return Added::kDropped;
  }
  if (pending() + text.size() <= limit_) {
    Queue(text);
    return Added::kQueued;
  }
  behind_ = true;
  dropped_lines_ = lines;
  if (resume_notice_) return Added::kBehind;
  // The notice starts a line of its own, even after a prompt.
  if (!at_line_start_) Queue("\r\n");
  Queue(kBehindNotice);
  return Added::kBehind;
}

std::string_view OutputQueue::NextWrite() {
  if (written_ == writing_.size()) {
    writing_.clear();
    written_ = 0;
    writing_.swap(queued_);
    if (queued_.capacity() > kKeepCapacity) std::string().swap(queued_);
  }
  return std::string_view(writing_).substr(written_);
}

uint64_t OutputQueue::Wrote(size_t n) {
  written_ = std::min(writing_.size(), written_ + n);
  if (written_ == writing_.size()) {
    writing_.clear();
    written_ = 0;
    if (writing_.capacity() > kKeepCapacity) std::string().swap(writing_);
  }
  if (!behind_ || pending() >= limit_ / 2) return 0;
  behind_ = false;
  const uint64_t lines = dropped_lines_;
  dropped_lines_ = 0;
  if (resume_notice_) {
    Queue(resume_notice_(lines));
    return lines;
  }
  if (!at_line_start_) Queue("\r\n");
  Queue("*** " + std::to_string(lines) + (lines == 1 ? " line was" : " lines were") +
        " dropped because your connection could not keep up.\r\n");
  return lines;
}

void OutputQueue::Clear() {
  std::string().swap(queued_);
  // A write in flight still owns writing_'s bytes; what is left of them is simply not
  // handed out again.
  written_ = writing_.size();
  behind_ = false;
  dropped_lines_ = 0;
}

}  // namespace qx
