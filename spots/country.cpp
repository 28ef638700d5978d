#include "spots/country.h"

#include <array>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <tuple>
#include <unordered_map>
#include <vector>

#include "core/file_util.h"
#include "core/text_util.h"
#include "spots/call_sign.h"

namespace qx {
namespace {

// Prefixes are made of A-Z, 0-9 and "/"; each trie node has one child per character.
constexpr int kAlphabet = 37;

int Slot(char c) {
  if (c >= 'A' && c <= 'Z') return c - 'A';
  if (c >= '0' && c <= '9') return 26 + (c - '0');
  if (c == '/') return 36;
  return -1;
}

char Upper(char c) { return (c >= 'a' && c <= 'z') ? char(c - 'a' + 'A') : c; }

struct TrieNode {
  TrieNode() { child.fill(-1); }
  std::array<int32_t, kAlphabet> child;
  int32_t info = -1;  // index into the info table; -1 when no prefix ends here
};

struct StringHash {
  using is_transparent = void;
  size_t operator()(std::string_view s) const noexcept { return std::hash<std::string_view>{}(s); }
};

// One entry of a country's list, before it is stored.
struct ParsedEntry {
  bool exact = false;
  std::string_view text;
  std::optional<int> cq;
  std::optional<int> itu;
  std::optional<double> latitude;   // north positive
  std::optional<double> longitude;  // as in the file: west positive
  std::optional<std::string_view> continent;
  std::optional<double> utc_offset;  // as in the file: west positive
  bool has_overrides() const {
    return cq || itu || latitude || longitude || continent || utc_offset;
  }
};

constexpr std::string_view kOverrideOpeners = "([<{~";

char CloserOf(char open) {
  switch (open) {
    case '(':
      return ')';
    case '[':
      return ']';
    case '<':
      return '>';
    case '{':
      return '}';
    default:
      return '~';
  }
}

// The file counts longitude and time offset west positive; the table east positive (and
// never as -0 for Greenwich).
double WestToEast(double west) { return 0.0 - west; }

bool ParseIntField(std::string_view text, int& out) {
  long long v = 0;
  if (!ParseInt(Trim(text), v) || v < 0 || v > 1000) return false;
  out = int(v);
  return true;
}

bool ParseNumberField(std::string_view text, double& out) { return ParseDouble(Trim(text), out); }

// "=K1ABC(4)[7]", "VE3", "KL7<58.3/134.4>{NA}~9.0~" and the like.  e starts out empty.
bool ParseEntry(std::string_view s, ParsedEntry& e) {
  if (!s.empty() && s.front() == '=') {
    e.exact = true;
    s.remove_prefix(1);
  }
  size_t k = s.find_first_of(kOverrideOpeners);
  e.text = Trim(s.substr(0, k));
  if (e.text.empty()) return false;
  for (char c : e.text) {
    const unsigned char u = static_cast<unsigned char>(c);
    if (u <= ' ' || u >= 127) return false;
    if (!e.exact && Slot(Upper(c)) < 0) return false;
  }
  while (k < s.size()) {
    const char open = s[k];
    if (kOverrideOpeners.find(open) == std::string_view::npos) return false;
    const size_t close = s.find(CloserOf(open), k + 1);
    if (close == std::string_view::npos) return false;
    const std::string_view value = Trim(s.substr(k + 1, close - k - 1));
    switch (open) {
      case '(': {
        int v = 0;
        if (!ParseIntField(value, v)) return false;
        e.cq = v;
        break;
      }
      case '[': {
        int v = 0;
        if (!ParseIntField(value, v)) return false;
        e.itu = v;
        break;
      }
      case '<': {
        const size_t slash = value.find('/');
        double lat = 0;
        double lon = 0;
        if (slash == std::string_view::npos || !ParseNumberField(value.substr(0, slash), lat) ||
            !ParseNumberField(value.substr(slash + 1), lon)) {
          return false;
        }
        e.latitude = lat;
        e.longitude = lon;
        break;
      }
      case '{':
        if (value.empty()) return false;
        e.continent = value;
        break;
      default: {
        double v = 0;
        if (!ParseNumberField(value, v)) return false;
        e.utc_offset = v;
        break;
      }
    }
    k = close + 1;
    while (k < s.size() && (s[k] == ' ' || s[k] == '\t')) ++k;
  }
  return true;
}

// The file's eight-field country line.  rest receives any text after the eighth colon.
bool ParseCountryLine(std::string_view line, CountryInfo& info, std::string_view& rest) {
  std::array<std::string_view, 8> fields;
  size_t start = 0;
  for (auto& field : fields) {
    const size_t colon = line.find(':', start);
    if (colon == std::string_view::npos) return false;
    field = Trim(line.substr(start, colon - start));
    start = colon + 1;
  }
  rest = Trim(line.substr(start));

  info = CountryInfo();
  double lat = 0;
  double lon = 0;
  double offset = 0;
  if (fields[0].empty() || !ParseIntField(fields[1], info.cq_zone) ||
      !ParseIntField(fields[2], info.itu_zone) || fields[3].empty() ||
      !ParseNumberField(fields[4], lat) || !ParseNumberField(fields[5], lon) ||
      !ParseNumberField(fields[6], offset)) {
    return false;
  }
  std::string_view prefix = fields[7];
  if (!prefix.empty() && prefix.front() == '*') {
    info.wae_only = true;
    prefix.remove_prefix(1);
  }
  if (prefix.empty()) return false;
  info.country = std::string(fields[0]);
  info.continent = ToUpper(fields[3]);
  info.prefix = std::string(prefix);  // as written: "3D2/c" names Conway Reef
  info.latitude = lat;
  info.longitude = WestToEast(lon);
  info.utc_offset = WestToEast(offset);
  return true;
}

bool IsHomeDesignator(std::string_view part) {
  if (part.size() == 1 && part[0] >= '0' && part[0] <= '9') return true;  // call area
  return part == "P" || part == "M" || part == "QRP" || part == "QRPP" || part == "A" ||
         part == "B";
}

}  // namespace

struct CountryLookup::Impl {
  Impl() : trie(1) {}

