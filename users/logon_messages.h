// The log-on messages the sysop edits: a plain text file data/files/logon.txt in sections.
// A section starts with its name in brackets on a line of its own ("[Logon 1]"); the lines
// up to the next section are its text.  Sections: "Logon 1" to "Logon 4", "Logon Port 0" to
// "Logon Port 8" and "Log Out".  Lines starting with "#" outside a section are comments.
#pragma once

#include <filesystem>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace qx {

class LogonMessages {
 public:
  // The section names in file order.
  static const std::vector<std::string>& SectionNames();

  static LogonMessages Parse(std::string_view text);
  std::string Format() const;

  bool Load(const std::filesystem::path& path);
  bool Save(const std::filesystem::path& path) const;

  // The text of a section, lines joined by CR LF and ending in CR LF ("" when empty).
  const std::string& Get(std::string_view section) const;
  void Set(std::string_view section, std::string_view text);
  // "Logon Port " + index.
  const std::string& Port(int index) const;

 private:
  std::map<std::string, std::string, std::less<>> sections_;
};

}  // namespace qx
