// The filter engine at the size the node is built for: 10,000 users with three rules each,
// one spot checked against all of them; rule compilation; the per-spot facts.  Countries come
// from the real country file when it is installed, else from a small table.
#include <benchmark/benchmark.h>

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include <fmt/format.h>

#include "core/file_util.h"
#include "filters/user_filters.h"
#include "spots/bands.h"
#include "spots/country.h"
#include "spots/intake.h"

namespace qx {
namespace {

constexpr char kSmallCountries[] =
    "United States:  05:  08:  NA:   37.60:    91.87:     5.0:  K:\n    AA,K,N,W;\n"
    "Germany:        14:  28:  EU:   51.00:   -10.00:    -1.0:  DL:\n    DA,DJ,DK,DL;\n"
    "Japan:          25:  45:  AS:   36.40:  -138.38:    -9.0:  JA:\n    JA,JH,JR;\n";

struct World {
  BandTable bands = BandTable::SetupFreqRanges();
  CountryLookup countries;
  World() {
    const std::optional<std::string> text =
        ReadFileText(std::filesystem::path("/usr/share/hamradio-files") / "cty.dat");
    if (!text || !countries.LoadText(*text)) countries.LoadText(kSmallCountries);
  }
};

const World& TheWorld() {
  static const World* world = new World();
  return *world;
}

// Three rules per user, varied so that users differ as they do on a node: a band line, a
// country line, and a keyword or band-time rule.
std::vector<std::string> RulesOfUser(int user) {
  static const char* const kBands[] = {"hf", "20m,40m", "160,80/cw", "6m,2m", "hf/ft8", "15m"};
  static const char* const kCountries[] = {"K,VE", "DL,F,G", "JA", "VK,ZL", "EA,I", "UA,UR"};
  std::vector<std::string> rules;
  rules.push_back(fmt::format("acc/spots 1 on {} and not by_cont {}", kBands[user % 6],
                              user % 2 ? "AS" : "SA"));
  rules.push_back(fmt::format("rej/spots 2 call_dxcc {} or info QRT", kCountries[user % 6]));
  rules.push_back(user % 3 ? "SET/FILTER KEYWORD/REJ CW,ROS,PSK,IOTA,JT65,JT9"
                           : "SET/FILTER BANDTIME/PASS 160:2000-0800,80:1900-0900");
  return rules;
}

Spot MakeSpot(const World& w, double khz, std::string_view dx, std::string_view spotter,
              std::string_view comment) {
  Spot s;
  s.slots[kSlotDxCall] = std::string(dx);
  s.slots[kSlotSpotter] = std::string(spotter);
  s.slots[kSlotComment] = std::string(comment);
  s.slots[kSlotOriginNode] = "XX0QX";
  s.FrequencyKHz = khz;
  std::string upper(comment);
  for (char& c : upper) c = char(std::toupper(static_cast<unsigned char>(c)));
  s.ModeFlags = w.bands.BandBit(khz) | ClassifyMode(upper);
  s.dx_country = w.countries.Find(dx);
  s.spotter_country = w.countries.Find(spotter);
  return s;
}

void BM_CheckOneSpotAgainst10000Users(benchmark::State& state) {
  const World& w = TheWorld();
  std::vector<UserFilters> users;
  users.reserve(10000);
  for (int u = 0; u < 10000; ++u) {
    users.emplace_back(w.bands, &w.countries);
    for (const std::string& rule : RulesOfUser(u)) {
      if (!users.back().Apply(rule).ok) state.SkipWithError("a benchmark rule did not parse");
    }
  }
  const std::vector<SpotFacts> spots = {
      MakeSpotFacts(MakeSpot(w, 14025.0, "JA1XYZ", "DL1AAA", "loud"), w.bands, nullptr),
      MakeSpotFacts(MakeSpot(w, 7074.0, "K1ABC", "JH1AAA", "FT8 -10"), w.bands, nullptr),
      MakeSpotFacts(MakeSpot(w, 1825.0, "VK2ABC", "W1AW", "up 2"), w.bands, nullptr),
      MakeSpotFacts(MakeSpot(w, 50313.0, "ZS6AB", "DL9ZZ", "iota AF-001"), w.bands, nullptr),
  };
  size_t i = 0;
  int64_t passed = 0;
  for (auto _ : state) {
    const SpotFacts& spot = spots[i++ % spots.size()];
    for (const UserFilters& u : users) passed += u.Check(spot, 21 * 60).pass;
  }
  benchmark::DoNotOptimize(passed);
  state.counters["users"] = 10000;
  state.counters["pass_pct"] = 100.0 * double(passed) / (10000.0 * double(state.iterations()));
}
BENCHMARK(BM_CheckOneSpotAgainst10000Users)->Unit(benchmark::kMillisecond);

void BM_CompileRules(benchmark::State& state) {
  const World& w = TheWorld();
  std::vector<std::string> rules;
  for (int u = 0; u < 60; ++u) {
    for (std::string& r : RulesOfUser(u)) rules.push_back(std::move(r));
  }
  const FilterParseContext ctx{&w.bands, &w.countries};
  size_t i = 0;
  for (auto _ : state) {
    FilterParseResult r = ParseFilterCommand(rules[i], ctx);
    benchmark::DoNotOptimize(r);
    if (++i == rules.size()) i = 0;
  }
  state.SetItemsProcessed(int64_t(state.iterations()));
}
BENCHMARK(BM_CompileRules);

void BM_MakeSpotFacts(benchmark::State& state) {
  const World& w = TheWorld();
  const Spot s = MakeSpot(w, 14025.0, "JA1XYZ", "DL1AAA-2", "CQ up 2 loud into EU");
  for (auto _ : state) {
    SpotFacts f = MakeSpotFacts(s, w.bands, nullptr);
    benchmark::DoNotOptimize(f);
  }
  state.SetItemsProcessed(int64_t(state.iterations()));
}
BENCHMARK(BM_MakeSpotFacts);

}  // namespace
}  // namespace qx
