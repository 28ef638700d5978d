// Request heads in pieces of a size the first byte chooses: the parser must reach the same
// verdict, request and remainder as when fed the whole at once, never hold more than its
// bound, and a target it accepts must come out of the link encoding without a byte that
// would break a record.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "frontend/http_request.h"

namespace {

using namespace qx;

void Require(bool condition) {
  if (!condition) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const size_t piece = 1 + data[0] % 64;
  const std::string_view bytes(reinterpret_cast<const char*>(data) + 1, size - 1);
  constexpr size_t kMax = 1024;
  HttpRequestParser whole(kMax);
  HttpRequestParser pieces(kMax);
  const auto verdict = whole.Feed(bytes);
  auto piecewise = HttpRequestParser::Status::kNeedMore;
  for (size_t i = 0; i < bytes.size(); i += piece) piecewise = pieces.Feed(bytes.substr(i, piece));
  Require(verdict == piecewise);
  if (verdict != HttpRequestParser::Status::kDone) return 0;
  const HttpRequest& a = whole.request();
  const HttpRequest& b = pieces.request();
  Require(a.method == b.method && a.target == b.target && a.headers == b.headers);
  Require(whole.rest() == pieces.rest());
  Require(a.target.size() + a.method.size() <= kMax);
  RouteHttpRequest(a);
  for (unsigned char c : EncodeTargetForLink(a.target)) Require(c > 32 && c < 127 && c != '^');
  return 0;
}
