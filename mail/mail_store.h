// The messages of this node: one file per message under data/msg/, each written atomically,
// and an index of their headers kept in memory and rebuilt from the files.  Numbers only grow:
// the highest number given is kept in its own file, so a purge of the newest message never
// lets its number come back.
#pragma once

#include <filesystem>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "mail/mail_message.h"

namespace qx {

class MailStore {
 public:
  explicit MailStore(std::filesystem::path dir);

  // Reads every "*.msg" file into the index (headers only); a file that does not read as a
  // message is left where it is and named in notes.  Returns the number of messages.
  int Rebuild(std::vector<std::string>* notes = nullptr);

  // Headers by number, text left out.
  const std::map<int, MailMessage>& index() const { return index_; }
  const MailMessage* Find(int number) const;
  // The message received or written earlier under the same network key, or null.
  const MailMessage* FindKey(const std::string& key) const;
  // The whole message with its text; false when it has no readable file.
  bool ReadFull(int number, MailMessage& out) const;

  // Numbers m, writes its file and indexes it.  False when the file cannot be written (the
  // message is then not kept, and its number not used again).
  bool Add(MailMessage& m);
  // Reads the message, applies change (flags, forwarded-to; never the number) and writes it
  // back.  False for an unknown number or a failed write.
  bool Modify(int number, const std::function<void(MailMessage&)>& change);

  struct PurgeResult {
    int removed = 0;
    std::vector<std::string> errors;
  };
  // Removes deleted messages, and with days > 0 those older than that many days unless they
  // are kept.
  PurgeResult Purge(SysTime now, int days);

  int last_number() const { return last_number_; }
  std::filesystem::path PathOf(int number) const;

 private:
  void IndexHeader(const MailMessage& full);
  bool SaveLastNumber();

  std::filesystem::path dir_;
  std::map<int, MailMessage> index_;
  std::unordered_map<std::string, int> keys_;
  int last_number_ = 0;
};

}  // namespace qx
