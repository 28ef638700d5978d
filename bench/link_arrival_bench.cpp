// Records per second through the front-end link: framing of socket-sized reads into records
// and the record handling of "AA00" down to the stream's line handler (which does nothing).
#include <benchmark/benchmark.h>

#include <boost/asio/io_context.hpp>
#include <filesystem>
#include <string>
#include <string_view>

#include "core/error_log.h"
#include "core/frontend_link.h"
#include "core/link_arrival.h"
#include "core/monitor.h"
#include "core/stream_table.h"

namespace {

constexpr size_t kRecordSize = 100;
constexpr size_t kReadSize = 64 * 1024;  // what one socket read delivers at most

// count "AA00" records of exactly kRecordSize bytes (terminator included) for stream 7.
std::string MakeRecords(int count) {
  std::string out;
  const std::string head = "AA00^7^";
  for (int i = 0; i < count; ++i) {
    std::string line = "DX 14025.0 DL1ABC cq test " + std::to_string(i);
    line.resize(kRecordSize - head.size() - 3, 'x');
    out += head + line + "\r\n\x03";
  }
  return out;
}

class NoOpSink : public qx::LinkArrival::Sink {
 public:
  void OnRecord(std::string_view record) override { benchmark::DoNotOptimize(record.data()); }
  void OnRecordError(std::string_view, std::string_view) override {}
};

class NoOpEvents : public qx::LinkEvents {
 public:
  void OnStreamLine(int, std::string_view line) override { benchmark::DoNotOptimize(line.data()); }
};

template <typename Feed>
void FeedInReads(benchmark::State& state, const std::string& input, Feed feed) {
  for (auto _ : state) {
    for (size_t pos = 0; pos < input.size(); pos += kReadSize) {
      feed(std::string_view(input).substr(pos, kReadSize));
    }
  }
  state.SetItemsProcessed(int64_t(state.iterations()) * int64_t(input.size() / kRecordSize));
  state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(input.size()));
}

void BM_ArrivalFraming(benchmark::State& state) {
  const std::string input = MakeRecords(100000);
  NoOpSink sink;
  qx::LinkArrival arrival(sink);
  FeedInReads(state, input, [&](std::string_view bytes) { arrival.Arrive(bytes); });
}
BENCHMARK(BM_ArrivalFraming);

void BM_ArrivalAndDispatch(benchmark::State& state) {
  const std::string input = MakeRecords(100000);
  boost::asio::io_context io;
  qx::SystemClock clock;
  const auto log_dir = std::filesystem::temp_directory_path() / "qx_link_bench_log";
  qx::ErrorLog log(log_dir, clock);
  qx::Monitor monitor;
  qx::StreamTable table;
  NoOpEvents events;
  qx::FrontendLinkOptions options;
  options.own_watchdog_timer = false;
  qx::FrontendLink link(io, table, log, monitor, clock, events, options);
  link.Arrive("AA03^Connect Request^7^192.0.2.1:5000^1^in^0\x03");
  table.at(7).state = qx::kStateUser;
  FeedInReads(state, input, [&](std::string_view bytes) { link.Arrive(bytes); });
}
BENCHMARK(BM_ArrivalAndDispatch);

}  // namespace
