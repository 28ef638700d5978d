// The running node: owns every subsystem, wires them together on one io_context, and runs
// the start-up order.  The mains stay thin; integration tests and tools can build the same
// node in-process.
#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/signal_set.hpp>
#include <boost/asio/steady_timer.hpp>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "apps/feed_manager.h"
#include "apps/json_streams.h"
#include "apps/node_stats.h"
#include "console/console_server.h"
#include "core/config.h"
#include "core/error_log.h"
#include "core/frontend_link.h"
#include "core/memory_ceiling.h"
#include "core/monitor.h"
#include "core/program_dir.h"
#include "core/stream_output.h"
#include "core/stream_table.h"
#include "core/time_text.h"
#include "downloads/download_manager.h"
#include "downloads/update_check.h"
#include "info/call_states.h"
#include "mail/mail_forwarder.h"
#include "mail/mail_service.h"
#include "mail/mail_store.h"
#include "node/node_network.h"
#include "propagation/propagation_service.h"
#include "propagation/wwv_fetch.h"
#include "spots/bad_lists.h"
#include "spots/bands.h"
#include "spots/country.h"
#include "spots/distribution.h"
#include "spots/dupes.h"
#include "spots/intake.h"
#include "spots/rate_limit.h"
#include "spots/spot_history.h"
#include "spots/spot_ids.h"
#include "users/access_lists.h"
#include "users/announce_history.h"
#include "users/command_interpreter.h"
#include "users/command_services.h"
#include "users/filter_book.h"
#include "users/login.h"
#include "users/logon_messages.h"
#include "users/node_relay.h"
#include "users/user_record.h"

