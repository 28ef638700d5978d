#include "node/node_data.h"

#include <chrono>
#include <exception>

#include "core/monitor.h"
#include "core/stream_table.h"
#include "core/text_util.h"
#include "core/time_text.h"
#include "node/pc_builders.h"
#include "node/qx11.h"

namespace qx {
namespace {

constexpr int kSpotSourcePc11 = 111;
constexpr int kSpotSourcePc61 = 161;
// Where the hop count of a spot sentence stands; a PC61 has it there whether or not the
// sender kept the trailer behind it.
constexpr size_t kSpotHopFieldPc11 = 8;
constexpr size_t kSpotHopFieldPc61 = 9;

int FeedKind(int state) {
  switch (state) {
    case kStateFeedSkimmer:
      return 1;
    case kStateFeedRbn:
      return 3;
    case kStateFeedReporter:
      return 9;
    default:
      return 0;
  }
}

bool StartsWith(std::string_view text, std::string_view prefix) {
  return text.substr(0, prefix.size()) == prefix;
}

}  // namespace

NodeProcessor::NodeProcessor(NodeOptions options, NodeDeps deps)
    : options_(std::move(options)),
      deps_(std::move(deps)),
      state_(deps_.errors),
      view_(options_.our_call),
      time_check_(options_.our_call) {
  InstallHandlers();
}

void NodeProcessor::SetHandler(int number, Handler handler) {
  if (number >= 0 && number < 100) handlers_[size_t(number)] = std::move(handler);
}

void NodeProcessor::InstallHandlers() {
  const auto accept = [](PcSentence&) { return true; };
  const auto other = [this](PcSentence& s) { return deps_.other ? deps_.other(s) : false; };
  for (int n : {13, 14, 15, 17, 25, 26, 27, 38, 50}) SetHandler(n, accept);
  for (int n : {10, 23, 24, 28, 29, 30, 31, 32, 33, 34, 35, 39, 42, 73}) SetHandler(n, other);
  SetHandler(12, [this, other](PcSentence& s) {
    state_.node_announce = true;
    const bool done = other(s);
    state_.node_announce = false;
    return done;
  });
  SetHandler(11, [this](PcSentence& s) {
    if (!SpotHopsOk(s, kSpotHopFieldPc11)) return false;
    return deps_.spot_intake ? deps_.spot_intake(s, kSpotSourcePc11, s.stream) : false;
  });
  SetHandler(61, [this](PcSentence& s) {
    if (!SpotHopsOk(s, kSpotHopFieldPc61)) return false;
    return deps_.spot_intake ? deps_.spot_intake(s, kSpotSourcePc61, s.stream) : false;
  });
  SetHandler(16, [this](PcSentence& s) { return HandlePc16(s); });
  SetHandler(17, [this](PcSentence& s) {
    const bool changed = view_.ApplyPc17(s.fields, s.stream);
    if (changed && deps_.counts_changed) deps_.counts_changed();
    return true;
  });
  SetHandler(18, [this](PcSentence& s) { return HandlePc18(s); });
  // PC19 and PC21 share the node-list routine; the link start-up has seen them already.
  SetHandler(19, [this](PcSentence& s) {
    const bool changed = view_.ApplyPc19(s.fields, s.stream, StreamCall(s.stream));
    if (changed && deps_.counts_changed) deps_.counts_changed();
    return true;
  });
  SetHandler(21, [this](PcSentence& s) {
    const bool changed = view_.ApplyPc21(s.fields, s.stream);
    if (changed && deps_.counts_changed) deps_.counts_changed();
    return true;
  });
  SetHandler(20, accept);
  SetHandler(22, accept);
  SetHandler(41, [this](PcSentence& s) { return HandlePc41(s); });
  SetHandler(51, [this](PcSentence& s) { return HandlePc51(s); });
  SetHandler(92, [this](PcSentence& s) { return HandlePc9x(s); });
  SetHandler(93, [this](PcSentence& s) { return HandlePc9x(s); });
}

void NodeProcessor::Show(std::string_view text, std::string_view colour, int stream) {
  if (deps_.monitor) deps_.monitor->Write(MonitorChannel::kRaw, text, colour, stream);
}

void NodeProcessor::KeepPiece(int stream, std::string_view piece) {
  // Pieces of one line add up until its end comes.  No sentence is this long: past the bound
  // the text is dropped, so the stream starts afresh with its next line.
  std::string& carry = deps_.streams->at(stream).node_carry;
  if (carry.size() + piece.size() > kMaxNodeCarry) {
    state_.Error(0, "ProcessNodeData ",
                 "fragment of " + std::to_string(carry.size() + piece.size()) +
                     " characters dropped from " + StreamCall(stream) +
                     " where = " + std::string((carry.empty() ? piece : carry).substr(0, 80)));
    carry.clear();
    return;
  }
  carry.append(piece);
}

bool NodeProcessor::Reject(int stream, std::string_view line, std::string_view why) {
  // The line is whole, so whatever is wrong with it will not be mended by the next one.
  constexpr size_t kShown = 512;
  std::string text(why);
  text += ", line = ";
  text += line.substr(0, kShown);
  if (line.size() > kShown) text += "...";
  text += " from ";
  text += StreamCall(stream);
  state_.Error(2000, "HopeCheckEtc ", text);
  return false;
}

std::string NodeProcessor::StreamCall(int stream) const {
  const StreamTable& t = *deps_.streams;
  return t.InRange(stream) ? t.at(stream).call : std::string();
}

int64_t NodeProcessor::NowSeconds() const {
  if (!deps_.clock) return 0;
  return std::chrono::duration_cast<std::chrono::seconds>(deps_.clock->Now().time_since_epoch())
      .count();
}

void NodeProcessor::StartLink(int stream, NodeLinkHandshake::Role role, std::string peer_call,
                              std::string_view first_line, std::string password) {
  NodeLinkHandshake::Config config;
  config.our_call = options_.our_call;
  config.peer_call = std::move(peer_call);
  config.version = options_.version;
  config.we_speak_pc9x = options_.we_speak_pc9x;
  config.our_config = deps_.our_config;
  config.password = std::move(password);
  handshakes_[stream] = std::make_unique<NodeLinkHandshake>(role, std::move(config));
  StreamTable& t = *deps_.streams;
  t.EnsureCapacity(stream);
  t.at(stream).state = kStateNodeConnecting;
  t.at(stream).unanswered_pings = 0;
  if (!first_line.empty()) FeedHandshake(stream, first_line);
}

const NodeLinkHandshake* NodeProcessor::Handshake(int stream) const {
  auto it = handshakes_.find(stream);
  return it == handshakes_.end() ? nullptr : it->second.get();
}

std::vector<std::string> NodeProcessor::LinkClosed(int stream) {
  handshakes_.erase(stream);
  std::vector<std::string> gone = view_.LinkDown(stream);
  if (deps_.counts_changed) deps_.counts_changed();
  return gone;
}

std::vector<std::string> NodeProcessor::ExpireQuietNodes() {
  std::vector<std::string> gone = view_.KeepaliveTick();
  for (const std::string& call : gone) time_check_.Forget(call);
  if (!gone.empty() && deps_.counts_changed) deps_.counts_changed();
  return gone;
}

void NodeProcessor::FeedHandshake(int stream, std::string_view line) {
  auto it = handshakes_.find(stream);
  if (it == handshakes_.end() || it->second->up()) return;
  NodeLinkHandshake& hs = *it->second;
  const NodeLinkHandshake::Step step = hs.OnLine(line);
  if (deps_.output) {
    for (const std::string& text : step.send) deps_.output->Send(stream, text);
  }
  if (step.established) {
    StreamEntry& e = deps_.streams->at(stream);
    e.state = hs.peer_pc9x() ? kStateNodePc9x : kStateNodeLegacy;
    e.unanswered_pings = 0;
    view_.LinkUp(stream, hs.peer_call(), hs.peer_pc9x());
    if (deps_.counts_changed) deps_.counts_changed();
  }
}

bool NodeProcessor::ProcessNodeData(int stream, std::string_view line, LineEnd end) {
  StreamTable& table = *deps_.streams;
  if (!table.InRange(stream)) return false;
  ScopedCurrentStream current(table, stream);
  StreamEntry& entry = table.at(stream);

  if (end == LineEnd::kMissing) {
    KeepPiece(stream, line);
    return false;
  }
  // Pieces kept from before are the start of this line (which may be only its line end).
  if (!entry.node_carry.empty()) {
    work_.assign(entry.node_carry);
    work_.append(line);
    entry.node_carry.clear();
  } else {
    work_.assign(line);
  }
  if (!work_.empty() && work_.front() == '\n') work_.erase(0, 1);
  if (!work_.empty() && work_.back() == '\r') work_.pop_back();
  // Nothing a neighbour sends may carry control characters on: not into a user's terminal
  // (a bell, an escape sequence, a backspace in a comment or a talk), not into a stored
  // record, not to the next node.  The front-end removes them as well; the node does not
  // rely on it.
  StripControlChars(work_);

  if (entry.IsFeed()) {
    state_.current_feed_kind = FeedKind(entry.state);
    if (deps_.feed) deps_.feed(stream, state_.current_feed_kind, work_);
    return true;
  }

  FeedHandshake(stream, work_);

  if (StartsWith(work_, "PC92")) {
    ToUpperInPlace(work_);
    // A PC92 always ends with "^".
    if (work_.back() != '^') return Reject(stream, work_, "PC92 without its final caret");
  }

  PcSentence& s = sentence_;
  s.stream = stream;
  s.line.assign(work_);
  SplitFields(s.line, s.fields);

  // Lines without any caret are prompts and chatter (the link start-up has seen them).
  if (s.fields.size() < 2) return false;

  const std::string& header = s.fields[0];
  if (header == kQx11Header) {
    if (entry.state == kStateNodePc9x || entry.state == kStateNodeLegacy) {
      entry.unanswered_pings = 0;  // a spot shows the neighbour is alive, as any sentence does
    }
    return HandleQx11(stream, s.line);
  }
  const int number =
      LeadingNumber(std::string_view(header).substr(std::min<size_t>(2, header.size())));
  if (!StartsWith(header, "PC")) {
    state_.Error(999, "ProcessNodeData ",
                 "from " + entry.call + " PCnr " + std::to_string(number) + " where = " + s.line);
    return false;
  }
  if (header.size() > 4) {
    state_.Error(0, "ProcessNodeData", s.line);
    return false;
  }
  s.number = (header.size() >= 3 && header[2] >= '0' && header[2] <= '9') ? number : 0;

  // Any sentence on an established link shows the neighbour is alive.
  if (entry.state == kStateNodePc9x || entry.state == kStateNodeLegacy) {
    entry.unanswered_pings = 0;
  }

  if (!HopeCheckEtc(s)) return false;

  state_.current_sentence = s.number;
  const bool known = s.number >= 0 && s.number < static_cast<int>(handlers_.size());
  const Handler* handler = known ? &handlers_[size_t(s.number)] : nullptr;
  if (!handler || !*handler) {
    state_.Error(0, "Data Not Processed PCnr ", std::to_string(s.number) + " " + s.line);
    return false;
  }
  try {
    return (*handler)(s);
  } catch (const std::exception& ex) {
    // A fault in one handler costs that one line, never the link.
    state_.Error(0, "ProcessNodeData ", std::string(ex.what()) + " where = " + s.line);
    return false;
  }
}

bool NodeProcessor::HopeCheckEtc(const PcSentence& s) {
  // Spot sentences with the spotter's address are never held to their trailer: peers that
  // turn PC61 into PC11 and back drop or keep the trailer as they please.
  flags_.Set(61, 0);
  const int n = s.number;
  if (n < 10) return Reject(s.stream, s.line, "no sentence number");
  // A PC11 comes in every shape its relays leave it in; the hop count is what must be there.
  if (n == 11) {
    if (!HasSpotTrailer(s.fields)) return Reject(s.stream, s.line, "spot without a hop count");
    // Nine fields: the spot is whole, but its sender left the terminator off.  The sysop who
    // watches node traffic is told; the spot itself is taken.
    if (s.last() == 8 && options_.monitor_view == 1) Show(" Protocol Violation", "blue", s.stream);
    return true;
  }
  const int last = s.last();
  const int flags = flags_.Get(n);
  if ((flags & PcCheckFlags::kHopField) && last >= 1) {
    const std::string& hop = s.fields[size_t(last - 1)];
    const bool ok = !hop.empty() && hop[0] == 'H' && (hop.size() == 2 || hop.size() == 3) &&
                    LeadingNumber(std::string_view(hop).substr(1)) > 0;
    if (!ok) return Reject(s.stream, s.line, "hop field = " + hop);
  }
  if (!(flags & PcCheckFlags::kTerminator)) return true;

  const std::string& end = s.fields[size_t(last)];
  if (end == "~") return true;
  if (end.empty()) {
    std::string text = " Protocol Violation";
    text += s.line;
    text += "\r\n";
    Show(text, "blue", s.stream);
  }
  return Reject(s.stream, s.line, "field = " + end + " where the terminator belongs");
}

bool NodeProcessor::SpotHopsOk(const PcSentence& s, size_t index) {
  // The trailer check lets every PC61 through, so the spot sentences are held to their hop
  // count here: a spot with no hops left, with more than any node gives, or with something
  // else where its count belongs is neither shown nor passed on.  A sentence too short to
  // reach that field goes on to intake, whose field count refuses it.
  if (index >= s.fields.size()) return true;
  const std::string& hop = s.fields[index];
  if (IsHopCount(hop)) return true;
  state_.Error(
      0, "HopsOk",
      "spot dropped, hop field = " + hop + " from " + StreamCall(s.stream) + " where = " + s.line);
  return false;
}

bool NodeProcessor::HandleQx11(int stream, const std::string& line) {
  // A neighbour of this software sends its spots so.  A line this node cannot read is
  // logged and dropped: the neighbour may be newer, but never so new that its fields moved.
  Qx11Spot q;
  std::string why;
  if (!ParseQx11(line, q, &why)) {
    constexpr size_t kShown = 512;
    state_.Error(0, "QX11",
                 "spot dropped (" + why + "), line = " + line.substr(0, kShown) + " from " +
                     StreamCall(stream));
    return false;
  }
  if (!deps_.qx11_intake) return false;
  Spot carried;
  Qx11Carried(q, carried);
  return deps_.qx11_intake(Qx11IntakeSentence(q), carried, stream);
}

bool NodeProcessor::HandlePc16(PcSentence& s) {
  // Users of a remote node count only when the neighbour itself reports them.
  if (s.last() >= 1 && s.fields[1] == StreamCall(s.stream)) {
    view_.ApplyPc16(s.fields, s.stream);
    if (deps_.counts_changed) deps_.counts_changed();
    return true;
  }
  if (deps_.counts_changed) deps_.counts_changed();
  return false;
}

bool NodeProcessor::HandlePc18(PcSentence& s) {
  StreamEntry& e = deps_.streams->at(s.stream);
  const std::string_view field2 = s.last() >= 2 ? std::string_view(s.fields[2]) : "";
  e.node_class = s.line.find("pc9x") != std::string::npos ? "5^" : "7^";
  e.node_class += field2;
  return true;
}

bool NodeProcessor::HandlePc51(PcSentence& s) {
  if (s.last() < 3) return false;
  if (LeadingNumber(s.fields[3]) == 0) {
    deps_.streams->at(s.stream).unanswered_pings = 0;
    return true;
  }
  if (s.fields[1] != options_.our_call) return false;
  if (deps_.output) deps_.output->Send(s.stream, BuildPc51Answer(s.fields[2], s.fields[1]));
  return true;
}

bool NodeProcessor::RelayWithHops(PcSentence& s) {
  if (s.last() < 1) return false;
  std::string& hop = s.fields[size_t(s.last() - 1)];
  if (!state_.HopsOk(hop)) return false;
  if (deps_.relay) deps_.relay(s.stream, s);
  return true;
}

bool NodeProcessor::HandlePc9x(PcSentence& s) {
  if (s.last() < 3) return false;
  const bool is_pc92 = s.number == 92;
  if (is_pc92 && s.fields[3] != "K" && !options_.pc92_topology) return false;
  if (!deps_.clock) return false;
  // A D from an origin we do not know is dropped before its stamp is remembered: it must
  // neither create the origin nor hold back that origin's first real sentence.
  if (is_pc92 && s.fields[3] == "D" && !view_.FindNode(s.fields[1])) return false;

  const SysTime now = deps_.clock->Now();
  const Pc9xTimeCheck::Verdict verdict =
      time_check_.Check(s.fields[1], s.fields[2], SecondsOfDay(now), is_pc92);
  if (verdict != Pc9xTimeCheck::Verdict::kAccept) {
    // In a meshed network the same PC92 comes in again over another neighbour.  It is not
    // applied or passed on again, but it shows a second way to its origin.
    double stamp = 0;
    if (is_pc92 && verdict == Pc9xTimeCheck::Verdict::kNotNewer &&
        ParseDouble(s.fields[2], stamp) && stamp == time_check_.Last(s.fields[1])) {
      view_.NotePc92Route(s.fields, s.stream);
    }
    return false;
  }

  if (is_pc92) {
    // What the view refuses (a D for an unknown origin, a malformed list) goes no further.
    if (!view_.ApplyPc92(s.fields, s.stream)) return false;
    if (deps_.counts_changed) deps_.counts_changed();
    RelayWithHops(s);
    if (deps_.nodes_left && !view_.LastRemoved().empty()) {
      deps_.nodes_left(s.stream, view_.LastRemoved());
    }
    return true;
  }
  // PC93 ^ origin ^ time ^ to ^ from ^ via ^ text ...
  if (s.last() < 6) return false;
  if (dups_.SeenPc93(s.fields[4], s.fields[6], s.fields[1], NowSeconds())) return false;
  using Outcome = NodeDeps::Pc93Outcome;
  const Outcome outcome = deps_.pc93 ? deps_.pc93(s) : Outcome::kDelivered;
  if (outcome == Outcome::kRepeat) return false;
  if (s.fields[3] != "LOCAL" && s.fields[5] != "LOCAL") RelayWithHops(s);
  return outcome == Outcome::kDelivered;
}

bool NodeProcessor::HandlePc41(PcSentence& s) {
  const Pc41Result r = ProcessPC41(s, pc41_lists_, state_, deps_.pc41);
  if (r.relay && deps_.relay) deps_.relay(s.stream, s);
  return r.processed;
}

}  // namespace qx
