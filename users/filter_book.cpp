#include "users/filter_book.h"

#include <algorithm>
#include <chrono>

#include <fmt/format.h>

#include "core/stream_table.h"
#include "core/text_util.h"
#include "spots/call_sign.h"
#include "spots/intake.h"

namespace qx {
namespace {

template <size_t N>
void CopyCut(std::array<char, N>& out, std::string_view text) {
  const size_t n = std::min(text.size(), N - 1);
  std::copy_n(text.data(), n, out.data());
  out[n] = '\0';
}

template <size_t N>
std::string_view View(const std::array<char, N>& a) {
  return std::string_view(a.data());
}

int MinuteOfDay(SysTime t) {
  const auto minutes =
      std::chrono::duration_cast<std::chrono::minutes>(t.time_since_epoch()).count();
  return int(((minutes % 1440) + 1440) % 1440);
}

}  // namespace

bool IsOwnSpot(std::string_view user_call, std::string_view spotter) {
  return !spotter.empty() && EqualsIgnoreCase(BaseCall(user_call), BaseCall(spotter));
}

FilterBook::FilterBook(const BandTable& bands, const CountryLookup* countries, const Clock& clock)
    : bands_(bands), countries_(countries), clock_(clock) {}

FilterBook::~FilterBook() = default;

FilterBook::Entry* FilterBook::At(int stream) const {
  if (stream < 0 || size_t(stream) >= entries_.size()) return nullptr;
  return entries_[size_t(stream)].get();
}

FilterBook::Entry& FilterBook::Make(int stream) {
  if (size_t(stream) >= entries_.size()) entries_.resize(size_t(stream) + 1);
  entries_[size_t(stream)] = std::make_unique<Entry>(bands_, countries_);
  entries_[size_t(stream)]->generation = next_generation_++;
  return *entries_[size_t(stream)];
}

const UserFilters* FilterBook::Of(int stream) const {
  const Entry* e = At(stream);
  return e ? &e->filters : nullptr;
}

FilterBook::LoadResult FilterBook::Load(int stream, const SessionSettings& session) {
  LoadResult result;
  if (stream < 0) return result;
  Entry& e = Make(stream);
  e.filters.SetDxbm(session.dxbm, session.dxbm2);
  std::vector<std::string> current, old_items;
  for (const std::string& line : session.filter_lines) {
    if (line.find('^') != std::string::npos) {
      current.push_back(line);
    } else {
      // The older form: "NAME/VALUE" items joined by ";", each a SET/FILTER command.
      for (std::string_view item : Split(line, ';')) {
        if (!Trim(item).empty()) old_items.emplace_back(Trim(item));
      }
      result.rewrite = true;
    }
  }
  result.errors = e.filters.Load(current);
  for (const std::string& item : old_items) {
    const UserFilters::Reply r = e.filters.Apply("SET/FILTER " + item);
    if (!r.ok) result.errors.push_back(r.text + " in the old filter \"" + item + "\"");
  }
  if (!result.errors.empty()) result.rewrite = true;
  return result;
}

void FilterBook::Drop(int stream) {
  if (At(stream)) entries_[size_t(stream)].reset();
}

void FilterBook::Move(int from, int to) {
  if (from == to || to < 0) return;
  if (size_t(to) >= entries_.size()) entries_.resize(size_t(to) + 1);
  entries_[size_t(to)] = At(from) ? std::move(entries_[size_t(from)]) : nullptr;
}

UserFilters::Reply FilterBook::Apply(int stream, std::string_view typed, SessionSettings& session) {
  Entry* e = At(stream);
  if (!e) {
    Load(stream, session);
    e = At(stream);
  }
  UserFilters::Reply r = e->filters.Apply(typed);
  if (r.ok) {
    e->generation = next_generation_++;
    session.dxbm = e->filters.dxbm();
    session.dxbm2 = e->filters.dxbm2();
    session.filter_lines = e->filters.RecordLines();
  }
  return r;
}

void FilterBook::Prepare(const Spot& spot) {
  facts_ = MakeSpotFacts(spot, bands_, nullptr);
  now_ = clock_.Now();
  minute_ = MinuteOfDay(now_);
}

bool FilterBook::Passes(int stream, const StreamEntry& user, const Spot& spot) {
  if (!user.session.Has(kSwFilters) || IsOwnSpot(user.call, spot.spotter())) return true;
  Entry* e = At(stream);
  if (!e) return true;
  // The rule that dropped a spot is named only when SH/FILTER WHY asks.
  const UserFilters::Verdict v = e->filters.DecideSpot(facts_, minute_);
  if (!v.pass) Remember(*e, spot, v);
  return v.pass;
}

void FilterBook::Remember(Entry& e, const Spot& spot, const UserFilters::Verdict& v) {
  Dropped& r = e.ring[e.ring_next];
  e.ring_next = (e.ring_next + 1) % kWhyKept;
  e.ring_count = std::min(e.ring_count + 1, kWhyKept);
  r.when = now_;
  r.khz = spot.FrequencyKHz;
  CopyCut(r.dx, spot.dx_call());
  CopyCut(r.spotter, spot.spotter());
  r.verdict = v;
  r.generation = e.generation;
}

FilterBook::UserGate FilterBook::OriginGate(FilterKind kind, std::string_view sender,
                                            std::string_view text, std::string_view origin) const {
  return [this, kind, from = std::string(sender),
          facts = MakeOriginFacts(sender, text, origin, countries_, nullptr)](
             int stream, const StreamEntry& user) {
    if (!user.session.Has(kSwFilters) || IsOwnSpot(user.call, from)) return true;
    const Entry* e = At(stream);
    if (!e) return true;
    return (kind == FilterKind::kWwv ? e->filters.CheckWwv(facts) : e->filters.CheckAnnounce(facts))
        .pass;
  };
}

bool FilterBook::Shows(int stream, const StreamEntry& user, const Spot& spot) const {
  if (!user.session.Has(kSwFilters) || IsOwnSpot(user.call, spot.spotter())) return true;
  const Entry* e = At(stream);
  if (!e) return true;
  return e->filters.Check(MakeSpotFacts(spot, bands_, nullptr), MinuteOfDay(clock_.Now())).pass;
}

Spot FilterBook::SampleSpot(double khz, std::string_view dx, std::string_view spotter,
                            std::string_view comment, std::string_view origin) const {
  Spot s;
  s.slots[kSlotType] = "PC61";
  s.slots[kSlotDxCall] = ToUpper(dx);
  s.slots[kSlotSpotter] = ToUpper(spotter);
  s.slots[kSlotComment] = std::string(comment);
  s.slots[kSlotOriginNode] = std::string(origin);
  s.FrequencyKHz = khz;
  const std::string upper = ToUpper(comment);
  s.ModeFlags = bands_.BandBit(khz) | ClassifyMode(upper);
  s.IsBeacon = IsBeaconSpot(s.dx_call(), upper);
  if (countries_) {
    s.dx_country = countries_->Find(s.dx_call());
    s.spotter_country = countries_->Find(s.spotter());
  }
  return s;
}

FilterDecision FilterBook::Test(int stream, const Spot& spot) const {
  const Entry* e = At(stream);
  if (!e) return {};
  return e->filters.Check(MakeSpotFacts(spot, bands_, nullptr), MinuteOfDay(clock_.Now()));
}

std::vector<std::string> FilterBook::Describe(int stream, const SessionSettings& session) const {
  std::vector<std::string> out;
  out.push_back(session.Has(kSwFilters)
                    ? "Filters are on."
                    : "Filters are off (SET/FILTERS uses them again); your rules are kept:");
  const Entry* e = At(stream);
  if (!e) {
    out.push_back("No filters are loaded.");
    return out;
  }
  out.push_back(e->filters.Describe().front());
  for (const std::string& stored : e->filters.RecordLines()) {
    const std::vector<std::string_view> parts = SplitLimit(stored, '^', 3);
    if (parts.size() != 3 || parts[1] == "DXBM") continue;
    out.push_back(fmt::format("{} {}: {}", parts[0], parts[1], parts[2]));
  }
  if (!e->filters.HasRules()) out.push_back("No filter rules.");
  return out;
}

std::vector<std::string> FilterBook::WhyLines(int stream) const {
  std::vector<std::string> out;
  const Entry* e = At(stream);
  if (!e) return out;
  for (size_t i = 0; i < e->ring_count; ++i) {
    const Dropped& r = e->ring[(e->ring_next + kWhyKept - e->ring_count + i) % kWhyKept];
    const std::string_view rule = r.generation == e->generation
                                      ? e->filters.NameOf(r.verdict).rule_text
                                      : std::string_view("(changed since)");
    out.push_back(fmt::format("{} {:>9.1f} {:<12} by {:<10} {}: {}", TimeHHnnZ(r.when), r.khz,
                              View(r.dx), View(r.spotter), r.verdict.Id(), rule));
  }
  return out;
}

}  // namespace qx
