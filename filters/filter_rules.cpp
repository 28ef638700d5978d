#include "filters/filter_rules.h"

#include <algorithm>
#include <bit>
#include <cctype>
#include <cstring>

#include <fmt/format.h>

#include "core/text_util.h"
#include "spots/call_sign.h"

namespace qx {
namespace {

constexpr size_t kMaxCallPattern = 20;

struct Token {
  std::string_view text;
  size_t pos = 0;  // in the text handed to the tokenizer, before any offset
};

bool IsBlank(char c) { return c == ' ' || c == '\t'; }
bool IsAlnum(char c) { return std::isalnum(static_cast<unsigned char>(c)) != 0; }
bool IsDigit(char c) { return c >= '0' && c <= '9'; }

// Words split on blanks; brackets are words of their own.
std::vector<Token> Tokenize(std::string_view text) {
  std::vector<Token> out;
  size_t i = 0;
  while (i < text.size()) {
    if (IsBlank(text[i])) {
      ++i;
      continue;
    }
    if (text[i] == '(' || text[i] == ')') {
      out.push_back({text.substr(i, 1), i});
      ++i;
      continue;
    }
    const size_t start = i;
    while (i < text.size() && !IsBlank(text[i]) && text[i] != '(' && text[i] != ')') ++i;
    out.push_back({text.substr(start, i - start), start});
  }
  return out;
}

bool ParseSmallNumber(std::string_view text, int low, int high, int& out) {
  long long v = 0;
  if (text.empty() || text.size() > 4 || !std::all_of(text.begin(), text.end(), IsDigit) ||
      !ParseInt(text, v) || v < low || v > high) {
    return false;
  }
  out = static_cast<int>(v);
  return true;
}

// A comma-separated list; each item with its offset.  Empty items and long lists are
// errors.
bool SplitList(std::string_view list, size_t offset, std::vector<Token>& items,
               FilterError& error) {
  items.clear();
  if (Trim(list).empty()) {
    error = {offset, "", "a list is missing"};
    return false;
  }
  size_t pos = 0;
  while (pos <= list.size()) {
    size_t end = list.find(',', pos);
    if (end == std::string_view::npos) end = list.size();
    std::string_view item = list.substr(pos, end - pos);
    size_t at = pos;
    while (!item.empty() && IsBlank(item.front())) {
      item.remove_prefix(1);
      ++at;
    }
    while (!item.empty() && IsBlank(item.back())) item.remove_suffix(1);
    if (item.empty()) {
      error = {offset + at, "", "empty item in the list"};
      return false;
    }
    if (std::any_of(item.begin(), item.end(), IsBlank)) {
      error = {offset + at, std::string(item), "one word per item"};
      return false;
    }
    if (items.size() == kMaxListItems) {
      error = {offset + at, std::string(item), "too many items in the list"};
      return false;
    }
    items.push_back({item, offset + at});
    pos = end + 1;
  }
  return true;
}

struct FieldName {
  std::string_view name;
  Predicate::Field field;
  bool for_announce;  // makes sense for announcements and WWV (the announcer's side)
};
constexpr FieldName kFields[] = {
    {"ON", Predicate::Field::kOn, false},
    {"CALL", Predicate::Field::kCall, false},
    {"BY", Predicate::Field::kBy, true},
    {"INFO", Predicate::Field::kInfo, true},
    {"ORIGIN", Predicate::Field::kOrigin, true},
    {"CALL_DXCC", Predicate::Field::kCallDxcc, false},
    {"CALL_ITU", Predicate::Field::kCallItu, false},
    {"CALL_ZONE", Predicate::Field::kCallZone, false},
    {"CALL_STATE", Predicate::Field::kCallState, false},
    {"CALL_CONT", Predicate::Field::kCallCont, false},
    {"BY_DXCC", Predicate::Field::kByDxcc, true},
    {"BY_ITU", Predicate::Field::kByItu, true},
    {"BY_ZONE", Predicate::Field::kByZone, true},
    {"BY_STATE", Predicate::Field::kByState, true},
    {"BY_CONT", Predicate::Field::kByCont, true},
    {"SOURCE", Predicate::Field::kSource, false},
};

bool CountryItem(const Token& item, const FilterParseContext& ctx, uint64_t& key,
                 FilterError& error) {
  const std::string_view t = item.text;
  if (t.size() > 8 ||
      !std::all_of(t.begin(), t.end(), [](char c) { return IsAlnum(c) || c == '/'; })) {
    error = {item.pos, std::string(t), "not a country prefix"};
    return false;
  }
  key = CountryKey(t);
  // Any prefix of a country stands for it ("W" for the United States, whose main prefix is
  // "K"), when the country file is at hand.
  if (ctx.countries != nullptr && t.find('/') == std::string_view::npos) {
    if (const CountryInfo* info = ctx.countries->Find(t)) key = CountryKey(info->prefix);
  }
  return true;
}

bool ZoneItem(const Token& item, int high, std::array<uint64_t, 2>& zones, FilterError& error) {
  const size_t dash = item.text.find('-');
  int from = 0;
  int to = 0;
  const bool ok = dash == std::string_view::npos
                      ? ParseSmallNumber(item.text, 1, high, from)
                      : ParseSmallNumber(item.text.substr(0, dash), 1, high, from) &&
                            ParseSmallNumber(item.text.substr(dash + 1), 1, high, to);
  if (!ok || (dash != std::string_view::npos && to < from)) {
    error = {item.pos, std::string(item.text), fmt::format("not a zone from 1 to {}", high)};
    return false;
  }
  if (dash == std::string_view::npos) to = from;
  for (int z = from; z <= to; ++z) zones[size_t(z / 64)] |= uint64_t(1) << (z % 64);
  return true;
}

bool CallItem(const Token& item, Predicate::CallPattern& out, FilterError& error) {
  std::string_view t = item.text;
  out.kind = Predicate::CallPattern::Kind::kPrefix;
  if (!t.empty() && t.front() == '=') {
    out.kind = Predicate::CallPattern::Kind::kExact;
    t.remove_prefix(1);
  } else if (t.find_first_of("*?") != std::string_view::npos) {
    out.kind = Predicate::CallPattern::Kind::kGlob;
  }
  const bool chars_ok = std::all_of(t.begin(), t.end(), [&](char c) {
    return IsAlnum(c) || c == '/' || c == '-' ||
           (out.kind == Predicate::CallPattern::Kind::kGlob && (c == '*' || c == '?'));
  });
  if (t.empty() || t.size() > kMaxCallPattern || !chars_ok) {
    error = {item.pos, std::string(item.text), "not a call, prefix or pattern"};
    return false;
  }
  out.text = ToUpper(t);
  return true;
}

bool FreqItem(const Token& item, const BandTable& bands, Predicate::FreqItem& out,
              FilterError& error) {
  const std::string_view t = item.text;
  const size_t slash = t.find('/');
  const std::string_view first = t.substr(0, slash);
  double low = 0;
  double high = 0;
  if (slash != std::string_view::npos && ParseDouble(first, low) &&
      ParseDouble(t.substr(slash + 1), high)) {
    if (!(low >= 0 && high >= low && high < 1e9)) {
      error = {item.pos, std::string(t), "the range must run from low to high kHz"};
      return false;
    }
    out.low_khz = low;
    out.high_khz = high;
    return true;
  }
  out.band_bits = BandBitsByName(first, bands);
  if (out.band_bits == 0) {
    error = {item.pos, std::string(first), "unknown band"};
    return false;
  }
  if (slash != std::string_view::npos) {
    const std::string_view mode = t.substr(slash + 1);
    if (EqualsIgnoreCase(mode, "BEACON")) {
      out.beacon_only = true;
    } else if ((out.modes = ModeBitsByName(mode)) == 0) {
      error = {item.pos + slash + 1, std::string(mode), "unknown mode"};
      return false;
    }
  }
  return true;
}

bool TimeOfDay(std::string_view text, uint16_t& minutes) {
  int hhmm = 0;
  if (text.size() != 4 || !ParseSmallNumber(text, 0, 2359, hhmm) || hhmm % 100 > 59) {
    return false;
  }
  minutes = uint16_t(hhmm / 100 * 60 + hhmm % 100);
  return true;
}

// "160:2000-0800": spots on 160 m between 20:00 and 08:00 UTC.
bool BandTimeItem(const Token& item, const BandTable& bands, Predicate::Term& term,
                  FilterError& error) {
  const std::string_view t = item.text;
  const size_t colon = t.find(':');
  const size_t dash = t.find('-', colon == std::string_view::npos ? 0 : colon);
  if (colon == std::string_view::npos || dash == std::string_view::npos) {
    error = {item.pos, std::string(t), "expected band:HHMM-HHMM"};
    return false;
  }
  const uint32_t band_bits = BandBitsByName(t.substr(0, colon), bands);
  if (band_bits == 0) {
    error = {item.pos, std::string(t.substr(0, colon)), "unknown band"};
    return false;
  }
  Predicate::BandWindow w;
  if (!TimeOfDay(t.substr(colon + 1, dash - colon - 1), w.from) ||
      !TimeOfDay(t.substr(dash + 1), w.to)) {
    error = {item.pos + colon + 1, std::string(t.substr(colon + 1)),
             "expected a UTC time window HHMM-HHMM"};
    return false;
  }
  for (int bit = 0; bit < 32; ++bit) {
    if (!((band_bits >> bit) & 1u)) continue;
    if (term.windows.size() == kMaxListItems) {
      error = {item.pos, std::string(t), "too many time windows"};
      return false;
    }
    w.band_index = bit;
    term.windows.push_back(w);
  }
  return true;
}

std::optional<SourceKind> SourceFromText(std::string_view text) {
  if (EqualsIgnoreCase(text, "HUMAN")) return SourceKind::kHuman;
  if (EqualsIgnoreCase(text, "SKIMMER")) return SourceKind::kSkimmer;
  if (EqualsIgnoreCase(text, "REPORTER")) return SourceKind::kReporter;
  return std::nullopt;
}

// Fills a term's values from a list.
bool FillTerm(Predicate::Term& term, std::string_view list, size_t offset,
              const FilterParseContext& ctx, FilterError& error) {
  std::vector<Token> items;
  if (!SplitList(list, offset, items, error)) return false;
  using F = Predicate::Field;
  for (const Token& item : items) {
    bool ok = true;
    switch (term.field) {
      case F::kOn: {
        Predicate::FreqItem f;
        ok = FreqItem(item, *ctx.bands, f, error);
        term.freqs.push_back(f);
        break;
      }
      case F::kCall:
      case F::kBy:
      case F::kOrigin: {
        Predicate::CallPattern p;
        ok = CallItem(item, p, error);
        term.calls.push_back(std::move(p));
        break;
      }
      case F::kInfo:
      case F::kWords:
        term.texts.push_back(ToUpper(item.text));
        break;
      case F::kCallDxcc:
      case F::kByDxcc: {
        uint64_t key = 0;
        ok = CountryItem(item, ctx, key, error);
        term.keys.push_back(key);
        break;
      }
      case F::kCallItu:
      case F::kByItu:
        ok = ZoneItem(item, 90, term.zones, error);
        break;
      case F::kCallZone:
      case F::kByZone:
        ok = ZoneItem(item, 40, term.zones, error);
        break;
      case F::kCallState:
      case F::kByState: {
        const uint16_t key = StateKey(item.text);
        if (key == 0) error = {item.pos, std::string(item.text), "not a two-letter state code"};
        ok = key != 0;
        term.keys.push_back(key);
        break;
      }
      case F::kCallCont:
      case F::kByCont: {
        const Continent c = ContinentFromText(item.text);
        if (c == Continent::kNone) {
          error = {item.pos, std::string(item.text), "not a continent (AF AN AS EU NA OC SA)"};
        }
        ok = c != Continent::kNone;
        term.continents |= uint8_t(1u << static_cast<int>(c));
        break;
      }
      case F::kBandTime:
        ok = BandTimeItem(item, *ctx.bands, term, error);
        break;
      case F::kSource: {
        const std::optional<SourceKind> source = SourceFromText(item.text);
        if (!source) {
          error = {item.pos, std::string(item.text), "not a source (human, skimmer, reporter)"};
        }
        ok = source.has_value();
        if (ok) term.sources |= uint8_t(1u << static_cast<int>(*source));
        break;
      }
    }
    if (!ok) return false;
  }
  return true;
}

// Recursive descent over the words of an expression: or of ands of (not) units.
class ExprParser {
 public:
  ExprParser(std::string_view text, size_t offset, FilterKind kind, const FilterParseContext& ctx,
             FilterError& error)
      : text_(text),
        offset_(offset),
        kind_(kind),
        ctx_(ctx),
        error_(error),
        tokens_(Tokenize(text)) {}

