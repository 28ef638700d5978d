// Where the node tells the sysop what happens: console lines, node traffic, the spot list,
// bad calls, runaways.  Sinks (stdout, the web console) subscribe; the monitor never blocks
// and never sits between the node and its users, so a slow sink loses lines, not time.
#pragma once

#include <deque>
#include <functional>
#include <string>
#include <string_view>

namespace qx {

enum class MonitorChannel {
  kConsole,      // start-up steps, link events, log-ins
  kRaw,          // traffic on streams (the raw monitor pane)
  kSpots,        // the node's own spot list, with tags and refusal markers
  kBadCall,      // calls refused at log-in
  kRunaway,      // runaway guard hits
  kConnections,  // connection list changed (text: stream number)
};

struct MonitorLine {
  MonitorChannel channel = MonitorChannel::kConsole;
  int stream = 0;           // 0 when the line concerns no stream
  std::string_view colour;  // "", "blue", "red", "green", "orange", "white"
  std::string_view text;
};

class Monitor {
 public:
  using Sink = std::function<void(const MonitorLine&)>;

  int Subscribe(Sink sink);
  void Unsubscribe(int id);
  void Write(MonitorChannel channel, std::string_view text, std::string_view colour = {},
             int stream = 0);
  void Console(std::string_view text) { Write(MonitorChannel::kConsole, text); }
  bool HasSinks() const { return !sinks_.empty(); }

 private:
  struct Entry {
    int id;
    Sink sink;
  };
  // A deque keeps each entry in place while sinks subscribe during a Write; entries that
  // unsubscribe during a Write are blanked and erased once the Write is over.
  std::deque<Entry> sinks_;
  int writing_ = 0;
  bool erase_pending_ = false;
  int next_id_ = 1;
};

}  // namespace qx
