#include "console/sysop_files.h"

#include <boost/asio/ip/address.hpp>
#include <cctype>
#include <unordered_set>

#include "core/text_util.h"

namespace qx {
namespace {

// The entry a line of the file holds, or "" for a comment or a line that holds none.  The
// node's own readers take the same view (spots/bad_lists.cpp, users/access_lists.cpp).
std::string LineEntry(SysopFileKind kind, std::string_view line) {
  line = Trim(line);
  if (line.empty()) return {};
  switch (kind) {
    case SysopFileKind::kWords:
      return CollapseBlanks(ToUpper(line));
    case SysopFileKind::kAddresses: {
      if (line.front() == '#') return {};
      if (StartsWithIgnoreCase(line, "ExitAddress ")) line = Trim(line.substr(12));
      line = line.substr(0, line.find_first_of(" \t"));
      if (line.find_first_of(".:") == std::string_view::npos) return {};
      return ToUpper(line);
    }
    case SysopFileKind::kCalls:
      if (line.front() == '#') return {};
      return ToUpper(line.substr(0, line.find_first_of(" \t,^")));
  }
  return {};
}

bool HasLineBreakOrCaret(std::string_view s) {
  return s.find_first_of("\r\n^") != std::string_view::npos ||
         s.find('\0') != std::string_view::npos;
}

}  // namespace

const std::vector<SysopFile>& SysopFiles() {
  static const std::vector<SysopFile> kFiles = {
      {"BadWords", "badwords.txt", SysopFileKind::kWords, "bad words"},
      {"IpNotOk", "ipnotok.dat", SysopFileKind::kAddresses, "refused addresses"},
      {"TorList", "torlist.dat", SysopFileKind::kAddresses, "anonymity-network addresses"},
      {"SpecialCalls", "SpecialCalls.dat", SysopFileKind::kCalls, "special calls"},
  };
  return kFiles;
}

const SysopFile* FindSysopFile(std::string_view list) {
  for (const SysopFile& f : SysopFiles()) {
    if (f.list == list) return &f;
  }
  return nullptr;
}

std::vector<std::string> SysopFileEntries(SysopFileKind kind, std::string_view text) {
  std::vector<std::string> out;
  for (std::string_view line : SplitLines(text)) {
    std::string e = LineEntry(kind, line);
    if (!e.empty()) out.push_back(std::move(e));
  }
  return out;
}

CheckedEntry CheckSysopEntry(SysopFileKind kind, std::string_view typed) {
  const std::string_view t = Trim(typed);
  if (t.empty()) return {{}, "an entry cannot be empty"};
  if (HasLineBreakOrCaret(t)) return {{}, "an entry is one line without ^"};
  switch (kind) {
    case SysopFileKind::kWords: {
      // Intake compares whole words and phrases; a comment marker would never match.
      std::string e = CollapseBlanks(ToUpper(t));
      return {std::move(e), ""};
    }
    case SysopFileKind::kAddresses: {
      // Spots are refused by the spotter's exact address, so a network would never match.
      boost::system::error_code ec;
      const auto a = boost::asio::ip::make_address(std::string(t), ec);
      if (ec) return {{}, std::string(t) + " is not an IP address"};
      return {ToUpper(a.to_string()), ""};
    }
    case SysopFileKind::kCalls: {
      std::string call = ToUpper(t);
      if (call.find_first_of(" \t,") != std::string::npos) {
        return {{}, std::string(t) + " is not one call"};
      }
      // Special calls exist for calls of unusual shape, so only the characters are checked.
      for (char c : call) {
        if (!std::isalnum(static_cast<unsigned char>(c)) && c != '/' && c != '-') {
          return {{}, std::string(t) + " is not a call"};
        }
      }
      if (call.size() > 12) return {{}, std::string(t) + " is longer than a call"};
      return {std::move(call), ""};
    }
  }
  return {{}, "unknown kind of file"};
}

std::vector<std::string> SplitImport(SysopFileKind kind, std::string_view pasted) {
  std::vector<std::string> out;
  for (std::string_view line : SplitLines(pasted)) {
    line = Trim(line);
    if (line.empty() || line.front() == '#') continue;
    if (kind == SysopFileKind::kWords) {
      out.emplace_back(line);
      continue;
    }
    if (StartsWithIgnoreCase(line, "ExitNode ") || StartsWithIgnoreCase(line, "Published ") ||
        StartsWithIgnoreCase(line, "LastStatus ")) {
      continue;
    }
    if (StartsWithIgnoreCase(line, "ExitAddress ")) {
      line = Trim(line.substr(12));
      out.emplace_back(line.substr(0, line.find_first_of(" \t")));
      continue;
    }
    std::string spaced(line);
    for (char& c : spaced) {
      if (c == ',' || c == ';' || c == '\t') c = ' ';
    }
    for (std::string_view word : Split(spaced, ' ')) {
      if (!Trim(word).empty()) out.emplace_back(Trim(word));
    }
  }
  return out;
}

std::vector<std::string> SplitListItems(std::string_view pasted) {
  std::vector<std::string> out;
  for (const std::string& line : SplitImport(SysopFileKind::kWords, pasted)) {
    for (std::string_view part : Split(line, ',')) {
      if (!Trim(part).empty()) out.emplace_back(Trim(part));
    }
  }
  return out;
}

std::string AddSysopEntries(SysopFileKind kind, std::string_view text,
                            const std::vector<std::string>& candidates, ImportOutcome* outcome) {
  std::unordered_set<std::string> present;
  for (std::string& e : SysopFileEntries(kind, text)) present.insert(std::move(e));
  std::string out(text);
  if (!out.empty() && out.back() != '\n') out += "\r\n";
  for (const std::string& c : candidates) {
    CheckedEntry checked = CheckSysopEntry(kind, c);
    if (!checked.error.empty()) {
      outcome->refused.push_back(checked.error);
      continue;
    }
    if (!present.insert(checked.entry).second) {
      ++outcome->already;
      continue;
    }
    out += checked.entry;
    out += "\r\n";
    outcome->added.push_back(std::move(checked.entry));
  }
  return out;
}

std::string RemoveSysopEntry(SysopFileKind kind, std::string_view text, std::string_view entry,
                             bool* removed) {
  *removed = false;
  const std::string wanted = ToUpper(Trim(entry));
  std::string out;
  for (std::string_view line : SplitLines(text)) {
    if (!wanted.empty() && LineEntry(kind, line) == wanted) {
      *removed = true;
      continue;
    }
    out.append(line);
    out += "\r\n";
  }
  return out;
}

std::vector<std::string> FilterEntries(const std::vector<std::string>& entries,
                                       std::string_view needle) {
  const std::string_view n = Trim(needle);
  if (n.empty()) return entries;
  std::vector<std::string> out;
  for (const std::string& e : entries) {
    if (ContainsIgnoreCase(e, n)) out.push_back(e);
  }
  return out;
}

std::string SettingChangeText(std::string_view key, std::string_view old_value,
                              std::string_view new_value) {
  auto shown = [](std::string_view v) {
    return v.empty() ? std::string("(empty)") : std::string(v);
  };
  return "Sysop set " + std::string(key) + " " + shown(old_value) + " \u2192 " + shown(new_value);
}

}  // namespace qx
