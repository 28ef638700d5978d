#include "core/link_fanout.h"

#include <charconv>
#include <utility>

#include "core/text_util.h"

namespace qx {

namespace {

constexpr char kElement = '\x03';
constexpr char kMessageEnd = '\x04';

void AppendNumber(std::string& out, long long value) {
  char buf[24];
  const auto [end, ec] = std::to_chars(buf, buf + sizeof buf, value);
  out.append(buf, end);
}

}  // namespace

void FanoutGroup::Start(Text text) {
  text_ = std::move(text);
  list_.clear();
  count_ = 0;
}

void FanoutGroup::Add(int stream, int64_t tag) {
  if (count_ > 0) list_.push_back(',');
  AppendNumber(list_, stream);
  list_.push_back(':');
  AppendNumber(list_, tag);
  ++count_;
}

size_t FanoutGroup::Close(std::string& out) {
  if (text_ == nullptr) return 0;
  const size_t carried = count_;
  if (carried > 0) {
    out.push_back('7');
    out.push_back(kElement);
    out.append(list_);
    out.push_back(kElement);
    if (text_->find(kMessageEnd) == std::string::npos) {
      out.append(*text_);
    } else {
      // Chr 4 would end the message early; Chr 3 may stay, the text runs to the end.
      for (char c : *text_) {
        if (c != kMessageEnd) out.push_back(c);
      }
    }
    out.push_back(kMessageEnd);
  }
  Drop();
  return carried;
}

void FanoutGroup::Drop() {
  text_.reset();
  list_.clear();
  count_ = 0;
}

bool OffersFanout(std::string_view record) {
  if (!record.starts_with(FanoutGroup::kCapabilityCode)) return false;
  const size_t caret = record.find('^');
  if (caret == std::string_view::npos) return false;
  for (std::string_view field : Split(record.substr(caret + 1), '^')) {
    for (std::string_view item : Split(field, ',')) {
      if (Trim(item) == FanoutGroup::kFeature) return true;
    }
  }
  return false;
}

}  // namespace qx
