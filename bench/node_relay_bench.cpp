// Spots arriving on one node link and passed on to the others: reception, the intake hand-off
// (a stand-in that accepts everything) and the relay to every other established link.
#include <benchmark/benchmark.h>
#include <fmt/format.h>

#include <string>
#include <vector>

#include "core/stream_output.h"
#include "core/stream_table.h"
#include "core/text_util.h"
#include "core/time_text.h"
#include "node/node_network.h"
#include "spots/spot.h"

namespace {

class CountingOutput : public qx::StreamOutput {
 public:
  void SendToStream(int, std::string_view text) override { bytes += text.size(); }
  void CloseStream(int) override {}
  void SetStreamIdentity(int, std::string_view, int) override {}
  void SetStreamAttributes(int, std::string_view) override {}
  size_t bytes = 0;
};

void BM_RelaySpotToLinks(benchmark::State& state) {
  const int links = int(state.range(0));
  qx::StreamTable streams;
  streams.EnsureCapacity(links);
  qx::ManualClock clock(qx::MakeUtc(2026, 11, 21, 22, 25, 0));
  CountingOutput out;
  qx::NodeNetworkOptions options;
  options.our_call = "Q1AAA";
  options.version = "0.1";
  qx::NodeNetwork* net_ptr = nullptr;
  qx::Spot spot;
  qx::NodeNetworkDeps deps;
  deps.streams = &streams;
  deps.out = &out;
  deps.clock = &clock;
  deps.spot_intake = [&](std::string_view sentence, int, int stream) {
    // What the real intake hands on: the fields as the spot's slots.
    std::vector<std::string_view> f;
    qx::SplitInto(sentence, '^', f);
    for (size_t i = 0; i < qx::kSpotSlots && i < f.size(); ++i) spot.slots[i].assign(f[i]);
    net_ptr->RelaySpot(spot, stream);
    return true;
  };
  qx::NodeNetwork net(options, std::move(deps));
  net_ptr = &net;
  // Established links as a restarted node finds them.
  for (int s = 1; s <= links; ++s) {
    qx::StreamEntry& e = streams.at(s);
    e.call = fmt::format("Q{}NODE", s);
    e.state = s % 2 ? qx::kStateNodePc9x : qx::kStateNodeLegacy;
    net.OnStreamRecovered(s);
  }
  std::vector<std::string> lines;
  for (int i = 0; i < 1000; ++i) {
    std::string line = "PC61^14025.0^JA";
    line += std::to_string(i);
    line += "AB^21-Nov-2026^2225Z^cq test^Q5USR^Q9ZZZ-2^198.51.100.7^H30^~";
    lines.push_back(std::move(line));
  }
  out.bytes = 0;
  size_t i = 0;
  for (auto _ : state) {
    net.OnLine(1, lines[i++ % lines.size()]);
  }
  state.SetItemsProcessed(int64_t(state.iterations()));
  state.counters["bytes_out_per_spot"] =
      benchmark::Counter(double(out.bytes) / double(state.iterations()));
}
BENCHMARK(BM_RelaySpotToLinks)->Arg(2)->Arg(8)->Arg(32);

}  // namespace
