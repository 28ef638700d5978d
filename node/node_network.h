// The node's place in the network: which nodes are its neighbours, the links to them (the
// start-up handshake, keep-alive and drop, reconnection), and what travels over them --
// topology, spots, announcements, talk and user information.  Sockets stay outside: streams
// come in as numbers and lines, text goes out through StreamOutput, and outgoing connections
// are asked of the front-end through a callback.  Time comes from the injected Clock; the
// owner calls Tick() once a second.
//
// Node types: a defined node whose type text is "QXC", or holds "9X" (e.g. "PC9X", "DXS 9x"),
// is expected to speak PC92/PC93; any other type is expected to be a legacy node.  What a
// link really speaks is settled by its handshake (the acceptor's PC18 and the caller's PC92);
// a link that ends up in the other style than its definition says is noted on the monitor.
#pragma once

#include <cstdint>
#include <functional>
#include <limits>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "core/config.h"
#include "core/net_address.h"
#include "core/time_text.h"
#include "node/node_data.h"
#include "node/pc_builders.h"
#include "users/node_relay.h"

namespace qx {

class Monitor;
class StreamOutput;
class StreamTable;
struct NetworkState;
struct StreamEntry;
struct Spot;

struct NodeNetworkOptions {
  std::string our_call;
  std::string version;              // the program version, for PC18
  std::string pc_version = "5457";  // four digits for PC19 and PC92 entries
  std::string build = "1";
  // Seconds.  Defaults are what current peers use; the configuration can shorten them.
  int retry_interval = 60;         // "Connection Retry": next attempt of an outgoing link
  int first_ping_delay = 10;       // first PC51 after a link came up
  int ping_interval = 300;         // "Node Ping Interval": PC51 to every neighbour
  int max_unanswered_pings = 2;    // the link is dropped at the next ping after this many
  int keepalive_interval = 3600;   // "PC92 K Interval"
  int config_interval = 4 * 3600;  // "PC92 C Interval"
  int config_after_change = 900;   // "PC92 C After Change": a full C soon after a link change
  int pc50_interval = 3600;        // "PC50 Interval": to legacy neighbours

  // Reads the interval keys from the configuration (missing keys keep the defaults).
  static NodeNetworkOptions FromConfig(const Config& config, std::string version);
};

struct NodeNetworkDeps {
  StreamTable* streams = nullptr;  // required
  StreamOutput* out = nullptr;     // required
  const Clock* clock = nullptr;    // required
  Monitor* monitor = nullptr;
  NodeErrorSink errors;
  // Asks the front-end for an outgoing connection; it comes back as a new stream whose
  // connection_label is label (OnConnectRequest) or as OnOutgoingFailed.
  std::function<void(std::string_view host, int port, std::string_view label)> open_outgoing;
  // A PC11 or PC61 received from a node, for the spot intake.  True when it was accepted.
  std::function<bool(std::string_view sentence, int source_code, int stream)> spot_intake;
  // A QX11 from a neighbour of this software (see NodeDeps::qx11_intake).
  std::function<bool(std::string_view sentence, const Spot& carried, int stream)> qx11_intake;
  // Lines of the skimmer, reverse-beacon and reporter feed streams (feed kind 1, 3, 9).
  std::function<void(int stream, int feed_kind, std::string_view line)> feed;
  // User information: validity, bad words, the user store (the record line is
  // "PC41^^" + sentence) and the bad-data log.
  Pc41Deps pc41;
  // The user and node counts of the network view changed.
  std::function<void()> counts_changed;
  // A PC23 (WWV) or PC73 (WCY) from a node, for the propagation service.  True when it is
  // new here, so that it goes on to the other links.
  std::function<bool(const PcSentence& s)> propagation;
  // An announcement from the network about to be shown to users (to: "*", "SYSOP" or "WX"):
  // false refuses it (a refused announcer): it is neither shown nor passed on.  True: it is
  // shown and passed on (and the callee keeps it).  Unset: every announcement is taken.
  std::function<bool(std::string_view from, std::string_view to, std::string_view text)> announce;
  // A mail sentence (PC28 to PC33, PC42) from a neighbour, for the mail forwarder.  True
  // when it was taken.
  std::function<bool(const PcSentence& s)> mail;
  // The users' own rules for announcements from other nodes.  Asked once per announcement
  // with its sender, target ("*", "SYSOP" or "WX"), text and origin node; what it returns is
  // asked once per user.  Unset: every user whose switch is on gets it.
  using UserGate = std::function<bool(int stream, const StreamEntry& user)>;
  std::function<UserGate(std::string_view from, std::string_view to, std::string_view text,
                         std::string_view origin)>
      announce_gate;
  // An outgoing link that connected but closed before it came up (refused log-in, no
  // answer): the connection's label and why, for the sysop's list of links.
  std::function<void(std::string_view label, std::string_view reason)> outgoing_not_up;
};

class NodeNetwork final : public NodeRelay, private NodeOutput {
 public:
  enum class Style { kPc9x, kLegacy };

