// The information commands of the interpreter: sun and moon, headings, the country file,
// local times, user statistics, the extra spot-line columns and the sysop's state table.
// The calculations and reply layouts live in info/; this file finds the places and records.
#include <fmt/format.h>

#include "core/file_util.h"
#include "core/text_util.h"
#include "info/call_states.h"
#include "info/info_lines.h"
#include "spots/call_sign.h"
#include "spots/country.h"
#include "users/command_interpreter.h"
#include "users/user_record.h"

namespace qx {
namespace {

// A call or prefix as typed: letters, digits and "/", nothing a country lookup would choke on.
bool LooksLikeCallOrPrefix(std::string_view text) {
  if (text.empty() || text.size() > CountryLookup::kMaxCallLength) return false;
  for (const char c : text) {
    const bool ok = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') ||
                    c == '/' || c == '-';
    if (!ok) return false;
  }
  return true;
}

std::optional<GeoPoint> SettingsPosition(const SessionSettings& s) {
  GeoPoint p;
  if (!s.location.empty() && ParseLocation(s.location, p.latitude, p.longitude)) return p;
  if (!s.grid.empty() && LocatorPosition(s.grid, p)) return p;
  return std::nullopt;
}

}  // namespace

std::optional<Place> CommandInterpreter::OwnPlace(int stream) const {
  const StreamEntry& e = ctx_.streams.at(stream);
  Place place;
  place.label = std::string(BaseCall(e.call));
  if (const auto p = SettingsPosition(e.session)) {
    place.what = "your location";
    place.position = *p;
    return place;
  }
  const CountryInfo* c = ctx_.countries ? ctx_.countries->Find(e.call) : nullptr;
  if (!c) return std::nullopt;
  place.what = c->country;
  place.position = {c->latitude, c->longitude};
  return place;
}

std::optional<Place> CommandInterpreter::PlaceOf(std::string_view text) const {
  if (!LooksLikeCallOrPrefix(text)) return std::nullopt;
  return ResolvePlace(text, ctx_.countries, [this](std::string_view call) {
    // A station's own record (SET/LOCATION, SET/QRA, or PC41 from its node) beats its
    // country's middle.  Prefixes have no record and fall through.
    std::optional<GeoPoint> p;
    if (call.size() < 3 || call.find_first_of("0123456789") == std::string_view::npos) return p;
    const UserRecordLoad r = ctx_.store.Load(call, kStateUser);
    if (r.existed) p = SettingsPosition(r.settings);
    return p;
  });
}

void CommandInterpreter::SunOrMoon(int stream, std::string_view line, std::string_view arg,
                                   bool moon) {
  const std::optional<Place> place = arg.empty() ? OwnPlace(stream) : PlaceOf(arg);
  if (!place) {
    Reply(stream, arg.empty() ? std::string("Your location is not known: SET/LOCATION or SET/QRA "
                                            "tells it.")
                              : std::string(arg) + " is not a known call, prefix or locator.");
    return;
  }
  const SysTime now = ctx_.clock.Now();
  Reply(stream, moon ? MoonLine(*place, now) : SunLine(*place, now));
}

void CommandInterpreter::StatUser(int stream, std::string_view line, std::string_view arg) {
  const StreamEntry& e = ctx_.streams.at(stream);
  std::string call = arg.empty() ? e.call : ToUpper(arg);
  CallCheckContext check;
  std::string checked = call;
  if (!ValidCall(checked, /*strict=*/false, check) || checked.find(' ') != std::string::npos) {
    Reply(stream, CommandError(line));
    return;
  }
  UserStats u;
  u.call = std::string(BaseCall(checked));
  const UserRecordLoad r = ctx_.store.Load(u.call, kStateUser);
  u.known = r.existed;
  u.settings = r.settings;
  for (int s = 1; s <= ctx_.streams.high_socket(); ++s) {
    const StreamEntry& other = ctx_.streams.at(s);
    if (other.IsUser() && BaseCall(other.call) == u.call) u.logged_in = true;
  }
  Lines(stream, StatUserLines(u));
}

bool CommandInterpreter::InfoCommand(int stream, std::string_view line, std::string_view word,
                                     std::string_view arg) {
  const SessionSettings& s = ctx_.streams.at(stream).session;
  const auto on_off = [&](uint32_t bit, std::string_view what) {
    Reply(stream, std::string(what) + (s.Has(bit) ? " is enabled" : " is disabled"));
  };
  const auto one_word = [&] { return !arg.empty() && arg.find(' ') == std::string_view::npos; };
  if (MatchAbbrev("SUN", 3, word) || MatchAbbrev("MOON", 4, word)) {
    if (arg.find(' ') != std::string_view::npos) {
      Reply(stream, CommandError(line));
    } else {
      SunOrMoon(stream, line, arg, MatchAbbrev("MOON", 4, word));
    }
  } else if (MatchAbbrev("HEADING", 2, word)) {
    if (!one_word()) {
      Reply(stream, CommandError(line));
      return true;
    }
    const auto from = OwnPlace(stream);
    const auto to = PlaceOf(arg);
    if (!from) {
      Reply(stream, "Your location is not known: SET/LOCATION or SET/QRA tells it.");
    } else if (!to) {
      Reply(stream, std::string(arg) + " is not a known call, prefix or locator.");
    } else {
      Reply(stream, HeadingLine(*from, *to));
    }
  } else if (MatchAbbrev("PREFIX", 3, word) || MatchAbbrev("DXCC", 4, word) ||
             (MatchAbbrev("TIME", 2, word) && !arg.empty())) {
    if (!one_word() || !LooksLikeCallOrPrefix(arg)) {
      Reply(stream, CommandError(line));
      return true;
    }
    const CountryInfo* c = ctx_.countries ? ctx_.countries->Find(arg) : nullptr;
    if (!c) {
      Reply(stream, ToUpper(arg) + ": no country found for it in the country file.");
    } else if (MatchAbbrev("TIME", 2, word)) {
      Reply(stream, LocalTimeLine(arg, *c, ctx_.clock.Now()));
    } else {
      Reply(stream, CountryLine(arg, *c));
    }
  } else if (MatchAbbrev("DXSQTH", 6, word)) {
    on_off(kSwDxsQth, "DX spotter state or province");
  } else if (MatchAbbrev("DXSCTY", 6, word)) {
    on_off(kSwDxsCty, "DX spotter country");
  } else if (MatchAbbrev("GRIDSQUARE", 5, word)) {
    on_off(kSwGridSquare, "Grid square");
  } else {
    return false;
  }
  return true;
}

void CommandInterpreter::StateAdd(int stream, std::string_view line, std::string_view arg) {
  if (!RequireSysop(stream, line)) return;
  const std::string args = ToUpper(CollapseBlanks(Trim(arg)));
  const auto parts = Split(args, ' ');
  if (args.empty()) {
    Reply(stream, "* Command Incomplete *");
    return;
  }
  bool changed = false;
  if (!ctx_.states || parts.size() != 2 || !ctx_.states->Set(parts[0], parts[1], changed)) {
    Reply(stream, CommandError(line));
    return;
  }
  const std::string item = std::string(BaseCall(parts[0])) + " " + std::string(parts[1]);
  if (changed && !AtomicWriteFile(ctx_.dir.Data("files") / "states.dat", ctx_.states->Text())) {
    ctx_.log.Write("StateAdd", "could not write data/files/states.dat");
  }
  Reply(stream, item + (changed ? " added to list." : " already in list."));
}

}  // namespace qx
