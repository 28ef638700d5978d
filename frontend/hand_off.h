// Work handed from one thread to another in batches.  The sender gathers items in its own
// batch without any lock while it handles a burst (a read from the node link, a round of
// socket events) and publishes the batch whole at the end; the receiver takes everything
// published so far in one swap.  So the lock is taken twice per batch, never per item, and
// the receiver is woken once per batch that found the mailbox empty.  Items keep their order:
// everything one sender publishes is taken in the order it was added.
#pragma once

#include <cstdint>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace qx {

enum class HandOff : uint8_t {
  // To a connection's I/O thread.
  kStart,   // start reading the new connection
  kText,    // queue the text for the connection
  kClose,   // close once the queued output is written; the text is the reason
  kResume,  // no connection: the link has room again, paused reads start again
  // To the link thread.
  kInput,   // bytes read from the connection, ready for the node
  kClosed,  // the connection is closed; the text is the reason
};

template <typename Ptr>
class HandOffBatch {
 public:
  struct Item {
    Ptr target;
    HandOff op;
    uint32_t offset;
    uint32_t size;
  };

  // Returns the item's index, for AddSameText.
  size_t Add(Ptr target, HandOff op, std::string_view text = {}) {
    items_.push_back(Item{std::move(target), op, static_cast<uint32_t>(bytes_.size()),
                          static_cast<uint32_t>(text.size())});
    bytes_.append(text);
    return items_.size() - 1;
  }
  // An item whose text is that of the earlier item at index, without a copy: one text for
  // many targets (a fan-out from the node) is carried once per batch.
  void AddSameText(Ptr target, HandOff op, size_t index) {
    const Item& earlier = items_[index];
    items_.push_back(Item{std::move(target), op, earlier.offset, earlier.size});
  }
  // Appends other's items after this batch's own.
  void Append(HandOffBatch& other) {
    const auto base = static_cast<uint32_t>(bytes_.size());
    bytes_.append(other.bytes_);
    for (Item& item : other.items_) {
      item.offset += base;
      items_.push_back(std::move(item));
    }
    other.Clear();
  }
  void Clear() {
    items_.clear();
    bytes_.clear();
  }
  void Swap(HandOffBatch& other) {
    items_.swap(other.items_);
    bytes_.swap(other.bytes_);
  }
  bool empty() const { return items_.empty(); }
  const std::vector<Item>& items() const { return items_; }
  std::string_view Text(const Item& item) const {
    return std::string_view(bytes_).substr(item.offset, item.size);
  }

 private:
  std::vector<Item> items_;
  std::string bytes_;
};

template <typename Ptr>
class Mailbox {
 public:
  // Moves batch's items in (batch is left empty).  True when the receiver has to be woken:
  // nothing was waiting for it since its last Take.
  bool Publish(HandOffBatch<Ptr>& batch) {
    std::lock_guard lock(mu_);
    if (box_.empty()) {
      box_.Swap(batch);  // the usual case: no copy, and the capacities circulate
    } else {
      box_.Append(batch);
    }
    return !std::exchange(wake_pending_, true);
  }
  // Takes everything published so far into into, which must be empty.
  void Take(HandOffBatch<Ptr>& into) {
    std::lock_guard lock(mu_);
    box_.Swap(into);
    wake_pending_ = false;
  }

 private:
  std::mutex mu_;
  HandOffBatch<Ptr> box_;
  bool wake_pending_ = false;
};

}  // namespace qx
