#include "users/command_interpreter.h"

#include <fmt/format.h>

#include <array>
#include <cstdint>
#include <ctime>

#include "core/text_util.h"
#include "spots/call_sign.h"
#include "spots/spot_line.h"
#include "users/filter_book.h"
#include "users/user_record.h"

namespace qx {
namespace {

// The switches of the extra columns behind the time of a spot line.
constexpr uint32_t kColumnSwitches =
    kSwGridSquare | kSwDxsQth | kSwDxsCty | kSwDxCq | kSwDxItu | kSwDxGrid | kSwUsState;

constexpr std::string_view kFiltersOffNote =
    "Filters are off for you: SET/FILTERS uses them again.";

// Splits off the first word: on "/" when a "/" comes before the first blank, else on a blank.
void SplitFirstWord(std::string_view line, std::string_view& word, std::string_view& rest) {
  const size_t blank = line.find(' ');
  const size_t slash = line.find('/');
  size_t cut = blank;
  if (slash != std::string_view::npos && (blank == std::string_view::npos || slash < blank)) {
    cut = slash;
  }
  if (cut == std::string_view::npos) {
    word = line;
    rest = {};
  } else {
    word = line.substr(0, cut);
    rest = Trim(line.substr(cut + 1));
  }
}

// The first word of rest split on blanks or "/", and what follows it.
void SplitArg(std::string_view rest, std::string_view& arg, std::string_view& tail) {
  const size_t cut = rest.find_first_of(" /");
  if (cut == std::string_view::npos) {
    arg = rest;
    tail = {};
  } else {
    arg = rest.substr(0, cut);
    tail = Trim(rest.substr(cut + 1));
  }
}

// The mail keyword a typed word stands for, in the order of the command tables (READ before
// REPLY, so "R" reads; SP before SEND).
std::string_view MailVerb(std::string_view word) {
  static constexpr struct {
    std::string_view keyword;
    int min;
  } kVerbs[] = {{"READ", 1}, {"KILL", 1},      {"DELETE", 3}, {"REPLY", 1}, {"SP", 2},
                {"SEND", 1}, {"DIRECTORY", 1}, {"LIST", 1},   {"PURGE", 5}, {"INITITIALISE", 4}};
  for (const auto& v : kVerbs) {
    if (MatchAbbrev(v.keyword, v.min, word)) return v.keyword;
  }
  return {};
}

enum class SetKind : uint8_t {
  kSwitchOn,
  kSwitchOff,
  kContest,
  kDxbm,
  kFiltersOn,
  kNoFilters,
  kResolution,
  kWidth,
  kEcho,
  kPage,
  kHomeNode,
  kDxArpc,
  kPrompt,
  kNode,
  kLang,
  kGrid,
  kName,
  kQth,
  kLocation,
  kListAdd,
  kListRemove,
  kStateAdd,
};

struct SetEntry {
  std::string_view keyword;
  size_t min_len;  // 0: the whole keyword
  SetKind kind;
  uint32_t bit = 0;
  std::string_view reply = {};
  std::string_view list = {};  // for the sysop's list commands
};

// The SET/ keywords in the order they are tried.  Several negative keywords are spelt
// unusually ("NOCWPOTS", "NORTTYPOTS"); users and scripts know them so, and they stay.
constexpr SetEntry kSetTable[] = {
    {"CONTEST", 7, SetKind::kContest},
    {"DXBM", 4, SetKind::kDxbm},
    {"DXBANDMODE", 3, SetKind::kDxbm},
    {"FILTERS", 3, SetKind::kFiltersOn, kSwFilters, "Filters enabled"},
    {"NOFILTERS", 6, SetKind::kNoFilters},
    {"RESOLUTION", 3, SetKind::kResolution},
    {"WIDTH", 3, SetKind::kWidth},
    {"XX0QX", 0, SetKind::kSwitchOn, kSwEnhanced, "Enhanced Spots Enabled"},
    {"NOXX0QX", 0, SetKind::kSwitchOff, kSwEnhanced, "Enhanced Spots Disabled"},
    {"DX_ANNOUNCEMENTS", 2, SetKind::kSwitchOn, kSwDxSpots, "DX spots enabled"},
    {"NODX_ANNOUNCEMENTS", 4, SetKind::kSwitchOff, kSwDxSpots, "DX spots disabled"},
    {"DX_BOB_ANNOUNCEMENTS", 6, SetKind::kSwitchOn, kSwBottomOfBand,
     "DX Bottom of Band spots/announcements enabled"},
    {"BOB", 0, SetKind::kSwitchOn, kSwBottomOfBand,
     "DX Bottom of Band spots/announcements enabled"},
    {"NODX_BOB_ANNOUNCEMENTS", 8, SetKind::kSwitchOff, kSwBottomOfBand,
     "DX Bottom of Band spots/announcements disabled"},
    {"NOBOB", 0, SetKind::kSwitchOff, kSwBottomOfBand,
     "DX Bottom of Band spots/announcements disabled"},
    {"ANNOUNCEMENTS", 3, SetKind::kSwitchOn, kSwAnnouncements, "Announcements enabled"},
    {"NOANNOUNCEMENTS", 5, SetKind::kSwitchOff, kSwAnnouncements, "Announcements disabled"},
    {"WWV", 0, SetKind::kSwitchOn, kSwWwv, "WWV spots enabled"},
    {"NOWWV", 0, SetKind::kSwitchOff, kSwWwv, "WWV spots disabled"},
    {"WCY", 0, SetKind::kSwitchOn, kSwWcy, "WCY spots enabled"},
    {"NOWCY", 0, SetKind::kSwitchOff, kSwWcy, "WCY spots disabled"},
    {"WX", 0, SetKind::kSwitchOn, kSwWx, "Wx announcements enabled"},
    {"NOWX", 0, SetKind::kSwitchOff, kSwWx, "Wx announcements disabled"},
    {"TALK", 0, SetKind::kSwitchOn, kSwTalk, "Talk enabled"},
    {"NOTALK", 0, SetKind::kSwitchOff, kSwTalk, "Talk disabled"},
    {"BEEP", 0, SetKind::kSwitchOn, kSwBeep, "Beep enabled"},
    {"NOBEEP", 0, SetKind::kSwitchOff, kSwBeep, "Beep disabled"},
    {"DXCQ", 0, SetKind::kSwitchOn, kSwDxCq, "DX CQ zone enabled"},
    {"NODXCQ", 0, SetKind::kSwitchOff, kSwDxCq, "DX CQ zone disabled"},
    {"DXITU", 0, SetKind::kSwitchOn, kSwDxItu, "DX ITU zone enabled"},
    {"NODXITU", 0, SetKind::kSwitchOff, kSwDxItu, "DX ITU zone disabled"},
    {"DXGRID", 0, SetKind::kSwitchOn, kSwDxGrid, "DX grid enabled"},
    {"NODXGRID", 0, SetKind::kSwitchOff, kSwDxGrid, "DX grid disabled"},
    {"USSTATE", 0, SetKind::kSwitchOn, kSwUsState, "US state enabled"},
    {"NOUSSTATE", 0, SetKind::kSwitchOff, kSwUsState, "US state disabled"},
    {"DXSQTH", 6, SetKind::kSwitchOn, kSwDxsQth, "DX country enabled"},
    {"DXSCTY", 6, SetKind::kSwitchOn, kSwDxsCty, "Cty enabled"},
    {"NODXSCTY", 8, SetKind::kSwitchOff, kSwDxsCty,
     "DX spotter state or province or country disabled"},
    {"NODXSQTH", 5, SetKind::kSwitchOff, kSwDxsQth, "DX spotter location disabled"},
    {"SELFSPOTS", 4, SetKind::kSwitchOn, kSwSelfSpots, "Self spots enabled"},
    {"NOSELFSPOTS", 4, SetKind::kSwitchOff, kSwSelfSpots, "Self spots disabled"},
    {"BEACONSPOTS", 3, SetKind::kSwitchOn, kSwBeaconSpots, "Beacon spots enabled"},
    {"NOBEACONSPOTS", 5, SetKind::kSwitchOff, kSwBeaconSpots, "Beacon spots disabled"},
    {"CWSPOTS", 2, SetKind::kSwitchOn, kSwCwSpots, "CW spots enabled"},
    {"NOCWPOTS", 4, SetKind::kSwitchOff, kSwCwSpots, "CW spots disabled"},
    {"FT4SPOTS", 3, SetKind::kSwitchOn, kSwFt4Spots, "FT4 spots enabled"},
    {"NOFT4SPOTS", 5, SetKind::kSwitchOff, kSwFt4Spots, "FT4 spots disabled"},
    {"FT8SPOTS", 3, SetKind::kSwitchOn, kSwFt8Spots, "FT8 spots enabled"},
    {"NOFT8SPOTS", 5, SetKind::kSwitchOff, kSwFt8Spots, "FT8 spots disabled"},
    {"MSKSPOTS", 3, SetKind::kSwitchOn, kSwMskSpots, "MSK144 spots enabled"},
    {"NOMSKSPOTS", 5, SetKind::kSwitchOff, kSwMskSpots, "MSK144 spots disabled"},
    {"MSK144", 3, SetKind::kSwitchOn, kSwMskSpots, "MSK144 spots enabled"},
    {"NOMSK144", 5, SetKind::kSwitchOff, kSwMskSpots, "MSK144 spots disabled"},
    {"PSKSPOTS", 3, SetKind::kSwitchOn, kSwPskSpots, "PSK spots enabled"},
    {"NOPSKSPOTS", 5, SetKind::kSwitchOff, kSwPskSpots, "PSK spots disabled"},
    {"RTTYSPOTS", 4, SetKind::kSwitchOn, kSwRttySpots, "RTTY spots enabled"},
    {"NORTTYPOTS", 4, SetKind::kSwitchOff, kSwRttySpots, "RTTY spots disabled"},
    {"SKIMMERSPOTS", 3, SetKind::kSwitchOn, kSwSkimmerSpots, "Skimmer spots enabled"},
    {"NOSKIMMERSPOTS", 5, SetKind::kSwitchOff, kSwSkimmerSpots, "Skimmer spots disabled"},
    {"SKIMMERDUPES", 11, SetKind::kSwitchOn, kSwSkimmerDupes, "Skimmer dupes enabled"},
    {"NOSKIMMERDUPES", 13, SetKind::kSwitchOff, kSwSkimmerDupes, "Skimmer dupes disabled"},
    {"OWN", 3, SetKind::kSwitchOn, kSwOwnSkimmer, "Skimmer own spots enabled"},
    {"NOOWN", 5, SetKind::kSwitchOff, kSwOwnSkimmer, "Skimmer own spots disabled"},
    {"PSKR", 4, SetKind::kSwitchOn, kSwPskReporter, "PSKReporter spots enabled"},
    {"NOPSKR", 6, SetKind::kSwitchOff, kSwPskReporter, "PSKReporter spots disabled"},
    {"LOGIN", 0, SetKind::kSwitchOn, kSwLogin, "Login announcements enabled"},
    {"NOLOGIN", 0, SetKind::kSwitchOff, kSwLogin, "Login announcements disabled"},
    {"ECHO", 0, SetKind::kEcho},
    {"NOECHO", 0, SetKind::kEcho},
    {"PAGE", 0, SetKind::kPage},
    {"HOMENODE", 4, SetKind::kHomeNode},
    {"DX_ARPC", 0, SetKind::kDxArpc},
    {"PROMPT", 0, SetKind::kPrompt},
    {"NODE", 0, SetKind::kNode},
    {"LANG", 0, SetKind::kLang},
    {"QRA", 0, SetKind::kGrid},
    {"GRID", 0, SetKind::kGrid},
    {"NAME", 0, SetKind::kName},
    {"QTH", 0, SetKind::kQth},
    {"LOCATION", 3, SetKind::kLocation},
    {"ANNOK", 5, SetKind::kListAdd, 0, {}, "AnnNok"},
    {"BADANNOUNCER", 6, SetKind::kListAdd, 0, {}, "AnnNok"},
    {"NOANNOK", 5, SetKind::kListRemove, 0, {}, "AnnNok"},
    {"NOBADANNOUNCER", 8, SetKind::kListRemove, 0, {}, "AnnNok"},
    {"NODENOK", 5, SetKind::kListAdd, 0, {}, "BadNodes"},
    {"BADNODE", 6, SetKind::kListAdd, 0, {}, "BadNodes"},
    {"NONODENOK", 5, SetKind::kListRemove, 0, {}, "BadNodes"},
    {"NOBADNODE", 6, SetKind::kListRemove, 0, {}, "BadNodes"},
    {"DXNOK", 5, SetKind::kListAdd, 0, {}, "DxNok"},
    {"BADDX", 5, SetKind::kListAdd, 0, {}, "DxNok"},
    {"NODXNOK", 7, SetKind::kListRemove, 0, {}, "DxNok"},
    {"NOBADDX", 7, SetKind::kListRemove, 0, {}, "DxNok"},
    {"SPOTTERNOK", 5, SetKind::kListAdd, 0, {}, "SpotterNok"},
    {"BADSPOTTER", 10, SetKind::kListAdd, 0, {}, "SpotterNok"},
    {"NOSPOTTERNOK", 7, SetKind::kListRemove, 0, {}, "SpotterNok"},
    {"NOBADSPOTTER", 12, SetKind::kListRemove, 0, {}, "SpotterNok"},
    {"SKIMMERNOK", 5, SetKind::kListAdd, 0, {}, "SkimmerNok"},
    {"BADSKIMMER", 10, SetKind::kListAdd, 0, {}, "SkimmerNok"},
    {"NOSKIMMERNOK", 7, SetKind::kListRemove, 0, {}, "SkimmerNok"},
    {"NOBADSKIMMER", 12, SetKind::kListRemove, 0, {}, "SkimmerNok"},
    {"SKIMMERDXNOK", 12, SetKind::kListAdd, 0, {}, "SkimmerDxNok"},
    {"BADSKIMMERDX", 10, SetKind::kListAdd, 0, {}, "SkimmerDxNok"},
    {"NOSKIMMERDXNOK", 14, SetKind::kListRemove, 0, {}, "SkimmerDxNok"},
    {"NOBADSKIMMERDX", 12, SetKind::kListRemove, 0, {}, "SkimmerDxNok"},
    {"LOCALNODE", 8, SetKind::kListAdd, 0, {}, "LocalNodes"},
    {"NOLOCALNODE", 10, SetKind::kListRemove, 0, {}, "LocalNodes"},
    {"STATEADD", 8, SetKind::kStateAdd},
    {"LOCKOUTS", 8, SetKind::kListAdd, 0, {}, "LockOuts"},
    {"NOLOCKOUTS", 10, SetKind::kListRemove, 0, {}, "LockOuts"},
    {"GRIDSQUARE", 4, SetKind::kSwitchOn, kSwGridSquare, "Grid square enabled"},
    {"NOGRIDSQUARE", 6, SetKind::kSwitchOff, kSwGridSquare, "Grid square disabled"},
    {"JSON", 4, SetKind::kSwitchOn, kSwJson, "JSON output enabled"},
    {"NOJSON", 6, SetKind::kSwitchOff, kSwJson, "JSON output disabled"},
};

const SetEntry* FindSetEntry(std::string_view word) {
  for (const SetEntry& e : kSetTable) {
    const size_t min = e.min_len == 0 ? e.keyword.size() : e.min_len;
    if (MatchAbbrev(e.keyword, min, word)) return &e;
  }
  return nullptr;
}

// "Deg Min N/S Deg Min E/W", for example "49 11 N 122 30 W".
bool ValidLocation(std::string_view text) {
  const std::string collapsed = CollapseBlanks(Trim(text));
  const auto parts = Split(collapsed, ' ');
  if (parts.size() != 6) return false;
  long long v = 0;
  const auto num = [&](std::string_view s, long long max) {
    return ParseInt(s, v) && v >= 0 && v <= max;
  };
  const std::string ns = ToUpper(parts[2]);
  const std::string ew = ToUpper(parts[5]);
  return num(parts[0], 90) && num(parts[1], 59) && (ns == "N" || ns == "S") && num(parts[3], 180) &&
         num(parts[4], 59) && (ew == "E" || ew == "W");
}

// A Maidenhead locator of 4, 6 or 8 characters.
bool ValidGrid(std::string_view g) {
  if (g.size() != 4 && g.size() != 6 && g.size() != 8) return false;
  const auto up = [](char c) { return char(c >= 'a' && c <= 'z' ? c - 32 : c); };
  if (up(g[0]) < 'A' || up(g[0]) > 'R' || up(g[1]) < 'A' || up(g[1]) > 'R') return false;
  if (g[2] < '0' || g[2] > '9' || g[3] < '0' || g[3] > '9') return false;
  if (g.size() >= 6 && (up(g[4]) < 'A' || up(g[4]) > 'X' || up(g[5]) < 'A' || up(g[5]) > 'X')) {
    return false;
  }
  if (g.size() == 8 && (g[6] < '0' || g[6] > '9' || g[7] < '0' || g[7] > '9')) return false;
  return true;
}

// What a sysop list may hold: a call (with or without SSID), or a call prefix ending in "*".
// A command typed by mistake ("SH/DX") or two words are refused rather than stored.
bool ListItemIsCall(std::string_view item) {
  const bool pattern = item.ends_with('*');
  if (pattern) item.remove_suffix(1);
  if (item.empty() || item.size() > 20) return false;
  bool digit = false, letter = false;
  for (const char c : item) {
    if (c >= '0' && c <= '9') {
      digit = true;
    } else if (c >= 'A' && c <= 'Z') {
      letter = true;
    } else if (c != '/' && c != '-') {
      return false;
    }
  }
  if (pattern) return true;
  if (!digit || !letter) return false;
  const std::string_view head = item.substr(0, item.find('/'));
  return head != "SH" && head != "SHOW" && head != "SET";
}

}  // namespace

CommandInterpreter::CommandInterpreter(UserContext& ctx, Login& login, CommandServices& services)
    : ctx_(ctx), login_(login), services_(services) {}

std::string CommandInterpreter::CommandError(std::string_view line) {
  if (line.size() >= 61) return std::string(line.substr(0, 60)) + " ...  command error";
  return std::string(line) + " command error";
}

void CommandInterpreter::OnLine(int stream, std::string_view line) {
  // A logging program's keep-alive gets neither a reply nor a prompt.
  if (EqualsIgnoreCase(Trim(line), "KeepAlive")) return;
  Execute(stream, line);
  // No prompt for a user who has just logged out or been taken over by a new connection.
  if (ctx_.streams.InRange(stream) && ctx_.streams.at(stream).IsUser() &&
      ctx_.streams.at(stream).login_stage == LoginStage::kLoggedIn &&
      !services_.MailComposing(stream)) {
    login_.BuildPrompt(stream);
  }
}

void CommandInterpreter::Lines(int stream, const std::vector<std::string>& lines) {
  std::string text;
  for (const std::string& l : lines) {
    text += l;
    text += "\r\n";
  }
  ctx_.Send(stream, text);
}

void CommandInterpreter::Execute(int stream, std::string_view raw) {
  const std::string collapsed = CollapseBlanks(Trim(raw));
  const std::string_view line = collapsed;
  if (line.empty()) return;
  StreamEntry& e = ctx_.streams.at(stream);
  const std::string upper = ToUpper(line);

  // Client tokens and spot entry come before the command tables.
  if (upper.size() >= 10 && upper.compare(0, 10, "/CTCP DXS ") == 0) {
    e.client_type = std::string(Trim(line.substr(10)));
    // The companion client reads the enhanced sentence, not the "DX de" line.
    const std::string_view first =
        std::string_view(e.client_type)
            .substr(0, std::min(e.client_type.size(), e.client_type.find(' ')));
    if (EqualsIgnoreCase(first, "QXU")) SetSpotFormat(stream, kSpotFormatEnhanced);
    return;
  }
  if (upper == "DX" || upper.starts_with("DX ") || upper.starts_with("DX/")) {
    const std::string reply = services_.EnterSpot(stream, line, /*test_only=*/false);
    if (!reply.empty()) ctx_.Send(stream, reply);
    return;
  }
  if (upper == "KEEPALIVE") return;
  if (line == "Send Enhanced DX Spots") {
    // For this connection only: the program that asked may not be the one the call uses next.
    SetSpotFormat(stream, kSpotFormatEnhanced);
    Reply(stream, std::string(line) + " QXC >");
    return;
  }
  // Client programs ask for the sun at the user's own place with this line.
  if (upper.find("SHOWSUN SUN") != std::string::npos) {
    SunOrMoon(stream, line, {}, /*moon=*/false);
    return;
  }

  std::string_view word, rest;
  SplitFirstWord(line, word, rest);
  if (RunFirstTable(stream, line, word, rest)) return;
  if (RunSecondTable(stream, line, word, rest)) return;
  Reply(stream, CommandError(line));
}

void CommandInterpreter::SetSpotFormat(int stream, int format) {
  StreamEntry& e = ctx_.streams.at(stream);
  if (e.spot_format == format) return;
  e.spot_format = format;
  login_.SendStreamAttributes(stream);
}

bool CommandInterpreter::RequireSysop(int stream, std::string_view line) {
  if (ctx_.streams.at(stream).privilege > 0) return true;
  Reply(stream, std::string(line) + " - sysop command error");
  return false;
}

bool CommandInterpreter::RunFirstTable(int stream, std::string_view line, std::string_view word,
                                       std::string_view rest) {
  if (MatchAbbrev("HELP", 4, word)) {
    Reply(stream, "For Help please go to " + help_address_ + " ");
  } else if (MatchAbbrev("BYE", 1, word)) {
    Bye(stream);
  } else if (MatchAbbrev("ANNOUNCE", 2, word)) {
    Announce(stream, line, rest, false);
  } else if (MatchAbbrev("WX", 2, word)) {
    Announce(stream, line, rest, true);
  } else if (MatchAbbrev("DXTEST", 3, word)) {
    const std::string reply = services_.EnterSpot(stream, line, /*test_only=*/true);
    if (!reply.empty()) ctx_.Send(stream, reply);
  } else if (MatchAbbrev("READ", 1, word) || MatchAbbrev("KILL", 1, word) ||
             MatchAbbrev("DELETE", 3, word) || MatchAbbrev("REPLY", 1, word) ||
             MatchAbbrev("SP", 2, word) || MatchAbbrev("SEND", 1, word)) {
    Lines(stream, services_.Mail(stream, MailVerb(word), rest));
  } else if (MatchAbbrev("TALK", 1, word)) {
    Talk(stream, line, rest);
  } else if (MatchAbbrev("ECHO", 4, word)) {
    Reply(stream, "Echo is disabled");
  } else if (MatchAbbrev("INITITIALISE", 4, word)) {
    if (RequireSysop(stream, line)) Lines(stream, services_.Mail(stream, "INITITIALISE", rest));
  } else if (MatchAbbrev("SHUTDOWN", 4, word)) {
    if (RequireSysop(stream, line)) {
      Reply(stream, "Shutting down " + ctx_.node_call);
      services_.Shutdown();
    }
  } else if (MatchAbbrev("WWV", 3, word)) {
    Reply(stream, services_.EnterWwv(stream, line, rest));
  } else if (MatchAbbrev("SPOOF", 5, word)) {
    if (RequireSysop(stream, line)) Spoof(stream, line, rest);
  } else {
    return false;
  }
  return true;
}

bool CommandInterpreter::RunSecondTable(int stream, std::string_view line, std::string_view word,
                                        std::string_view rest) {
  if (MatchAbbrev("SHOW", 2, word)) {
    Show(stream, line, rest);
  } else if (MatchAbbrev("SET", 2, word)) {
    Set(stream, line, rest);
  } else if (MatchAbbrev("UNSET", 4, word)) {
    if (rest.empty()) {
      Reply(stream, CommandError(line));
    } else {
      Execute(stream, "SET/NO" + std::string(rest));
    }
  } else if (MatchAbbrev("ACCEPT", 3, word) || MatchAbbrev("REJECT", 3, word) ||
             MatchAbbrev("CLEAR", 5, word)) {
    FilterCommand(stream, line);
  } else if (MatchAbbrev("TEST", 4, word)) {
    std::string_view what, args;
    SplitArg(rest, what, args);
    if (MatchAbbrev("FILTERS", 3, what)) {
      TestFilter(stream, args);
    } else {
      Reply(stream, CommandError(line));
    }
  } else if (MatchAbbrev("ANNOUNCE", 2, word)) {
    Announce(stream, line, rest, false);
  } else if (MatchAbbrev("WX", 2, word)) {
    Announce(stream, line, rest, true);
  } else if (MatchAbbrev("DIRECTORY", 1, word) || MatchAbbrev("LIST", 1, word) ||
             MatchAbbrev("SEND", 4, word) || MatchAbbrev("SP", 2, word) ||
             MatchAbbrev("REPLY", 2, word)) {
    Lines(stream, services_.Mail(stream, MailVerb(word), rest));
  } else if (MatchAbbrev("PURGE", 5, word) || MatchAbbrev("INITITIALISE", 4, word)) {
    if (RequireSysop(stream, line)) Lines(stream, services_.Mail(stream, MailVerb(word), rest));
  } else if (MatchAbbrev("REBUILD", 7, word)) {
    if (!RequireSysop(stream, line)) return true;
    if (!rest.empty()) {
      Reply(stream, CommandError(line));
    } else {
      Lines(stream, services_.Rebuild());
    }
  } else if (MatchAbbrev("RESTART", 7, word)) {
    if (!RequireSysop(stream, line)) return true;
    const std::string reply = rest.empty() ? services_.Restart() : std::string();
    if (!rest.empty()) {
      Reply(stream, CommandError(line));
    } else {
      Reply(stream, reply.empty() ? "RESTART is not available on this node." : reply);
    }
  } else if (MatchAbbrev("UPDATE", 6, word)) {
    if (RequireSysop(stream, line)) Lines(stream, services_.UpdateCommand(rest));
  } else if (MatchAbbrev("STATUSER", 4, word)) {
    // "STAT/USER [call]" is the same command written with a slash.
    std::string_view args = rest;
    if (EqualsIgnoreCase(word, "STAT")) {
      std::string_view user, tail;
      SplitArg(rest, user, tail);
      if (EqualsIgnoreCase(user, "USER")) args = tail;
    }
    StatUser(stream, line, args);
  } else if (MatchAbbrev("QUIT", 1, word)) {
    Bye(stream);
  } else if (MatchAbbrev("WHO", 2, word)) {
    Who(stream);
  } else if (MatchAbbrev("CONNECT", 4, word) || MatchAbbrev("DISCONNECT", 4, word)) {
    if (!RequireSysop(stream, line)) return true;
    if (rest.empty()) {
      Reply(stream, CommandError(line));
    } else {
      Reply(stream, services_.LinkCommand(ToUpper(rest), MatchAbbrev("CONNECT", 4, word)));
    }
  } else {
    return false;
  }
  return true;
}

void CommandInterpreter::Spoof(int stream, std::string_view line, std::string_view rest) {
  // "SPOOF <call> <command>": the command runs on that user's stream, with their settings,
  // record and rights, and what it answers comes to the sysop.
  const size_t blank = rest.find(' ');
  const std::string call = ToUpper(rest.substr(0, blank));
  const std::string_view command =
      blank == std::string_view::npos ? std::string_view() : Trim(rest.substr(blank + 1));
  if (call.empty() || command.empty() || ctx_.spoofed_stream != 0) {
    Reply(stream, CommandError(line));
    return;
  }
  int target = 0;
  for (int s = 1; s <= ctx_.streams.high_socket() && !target; ++s) {
    const StreamEntry& u = ctx_.streams.at(s);
    if (u.IsUser() && u.login_stage == LoginStage::kLoggedIn && u.call == call) target = s;
  }
  if (!target) {
    Reply(stream, call + " is not logged in on this node; nothing was run.");
    return;
  }
  const std::string& sysop = ctx_.streams.at(stream).call;
  ctx_.log.Write("Spoof", sysop + " as " + call + ": " + std::string(command));
  ctx_.monitor.Console("SPOOF by " + sysop + " as " + call + ": " + std::string(command));
  ctx_.spoofed_stream = target;
  ctx_.spoof_viewer = stream;
  Execute(target, command);
  ctx_.spoofed_stream = 0;
  ctx_.spoof_viewer = 0;
}

void CommandInterpreter::Bye(int stream) {
  StreamEntry& e = ctx_.streams.at(stream);
  std::string text = ctx_.messages.Get("Log Out");
  text += "73 " + e.call + " de " + ctx_.node_call + "\r\n";
  ctx_.Send(stream, text);
  ctx_.out.CloseStream(stream);
  // The user is gone now, not when the client gets round to closing: the log-out is told at
  // once, and the stream leaves WHO, the counts and the dupe check (a new log-in right after
  // is no dupe).  The front-end's close report then finds no user to announce.
  login_.OnLoggedOut(stream);
  e.state = kStateTimedOut;
  e.login_stage = LoginStage::kRefused;  // nothing more is sent
}

void CommandInterpreter::Who(int stream) {
  std::vector<std::string> lines{
      "  Callsign Type      Started           Name             Link            NodePort"};
  const auto more = services_.NetworkLines("who");
  lines.insert(lines.end(), more.begin(), more.end());
  Lines(stream, lines);
}

void CommandInterpreter::Announce(int stream, std::string_view line, std::string_view rest,
                                  bool wx) {
  StreamEntry& e = ctx_.streams.at(stream);
  std::string_view text = rest;
  // Every announcement reaches the network; LOCAL only as far as the neighbours' users.
  int hops = 99;
  std::string_view first, tail;
  SplitArg(text, first, tail);
  if (EqualsIgnoreCase(first, "FULL")) {
    text = tail;
  } else if (EqualsIgnoreCase(first, "LOCAL")) {
    hops = 1;
    text = tail;
  }
  if (Trim(text).empty()) {
    Reply(stream, "Command error - " + std::string(line));
    return;
  }
  const std::string from = e.call;
  if (!services_.TakeAnnouncement(from, wx ? "WX" : "*", Trim(text))) {
    Reply(stream, "Sorry, announcements from " + from + " are not accepted on this node.");
    return;
  }
  const std::string shown =
      (wx ? "WX de " : "To ALL de ") + from + ": " + std::string(Trim(text)) + "\r\n";
  const uint32_t bit = wx ? kSwWx : kSwAnnouncements;
  // Each user's announcement (or, for WX, WWV) rules; the sender's facts are built once.
  const FilterBook::UserGate gate =
      ctx_.filters ? ctx_.filters->OriginGate(wx ? FilterKind::kWwv : FilterKind::kAnnounce, from,
                                              Trim(text), ctx_.node_call)
                   : FilterBook::UserGate();
  for (int s = 1; s <= ctx_.streams.high_socket(); ++s) {
    const StreamEntry& u = ctx_.streams.at(s);
    if (u.TakesBroadcast(bit) && (!gate || gate(s, u))) ctx_.Send(s, shown);
  }
  ctx_.relay.Announce(from, wx ? "WX" : "*", Trim(text), hops);
}

void CommandInterpreter::Talk(int stream, std::string_view line, std::string_view rest) {
  StreamEntry& e = ctx_.streams.at(stream);
  std::string_view to, text;
  SplitArg(rest, to, text);
  if (to.empty()) {
    Reply(stream, "to callsign is empty.");
    return;
  }
  const std::string target = ToUpper(to);
  if (text.empty()) {
    Reply(stream, "\"Talk Through\" mode not implemented.");
    return;
  }
  int found = 0;
  for (int s = 1; s <= ctx_.streams.high_socket() && !found; ++s) {
    const StreamEntry& u = ctx_.streams.at(s);
    if (u.IsUser() && (u.call == target || BaseCall(u.call) == target)) found = s;
  }
  if (found) {
    const StreamEntry& u = ctx_.streams.at(found);
    if (!u.session.Has(kSwTalk)) {
      Reply(stream, target + " has talk disabled.");
      return;
    }
    ctx_.Send(found, u.call + " de " + e.call + ": " + std::string(text) + "\r\n");
    return;
  }
  if (!ctx_.relay.Talk(e.call, target, text)) Reply(stream, "Talk Aborted.  ");
}

void CommandInterpreter::SaveSwitches(int stream) {
  const StreamEntry& e = ctx_.streams.at(stream);
  ctx_.store.Save(e.call, "SETTINGS", std::to_string(e.session.switches));
}

void CommandInterpreter::SavePersonal(int stream, int type, std::string_view value,
                                      std::string_view reply) {
  StreamEntry& e = ctx_.streams.at(stream);
  ctx_.store.SavePersonal(e.call, type, value);
  ctx_.relay.SendPc41(LocalPc41(e.call, type, value));
  Reply(stream, reply);
}

void CommandInterpreter::Set(int stream, std::string_view line, std::string_view rest) {
  StreamEntry& e = ctx_.streams.at(stream);
  std::string_view word, arg;
  SplitArg(rest, word, arg);
  if (word.empty()) {
    Reply(stream, CommandError(line));
    return;
  }
  // "SET/FILTER <rule>" sets a filter rule; "SET/FILTERS" alone is the switch.
  if (MatchAbbrev("FILTERS", 3, word) && !arg.empty()) {
    FilterCommand(stream, line);
    return;
  }
  const SetEntry* entry = FindSetEntry(word);
  if (!entry) {
    Reply(stream, std::string(word) + " not found!");
    return;
  }
  SessionSettings& s = e.session;
  switch (entry->kind) {
    case SetKind::kSwitchOn:
    case SetKind::kSwitchOff:
    case SetKind::kFiltersOn:
      s.Set(entry->bit, entry->kind != SetKind::kSwitchOff);
      SaveSwitches(stream);
      if (entry->bit == kSwEnhanced) {
        // Off means off, also when the connection itself asked for the sentence.
        SetSpotFormat(stream, s.Has(kSwEnhanced) ? kSpotFormatEnhanced : kSpotFormatDxDe);
      }
      Reply(stream, entry->reply);
      if (entry->kind == SetKind::kSwitchOn && (entry->bit & kColumnSwitches) &&
          s.width <= int(kDxDeLineWidth) + 1) {
        Reply(stream,
              "The column shows on lines wider than 75 characters, for example "
              "SET/WIDTH 100.");
      }
      break;
    case SetKind::kContest:
      // The contest settings are filters: they are switched on to take effect.
      if (!s.Has(kSwFilters)) {
        s.Set(kSwFilters, true);
        SaveSwitches(stream);
      }
      RunPreset(stream,
                {"SET/DXBM 1610792964/65535", "SET/FILTER KEYWORD/REJ CW,ROS,PSK,IOTA,JT65,JT9",
                 "SET/FILTER BANDTIME/OFF", "SHOW/FILTER"},
                "Contest settings applied");
      break;
    case SetKind::kNoFilters:
      RunPreset(stream,
                {"SET/FILTER DOC/OFF", "SET/FILTER DOS/OFF", "SET/FILTER DXCTY/OFF",
                 "SET/FILTER DXSTATE/OFF", "SET/FILTER WOC/OFF", "SET/FILTER WOS/OFF",
                 "SET/FILTER AOC/OFF", "SET/FILTER AOS/OFF", "SET/DXBM 1006827524/15370",
                 "SET/FILTER KEYWORD/OFF"},
                "All filters off");
      // Rules the preset does not name (accept and reject lines, BANDTIME) are kept but no
      // longer used until SET/FILTERS.
      s.Set(kSwFilters, false);
      SaveSwitches(stream);
      break;
    case SetKind::kDxbm:
      if (arg.empty()) {
        Reply(stream, CommandError(line));
        return;
      }
      FilterCommand(stream, line);
      break;
    case SetKind::kResolution: {
      const int r = ParseIntOr(arg, 0);
      if (r != 1 && r != 2) {
        Reply(stream, CommandError(line));
        return;
      }
      s.resolution = r;
      ctx_.store.Save(e.call, "RESOLUTION", std::to_string(r));
      Reply(stream, fmt::format("Resolution set to {} decimal{}", r, r == 1 ? "" : "s"));
      break;
    }
    case SetKind::kWidth: {
      const int w = ParseIntOr(arg, 0);
      if (w < 40 || w > 255) {
        Reply(stream, CommandError(line));
        return;
      }
      s.width = w;
      ctx_.store.Save(e.call, "WIDTH", std::to_string(w));
      Reply(stream, fmt::format("Width set to {}", w));
      break;
    }
    case SetKind::kEcho:
      Reply(stream, "Echo is disabled");
      break;
    case SetKind::kPage:
      Reply(stream, "Paging is not used on this node; your client scrolls.");
      break;
    case SetKind::kHomeNode: {
      std::string node(Trim(arg));
      if (node.empty()) {
        Reply(stream, "Invalid Home Node.  ");
        Reply(stream, "Please enter your Home Node, SET/HOMENODE <your home DX Cluster>");
        return;
      }
      CallCheckContext check;
      std::string typed = node;
      if (!ValidCall(node, /*strict=*/false, check)) {
        Reply(stream, typed + " is not a valid DX Cluster Callsign");
        return;
      }
      s.home_node = node;
      SavePersonal(stream, 4, node, "Home node set to " + node);
      break;
    }
    case SetKind::kDxArpc: {
      // A logging-program client reports its version as "SET/DX_ARPC <version>"; versions
      // before 2 cannot read this node's spot lines.
      const std::string_view v = Trim(arg);
      long long major = 0;
      const size_t dot = v.find('.');
      if (v.empty() || !ParseInt(v.substr(0, dot), major)) {
        Reply(stream, "SET/DX_ARPC command error");
        return;
      }
      if (major < 2) {
        Reply(stream, "You are using an old version of Paiskaba software.");
        Reply(stream, "This software MUST be upgraded to use this cluster!");
        Reply(stream,
              "Press the \"Update Program\" button in the top left-hand corner of this form.");
        Reply(stream, "Follow the directions given.");
        return;
      }
      e.client_type = "ARPC";
      Reply(stream, "DX_ARPC version " + std::string(v) + " accepted");
      break;
    }
    case SetKind::kPrompt: {
      const std::string_view p = Trim(arg);
      if (!p.empty() && p != "%M>" && p != ">") {
        Reply(stream, CommandError(line));
        return;
      }
      s.prompt_form = std::string(p);
      ctx_.store.Save(e.call, "PROMPT", s.prompt_form);
      Reply(stream, p.empty() ? "Prompt set to the node's standard prompt"
                              : "Prompt set to " + std::string(p));
      break;
    }
    case SetKind::kNode: {
      if (Trim(arg).empty()) {
        Reply(stream, CommandError(line));
        return;
      }
      ctx_.store.Save(e.call, "NODE", ToUpper(Trim(arg)));
      Reply(stream, "Node set to " + ToUpper(Trim(arg)));
      break;
    }
    case SetKind::kLang:
      Reply(stream, "Language set to English (the only language of this node)");
      break;
    case SetKind::kGrid: {
      const std::string g = ToUpper(Trim(arg));
      if (!ValidGrid(g)) {
        Reply(stream, CommandError(line));
        return;
      }
      s.grid = g;
      SavePersonal(stream, 5, g, "Grid set to " + g);
      break;
    }
    case SetKind::kName: {
      const std::string name = PersonalValue(Trim(arg));
      if (name.empty()) {
        Reply(stream, "Correct syntax: SET/NAME name");
        return;
      }
      s.name = name;
      SavePersonal(stream, 1, name, "Name set to " + name + ".");
      break;
    }
    case SetKind::kQth: {
      const std::string qth = PersonalValue(Trim(arg));
      if (qth.empty()) {
        Reply(stream, CommandError(line));
        return;
      }
      s.qth = qth;
      SavePersonal(stream, 2, qth, "QTH set to " + qth);
      break;
    }
    case SetKind::kLocation: {
      const std::string loc = ToUpper(CollapseBlanks(Trim(arg)));
      if (!ValidLocation(loc)) {
        Reply(stream, "SET/LOCATION command error");
        Reply(stream, "SET/LOCATION - Sets the users location, Lat/Lon");
        Reply(stream, "Syntax:   SET/LOCATION Deg Min N/S Deg Min E/W");
        Reply(stream, "Example:  SET/LOCATION 49 11 N 122 30 W");
        return;
      }
      s.location = loc;
      SavePersonal(stream, 3, loc, "Location updated to " + loc);
      break;
    }
    case SetKind::kListAdd:
    case SetKind::kListRemove: {
      if (e.privilege <= 0) {
        Reply(stream, std::string(line) + " - sysop command error");
        return;
      }
      std::string item = ToUpper(CollapseBlanks(Trim(arg)));
      if (item.empty()) {
        Reply(stream, "* Command Incomplete *");
        return;
      }
      // "EQUALS <call>" asks for exact matching, which is what an entry without "*" means.
      if (std::string_view(entry->list) == "DxNok" && item.starts_with("EQUALS ")) {
        item = std::string(Trim(std::string_view(item).substr(7)));
      }
      if (!ListItemIsCall(item)) {
        Reply(stream, item + " is not a call sign; nothing changed.");
        return;
      }
      const bool add = entry->kind == SetKind::kListAdd;
      const bool changed = services_.ListChange(entry->list, item, add);
      if (add) {
        Reply(stream, item + (changed ? " added to list." : " already in list."));
      } else {
        Reply(stream, item + (changed ? " deleted from list." : " not in list."));
      }
      break;
    }
    case SetKind::kStateAdd:
      StateAdd(stream, line, arg);
      break;
  }
}

void CommandInterpreter::RunPreset(int stream, const std::vector<std::string>& lines,
                                   std::string_view done) {
  const bool was_quiet = quiet_;
  quiet_ = true;
  for (const std::string& l : lines) Execute(stream, l);
  quiet_ = was_quiet;
  Reply(stream, done);
}

void CommandInterpreter::FilterCommand(int stream, std::string_view line) {
  StreamEntry& e = ctx_.streams.at(stream);
  if (!ctx_.filters) {
    Reply(stream, CommandError(line));
    return;
  }
  const uint32_t dxbm = e.session.dxbm, dxbm2 = e.session.dxbm2;
  const std::vector<std::string> before = e.session.filter_lines;
  const UserFilters::Reply r = ctx_.filters->Apply(stream, line, e.session);
  if (r.ok) {
    if (e.session.dxbm != dxbm || e.session.dxbm2 != dxbm2) {
      ctx_.store.Save(e.call, "DXBM", fmt::format("{}/{}", e.session.dxbm, e.session.dxbm2));
    }
    if (e.session.filter_lines != before) {
      ctx_.store.SaveLines(e.call, "FILTER", e.session.filter_lines);
    }
  }
  Reply(stream, r.text);
  if (r.ok && !e.session.Has(kSwFilters)) Reply(stream, kFiltersOffNote);
}

void CommandInterpreter::TestFilter(int stream, std::string_view args) {
  const StreamEntry& e = ctx_.streams.at(stream);
  const std::vector<std::string_view> words = Split(args, ' ');
  double khz = 0;
  if (words.size() < 2 || !ParseDouble(words[0], khz) || !(khz > 0) || !ctx_.filters) {
    Reply(stream, "Usage: TEST/FILTER <freq> <dxcall> [by <spotter>] [<comment>]");
    return;
  }
  std::string spotter = e.call;
  size_t next = 2;
  if (words.size() >= 4 && EqualsIgnoreCase(words[2], "BY")) {
    spotter = std::string(words[3]);
    next = 4;
  }
  std::vector<std::string_view> rest(words.begin() + std::ptrdiff_t(next), words.end());
  const std::string comment = Join(rest, " ");
  const Spot spot = ctx_.filters->SampleSpot(khz, words[1], spotter, comment, ctx_.node_call);
  const FilterDecision d = ctx_.filters->Test(stream, spot);
  std::string what = fmt::format("{:.1f} {} by {}", khz, spot.dx_call(), spot.spotter());
  if (!comment.empty()) what += " \"" + comment + "\"";
  if (d.rule_id.empty()) {
    Reply(stream, what + ": pass (no filter rule decides)");
  } else {
    Reply(stream,
          fmt::format("{}: {} by {}: {}", what, d.pass ? "pass" : "drop", d.rule_id, d.rule_text));
  }
  if (!e.session.Has(kSwFilters)) Reply(stream, kFiltersOffNote);
}

void CommandInterpreter::Show(int stream, std::string_view line, std::string_view rest) {
  StreamEntry& e = ctx_.streams.at(stream);
  const SessionSettings& s = e.session;
  std::string_view word, arg;
  SplitArg(rest, word, arg);
  const auto on_off = [&](uint32_t bit, std::string_view what) {
    Reply(stream, std::string(what) + (s.Has(bit) ? " is enabled" : " is disabled"));
  };
  const std::string upper_rest = ToUpper(rest);
  if (const size_t at = upper_rest.find("SKIMMER/STATUS"); at != std::string::npos) {
    std::string_view call = Trim(std::string_view(rest).substr(at + 14));
    call = call.substr(0, call.find(' '));
    std::vector<std::string> lines;
    if (services_.SkimmerStatus(call, lines)) {
      Lines(stream, lines);
    } else {
      Reply(stream, " SKIMMER/STATUS Fatal command error");
    }
  } else if (const size_t at = upper_rest.find("STAT/USER"); at != std::string::npos) {
    StatUser(stream, line, Trim(rest.substr(at + 9)));
  } else if (InfoCommand(stream, line, word, arg)) {
  } else if (MatchAbbrev("DX", 2, word)) {
    const std::vector<std::string> lines = services_.ShowDx(stream, arg);
    if (lines.empty()) {
      Reply(stream, CommandError(line));
    } else {
      Lines(stream, lines);
    }
  } else if (MatchAbbrev("ANNOUNCE", 3, word)) {
    const std::vector<std::string> lines = services_.ShowAnnouncements(arg);
    if (lines.empty()) {
      Reply(stream, CommandError(line));
    } else {
      Lines(stream, lines);
    }
  } else if (MatchAbbrev("WIDTH", 1, word)) {
    Reply(stream, fmt::format("Width is {}", s.width));
  } else if (MatchAbbrev("NAME", 2, word)) {
    Reply(stream, "Name is " + (s.name.empty() ? std::string("Unknown Name") : s.name));
  } else if (MatchAbbrev("QTH", 3, word)) {
    Reply(stream, "QTH is " + (s.qth.empty() ? std::string("not set") : s.qth));
  } else if (MatchAbbrev("QRA", 3, word) || MatchAbbrev("GRID", 4, word)) {
    Reply(stream, "Grid is " + (s.grid.empty() ? std::string("not set") : s.grid));
  } else if (MatchAbbrev("PROMPT", 2, word)) {
    Reply(stream, "Prompt is " + (s.prompt_form.empty() ? std::string("the node's standard prompt")
                                                        : s.prompt_form));
  } else if (MatchAbbrev("RESOLUTION", 3, word)) {
    Reply(stream,
          fmt::format("Resolution is {} decimal{}", s.resolution, s.resolution == 1 ? "" : "s"));
  } else if (MatchAbbrev("BEEP", 4, word)) {
    on_off(kSwBeep, "Beep");
  } else if (MatchAbbrev("DXCQ", 4, word)) {
    on_off(kSwDxCq, "DX CQ zone");
  } else if (MatchAbbrev("DXITU", 5, word)) {
    on_off(kSwDxItu, "DX ITU zone");
  } else if (MatchAbbrev("DXGRID", 6, word)) {
    on_off(kSwDxGrid, "DX grid");
  } else if (MatchAbbrev("USSTATE", 7, word)) {
    on_off(kSwUsState, "US state");
  } else if (MatchAbbrev("USERS", 1, word)) {
    Lines(stream, services_.NetworkLines("users"));
  } else if (MatchAbbrev("TIME", 2, word)) {
    const SysTime now = ctx_.clock.Now();
    const std::time_t tt = std::chrono::system_clock::to_time_t(now);
    std::tm local{};
    localtime_r(&tt, &local);
    char buf[64];
    std::strftime(buf, sizeof buf, "%H:%M:%S %Z", &local);
    Reply(stream, DateText(now) + " " + TimeHHnnssZ(now).substr(0, 4) + "Z UTC   local " + buf);
  } else if (MatchAbbrev("VERSION", 1, word)) {
    Reply(stream, "QX Cluster version " + ctx_.version);
  } else if (MatchAbbrev("STATION", 2, word)) {
    if (arg.empty()) {
      Reply(stream, CommandError(line));
    } else {
      Lines(stream, services_.StationInfo(ToUpper(arg)));
    }
  } else if (MatchAbbrev("CONFIGURATION", 1, word)) {
    Lines(stream, services_.NetworkLines("configuration"));
  } else if (MatchAbbrev("NODES", 2, word)) {
    Lines(stream, services_.NetworkLines("nodes"));
  } else if (MatchAbbrev("LINKS", 2, word)) {
    if (RequireSysop(stream, line)) Lines(stream, services_.NetworkLines("links"));
  } else if (MatchAbbrev("WWV", 3, word) || MatchAbbrev("WCY", 3, word)) {
    const auto lines = services_.ShowPropagation(ToUpper(word) == "WWV" ? "wwv" : "wcy", arg);
    if (lines.empty()) {
      Reply(stream, CommandError(line));
    } else {
      Lines(stream, lines);
    }
  } else if (MatchAbbrev("FILTERS", 3, word)) {
    if (EqualsIgnoreCase(Trim(arg), "WHY")) {
      std::vector<std::string> why =
          ctx_.filters ? ctx_.filters->WhyLines(stream) : std::vector<std::string>{};
      if (why.empty()) why.push_back("No spots have been held back by your filters.");
      Lines(stream, why);
    } else {
      Lines(stream, ctx_.filters ? ctx_.filters->Describe(stream, e.session)
                                 : std::vector<std::string>{"No filters on this node."});
    }
  } else if (MatchAbbrev("DXBM", 4, word) || MatchAbbrev("DXBANDMODE", 3, word)) {
    const UserFilters* f = ctx_.filters ? ctx_.filters->Of(stream) : nullptr;
    Reply(stream, f ? f->Describe().front() : fmt::format("DXBM {}/{}", s.dxbm, s.dxbm2));
  } else if (word.empty()) {
    Reply(stream, CommandError(line));
  } else {
    Reply(stream, CommandError(line));
  }
}

}  // namespace qx
