// The user command interpreter: every line a logged-in user sends is one command.  Command
// words may be abbreviated down to each keyword's minimum length; keywords are tried in
// table order and the first match wins, so the order is part of the design ("R" is READ
// because READ is tried before REPLY).
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "info/info_lines.h"

#include "users/command_services.h"
#include "users/login.h"
#include "users/user_context.h"

namespace qx {

class CommandInterpreter {
 public:
  CommandInterpreter(UserContext& ctx, Login& login, CommandServices& services);

  // A line from a logged-in user: runs it and sends the prompt.
  void OnLine(int stream, std::string_view line);
  // Runs a line without the prompt (presets, the "Logon 4" lines).
  void Execute(int stream, std::string_view line);

  void set_help_address(std::string address) { help_address_ = std::move(address); }

  // The reply for a line that no table accepts (60-character cut included).
  static std::string CommandError(std::string_view line);

 private:
  bool RunFirstTable(int stream, std::string_view line, std::string_view word,
                     std::string_view rest);
  bool RunSecondTable(int stream, std::string_view line, std::string_view word,
                      std::string_view rest);
  void Set(int stream, std::string_view line, std::string_view rest);
  void Show(int stream, std::string_view line, std::string_view rest);
  void Announce(int stream, std::string_view line, std::string_view rest, bool wx);
  void Talk(int stream, std::string_view line, std::string_view rest);
  void Bye(int stream);
  void Spoof(int stream, std::string_view line, std::string_view rest);
  void Who(int stream);
  bool RequireSysop(int stream, std::string_view line);
  // The stream's spot format (kSpotFormatDxDe or kSpotFormatEnhanced), kept by the front-end.
  void SetSpotFormat(int stream, int format);

  void SaveSwitches(int stream);
  void SavePersonal(int stream, int type, std::string_view value, std::string_view reply);
  void Reply(int stream, std::string_view text) {
    if (!quiet_) ctx_.SendLine(stream, text);
  }
  void RunPreset(int stream, const std::vector<std::string>& lines, std::string_view done);
  // A filter command (SET/FILTER, SET/DXBM, ACCEPT/, REJECT/, CLEAR/): applied to the
  // stream's compiled filters and stored at once.
  void FilterCommand(int stream, std::string_view line);
  void TestFilter(int stream, std::string_view args);
  void Lines(int stream, const std::vector<std::string>& lines);

  // Information commands (info_commands.cpp).  InfoCommand answers the SHOW/ words it owns
  // and returns false for the others.
  bool InfoCommand(int stream, std::string_view line, std::string_view word, std::string_view arg);
  void SunOrMoon(int stream, std::string_view line, std::string_view arg, bool moon);
  void StatUser(int stream, std::string_view line, std::string_view arg);
  void StateAdd(int stream, std::string_view line, std::string_view arg);
  // The user's own place: their location, their locator, else their call's country.
  std::optional<Place> OwnPlace(int stream) const;
  // A typed call, prefix or locator; nothing for text that is none of them.
  std::optional<Place> PlaceOf(std::string_view text) const;

  UserContext& ctx_;
  Login& login_;
  CommandServices& services_;
  std::string help_address_;
  bool quiet_ = false;
};

}  // namespace qx
