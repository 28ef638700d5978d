// The Users page's view of data/user/: calls from record file names, one page of a search,
// and a record's lines as the sysop reads them.  Pure; the node lists the folder and reads
// the one file asked for, so a page of ten thousand users costs a directory listing.
#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace qx {

// The call a record file is named for: "K1ABCpP" (without ".dat") -> "K1ABC/P".  File names
// write "/" as a lower-case "p", and calls are upper case, so the mapping is exact.
std::string CallFromUserFileName(std::string_view stem);

struct CallPage {
  size_t total = 0;   // calls matching the query
  size_t offset = 0;  // where the page starts, past the end moved to the last page
  std::vector<std::string> calls;
};
// calls sorted; query matches anywhere in the call, case ignored (empty: every call).
CallPage PageOfCalls(const std::vector<std::string>& calls, std::string_view query, size_t offset,
                     size_t limit);

// A record's lines for reading: personal information under its name ("Name", "QTH", ...),
// other keys as "KEY" (or "KEY (SSID n)" for the settings of a high SSID), and the filter
// rules as typed.
struct UserRecordView {
  std::vector<std::pair<std::string, std::string>> settings;
  std::vector<std::string> filters;
  std::string last_login;
  int spots = 0;
};
UserRecordView ViewUserRecord(std::string_view text);

}  // namespace qx
