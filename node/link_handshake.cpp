#include "node/link_handshake.h"

#include <algorithm>

#include "core/text_util.h"
#include "node/pc_builders.h"

namespace qx {
namespace {

// The header of a sentence: the text before the first "^" (or the whole line when a peer
// left the trailer off), without blanks.
std::string_view Header(std::string_view line) { return Trim(line.substr(0, line.find('^'))); }

// Field 1 of a caret-separated line.
std::string_view Field1(std::string_view line) {
  const size_t a = line.find('^');
  if (a == std::string_view::npos) return {};
  const size_t b = line.find('^', a + 1);
  return line.substr(a + 1, b == std::string_view::npos ? std::string_view::npos : b - a - 1);
}

}  // namespace

std::string NodeKindOf(std::string_view configured_type, std::string_view peer_pc18, bool pc9x) {
  const std::string_view trimmed = Trim(configured_type);
  const std::string word = ToUpper(trimmed.substr(0, trimmed.find(' ')));
  // "PC9X" and "9X" say only which sentences the node speaks, not what it is.
  const bool names_software =
      word.size() >= 2 && word.size() <= 6 && word.find("9X") == std::string::npos &&
      std::all_of(word.begin(), word.end(),
                  [](char c) { return (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9'); });
  if (names_software) return word;
  if (ContainsIgnoreCase(peer_pc18, "QX Cluster")) return "QXC";
  return pc9x ? "PC9X" : "LEGACY";
}

bool NodeLinkHandshake::IsLoginPrompt(std::string_view text) {
  return ContainsIgnoreCase(text, "login:") || ContainsIgnoreCase(text, "call:") ||
         text.find("*** Connected ") != std::string_view::npos;
}

NodeLinkHandshake::NodeLinkHandshake(Role role, Config config)
    : role_(role),
      config_(std::move(config)),
      state_(role == Role::kAccept ? State::kAwaitCall : State::kAwaitPrompt) {}

void NodeLinkHandshake::SendConfig(Step& step, bool pc9x) {
  if (!config_.our_config) return;
  for (std::string& line : config_.our_config(pc9x)) step.send.push_back(std::move(line));
}

NodeLinkHandshake::Step NodeLinkHandshake::OnLine(std::string_view raw) {
  Step step;
  std::string_view line = raw;
  while (!line.empty() && (line.back() == '\r' || line.back() == '\n')) line.remove_suffix(1);
  while (!line.empty() && (line.front() == '\r' || line.front() == '\n')) line.remove_prefix(1);
  const std::string_view header = Header(line);

  switch (state_) {
    case State::kAwaitPrompt:
      // Banners and stray lines come first; the prompt may arrive without a line end.
      if (IsLoginPrompt(line)) {
        step.send.push_back(config_.our_call + "\r\n");
        state_ = State::kAwaitPc18;
      } else if (header == "PC18") {
        // A peer that knows our address may skip the prompt and introduce itself at once.
        state_ = State::kAwaitPc18;
        return OnLine(raw);
      }
      break;

    case State::kAwaitCall: {
      const std::string_view call = Trim(line);
      if (call.empty() || call.find('^') != std::string_view::npos) break;
      if (!config_.peer_call.empty() && !EqualsIgnoreCase(call, config_.peer_call)) break;
      step.send.push_back(BuildPc18(config_.version));
      state_ = State::kAwaitPc20;
      break;
    }

    case State::kAwaitPc18:
      if (!config_.password.empty() && !password_sent_ && ContainsIgnoreCase(line, "password:")) {
        step.send.push_back(config_.password + "\r\n");
        password_sent_ = true;
      } else if (header == "PC18") {
        peer_pc18_ = std::string(line);
        const bool pc9x = config_.we_speak_pc9x && line.find("pc9x") != std::string_view::npos;
        step.style_changed = pc9x != peer_pc9x_;
        peer_pc9x_ = pc9x;
        SendConfig(step, pc9x);
        step.send.push_back(BuildPc20());
        state_ = State::kAwaitPc22;
      }
      // Anything else (PC38 of very old peers, a lone "0", banners) is ignored.
      break;

    case State::kAwaitPc20:
      if (header == "PC92") {
        // A PC92 carrying the caller's own call marks the link as PC9x.
        if (config_.we_speak_pc9x && EqualsIgnoreCase(Field1(line), config_.peer_call) &&
            !peer_pc9x_) {
          peer_pc9x_ = true;
          step.style_changed = true;
        }
      } else if (header == "PC20") {
        SendConfig(step, peer_pc9x_);
        step.send.push_back(BuildPc22());
        state_ = State::kUp;
        step.established = true;
      }
      break;

    case State::kAwaitPc22:
      if (header == "PC92") {
        if (EqualsIgnoreCase(Field1(line), config_.peer_call)) peer_sent_pc92_ = true;
      } else if (header == "PC22") {
        if (peer_pc9x_ && !peer_sent_pc92_) {
          // The acceptor never described itself in a PC92: carry on in the old style.
          step.send.push_back(
              "Resetting to old-style routing: login call not sent in any PC92\r\n");
          peer_pc9x_ = false;
          step.style_changed = true;
        }
        state_ = State::kUp;
        step.established = true;
      }
      break;

    case State::kUp:
      break;
  }
  return step;
}

}  // namespace qx
