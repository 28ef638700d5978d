// Mail for the users of this node: the commands (SEND, SP, READ, REPLY, KILL, DIR ...), the
// editor that takes a user's lines while they compose, the notices at log-in and on arrival,
// and the purge.  Messages from other nodes come in through Receive; what must travel on is
// handed to the forwarder through the stored hook.
#pragma once

#include <filesystem>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "core/stream_output.h"
#include "core/stream_table.h"
#include "core/time_text.h"
#include "mail/mail_draft.h"
#include "mail/mail_store.h"

namespace qx {

struct MailServiceDeps {
  StreamTable* streams = nullptr;  // required
  StreamOutput* out = nullptr;     // required
  const Clock* clock = nullptr;    // required
  MailStore* store = nullptr;      // required
  std::string node_call;
  std::function<void(std::string_view tag, std::string_view text)> log;
  // Remembers in the user's record the highest message number they were told of.
  std::function<void(std::string_view call, int number)> save_mail_number;
  // A message was stored (written here or received): the forwarder decides where it goes.
  std::function<void(int number)> stored;
  // The editor closed (message saved or abandoned): the user gets the prompt again.
  std::function<void(int stream)> prompt;
  // The node where a call is at home ("" when unknown); a private message for a call at
  // home elsewhere is bound for that node.
  std::function<std::string(std::string_view call)> home_node;
  // Where the editor keeps each stream's unfinished message, one file per stream, so that a
  // restart of the node does not lose it; empty: drafts live in memory only.
  std::filesystem::path drafts_dir;
};

class MailService {
 public:
  explicit MailService(MailServiceDeps deps);

  // The addresses that make a message a bulletin ("ALL", "DX", "LOCAL" ...); ALL always is.
  void SetBulletinAddresses(const std::vector<std::string>& addresses);
  bool IsBulletinAddress(std::string_view to) const;

  // A mail command; verb is the full keyword (READ, KILL, DELETE, REPLY, SP, SEND,
  // DIRECTORY, LIST, PURGE, INITITIALISE), args what followed it.  Returns the reply lines.
  // SEND, SP and REPLY open the editor: the stream's next lines go to OnEditorLine.
  std::vector<std::string> Command(int stream, std::string_view verb, std::string_view args);

  bool Composing(int stream) const { return drafts_.contains(stream); }
  // A line typed while composing; replies go straight to the stream.
  void OnEditorLine(int stream, std::string_view line);
  // The stream closed: an unfinished message is dropped.
  void StreamClosed(int stream) {
    if (drafts_.erase(stream)) RemoveDraft(stream);
    last_read_.erase(stream);
  }
  // A stream taken back after a restart of the node: the message its user was writing, if
  // any, is open again at the step they were at.  True when there was one.
  bool RestoreDraft(int stream);
  // Once every stream is back: drafts of streams that did not come back are removed.
  void DropUnrestoredDrafts();

  // The lines for a user who has just logged in: one per unread message addressed to them,
  // and a count of bulletins that came since they were last told.
  std::vector<std::string> LoginNotices(int stream);

  // A message received from another node: stored (unless it is one already here), announced
  // to its addressee if logged in, and handed on.  Returns its number here, 0 when it was not
  // taken (a repeat, or the file could not be written).
  int Receive(MailMessage m);

  // The "Mail Purge" setting in days: PURGE and the daily purge also remove messages older
  // than that (0: only deleted ones).
  void set_purge_days(int days) { purge_days_ = days; }
  int purge_days() const { return purge_days_; }

  // Removes deleted messages and, with days > 0, older ones; the count removed.
  int Purge(int days);
  // Rebuilds the index from the files; the count of messages.
  int Rebuild();

 private:
  using Draft = MailDraft;

  void Send(int stream, std::string_view line);
  std::string CallOf(int stream) const;  // base call, upper case
  bool Sysop(int stream) const;
  bool Visible(const MailMessage& m, std::string_view call) const;
  // Checks the addressees of SEND/SP; fills d.to and d.is_private or returns an error line.
  std::string Address(std::string_view args, bool force_private, Draft& d) const;
  std::vector<std::string> Read(int stream, std::string_view args);
  std::vector<std::string> Reply(int stream, std::string_view args);
  std::vector<std::string> Kill(int stream, std::string_view args);
  std::vector<std::string> List(int stream, std::string_view args);
  void Finish(int stream, Draft d);
  void Close(int stream);
  // Tells the logged-in addressee of a private message that it has arrived, and every
  // logged-in user who takes announcements of a new bulletin.
  void Announce(const MailMessage& m);
  void Log(std::string_view text) const;
  std::filesystem::path DraftPath(int stream) const;
  void SaveDraft(int stream);
  void RemoveDraft(int stream);

  MailServiceDeps deps_;
  std::unordered_set<std::string> bulletin_addresses_;
  std::map<int, Draft> drafts_;
  std::map<int, int> last_read_;
  int purge_days_ = 0;  // stream -> message number, for REPLY
};

}  // namespace qx
