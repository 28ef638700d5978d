#include "core/link_arrival.h"

#include <algorithm>
#include <cstring>
#include <exception>

#include "core/text_util.h"

namespace qx {

LinkArrival::LinkArrival(Sink& sink, size_t pending_capacity) : sink_(sink) {
  pending_.resize(std::max<size_t>(pending_capacity, 1));
  carry_.reserve(4096);
}

LinkArrival::~LinkArrival() = default;

void LinkArrival::AppendPending(std::string_view bytes) {
  if (bytes.empty()) return;
  const size_t need = pending_used_ + bytes.size();
  if (need > pending_.size()) {
    // Outgrowing the buffer is rare (a handler that yields for long under heavy traffic);
    // double it so that it stays rare.
    pending_.resize(std::max(need, pending_.size() * 2));
  }
  std::memcpy(pending_.data() + pending_used_, bytes.data(), bytes.size());
  pending_used_ = need;
}

void LinkArrival::Arrive(std::string_view bytes) {
  bytes_in_ += bytes.size();
  if (busy_) {
    // Re-entrant: the arrival being walked yielded to the event loop.  Keep the bytes in
    // order for the next regular arrival.
    AppendPending(bytes);
    return;
  }
  peak_pending_ = std::max(peak_pending_, pending_used_);
  if (carry_.empty() && pending_used_ == 0 && bytes.empty()) return;

  busy_ = true;
  busy_seconds_ = 0;
  if (scratch_.size() <= size_t(depth_)) scratch_.push_back(std::make_unique<Scratch>());
  Scratch& scratch = *scratch_[size_t(depth_)];

  std::string_view text = bytes;
  if (!carry_.empty() || pending_used_ > 0) {
    // Carry first, then what arrived while busy, then this arrival.
    scratch.text.assign(carry_);
    scratch.text.append(pending_.data(), pending_used_);
    scratch.text.append(bytes);
    pending_used_ = 0;
    carry_.clear();
    text = scratch.text;
  }
  SplitInto(text, kRecordEnd, scratch.records);
  // The last element is never a whole record.  It is kept before the walk, so that even an
  // arrival forced through by the watchdog during the walk finds the bytes in order.
  carry_.assign(scratch.records.back());
  Walk(scratch);
}

void LinkArrival::Walk(Scratch& scratch) {
  struct Finish {
    LinkArrival& self;
    ~Finish() {
      --self.depth_;
      self.busy_ = false;
    }
  };
  ++depth_;
  Finish finish{*this};
  const size_t n = scratch.records.size() - 1;
  for (size_t i = 0; i < n; ++i) {
    const std::string_view record = scratch.records[i];
    if (record.empty()) continue;  // two terminators in a row carry nothing
    ++records_in_;
    try {
      sink_.OnRecord(record);
    } catch (const std::exception& e) {
      ++record_errors_;
      sink_.OnRecordError(record, e.what());
    } catch (...) {
      ++record_errors_;
      sink_.OnRecordError(record, "unknown error");
    }
  }
}

LinkArrival::BusyReport LinkArrival::Tick() {
  if (!busy_) {
    busy_seconds_ = 0;
    return {};
  }
  ++busy_seconds_;
  BusyReport report{busy_seconds_, false};
  if (busy_seconds_ >= kBusyResetSeconds) {
    report.reset = true;
    busy_seconds_ = 0;
    busy_ = false;
    pending_used_ = 0;
  }
  return report;
}

std::string LinkArrival::BusyText(int seconds) {
  return "WinsockClusterBusy for " + std::to_string(seconds) + " secs ";
}

void LinkArrival::Reset() {
  carry_.clear();
  pending_used_ = 0;
}

}  // namespace qx
