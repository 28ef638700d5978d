// The node's link bytes in pieces of a size the first byte chooses: the parser must give the
// same messages as when fed everything at once, no message may hold the Chr 4 that ended it,
// and a fan-out it accepts must walk to exactly its count of entries, within the bound.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "frontend/node_messages.h"

namespace {

using namespace qx;

void Require(bool condition) {
  if (!condition) std::abort();
}

std::string Describe(const NodeMessage& m) {
  std::string out = std::to_string(static_cast<int>(m.kind)) + "|" + std::to_string(m.stream) +
                    "|" + std::to_string(m.tag) + "|" + std::to_string(m.targets) + "|";
  out += m.text;
  out += "|";
  out += m.label;
  return out;
}

void Check(const NodeMessage& m) {
  Require(m.text.find('\x04') == std::string_view::npos);
  Require(m.label.find('\x04') == std::string_view::npos);
  if (m.kind != NodeMessageKind::kFanOut) return;
  Require(m.targets >= 1 && static_cast<size_t>(m.targets) <= kMaxFanoutTargets);
  FanoutTargets targets(m.label);
  int stream = 0;
  uint64_t tag = 0;
  int walked = 0;
  while (targets.Next(stream, tag)) {
    Require(stream >= 1);
    ++walked;
  }
  Require(!targets.failed() && walked == m.targets);
}

std::vector<std::string> Parse(std::string_view bytes, size_t piece) {
  NodeMessageParser parser(4096);
  std::vector<std::string> out;
  for (size_t i = 0; i < bytes.size(); i += piece) {
    parser.Feed(bytes.substr(i, piece));
    NodeMessage m;
    while (parser.Next(m)) {
      Check(m);
      out.push_back(Describe(m));
    }
  }
  return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const size_t piece = 1 + data[0] % 64;
  const std::string_view bytes(reinterpret_cast<const char*>(data) + 1, size - 1);
  Require(Parse(bytes, bytes.size() + 1) == Parse(bytes, piece));
  return 0;
}
