// The node's machine-made spot sources, wired: outgoing skimmer and reverse-beacon feed
// connections (asked of the front-end like node links, so that they outlive a restart of
// the node), skimmers that log in themselves as a defined node of type "SKM", and the
// reporter network's broker.  Every skimmer line is parsed and judged by one verification
// stage shared by all feeds; what passes goes to intake tagged as a skimmer or reporter spot.
// Busted reports are logged per mode and day; skimmer dupes and a user's own call reach the
// users who asked for them.  Each feed is counted, and one that stalls, floods or sends
// nothing but garbage is dropped and called again with a growing pause.
#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "apps/reporter_client.h"
#include "core/config.h"
#include "core/time_text.h"
#include "feeds/feed_streams.h"
#include "feeds/reporter_feed.h"
#include "feeds/skimmer_verifier.h"
#include "spots/intake.h"
#include "spots/spot.h"

namespace qx {

class BandTable;
class ErrorLog;
class Monitor;
class ProgramDir;
class StreamOutput;
class StreamTable;
struct CountryInfo;

struct FeedManagerDeps {
  StreamTable* streams = nullptr;    // required
  StreamOutput* out = nullptr;       // required
  const Clock* clock = nullptr;      // required
  const BandTable* bands = nullptr;  // required
  const ProgramDir* dir = nullptr;   // required: data/files, data/busted
  Monitor* monitor = nullptr;
  ErrorLog* log = nullptr;
  // Asks the front-end for an outgoing connection (it comes back as a stream whose
  // connection_label is label, or as a failure).
  std::function<void(std::string_view host, int port, std::string_view label)> open_outgoing;
  // A feed spot for intake; true when it was taken (kept and distributed, never relayed).
  std::function<bool(const IntakeRequest& request)> take_spot;
  // A spot that bypasses intake (a skimmer dupe): to the users whose switches take it.
  std::function<void(const Spot& spot)> distribute;
  std::function<const CountryInfo*(std::string_view call)> country_of;
};

class FeedManager {
 public:
  FeedManager(boost::asio::io_context& io, FeedManagerDeps deps);
  ~FeedManager();

  // The feed connections, the verification switches and lists, and the reporter broker.
  // Called at start and whenever the sysop changes settings.
  void Configure(const Config& config);
  // Only the skimmer lists of the settings (SkimmerNok, SkimmerDxNok, SkimmerDoNotVerify).
  void ApplyLists(const Config& config);
  // MASTER.SCP and BadCwSkDx.dat from data/files (missing files leave the lists empty).
  void LoadFiles();

  // The front-end has reported its streams: feeds that are not connected may be called.
  void SetReady(bool ready) { ready_ = ready; }
  // True when the stream is one of our outgoing feed connections (now a feed stream).
  bool OnConnectRequest(int stream);
  // True when label names one of our feeds.
  bool OnOutgoingFailed(std::string_view label, std::string_view reason);
  // An unfinished line: true when it was the server's call prompt and has been answered.
  bool OnPartialLine(int stream, std::string_view text);
  // One line of a feed stream.
  void OnLine(int stream, std::string_view line);
  void OnStreamClosed(int stream);
  // A feed stream the front-end kept across a restart of this node.  True when it is one.
  bool OnStreamRecovered(int stream);
  // A defined node of a feed type ("SKM", "RBN", "RBN FT8") that logged in: the stream
  // becomes a feed stream.  False when the call is no feed's.
  bool AdoptLogin(int stream, const std::string& call);
  // Every feed not connected is tried at the next tick.
  void RedialNow();
  // Once a second: calls, health checks, held reporter spots, the keep-alive of the broker.
  void Tick();
  void Stop();

  // The WHO type of a feed stream, "" for other streams.
  std::string WhoType(int stream) const;
  std::vector<FeedStatus> Status() const;
  // SKIMMER/STATUS: the feeds, then with a call its recent skimmer reports.
  std::vector<std::string> StatusLines(std::string_view call) const;
  const FeedCounts& totals() const { return totals_; }
  const ReporterFeed* reporter() const { return reporter_.get(); }
  uint64_t reporter_messages() const { return reporter_messages_; }
  uint64_t reporter_spots() const { return reporter_spots_; }
  uint64_t reporter_rejected() const { return reporter_rejected_; }

 private:
  struct Feed {
    std::string name;  // the configured name, or the call of a skimmer that logged in
    FeedStreamKind kind = FeedStreamKind::kSkimmer;
    bool outgoing = false;
    // Outgoing feeds only.
    FeedConnection def;
    std::string label;
    std::string login_call;
    bool wanted = false;
    bool pending = false;
    int64_t next_attempt = 0;
    FeedBackoff backoff;
    // The connection in hand.
    int stream = 0;
    bool logged_in = false;
    bool closing = false;  // dropped: waiting for the front-end to report the close
    int64_t connected_at = 0;
    int64_t last_line = 0;
    int64_t flood_since = 0;
    uint64_t reports_at_connect = 0;
    int garbage_run = 0;
    int garbage_logged = 0;
    FeedCounts counts;
    FeedRate line_rate;
    FeedRate spot_rate;
  };

  int64_t Now() const;
  Feed* FindByStream(int stream);
  const Feed* FindByStream(int stream) const;
  void Show(const std::string& text, std::string_view colour = {}, int stream = 0);
  void SendLogin(Feed& feed);
  void Drop(Feed& feed, std::string_view why);
  void Dial(Feed& feed);
  void TakeReport(Feed& feed, const SkimmerReport& report, SysTime now);
  void WriteBusted(const SkimmerDecision& decision);
  // The raw report of a user's own call, to the users of that call who asked for it.
  void SendOwn(const SkimmerReport& report, const SkimmerDecision& decision, bool accepted);
  bool SpotOf(std::string_view sentence, Spot& spot, SysTime now) const;
  void RebuildOwnIndex();
  void ConfigureReporter(const Config& config);
  void OnReporterPayload(std::string_view payload);
  void TakeReporterSpot(std::string_view sentence);
  // Wakes at the moment the oldest held reporter spot falls due: the once-a-second tick
  // alone would add up to a second to every hold.
  void ArmReporterDue();
  FeedStatus StatusOf(const Feed& feed, int64_t now) const;

  boost::asio::io_context& io_;
  FeedManagerDeps deps_;
  FeedHealthLimits limits_;  // from the settings at each Configure
  std::string our_call_;
  std::vector<Feed> outgoing_;
  std::map<int, Feed> inbound_;                                    // by stream
  std::map<std::string, FeedStreamKind, std::less<>> feed_calls_;  // defined nodes of feed types
  SkimmerVerifier verifier_;
  FeedCounts totals_;
  RecentReports recent_;
  bool ready_ = false;
  // Users who see their own call's raw reports, by base call.
  std::unordered_map<std::string, std::vector<int>> own_users_;
  Spot scratch_;
  // The reporter network.
  std::unique_ptr<ReporterFeed> reporter_;
  std::chrono::seconds reporter_hold_{0};
  boost::asio::steady_timer reporter_due_timer_;
  bool reporter_due_armed_ = false;
  std::unique_ptr<ReporterClient> reporter_client_;
  ReporterClientOptions reporter_options_;
  FeedRate reporter_rate_;
  uint64_t reporter_messages_ = 0;
  uint64_t reporter_spots_ = 0;
  uint64_t reporter_rejected_ = 0;
};

}  // namespace qx
