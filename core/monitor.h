// Where the node tells the sysop what happens: console lines, node traffic, the spot list,
// bad calls, runaways.  Sinks (stdout, the web console) subscribe; the monitor never blocks
// and never sits between the node and its users, so a slow sink loses lines, not time.
//
// The monitor also keeps the recent past (a bounded ring of lines with their times), so a
// console opened in the morning still shows what happened overnight.
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "core/time_text.h"

namespace qx {

enum class MonitorChannel {
  kConsole,      // start-up steps, link events, log-ins
  kRaw,          // traffic on streams (the raw monitor pane)
  kSpots,        // the node's own spot list, with tags and refusal markers
  kBadCall,      // calls refused at log-in
  kRunaway,      // runaway guard hits
  kConnections,  // connection list changed (text: stream number)
};

// Which way a line of stream traffic went.
enum class MonitorDirection : uint8_t {
  kNone,  // not traffic: a note of the node's
  kIn,    // what the user or node on the stream sent us
  kOut,   // what we sent them
};

struct MonitorLine {
  MonitorChannel channel = MonitorChannel::kConsole;
  int stream = 0;           // 0 when the line concerns no stream
  std::string_view colour;  // "", "blue", "red", "green", "orange", "white"
  std::string_view text;
  MonitorDirection direction = MonitorDirection::kNone;
  SysTime time{};
};

// A line as the history keeps it.
struct MonitorRecord {
  SysTime time{};
  MonitorChannel channel = MonitorChannel::kConsole;
  MonitorDirection direction = MonitorDirection::kNone;
  int stream = 0;
  std::string colour;
  std::string text;
};

class Monitor {
 public:
  using Sink = std::function<void(const MonitorLine&)>;

  // Lines are stamped with clock's time (the system clock when none is set).
  void set_clock(const Clock* clock) { clock_ = clock; }
  // Keeps up to max_lines lines and none older than max_age; 0 lines keeps none.
  void KeepHistory(size_t max_lines, std::chrono::seconds max_age);

  int Subscribe(Sink sink);
  void Unsubscribe(int id);
  void Write(MonitorChannel channel, std::string_view text, std::string_view colour = {},
             int stream = 0, MonitorDirection direction = MonitorDirection::kNone);
  void Console(std::string_view text) { Write(MonitorChannel::kConsole, text); }
  // A line that arrived on a stream.
  void Input(int stream, std::string_view text, std::string_view colour = "green") {
    Write(MonitorChannel::kRaw, text, colour, stream, MonitorDirection::kIn);
  }
  // True when a line written now goes anywhere (a sink or the history): callers may skip
  // formatting a line nobody would see.
  bool HasSinks() const { return !sinks_.empty() || max_lines_ > 0; }

  // One event sent to many streams (a spot to every user) is one line, not one per stream:
  // between BeginFanOut and EndFanOut, lines sent out on streams are counted, and EndFanOut
  // writes the first of them once with "sent to N users" (nothing when none went out).
  // Returns the count.
  void BeginFanOut();
  int EndFanOut(std::string_view colour = {});

  // The lines kept, oldest first (lines older than the age limit are left out).
  std::vector<MonitorRecord> History() const;

 private:
  struct Entry {
    int id;
    Sink sink;
  };
  SysTime Now() const;
  void Keep(const MonitorLine& line);

  // A deque keeps each entry in place while sinks subscribe during a Write; entries that
  // unsubscribe during a Write are blanked and erased once the Write is over.
  std::deque<Entry> sinks_;
  int writing_ = 0;
  bool erase_pending_ = false;
  int next_id_ = 1;

  const Clock* clock_ = nullptr;
  std::deque<MonitorRecord> history_;
  size_t max_lines_ = 0;
  std::chrono::seconds max_age_{0};

  int fan_out_depth_ = 0;
  int fan_out_count_ = 0;
  int fan_out_stream_ = 0;
  std::string fan_out_text_;
};

}  // namespace qx