  std::vector<CountryInfo> infos;  // countries and their override variants
  std::vector<TrieNode> trie;      // trie[0] is the root
  std::unordered_map<std::string, int32_t, StringHash, std::equal_to<>> exact;
  size_t countries = 0;
  size_t skipped = 0;

  const CountryInfo* Exact(std::string_view call) const {
    const auto it = exact.find(call);
    return it == exact.end() ? nullptr : &infos[size_t(it->second)];
  }

  const CountryInfo* LongestPrefix(std::string_view call) const {
    int32_t node = 0;
    int32_t best = -1;
    for (char c : call) {
      const int slot = Slot(c);
      if (slot < 0) break;
      node = trie[size_t(node)].child[size_t(slot)];
      if (node < 0) break;
      if (trie[size_t(node)].info >= 0) best = trie[size_t(node)].info;
    }
    return best < 0 ? nullptr : &infos[size_t(best)];
  }

  const CountryInfo* Home(std::string_view call) const {
    if (const CountryInfo* e = Exact(call)) return e;
    return LongestPrefix(call);
  }

  // call is upper case and has no SSID.
  const CountryInfo* Resolve(std::string_view call) const {
    if (const CountryInfo* e = Exact(call)) return e;
    if (call.find('/') == std::string_view::npos) return LongestPrefix(call);

    constexpr size_t kMaxParts = 8;
    std::array<std::string_view, kMaxParts> parts;
    size_t n = 0;
    size_t start = 0;
    while (start <= call.size()) {
      size_t slash = call.find('/', start);
      if (slash == std::string_view::npos) slash = call.size();
      if (slash > start) {
        if (n == kMaxParts) return nullptr;
        parts[n++] = call.substr(start, slash - start);
      }
      start = slash + 1;
    }
    while (n > 1) {
      const std::string_view last = parts[n - 1];
      if (last == "MM" || last == "AM") return nullptr;  // at sea or in the air
      if (!IsHomeDesignator(last)) break;
      --n;
    }
    if (n == 0) return nullptr;
    if (n == 1) return Home(parts[0]);

    // The shorter part says where the station operates when it is a known prefix.
    size_t shortest = 0;
    size_t longest = 0;
    for (size_t i = 1; i < n; ++i) {
      if (parts[i].size() < parts[shortest].size()) shortest = i;
      if (parts[i].size() > parts[longest].size()) longest = i;
    }
    if (const CountryInfo* p = LongestPrefix(parts[shortest])) return p;
    return Home(parts[longest]);
  }

  // Loading.  Override variants are kept unique so that thousands of "(4)[7]" entries share
  // one record.
  int32_t AddCountry(const CountryInfo& info) {
    infos.push_back(info);
    ++countries;
    return int32_t(infos.size() - 1);
  }

