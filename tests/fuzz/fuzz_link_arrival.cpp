// Bytes from the front-end, cut into reads at points taken from the bytes themselves, some
// reads arriving while a record is being handled: the records must be the same as when the
// bytes arrive in one piece, and the record handling of the link must survive any of them.
#include <algorithm>
#include <boost/asio/io_context.hpp>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "core/error_log.h"
#include "core/frontend_link.h"
#include "core/link_arrival.h"
#include "core/monitor.h"
#include "core/stream_table.h"

namespace {

class Collect : public qx::LinkArrival::Sink {
 public:
  void OnRecord(std::string_view record) override {
    records.emplace_back(record);
    if (on_record) on_record(record);
  }
  void OnRecordError(std::string_view, std::string_view) override { std::abort(); }
  std::vector<std::string> records;
  std::function<void(std::string_view)> on_record;
};

// Upper layers that answer the way real ones do: with replies to the stream.
class Replying : public qx::LinkEvents {
 public:
  qx::FrontendLink* link = nullptr;
  void OnConnectRequest(int) override { link->SendToStream("login: "); }
  void OnStreamLine(int stream, std::string_view line) override {
    link->SendToStreamNo(stream, line);
  }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1) return 0;
  const uint8_t control = data[0];
  const std::string_view input(reinterpret_cast<const char*>(data) + 1, size - 1);

  Collect whole;
  {
    qx::LinkArrival arrival(whole, 16);
    arrival.Arrive(input);
  }

  Collect cut;
  qx::LinkArrival arrival(cut, 16);
  size_t pos = 0;
  const auto next_piece = [&] {
    const size_t n = std::min<size_t>(1 + (uint8_t(input[pos]) ^ control) % 23, input.size() - pos);
    const std::string_view piece = input.substr(pos, n);
    pos += n;
    return piece;
  };
  cut.on_record = [&](std::string_view record) {
    if (pos < input.size() && ((record.size() + control) & 1)) arrival.Arrive(next_piece());
  };
  while (pos < input.size()) arrival.Arrive(next_piece());
  arrival.Arrive("");
  if (cut.records != whole.records) std::abort();

  // The same bytes through the link's record handling, which must neither crash nor leak.
  static const std::filesystem::path log_dir = [] {
    auto dir = std::filesystem::temp_directory_path() / "qx_fuzz_link_log";
    std::filesystem::create_directories(dir);
    return dir;
  }();
  static qx::SystemClock clock;
  boost::asio::io_context io;
  qx::ErrorLog log(log_dir, clock);
  qx::Monitor monitor;
  qx::StreamTable table;
  Replying events;
  qx::FrontendLinkOptions options;
  options.own_watchdog_timer = false;
  qx::FrontendLink link(io, table, log, monitor, clock, events, options);
  events.link = &link;
  link.Arrive(input);
  return 0;
}
