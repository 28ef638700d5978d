// Intake throughput: valid "PC61" sentences through every check (lists of realistic size,
// the band table, the word checks, a hash-based country lookup, dupes and rate limits).
#include <benchmark/benchmark.h>

#include <string>
#include <unordered_map>
#include <vector>

#include "core/program_dir.h"
#include "core/text_util.h"
#include "spots/bad_lists.h"
#include "spots/bands.h"
#include "spots/dupes.h"
#include "spots/dx_command.h"
#include "spots/intake.h"
#include "spots/rate_limit.h"

namespace qx {
namespace {

struct Countries {
  std::unordered_map<std::string, CountryInfo, StringViewHash, std::equal_to<>> by_prefix;
  Countries() {
    const char* prefixes[] = {"K",  "W",  "N",  "AA", "DL", "DJ", "G",   "M",  "F",
                              "I",  "EA", "JA", "VK", "ZL", "PY", "LU",  "UA", "R",
                              "OH", "SM", "LA", "OZ", "PA", "ON", "HB9", "OE", "SP",
                              "OK", "HA", "YO", "LZ", "SV", "9A", "S5"};
    for (const char* p : prefixes) by_prefix[p] = CountryInfo{p, p, 14, 28, "EU", 50, 10};
  }
  // Longest matching prefix of up to four characters, as a prefix table answers.
  const CountryInfo* Find(std::string_view call) const {
    for (size_t n = std::min<size_t>(call.size(), 4); n > 0; --n) {
      auto it = by_prefix.find(call.substr(0, n));
      if (it != by_prefix.end()) return &it->second;
    }
    return nullptr;
  }
};

bool BenchValidCall(std::string& call) {
  ToUpperInPlace(call);
  if (call.size() < 3 || call[0] == 'Q' || call[0] < '1') return false;
  for (char c : call) {
    if (!((c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '/' || c == '-')) return false;
  }
  return true;
}

void BM_IntakeValidPc61(benchmark::State& state) {
  BadLists lists;
  std::string words;
  for (int i = 0; i < 300; ++i) words += "badword" + std::to_string(i) + "\r\n";
  words += "some bad phrase\r\nanother bad phrase\r\n";
  lists.SetBadWordsText(words);
  std::vector<std::string> dx_nok, spotter_nok, node_nok;
  for (int i = 0; i < 100; ++i) {
    dx_nok.push_back("XX" + std::to_string(i) + "BAD");
    spotter_nok.push_back("YY" + std::to_string(i) + "BAD");
    node_nok.push_back("ZZ" + std::to_string(i) + "NOD");
    lists.AddRefusedAddress("203.0.113." + std::to_string(i));
    lists.AddTorAddress("198.18.0." + std::to_string(i));
  }
  dx_nok.push_back("VP8Z*");
  lists.SetDxNok(dx_nok);
  lists.SetSpotterNok(spotter_nok);
  lists.SetNodeNok(node_nok);
  const BandTable bands = BandTable::SetupFreqRanges();
  DupeDetector dupes;
  SpotRateLimiter rates(SpotRates{100000000, 1000000, 1000000});
  Countries countries;
  ManualClock clock(MakeUtc(2026, 11, 22, 3, 15));

  IntakeDeps deps;
  deps.bad_lists = &lists;
  deps.bands = &bands;
  deps.dupes = &dupes;
  deps.rates = &rates;
  deps.valid_call = BenchValidCall;
  deps.country_of = [&countries](std::string_view c) { return countries.Find(c); };
  deps.clock = &clock;
  deps.node_call = "DB0QX";
  // The sentences carry one fixed time, replayed pass after pass: no spot is too old here.
  IntakeOptions options;
  options.max_age = std::chrono::hours(24 * 365 * 100);
  options.max_ahead = options.max_age;
  SpotIntake intake(std::move(deps), options);

  // Distinct spots so that none is a duplicate within one pass.
  const char* pre[] = {"K", "DL", "JA", "VK", "G", "PY", "UA", "OH"};
  const char* comments[] = {"CQ CQ up 2",   "ft8 -12dB",  "tnx qso 599",
                            "RTTY contest", "loud in EU", " "};
  const double freqs[] = {1825.5, 3525.0, 7012.3, 10115.0, 14025.0, 18080.0, 21020.0, 28020.0};
  std::vector<std::string> sentences;
  for (int i = 0; i < 4096; ++i) {
    sentences.push_back("PC61^" + std::to_string(freqs[i % 8] + (i % 13) * 0.1).substr(0, 7) + "^" +
                        pre[i % 8] + std::to_string(i % 10) + "A" + char('A' + i % 26) +
                        char('A' + (i / 26) % 26) + "^22-Nov-2026^0315Z^" + comments[i % 6] + "^" +
                        pre[(i + 3) % 8] + std::to_string(i % 9) + "XY" + char('A' + i % 26) +
                        "^DB0SUE^192.0.2." + std::to_string(i % 250) + "^H30^~");
  }
  size_t i = 0;
  int64_t accepted = 0;
  for (auto _ : state) {
    IntakeRequest req;
    req.sentence = sentences[i];
    req.source_stream = 1;
    const IntakeResult r = intake.Process(req);
    accepted += r.accepted();
    benchmark::DoNotOptimize(r);
    if (++i == sentences.size()) {
      i = 0;
      clock.Advance(std::chrono::minutes(61));  // the dupe records of the last pass expire
    }
  }
  state.SetItemsProcessed(state.iterations());
  state.counters["accepted_share"] = double(accepted) / double(state.iterations());
}
BENCHMARK(BM_IntakeValidPc61);

void BM_DxCommand(benchmark::State& state) {
  const SysTime now = MakeUtc(2026, 11, 22, 3, 15);
  for (auto _ : state) {
    benchmark::DoNotOptimize(
        DxCommand("DX 14025.123 K1ABC up 2 tnx", "DL1ABC", "DB0QX", "192.0.2.7", now));
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_DxCommand);

}  // namespace
}  // namespace qx
