#include "core/frontend_counters.h"

#include <charconv>

#include "core/text_util.h"

namespace qx {
namespace {

bool GoodName(std::string_view name) {
  if (name.empty() || name.size() > FrontendCounterValues::kMaxNameLength) return false;
  for (char c : name) {
    if (!((c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '_')) return false;
  }
  return true;
}

}  // namespace

size_t FrontendCounterValues::Take(std::string_view record) {
  size_t bad = 0;
  bool code = true;
  for (std::string_view pair : Split(record, '^')) {
    if (code) {  // "AA20"
      code = false;
      continue;
    }
    const size_t eq = pair.find('=');
    if (eq == std::string_view::npos) {
      ++bad;
      continue;
    }
    const std::string_view name = pair.substr(0, eq);
    const std::string_view text = pair.substr(eq + 1);
    uint64_t value = 0;
    const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (!GoodName(name) || text.empty() || ec != std::errc() || end != text.data() + text.size()) {
      ++bad;
      continue;
    }
    const auto it = values_.find(name);
    if (it != values_.end()) {
      it->second = value;
    } else if (values_.size() < kMaxNames) {
      values_.emplace(std::string(name), value);
    } else {
      ++bad;
    }
  }
  return bad;
}

}  // namespace qx
