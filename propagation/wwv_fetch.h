// Fetching WWV: the space-weather agency issues its Geophysical Alert text every three hours
// (00, 03, ... 21 UTC, a few minutes past the hour).  Shortly after each issue, and at
// start-up when the current three-hour period has no WWV yet, the node asks for the text
// (conditionally: an unchanged text costs a 304), reads it, and originates one WWV unless
// the network already carried one for that hour.  The HTTP GET is injected, so the schedule
// and the handling of answers are tested without a network.
#pragma once

#include <chrono>
#include <functional>
#include <string>

#include "core/time_text.h"

namespace qx {

class PropagationService;

struct WwvFetchRequest {
  std::string url;
  std::string if_modified_since;  // "" when unknown
  std::string if_none_match;
};

struct WwvFetchReply {
  int status = 0;  // HTTP status; 0 when the request failed (error says why)
  std::string error;
  std::string body;
  std::string last_modified;
  std::string etag;
};

using WwvHttpGet =
    std::function<void(const WwvFetchRequest&, std::function<void(const WwvFetchReply&)>)>;

struct WwvFetchOptions {
  bool enabled = true;  // "Get WWV"
  std::string url = "https://services.swpc.noaa.gov/text/wwv.txt";
  std::chrono::seconds after_issue{10 * 60};  // first try this long into a period
  // While the period's text is not out yet.  A text issued late in its period is still
  // sent while it is fresh (see kMaxAgeSeconds), so the tries go on to the period's end.
  std::chrono::seconds retry{15 * 60};
};

class WwvFetcher {
 public:
  WwvFetcher(WwvFetchOptions options, const Clock& clock, PropagationService& service,
             WwvHttpGet get, std::function<void(std::string_view)> log = {});

  // Once a second (cheap when nothing is due).
  void Tick();

  // The three-hour period that t falls in (its start).
  static SysTime PeriodStart(SysTime t);

  bool in_flight() const { return in_flight_; }
  int fetches() const { return fetches_; }
  // What the last answer came to ("sent", "not modified", "not issued yet", an error...).
  const std::string& last_outcome() const { return last_outcome_; }

 private:
  void OnReply(const WwvFetchReply& reply);
  void Done(SysTime period, std::string outcome);
  void Retry(std::string outcome);

  WwvFetchOptions options_;
  const Clock& clock_;
  PropagationService& service_;
  WwvHttpGet get_;
  std::function<void(std::string_view)> log_;
  SysTime next_attempt_{};  // the epoch: due at once
  SysTime done_period_{};   // the period that needs nothing more
  bool in_flight_ = false;
  int fetches_ = 0;
  std::string last_modified_;
  std::string etag_;
  std::string last_outcome_;
};

}  // namespace qx