  std::optional<Predicate> Parse() {
    if (tokens_.empty()) return Fail(text_.size(), "", "the filter expression is missing");
    std::optional<uint16_t> root = Or(0);
    if (!root) return std::nullopt;
    if (at_ < tokens_.size()) return Fail(at_, "expected \"and\", \"or\" or the end");
    out_.SetRoot(*root);
    return std::move(out_);
  }

 private:
  bool Is(std::string_view word) const {
    return at_ < tokens_.size() && EqualsIgnoreCase(tokens_[at_].text, word);
  }
  std::nullopt_t Fail(size_t token, std::string_view message) {
    if (token >= tokens_.size()) return Fail(text_.size(), "", message);
    return Fail(tokens_[token].pos, tokens_[token].text, message);
  }
  std::nullopt_t Fail(size_t pos, std::string_view word, std::string_view message) {
    error_ = {offset_ + pos, std::string(word), std::string(message)};
    return std::nullopt;
  }

  std::optional<uint16_t> Or(int depth) {
    return Chain(depth, "OR", Predicate::Op::kOr, &ExprParser::And);
  }
  std::optional<uint16_t> And(int depth) {
    return Chain(depth, "AND", Predicate::Op::kAnd, &ExprParser::Unary);
  }
  std::optional<uint16_t> Chain(int depth, std::string_view joiner, Predicate::Op op,
                                std::optional<uint16_t> (ExprParser::*next)(int)) {
    std::vector<uint16_t> parts;
    do {
      if (!parts.empty()) ++at_;
      std::optional<uint16_t> part = (this->*next)(depth);
      if (!part) return std::nullopt;
      parts.push_back(*part);
    } while (Is(joiner));
    return parts.size() == 1 ? parts[0] : out_.AddGroup(op, parts);
  }

