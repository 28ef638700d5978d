// A server's Location header on arbitrary bytes, against an arbitrary address: no crash, and
// an address that comes out can be fetched, holds no blank or control byte and no "." or ".."
// path segment.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "downloads/url.h"

namespace {

void Require(bool condition) {
  if (!condition) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  const size_t split = input.find('\n');
  const std::string_view base =
      split == std::string_view::npos ? "http://a.example/x/y" : input.substr(0, split);
  const std::string_view location =
      split == std::string_view::npos ? input : input.substr(split + 1);
  qx::Url url;
  qx::ParseUrl(input, url);
  std::string next;
  if (qx::ResolveRedirect(base, location, next)) {
    Require(qx::ParseUrl(next, url));
    for (char c : next) Require(static_cast<unsigned char>(c) > ' ');
    const std::string_view path = std::string_view(url.target).substr(0, url.target.find('?'));
    Require(path.find("/../") == std::string_view::npos && !path.ends_with("/..") &&
            path.find("/./") == std::string_view::npos && !path.ends_with("/."));
  }
  return 0;
}
