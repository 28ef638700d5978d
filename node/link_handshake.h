// The start of a node link, as a state machine fed one line (or unfinished prompt) at a time.
// It never touches a socket: each step says what to send and whether the link came up.
//
//   accepting side:  peer's call line -> PC18 -> (peer config, PC20) -> our config + PC22 -> up
//   calling side:    "login:" -> our call -> PC18 -> our config + PC20 -> PC22 -> up
#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace qx {

// The kind of node on a link as WHO shows it ("QXC", "DXS", "ARC" ...): the first word of the
// node's configured type when it names one, else what its PC18 tells ("QX Cluster" is ours),
// else only its style ("PC9X" or "LEGACY").
std::string NodeKindOf(std::string_view configured_type, std::string_view peer_pc18, bool pc9x);

class NodeLinkHandshake {
 public:
  enum class Role { kAccept, kCall };
  enum class State {
    kAwaitPrompt,  // calling: waiting for "login:"
    kAwaitCall,    // accepting: waiting for the peer's call
    kAwaitPc18,    // calling: our call sent
    kAwaitPc20,    // accepting: PC18 sent, collecting the peer's configuration
    kAwaitPc22,    // calling: our configuration and PC20 sent
    kUp,
  };
  struct Config {
    std::string our_call;
    std::string peer_call;  // the configured neighbour call (upper case)
    std::string version;    // our version text, for PC18
    bool we_speak_pc9x = true;
    std::string password;  // calling side: sent when the peer asks "password:"
    // Our configuration lines (each with CR LF) in PC9x (PC92) or legacy (PC19/PC16) style.
    std::function<std::vector<std::string>(bool pc9x)> our_config;
  };
  struct Step {
    std::vector<std::string> send;  // lines to send, each with its line end
    bool established = false;       // the link came up with this line
    bool style_changed = false;     // peer_pc9x() changed with this line
  };

  NodeLinkHandshake(Role role, Config config);

  // True when text holds one of the prompts a remote node shows a caller: "login:", "call:"
  // (any case) or "*** Connected ".
  static bool IsLoginPrompt(std::string_view text);

  // One line from the peer, without its line end; a prompt without line end may come as is.
  Step OnLine(std::string_view line);

  State state() const { return state_; }
  Role role() const { return role_; }
  bool up() const { return state_ == State::kUp; }
  // True when the link speaks PC92/PC93 (decided by PC18 / the peer's PC92).
  bool peer_pc9x() const { return peer_pc9x_; }
  const std::string& peer_pc18() const { return peer_pc18_; }
  const std::string& peer_call() const { return config_.peer_call; }

 private:
  void SendConfig(Step& step, bool pc9x);

  Role role_;
  Config config_;
  State state_;
  bool peer_pc9x_ = false;
  bool peer_sent_pc92_ = false;
  bool password_sent_ = false;
  std::string peer_pc18_;
};

}  // namespace qx
