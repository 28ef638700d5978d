#include "downloads/url.h"

#include <algorithm>
#include <charconv>
#include <vector>

namespace qx {

bool ParseUrl(std::string_view text, Url& out) {
  // A blank or control byte has no place in an address and would break the request line.
  for (char c : text) {
    if (static_cast<unsigned char>(c) <= ' ' || c == 0x7f) return false;
  }
  Url u;
  if (text.starts_with("https://")) {
    u.https = true;
    text.remove_prefix(8);
  } else if (text.starts_with("http://")) {
    text.remove_prefix(7);
  } else {
    return false;
  }
  const size_t slash = text.find_first_of("/?");
  std::string_view authority = text.substr(0, slash);
  // Built by hand: GCC 12 at -O3 warns wrongly (restrict) on assigning "/" here.
  if (slash == std::string_view::npos || text[slash] == '?') u.target.push_back('/');
  if (slash != std::string_view::npos) u.target.append(text.substr(slash));
  if (authority.find('@') != std::string_view::npos) return false;
  u.port = u.https ? "443" : "80";
  const size_t colon = authority.rfind(':');
  if (colon != std::string_view::npos && authority.find(']', colon) == std::string_view::npos) {
    const std::string_view port = authority.substr(colon + 1);
    int value = 0;
    const auto [end, ec] = std::from_chars(port.data(), port.data() + port.size(), value);
    if (port.empty() || ec != std::errc() || end != port.data() + port.size() || value < 1 ||
        value > 65535) {
      return false;
    }
    u.port = std::string(port);
    authority = authority.substr(0, colon);
  }
  if (authority.size() > 2 && authority.front() == '[' && authority.back() == ']') {
    authority = authority.substr(1, authority.size() - 2);
  }
  if (authority.empty()) return false;
  for (char c : authority) {
    if (c <= ' ' || c == '/' || c == '[' || c == ']') return false;
  }
  u.host = std::string(authority);
  out = std::move(u);
  return true;
}

bool ResolveRedirect(std::string_view base, std::string_view location, std::string& out) {
  location = location.substr(0, location.find('#'));
  while (!location.empty() && (location.back() == ' ' || location.back() == '\t')) {
    location.remove_suffix(1);
  }
  Url base_url;
  if (location.empty() || !ParseUrl(base, base_url)) return false;
  for (char c : location) {
    if (static_cast<unsigned char>(c) < ' ' || c == ' ') return false;
  }
  const std::string scheme = base_url.https ? "https:" : "http:";
  const size_t colon = location.find(':');
  const bool has_scheme = colon != std::string_view::npos &&
                          location.find_first_of("/?") > colon;  // "ftp:...", "mailto:..."
  std::string next;
  if (location.starts_with("http://") || location.starts_with("https://")) {
    next = std::string(location);
  } else if (has_scheme) {
    return false;
  } else if (location.starts_with("//")) {
    next = scheme + std::string(location);
  } else {
    const bool ipv6 = base_url.host.find(':') != std::string::npos;
    std::string origin = scheme + "//" + (ipv6 ? "[" + base_url.host + "]" : base_url.host);
    if (base_url.port != (base_url.https ? "443" : "80")) origin += ":" + base_url.port;
    if (location.front() == '/') {
      next = origin + std::string(location);
    } else {
      const std::string_view path =
          std::string_view(base_url.target).substr(0, base_url.target.find('?'));
      next = origin + std::string(path.substr(0, path.rfind('/') + 1)) + std::string(location);
    }
  }
  // "." and ".." in the path are resolved here, as a browser would; servers differ in
  // whether they do it themselves.
  const size_t path_start = next.find('/', next.find("//") + 2);
  if (path_start != std::string::npos) {
    const size_t query = next.find('?', path_start);
    const std::string_view path = std::string_view(next).substr(
        path_start, query == std::string::npos ? std::string::npos : query - path_start);
    std::vector<std::string_view> segments;
    size_t pos = 1;
    while (pos <= path.size()) {
      const size_t end = std::min(path.find('/', pos), path.size());
      const std::string_view seg = path.substr(pos, end - pos);
      if (seg == "..") {
        if (!segments.empty()) segments.pop_back();
      } else if (seg != ".") {
        segments.push_back(seg);
      }
      if (end == path.size() && (seg == "." || seg == "..")) segments.push_back("");
      pos = end + 1;
    }
    std::string clean;
    for (std::string_view seg : segments) {
      clean += '/';
      clean += seg;
    }
    if (clean.empty()) clean = "/";
    next = next.substr(0, path_start) + clean +
           (query == std::string::npos ? std::string() : next.substr(query));
  }
  Url check;
  if (!ParseUrl(next, check)) return false;
  out = std::move(next);
  return true;
}

}  // namespace qx
