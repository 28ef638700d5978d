#include "filters/user_filters.h"

#include <algorithm>
#include <cctype>
#include <cstring>

#include <fmt/format.h>

#include "core/text_util.h"

namespace qx {
namespace {

constexpr std::string_view kNoAcceptLine = "no accept line matched";

bool IsLineId(std::string_view id) {
  return id.size() == 2 && (id[0] == 'A' || id[0] == 'R') &&
         std::isdigit(static_cast<unsigned char>(id[1]));
}

// Keyword rules first, then the reject lines, then the accept lines; by id within each.
int Rank(const FilterRule& r) { return !IsLineId(r.id) ? 0 : r.id[0] == 'R' ? 1 : 2; }

size_t KindIndex(FilterKind kind) { return static_cast<size_t>(kind); }

// A rule id (at most eight characters: "A1", "BANDTIME") in one word, as the block keeps it.
uint64_t PackId(std::string_view id) {
  uint64_t word = 0;
  std::memcpy(&word, id.data(), std::min(id.size(), sizeof(word)));
  return word;
}

UserFilters::Verdict MakeVerdict(bool pass, int16_t rule, uint64_t id) {
  UserFilters::Verdict v;
  v.pass = pass;
  v.rule = rule;
  std::memcpy(v.id.data(), &id, sizeof(id));
  return v;
}

}  // namespace

UserFilters::UserFilters(const BandTable& bands, const CountryLookup* countries)
    : bands_(&bands), countries_(countries) {
  SetDxbm(kDxbmNewUser, kDxbmNewUser2);
}

void UserFilters::SetDxbm(uint32_t mask, uint32_t mask2) {
  if (mask == 0 && mask2 == 0) {
    mask = kDxbmStoredZero;
    mask2 = kDxbmStoredZero2;
  }
  dxbm_ = mask;
  dxbm2_ = mask2;
  SetBandMode(BandModeMask::FromNumbers(mask, mask2), "");
}

void UserFilters::SetBandMode(BandModeMask mask, std::string typed) {
  band_mode_ = mask;
  band_mode_typed_ = std::move(typed);
  band_mode_text_ = band_mode_typed_.empty() ? fmt::format("SET/DXBM {}/{} ({})", dxbm_, dxbm2_,
                                                           band_mode_.Describe(*bands_))
                                             : band_mode_typed_;
}

bool UserFilters::HasRules() const {
  return std::any_of(rules_.begin(), rules_.end(), [](const auto& v) { return !v.empty(); });
}

void UserFilters::Insert(FilterRule rule) {
  std::vector<FilterRule>& rules = rules_[KindIndex(rule.kind)];
  std::erase_if(rules, [&](const FilterRule& r) { return r.id == rule.id; });
  const auto at = std::find_if(rules.begin(), rules.end(), [&](const FilterRule& r) {
    return std::make_pair(Rank(r), std::string_view(r.id)) >
           std::make_pair(Rank(rule), std::string_view(rule.id));
  });
  const FilterKind kind = rule.kind;
  rules.insert(at, std::move(rule));
  Compile(kind);
}

void UserFilters::RemoveRule(FilterKind kind, std::string_view id) {
  std::erase_if(rules_[KindIndex(kind)], [&](const FilterRule& r) { return r.id == id; });
  Compile(kind);
}

std::vector<uint64_t>& UserFilters::CodeOf(FilterKind kind) {
  return kind == FilterKind::kSpots ? spot_code_ : origin_code_[KindIndex(kind) - 1];
}

const std::vector<uint64_t>& UserFilters::CodeOf(FilterKind kind) const {
  return kind == FilterKind::kSpots ? spot_code_ : origin_code_[KindIndex(kind) - 1];
}

void UserFilters::Compile(FilterKind kind) {
  const std::vector<FilterRule>& rules = rules_[KindIndex(kind)];
  std::vector<uint64_t>& code = CodeOf(kind);
  code.clear();
  size_t words = 0;
  for (const FilterRule& r : rules) words += 2 + r.predicate.code().size();
  code.reserve(words);
  for (size_t i = 0; i < rules.size(); ++i) {
    const FilterRule& r = rules[i];
    const std::vector<uint64_t>& body = r.predicate.code();
    code.push_back(uint64_t(Rank(r)) | uint64_t(r.pass) << 8 | uint64_t(i) << 16 |
                   uint64_t(body.size()) << 32);
    code.push_back(PackId(r.id));
    code.insert(code.end(), body.begin(), body.end());
  }
  code.shrink_to_fit();
  rules_[KindIndex(kind)].shrink_to_fit();
}

UserFilters::Reply UserFilters::Apply(std::string_view typed) {
  FilterParseResult parsed = ParseFilterCommand(typed, {bands_, countries_});
  if (!parsed.command) return {false, parsed.error.Text()};
  FilterCommand& cmd = *parsed.command;
  switch (cmd.action) {
    case FilterCommand::Action::kSetRule: {
      std::string reply =
          fmt::format("{} filter {} set", FilterKindName(cmd.rule.kind), cmd.rule.id);
      Insert(std::move(cmd.rule));
      return {true, reply};
    }
    case FilterCommand::Action::kRemoveRule:
      RemoveRule(cmd.kind, cmd.id);
      return {true, fmt::format("{} filter {} off", FilterKindName(cmd.kind), cmd.id)};
    case FilterCommand::Action::kClearLines: {
      std::vector<FilterRule>& rules = rules_[KindIndex(cmd.kind)];
      const size_t before = rules.size();
      std::erase_if(rules, [&](const FilterRule& r) {
        return IsLineId(r.id) && (cmd.line < 0 || r.id[1] - '0' == cmd.line);
      });
      const size_t removed = before - rules.size();
      Compile(cmd.kind);
      if (cmd.line < 0) {
        return {true, fmt::format("{} {} filter lines cleared", removed, FilterKindName(cmd.kind))};
      }
      return {true,
              removed ? fmt::format("{} filter line {} cleared", FilterKindName(cmd.kind), cmd.line)
                      : fmt::format("No {} filter line {}", FilterKindName(cmd.kind), cmd.line)};
    }
    case FilterCommand::Action::kDxbmNumbers:
      SetDxbm(cmd.mask, cmd.has_mask2 ? cmd.mask2 : dxbm2_);
      return {true,
              fmt::format("DXBM set to {}/{} ({})", dxbm_, dxbm2_, band_mode_.Describe(*bands_))};
    case FilterCommand::Action::kDxbmWords:
      if (cmd.rule.text.empty()) {
        SetBandMode(BandModeMask::FromNumbers(dxbm_, dxbm2_), "");
      } else {
        SetBandMode(cmd.band_mode, std::move(cmd.rule.text));
      }
      return {true, fmt::format("DXBM: {}", band_mode_.Describe(*bands_))};
  }
  return {false, "Filter error: unknown command"};
}

UserFilters::Verdict UserFilters::Decide(FilterKind kind, const SpotFacts& facts,
                                         int utc_minute) const {
  const std::vector<uint64_t>& code = CodeOf(kind);
  const uint64_t* at = code.data();
  const uint64_t* const end = at + code.size();
  bool any_accept = false;
  while (at < end) {
    const uint64_t head = at[0];
    const uint64_t id = at[1];
    const size_t size = size_t(head >> 32);
    const bool matches = Predicate::Run(at + 2, size, facts, utc_minute);
    at += 2 + size;
    const int rank = int(head & 0xff);
    const bool pass = ((head >> 8) & 1u) != 0;
    const auto rule = int16_t((head >> 16) & 0x7fff);
    if (rank == 0) {
      if (matches != pass) return MakeVerdict(false, rule, id);
    } else if (!pass) {
      if (matches) return MakeVerdict(false, rule, id);
    } else {
      if (matches) return MakeVerdict(true, rule, id);
      any_accept = true;
    }
  }
  if (any_accept) return MakeVerdict(false, kNoAccept, PackId("ACCEPT"));
  return {};
}

UserFilters::Verdict UserFilters::DecideSpot(const SpotFacts& facts, int utc_minute_of_day) const {
  if (!band_mode_.Passes(facts.band_index, facts.mode)) {
    return MakeVerdict(false, kMask, PackId("DXBM"));
  }
  return Decide(FilterKind::kSpots, facts, utc_minute_of_day);
}

FilterDecision UserFilters::Name(FilterKind kind, const Verdict& v) const {
  switch (v.rule) {
    case kNoRule:
      return {v.pass, {}, {}};
    case kNoAccept:
      return {false, "ACCEPT", kNoAcceptLine};
    case kMask:
      return {false, "DXBM", band_mode_text_};
    default:
      break;
  }
  const FilterRule& r = rules_[KindIndex(kind)][size_t(v.rule)];
  return {v.pass, r.id, r.text};
}

FilterDecision UserFilters::Check(const SpotFacts& facts, int utc_minute_of_day) const {
  return Name(FilterKind::kSpots, DecideSpot(facts, utc_minute_of_day));
}

FilterDecision UserFilters::CheckAnnounce(const SpotFacts& facts) const {
  return Name(FilterKind::kAnnounce, Decide(FilterKind::kAnnounce, facts, 0));
}

FilterDecision UserFilters::CheckWwv(const SpotFacts& facts) const {
  return Name(FilterKind::kWwv, Decide(FilterKind::kWwv, facts, 0));
}

std::vector<std::string> UserFilters::RecordLines() const {
  std::vector<std::string> out;
  if (!band_mode_typed_.empty()) out.push_back("SPOTS^DXBM^" + band_mode_typed_);
  for (const auto& rules : rules_) {
    for (const FilterRule& r : rules) {
      out.push_back(fmt::format("{}^{}^{}", FilterKindName(r.kind), r.id, r.text));
    }
  }
  return out;
}

std::vector<std::string> UserFilters::Load(const std::vector<std::string>& lines) {
  std::vector<std::string> errors;
  for (auto& rules : rules_) rules.clear();
  for (FilterKind kind : {FilterKind::kSpots, FilterKind::kAnnounce, FilterKind::kWwv}) {
    CodeOf(kind).clear();
  }
  SetBandMode(BandModeMask::FromNumbers(dxbm_, dxbm2_), "");
  for (const std::string& line : lines) {
    const std::vector<std::string_view> fields = SplitLimit(line, '^', 3);
    if (fields.size() != 3) {
      errors.push_back(fmt::format("Filter line \"{}\" has no rule", line));
      continue;
    }
    FilterParseResult parsed = ParseFilterCommand(fields[2], {bands_, countries_});
    if (!parsed.command) {
      errors.push_back(fmt::format("{} in \"{}\"", parsed.error.Text(), fields[2]));
      continue;
    }
    FilterCommand& cmd = *parsed.command;
    if (cmd.action == FilterCommand::Action::kSetRule) {
      Insert(std::move(cmd.rule));
    } else if (cmd.action == FilterCommand::Action::kDxbmWords && !cmd.rule.text.empty()) {
      SetBandMode(cmd.band_mode, std::move(cmd.rule.text));
    } else {
      errors.push_back(fmt::format("Filter line \"{}\" is not a rule", line));
    }
  }
  return errors;
}

std::vector<std::string> UserFilters::Describe() const {
  std::vector<std::string> out;
  out.push_back(band_mode_typed_.empty()
                    ? fmt::format("DXBM {}/{}: {}", dxbm_, dxbm2_, band_mode_.Describe(*bands_))
                    : fmt::format("DXBM: {} ({})", band_mode_.Describe(*bands_), band_mode_typed_));
  for (const auto& rules : rules_) {
    for (const FilterRule& r : rules) out.push_back(fmt::format("{}: {}", r.id, r.text));
  }
  if (!HasRules()) out.push_back("No filter rules");
  return out;
}

}  // namespace qx