  struct LinkInfo {
    int stream = 0;
    std::string peer;
    bool outgoing = false;
    bool up = false;
    bool pc9x = false;
    SysTime since{};          // when the link came up (kept across a restart of this node)
    std::string kind;         // the neighbour's software as WHO shows it: "QXC", "DXS", "ARC" ...
    double last_rtt_ms = -1;  // the last PC51 round trip, -1 before the first answer
    uint64_t lines_in = 0;
    uint64_t lines_out = 0;
  };

  NodeNetwork(NodeNetworkOptions options, NodeNetworkDeps deps);
  ~NodeNetwork() override;

  // The defined nodes ("Node Call & Node Type" groups, the "Nodes" and "LocalNodes" lists)
  // and the outgoing connections of the configuration.
  void Configure(const Config& config);
  static Style StyleOfType(std::string_view type);
  bool IsDefinedNode(std::string_view call) const;
  // The addresses a defined node may log in from (empty when none is configured); null when
  // the call is not a defined node.
  const AddressList* NodeAddresses(std::string_view call) const;

  // The front-end link is ready (its stream report is complete): outgoing links may start.
  void SetReady(bool ready) { ready_ = ready; }

  // A defined node has logged in on an accepted connection and passed the log-in's checks
  // (password, address): the stream becomes a node link and the handshake starts.  False
  // when the call is not a defined node.
  bool OnNodeLogin(int stream, std::string_view call);
  // A new stream; true when it is one of our outgoing connections (the calling handshake
  // starts and the log-in dialogue must leave it alone).
  bool OnConnectRequest(int stream);
  // An unfinished line (no line end yet) on a stream.  True when it was a prompt of the
  // handshake and has been used up.
  bool OnPartialLine(int stream, std::string_view text);
  // One line on a node stream.
  void OnLine(int stream, std::string_view line);
  // One line on a feed stream: reassembled like node lines, then handed to deps.feed.
  void OnFeedLine(int stream, std::string_view line) { processor_.ProcessNodeData(stream, line); }
  void OnStreamClosed(int stream);
  void OnOutgoingFailed(std::string_view label, std::string_view reason);
  // A node stream rebuilt after a restart of this node: the link resumes in the state it had,
  // without a new handshake (the neighbour never noticed the restart).
  void OnStreamRecovered(int stream);
  // Every stream the front-end holds has been reported.  After this node's own restart the
  // saved view of the network is taken back for the links that survived, and each of them
  // hears our full configuration (every user logged in now); an accepted link whose
  // neighbour's part of the view could not be taken back is asked for it with a PC18.
  void RecoveryComplete();
  // The front-end came back (perhaps a new one, whose connections are all new): every
  // outgoing connection that is not linked is tried at the next tick, not after the retry
  // interval.
  void RedialNow();
  // Once a second: outgoing attempts, pings, drops, PC50 and PC92 K/C.
  void Tick();

  // An accepted spot (local or from a node): to every other link.  A neighbour of this
  // software (kind "QXC", speaking PC9x) gets QX11; every other neighbour PC61, or PC11
  // when the spotter's address may not travel.
  static bool TakesQx11(const LinkInfo& link) { return link.pc9x && link.kind == "QXC"; }
  void RelaySpot(const Spot& spot, int source_stream);
  // A PC23 or PC73 this node made (CR LF included): to every link that takes it.
  void SendPropagation(std::string_view sentence);

