#include "node/pc_sentence.h"

#include <limits>

namespace qx {

std::string PcSentence::Join() const {
  std::string out;
  size_t size = fields.size();
  for (const std::string& f : fields) size += f.size();
  out.reserve(size);
  for (size_t i = 0; i < fields.size(); ++i) {
    if (i > 0) out += '^';
    out += fields[i];
  }
  return out;
}

void SplitFields(std::string_view line, std::vector<std::string>& fields) {
  size_t count = 1;
  for (char c : line) count += (c == '^');
  // Shrinking destroys strings and their buffers; lines of one type keep one field count,
  // so in steady state nothing is allocated here.
  fields.resize(count);
  size_t start = 0;
  for (size_t i = 0; i < count; ++i) {
    size_t pos = line.find('^', start);
    if (pos == std::string_view::npos) pos = line.size();
    fields[i].assign(line.data() + start, pos - start);
    start = pos + 1;
  }
}

int LeadingNumber(std::string_view text) {
  size_t i = 0;
  bool negative = false;
  if (i < text.size() && (text[i] == '-' || text[i] == '+')) {
    negative = text[i] == '-';
    ++i;
  }
  long long value = 0;
  for (; i < text.size() && text[i] >= '0' && text[i] <= '9'; ++i) {
    value = value * 10 + (text[i] - '0');
    if (value > std::numeric_limits<int>::max()) value = std::numeric_limits<int>::max();
  }
  return static_cast<int>(negative ? -value : value);
}

bool IsHopCount(std::string_view field) {
  if (field.size() < 2 || field.size() > 3 || field[0] != 'H') return false;
  for (char c : field.substr(1)) {
    if (c < '0' || c > '9') return false;
  }
  return LeadingNumber(field.substr(1)) >= 1;
}

bool HasSpotTrailer(const std::vector<std::string>& fields) {
  const size_t n = fields.size();
  if (n < 2) return false;
  if (IsHopCount(fields[n - 1])) return true;
  const std::string& end = fields[n - 1];
  return n >= 3 && (end.empty() || end == "~") && IsHopCount(fields[n - 2]);
}

PcCheckFlags::PcCheckFlags() {
  constexpr int kBoth = kHopField | kTerminator;
  struct Entry {
    int number;
    int flags;
  };
  constexpr Entry kTable[] = {
      {10, kTerminator}, {11, kBoth},       {12, kBoth},       {13, kHopField},   {14, kHopField},
      {15, kHopField},   {16, kHopField},   {17, kHopField},   {21, kHopField},   {23, kHopField},
      {24, kHopField},   {26, kTerminator}, {27, kTerminator}, {28, kTerminator}, {29, kTerminator},
      {34, kTerminator}, {35, kTerminator}, {36, kTerminator}, {37, kTerminator}, {41, kTerminator},
      {43, kTerminator}, {45, kTerminator}, {49, kTerminator}, {61, kBoth},       {73, kHopField},
      {92, kHopField},   {93, kHopField},
  };
  for (const Entry& e : kTable) Set(e.number, e.flags);
}

int PcCheckFlags::Get(int number) const {
  if (number < 10 || number > 99) return 0;
  return flags_[size_t(number - 10)];
}

void PcCheckFlags::Set(int number, int flags) {
  if (number < 10 || number > 99) return;
  flags_[size_t(number - 10)] = static_cast<uint8_t>(flags);
}

bool NodeNetState::HopsOk(std::string& hop) {
  if (hop.empty() || hop[0] != 'H') {
    Error(0, "HopsOk", "hop field = " + hop);
    return false;
  }
  if (hop.size() == 1) {
    hop = "H0";
    last_hop_ = true;
    return false;
  }
  if (hop.size() >= 5) {
    Error(0, "HopsOk ", "hop field = " + hop);
    hop = "H0";
    last_hop_ = true;
    return false;
  }
  const int n = LeadingNumber(std::string_view(hop).substr(1));
  last_hop_count_ = n;
  if (n > 100) return false;
  if (n == 1) {
    hop = "H0";
    last_hop_ = true;
    return false;
  }
  if (n <= 0) return false;
  hop.assign(1, 'H');
  hop += std::to_string(n - 1);  // "H100" becomes "H99" the same way
  last_hop_ = false;
  return true;
}

}  // namespace qx
