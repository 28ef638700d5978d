// One accepted spot to 10,000 users who each have three filter rules: the spot's facts are
// built once, every user's compiled rules are asked, and the lines go to a counting sink.
// Compared with the same users without rules, this is the price of the filters.
#include <benchmark/benchmark.h>
#include <fmt/format.h>

#include <string>
#include <tuple>
#include <vector>

#include "core/stream_table.h"
#include "core/time_text.h"
#include "spots/bands.h"
#include "spots/country.h"
#include "spots/distribution.h"
#include "users/filter_book.h"

namespace {

constexpr int kUsers = 10000;

class CountingSink : public qx::SpotSink {
 public:
  void SendToStream(int, std::string_view text) override { bytes += text.size(); }
  size_t bytes = 0;
};

constexpr char kCountries[] =
    "United States: 05: 08: NA: 37.60: 91.87: 5.0: K:\n    AA,K,N,W;\n"
    "Germany: 14: 28: EU: 51.00: -10.00: -1.0: DL:\n    DA,DB,DC,DD,DF,DG,DH,DJ,DK,DL;\n"
    "Japan: 25: 45: AS: 36.40: -138.38: -9.0: JA:\n    JA,JE,JF,JG,JH;\n"
    "England: 14: 27: EU: 52.77: 1.47: 0.0: G:\n    G,M,2E;\n";

// Three rules per user, of the kinds users write: a country keyword rule, an accept line on
// bands and modes, and a reject line on the spotter's continent and the comment.
const char* const kRuleSets[][3] = {
    {"SET/FILTER DXCTY/REJ JA", "ACC/SPOTS 1 on hf/cw or on 6m", "REJ/SPOTS 2 by_cont AS"},
    {"SET/FILTER DOC/PASS K,DL,G", "ACC/SPOTS 1 on 20m or on 40m", "REJ/SPOTS 3 info iota"},
    {"SET/FILTER KEYWORD/REJ FT8,FT4", "ACC/SPOTS 2 call_cont EU or by_cont EU",
     "REJ/SPOTS 1 call K1* or call W1*"},
    {"SET/DXBM 1610792964/65535", "ACC/SPOTS 1 not (call_dxcc JA) and on hf",
     "REJ/SPOTS 4 by_zone 5"},
};

void Run(benchmark::State& state, bool with_rules) {
  qx::StreamTable streams;
  streams.EnsureCapacity(kUsers);
  const qx::BandTable bands = qx::BandTable::SetupFreqRanges();
  qx::CountryLookup countries;
  countries.LoadText(kCountries);
  qx::ManualClock clock(qx::MakeUtc(2026, 11, 24, 12, 0, 0));
  qx::FilterBook book(bands, &countries, clock);
  CountingSink sink;
  qx::SpotDistributor dist(streams, sink);
  dist.set_filter(&book);
  for (int s = 1; s <= kUsers; ++s) {
    qx::StreamEntry& e = streams.at(s);
    e.call = fmt::format("G{}U{}", s % 10, s);
    e.state = qx::kStateUser;
    e.session.width = s % 3 == 0 ? 80 : 75;
    book.Load(s, e.session);
    if (!with_rules) continue;
    for (const char* rule : kRuleSets[s % std::size(kRuleSets)]) {
      if (!book.Apply(s, rule, e.session).ok) state.SkipWithError(rule);
    }
  }
  // A few spots of different kinds, taken in turn.
  std::vector<qx::Spot> spots;
  for (const auto& [khz, dx, spotter, comment] :
       {std::tuple{14025.0, "JA1XYZ", "DL1ABC", "cq up 2"},
        std::tuple{7074.0, "K1ABC", "G4XYZ", "FT8 -12dB"},
        std::tuple{21300.0, "DL5AB", "JA1AAA", "iota EU-057"},
        std::tuple{50313.0, "W1AW", "K9XYZ", ""}}) {
    spots.push_back(book.SampleSpot(khz, dx, spotter, comment, "XX0QX"));
    spots.back().slots[qx::kSlotTime] = "1200Z";
    spots.back().slots[qx::kSlotFrequency] = fmt::format("{:.1f}", khz);
  }
  size_t i = 0, users = 0, filtered = 0;
  for (auto _ : state) {
    const qx::DistributionStats d = dist.OutputSpotToAll(spots[i++ % spots.size()]);
    users += size_t(d.users);
    filtered += size_t(d.filtered);
  }
  state.counters["users_per_spot"] = double(users) / double(state.iterations());
  state.counters["filtered_per_spot"] = double(filtered) / double(state.iterations());
  benchmark::DoNotOptimize(sink.bytes);
}

void BM_OutputSpotToAll_10kUsersThreeRules(benchmark::State& state) { Run(state, true); }
void BM_OutputSpotToAll_10kUsersNoRules(benchmark::State& state) { Run(state, false); }

BENCHMARK(BM_OutputSpotToAll_10kUsersThreeRules)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_OutputSpotToAll_10kUsersNoRules)->Unit(benchmark::kMicrosecond);

}  // namespace
