#include "stream/stream_target.h"

#include "core/text_util.h"

namespace qx {

namespace {

int HexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// Whole decimal numbers only: no sign, no blanks, no more than 19 digits.
bool ParseCount(std::string_view text, uint64_t& out) {
  if (text.empty() || text.size() > 19) return false;
  uint64_t v = 0;
  for (char c : text) {
    if (c < '0' || c > '9') return false;
    v = v * 10 + uint64_t(c - '0');
  }
  out = v;
  return true;
}

// The "types" list: names separated by commas, in any case, blanks around them ignored.  Every
// name the node does not know is collected, so that the refusal names them all at once.
uint8_t ParseTypes(std::string_view text, std::string& unknown) {
  static constexpr std::pair<std::string_view, uint8_t> kNames[] = {
      {"spot", kStreamSpots}, {"announce", kStreamAnnounce}, {"wwv", kStreamWwv},
      {"wcy", kStreamWcy},    {"all", kStreamAllTypes},
  };
  uint8_t types = 0;
  for (std::string_view item : Split(text, ',')) {
    item = Trim(item);
    if (item.empty()) continue;
    bool known = false;
    for (const auto& [name, bit] : kNames) {
      if (EqualsIgnoreCase(item, name)) {
        types |= bit;
        known = true;
        break;
      }
    }
    if (!known && unknown.size() < 200) {
      if (!unknown.empty()) unknown += ", ";
      unknown += item.substr(0, 32);
    }
  }
  return types;
}

}  // namespace

std::string PercentDecode(std::string_view text, bool plus_is_blank) {
  std::string out;
  out.reserve(text.size());
  for (size_t i = 0; i < text.size(); ++i) {
    char c = text[i];
    if (c == '%' && i + 2 < text.size() && HexValue(text[i + 1]) >= 0 &&
        HexValue(text[i + 2]) >= 0) {
      c = char(HexValue(text[i + 1]) * 16 + HexValue(text[i + 2]));
      i += 2;
    } else if (c == '+' && plus_is_blank) {
      c = ' ';
    }
    if (IsControlChar(c)) continue;
    out += c;
  }
  return out;
}

std::string_view Target::Get(std::string_view key, bool* present) const {
  for (const auto& [k, v] : params) {
    if (k == key) {
      if (present) *present = true;
      return v;
    }
  }
  if (present) *present = false;
  return {};
}

bool ParseTarget(std::string_view target, Target& out) {
  out = Target();
  if (target.empty() || target.size() > Target::kMaxTarget || target[0] != '/') return false;
  const size_t q = target.find('?');
  std::string_view query;
  if (q != std::string_view::npos) {
    query = target.substr(q + 1);
    target = target.substr(0, q);
  }
  // A fragment never reaches a server, but a hand-made target may carry one.
  if (const size_t hash = query.find('#'); hash != std::string_view::npos) {
    query = query.substr(0, hash);
  }
  out.path = PercentDecode(target, false);
  while (!query.empty() && out.params.size() < Target::kMaxParams) {
    const size_t amp = query.find('&');
    const std::string_view item = query.substr(0, amp);
    query = amp == std::string_view::npos ? std::string_view() : query.substr(amp + 1);
    if (item.empty()) continue;
    const size_t eq = item.find('=');
    std::string key = PercentDecode(item.substr(0, eq), true);
    std::string value =
        eq == std::string_view::npos ? std::string() : PercentDecode(item.substr(eq + 1), true);
    if (key.empty()) continue;
    out.params.emplace_back(std::move(key), std::move(value));
  }
  return true;
}

bool IsJsonStreamKind(std::string_view kind) {
  return kind.starts_with("ws:") || kind.starts_with("http:");
}

StreamRequest ParseStreamKind(std::string_view kind) {
  StreamRequest r;
  std::string_view target;
  std::string_view path;
  if (kind.starts_with("ws:")) {
    r.kind = StreamKind::kWebSocket;
    target = kind.substr(3);
    path = "/stream";
  } else if (kind.starts_with("http:")) {
    r.kind = StreamKind::kHttpPoll;
    target = kind.substr(5);
    path = "/spots";
  } else {
    r.status = 400;
    r.error = "not a stream request";
    return r;
  }
  Target t;
  if (!ParseTarget(target, t)) {
    r.status = 400;
    r.error = "the request target cannot be read";
    return r;
  }
  if (t.path != path) {
    r.status = 404;
    r.error = "no such resource: " + t.path.substr(0, 64) + " (ask for " + std::string(path) + ")";
    return r;
  }
  const std::string_view since = t.Get("since", &r.has_since);
  if (r.has_since && !ParseCount(since, r.since)) {
    r.status = 400;
    r.error = "since must be a spot number";
    return r;
  }
  bool has_limit = false;
  const std::string_view limit = t.Get("limit", &has_limit);
  if (has_limit) {
    uint64_t n = 0;
    if (!ParseCount(limit, n) || n == 0) {
      r.status = 400;
      r.error = "limit must be a number from 1 to 1000";
      return r;
    }
    r.limit = n > StreamRequest::kMaxLimit ? StreamRequest::kMaxLimit : size_t(n);
  }
  bool has_types = false;
  const std::string_view types = t.Get("types", &has_types);
  if (has_types) {
    std::string unknown;
    r.types = ParseTypes(types, unknown);
    if (!unknown.empty() || r.types == 0) {
      r.status = 400;
      r.error =
          (unknown.empty() ? std::string("types names nothing") : "unknown types: " + unknown) +
          " (known: spot, announce, wwv, wcy, all)";
      return r;
    }
    if (r.kind == StreamKind::kHttpPoll && r.types != kStreamSpots) {
      r.status = 400;
      r.error = "a poll answers spots only; announcements, WWV and WCY come on /stream";
      return r;
    }
  }
  r.filter = std::string(Trim(t.Get("filter")));
  r.call = ToUpper(Trim(t.Get("call")));
  r.password = std::string(t.Get("password"));
  return r;
}

}  // namespace qx