  // What the node knows of the network, as text for the state file under data/, and the same
  // text read back at start (before the front-end link recovers).  False, with the reason,
  // when the text cannot be used; the view then starts empty.
  std::string SavedState() const;
  bool LoadSavedState(std::string_view text, std::string* error);
  // True once after anything worth saving changed.  Never before the saved state has been
  // taken back: a file written before then would lose what the last run knew.
  bool TakeStateChanged();
  bool StateRestored() const { return restored_; }

  // The WHO type of a node stream ("NODE QXC", "NODE DXS", ...), empty when it is no link.
  std::string WhoType(int stream) const;

  // Sysop commands.
  std::string LinkCommand(std::string_view node, bool connect);
  // "links", "nodes", "users", "configuration", "who" (the remote part).
  std::vector<std::string> Lines(std::string_view what) const;

  int NodeCount() const;  // nodes known beyond this one
  int RemoteUserCount() const;
  std::vector<LinkInfo> Links() const;
  // The processor offers its view only for changing; reading it changes nothing.
  const NetworkView& view() const { return const_cast<NodeProcessor&>(processor_).view(); }
  NodeProcessor& processor() { return processor_; }

  // NodeRelay
  void UserLoggedInOut(std::string_view call, int stream, bool in) override;
  void SendPc41(std::string_view sentence) override;
  void Announce(std::string_view from, std::string_view to, std::string_view text,
                int hops = 99) override;
  bool Talk(std::string_view from, std::string_view to, std::string_view text) override;

  // True when address is a public IPv4 or IPv6 address (not private, loopback, link-local
  // or unparsable): only such an address may travel in a PC61.
  static bool IsPublicAddress(std::string_view address);

 private:
  static constexpr int64_t kNever = std::numeric_limits<int64_t>::max();
  struct Link {
    LinkInfo info;
    int64_t tag = 0;  // the front-end's tag of the stream when the link began
    int64_t created = 0;
    int64_t next_ping = kNever;
    int64_t next_pc50 = kNever;
    SysTime ping_sent{};
    bool ping_outstanding = false;
    bool closing = false;
    bool recovered = false;   // resumed after a restart of this node, not yet told our config
    std::string drop_reason;  // why this node closed it (DropLink)
    std::string last_line;    // the peer's last line before the link came up, for the sysop
  };
  struct Outgoing {
    OutgoingConnection def;
    std::string peer;  // upper case
    int stream = 0;    // 0 when not connected
    bool pending = false;
    bool wanted = false;  // active in the configuration, or asked for with CONNECT
    int64_t next_attempt = 0;
  };

  // NodeOutput (the processor's replies and handshake lines)
  void Send(int stream, std::string_view text) override;

  int64_t Now() const;
  int NowOfDay() const;
  std::string Stamp();
  Link* FindLink(int stream);
  const Link* FindLink(int stream) const;
  Link* FindLinkByPeer(std::string_view call);
  Outgoing* FindOutgoing(std::string_view name_or_call);
  void StartLink(int stream, std::string_view peer, bool outgoing, std::string_view first_line);
  void CheckEstablished(Link& link);
  void LinkEstablished(Link& link);
  void DropLink(Link& link, std::string_view reason, bool send_pc39);
  void LinkGone(int stream);
  // Nodes that left the view: the legacy neighbours (but the one on except_stream), which
  // keep a node until told, hear PC21 for each, and what they were told of them is forgotten.
  void NodesLeft(const std::vector<std::string>& calls, int except_stream);
  void TryOutgoing(Outgoing& o);
  // A link that is up hears a PC18 (we called) or PC20 (we accepted) again: the neighbour
  // starts the handshake afresh, and gets our part of it; the link stays up meanwhile.
  void RenewedHandshake(Link& link, std::string_view header);
  // The attributes the front-end keeps with a node stream, and what they give back.
  void KeepLinkAttributes(const Link& link);
  void StateChanged() { state_changed_ = true; }
  // When both nodes call each other at once, the call of the node with the lower call wins.
  bool CallerWins(std::string_view peer) const;

