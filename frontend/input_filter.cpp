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
constexpr uint8_t kBackspace = 8;
constexpr uint8_t kTab = 9;
constexpr uint8_t kEsc = 27;
constexpr uint8_t kDel = 127;

}  // namespace

void InputAssembler::EndLine(char end, std::string& lines) {
  lines.append(partial_);
  lines.push_back(end);
  partial_.clear();
  line_length_ = 0;
}

void InputAssembler::EraseLast() {
  if (partial_.empty()) return;  // nothing, or only what already went on as a prompt
  // A UTF-8 character goes whole: its continuation bytes back to the lead byte.  Anything
  // else (Latin-1, or bytes that do not form a whole UTF-8 character) goes one byte at once.
  size_t start = partial_.size() - 1;
  size_t continuations = 0;
  while (start > 0 && continuations < 3 && (uint8_t(partial_[start]) & 0xC0) == 0x80) {
    --start;
    ++continuations;
  }
  const auto lead = uint8_t(partial_[start]);
  const size_t length = lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : lead >= 0xC0 ? 2 : 1;
  if (continuations == 0 || length != continuations + 1) start = partial_.size() - 1;
  line_length_ -= partial_.size() - start;
  partial_.resize(start);
}

void InputAssembler::Data(char ch, std::string& lines) {
  const auto c = static_cast<uint8_t>(ch);
  if (escape_ == Escape::kEsc) {
    escape_ = Escape::kNone;
    if (c == '[') {
      escape_ = Escape::kCsi;
      return;
    }
    // A lone ESC: it alone goes, the byte after it is read as usual.
  } else if (escape_ == Escape::kCsi) {
    if (c >= 0x20 && c <= 0x3F) return;  // parameter and intermediate bytes
    escape_ = Escape::kNone;
    if (c >= 0x40 && c <= 0x7E) return;  // the final byte ends the sequence
    // Anything else breaks the sequence off and is read as usual, so a line end is never lost.
  }
  if (c == kEsc) {
    escape_ = Escape::kEsc;
    return;
  }
  if (ch == '\r' || ch == '\n') {
    if (ch == end_pair_) {
      // The second half of CR LF or LF CR: the line already went on.  Within the same batch
      // the byte joins its line end; arriving in a later batch it is dropped so that no
      // empty line appears.
      if (ended_in_this_feed_) lines.push_back(ch);
      end_pair_ = 0;
      return;
    }
    EndLine(ch, lines);
    end_pair_ = ch == '\r' ? '\n' : '\r';
    ended_in_this_feed_ = true;
    return;
  }
  if (c == kBackspace || c == kDel) {
    EraseLast();
    return;
  }
  if (c == kTab) {
    ch = ' ';
  } else if (c < 32) {
    return;  // NUL, Chr 3, Chr 4, bell and the rest: never part of a line
  }
  end_pair_ = 0;
  if (line_length_ < kMaxLine) {
    partial_.push_back(ch);
    ++line_length_;
  }
}

void InputAssembler::Feed(std::string_view bytes, std::string& lines, std::string& reply) {
  ended_in_this_feed_ = false;
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
    Data(ch, lines);
  }
}

void InputAssembler::FlushPartial(std::string& lines) {
  lines.append(partial_);
  partial_.clear();
  end_pair_ = 0;
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