  std::optional<uint16_t> Unary(int depth) {
    if (depth >= kMaxFilterDepth) return Fail(at_, "brackets or \"not\" nested too deeply");
    if (at_ >= tokens_.size()) return Fail(at_, "a term is missing");
    if (Is("NOT")) {
      ++at_;
      std::optional<uint16_t> inner = Unary(depth + 1);
      if (!inner) return std::nullopt;
      return out_.AddNode({Predicate::Op::kNot, *inner, 0});
    }
    if (Is("(")) {
      const size_t open = at_++;
      std::optional<uint16_t> inner = Or(depth + 1);
      if (!inner) return std::nullopt;
      if (!Is(")")) return Fail(at_ < tokens_.size() ? at_ : open, "\")\" expected");
      ++at_;
      return inner;
    }
    return TermNode();
  }

  std::optional<uint16_t> TermNode() {
    const Token& word = tokens_[at_];
    const FieldName* field = nullptr;
    for (const FieldName& f : kFields) {
      if (EqualsIgnoreCase(f.name, word.text)) field = &f;
    }
    if (field == nullptr) return Fail(at_, "unknown term");
    if (kind_ != FilterKind::kSpots && !field->for_announce) {
      return Fail(at_, fmt::format("not a term for {}", FilterKindName(kind_)));
    }
    if (++terms_ > kMaxFilterTerms) return Fail(at_, "too many terms");
    ++at_;
    if (at_ >= tokens_.size() || Is("(") || Is(")")) {
      return Fail(at_, fmt::format("\"{}\" needs a value", word.text));
    }
    // The list runs over blanks next to its commas: "call_dxcc K, DL" is one list.
    const size_t begin = tokens_[at_].pos;
    size_t end = begin + tokens_[at_].text.size();
    ++at_;
    while (at_ < tokens_.size() && (text_[end - 1] == ',' || tokens_[at_].text[0] == ',')) {
      end = tokens_[at_].pos + tokens_[at_].text.size();
      ++at_;
    }
    Predicate::Term term;
    term.field = field->field;
    if (!FillTerm(term, text_.substr(begin, end - begin), offset_ + begin, ctx_, error_)) {
      return std::nullopt;
    }
    return out_.AddTerm(std::move(term));
  }

