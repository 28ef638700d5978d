// Country look-ups over real calls with the full country file.  The calls come from the
// contest check-partial list beside the country file, with portable and SSID forms mixed in.
#include <benchmark/benchmark.h>

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "core/file_util.h"
#include "core/text_util.h"
#include "spots/call_sign.h"
#include "spots/country.h"

namespace qx {
namespace {

const std::filesystem::path kDataDir = "/usr/share/hamradio-files";

const std::optional<std::string>& CountryText() {
  static const std::optional<std::string> text = ReadFileText(kDataDir / "cty.dat");
  return text;
}

const CountryLookup* Table() {
  static const CountryLookup* table = [] {
    if (!CountryText()) return static_cast<CountryLookup*>(nullptr);
    auto* t = new CountryLookup();
    if (!t->LoadText(*CountryText())) {
      delete t;
      return static_cast<CountryLookup*>(nullptr);
    }
    return t;
  }();
  return table;
}

const std::vector<std::string>& Calls() {
  static const std::vector<std::string> calls = [] {
    std::vector<std::string> out;
    const std::optional<std::string> scp = ReadFileText(kDataDir / "MASTER.SCP");
    if (scp) {
      for (std::string_view line : SplitLines(*scp)) {
        line = Trim(line);
        if (!line.empty() && line.front() != '#') out.emplace_back(line);
      }
    }
    if (out.empty()) {
      out = {"K1ABC",  "DL1XYZ", "JA1ABC", "VK2ABC", "G4ABC", "EA8AB", "PY2XX", "ZS6AB",  "UA3ABC",
             "VE3XYZ", "KH6AB",  "W1AW",   "OH2BH",  "LU1AA", "9A1A",  "4X4AB", "3DA0RS", "ZL1AB"};
    }
    // Portable, SSID and lower-case forms as spots and log-ins carry them.
    const size_t n = out.size();
    for (size_t i = 0; i < n; i += 7) {
      switch ((i / 7) % 5) {
        case 0:
          out.push_back(out[i] + "/P");
          break;
        case 1:
          out.push_back("EA8/" + out[i]);
          break;
        case 2:
          out.push_back(out[i] + "-5");
          break;
        case 3:
          out.push_back(out[i] + "/MM");
          break;
        default:
          out.push_back(ToUpper(out[i]) + "/4");
          break;
      }
    }
    return out;
  }();
  return calls;
}

void BM_LoadCountryFile(benchmark::State& state) {
  if (!CountryText()) {
    state.SkipWithError("no /usr/share/hamradio-files/cty.dat (install hamradio-files)");
    return;
  }
  for (auto _ : state) {
    CountryLookup lookup;
    benchmark::DoNotOptimize(lookup.LoadText(*CountryText()));
  }
  CountryLookup lookup;
  lookup.LoadText(*CountryText());
  state.counters["countries"] = double(lookup.country_count());
  state.counters["skipped"] = double(lookup.skipped_count());
}
BENCHMARK(BM_LoadCountryFile)->Unit(benchmark::kMillisecond);

void BM_Find(benchmark::State& state) {
  const CountryLookup* table = Table();
  if (table == nullptr) {
    state.SkipWithError("no /usr/share/hamradio-files/cty.dat (install hamradio-files)");
    return;
  }
  const std::vector<std::string>& calls = Calls();
  size_t i = 0;
  size_t found = 0;
  for (auto _ : state) {
    const CountryInfo* info = table->Find(calls[i]);
    found += info != nullptr;
    benchmark::DoNotOptimize(info);
    if (++i == calls.size()) i = 0;
  }
  state.SetItemsProcessed(int64_t(state.iterations()));
  state.counters["calls"] = double(calls.size());
  state.counters["found_pct"] = 100.0 * double(found) / double(state.iterations());
}
BENCHMARK(BM_Find);

void BM_ValidCallLenient(benchmark::State& state) {
  const std::vector<std::string>& calls = Calls();
  const CallCheckContext ctx;
  std::string call;
  call.reserve(64);
  size_t i = 0;
  for (auto _ : state) {
    call.assign(calls[i]);
    benchmark::DoNotOptimize(ValidCall(call, false, ctx));
    if (++i == calls.size()) i = 0;
  }
  state.SetItemsProcessed(int64_t(state.iterations()));
}
BENCHMARK(BM_ValidCallLenient);

}  // namespace
}  // namespace qx
