// The log-in dialogue of a user stream: call, password, name, greeting, duplicate
// connections, and the prompt that follows every command.
#pragma once

#include <functional>
#include <string>
#include <string_view>

#include "core/net_address.h"
#include "users/user_context.h"

namespace qx {

// What a neighbour node that logs in at our prompt must do to be let in.
enum class NodeAdmission {
  kAdmit,          // it comes from one of its configured addresses and needs no password
  kAskPassword,    // it is on the password list (and, where addresses are set, from one)
  kWrongAddress,   // addresses are configured for it and the peer is not among them
  kNotConfigured,  // neither a password nor an address: nothing proves who it is
};
NodeAdmission DecideNodeAdmission(bool on_password_list, const AddressList& addresses,
                                  std::string_view peer);

// True when a reply to the name question is a command a logging program sent unasked
// ("set/page 0", "sh/dx", "SET QTH x"), not a name.
bool IsCommandNotName(std::string_view reply);

class Login {
 public:
  explicit Login(UserContext& ctx);

  // Where the "Logon 4" lines of the greeting go (the command interpreter).
  void set_interpreter(std::function<void(int stream, std::string_view line)> f) {
    interpret_ = std::move(f);
  }

  // How a call typed at the prompt is known as a neighbour node, and where an admitted node
  // goes.  A node call is checked before the user call rules: it must pass the password list
  // (its password sent after the call, as peers' connect scripts do) and, when addresses are
  // configured for it, come from one of them; a node with neither is refused.
  struct NodeHooks {
    // The addresses the call may log in from (possibly none); null when it is no node.
    std::function<const AddressList*(std::string_view call)> addresses;
    // The node passed: the stream becomes a node link.
    std::function<void(int stream, const std::string& call)> admit;
  };
  void set_node_hooks(NodeHooks hooks) { node_hooks_ = std::move(hooks); }

  // A new connection: the pre-log-in banner, ending in "login: " without a line end.
  void OnConnectRequest(int stream);
  // A line from a stream that is still logging in.
  void OnLine(int stream, std::string_view line);
  // The stream of a logged-in user closed (the stream table entry is still filled).
  void OnLoggedOut(int stream);
  // A recovered stream of a logged-in user (node restart): reload its record and prompt.
  void OnRecovered(int stream);

  void SendGreeting(int stream);
  // Tells the front-end what to keep with a logged-in user's connection, so that a restart
  // of this node keeps it: when it began, the rights a password gave, the spot format.
  void SendStreamAttributes(int stream);
  // False when the new stream was refused (reconnect guard) and is being closed.
  bool CheckDupeConnection(int stream);
  void BuildPromptTemplates(int stream);
  // Sends the prompt with the current date and time; runs the runaway guard.
  void BuildPrompt(int stream);

  // The prompt text for a stream at time t (exposed for tests).
  std::string PromptText(int stream, SysTime t) const;
  // The period stamp of the runaway guard (one period per minute).
  static std::string PeriodStamp(SysTime t);

 private:
  void OnCall(int stream, std::string_view line);
  void OnPassword(int stream, std::string_view line);
  // A defined node's call at the prompt, and its password.
  void OnNodeCall(int stream, const std::string& call, const AddressList& addresses);
  void OnNodePassword(int stream, std::string_view line);
  void RefuseNode(int stream, std::string_view why);
  void AskName(int stream);
  void OnName(int stream, std::string_view line);
  void OnNameConfirm(int stream, std::string_view line);
  void Complete(int stream, bool name_was_set);
  void Refuse(int stream);
  int RecoveredPrivilege(std::string_view call, std::string_view attributes) const;
  // Compiles the stream's filters from its session; logs and re-stores lines it had to drop.
  void LoadFilters(int stream);
  void ConnectionLog(int stream, std::string_view what);

  UserContext& ctx_;
  std::function<void(int, std::string_view)> interpret_;
  NodeHooks node_hooks_;

  // Node-wide reconnect guard.
  std::string last_dupe_call_;
  std::string last_dupe_bucket_;
  int dupe_count_ = 0;
  std::vector<std::string> reconnect_banned_;
};

}  // namespace qx
