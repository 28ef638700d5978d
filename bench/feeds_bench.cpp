// The skimmer verification stage at feed rates: raw lines read and decided, one core.  The
// stream imitates a busy contest weekend: 20,000 calls on the HF bands, each heard by one to
// eight of 300 skimmers a little apart in frequency, one report in fifty a slip of the
// decoder, the clock moving one second per 2,000 reports (so the windows hold a full table).
#include <benchmark/benchmark.h>

#include <random>
#include <string>
#include <vector>

#include <fmt/format.h>

#include "feeds/skimmer_line.h"
#include "feeds/skimmer_verifier.h"
#include "spots/bands.h"

namespace qx {
namespace {

constexpr int kCalls = 20000;
constexpr int kSkimmers = 300;
constexpr int kReportsPerSecond = 2000;

std::vector<std::string> MakeLines(size_t count) {
  std::mt19937 rng(17);
  static const double kBandStarts[] = {1810, 3500, 7000, 10100, 14000, 18068, 21000, 24890, 28000};
  std::vector<std::string> lines;
  lines.reserve(count);
  while (lines.size() < count) {
    const int call = int(rng() % kCalls);
    const std::string dx =
        fmt::format("{}{}{}{}{}", "KWNG"[call % 4], call % 10, char('A' + call / 10 % 26),
                    char('A' + call / 260 % 26), char('A' + call / 6760 % 26));
    const double khz = kBandStarts[call % 9] + (call % 97) * 0.5;
    const int heard_by = 1 + int(rng() % 8);
    for (int i = 0; i < heard_by && lines.size() < count; ++i) {
      const int skimmer = int(rng() % kSkimmers);
      std::string reported = dx;
      if (rng() % 50 == 0) reported.back() = char('A' + rng() % 26);
      lines.push_back(fmt::format("DX de S{}KM-#: {:.1f} {} CW {} dB {} WPM CQ 1854Z", skimmer,
                                  khz + 0.1 * int(rng() % 3), reported, 5 + rng() % 30,
                                  18 + rng() % 20));
    }
  }
  return lines;
}

void BM_ReadAndVerifySkimmerLines(benchmark::State& state) {
  const std::vector<std::string> lines = MakeLines(200000);
  const BandTable bands = BandTable::SetupFreqRanges();
  VerifierSettings settings;
  settings.origin_node = "XX0QX";
  SkimmerVerifier verifier(bands, settings);
  SysTime now = MakeUtc(2026, 3, 14, 18, 0, 0);
  SkimmerReport report;
  size_t i = 0;
  size_t passed = 0;
  for (auto _ : state) {
    if (ParseSkimmerLine(lines[i % lines.size()], report) == SkimmerLineError::kNone) {
      passed += verifier.Decide(report, now).outcome == SkimmerOutcome::kPass;
    }
    if (++i % kReportsPerSecond == 0) now += std::chrono::seconds(1);
  }
  state.SetItemsProcessed(int64_t(i));
  state.counters["passed"] = benchmark::Counter(double(passed) / double(i));
  state.counters["calls_held"] = double(verifier.calls_held());
}
BENCHMARK(BM_ReadAndVerifySkimmerLines);

void BM_VerifyParsedReports(benchmark::State& state) {
  const std::vector<std::string> lines = MakeLines(200000);
  std::vector<SkimmerReport> reports(lines.size());
  for (size_t k = 0; k < lines.size(); ++k) ParseSkimmerLine(lines[k], reports[k]);
  const BandTable bands = BandTable::SetupFreqRanges();
  SkimmerVerifier verifier(bands);
  SysTime now = MakeUtc(2026, 3, 14, 18, 0, 0);
  size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(verifier.Decide(reports[i % reports.size()], now).outcome);
    if (++i % kReportsPerSecond == 0) now += std::chrono::seconds(1);
  }
  state.SetItemsProcessed(int64_t(i));
}
BENCHMARK(BM_VerifyParsedReports);

}  // namespace
}  // namespace qx
