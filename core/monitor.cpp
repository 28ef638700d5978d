#include "core/monitor.h"

#include <algorithm>

namespace qx {
namespace {

constexpr size_t kMaxKeptText = 2048;

}  // namespace

void Monitor::KeepHistory(size_t max_lines, std::chrono::seconds max_age) {
  max_lines_ = max_lines;
  max_age_ = max_age;
  while (history_.size() > max_lines_) history_.pop_front();
}

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

SysTime Monitor::Now() const { return clock_ ? clock_->Now() : std::chrono::system_clock::now(); }

void Monitor::Keep(const MonitorLine& line) {
  // A change of the connection list is a signal to the sinks, not something that happened.
  if (max_lines_ == 0 || line.channel == MonitorChannel::kConnections) return;
  while (!history_.empty() &&
         (history_.size() >= max_lines_ || line.time - history_.front().time > max_age_)) {
    history_.pop_front();
  }
  // A long answer (a whole SH/DX list) is kept in part, so the bound on lines bounds memory.
  std::string text(line.text.substr(0, kMaxKeptText));
  if (line.text.size() > kMaxKeptText) text += " ...";
  history_.push_back(MonitorRecord{line.time, line.channel, line.direction, line.stream,
                                   std::string(line.colour), std::move(text)});
}

void Monitor::Write(MonitorChannel channel, std::string_view text, std::string_view colour,
                    int stream, MonitorDirection direction) {
  if (fan_out_depth_ > 0 && channel == MonitorChannel::kRaw && direction != MonitorDirection::kIn) {
    if (fan_out_count_++ == 0) {
      fan_out_text_.assign(text);
      fan_out_stream_ = stream;
    }
    return;
  }
  if (!HasSinks()) return;
  const MonitorLine line{channel, stream, colour, text, direction, Now()};
  Keep(line);
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

void Monitor::BeginFanOut() {
  if (fan_out_depth_++ == 0) {
    fan_out_count_ = 0;
    fan_out_text_.clear();
  }
}

int Monitor::EndFanOut(std::string_view colour) {
  if (fan_out_depth_ == 0 || --fan_out_depth_ > 0) return fan_out_count_;
  const int count = fan_out_count_;
  if (count == 0) return 0;
  std::string text = std::move(fan_out_text_);
  while (!text.empty() && (text.back() == '\r' || text.back() == '\n' || text.back() == '\a')) {
    text.pop_back();
  }
  text += count == 1 ? "  [sent to 1 user]" : "  [sent to " + std::to_string(count) + " users]";
  // One user: the line is theirs and "follow this stream" shows it; several: it belongs to
  // no one stream.
  Write(MonitorChannel::kRaw, text, colour, count == 1 ? fan_out_stream_ : 0,
        MonitorDirection::kOut);
  fan_out_text_.clear();
  return count;
}

std::vector<MonitorRecord> Monitor::History() const {
  std::vector<MonitorRecord> out;
  if (history_.empty()) return out;
  const SysTime oldest = Now() - max_age_;
  out.reserve(history_.size());
  for (const MonitorRecord& r : history_) {
    if (r.time >= oldest) out.push_back(r);
  }
  return out;
}

}  // namespace qx
