// The request target of a program's stream on arbitrary bytes: no crash, and what comes out
// keeps its promises (no control character in any decoded value, bounded parameter count,
// limits and types within their range, a refusal always with its reason).
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "core/text_util.h"
#include "stream/json_format.h"
#include "stream/stream_target.h"

namespace {

void Require(bool condition) {
  if (!condition) std::abort();
}

bool Clean(std::string_view text) {
  for (char c : text) {
    if (qx::IsControlChar(c)) return false;
  }
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view input(reinterpret_cast<const char*>(data), size);

  for (bool plus : {true, false}) {
    const std::string decoded = qx::PercentDecode(input, plus);
    Require(decoded.size() <= input.size() && Clean(decoded));
  }

  qx::Target target;
  if (qx::ParseTarget(input, target)) {
    Require(target.params.size() <= qx::Target::kMaxParams);
    Require(Clean(target.path));
    for (const auto& [key, value] : target.params)
      Require(!key.empty() && Clean(key) && Clean(value));
  }

  for (std::string_view prefix : {"ws:", "http:"}) {
    const qx::StreamRequest r = qx::ParseStreamKind(std::string(prefix) + std::string(input));
    if (r.status == 200) {
      Require(r.error.empty());
      Require(r.limit >= 1 && r.limit <= qx::StreamRequest::kMaxLimit);
      // A stream carries something, only what the node knows, and a poll only spots.
      Require(r.types != 0 && (r.types & ~qx::kStreamAllTypes) == 0);
      Require(r.kind == qx::StreamKind::kWebSocket || r.types == qx::kStreamSpots);
      Require(Clean(r.filter) && Clean(r.call) && Clean(r.password));
    } else {
      Require(!r.error.empty());
      Require(r.status == 400 || r.status == 404);
      // The reason goes to the client inside an error object: it must stay one clean line.
      const std::string line = qx::ErrorJson(r.error);
      Require(line.find('\n') == line.size() - 1 && Clean(line.substr(0, line.size() - 2)));
    }
  }
  return 0;
}
