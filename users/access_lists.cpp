#include "users/access_lists.h"

#include "core/file_util.h"
#include "core/text_util.h"
#include "spots/call_sign.h"

namespace qx {

std::unordered_set<std::string> AccessLists::ParseSpecialCalls(std::string_view text) {
  std::unordered_set<std::string> out;
  for (std::string_view line : SplitLines(text)) {
    line = Trim(line);
    if (line.empty() || line.front() == '#') continue;
    const size_t end = line.find_first_of(" \t,^");
    out.insert(ToUpper(line.substr(0, end)));
  }
  return out;
}

std::vector<PasswordRow> AccessLists::ParsePasswords(std::string_view text) {
  std::vector<PasswordRow> out;
  for (std::string_view line : SplitLines(text)) {
    if (Trim(line).empty() || Trim(line).front() == '#') continue;
    const auto f = Split(line, '^');
    if (f.size() < 2) continue;
    PasswordRow row{ToUpper(Trim(f[0])), std::string(f[1]), f.size() > 2 ? ParseIntOr(f[2], 0) : 0};
    out.push_back(std::move(row));
  }
  return out;
}

namespace {

// The call of a row, upper case; "" for comments and blank lines.
std::string RowCall(std::string_view line) {
  const std::string_view t = Trim(line);
  if (t.empty() || t.front() == '#') return {};
  return ToUpper(Trim(t.substr(0, t.find('^'))));
}

}  // namespace

std::string AccessLists::SetPasswordRow(std::string_view text, std::string_view call,
                                        std::string_view password, int level) {
  const std::string upper = ToUpper(Trim(call));
  const std::string row = upper + "^" + std::string(password) + "^" + std::to_string(level);
  std::string out;
  bool placed = false;
  for (std::string_view line : SplitLines(text)) {
    if (RowCall(line) == upper) {
      if (placed) continue;  // a second row of the same call would never be read
      out += row;
      placed = true;
    } else {
      out.append(line);
    }
    out += "\r\n";
  }
  if (!placed) out += row + "\r\n";
  return out;
}

std::string AccessLists::RemovePasswordRows(std::string_view text, std::string_view call,
                                            bool* removed) {
  const std::string upper = ToUpper(Trim(call));
  *removed = false;
  std::string out;
  for (std::string_view line : SplitLines(text)) {
    if (!upper.empty() && RowCall(line) == upper) {
      *removed = true;
      continue;
    }
    out.append(line);
    out += "\r\n";
  }
  return out;
}

void AccessLists::LoadFiles(const std::filesystem::path& files_dir) {
  special_calls.clear();
  passwords.clear();
  if (const auto t = ReadFileText(files_dir / "SpecialCalls.dat")) {
    special_calls = ParseSpecialCalls(*t);
  }
  if (const auto t = ReadFileText(files_dir / "passwords.dat")) passwords = ParsePasswords(*t);
}

bool AccessLists::NeedsPassword(std::string_view call) const {
  const std::string_view base = BaseCall(call);
  for (const PasswordRow& row : passwords) {
    if (row.call == call || row.call == base) return true;
  }
  return false;
}

const PasswordRow* AccessLists::CheckPassword(std::string_view call, std::string_view typed) const {
  for (const PasswordRow& row : passwords) {
    if (row.call == call && row.password == typed) return &row;
  }
  // A row written for the base call serves every SSID of it.
  const std::string_view base = BaseCall(call);
  for (const PasswordRow& row : passwords) {
    if (row.call == base && row.password == typed) return &row;
  }
  return nullptr;
}

bool AccessLists::IsLockedOut(std::string_view call) const {
  return qx::IsLockedOut(call, locked_out);
}

}  // namespace qx
