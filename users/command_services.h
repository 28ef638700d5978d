// What the command interpreter asks of the rest of the node: spot entry and history, the
// node's lists, the network view and the sysop's controls.  The node's wiring implements it.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace qx {

class CommandServices {
 public:
  virtual ~CommandServices() = default;
  // The DX command (or DXTEST with test_only): returns the reply for the user ("" when the
  // spot was taken without a reply).
  virtual std::string EnterSpot(int stream, std::string_view line, bool test_only) = 0;
  // SHOW/DX with its arguments (count, call or prefix, band, spotter, day, comment text): the
  // lines to send; none when the arguments are wrong.
  virtual std::vector<std::string> ShowDx(int stream, std::string_view args) = 0;
  // Adds (add = true) or removes an item of a configuration list and saves the
  // configuration; true when the list changed.
  virtual bool ListChange(std::string_view list, std::string_view item, bool add) = 0;
  // Lines for SHOW/CONFIGURATION ("configuration"), SHOW/NODES ("nodes"), SHOW/USERS
  // ("users"), SHOW/LINKS ("links") and WHO ("who").
  virtual std::vector<std::string> NetworkLines(std::string_view what) = 0;
  // SHOW/STATION: what is known of a call (name, QTH, home node, location).
  virtual std::vector<std::string> StationInfo(std::string_view call) = 0;
  // CONNECT / DISCONNECT of a node link (sysop); the reply.
  virtual std::string LinkCommand(std::string_view node, bool connect) = 0;
  // SHUTDOWN (sysop): the node stops cleanly after the current turn.
  virtual void Shutdown() = 0;
  // SHOW/WWV and SHOW/WCY (what is "wwv" or "wcy") with their count argument: the lines, or
  // none when the argument is wrong.
  virtual std::vector<std::string> ShowPropagation(std::string_view what, std::string_view args) {
    return {};
  }
  // An announcement of a local user, before anybody sees it (to: "*" or "WX"): false when
  // the announcer is refused (the AnnNok list; logged); true when it goes out, and it is
  // then kept in the announcement history.
  virtual bool TakeAnnouncement(std::string_view from, std::string_view to, std::string_view text) {
    return true;
  }
  // SH/ANNOUNCE with its count argument: the lines, or none when the argument is wrong.
  virtual std::vector<std::string> ShowAnnouncements(std::string_view args) { return {}; }
  // REBUILD (sysop): what can be rebuilt from the files is read again; the lines say what.
  virtual std::vector<std::string> Rebuild() { return {"Nothing to rebuild on this node."}; }
  // RESTART (sysop): the node restarts without dropping a connection; the reply.  "" when
  // this node cannot restart itself.
  virtual std::string Restart() { return {}; }
  // A mail command (READ, KILL, DELETE, REPLY, SP, SEND, DIRECTORY, LIST, PURGE or
  // INITITIALISE, the keyword in full) with what followed it: the reply lines.  SEND, SP and
  // REPLY open the mail editor.
  virtual std::vector<std::string> Mail(int stream, std::string_view verb, std::string_view args) {
    return {"Mail is not available on this node."};
  }
  // True while the stream's lines go to the mail editor; the prompt waits until it closes.
  virtual bool MailComposing(int stream) const { return false; }
  // SKIMMER/STATUS with an optional call: the feeds with their rates and counts, then the
  // call's recent skimmer reports.  False when the status cannot be given.
  virtual bool SkimmerStatus(std::string_view call, std::vector<std::string>& lines) {
    return false;
  }
  // The WWV command (line as typed, args after the keyword): the reply.
  virtual std::string EnterWwv(int stream, std::string_view line, std::string_view args) {
    return "WWV reports cannot be entered on this node.";
  }
  // UPDATE (sysop) with its arguments: fetch reference files now, show their state, or
  // check for a newer program.  The lines to send.
  virtual std::vector<std::string> UpdateCommand(std::string_view args) {
    return {"Reference data is not kept current on this node."};
  }
};

}  // namespace qx
