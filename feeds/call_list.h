// A set of calls read from a one-call-a-line file ("#" lines are comments) or from a
// ","-joined settings value: the known-calls database (MASTER.SCP), "BadCwSkDx.dat" and the
// skimmer lists of the settings.  Held in upper case; look-ups do not allocate.
#pragma once

#include <cstddef>
#include <filesystem>
#include <string_view>

#include "spots/bad_lists.h"

namespace qx {

class CallList {
 public:
  // Adds every line's call (trimmed, upper-cased); lines that are empty, start with "#" or
  // hold a blank inside are skipped.  Returns the number of calls added.
  size_t LoadText(std::string_view text);
  // False when the file cannot be read; the list is then unchanged.
  bool LoadFile(const std::filesystem::path& path);
  // "K1ABC,DL1XYZ": each item trimmed and upper-cased.
  void AddCommaList(std::string_view text);
  void Add(std::string_view call);
  void Clear() { calls_.clear(); }

  // call must be in upper case (feed calls are).
  bool Contains(std::string_view call) const { return calls_.contains(call); }
  size_t size() const { return calls_.size(); }
  bool empty() const { return calls_.empty(); }

 private:
  UpperSet calls_;
};

}  // namespace qx
