#include "users/logon_messages.h"

#include "core/file_util.h"
#include "core/text_util.h"

namespace qx {
namespace {

const std::string kEmpty;

// Stored texts always end in CR LF so that they can be sent as they are.
std::string Normalise(std::string_view text) {
  std::string out;
  for (std::string_view line : SplitLines(text)) {
    out += line;
    out += "\r\n";
  }
  // Drop trailing empty lines: they are an artefact of editing, not part of the message.
  while (out.size() >= 4 && out.compare(out.size() - 4, 4, "\r\n\r\n") == 0)
    out.resize(out.size() - 2);
  if (out == "\r\n") out.clear();
  return out;
}

}  // namespace

const std::vector<std::string>& LogonMessages::SectionNames() {
  static const std::vector<std::string> kNames = {
      "Logon 1",      "Logon 2",      "Logon 3",      "Logon Port 0", "Logon Port 1",
      "Logon Port 2", "Logon Port 3", "Logon Port 4", "Logon Port 5", "Logon Port 6",
      "Logon Port 7", "Logon Port 8", "Logon 4",      "Log Out"};
  return kNames;
}

LogonMessages LogonMessages::Parse(std::string_view text) {
  LogonMessages m;
  std::string current;
  bool in_section = false;
  std::string body;
  auto flush = [&] {
    if (in_section) m.sections_[current] = Normalise(body);
    body.clear();
  };
  for (std::string_view line : SplitLines(text)) {
    const std::string_view t = Trim(line);
    if (t.size() > 2 && t.front() == '[' && t.back() == ']') {
      flush();
      current = std::string(t.substr(1, t.size() - 2));
      in_section = true;
      continue;
    }
    if (!in_section) continue;  // comments and anything before the first section
    body += line;
    body += "\r\n";
  }
  flush();
  return m;
}

std::string LogonMessages::Format() const {
  std::string out =
      "# Log-on messages of this node.  Each section starts with its name in brackets;\r\n"
      "# the lines below it, up to the next section, are sent as they stand.\r\n";
  for (const std::string& name : SectionNames()) {
    out += "[" + name + "]\r\n";
    out += Get(name);
  }
  return out;
}

bool LogonMessages::Load(const std::filesystem::path& path) {
  const auto text = ReadFileText(path);
  if (!text) return false;
  *this = Parse(*text);
  return true;
}

bool LogonMessages::Save(const std::filesystem::path& path) const {
  return AtomicWriteFile(path, Format());
}

const std::string& LogonMessages::Get(std::string_view section) const {
  const auto it = sections_.find(section);
  return it == sections_.end() ? kEmpty : it->second;
}

void LogonMessages::Set(std::string_view section, std::string_view text) {
  sections_[std::string(section)] = Normalise(text);
}

const std::string& LogonMessages::Port(int index) const {
  return Get("Logon Port " + std::to_string(index));
}

}  // namespace qx
