// Mail messages and bulletins as this node keeps them, and the node-to-node mail sentences
// (PC28 to PC33, PC42) as values.  Pure code: the store adds the files, the forwarder the
// links.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/time_text.h"

namespace qx {

// Limits that keep one message from filling the disk or a link.
inline constexpr size_t kMailSubjectMax = 30;
inline constexpr size_t kMailLineMax = 240;   // longer lines are cut
inline constexpr size_t kMailLinesMax = 300;  // later lines are dropped, and the writer told

struct MailMessage {
  int number = 0;    // this node's number; never reused
  std::string from;  // the author's call
  std::string to;    // a call (private) or a bulletin address such as ALL
  SysTime time{};    // when the author wrote it
  std::string subject;
  bool is_private = true;     // false: a bulletin
  bool read = false;          // the addressee has read it (private mail)
  bool deleted = false;       // killed; the next purge removes the file
  bool keep = false;          // never purged for age
  std::string origin;         // the node where it was written
  std::string received_from;  // the neighbour it came from ("" when written here)
  std::string bound_for;      // the node a private message travels to ("" when delivered here)
  std::vector<std::string> forwarded_to;  // neighbours that confirmed receipt (PC33)
  std::vector<std::string> text;          // the lines; only in files and full reads

  // What identifies one message across the network: a message seen again under the same key
  // (coming back around a loop, or offered by a second neighbour) is not taken twice.  PC28
  // carries no message number, so the key is built from what it does carry.
  std::string Key() const;
  bool ForwardedTo(std::string_view node) const;
};

// The message file: "Key: value" header lines, a blank line, then the text.
std::string FormatMailFile(const MailMessage& m);
// False (with why) for a file that is not a message; header-only reads skip the text.
bool ParseMailFile(std::string_view text, MailMessage& m, std::string* why, bool with_text = true);

// "Msg#  Flags From ... Subject" row of a directory listing, and its header.
std::string MailListHeader();
std::string MailListRow(const MailMessage& m);

// A mail sentence between nodes.  Field 1 is the node it is addressed to, field 2 the node
// that sent it.
struct MailSentence {
  enum class Kind { kHeader, kLine, kHeaderAck, kLinesAck, kEnd, kEndAck, kAbort };
  Kind kind = Kind::kAbort;
  std::string to_node;
  std::string from_node;
  int stream = 0;  // not in a header
  // kHeader
  std::string addressee, author, subject, origin;
  SysTime time{};
  bool is_private = true;
  int lines_per_ack = 5;
  // kLine: the text, with any "^" of the author as "~"
  std::string text;
};

// Reads "PC28".."PC33", "PC42"; nullopt (with why) for anything malformed: missing fields,
// calls that are not calls, a bad date or stream number.
std::optional<MailSentence> ParseMailSentence(std::string_view line, std::string* why = nullptr);
// The sentence as sent, CR LF included.
std::string BuildMailSentence(const MailSentence& s);

}  // namespace qx
