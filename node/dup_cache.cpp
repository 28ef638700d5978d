#include "node/dup_cache.h"

#include <cctype>
#include <vector>

#include "core/text_util.h"

namespace qx {

std::string RelayDupCache::LegacyKey(std::string_view line) {
  while (!line.empty() && (line.back() == '\r' || line.back() == '\n')) line.remove_suffix(1);
  const std::vector<std::string_view> fields = Split(line, '^');
  // The hop field is the last one that is neither empty nor the terminator.
  size_t i = fields.size();
  while (i > 1 && (fields[i - 1].empty() || fields[i - 1] == "~")) --i;
  if (i <= 1) return std::string(line);
  const std::string_view hop = fields[i - 1];
  bool is_hop = hop.size() >= 2 && hop[0] == 'H';
  for (size_t k = 1; is_hop && k < hop.size(); ++k) is_hop = std::isdigit(uint8_t(hop[k])) != 0;
  if (!is_hop) return std::string(line);
  std::string key;
  key.reserve(line.size());
  for (size_t k = 0; k < fields.size(); ++k) {
    if (k == i - 1) continue;
    key += fields[k];
    key += '^';
  }
  return key;
}

void RelayDupCache::Evict(int64_t now) {
  while (!order_.empty() && (order_.front().second <= now || expiry_.size() >= capacity_)) {
    auto it = expiry_.find(order_.front().first);
    // The key may have been renewed with a later expiry; keep it then.
    if (it != expiry_.end() &&
        (it->second == order_.front().second || expiry_.size() >= capacity_)) {
      expiry_.erase(it);
    }
    order_.pop_front();
  }
}

bool RelayDupCache::Seen(std::string key, int64_t window, int64_t now) {
  auto it = expiry_.find(key);
  if (it != expiry_.end() && it->second > now) return true;
  Evict(now);
  const int64_t until = now + window;
  expiry_[key] = until;
  order_.emplace_back(std::move(key), until);
  return false;
}

bool RelayDupCache::SeenLegacy(std::string_view line, int64_t now) {
  std::string key = "L";
  key += LegacyKey(line);
  return Seen(std::move(key), kLegacyWindow, now);
}

bool RelayDupCache::SeenPc41(std::string_view call, std::string_view type, int64_t now) {
  std::string key = "I";
  key += call;
  key += '|';
  key += type;
  return Seen(std::move(key), kPc41Window, now);
}

bool RelayDupCache::SeenPc93(std::string_view from, std::string_view text, std::string_view origin,
                             int64_t now) {
  std::string key = "T";
  key += from;
  key += '|';
  key += text;
  key += '|';
  key += origin;
  return Seen(std::move(key), kPc93Window, now);
}

bool RelayDupCache::SeenAnnounce(std::string_view from, std::string_view to, std::string_view text,
                                 int64_t now) {
  std::string key = "A";
  key += from;
  key += '|';
  key += to;
  key += '|';
  int kept = 0;
  for (char c : text) {
    if (kept >= 30) break;
    if (std::isalnum(uint8_t(c))) {
      key += static_cast<char>(std::toupper(uint8_t(c)));
      ++kept;
    }
  }
  return Seen(std::move(key), kAnnounceWindow, now);
}

}  // namespace qx
