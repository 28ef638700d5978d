// The node's WWV and WCY service: reports received from neighbours or entered by sysops are
// checked, kept (history and today's file), shown to the users who want them, and handed
// back for relay; SHOW/WWV and SHOW/WCY read the histories.  Sockets stay outside: users are
// reached through StreamOutput, the node links through the originate callback.
#pragma once

#include <filesystem>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "core/time_text.h"
#include "propagation/propagation_history.h"
#include "propagation/propagation_report.h"

namespace qx {

class Monitor;
class StreamOutput;
class StreamTable;
struct StreamEntry;

struct PropagationDeps {
  StreamTable* streams = nullptr;  // required
  StreamOutput* out = nullptr;     // required
  const Clock* clock = nullptr;    // required
  Monitor* monitor = nullptr;
  std::filesystem::path wwv_dir;  // data/wwv; empty: nothing is written or read
  std::filesystem::path wcy_dir;  // data/wcy
  // A refused sentence (tag, text) for the error log.
  std::function<void(std::string_view tag, std::string_view text)> log;
  // A sentence this node made (CR LF included), for every node link.
  std::function<void(std::string_view sentence)> originate;
  // The users' own rules for WWV and WCY lines.  Asked once per report shown, with its logger,
  // origin node and the line; what it returns is asked once per user whose switch is on.
  // Unset: all of those get it.
  using UserGate = std::function<bool(int stream, const StreamEntry& user)>;
  std::function<UserGate(std::string_view logger, std::string_view origin, std::string_view line)>
      user_gate;
};

// Hops a report we make starts with.
inline constexpr int kOriginatedReportHops = 30;

class PropagationService {
 public:
  enum class Intake { kNew, kRepeat, kRefused };

  PropagationService(std::string our_call, PropagationDeps deps);

  // Today's files into the histories ("Loading WWV", "Loading WCY").  Returns how many
  // reports were read.
  size_t LoadToday();
  // REBUILD: forgets the histories and reads today's files again.
  size_t ReloadToday();

  // A PC23 / PC73 from a neighbour (fields split on "^").  kNew: shown and kept, to be
  // passed on; a refused one has been logged.
  Intake OnPc23(const std::vector<std::string>& fields);
  Intake OnPc73(const std::vector<std::string>& fields);

  // The WWV command of a sysop (logger: the user's call).  The reply for the user.
  std::string EnterWwv(std::string_view logger, std::string_view args);
  // A report this node made (fetched): kept, shown and sent as PC23 unless the network
  // already carried a WWV for that hour.  True when it was sent.
  bool OriginateWwv(WwvReport report);

  // SHOW/WWV and SHOW/WCY: the header and rows, newest first; false on a bad count.
  bool ShowWwv(std::string_view args, int default_count, int max_count,
               std::vector<std::string>& lines) const;
  bool ShowWcy(std::string_view args, int default_count, int max_count,
               std::vector<std::string>& lines) const;

  const PropagationHistory& history() const { return history_; }

 private:
  void Keep(const std::filesystem::path& dir, std::string_view prefix, std::string_view line);
  void ToUsers(uint32_t bit, std::string_view text, std::string_view logger,
               std::string_view origin);
  void Log(std::string_view tag, std::string_view text) const {
    if (deps_.log) deps_.log(tag, text);
  }

  std::string our_call_;
  PropagationDeps deps_;
  PropagationHistory history_;
};

}  // namespace qx
