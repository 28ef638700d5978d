// Reception of node and feed lines: reassembly of lines that came in pieces, the trailer
// check, and dispatch by sentence number.  Sockets stay outside: lines come in as values and
// replies go out through NodeOutput; everything else the handlers need is injected.
#pragma once

#include <array>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "node/dup_cache.h"
#include "node/link_handshake.h"
#include "node/network_view.h"
#include "node/pc41.h"
#include "node/pc9x_time.h"
#include "node/pc_sentence.h"

namespace qx {

class Clock;
class Monitor;
class StreamTable;
struct Spot;

// Where replies to a node go (the front-end link in the running node).
class NodeOutput {
 public:
  virtual ~NodeOutput() = default;
  virtual void Send(int stream, std::string_view text) = 0;
};

struct NodeOptions {
  std::string our_call;
  std::string version;
  int monitor_view = 0;  // the sysop's monitor selector; 1 = node traffic
  bool we_speak_pc9x = true;
  // When true, PC92 A/C/D also pass the time-stamp check into the network view (and are
  // relayed); otherwise only PC92 K goes past the shared PC92/PC93 entry.
  bool pc92_topology = false;
};

struct NodeDeps {
  StreamTable* streams = nullptr;  // required
  Monitor* monitor = nullptr;
  NodeOutput* output = nullptr;
  const Clock* clock = nullptr;  // required for PC92/PC93
  NodeErrorSink errors;
  // Lines of the skimmer, reverse-beacon and reporter feeds (feed kind 1, 3, 9).
  std::function<void(int stream, int feed_kind, std::string_view line)> feed;
  // PC11 (source 111) and PC61 (source 161) go to spot intake.
  std::function<bool(const PcSentence& s, int source_code, int stream)> spot_intake;
  // A QX11 from a neighbour of this software, read and converted: the PC61-shaped sentence
  // (PC11 when it carries no address) and the fields that sentence cannot hold.
  std::function<bool(std::string_view sentence, const Spot& carried, int stream)> qx11_intake;
  Pc41Deps pc41;
  // The user and node counts of the network view changed.
  std::function<void()> counts_changed;
  // An accepted sentence to pass on to the other node links; its hop field is already
  // decremented in s.fields (send s.Join() + CR LF).
  std::function<void(int from_stream, const PcSentence& s)> relay;
  // An accepted PC92 took these nodes out of the view (also when it is not passed on).
  std::function<void(int from_stream, const std::vector<std::string>& calls)> nodes_left;
  // A PC93 that passed the time-stamp and duplicate checks (talk/announce/chat delivery).
  // kRepeat (an announcement already seen under another stamp, or from a refused announcer)
  // is neither shown nor passed on.
  enum class Pc93Outcome { kDelivered, kNotHere, kRepeat };
  std::function<Pc93Outcome(PcSentence& s)> pc93;
  // The sentences whose processing lives with other parts of the node (talk and announce
  // relay of PC10/PC12, WWV/WCY, mail, remote commands, PC24, PC39).  Unset: not processed.
  std::function<bool(PcSentence& s)> other;
  // Our configuration for a link start-up (see NodeLinkHandshake::Config::our_config).
  std::function<std::vector<std::string>(bool pc9x)> our_config;
};

class NodeProcessor {
 public:
  using Handler = std::function<bool(PcSentence&)>;

  NodeProcessor(NodeOptions options, NodeDeps deps);

  // How a text handed to ProcessNodeData ended.  The front-end link hands over whole lines
  // (kSeen); only a piece that it had to pass on before its line end came is kMissing.  Such a
  // piece is the one thing kept in the stream's carry buffer, to be joined with what follows:
  // a whole line that fails a check is dropped and logged, so it never swallows the next one.
  enum class LineEnd { kSeen, kMissing };

  // Text received on a node or feed stream.  True when a handler processed it.
  bool ProcessNodeData(int stream, std::string_view line, LineEnd end = LineEnd::kSeen);

  // The trailer check of s (number, fields, line, stream set).  False means reject; the line
  // has then been logged.
  bool HopeCheckEtc(const PcSentence& s);

  // Replaces the handler of a sentence number (10..99).
  void SetHandler(int number, Handler handler);

  // A node link starts on stream: the handshake sees the stream's lines until the link is up.
  // first_line, when given, is a line that already arrived (the peer's call that the log-in
  // dialogue read on an accepted link).
  void StartLink(int stream, NodeLinkHandshake::Role role, std::string peer_call,
                 std::string_view first_line = {}, std::string password = {});
  const NodeLinkHandshake* Handshake(int stream) const;
  // The stream closed: its handshake and the routes learned through it are forgotten.
  // Returns the nodes that left the view (those no other link reaches).
  std::vector<std::string> LinkClosed(int stream);
  // The hourly keep-alive tick: PC9x nodes silent for too long leave the view (see
  // NetworkView::KeepaliveTick) and their time stamps are forgotten, so they are welcome
  // back whatever their clock says.  Returns the nodes removed.
  std::vector<std::string> ExpireQuietNodes();

  NodeNetState& state() { return state_; }
  PcCheckFlags& check_flags() { return flags_; }
  NetworkView& view() { return view_; }
  Pc41Lists& pc41_lists() { return pc41_lists_; }
  Pc9xTimeCheck& time_check() { return time_check_; }
  Pc9xStampGenerator& stamps() { return stamps_; }
  RelayDupCache& dup_cache() { return dups_; }
  const NodeOptions& options() const { return options_; }
  void set_monitor_view(int v) { options_.monitor_view = v; }

  // The longest piece kept for joining with the rest of its line: room for the PC92 C of a
  // node with thousands of users, which may arrive in several pieces.
  static constexpr size_t kMaxNodeCarry = 256 * 1024;

 private:
  void InstallHandlers();
  void Show(std::string_view text, std::string_view colour, int stream);
  void KeepPiece(int stream, std::string_view piece);
  bool Reject(int stream, std::string_view line, std::string_view why);
  std::string StreamCall(int stream) const;
  void FeedHandshake(int stream, std::string_view line);
  int64_t NowSeconds() const;

  bool SpotHopsOk(const PcSentence& s, size_t index);
  bool HandlePc16(PcSentence& s);
  bool HandlePc18(PcSentence& s);
  bool HandlePc51(PcSentence& s);
  bool HandlePc9x(PcSentence& s);
  bool HandlePc41(PcSentence& s);
  bool HandleQx11(int stream, const std::string& line);
  bool RelayWithHops(PcSentence& s);

  NodeOptions options_;
  NodeDeps deps_;
  NodeNetState state_;
  PcCheckFlags flags_;
  NetworkView view_;
  Pc41Lists pc41_lists_;
  Pc9xTimeCheck time_check_;
  Pc9xStampGenerator stamps_;
  RelayDupCache dups_;
  std::array<Handler, 100> handlers_;
  std::map<int, std::unique_ptr<NodeLinkHandshake>> handshakes_;

  PcSentence sentence_;  // reused for every line
  std::string work_;     // the line being assembled
};

}  // namespace qx
