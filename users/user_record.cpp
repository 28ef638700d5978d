#include "users/user_record.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <limits>
#include <optional>
#include <system_error>
#include <vector>

#include "core/file_util.h"
#include "core/stream_table.h"
#include "core/text_util.h"
#include "spots/call_sign.h"

namespace qx {
namespace {

constexpr std::string_view kPc41 = "PC41";

// The set field of a line: empty counts as set 0, junk as no set at all.
int LineSet(std::string_view field) {
  field = Trim(field);
  if (field.empty()) return 0;
  long long n = 0;
  if (!ParseInt(field, n) || n < 0 || n > std::numeric_limits<int>::max()) return -1;
  return int(n);
}

bool ParseUint32(std::string_view text, uint32_t& out) {
  long long n = 0;
  if (!ParseInt(Trim(text), n)) return false;
  // Older records hold the switch word as a signed 32-bit number.
  if (n < std::numeric_limits<int32_t>::min() || n > std::numeric_limits<uint32_t>::max()) {
    return false;
  }
  out = uint32_t(n);
  return true;
}

// The value after the key's n-th caret (n = 2 for three-field lines), carets included.
std::string_view After(std::string_view line, int carets) {
  size_t pos = 0;
  for (int i = 0; i < carets; ++i) {
    pos = line.find('^', pos);
    if (pos == std::string_view::npos) return {};
    ++pos;
  }
  return line.substr(pos);
}

// Values are stored on one line; quotation marks would vanish on the next read anyway.
std::string CleanValue(std::string_view value, bool allow_caret) {
  std::string out;
  out.reserve(value.size());
  for (char c : value) {
    if (c == '"' || c == '\r' || c == '\n' || (!allow_caret && c == '^')) continue;
    out += c;
  }
  return out;
}

void ApplyPc41(int type, std::string_view value, SessionSettings& s) {
  switch (type) {
    case 1:
      s.name = std::string(value);
      break;
    case 2:
      s.qth = std::string(value);
      break;
    case 3: {
      std::string upper = ToUpper(value);
      double lat = 0, lon = 0;
      if (ParseLocation(upper, lat, lon)) s.location = std::move(upper);
      break;
    }
    case 4:
      s.home_node = std::string(value);
      break;
    case 5:
      s.grid = std::string(value);
      break;
    default:
      break;
  }
}

// Rebuilds the record text: a line for which `matches` holds is replaced by new_line (once;
// later duplicates are dropped), every other non-blank line is kept as it stands.  new_line
// may hold several lines joined by CR LF, or none at all (the matching lines just go).
template <typename Match>
std::string RebuildRecord(std::string_view text, const Match& matches, std::string_view new_line) {
  std::string out;
  out.reserve(text.size() + new_line.size() + 2);
  bool placed = false;
  for (std::string_view line : SplitLines(text)) {
    if (Trim(line).empty()) continue;
    if (matches(line)) {
      if (placed) continue;
      line = new_line;
      placed = true;
      if (line.empty()) continue;
    }
    out += line;
    out += "\r\n";
  }
  if (!placed && !new_line.empty()) {
    out += new_line;
    out += "\r\n";
  }
  return out;
}

std::string_view LineKey(std::string_view line) { return line.substr(0, line.find('^')); }

std::string_view Field(std::string_view line, int index) {
  std::string_view rest = After(line, index);
  if (index > 0 && rest.data() == nullptr) return {};
  return rest.substr(0, rest.find('^'));
}

bool ValidKey(std::string_view key) {
  return !key.empty() && key.find_first_of("^\r\n\" ") == std::string_view::npos;
}

}  // namespace

UserKind UserKindFromCode(std::string_view code) {
  const std::string c = ToUpper(Trim(code));
  if (c == "QXC" || c == "DXS" || c == "ARC" || c == "SUM") return UserKind::kNode;
  if (c == "SKM") return UserKind::kSkimmer;
  if (c == "RBN") return UserKind::kRbn;
  if (c == "FT8") return UserKind::kFt8;
  return UserKind::kUser;
}

SessionSettings KindDefaults(UserKind kind) {
  SessionSettings s;
  switch (kind) {
    case UserKind::kUser:
      break;
    case UserKind::kNode:
      s.Set(kSwFilters, false);
      s.Set(kSwBeep, false);
      s.Set(kSwLogin, false);
      s.dxbm = kWideDxbmMask;
      s.dxbm2 = kWideDxbmMask2;
      break;
    case UserKind::kSkimmer:
    case UserKind::kRbn:
    case UserKind::kFt8:
      s.switches = 0;
      s.dxbm = 0;
      s.dxbm2 = 0;
      break;
  }
  return s;
}

std::string_view DisplayName(const SessionSettings& s) {
  return s.name.empty() ? std::string_view("Unknown Name") : std::string_view(s.name);
}

bool ParseLocation(std::string_view text, double& lat, double& lon) {
  std::vector<std::string_view> tokens;
  for (std::string_view t : Split(Trim(text), ' ')) {
    if (!t.empty()) tokens.push_back(t);
  }
  if (tokens.size() != 6) return false;
  auto angle = [](std::string_view deg_text, std::string_view min_text, int max_deg, double& out) {
    long long deg = 0;
    double min = 0;
    if (!ParseInt(deg_text, deg) || deg < 0 || deg > max_deg) return false;
    if (!ParseDouble(min_text, min) || !(min >= 0) || min >= 60) return false;
    out = double(deg) + min / 60.0;
    return out <= max_deg;
  };
  double la = 0, lo = 0;
  if (!angle(tokens[0], tokens[1], 90, la) || !angle(tokens[3], tokens[4], 180, lo)) {
    return false;
  }
  if (tokens[2].size() != 1 || tokens[5].size() != 1) return false;
  const char ns = char(std::toupper(static_cast<unsigned char>(tokens[2][0])));
  const char ew = char(std::toupper(static_cast<unsigned char>(tokens[5][0])));
  if ((ns != 'N' && ns != 'S') || (ew != 'E' && ew != 'W')) return false;
  lat = ns == 'S' ? -la : la;
  lon = ew == 'W' ? -lo : lo;
  return true;
}

std::string UserFileName(std::string_view call) {
  call = Trim(call);
  std::string name(call.substr(0, call.find('-')));
  for (char& c : name) {
    if (c == '/') c = 'p';
  }
  // Anything else that could leave data/user/ or confuse a file system is refused.
  for (char c : name) {
    if (c == '\\' || c == '^' || static_cast<unsigned char>(c) < 0x21) return {};
  }
  if (name == "." || name == "..") return {};
  return name;
}

int SettingsSet(std::string_view call) {
  const size_t dash = call.find('-');
  if (dash == std::string_view::npos) return 0;
  long long ssid = 0;
  if (!ParseInt(Trim(call.substr(dash + 1)), ssid)) return 0;
  return ssid >= 16 && ssid <= std::numeric_limits<int>::max() ? int(ssid) : 0;
}

void ApplyUserRecord(std::string_view text, int set, SessionSettings& s) {
  std::string clean;
  clean.reserve(text.size());
  for (char c : text) {
    if (c != '"') clean += c;
  }
  for (std::string_view line : SplitLines(clean)) {
    const std::string_view key = LineKey(line);
    if (key.size() == line.size()) continue;  // no caret: not a record line
    if (key == kPc41) {
      long long type = 0;
      if (!ParseInt(Trim(Field(line, 2)), type)) continue;
      ApplyPc41(int(type), Field(line, 3), s);
      continue;
    }
    // Log-in and spot counts describe the person, not a settings set: always set 0.
    if (key == "LASTLOGIN") {
      s.last_login = std::string(Trim(After(line, 2)));
      continue;
    }
    if (key == "SPOTS") {
      s.spots_posted = std::max(0, ParseIntOr(Trim(After(line, 2)), 0));
      continue;
    }
    if (LineSet(Field(line, 1)) != set) continue;
    const std::string_view value = After(line, 2);
    if (key == "WIDTH") {
      const int width = ParseIntOr(Trim(value), 0);
      s.width = width > 0 ? width : kDefaultWidth;
    } else if (key == "SETTINGS") {
      uint32_t word = 0;
      if (ParseUint32(value, word)) s.switches = word;
    } else if (key == "DXBM") {
      const size_t slash = value.find('/');
      uint32_t mask = 0, mask2 = 0;
      if (slash != std::string_view::npos && ParseUint32(value.substr(0, slash), mask) &&
          ParseUint32(value.substr(slash + 1), mask2)) {
        if (mask == 0 && mask2 == 0) {
          mask = kWideDxbmMask;
          mask2 = kWideDxbmMask2;
        }
        s.dxbm = mask;
        s.dxbm2 = mask2;
      }
    } else if (key == "FILTER") {
      s.filter_lines.emplace_back(value);
    } else if (key == "MAILNUMBER") {
      s.mail_number = ParseIntOr(Trim(value), 0);
    } else if (key == "RESOLUTION") {
      const int r = ParseIntOr(Trim(value), 1);
      s.resolution = r == 2 ? 2 : 1;
    } else if (key == "PROMPT") {
      s.prompt_form = std::string(value);
    }
  }
}

std::string ReplaceRecordLine(std::string_view text, std::string_view key, int set,
                              std::string_view value) {
  std::string new_line(key);
  new_line += '^';
  new_line += std::to_string(set);
  new_line += '^';
  new_line += value;
  const auto matches = [&](std::string_view line) {
    return LineKey(line) == key && LineSet(Field(line, 1)) == set;
  };
  return RebuildRecord(text, matches, new_line);
}

std::string ReplaceRecordLines(std::string_view text, std::string_view key, int set,
                               const std::vector<std::string>& values) {
  std::string lines;
  for (const std::string& v : values) {
    if (!lines.empty()) lines += "\r\n";
    lines += key;
    lines += '^';
    lines += std::to_string(set);
    lines += '^';
    lines += v;
  }
  const auto matches = [&](std::string_view line) {
    return LineKey(line) == key && LineSet(Field(line, 1)) == set;
  };
  return RebuildRecord(text, matches, lines);
}

std::string ReplacePc41Line(std::string_view text, int type, std::string_view value) {
  std::string new_line = "PC41^0^";
  new_line += std::to_string(type);
  new_line += '^';
  new_line += value;
  const auto matches = [&](std::string_view line) {
    return LineKey(line) == kPc41 && ParseIntOr(Trim(Field(line, 2)), -1) == type;
  };
  return RebuildRecord(text, matches, new_line);
}

std::string PersonalValue(std::string_view typed) {
  std::string value(typed);
  std::replace(value.begin(), value.end(), '^', '~');
  return value;
}

std::string LocalPc41(std::string_view call, int type, std::string_view value) {
  std::string line = "PC41^";
  line += call;
  line += '^';
  line += std::to_string(type);
  line += '^';
  line += value;
  line += "^H99^~\r\n";
  return line;
}

UserStore::UserStore(ProgramDir dir) : dir_(std::move(dir)) {}

std::filesystem::path UserStore::LocalPath(std::string_view call) const {
  const std::string name = UserFileName(call);
  return name.empty() ? std::filesystem::path() : dir_.Data("user") / (name + ".dat");
}

std::filesystem::path UserStore::RemotePath(std::string_view call) const {
  const std::string name = UserFileName(call);
  return name.empty() ? std::filesystem::path() : dir_.Data("userRemote") / (name + ".dat");
}

void UserStore::MergeUnwritten(std::string_view call, SessionSettings& s) const {
  const auto it = unwritten_.find(ToUpper(BaseCall(call)));
  if (it == unwritten_.end()) return;
  if (it->second.last_login) s.last_login = *it->second.last_login;
  if (it->second.spots) s.spots_posted = *it->second.spots;
}

UserRecordLoad UserStore::Load(std::string_view call, int stream_state,
                               std::string_view kind_code) const {
  UserRecordLoad result;
  result.settings = KindDefaults(UserKindFromCode(kind_code));
  const int set = SettingsSet(call);
  result.settings.settings_set = set;

  std::optional<std::string> text;
  const std::filesystem::path local = LocalPath(call);
  if (!local.empty()) {
    std::error_code ec;
    if (std::filesystem::is_regular_file(local, ec)) {
      text = ReadFileText(local);
    } else if (const auto remote = RemotePath(call); std::filesystem::is_regular_file(remote, ec)) {
      text = ReadFileText(remote);
      result.remote = text.has_value();
    }
  }
  result.existed = text.has_value();

  if (!text || SplitLines(*text).empty()) {
    // A new user gets the user defaults whatever the kind code said about the masks.
    if (stream_state >= 0 && stream_state <= kStateTimedOut) {
      result.settings.dxbm = kDefaultDxbmMask;
      result.settings.dxbm2 = kDefaultDxbmMask2;
      result.settings.name.clear();
    }
    MergeUnwritten(call, result.settings);
    return result;
  }
  ApplyUserRecord(*text, set, result.settings);
  MergeUnwritten(call, result.settings);
  return result;
}

bool UserStore::Rewrite(const std::filesystem::path& target, const std::filesystem::path& seed,
                        std::string_view key, int set_or_type, std::string_view value, bool pc41) {
  return RewriteWith(target, seed, [&](std::string_view base) {
    return pc41 ? ReplacePc41Line(base, set_or_type, value)
                : ReplaceRecordLine(base, key, set_or_type, value);
  });
}

bool UserStore::RewriteWith(const std::filesystem::path& target, const std::filesystem::path& seed,
                            const std::function<std::string(std::string_view)>& change) {
  if (target.empty()) return false;
  std::error_code ec;
  std::filesystem::create_directories(target.parent_path(), ec);
  std::optional<std::string> old = ReadFileText(target);
  if (!old && !seed.empty()) old = ReadFileText(seed);
  return AtomicWriteFile(target, change(old ? std::string_view(*old) : std::string_view()));
}

bool UserStore::SaveLines(std::string_view call, std::string_view key,
                          const std::vector<std::string>& values) {
  const std::string upper_key = ToUpper(Trim(key));
  if (!ValidKey(upper_key) || upper_key == kPc41) return false;
  std::vector<std::string> clean;
  clean.reserve(values.size());
  for (const std::string& v : values) clean.push_back(CleanValue(v, /*allow_caret=*/true));
  return RewriteWith(LocalPath(call), RemotePath(call), [&](std::string_view base) {
    return ReplaceRecordLines(base, upper_key, SettingsSet(call), clean);
  });
}

bool UserStore::Save(std::string_view call, std::string_view key, std::string_view value) {
  const std::string upper_key = ToUpper(Trim(key));
  if (!ValidKey(upper_key) || upper_key == kPc41) return false;
  // FILTER lines carry further fields after the set; the other keys hold one value.
  const bool allow_caret = upper_key == "FILTER";
  return Rewrite(LocalPath(call), RemotePath(call), upper_key, SettingsSet(call),
                 CleanValue(value, allow_caret), false);
}

void UserStore::NoteLogin(std::string_view call, std::string_view when) {
  const std::string base = ToUpper(BaseCall(call));
  if (!LocalPath(base).empty()) unwritten_[base].last_login = CleanValue(when, false);
}

int UserStore::CountSpot(std::string_view call) {
  const std::string base = ToUpper(BaseCall(call));
  if (LocalPath(base).empty()) return 0;
  const int count = Load(base, kStateUser).settings.spots_posted + 1;
  unwritten_[base].spots = count;
  return count;
}

size_t UserStore::WriteBookkeeping() {
  size_t written = 0;
  for (const auto& entry : unwritten_) {
    const std::string& base = entry.first;
    const Bookkeeping& b = entry.second;  // a named reference: lambdas cannot take bindings
    const bool ok = RewriteWith(LocalPath(base), RemotePath(base), [&](std::string_view text) {
      std::string out(text);
      if (b.last_login) out = ReplaceRecordLines(out, "LASTLOGIN", 0, {*b.last_login});
      if (b.spots) out = ReplaceRecordLines(out, "SPOTS", 0, {std::to_string(*b.spots)});
      return out;
    });
    if (ok) ++written;
  }
  unwritten_.clear();
  return written;
}

bool UserStore::SavePersonal(std::string_view call, int type, std::string_view value) {
  if (type < 1 || type > 5) return false;
  std::string clean = CleanValue(Trim(value), false);
  if (type == 3) {
    ToUpperInPlace(clean);
    double lat = 0, lon = 0;
    if (!ParseLocation(clean, lat, lon)) return false;
  }
  return Rewrite(LocalPath(call), RemotePath(call), kPc41, type, clean, true);
}

bool UserStore::StorePc41(std::string_view file_call, std::string_view sentence, bool remote) {
  sentence = Trim(sentence);
  if (sentence.substr(0, 6) == "PC41^^") sentence.remove_prefix(6);
  const std::vector<std::string_view> fields = Split(sentence, '^');
  if (fields.size() < 4 || fields[0] != kPc41) return false;
  long long type = 0;
  if (!ParseInt(Trim(fields[2]), type) || type < 1 || type > 5) return false;
  const std::string value = CleanValue(fields[3], false);
  if (Trim(value).empty()) return false;

  const std::string_view call = file_call.empty() ? fields[1] : file_call;
  const std::filesystem::path local = LocalPath(call);
  if (local.empty()) return false;
  std::error_code ec;
  // A user who has a record here made their own choices here: the network's name, QTH and
  // location for them are filed beside it, never over it.
  const bool local_choice = type >= 1 && type <= 3;
  const bool use_remote = remote && (local_choice || !std::filesystem::exists(local, ec));
  return Rewrite(use_remote ? RemotePath(call) : local, {}, kPc41, int(type), value, true);
}

}  // namespace qx