  // The configuration a link start-up sends (asked by the handshake while it reads a line of
  // that link, so the current stream is the link's).
  std::vector<std::string> OurConfig(bool pc9x);
  std::vector<std::string> OurConfigFor(int stream, bool pc9x);
  // Every node of the view, with its users, that the legacy neighbour on stream may learn
  // through us: neither the neighbour itself nor what is reached through its link.
  std::vector<NodeWithUsers> RemoteNodesFor(int stream) const;
  // Our legacy neighbours with their users, for PC92 C sent on their behalf.
  std::vector<NodeWithUsers> LegacyNeighbours() const;
  bool ReachedThrough(std::string_view call, int stream) const;
  // A four-digit version of at least 5000 for a PC19 (legacy peers ignore older ones).
  std::string LegacyVersionOf(std::string_view call, std::string_view hint = {}) const;
  // PC92 A/C/D in legacy words (PC16/17/19/21) for the legacy neighbours.
  void TranslatePc92ForLegacy(int from_stream, const PcSentence& s);
  // The hourly PC92 C for each legacy neighbour, unless another node sent one lately.
  void SendLegacyConfigs();
  std::vector<Pc92Entry> LocalUserEntries() const;
  std::vector<Pc92Entry> NeighbourEntries() const;
  // To every established link of the given styles except the stream except and the link to
  // the node skip_peer (the one a sentence started from: it never needs it back).
  void SendToLinks(std::string_view text, int except, bool pc9x_links, bool legacy_links,
                   std::string_view skip_peer = {});
  void SendKeepalive();
  void SendConfigAll();

  // Handlers installed into the processor.
  void OnRelay(int from_stream, const PcSentence& s);
  NodeDeps::Pc93Outcome OnPc93(PcSentence& s);
  bool OnOther(PcSentence& s);
  bool OnPc10(PcSentence& s);
  bool OnPc12(PcSentence& s);
  bool OnPc39(PcSentence& s);
  bool OnPc51(PcSentence& s);
  bool OnPropagation(PcSentence& s);
  bool OnLegacyTopology(PcSentence& s);

  // Local delivery of what came from the network.
  void DeliverAnnounce(std::string_view from, std::string_view to, std::string_view text,
                       std::string_view origin);
  // False when no local user has the call.
  bool DeliverTalk(std::string_view from, std::string_view to, std::string_view text);
  int LocalUserStream(std::string_view call) const;
  void SendTalkOn(int stream, std::string_view from, std::string_view to, std::string_view text,
                  std::string_view on_behalf);
  void Show(std::string_view text, std::string_view colour = {}, int stream = 0);
  void CountsChanged();

  NodeNetworkOptions options_;
  NodeNetworkDeps deps_;
  NodeProcessor processor_;
  std::map<std::string, Style, std::less<>> defined_;  // upper-case call -> expected style
  // Where each defined node may log in from: its "Node Address" entries and the address of
  // our outgoing connection to it.
  std::map<std::string, AddressList, std::less<>> node_addresses_;
  std::vector<Outgoing> outgoing_;
  std::map<int, std::unique_ptr<Link>> links_;
  bool ready_ = false;
  int64_t next_keepalive_ = 0;
  int64_t next_expiry_ = 0;
  static constexpr int64_t kQuietCountdownInterval = 3600;
  int64_t next_config_ = 0;
  // What the legacy neighbours have been told, in PC16/PC19, of the lists that PC92 gives for
  // each node: a PC92 C replaces a list, and only its changes need telling, whichever link
  // brought it.  A node that leaves the view is forgotten here (NodesLeft).
  struct Pc92Told {
    std::set<std::string> users;
    std::set<std::string> nodes;
  };
  std::map<std::string, Pc92Told, std::less<>> pc92_told_;
  // Legacy node -> when another node last sent a PC92 C on its behalf.
  std::map<std::string, int64_t, std::less<>> legacy_config_heard_;
  // Node type text of each defined node ("QXC", "DXS pc9x", "ARC" ...), upper case.
  std::map<std::string, std::string, std::less<>> defined_type_;
  // The saved state read at start, taken back when recovery completes.
  std::unique_ptr<NetworkState> saved_;
  bool restored_ = false;
  bool state_changed_ = false;
  std::string scratch_;  // the sentence being relayed
  std::string spot_pc11_;
  std::string spot_pc61_;
  std::string spot_qx11_;
};

}  // namespace qx