  void AddEntry(int32_t country, std::string_view raw) {
    ParsedEntry e;
    if (!ParseEntry(raw, e)) {
      ++skipped;
      return;
    }
    const int32_t info = e.has_overrides() ? Variant(country, e) : country;
    std::string key = ToUpper(e.text);
    if (e.exact) {
      exact.emplace(std::move(key), info);  // the first entry for a call wins
      return;
    }
    int32_t node = 0;
    for (char c : key) {
      const size_t slot = size_t(Slot(c));
      int32_t next = trie[size_t(node)].child[slot];
      if (next < 0) {
        next = int32_t(trie.size());
        trie.emplace_back();
        trie[size_t(node)].child[slot] = next;
      }
      node = next;
    }
    if (trie[size_t(node)].info < 0) trie[size_t(node)].info = info;  // the first one wins
  }

  using VariantKey = std::tuple<int32_t, int, int, std::string, double, double, double>;
  std::map<VariantKey, int32_t> variants;  // used while loading only

  int32_t Variant(int32_t country, const ParsedEntry& e) {
    CountryInfo v = infos[size_t(country)];
    if (e.cq) v.cq_zone = *e.cq;
    if (e.itu) v.itu_zone = *e.itu;
    if (e.latitude) v.latitude = *e.latitude;
    if (e.longitude) v.longitude = WestToEast(*e.longitude);
    if (e.continent) v.continent = ToUpper(*e.continent);
    if (e.utc_offset) v.utc_offset = WestToEast(*e.utc_offset);
    VariantKey key{country,    v.cq_zone,   v.itu_zone,  v.continent,
                   v.latitude, v.longitude, v.utc_offset};
    const auto it = variants.find(key);
    if (it != variants.end()) return it->second;
    infos.push_back(std::move(v));
    const int32_t index = int32_t(infos.size() - 1);
    variants.emplace(std::move(key), index);
    return index;
  }
};

CountryLookup::CountryLookup() : impl_(std::make_unique<Impl>()) {}
CountryLookup::~CountryLookup() = default;
CountryLookup::CountryLookup(CountryLookup&&) noexcept = default;
CountryLookup& CountryLookup::operator=(CountryLookup&&) noexcept = default;

bool CountryLookup::LoadText(std::string_view text) {
  auto fresh = std::make_unique<Impl>();
  int32_t current = -1;     // the country whose entries are being read; -1 after a bad line
  bool in_entries = false;  // between a country line and its ";"
  for (std::string_view line : SplitLines(text)) {
    line = Trim(line);
    if (line.empty() || line.front() == '#') continue;
    if (line.find(':') != std::string_view::npos) {
      // A country line; one that comes before the ";" of the previous list starts anew.
      CountryInfo info;
      std::string_view rest;
      if (ParseCountryLine(line, info, rest)) {
        current = fresh->AddCountry(info);
      } else {
        current = -1;
        ++fresh->skipped;
      }
      in_entries = true;
      line = rest;
      if (line.empty()) continue;
    } else if (!in_entries) {
      ++fresh->skipped;  // stray text between lists
      continue;
    }
    const size_t end = line.find(';');
    size_t start = 0;
    const std::string_view body = line.substr(0, end);
    while (start <= body.size()) {
      size_t comma = body.find(',', start);
      if (comma == std::string_view::npos) comma = body.size();
      const std::string_view entry = Trim(body.substr(start, comma - start));
      if (!entry.empty() && current >= 0) fresh->AddEntry(current, entry);
      start = comma + 1;
    }
    if (end != std::string_view::npos) in_entries = false;
  }
  if (fresh->countries == 0) return false;
  fresh->variants.clear();
  impl_ = std::move(fresh);
  return true;
}

bool CountryLookup::LoadFile(const std::filesystem::path& path) {
  const std::optional<std::string> text = ReadFileText(path);
  if (!text) return false;
  return LoadText(*text);
}

bool CountryLookup::empty() const { return !impl_ || impl_->countries == 0; }

size_t CountryLookup::country_count() const { return impl_ ? impl_->countries : 0; }

size_t CountryLookup::skipped_count() const { return impl_ ? impl_->skipped : 0; }

std::optional<CountryInfo> CountryLookup::NewLookUpCallsign(std::string_view call) const {
  const CountryInfo* info = Find(call);
  if (info == nullptr) return std::nullopt;
  return *info;
}

const CountryInfo* CountryLookup::Find(std::string_view call) const {
  if (empty()) return nullptr;
  call = BaseCall(Trim(call));
  if (call.empty() || call.size() > kMaxCallLength) return nullptr;
  std::array<char, kMaxCallLength> buf;
  for (size_t i = 0; i < call.size(); ++i) buf[i] = Upper(call[i]);
  return impl_->Resolve(std::string_view(buf.data(), call.size()));
}

}  // namespace qx
