#include "core/monitor.h"

#include <algorithm>

namespace qx {

int Monitor::Subscribe(Sink sink) {
  const int id = next_id_++;
  sinks_.push_back(Entry{id, std::move(sink)});
  return id;
}

void Monitor::Unsubscribe(int id) {
  for (Entry& e : sinks_) {
    if (e.id == id) {
      e.id = 0;  // no longer called, even later in a Write that is under way
      erase_pending_ = true;
    }
  }
  if (writing_ == 0) {
    std::erase_if(sinks_, [](const Entry& e) { return e.id == 0; });
    erase_pending_ = false;
  }
}

void Monitor::Write(MonitorChannel channel, std::string_view text, std::string_view colour,
                    int stream) {
  if (sinks_.empty()) return;
  const MonitorLine line{channel, stream, colour, text};
  // Called for every line sent to a user while a console watches, so nothing is copied:
  // sinks that subscribe meanwhile hear from the next line on.
  ++writing_;
  const size_t count = sinks_.size();
  for (size_t i = 0; i < count; ++i) {
    if (sinks_[i].id != 0) sinks_[i].sink(line);
  }
  if (--writing_ == 0 && erase_pending_) {
    std::erase_if(sinks_, [](const Entry& e) { return e.id == 0; });
    erase_pending_ = false;
  }
}

}  // namespace qx
