// User records: one text file per call without SSID under data/user/ (data/userRemote/ for
// users known only from other nodes' PC41 information).  Each line is "KEY^set^value"; the
// set is "0" for SSIDs 0 to 15 (and no SSID) and the SSID itself from 16 up, so a user's
// SSID-16+ logins (typically logging programs) keep settings of their own.
//
// Personal information travels between nodes as PC41 and is kept one line per type as
// "PC41^0^<type>^<value>"; those lines belong to every set.
//
// Besides the classic keys (PC41, WIDTH, SETTINGS, DXBM, FILTER, MAILNUMBER) the record holds
// "RESOLUTION" (1 or 2 decimals) and "PROMPT" ("", "%M>" or ">") in the same layout, and
// "LASTLOGIN" and "SPOTS" (last log-in, spots posted), which are kept under set 0 only.  A set
// holds one "FILTER" line per filter rule, "FILTER^set^<kind>^<id>^<rule as typed>" (see
// users/filter_book.h); a line's value is everything after its set field, carets included.
// Lines with keys this code does not know are kept on every rewrite.
#pragma once

#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/program_dir.h"
#include "core/session.h"

namespace qx {

// The mask that replaces a stored "0/0": every band and mode.
constexpr uint32_t kWideDxbmMask = 1040382980u;
constexpr uint32_t kWideDxbmMask2 = 15880u;

// Kinds of station that get settings of their own when their record is loaded.
//   kUser                 the ordinary defaults of SessionSettings.
//   kNode (QXC, DXS, ARC, SUM)  a node link: no user filters apply and every band and mode
//                         passes (the wide mask), so nothing is held back from a neighbour
//                         by a user-style default; no beep, no log-in notices.
//   kSkimmer, kRbn, kFt8 (SKM, RBN, FT8)  a feed only sends: every switch off and an empty
//                         mask, so no spot, announcement or talk is ever written to it.
enum class UserKind { kUser, kNode, kSkimmer, kRbn, kFt8 };

// "QXC", "DXS", "ARC", "SUM" -> kNode; "SKM" -> kSkimmer; "RBN" -> kRbn; "FT8" -> kFt8;
// anything else (case ignored) -> kUser.
UserKind UserKindFromCode(std::string_view code);
SessionSettings KindDefaults(UserKind kind);

// The name as users see it: "Unknown Name" until one is known.
std::string_view DisplayName(const SessionSettings& s);

// "49 11 N 122 30 W" (degrees, minutes, hemisphere letter; blanks between) into signed
// decimal degrees, north and east positive.  Case is ignored; minutes may have decimals.
bool ParseLocation(std::string_view text, double& lat, double& lon);

// The record's file name without ".dat": the call up to its first "-", every "/" written as
// "p" (K1ABC/P-2 -> "K1ABCpP").  Empty when the call cannot name a file.
std::string UserFileName(std::string_view call);
// The settings set of a call: its SSID when that is 16 or more, else 0.
int SettingsSet(std::string_view call);

// Pure record text handling (the store below adds the files).
// Applies the lines of set `set` (and every PC41 line) to s, in file order.  Quotation marks
// are dropped first.
void ApplyUserRecord(std::string_view text, int set, SessionSettings& s);
// The record text with the line of key and set replaced by "key^set^value" (added at the end
// when missing); every other line is kept.  Lines end with CR LF.
std::string ReplaceRecordLine(std::string_view text, std::string_view key, int set,
                              std::string_view value);
// The record text with every line of key and set replaced by one "key^set^value" line per
// value, placed where the first of the old lines stood (at the end when there was none).
std::string ReplaceRecordLines(std::string_view text, std::string_view key, int set,
                               const std::vector<std::string>& values);
// The record text with the PC41 line of that information type replaced.
std::string ReplacePc41Line(std::string_view text, int type, std::string_view value);

// Personal data as typed, made fit for the record and the network: a "^" would split the
// record line and the PC41 sentence, so it is kept as "~".
std::string PersonalValue(std::string_view typed);
// The PC41 this node sends for a local user's personal data (type 1 name ... 5 locator),
// with its CR LF.
std::string LocalPc41(std::string_view call, int type, std::string_view value);

struct UserRecordLoad {
  SessionSettings settings;
  bool existed = false;  // a record file was found
  bool remote = false;   // ... and it was the one under data/userRemote/
};

class UserStore {
 public:
  explicit UserStore(ProgramDir dir);

  // Fills the session of `call` (with SSID) for a stream in stream_state; kind_code is the
  // stream's kind ("QXC", "SKM", ...; "" for a user).  A missing record gives the defaults.
  UserRecordLoad Load(std::string_view call, int stream_state,
                      std::string_view kind_code = "") const;

  // Writes the line of key (upper-cased) for the call's settings set into the local record,
  // keeping every other line.  A user with only a remote record starts from that record's
  // lines.  False when the key cannot be stored ("PC41", empty, carets) or the write failed.
  bool Save(std::string_view call, std::string_view key, std::string_view value);
  // Replaces every line of key in the call's settings set with one line per value (carets
  // allowed in values); no values removes them.
  bool SaveLines(std::string_view call, std::string_view key,
                 const std::vector<std::string>& values);

  // The person's last log-in ("24-Nov-2026 1952Z") and the count of spots they posted on
  // this node; both are kept once per call, under set 0, whatever the SSID.  They are
  // bookkeeping, so they are held here and written by WriteBookkeeping (the node does so
  // once a minute and at stop) instead of costing a synced file write at every log-in and
  // every spot on the node's only thread.  Load sees them at once.
  void NoteLogin(std::string_view call, std::string_view when);
  // Adds one to the call's count of spots posted; returns the new count.
  int CountSpot(std::string_view call);
  // Writes what NoteLogin and CountSpot hold, one rewrite per call; returns the calls written.
  size_t WriteBookkeeping();

  // Personal information typed on this node (SET/NAME, QTH, LOCATION, HOMENODE, QRA):
  // type 1 name, 2 QTH, 3 location, 4 home node, 5 grid.  A location that does not parse
  // is refused.
  bool SavePersonal(std::string_view call, int type, std::string_view value);

  // Files a received "PC41^call^type^value^H..^~" (a leading "PC41^^" is accepted) under
  // file_call (the sentence's call when empty).  With remote set, a call that has no local
  // record is filed under data/userRemote/.
  bool StorePc41(std::string_view file_call, std::string_view sentence, bool remote);

  std::filesystem::path LocalPath(std::string_view call) const;
  std::filesystem::path RemotePath(std::string_view call) const;

 private:
  struct Bookkeeping {
    std::optional<std::string> last_login;
    std::optional<int> spots;
  };
  void MergeUnwritten(std::string_view call, SessionSettings& s) const;

  bool Rewrite(const std::filesystem::path& target, const std::filesystem::path& seed,
               std::string_view key, int set_or_type, std::string_view value, bool pc41);
  // Reads target (seed when target is missing), applies change, writes target atomically.
  bool RewriteWith(const std::filesystem::path& target, const std::filesystem::path& seed,
                   const std::function<std::string(std::string_view)>& change);

  ProgramDir dir_;
  std::map<std::string, Bookkeeping, std::less<>> unwritten_;  // by base call
};

}  // namespace qx
