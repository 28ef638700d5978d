// Any sequence of lines on any mix of node links, starting links and feeds: no crash, no
// sanitizer report, and the carry buffer never grows past what came in.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "core/monitor.h"
#include "core/stream_table.h"
#include "core/text_util.h"
#include "core/time_text.h"
#include "node/node_data.h"

namespace {

class NullOutput : public qx::NodeOutput {
 public:
  void Send(int, std::string_view text) override { bytes += text.size(); }
  size_t bytes = 0;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static qx::ManualClock clock(qx::MakeUtc(2026, 11, 21, 22, 22, 42));
  qx::StreamTable streams;
  streams.EnsureCapacity(5);
  streams.at(1).call = "Q9ZZZ-2";
  streams.at(1).state = qx::kStateNodePc9x;
  streams.at(2).call = "Q7XXX";
  streams.at(2).state = qx::kStateNodeLegacy;
  streams.at(3).state = qx::kStateFeedSkimmer;
  streams.at(5).call = "Q9ZZZ-2";
  qx::Monitor monitor;
  monitor.Subscribe([](const qx::MonitorLine&) {});
  NullOutput out;

  qx::NodeDeps deps;
  deps.streams = &streams;
  deps.monitor = &monitor;
  deps.output = &out;
  deps.clock = &clock;
  deps.errors = [](int, std::string_view, std::string_view) {};
  deps.feed = [](int, int, std::string_view) {};
  // What a neighbour sent reaches intake without control characters and with a real count.
  deps.spot_intake = [](const qx::PcSentence& s, int, int) {
    for (char c : s.line) {
      if (qx::IsControlChar(c)) __builtin_trap();
    }
    const size_t hop = s.number == 61 ? 9 : 8;
    if (hop < s.fields.size() && !qx::IsHopCount(s.fields[hop])) __builtin_trap();
    return s.fields.size() > 8;
  };
  deps.relay = [](int, const qx::PcSentence& s) { (void)s.Join(); };
  deps.pc41.valid_call = [](std::string_view c) { return c.size() >= 3 && c.size() < 12; };
  deps.pc41.bad_word = [](std::string_view v) { return v.find("BAD") != std::string_view::npos; };
  deps.pc41.store = [](std::string_view, std::string_view) {};
  deps.our_config = [](bool pc9x) {
    return std::vector<std::string>{pc9x ? "PC92^Q1AAA^1^C^5Q1AAA^H99^\r\n" : "PC20^\r\n"};
  };
  qx::NodeProcessor proc(qx::NodeOptions{"Q1AAA", "0.1", 1, true, (size & 1) != 0}, deps);
  proc.StartLink(4, qx::NodeLinkHandshake::Role::kCall, "Q8YYY");
  proc.StartLink(5, qx::NodeLinkHandshake::Role::kAccept, "Q9ZZZ-2");

  // Each line: one byte choosing the stream (and with its top bit, a piece without its line
  // end), then text up to LF.
  std::string_view input(reinterpret_cast<const char*>(data), size);
  size_t total = 0;
  while (!input.empty()) {
    const uint8_t choice = static_cast<uint8_t>(input[0]);
    const int stream = 1 + (choice & 0x7f) % 6;  // 6 is out of range
    const auto end =
        (choice & 0x80) ? qx::NodeProcessor::LineEnd::kMissing : qx::NodeProcessor::LineEnd::kSeen;
    input.remove_prefix(1);
    const size_t lf = input.find('\n');
    const std::string_view line = input.substr(0, lf);
    total += line.size();
    proc.ProcessNodeData(stream, line, end);
    if (stream <= 5 && streams.at(stream).node_carry.size() > total) __builtin_trap();
    input.remove_prefix(lf == std::string_view::npos ? input.size() : lf + 1);
  }
  if ((size & 3) == 3) proc.LinkClosed(1);
  return 0;
}
