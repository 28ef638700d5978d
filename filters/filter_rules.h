// The two ways of typing a filter, parsed into rules that keep the text as typed:
//   keyword rules   SET/FILTER <NAME>/PASS <list>, <NAME>/REJ[ECT] <list>, <NAME>/OFF
//   line rules      ACCEPT/SPOTS [n] <expr>, REJECT/SPOTS [n] <expr>, CLEAR/SPOTS n|ALL
//                   (and /ANNOUNCE, /WWV), SET/DXBM mask/mask2
// Each rule compiles to a Predicate over SpotFacts.  Parsing never throws; bad input gives
// a FilterError naming the offending word.  docs/filters.md is the user's description.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "filters/band_mode.h"
#include "filters/spot_facts.h"
#include "spots/bands.h"
#include "spots/country.h"

namespace qx {

// Limits that keep a hostile rule cheap to parse and to test.
inline constexpr size_t kMaxFilterTextLength = 400;
inline constexpr int kMaxFilterDepth = 8;      // brackets and "not"s nested
inline constexpr size_t kMaxFilterTerms = 32;  // terms in one rule
inline constexpr size_t kMaxListItems = 64;    // items in one list

struct FilterError {
  size_t position = 0;  // offset of the word in the typed text
  std::string word;     // the offending word, "" at the end of the text
  std::string message;
  // One line for the user: `Filter error at "word": message`.
  std::string Text() const;
};

enum class FilterKind : uint8_t { kSpots, kAnnounce, kWwv };
std::string_view FilterKindName(FilterKind kind);  // "SPOTS", "ANNOUNCE", "WWV"

// A compiled rule body.  The parser builds it as a tree (AddTerm, AddNode, AddGroup) and
// SetRoot flattens the tree into one array of 64-bit words: the terms with their lists
// inline, joined by conditional jumps that stop an "and" at its first miss and an "or" at its
// first hit.  A user's rules are copied side by side into one such array per kind of traffic,
// so deciding for a user walks a single contiguous block instead of a web of small vectors.
// Matches and Run do no allocation.
class Predicate {
 public:
  Predicate() = default;
  Predicate(const Predicate& other) { *this = other; }
  Predicate& operator=(const Predicate& other);
  Predicate(Predicate&&) = default;
  Predicate& operator=(Predicate&&) = default;

  bool Matches(const SpotFacts& facts, int utc_minute) const {
    return Run(code_.data(), code_.size(), facts, utc_minute);
  }
  bool empty() const { return code_.empty(); }
  // The flat form; an empty one matches everything.
  const std::vector<uint64_t>& code() const { return code_; }
  static bool Run(const uint64_t* code, size_t size, const SpotFacts& facts, int utc_minute);

  // Building blocks, used by the parser.
  enum class Field : uint8_t {
    kOn,
    kCall,
    kBy,
    kOrigin,
    kInfo,
    kWords,
    kCallDxcc,
    kByDxcc,
    kCallItu,
    kByItu,
    kCallZone,
    kByZone,
    kCallState,
    kByState,
    kCallCont,
    kByCont,
    kBandTime,
    kSource,
  };
  struct FreqItem {
    uint32_t band_bits = 0;  // 0: a kHz range
    uint16_t modes = kAllModeBits;
    bool beacon_only = false;
    double low_khz = 0, high_khz = 0;
  };
  struct CallPattern {
    enum class Kind : uint8_t { kPrefix, kExact, kGlob } kind = Kind::kPrefix;
    std::string text;  // upper case
  };
  struct BandWindow {
    int band_index = -1;
    uint16_t from = 0, to = 0;  // minutes of the UTC day; from > to wraps midnight
  };
  struct Term {
    Field field = Field::kOn;
    uint8_t continents = 0;              // bit per Continent
    uint8_t sources = 0;                 // bit per SourceKind
    std::array<uint64_t, 2> zones{};     // bit per zone number 0..127
    std::vector<uint64_t> keys;          // CountryKey / StateKey values
    std::vector<CallPattern> calls;      // call, by, origin
    std::vector<std::string> texts;      // info, words (upper case)
    std::vector<FreqItem> freqs;         // on
    std::vector<BandWindow> windows;     // band time
    bool unlisted_band_matches = false;  // band time: a band with no window
  };
  enum class Op : uint8_t { kAnd, kOr, kNot, kTerm };
  struct Node {
    Op op = Op::kTerm;
    uint16_t first = 0;  // kAnd/kOr: first index into children_; kNot: child; kTerm: term
    uint16_t count = 0;  // kAnd/kOr: number of children
  };

  uint16_t AddTerm(Term term);
  uint16_t AddNode(Node node);
  uint16_t AddGroup(Op op, const std::vector<uint16_t>& children);
  // Compiles the tree under root into the flat form and frees the tree.
  void SetRoot(uint16_t root);

 private:
  void Emit(uint16_t node);
  void EmitTerm(const Term& term);

  // The tree, only while the parser builds it.
  struct Tree {
    std::vector<Node> nodes;
    std::vector<uint16_t> children;
    std::vector<Term> terms;
  };
  Tree& tree();

  std::vector<uint64_t> code_;
  std::unique_ptr<Tree> tree_;
};

// One rule as the user holds it.
struct FilterRule {
  FilterKind kind = FilterKind::kSpots;
  std::string id;    // "A1", "R0" (line rules) or the keyword name ("DOC", "BANDTIME")
  bool pass = true;  // accept / pass; false: reject
  std::string text;  // as typed, the whole command
  Predicate predicate;
};

// What a command asks for.
struct FilterCommand {
  enum class Action : uint8_t {
    kSetRule,      // rule (replaces the rule of the same kind and id)
    kRemoveRule,   // SET/FILTER <NAME>/OFF: kind, id
    kClearLines,   // CLEAR/<kind> n|ALL: kind, line (-1 for ALL)
    kDxbmNumbers,  // SET/DXBM mask[/mask2]: mask, mask2 (has_mask2)
    kDxbmWords,    // SET/FILTER DXBM/PASS|REJ <list>: band_mode, rule.text
  };
  Action action = Action::kSetRule;
  FilterRule rule;
  FilterKind kind = FilterKind::kSpots;
  std::string id;
  int line = -1;
  uint32_t mask = 0, mask2 = 0;
  bool has_mask2 = false;
  BandModeMask band_mode;
};

struct FilterParseContext {
  const BandTable* bands = nullptr;          // required
  const CountryLookup* countries = nullptr;  // optional: lets "W" stand for the US ("K")
};

struct FilterParseResult {
  std::optional<FilterCommand> command;
  FilterError error;  // when !command
};

// Any of the filter commands above, abbreviated as the interpreter allows.
FilterParseResult ParseFilterCommand(std::string_view typed, const FilterParseContext& ctx);

// The expression of a line rule alone ("on hf and not call_dxcc K").  offset is added to
// error positions.
std::optional<Predicate> ParseFilterExpr(std::string_view text, FilterKind kind,
                                         const FilterParseContext& ctx, FilterError& error,
                                         size_t offset = 0);

}  // namespace qx
