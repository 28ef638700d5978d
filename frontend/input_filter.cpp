#include "frontend/input_filter.h"

namespace qx {
namespace {

constexpr uint8_t kIac = 255;
constexpr uint8_t kDont = 254;
constexpr uint8_t kDo = 253;
constexpr uint8_t kWont = 252;
constexpr uint8_t kWill = 251;
constexpr uint8_t kSb = 250;
constexpr uint8_t kSe = 240;

}  // namespace

void InputAssembler::EndLine(char end, std::string& lines) {
  lines.append(partial_);
  lines.push_back(end);
  partial_.clear();
  line_length_ = 0;
}

void InputAssembler::Feed(std::string_view bytes, std::string& lines, std::string& reply) {
  cr_in_this_feed_ = false;
  for (const char ch : bytes) {
    const auto c = static_cast<uint8_t>(ch);
    switch (telnet_) {
      case Telnet::kData:
        if (c == kIac) {
          telnet_ = Telnet::kIac;
          continue;
        }
        break;
      case Telnet::kIac:
        if (c == kIac) {  // an escaped 255 is data
          telnet_ = Telnet::kData;
          break;
        }
        if (c >= kWill && c <= kDont) {
          verb_ = c;
          telnet_ = Telnet::kOption;
        } else if (c == kSb) {
          telnet_ = Telnet::kSub;
        } else {
          telnet_ = Telnet::kData;  // a two-byte command: nothing to answer
        }
        continue;
      case Telnet::kOption:
        // Every option stays off: refuse what the peer offers or asks for; an offer
        // withdrawn (WONT/DONT) needs no answer, which also keeps negotiation from looping.
        if (verb_ == kWill || verb_ == kDo) {
          reply.push_back(static_cast<char>(kIac));
          reply.push_back(static_cast<char>(verb_ == kWill ? kDont : kWont));
          reply.push_back(ch);
        }
        telnet_ = Telnet::kData;
        continue;
      case Telnet::kSub:
        if (c == kIac) telnet_ = Telnet::kSubIac;
        continue;
      case Telnet::kSubIac:
        telnet_ = c == kSe ? Telnet::kData : Telnet::kSub;
        continue;
    }

    // A data byte.
    if (c == 0 || c == 3) continue;
    if (c == '\n') {
      if (after_cr_) {
        // CR LF: the line already went on with its CR.  Within the same batch the LF joins
        // it; an LF arriving in a later batch is dropped so no empty line appears.
        if (cr_in_this_feed_) lines.push_back('\n');
        after_cr_ = false;
        continue;
      }
      EndLine('\n', lines);
      continue;
    }
    if (c == '\r') {
      EndLine('\r', lines);
      after_cr_ = true;
      cr_in_this_feed_ = true;
      continue;
    }
    after_cr_ = false;
    if (line_length_ < kMaxLine) {
      partial_.push_back(ch);
      ++line_length_;
    }
  }
}

void InputAssembler::FlushPartial(std::string& lines) {
  lines.append(partial_);
  partial_.clear();
  after_cr_ = false;
}

void HeldInput::Append(std::string_view data) {
  text_.append(data);
  if (text_.size() <= limit_) return;
  size_t cut = text_.size() - limit_;
  // Prefer dropping up to a line end so that the held text starts at a line's beginning.
  const size_t end = text_.find_first_of("\r\n", cut - 1);
  if (end != std::string::npos) {
    cut = end + 1;
    if (text_[end] == '\r' && cut < text_.size() && text_[cut] == '\n') ++cut;
  }
  text_.erase(0, cut);
  dropped_ += cut;
}

void HeldInput::Clear() {
  text_.clear();
  text_.shrink_to_fit();
}

int StreamNumbers::Allocate() {
  int stream;
  if (!free_below_high_.empty()) {
    stream = *free_below_high_.begin();
    free_below_high_.erase(free_below_high_.begin());
  } else {
    stream = ++high_;
    if (used_.size() <= static_cast<size_t>(stream)) used_.resize(stream + 1, false);
  }
  used_[stream] = true;
  ++in_use_count_;
  return stream;
}

bool StreamNumbers::Release(int stream) {
  if (!InUse(stream)) return false;
  used_[stream] = false;
  --in_use_count_;
  if (stream == high_) {
    --high_;
    // Numbers freed earlier that now sit at the top are no longer below high_.
    while (high_ > 0 && !used_[high_]) {
      free_below_high_.erase(high_);
      --high_;
    }
  } else {
    free_below_high_.insert(stream);
  }
  return true;
}

bool StreamNumbers::InUse(int stream) const {
  return stream >= 1 && static_cast<size_t>(stream) < used_.size() && used_[stream];
}

}  // namespace qx