  std::string_view text_;
  size_t offset_;
  FilterKind kind_;
  const FilterParseContext& ctx_;
  FilterError& error_;
  std::vector<Token> tokens_;
  size_t at_ = 0;
  size_t terms_ = 0;
  Predicate out_;
};

bool GlobMatch(std::string_view pattern, std::string_view text) {
  size_t p = 0, t = 0, star = std::string_view::npos, mark = 0;
  while (t < text.size()) {
    if (p < pattern.size() && (pattern[p] == '?' || pattern[p] == text[t])) {
      ++p;
      ++t;
    } else if (p < pattern.size() && pattern[p] == '*') {
      star = p++;
      mark = t;
    } else if (star != std::string_view::npos) {
      p = star + 1;
      t = ++mark;
    } else {
      return false;
    }
  }
  while (p < pattern.size() && pattern[p] == '*') ++p;
  return p == pattern.size();
}

// The flat form.  Every instruction is one word:
//   bits 0-7 the op, 8-15 the field, 16-23 a small inline value (continents, sources, the
//   band-time flag), 24-39 the number of list items, 40-63 the number of data words that
//   follow a term, or how far forward a jump goes.
// A term's list follows it inline: an "on" item is one word (band bits, modes, beacon; bit 63
// marks a kHz range, whose two bounds follow as doubles); a call or text item is a word with
// its kind and length, then its characters packed eight to a word; keys are a word each;
// zones are two words of bits; a band-time window is one word.
enum CodeOp : uint8_t { kOpTerm, kOpJumpIfFalse, kOpJumpIfTrue, kOpNot };

constexpr uint64_t kRangeItem = uint64_t(1) << 63;

uint64_t Instruction(CodeOp op, uint64_t field, uint64_t inline_value, uint64_t items,
                     uint64_t words) {
  return uint64_t(op) | field << 8 | (inline_value & 0xff) << 16 | (items & 0xffff) << 24 |
         words << 40;
}

void PackText(std::vector<uint64_t>& out, uint8_t kind, std::string_view text) {
  out.push_back(uint64_t(kind) | uint64_t(text.size()) << 8);
  const size_t at = out.size();
  out.resize(at + (text.size() + 7) / 8, 0);
  std::memcpy(out.data() + at, text.data(), text.size());
}

// The text of a packed item at d; d moves past it.
std::string_view UnpackText(const uint64_t*& d, uint8_t& kind) {
  kind = uint8_t(*d & 0xff);
  const size_t size = size_t((*d >> 8) & 0xffff);
  const char* chars = reinterpret_cast<const char*>(d + 1);
  d += 1 + (size + 7) / 8;
  return {chars, size};
}

bool CallMatches(const uint64_t* d, size_t items, std::string_view call) {
  using K = Predicate::CallPattern::Kind;
  for (size_t i = 0; i < items; ++i) {
    uint8_t kind = 0;
    const std::string_view p = UnpackText(d, kind);
    switch (static_cast<K>(kind)) {
      case K::kPrefix:
        if (call.size() >= p.size() && std::memcmp(call.data(), p.data(), p.size()) == 0) {
          return true;
        }
        break;
      case K::kExact:
        if (call == p || BaseCall(call) == p) return true;
        break;
      case K::kGlob:
        if (GlobMatch(p, call)) return true;
        break;
    }
  }
  return false;
}

bool IsWordStart(std::string_view text, size_t pos) { return pos == 0 || !IsAlnum(text[pos - 1]); }

// True when a word of the comment is the keyword, or the keyword followed by digits and
// more: "PSK" finds "PSK31" and "PSK", not "PSKR"; "CW" does not find "CWT".
bool HasWord(std::string_view comment, std::string_view word) {
  for (size_t pos = comment.find(word); pos != std::string_view::npos;
       pos = comment.find(word, pos + 1)) {
    const size_t end = pos + word.size();
    if (IsWordStart(comment, pos) &&
        (end == comment.size() || !std::isalpha(static_cast<unsigned char>(comment[end])))) {
      return true;
    }
  }
  return false;
}

bool TextMatches(const uint64_t* d, size_t items, std::string_view comment, bool words) {
  for (size_t i = 0; i < items; ++i) {
    uint8_t kind = 0;
    const std::string_view text = UnpackText(d, kind);
    if (words ? HasWord(comment, text) : comment.find(text) != std::string_view::npos) {
      return true;
    }
  }
  return false;
}

bool HasKey(const uint64_t* d, size_t items, uint64_t key) {
  if (key == 0) return false;
  for (size_t i = 0; i < items; ++i) {
    if (d[i] == key) return true;
  }
  return false;
}

bool ZoneIn(const uint64_t* zones, uint8_t zone) {
  return zone != 0 && ((zones[zone / 64] >> (zone % 64)) & 1u) != 0;
}

bool BitIn(uint64_t bits, int index) { return index > 0 && ((bits >> index) & 1u) != 0; }

bool InWindow(uint16_t from, uint16_t to, int minute) {
  if (from == to) return true;
  if (from < to) return minute >= from && minute < to;
  return minute >= from || minute < to;
}

bool OnMatches(const uint64_t* d, size_t items, const SpotFacts& f) {
  for (size_t i = 0; i < items; ++i) {
    const uint64_t item = *d++;
    if (item & kRangeItem) {
      const double low = std::bit_cast<double>(d[0]);
      const double high = std::bit_cast<double>(d[1]);
      d += 2;
      if (f.khz >= low && f.khz <= high) return true;
    } else if ((f.band_bit & uint32_t(item)) != 0 && ((item >> 32) & ModeBit(f.mode)) != 0 &&
               (!((item >> 48) & 1u) || f.beacon)) {
      return true;
    }
  }
  return false;
}

bool BandTimeMatches(const uint64_t* d, size_t items, bool unlisted_matches, const SpotFacts& f,
                     int minute) {
  bool listed = false;
  for (size_t i = 0; i < items; ++i) {
    const uint64_t w = d[i];
    if (int(w & 0xff) != f.band_index) continue;
    if (InWindow(uint16_t(w >> 8), uint16_t(w >> 24), minute)) return true;
    listed = true;
  }
  return !listed && unlisted_matches;
}

bool TermMatches(uint64_t insn, const uint64_t* d, const SpotFacts& f, int minute) {
  using F = Predicate::Field;
  const size_t items = size_t((insn >> 24) & 0xffff);
  const uint64_t small = (insn >> 16) & 0xff;
  switch (static_cast<F>((insn >> 8) & 0xff)) {
    case F::kOn:
      return OnMatches(d, items, f);
    case F::kCall:
      return CallMatches(d, items, f.dx.call);
    case F::kBy:
      return CallMatches(d, items, f.spotter.call);
    case F::kOrigin:
      return CallMatches(d, items, f.origin);
    case F::kInfo:
      return TextMatches(d, items, f.comment, false);
    case F::kWords:
      return TextMatches(d, items, f.comment, true);
    case F::kCallDxcc:
      return HasKey(d, items, f.dx.country_key);
    case F::kByDxcc:
      return HasKey(d, items, f.spotter.country_key);
    case F::kCallItu:
      return ZoneIn(d, f.dx.itu_zone);
    case F::kByItu:
      return ZoneIn(d, f.spotter.itu_zone);
    case F::kCallZone:
      return ZoneIn(d, f.dx.cq_zone);
    case F::kByZone:
      return ZoneIn(d, f.spotter.cq_zone);
    case F::kCallState:
      return HasKey(d, items, f.dx.state);
    case F::kByState:
      return HasKey(d, items, f.spotter.state);
    case F::kCallCont:
      return BitIn(small, static_cast<int>(f.dx.continent));
    case F::kByCont:
      return BitIn(small, static_cast<int>(f.spotter.continent));
    case F::kBandTime:
      return BandTimeMatches(d, items, small != 0, f, minute);
    case F::kSource:
      return ((small >> static_cast<int>(f.source)) & 1u) != 0;
  }
  return false;
}

struct KeywordName {
  std::string_view name;
  FilterKind kind;
  Predicate::Field field;
};
constexpr KeywordName kKeywords[] = {
    {"DOC", FilterKind::kSpots, Predicate::Field::kByDxcc},
    {"DOS", FilterKind::kSpots, Predicate::Field::kByState},
    {"DXCTY", FilterKind::kSpots, Predicate::Field::kCallDxcc},
    {"DXSTATE", FilterKind::kSpots, Predicate::Field::kCallState},
    {"AOC", FilterKind::kAnnounce, Predicate::Field::kByDxcc},
    {"AOS", FilterKind::kAnnounce, Predicate::Field::kByState},
    {"WOC", FilterKind::kWwv, Predicate::Field::kByDxcc},
    {"WOS", FilterKind::kWwv, Predicate::Field::kByState},
    {"KEYWORD", FilterKind::kSpots, Predicate::Field::kWords},
    {"BANDTIME", FilterKind::kSpots, Predicate::Field::kBandTime},
};

// The command word and what follows it, split at "/".
struct CommandWords {
  std::string_view verb;
  std::string_view object;
  size_t object_pos = 0;
};

CommandWords SplitSlash(std::string_view word, size_t pos) {
  const size_t slash = word.find('/');
  if (slash == std::string_view::npos) return {word, {}, pos + word.size()};
  return {word.substr(0, slash), word.substr(slash + 1), pos + slash + 1};
}

std::optional<FilterKind> KindWord(std::string_view word) {
  if (MatchAbbrev("SPOTS", 2, word)) return FilterKind::kSpots;
  if (MatchAbbrev("ANNOUNCE", 3, word)) return FilterKind::kAnnounce;
  if (MatchAbbrev("WWV", 3, word)) return FilterKind::kWwv;
  return std::nullopt;
}

FilterParseResult Error(size_t pos, std::string_view word, std::string message) {
  FilterParseResult r;
  r.error = {pos, std::string(word), std::move(message)};
  return r;
}

FilterParseResult ParseLineRule(std::string_view typed, const std::vector<Token>& words,
                                bool accept, FilterKind kind, const FilterParseContext& ctx) {
  FilterCommand cmd;
  cmd.action = FilterCommand::Action::kSetRule;
  size_t next = 1;
  int line = 1;
  if (words.size() > 1 && words[1].text.size() == 1 && IsDigit(words[1].text[0])) {
    line = words[1].text[0] - '0';
    next = 2;
  }
  const size_t start = next < words.size() ? words[next].pos : typed.size();
  FilterParseResult r;
  std::optional<Predicate> p = ParseFilterExpr(typed.substr(start), kind, ctx, r.error, start);
  if (!p) return r;
  cmd.rule.kind = kind;
  cmd.rule.id = fmt::format("{}{}", accept ? 'A' : 'R', line);
  cmd.rule.pass = accept;
  cmd.rule.text = std::string(typed);
  cmd.rule.predicate = std::move(*p);
  r.command = std::move(cmd);
  return r;
}

FilterParseResult ParseClear(const std::vector<Token>& words, std::string_view typed,
                             FilterKind kind) {
  if (words.size() != 2) {
    return words.size() < 2 ? Error(typed.size(), "", "say which line (0-9) or ALL")
                            : Error(words[2].pos, words[2].text, "nothing may follow");
  }
  FilterCommand cmd;
  cmd.action = FilterCommand::Action::kClearLines;
  cmd.kind = kind;
  const std::string_view arg = words[1].text;
  if (EqualsIgnoreCase(arg, "ALL")) {
    cmd.line = -1;
  } else if (arg.size() == 1 && IsDigit(arg[0])) {
    cmd.line = arg[0] - '0';
  } else {
    return Error(words[1].pos, arg, "say which line (0-9) or ALL");
  }
  FilterParseResult r;
  r.command = std::move(cmd);
  return r;
}

FilterParseResult ParseDxbmNumbers(const std::vector<Token>& words, std::string_view typed) {
  if (words.size() != 2) {
    return words.size() < 2 ? Error(typed.size(), "", "expected mask/mask2")
                            : Error(words[2].pos, words[2].text, "nothing may follow");
  }
  const std::string_view arg = words[1].text;
  const size_t slash = arg.find('/');
  FilterCommand cmd;
  cmd.action = FilterCommand::Action::kDxbmNumbers;
  long long a = 0, b = 0;
  const std::string_view first = arg.substr(0, slash);
  const auto number = [](std::string_view t, long long& v) {
    return !t.empty() && t.size() <= 10 && std::all_of(t.begin(), t.end(), IsDigit) &&
           ParseInt(t, v) && v <= 0xFFFFFFFFll;
  };
  if (!number(first, a)) return Error(words[1].pos, first, "not a mask (0 to 4294967295)");
  if (slash != std::string_view::npos) {
    const std::string_view second = arg.substr(slash + 1);
    if (!number(second, b)) {
      return Error(words[1].pos + slash + 1, second, "not a mask (0 to 4294967295)");
    }
    cmd.has_mask2 = true;
  }
  cmd.mask = uint32_t(a);
  cmd.mask2 = uint32_t(b);
  FilterParseResult r;
  r.command = std::move(cmd);
  return r;
}

// SET/FILTER <NAME>/PASS|REJ[ECT]|OFF [list]
FilterParseResult ParseKeywordRule(std::string_view typed, const std::vector<Token>& words,
                                   const FilterParseContext& ctx) {
  if (words.size() < 2) return Error(typed.size(), "", "expected <name>/PASS, /REJECT or /OFF");
  const CommandWords w = SplitSlash(words[1].text, words[1].pos);
  const std::string name = ToUpper(w.verb);
  const size_t list_pos = words.size() > 2 ? words[2].pos : typed.size();
  const std::string_view list = typed.substr(list_pos);
  const bool off = EqualsIgnoreCase(w.object, "OFF");
  const bool pass = EqualsIgnoreCase(w.object, "PASS");
  const bool reject = MatchAbbrev("REJECT", 3, w.object);
  if (!off && !pass && !reject) {
    return Error(w.object_pos, w.object, "expected PASS, REJECT or OFF");
  }
  if (off && words.size() > 2) return Error(words[2].pos, words[2].text, "nothing may follow");
  FilterParseResult r;
  FilterCommand cmd;
  if (name == "DXBM") {
    if (off) {
      cmd.action = FilterCommand::Action::kDxbmWords;
      cmd.band_mode = BandModeMask();
    } else {
      std::optional<BandModeMask> m =
          BandModeMask::FromWords(list, pass, *ctx.bands, r.error, list_pos);
      if (!m) return r;
      cmd.action = FilterCommand::Action::kDxbmWords;
      cmd.band_mode = *m;
    }
    cmd.rule.id = "DXBM";
    cmd.rule.text = off ? "" : std::string(typed);
    r.command = std::move(cmd);
    return r;
  }
  const KeywordName* keyword = nullptr;
  for (const KeywordName& k : kKeywords) {
    if (k.name == name) keyword = &k;
  }
  if (keyword == nullptr) return Error(words[1].pos, w.verb, "unknown filter name");
  if (off) {
    cmd.action = FilterCommand::Action::kRemoveRule;
    cmd.kind = keyword->kind;
    cmd.id = name;
    r.command = std::move(cmd);
    return r;
  }
  Predicate::Term term;
  term.field = keyword->field;
  term.unlisted_band_matches = pass;  // band time: a band without a window is not limited
  if (!FillTerm(term, list, list_pos, ctx, r.error)) return r;
  cmd.action = FilterCommand::Action::kSetRule;
  cmd.rule.kind = keyword->kind;
  cmd.rule.id = name;
  cmd.rule.pass = pass;
  cmd.rule.text = std::string(typed);
  cmd.rule.predicate.SetRoot(cmd.rule.predicate.AddTerm(std::move(term)));
  r.command = std::move(cmd);
  return r;
}

}  // namespace

std::string FilterError::Text() const {
  if (word.empty()) return fmt::format("Filter error at the end: {}", message);
  return fmt::format("Filter error at \"{}\": {}", word, message);
}

std::string_view FilterKindName(FilterKind kind) {
  switch (kind) {
    case FilterKind::kAnnounce:
      return "ANNOUNCE";
    case FilterKind::kWwv:
      return "WWV";
    case FilterKind::kSpots:
      break;
  }
  return "SPOTS";
}

Predicate& Predicate::operator=(const Predicate& other) {
  if (this != &other) {
    code_ = other.code_;
    tree_ = other.tree_ ? std::make_unique<Tree>(*other.tree_) : nullptr;
  }
  return *this;
}

Predicate::Tree& Predicate::tree() {
  if (!tree_) tree_ = std::make_unique<Tree>();
  return *tree_;
}

uint16_t Predicate::AddTerm(Term term) {
  tree().terms.push_back(std::move(term));
  return AddNode({Op::kTerm, uint16_t(tree_->terms.size() - 1), 0});
}

uint16_t Predicate::AddNode(Node node) {
  tree().nodes.push_back(node);
  return uint16_t(tree_->nodes.size() - 1);
}

uint16_t Predicate::AddGroup(Op op, const std::vector<uint16_t>& children) {
  Tree& t = tree();
  const uint16_t first = uint16_t(t.children.size());
  t.children.insert(t.children.end(), children.begin(), children.end());
  return AddNode({op, first, uint16_t(children.size())});
}

void Predicate::SetRoot(uint16_t root) {
  code_.clear();
  if (tree_ && root < tree_->nodes.size()) Emit(root);
  code_.shrink_to_fit();
  tree_.reset();
}

void Predicate::Emit(uint16_t index) {
  const Node n = tree_->nodes[index];
  switch (n.op) {
    case Op::kTerm:
      EmitTerm(tree_->terms[n.first]);
      return;
    case Op::kNot:
      Emit(n.first);
      code_.push_back(Instruction(kOpNot, 0, 0, 0, 0));
      return;
    case Op::kAnd:
    case Op::kOr: {
      // After each child but the last, a jump to the end once the group's value is known.
      std::vector<size_t> jumps;
      for (uint16_t i = 0; i < n.count; ++i) {
        Emit(tree_->children[n.first + i]);
        if (i + 1 == n.count) break;
        jumps.push_back(code_.size());
        code_.push_back(n.op == Op::kAnd ? kOpJumpIfFalse : kOpJumpIfTrue);
      }
      for (const size_t at : jumps) code_[at] |= uint64_t(code_.size() - at) << 40;
      return;
    }
  }
}

void Predicate::EmitTerm(const Term& t) {
  const size_t head = code_.size();
  code_.push_back(0);
  size_t items = 0;
  uint64_t small = 0;
  switch (t.field) {
    case Field::kOn:
      for (const FreqItem& f : t.freqs) {
        if (f.band_bits == 0) {
          code_.push_back(kRangeItem);
          code_.push_back(std::bit_cast<uint64_t>(f.low_khz));
          code_.push_back(std::bit_cast<uint64_t>(f.high_khz));
        } else {
          code_.push_back(f.band_bits | uint64_t(f.modes) << 32 | uint64_t(f.beacon_only) << 48);
        }
      }
      items = t.freqs.size();
      break;
    case Field::kCall:
    case Field::kBy:
    case Field::kOrigin:
      for (const CallPattern& p : t.calls) PackText(code_, uint8_t(p.kind), p.text);
      items = t.calls.size();
      break;
    case Field::kInfo:
    case Field::kWords:
      for (const std::string& text : t.texts) PackText(code_, 0, text);
      items = t.texts.size();
      break;
    case Field::kCallDxcc:
    case Field::kByDxcc:
    case Field::kCallState:
    case Field::kByState:
      code_.insert(code_.end(), t.keys.begin(), t.keys.end());
      items = t.keys.size();
      break;
    case Field::kCallItu:
    case Field::kByItu:
    case Field::kCallZone:
    case Field::kByZone:
      code_.insert(code_.end(), t.zones.begin(), t.zones.end());
      break;
    case Field::kCallCont:
    case Field::kByCont:
      small = t.continents;
      break;
    case Field::kSource:
      small = t.sources;
      break;
    case Field::kBandTime:
      for (const BandWindow& w : t.windows) {
        code_.push_back(uint64_t(uint8_t(w.band_index)) | uint64_t(w.from) << 8 |
                        uint64_t(w.to) << 24);
      }
      items = t.windows.size();
      small = t.unlisted_band_matches;
      break;
  }
  code_[head] = Instruction(kOpTerm, uint64_t(t.field), small, items, code_.size() - head - 1);
}

bool Predicate::Run(const uint64_t* code, size_t size, const SpotFacts& facts, int utc_minute) {
  bool value = true;
  size_t pc = 0;
  while (pc < size) {
    const uint64_t insn = code[pc];
    switch (static_cast<CodeOp>(insn & 0xff)) {
      case kOpTerm:
        value = TermMatches(insn, code + pc + 1, facts, utc_minute);
        pc += 1 + size_t(insn >> 40);
        break;
      case kOpJumpIfFalse:
        pc += value ? 1 : size_t(insn >> 40);
        break;
      case kOpJumpIfTrue:
        pc += value ? size_t(insn >> 40) : 1;
        break;
      case kOpNot:
        value = !value;
        ++pc;
        break;
      default:
        return false;
    }
  }
  return value;
}

std::optional<Predicate> ParseFilterExpr(std::string_view text, FilterKind kind,
                                         const FilterParseContext& ctx, FilterError& error,
                                         size_t offset) {
  return ExprParser(text, offset, kind, ctx, error).Parse();
}

FilterParseResult ParseFilterCommand(std::string_view typed, const FilterParseContext& ctx) {
  // Leading blanks are dropped so that positions point into what is kept as typed.
  size_t lead = 0;
  while (lead < typed.size() && IsBlank(typed[lead])) ++lead;
  typed = typed.substr(lead);
  while (!typed.empty() && IsBlank(typed.back())) typed.remove_suffix(1);
  if (typed.size() > kMaxFilterTextLength) {
    return Error(kMaxFilterTextLength, "", "the filter is too long");
  }
  for (size_t i = 0; i < typed.size(); ++i) {
    // "^" separates the fields of the user record the rule is kept in.
    if (typed[i] == '^' || IsControlChar(typed[i])) {
      return Error(i, typed.substr(i, 1), "character not allowed in a filter");
    }
  }
  const std::vector<Token> words = Tokenize(typed);
  if (words.empty()) return Error(0, "", "no command");
  const CommandWords head = SplitSlash(words[0].text, words[0].pos);
  const bool accept = MatchAbbrev("ACCEPT", 3, head.verb);
  const bool reject = MatchAbbrev("REJECT", 3, head.verb);
  const bool clear = MatchAbbrev("CLEAR", 5, head.verb);
  if (accept || reject || clear) {
    const std::optional<FilterKind> kind = KindWord(head.object);
    if (!kind) return Error(head.object_pos, head.object, "expected SPOTS, ANNOUNCE or WWV");
    return clear ? ParseClear(words, typed, *kind)
                 : ParseLineRule(typed, words, accept, *kind, ctx);
  }
  if (MatchAbbrev("SET", 2, head.verb)) {
    if (MatchAbbrev("DXBM", 4, head.object) || MatchAbbrev("DXBANDMODE", 3, head.object)) {
      return ParseDxbmNumbers(words, typed);
    }
    if (MatchAbbrev("FILTERS", 3, head.object)) return ParseKeywordRule(typed, words, ctx);
    return Error(head.object_pos, head.object, "expected FILTER or DXBM");
  }
  return Error(words[0].pos, head.verb, "not a filter command");
}

}  // namespace qx