namespace qx {

struct ClusterNodeOptions {
  std::filesystem::path home;
  std::filesystem::path program;  // the qxcluster binary, for finding qxfront beside it
  bool debug = false;
  // False when something else (a service manager) runs qxfront: the node then never starts
  // one, since a front-end it started would share the node's life under that manager.
  bool start_frontend = true;
};

class ClusterNode final : public LinkEvents,
                          public CommandServices,
                          public StreamOutput,
                          public SpotSink {
 public:
  ClusterNode(boost::asio::io_context& io, ClusterNodeOptions options);
  ~ClusterNode() override;

  // The start-up order: configuration, data tree, histories and lists, then the link.
  bool Start(std::string* error);
  // Stops the node cleanly: the link is closed (the front-end keeps its connections).
  void Stop();
  // Stops the node once the front-end holds all input for the next one and what the node
  // still had to handle is answered (at most a couple of seconds), then calls then.
  void StopAfterHandOver(std::function<void()> then);
  // The node's view of the network, written on change and at stop (data/network.state).
  void SaveNetworkState();

  const Config& config() const { return config_; }
  StreamTable& streams() { return streams_; }
  Monitor& monitor() { return monitor_; }
  FrontendLink& link() { return *link_; }

  // StreamOutput and SpotSink
  void SendToStream(int stream, std::string_view text) override;
  void SendSpotToStream(int stream, const std::shared_ptr<const std::string>& text) override;
  void CloseStream(int stream) override;
  void SetStreamIdentity(int stream, std::string_view call, int state) override;
  void SetStreamAttributes(int stream, std::string_view text) override;

  // CommandServices
  std::string EnterSpot(int stream, std::string_view line, bool test_only) override;
  std::vector<std::string> ShowDx(int stream, std::string_view args) override;
  bool ListChange(std::string_view list, std::string_view item, bool add) override;
  std::vector<std::string> NetworkLines(std::string_view what) override;
  std::vector<std::string> StationInfo(std::string_view call) override;
  std::string LinkCommand(std::string_view node, bool connect) override;
  void Shutdown() override;
  std::vector<std::string> ShowPropagation(std::string_view what, std::string_view args) override;
  std::string EnterWwv(int stream, std::string_view line, std::string_view args) override;
  bool TakeAnnouncement(std::string_view from, std::string_view to, std::string_view text) override;
  std::vector<std::string> ShowAnnouncements(std::string_view args) override;
  std::vector<std::string> Rebuild() override;
  std::string Restart() override;

  // RESTART was asked for: once the node has stopped, the program runs itself again (the
  // front-end keeps every connection meanwhile).
  bool restart_requested() const { return restart_requested_; }
  std::vector<std::string> Mail(int stream, std::string_view verb, std::string_view args) override;
  bool MailComposing(int stream) const override;
  std::vector<std::string> UpdateCommand(std::string_view args) override;

  // Reference data: reload is called on the node's thread after a new copy of file was
  // installed in data/files/ (the country file is reloaded by the node itself).
  void OnReferenceFile(std::string file, std::function<void(const InstalledFile&)> reload);
  DownloadManager* downloads() { return downloads_.get(); }
  // What the last program update check came to.
  std::string UpdateOutcome() const;
  bool SkimmerStatus(std::string_view call, std::vector<std::string>& lines) override;

 private:
  friend class NodeConsoleModel;

  // Applies settings the sysop changed while the node runs (limits, lists, help texts).
  void ApplySettings();
  // "connected", "connecting" or "idle" for an outgoing connection; its stream or 0.
  std::string LinkState(std::string_view name, int* stream) const;
  std::map<std::string, uint64_t> Pc41Counts() const;
  void StartConsole();
  std::filesystem::path NetworkStatePath() const;

  // LinkEvents
  void OnLinkUp() override;
  void OnConnectRequest(int stream) override;
  void OnStreamLine(int stream, std::string_view line) override;
  void OnStreamPiece(int stream, std::string_view piece) override;
  void OnStreamClosed(int stream, int previous_state) override;
  void OnStreamRecovered(int stream) override;
  void OnRecoveryComplete() override;
  void OnStreamListReported(int count) override;
  void OnOutgoingFailed(std::string_view label, std::string_view reason) override;
  bool OnStreamPartial(int stream, std::string_view text) override;
  void OnStreamTimedOut(int stream) override;
  void OnHandshakeRecord(int stream, std::string_view record) override;

  void Step(std::string_view name);
  void StepDone();
  void LoadConfiguration();
  void ApplyLists();
  // Starts qxfront beside this program; true when it was started.
  bool StartFrontEnd();
  void OnTimer();
  // Removes the daily logs older than "Log Days" once a day (at start and after midnight).
  void PruneLogs();
  ClusterCounts Counts() const;
  void SetUpSpots();
  void ApplySpotLists();
  // Programs' JSON streams (WebSocket streams and HTTP polls from the front-end).
  void SetUpJsonStreams();
  bool StreamsRequireLogin() const;
  size_t StreamReplayMax() const;
  // A spot as one JSON object and line end, as every JSON user and stream gets it.
  void SpotJson(const Spot& spot, std::string& out);
  // Intake of one spot sentence; an accepted spot is kept, distributed and relayed.
  IntakeResult TakeSpot(const IntakeRequest& request, bool distribute);
  void SaveHighestRates(bool at_stop);
  void SetUpNetwork();
  void SetUpPropagation();  // WWV/WCY: today's reports loaded, the fetch set up
  // Checks an announcement against the AnnNok list (a refusal is logged) and keeps it.
  bool KeepAnnouncement(std::string_view from, std::string_view to, std::string_view text,
                        std::string_view source);
  // Mail (cluster_node_mail.cpp): the store read and purged, the service and the forwarder.
  void SetUpMail();
  void ApplyMailSettings();
  // Once a second: the forwarder follows the node links and its timers; a purge once a day.
  void MailTick();
  // Tells the forwarder of node links that came up or went down since it last looked.
  void SyncMailLinks();
  // Reference downloads and the update check, from the settings (again after a change).
  void SetUpDownloads();
  void ConfigureDownloads();
  void OnReferenceInstalled(const InstalledFile& f);
  // Every ten seconds: the resident size against "MaxMem".
  void CheckMemory();
  void SetUpFeeds();  // skimmer, reverse-beacon and reporter feeds

  boost::asio::io_context& io_;
  ClusterNodeOptions options_;
  SystemClock clock_;
  ProgramDir dir_;
  ErrorLog log_;
  Monitor monitor_;
  Config config_;
  StreamTable streams_;
  std::unique_ptr<FrontendLink> link_;
  UserStore store_;
  AccessLists access_;
  LogonMessages messages_;
  CountryLookup countries_;
  CallStates states_;
  char locator_buf_[4] = {};  // the spot lines' locator of a user's location  // calls' states and
                              // provinces (SET/STATEADD, data/files/states.dat)
  std::unique_ptr<NodeNetwork> network_;  // the node links; also the users' NodeRelay
  std::unique_ptr<FeedManager> feeds_;
  BadLists bad_lists_;
  BandTable bands_ = BandTable::SetupFreqRanges();
  DupeDetector dupes_;
  std::unique_ptr<SpotRateLimiter> rates_;
  std::unique_ptr<SpotIdCounter> spot_ids_;  // before intake_ and history_, which use it
  std::unique_ptr<SpotIntake> intake_;
  std::unique_ptr<SpotHistory> history_;
  std::unique_ptr<AnnounceHistory> announcements_;
  std::unique_ptr<SpotDistributor> distributor_;
  std::unique_ptr<FilterBook> filter_book_;
  std::unique_ptr<JsonStreams> json_streams_;
  std::unique_ptr<PropagationService> propagation_;
  std::unique_ptr<WwvFetcher> wwv_fetch_;
  std::unique_ptr<MailStore> mail_store_;
  std::unique_ptr<MailService> mail_;
  std::unique_ptr<MailForwarder> mail_forwarder_;
  std::map<int, std::string> mail_links_;  // node links the forwarder knows: stream -> peer
  int mail_purged_day_ = -1;
  std::unique_ptr<DownloadManager> downloads_;
  std::unique_ptr<UpdateCheck> update_check_;
  std::map<std::string, std::function<void(const InstalledFile&)>> reloaders_;  // upper case
  MemoryCeiling memory_ceiling_;
  int memory_tick_ = 0;
  int heartbeat_tick_ = 0;    // seconds towards the next heartbeat of the JSON streams
  int bookkeeping_tick_ = 0;  // seconds towards the next write of log-in times and spot counts
  std::unique_ptr<UserContext> user_ctx_;
  std::unique_ptr<Login> login_;
  std::unique_ptr<CommandInterpreter> interpreter_;
  NodeStats stats_;
  std::unique_ptr<ConsoleModel> console_model_;
  std::unique_ptr<ConsoleServer> console_;
  boost::asio::steady_timer timer_;
  std::chrono::steady_clock::time_point rates_saved_at_{};
  SysTime started_;
  bool stopped_ = false;
  bool restart_requested_ = false;
  int pruned_day_ = -1;  // days since the epoch of the last prune
  // Why each outgoing connection last failed to open, as the front-end said (AA19): label ->
  // reason, for the console's Node links page.
  std::map<std::string, std::string, std::less<>> link_errors_;
};

}  // namespace qx
