#include "info/call_states.h"

#include <algorithm>
#include <fstream>
#include <sstream>
#include <vector>

#include "core/text_util.h"
#include "spots/call_sign.h"

namespace qx {
namespace {

// The table key of a call: upper case, no SSID.
std::string Key(std::string_view call) { return ToUpper(BaseCall(Trim(call))); }

bool KeyOk(std::string_view key) {
  if (key.empty() || key.size() > 20) return false;
  bool digit = false;
  for (const char c : key) {
    if (c >= '0' && c <= '9') {
      digit = true;
    } else if (!(c >= 'A' && c <= 'Z') && c != '/') {
      return false;
    }
  }
  return digit;
}

}  // namespace

bool CallStates::ValidState(std::string_view state) {
  if (state.size() < 2 || state.size() > 3) return false;
  return std::all_of(state.begin(), state.end(),
                     [](char c) { return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z'); });
}

void CallStates::LoadText(std::string_view text) {
  states_.clear();
  skipped_ = 0;
  for (std::string_view line : SplitLines(text)) {
    line = Trim(line);
    if (line.empty() || line.front() == '#') continue;
    const std::string collapsed = CollapseBlanks(line);
    const auto parts = Split(collapsed, ' ');
    bool changed = false;
    if (parts.size() != 2 || !Set(parts[0], parts[1], changed)) ++skipped_;
  }
}

bool CallStates::LoadFile(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return false;
  std::ostringstream text;
  text << in.rdbuf();
  LoadText(text.str());
  return true;
}

std::string CallStates::Text() const {
  std::vector<std::pair<std::string, std::string>> rows(states_.begin(), states_.end());
  std::sort(rows.begin(), rows.end());
  std::string out = "# call state (SET/STATEADD adds lines)\n";
  for (const auto& [call, state] : rows) out += call + " " + state + "\n";
  return out;
}

bool CallStates::Set(std::string_view call, std::string_view state, bool& changed) {
  changed = false;
  const std::string key = Key(call);
  if (!KeyOk(key) || !ValidState(state)) return false;
  std::string value = ToUpper(state);
  auto [it, inserted] = states_.try_emplace(key, value);
  if (!inserted && it->second != value) it->second = std::move(value), inserted = true;
  changed = inserted;
  return true;
}

std::string_view CallStates::Find(std::string_view call) const {
  if (states_.empty()) return {};
  const auto it = states_.find(Key(call));
  return it == states_.end() ? std::string_view() : std::string_view(it->second);
}

}  // namespace qx
