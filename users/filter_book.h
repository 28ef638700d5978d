// Every logged-in user's spot filters, compiled, by stream.  Filters are compiled when the
// user logs in (or a stream is recovered after a node restart) from the record's "DXBM" and
// "FILTER" lines, changed in place by the filter commands, and dropped at log-out.
//
// For distribution the book is the SpotFilter: Prepare builds the spot's facts once, Passes
// answers for one user without allocating.  The spotter always sees their own spot, and a
// user with filters switched off (SET/NOFILTERS, or a node's defaults) sees every spot.  The
// last spots a user's filters dropped are kept in a small fixed ring for SH/FILTER WHY.
//
// Stored form: one "FILTER" record line per rule, "<kind>^<id>^<rule as typed>", as
// UserFilters::RecordLines gives them.  An older record holds one line of "NAME/VALUE" items
// joined by ";"; it is read once as SET/FILTER commands and written back in the new form.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "core/session.h"
#include "core/time_text.h"
#include "filters/spot_facts.h"
#include "filters/user_filters.h"
#include "spots/distribution.h"

namespace qx {

class FilterBook final : public SpotFilter {
 public:
  static constexpr size_t kWhyKept = 10;

  // All three must outlive the book; countries may be null.
  FilterBook(const BandTable& bands, const CountryLookup* countries, const Clock& clock);
  ~FilterBook() override;

  struct LoadResult {
    std::vector<std::string> errors;  // stored lines that were dropped, one text each
    bool rewrite = false;             // the stored lines should be saved again (old form)
  };
  // Compiles the session's DXBM numbers and FILTER lines for the stream, replacing whatever
  // the stream held.
  LoadResult Load(int stream, const SessionSettings& session);
  void Drop(int stream);
  // A reconnection takes the session over: the filters (and their ring) move with it.
  void Move(int from, int to);
  // Null when nothing is loaded for the stream.
  const UserFilters* Of(int stream) const;

  // A filter command typed by the user.  On success the session's DXBM numbers and
  // filter_lines are updated to what must be stored.
  UserFilters::Reply Apply(int stream, std::string_view typed, SessionSettings& session);

  // SpotFilter
  void Prepare(const Spot& spot) override;
  bool Passes(int stream, const StreamEntry& user, const Spot& spot) override;

  // Announcements and WX/WWV/WCY lines go through the same rules (ANNOUNCE rules for
  // announcements, WWV rules for WX announcements and WWV/WCY lines).  The sender's facts are
  // built once here, per line; the gate answers per user, on the same terms as spots: filters
  // switched off or the user's own line always pass.  kind: kAnnounce or kWwv.
  using UserGate = std::function<bool(int stream, const StreamEntry& user)>;
  UserGate OriginGate(FilterKind kind, std::string_view sender, std::string_view text,
                      std::string_view origin) const;

  // Whether SH/DX shows the spot to the user (facts built here: SH/DX is not the hot path).
  bool Shows(int stream, const StreamEntry& user, const Spot& spot) const;
  // A spot as intake would leave it, for TEST/FILTER.
  Spot SampleSpot(double khz, std::string_view dx, std::string_view spotter,
                  std::string_view comment, std::string_view origin) const;
  // The user's filters asked about a spot, ignoring the own-spot and switch rules.
  FilterDecision Test(int stream, const Spot& spot) const;

  // SH/FILTER: whether filters are on, the band-mode mask in words, then every rule as typed
  // under the kind of traffic it is for.
  std::vector<std::string> Describe(int stream, const SessionSettings& session) const;
  // The dropped spots the ring holds, oldest first, one line each.
  std::vector<std::string> WhyLines(int stream) const;

 private:
  struct Dropped {
    SysTime when{};
    double khz = 0;
    std::array<char, 16> dx{};
    std::array<char, 16> spotter{};
    UserFilters::Verdict verdict;  // its rule is named while generation is unchanged
    uint64_t generation = 0;
  };
  struct Entry {
    explicit Entry(const BandTable& bands, const CountryLookup* countries)
        : filters(bands, countries) {}
    UserFilters filters;
    uint64_t generation = 0;  // counts changes of the filters
    std::array<Dropped, kWhyKept> ring{};
    size_t ring_next = 0;
    size_t ring_count = 0;
  };
  Entry* At(int stream) const;
  Entry& Make(int stream);
  void Remember(Entry& e, const Spot& spot, const UserFilters::Verdict& v);

  const BandTable& bands_;
  const CountryLookup* countries_;
  const Clock& clock_;
  std::vector<std::unique_ptr<Entry>> entries_;  // by stream number
  uint64_t next_generation_ = 1;
  // The spot being distributed.
  SpotFacts facts_;
  int minute_ = 0;
  SysTime now_{};
};

// The spotter of a spot is this user (SSIDs aside).
bool IsOwnSpot(std::string_view user_call, std::string_view spotter);

}  // namespace qx
