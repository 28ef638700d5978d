// The parsed form of one node sentence, the per-type trailer table, and the hop decrement
// that every relaying handler shares.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace qx {

// Where node-side failures are reported.  code 0 means the entry carries no numeric code
// (the lead maps it to ErrorLog::Write, the others to ErrorLog::WriteCoded).
using NodeErrorSink = std::function<void(int code, std::string_view tag, std::string_view text)>;

// One received sentence after parsing.  The dispatcher reuses one instance for every line,
// so handlers must copy what they keep.
struct PcSentence {
  int stream = 0;
  std::string line;                 // after LF/CR removal (upper-cased for PC92)
  std::vector<std::string> fields;  // line split on "^"; [0] is the header
  int number = 0;                   // numeric value of the header from its third character

  int last() const { return static_cast<int>(fields.size()) - 1; }
  // The fields joined again with "^" (after a handler rewrote some of them).
  std::string Join() const;
};

// Splits line on "^" into s.fields, reusing the strings already there.
void SplitFields(std::string_view line, std::vector<std::string>& fields);

// The numeric value of the leading digits of text (an optional sign first), 0 when there
// are none.  Large values saturate instead of overflowing.
int LeadingNumber(std::string_view text);

// Whether field is a hop count as a node may send it: "H" and one or two digits, 1 to 99.
// Anything else ("H0", "H100", "h5") would end or reset the count if it were passed on.
bool IsHopCount(std::string_view field);

// Whether a spot sentence's fields end in one of the shapes peers send: "...^H24^~" as built,
// "...^H29" (a peer that turned a PC61 into a PC11 left the trailer out) or "...^H7^" (passed
// on unchanged from an older node).  Each of them is a whole sentence.
bool HasSpotTrailer(const std::vector<std::string>& fields);

// Per sentence number (10..99): bit 1 = carries a hop field, bit 2 = ends with "~".
class PcCheckFlags {
 public:
  static constexpr int kHopField = 1;
  static constexpr int kTerminator = 2;

  PcCheckFlags();  // the start-up table
  int Get(int number) const;
  void Set(int number, int flags);

 private:
  std::array<uint8_t, 90> flags_{};
};

// State that the node network shares across handlers: the hop decrement's last-hop flag and
// count, the sentence now being handled, and the kind of feed now being handled.
class NodeNetState {
 public:
  explicit NodeNetState(NodeErrorSink errors = {}) : errors_(std::move(errors)) {}

  // Decrements the hop field in place.  True when the sentence may be passed on.
  bool HopsOk(std::string& hop);

  bool last_hop() const { return last_hop_; }
  int last_hop_count() const { return last_hop_count_; }

  int current_sentence = 0;
  bool node_announce = false;  // true while a PC12 from a node is being handled
  int current_feed_kind = 0;   // 1 skimmer, 3 reverse beacon, 9 reporter

  void Error(int code, std::string_view tag, std::string_view text) const {
    if (errors_) errors_(code, tag, text);
  }

 private:
  NodeErrorSink errors_;
  bool last_hop_ = false;
  int last_hop_count_ = 0;
};

}  // namespace qx
