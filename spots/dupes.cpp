#include "spots/dupes.h"

#include "spots/bad_lists.h"

#include <cmath>
#include <functional>
#include <string_view>

namespace qx {

namespace {

uint64_t HashText(std::string_view s) { return HashShortText(s); }

uint64_t Mix(uint64_t seed, uint64_t h) {
  return seed ^ (h + 0x9e3779b97f4a7c15ull + (seed << 6) + (seed >> 2));
}

int64_t Seconds(SysTime t) {
  return std::chrono::duration_cast<std::chrono::seconds>(t.time_since_epoch()).count();
}

}  // namespace

DupeDetector::DupeDetector(DupeOptions options)
    : options_(options), calls_(&pool_), sentences_(&pool_) {
  if (options_.max_records == 0) options_.max_records = 1;
  ring_.resize(options_.max_records);
  calls_.reserve(options_.max_records);
  sentences_.reserve(options_.max_records);
}

void DupeDetector::Clear() {
  calls_.clear();
  sentences_.clear();
  head_ = 0;
  count_ = 0;
}

void DupeDetector::DropOldest() {
  const Record& r = ring_[head_];
  if (auto it = calls_.find(r.call_hash); it != calls_.end() && --it->second.refs == 0) {
    calls_.erase(it);
  }
  if (auto it = sentences_.find(r.sentence_hash); it != sentences_.end() && --it->second == 0) {
    sentences_.erase(it);
  }
  head_ = (head_ + 1) % ring_.size();
  --count_;
}

void DupeDetector::Expire(int64_t now) {
  const int64_t keep = std::max(options_.call_window, options_.sentence_window).count();
  while (count_ > 0 && ring_[head_].t < now - keep) DropOldest();
}

bool DupeDetector::DupeFound(const Spot& spot, SysTime now_tp, bool remember) {
  const int64_t now = Seconds(now_tp);
  Expire(now);

  // The sentence without its hop field and address: the same spot over two links.
  uint64_t sentence_hash = 0;
  for (int i = kSlotFrequency; i <= kSlotOriginNode; ++i) {
    sentence_hash = Mix(sentence_hash, HashText(spot.slots[size_t(i)]));
  }
  const uint64_t call_hash = HashText(spot.dx_call());

  if (sentences_.find(sentence_hash) != sentences_.end()) return true;
  auto call_it = calls_.find(call_hash);
  if (call_it != calls_.end()) {
    const CallEntry& e = call_it->second;
    for (int i = 0; i < e.used; ++i) {
      const Recent& r = e.recent[i];
      if (now - r.t <= options_.call_window.count() &&
          std::fabs(r.khz - spot.FrequencyKHz) <= options_.khz_tolerance) {
        return true;
      }
    }
  }
  if (!remember) return false;

  if (count_ == ring_.size()) {
    DropOldest();
    call_it = calls_.find(call_hash);  // the dropped record may have been this call's last
  }
  if (call_it == calls_.end()) call_it = calls_.emplace(call_hash, CallEntry{}).first;
  CallEntry& e = call_it->second;
  e.recent[e.next] = Recent{spot.FrequencyKHz, now};
  e.next = uint8_t((e.next + 1) % CallEntry::kKept);
  if (e.used < CallEntry::kKept) ++e.used;
  ++e.refs;
  ++sentences_[sentence_hash];
  ring_[(head_ + count_) % ring_.size()] = Record{call_hash, sentence_hash, now};
  ++count_;
  return false;
}

}  // namespace qx
