// User information spread between nodes (name, QTH, location, home node, locator).
#pragma once

#include <array>
#include <cstddef>
#include <functional>
#include <string>
#include <string_view>
#include <unordered_map>

#include "node/pc_sentence.h"

namespace qx {

class Monitor;

// Five lists, one per information type, each holding at most one "<base call> <value>"
// entry per call.
class Pc41Lists {
 public:
  enum class StoreResult { kAdded, kReplaced, kRepeat, kBadType };

  StoreResult Store(int type, std::string_view base_call, std::string_view entry);
  // The number of entries of type 1..5 (0 outside).
  size_t Count(int type) const;
  // The entry for call, or nullptr.
  const std::string* Find(int type, std::string_view base_call) const;

 private:
  std::array<std::unordered_map<std::string, std::string>, 5> lists_;
};

struct Pc41Deps {
  // True when the value holds a bad word (the check is made with the context word "PC41").
  std::function<bool(std::string_view value)> bad_word;
  // The call-sign validity check of the log-in.
  std::function<bool(std::string_view call)> valid_call;
  // The bad-data log: the reason text and the whole line.
  std::function<void(std::string_view text, std::string_view line)> bad_data_log;
  // Files a record line ("PC41^^" + sentence) under a call in the user store.
  std::function<void(std::string_view call, std::string_view record_line)> store;
  // Called with the type when a list's count changed (the console's counters).
  std::function<void(int type)> count_changed;
  Monitor* monitor = nullptr;
};

struct Pc41Result {
  bool processed = false;  // taken into the lists and the user record
  bool relay = false;      // processed and the hop decrement allows passing it on
};

// Handles one received PC41 (the dispatcher's handler).  Rewrites s.fields: field 1 ends as
// the base call and field 4 as the decremented (and capped) hop field.
Pc41Result ProcessPC41(PcSentence& s, Pc41Lists& lists, NodeNetState& state, const Pc41Deps& deps);

}  // namespace qx
