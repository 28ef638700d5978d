// The sysop's plain files under data/files/ as the console edits them: bad words
// (badwords.txt), refused addresses (ipnotok.dat), anonymity-network exit addresses
// (torlist.dat) and special calls (SpecialCalls.dat).  Pure text handling: what an entry of
// each file is, whether a typed entry is acceptable, and the file's text after an addition or
// a removal.  Edits work on the text line by line so that comments and further columns the
// sysop wrote by hand survive them.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace qx {

enum class SysopFileKind {
  kWords,      // one word or phrase a line (a phrase holds blanks)
  kAddresses,  // one address or network a line; "#" comments; "ExitAddress <ip> ..." lines
  kCalls,      // one call a line; columns after a blank, "," or "^" belong to other stages
};

struct SysopFile {
  std::string_view list;  // the name the console shows: "BadWords", "IpNotOk", ...
  std::string_view file;  // under data/files/
  SysopFileKind kind;
  std::string_view title;  // in words, for the audit lines: "bad words", ...
};

// The files in the order the console lists them.
const std::vector<SysopFile>& SysopFiles();
// Null for a name that is not one of them.
const SysopFile* FindSysopFile(std::string_view list);

// The entries of a file's text, in file order, upper case (the node compares in upper case).
std::vector<std::string> SysopFileEntries(SysopFileKind kind, std::string_view text);

// The entry as the file keeps it (upper case, trimmed), or an error for the sysop: an address
// list entry must be an address or network, a call must look like one, nothing may hold a
// line end or "^".
struct CheckedEntry {
  std::string entry;
  std::string error;  // empty when acceptable
};
CheckedEntry CheckSysopEntry(SysopFileKind kind, std::string_view typed);

// The candidate entries of a pasted list or a downloaded exit list: one a line; for addresses
// and calls also separated by blanks and commas; "#" lines and the other lines of a published
// exit list ("ExitNode", "Published", "LastStatus") are skipped.
std::vector<std::string> SplitImport(SysopFileKind kind, std::string_view pasted);

// The items of a list pasted for one of the configuration's lists: one a line or separated by
// commas; blanks stay inside an item ("GB7AAA DXS" names a node and its type).
std::vector<std::string> SplitListItems(std::string_view pasted);

// What an import did.
struct ImportOutcome {
  std::vector<std::string> added;
  size_t already = 0;                // entries the file held already (or repeated in the paste)
  std::vector<std::string> refused;  // "entry: why"
};

// The file's text with the acceptable, new candidates appended, one a line, CR LF.
std::string AddSysopEntries(SysopFileKind kind, std::string_view text,
                            const std::vector<std::string>& candidates, ImportOutcome* outcome);
// The file's text without the lines whose entry equals entry (case ignored); *removed says
// whether there was one.
std::string RemoveSysopEntry(SysopFileKind kind, std::string_view text, std::string_view entry,
                             bool* removed);

// Entries containing needle (case ignored), for the console's search box on long lists.
std::vector<std::string> FilterEntries(const std::vector<std::string>& entries,
                                       std::string_view needle);

// The audit line of one changed setting: "Sysop set Connection Retry 60 → 120"; an empty
// value reads "(empty)".
std::string SettingChangeText(std::string_view key, std::string_view old_value,
                              std::string_view new_value);

}  // namespace qx
