// The node-wide lists that log-in consults: special calls (valid whatever their shape),
// locked-out calls, and the password list.
//
// data/files/SpecialCalls.dat: one call per line; further columns after a blank, "," or "^"
// are kept for the skimmer stage and ignored here.
// data/files/passwords.dat: one row per line, "CALL^password^level"; "#" starts a comment.
// A call on this list must give its password at log-in; the level is the privilege the
// stream gets (1 and above may use sysop commands).  Three wrong passwords close the stream.
#pragma once

#include <filesystem>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

namespace qx {

struct PasswordRow {
  std::string call;
  std::string password;
  int level = 0;
};

class AccessLists {
 public:
  static std::unordered_set<std::string> ParseSpecialCalls(std::string_view text);
  static std::vector<PasswordRow> ParsePasswords(std::string_view text);
  // The password file's text with the row of call (upper-cased) set to password and level:
  // replaced where it stood, else appended.  Comments and other rows are kept.
  static std::string SetPasswordRow(std::string_view text, std::string_view call,
                                    std::string_view password, int level);
  // The text without the rows of call; *removed says whether there was one.
  static std::string RemovePasswordRows(std::string_view text, std::string_view call,
                                        bool* removed);

  // Loads both files from data/files/; a missing file is an empty list.
  void LoadFiles(const std::filesystem::path& files_dir);

  // The call, or its base call, is on the password list.
  bool NeedsPassword(std::string_view call) const;
  // The row whose call and password equal call and typed exactly, or nullptr.
  const PasswordRow* CheckPassword(std::string_view call, std::string_view typed) const;
  bool IsLockedOut(std::string_view call) const;

  std::unordered_set<std::string> special_calls;  // upper case
  std::unordered_set<std::string> locked_out;     // base calls, upper case
  std::vector<PasswordRow> passwords;
};

}  // namespace qx
