// The log-in dialogue of a user stream: call, password, name, greeting, duplicate
// connections, and the prompt that follows every command.
#pragma once

#include <functional>
#include <string>
#include <string_view>

#include "users/user_context.h"

namespace qx {

class Login {
 public:
  explicit Login(UserContext& ctx);

  // Where the "Logon 4" lines of the greeting go (the command interpreter).
  void set_interpreter(std::function<void(int stream, std::string_view line)> f) {
    interpret_ = std::move(f);
  }

  // Asked with every call that passed the call check at the prompt: true when the call is a
  // defined node that takes the stream over as a node link (the dialogue ends there).
  void set_node_login(std::function<bool(int stream, const std::string& call)> f) {
    node_login_ = std::move(f);
  }

  // A new connection: the pre-log-in banner, ending in "login: " without a line end.
  void OnConnectRequest(int stream);
  // A line from a stream that is still logging in.
  void OnLine(int stream, std::string_view line);
  // The stream of a logged-in user closed (the stream table entry is still filled).
  void OnLoggedOut(int stream);
  // A recovered stream of a logged-in user (node restart): reload its record and prompt.
  void OnRecovered(int stream);

  void SendGreeting(int stream);
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
  void AskName(int stream);
  void OnName(int stream, std::string_view line);
  void OnNameConfirm(int stream, std::string_view line);
  void Complete(int stream, bool name_was_set);
  void Refuse(int stream);
  void ConnectionLog(int stream, std::string_view what);

  UserContext& ctx_;
  std::function<void(int, std::string_view)> interpret_;
  std::function<bool(int, const std::string&)> node_login_;

  // Node-wide reconnect guard.
  std::string last_dupe_call_;
  std::string last_dupe_bucket_;
  int dupe_count_ = 0;
  std::vector<std::string> reconnect_banned_;
};

}  // namespace qx
