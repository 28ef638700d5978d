#include "core/monitor.h"

#include <algorithm>

namespace qx {

int Monitor::Subscribe(Sink sink) {
  const int id = next_id_++;
  sinks_.push_back(Entry{id, std::move(sink)});
  return id;
}

void Monitor::Unsubscribe(int id) {
  std::erase_if(sinks_, [id](const Entry& e) { return e.id == id; });
}

void Monitor::Write(MonitorChannel channel, std::string_view text, std::string_view colour,
                    int stream) {
  if (sinks_.empty()) return;
  const MonitorLine line{channel, stream, colour, text};
  // Copy the list: a sink may unsubscribe itself while being called.
  const auto sinks = sinks_;
  for (const Entry& e : sinks) e.sink(line);
}

}  // namespace qx
