// PC61 lines through the whole reception path (reassembly check, split, trailer check,
// dispatch) to an intake that does nothing: the ceiling the node link puts on spot traffic.
#include <benchmark/benchmark.h>

#include <string>
#include <vector>

#include "core/monitor.h"
#include "core/stream_table.h"
#include "core/time_text.h"
#include "node/node_data.h"

namespace {

class NullOutput : public qx::NodeOutput {
 public:
  void Send(int, std::string_view) override {}
};

void BM_ProcessNodeDataPc61(benchmark::State& state) {
  qx::StreamTable streams;
  streams.EnsureCapacity(1);
  streams.at(1).call = "Q9ZZZ-2";
  streams.at(1).state = qx::kStateNodePc9x;
  qx::Monitor monitor;
  qx::ManualClock clock(qx::MakeUtc(2026, 11, 21, 22, 25, 0));
  NullOutput out;
  size_t taken = 0;
  qx::NodeDeps deps;
  deps.streams = &streams;
  deps.monitor = &monitor;
  deps.output = &out;
  deps.clock = &clock;
  deps.spot_intake = [&taken](const qx::PcSentence& s, int, int) {
    taken += s.fields.size();
    return true;
  };
  qx::NodeProcessor proc(qx::NodeOptions{"Q1AAA", "0.1"}, deps);

  std::vector<std::string> lines;
  for (int i = 0; i < 64; ++i) {
    lines.push_back("PC61^" + std::to_string(14000 + i) + ".0^Q3DX" + std::to_string(i) +
                    "^21-Nov-2026^2225Z^ft8 -12 dB 1234 Hz^Q5USR^Q9ZZZ-2^198.51.100.7^H30^~\r");
  }
  size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(proc.ProcessNodeData(1, lines[i++ & 63]));
  }
  benchmark::DoNotOptimize(taken);
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_ProcessNodeDataPc61);

void BM_ProcessNodeDataMixed(benchmark::State& state) {
  qx::StreamTable streams;
  streams.EnsureCapacity(1);
  streams.at(1).call = "Q7XXX";
  streams.at(1).state = qx::kStateNodeLegacy;
  qx::ManualClock clock(qx::MakeUtc(2026, 11, 21, 22, 25, 0));
  NullOutput out;
  qx::NodeDeps deps;
  deps.streams = &streams;
  deps.output = &out;
  deps.clock = &clock;
  deps.spot_intake = [](const qx::PcSentence&, int, int) { return true; };
  qx::NodeProcessor proc(qx::NodeOptions{"Q1AAA", "0.1"}, deps);
  const std::vector<std::string> lines = {
      "PC11^28025.0^Q4DX^21-Nov-2026^2222Z^pc11 from legacy^Q7USR^Q7XXX^H24^~",
      "PC16^Q7XXX^Q7USR - 1^H25^",
      "PC51^Q1AAA^Q7XXX^1^",
      "PC50^Q7XXX^3^H99^",
  };
  size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(proc.ProcessNodeData(1, lines[i++ & 3]));
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_ProcessNodeDataMixed);

}  // namespace
