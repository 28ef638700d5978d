// The fan-out message on the front-end link: one text for many streams.  When a spot goes to
// thousands of users, "0 ETX stream ETX text ETX tag EOT" per user repeats the same text
// thousands of times and makes the front-end parse as many messages.  A front-end that says
// it understands it ("AA40^fanout") gets instead
//
//   "7" ETX <stream>:<tag>,<stream>:<tag>,... ETX <text> EOT
//
// The list comes first and the text last, so the text is everything after the second ETX and
// may hold ETX itself, as in message "0"; Chr 4 is left out of it.  A group holds at most
// kMaxStreams streams and kMaxListBytes of list, so one message stays a sensible size.
//
// FanoutGroup gathers one group: the text it stands for and the list so far.  The node formats
// a spot line once and shares it between every user who gets it, so the same text is the
// same object.  The group holds a reference to it: a text in use is never rebuilt in place
// for the next spot, so the same object also means the same bytes.  The owner closes the
// group before writing anything else, so each stream's output keeps its order.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace qx {

class FanoutGroup {
 public:
  using Text = std::shared_ptr<const std::string>;

  static constexpr size_t kMaxStreams = 1024;
  static constexpr size_t kMaxListBytes = 32 * 1024;
  // The capability record a front-end sends after its announcement, and the feature in it.
  static constexpr std::string_view kCapabilityCode = "AA40";
  static constexpr std::string_view kFeature = "fanout";

  // True while a group is open for exactly this text (same object) and has room for one more
  // stream.
  bool CanTake(const Text& text) const {
    return text_ == text && text_ != nullptr && count_ < kMaxStreams &&
           list_.size() < kMaxListBytes;
  }
  bool open() const { return text_ != nullptr; }
  size_t count() const { return count_; }

  // Starts a group for text; an open group must have been closed first.
  void Start(Text text);
  void Add(int stream, int64_t tag);
  // Appends the message for the open group to out and forgets the group; nothing when none is
  // open.  Returns the number of streams it carried.
  size_t Close(std::string& out);
  // Forgets the open group without writing it (the link went away).
  void Drop();

 private:
  Text text_;
  std::string list_;
  size_t count_ = 0;
};

// True when a capability record ("AA40^<feature>,<feature>...") names the fan-out message.
bool OffersFanout(std::string_view record);

}  // namespace qx
