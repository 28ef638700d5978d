#include "core/stream_table.h"

namespace qx {

StreamTable::StreamTable() { entries_.push_back(std::make_unique<StreamEntry>()); }

bool StreamTable::EnsureCapacity(int stream) {
  if (stream <= high_socket_) return false;
  entries_.reserve(size_t(stream) + 1);
  while (int(entries_.size()) <= stream) entries_.push_back(std::make_unique<StreamEntry>());
  high_socket_ = stream;
  return true;
}

void StreamTable::Reset(int stream) {
  if (!InRange(stream)) return;
  *entries_[size_t(stream)] = StreamEntry{};
}

int StreamTable::CountInState(bool (*pred)(int)) const {
  int n = 0;
  for (int s = 1; s <= high_socket_; ++s) {
    if (pred(entries_[size_t(s)]->state)) ++n;
  }
  return n;
}

int StreamTable::FindUser(std::string_view call) const {
  for (int s = 1; s <= high_socket_; ++s) {
    const StreamEntry& e = *entries_[size_t(s)];
    if (e.IsUser() && e.call == call) return s;
  }
  return 0;
}

std::string CleanStreamAttributes(std::string_view text) {
  std::string out;
  for (unsigned char c : text) {
    if (out.size() >= kMaxStreamAttributes) break;
    if (c != '^' && c >= 0x20 && c != 0x7f) out.push_back(static_cast<char>(c));
  }
  return out;
}

std::string_view StreamAttribute(std::string_view attributes, std::string_view key) {
  while (!attributes.empty()) {
    const size_t blank = attributes.find(' ');
    const std::string_view item = attributes.substr(0, blank);
    if (item.size() > key.size() && item.starts_with(key) && item[key.size()] == '=') {
      return item.substr(key.size() + 1);
    }
    if (blank == std::string_view::npos) break;
    attributes.remove_prefix(blank + 1);
  }
  return {};
}

}  // namespace qx
