// Line building: the "DX de" line alone, and a spot pushed to a thousand users.
#include <benchmark/benchmark.h>

#include <cstdio>

#include "core/stream_table.h"
#include "spots/distribution.h"
#include "spots/spot_line.h"

namespace qx {
namespace {

Spot BenchSpot() {
  Spot s;
  s.slots = {"PC61",  "14025.12", "DL1XYZ",    "22-Nov-2026", "0315Z", "CQ CQ up 2 loud in EU",
             "K1ABC", "DB0QX",    "192.0.2.7", "H30",         "~"};
  s.FrequencyKHz = 14025.12;
  return s;
}

void BM_BuildDxDeLine(benchmark::State& state) {
  Spot s = BenchSpot();
  char buf[kDxDeLineMax];
  int decimals = 1;
  for (auto _ : state) {
    benchmark::DoNotOptimize(BuildDxDeLine(s, decimals, "", buf));
    benchmark::ClobberMemory();
    decimals = 3 - decimals;
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_BuildDxDeLine);

class CountingSink : public SpotSink {
 public:
  void SendToStream(int stream, std::string_view text) override { bytes += text.size() + stream; }
  size_t bytes = 0;
};

void BM_OutputSpotToAll1000Users(benchmark::State& state) {
  StreamTable streams;
  streams.EnsureCapacity(1000);
  for (int i = 1; i <= 1000; ++i) {
    StreamEntry& e = streams.at(i);
    e.state = kStateUser;
    char call[16];
    e.call.assign(call, size_t(std::snprintf(call, sizeof call, "G%dABC", i)));
    if (i % 5 == 0) e.session.resolution = 2;
    if (i % 7 == 0) e.session.Set(kSwBeep, true);
    if (i % 11 == 0) {
      e.session.width = 80;
      e.session.Set(kSwGridSquare, true);
    }
  }
  CountingSink sink;
  SpotDistributor dist(streams, sink);
  CountryInfo usa{"United States", "K", 5, 8, "NA", 42.4, -71.1};
  Spot s = BenchSpot();
  s.spotter_country = &usa;
  for (auto _ : state) benchmark::DoNotOptimize(dist.OutputSpotToAll(s));
  state.SetItemsProcessed(state.iterations() * 1000);  // users served
  benchmark::DoNotOptimize(sink.bytes);
}
BENCHMARK(BM_OutputSpotToAll1000Users);

}  // namespace
}  // namespace qx
