// The US state or Canadian province of calls, for the state columns of spot lines.  The
// sysop adds calls with SET/STATEADD; the table lives in data/files/states.dat, one
// "CALL STATE" pair a line ("#" starts a comment).  Calls are kept without SSID, upper-cased.
#pragma once

#include <filesystem>
#include <string>
#include <string_view>
#include <unordered_map>

namespace qx {

class CallStates {
 public:
  // Lines that are not "CALL STATE" are skipped and counted.
  void LoadText(std::string_view text);
  bool LoadFile(const std::filesystem::path& path);
  // The file text, sorted by call.
  std::string Text() const;

  // A state is two or three letters ("MA", "ON", "NSW").  Returns false for a bad call or
  // state; changed tells whether the table changed (false when the call already had it).
  bool Set(std::string_view call, std::string_view state, bool& changed);
  // The state of a call (its SSID ignored), "" when unknown.
  std::string_view Find(std::string_view call) const;

  size_t size() const { return states_.size(); }
  size_t skipped() const { return skipped_; }

  static bool ValidState(std::string_view state);

 private:
  std::unordered_map<std::string, std::string> states_;
  size_t skipped_ = 0;
};

}  // namespace qx
