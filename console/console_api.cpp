#include "console/console_api.h"

#include <algorithm>
#include <chrono>
#include <climits>
#include <cstdio>

#include "console/sysop_files.h"
#include "core/text_util.h"

namespace qx {
namespace {

using nlohmann::json;

ApiReply Reply(int status, const json& j) { return ApiReply{status, JsonText(j)}; }
ApiReply Error(int status, std::string_view why) {
  return Reply(status, json{{"error", std::string(why)}});
}
ApiReply FromResult(const ConsoleResult& r) {
  return r.ok ? Reply(200, json{{"ok", true}}) : Error(400, r.error);
}

std::string StringField(const json& body, const char* key) {
  const auto it = body.find(key);
  if (it == body.end()) return {};
  if (it->is_string()) return it->get<std::string>();
  if (it->is_number_integer()) return std::to_string(it->get<long long>());
  return {};
}

// A value typed into the console becomes one line of a file: no line ends, no "^".
bool CleanValue(std::string_view v) {
  for (char c : v) {
    if (c == '\r' || c == '\n' || c == '^' || c == '\0') return false;
  }
  return true;
}

int64_t UnixSeconds(SysTime t) {
  return std::chrono::duration_cast<std::chrono::seconds>(t.time_since_epoch()).count();
}

int64_t UnixMillis(SysTime t) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(t.time_since_epoch()).count();
}

// "2026-11-24" as the start of that UTC day; false when it is no date.
bool ParseDay(std::string_view text, SysTime& out) {
  long long y = 0, m = 0, d = 0;
  if (text.size() != 10 || text[4] != '-' || text[7] != '-' || !ParseInt(text.substr(0, 4), y) ||
      !ParseInt(text.substr(5, 2), m) || !ParseInt(text.substr(8, 2), d)) {
    return false;
  }
  static constexpr int kDays[] = {31, 29, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  if (y < 1970 || y > 2200 || m < 1 || m > 12 || d < 1 || d > kDays[m - 1]) return false;
  const bool leap = (y % 4 == 0 && y % 100 != 0) || y % 400 == 0;
  if (m == 2 && d == 29 && !leap) return false;
  out = MakeUtc(int(y), int(m), int(d));
  return true;
}

std::string DayText(SysTime t) {
  const auto days = std::chrono::floor<std::chrono::days>(t);
  const std::chrono::year_month_day ymd{days};
  char buf[16];
  std::snprintf(buf, sizeof buf, "%04d-%02u-%02u", int(ymd.year()), unsigned(ymd.month()),
                unsigned(ymd.day()));
  return buf;
}

bool SpotMatches(const ConsoleSpot& s, std::string_view q) {
  if (q.empty()) return true;
  for (const std::string* field :
       {&s.dx, &s.spotter, &s.comment, &s.origin, &s.source, &s.reason, &s.rule}) {
    if (ContainsIgnoreCase(*field, q)) return true;
  }
  return false;
}

json SpotJson(const ConsoleSpot& s) {
  json j{{"ts", UnixSeconds(s.time)},
         {"freq", s.frequency_khz},
         {"band", s.band},
         {"dx", s.dx},
         {"spotter", s.spotter},
         {"comment", s.comment},
         {"origin", s.origin},
         {"source", s.source},
         {"refused", s.refused}};
  if (s.refused) {
    j["reason"] = s.reason;
    j["rule"] = s.rule;
  }
  return j;
}

constexpr int kDefaultRows = 1000;
constexpr int kMaxRows = 5000;

json UserJson(const ConsoleUser& u) {
  return {{"call", u.call},    {"name", u.name},
          {"qth", u.qth},      {"lastLogin", u.last_login},
          {"spots", u.spots},  {"lockedOut", u.locked_out},
          {"stream", u.stream}};
}

json MailJson(const ConsoleMail& m) {
  json forwards = json::array();
  for (const ConsoleMail::Forward& f : m.forwards) {
    forwards.push_back({{"node", f.node}, {"state", f.state}, {"attempts", f.attempts}});
  }
  json j{{"number", m.number},
         {"from", m.from},
         {"to", m.to},
         {"subject", m.subject},
         {"time", UnixSeconds(m.time)},
         {"private", m.is_private},
         {"read", m.read},
         {"origin", m.origin},
         {"receivedFrom", m.received_from},
         {"boundFor", m.bound_for},
         {"waiting", m.waiting},
         {"forwards", forwards}};
  if (!m.text.empty()) j["text"] = m.text;
  return j;
}

// A message number from the query or the body: 1 and up.
std::optional<int> MailNumber(std::string_view text) {
  long long n = 0;
  if (!ParseInt(Trim(text), n) || n < 1 || n > 99999999) return std::nullopt;
  return int(n);
}

}  // namespace

std::string_view MonitorChannelName(MonitorChannel c) {
  switch (c) {
    case MonitorChannel::kConsole:
      return "console";
    case MonitorChannel::kRaw:
      return "raw";
    case MonitorChannel::kSpots:
      return "spots";
    case MonitorChannel::kBadCall:
      return "badcall";
    case MonitorChannel::kRunaway:
      return "runaway";
    case MonitorChannel::kConnections:
      return "connections";
  }
  return "console";
}

json MonitorLineJson(const MonitorLine& line) {
  const std::string_view d = line.direction == MonitorDirection::kIn    ? "in"
                             : line.direction == MonitorDirection::kOut ? "out"
                                                                        : "";
  return json{{"t", "line"},      {"ch", MonitorChannelName(line.channel)},
              {"s", line.stream}, {"c", line.colour},
              {"d", d},           {"ts", UnixMillis(line.time)},
              {"x", line.text}};
}

std::string JsonText(const json& j) {
  return j.dump(-1, ' ', false, json::error_handler_t::replace);
}

json StreamsJson(const std::vector<ConsoleStream>& streams) {
  json list = json::array();
  for (const ConsoleStream& s : streams) {
    list.push_back({{"number", s.number},
                    {"call", s.call},
                    {"kind", s.kind},
                    {"state", s.state},
                    {"peer", s.peer},
                    {"port", s.port_index},
                    {"since", UnixSeconds(s.since)},
                    {"name", s.name},
                    {"colour", s.colour},
                    {"filters", s.filters}});
  }
  return list;
}

bool PercentDecode(std::string_view in, std::string& out, bool plus_is_space) {
  out.clear();
  for (size_t i = 0; i < in.size(); ++i) {
    const char c = in[i];
    if (c == '%') {
      if (i + 2 >= in.size()) return false;
      auto hex = [](char h) -> int {
        if (h >= '0' && h <= '9') return h - '0';
        if (h >= 'a' && h <= 'f') return h - 'a' + 10;
        if (h >= 'A' && h <= 'F') return h - 'A' + 10;
        return -1;
      };
      const int hi = hex(in[i + 1]), lo = hex(in[i + 2]);
      if (hi < 0 || lo < 0) return false;
      out.push_back(char(hi * 16 + lo));
      i += 2;
    } else if (c == '+' && plus_is_space) {
      out.push_back(' ');
    } else {
      out.push_back(c);
    }
  }
  return true;
}

std::string QueryValue(std::string_view query, std::string_view key) {
  for (std::string_view part : Split(query, '&')) {
    const size_t eq = part.find('=');
    const std::string_view k = part.substr(0, eq);
    if (k != key) continue;
    std::string out;
    if (eq == std::string_view::npos) return out;
    if (!PercentDecode(part.substr(eq + 1), out, true)) return {};
    return out;
  }
  return {};
}

ApiReply ConsoleApi::Handle(std::string_view method, std::string_view path, std::string_view query,
                            std::string_view body) {
  if (method == "GET") return Get(path, query);
  if (method != "POST") return Error(405, "method not allowed");
  json parsed = json::object();
  if (!Trim(body).empty()) {
    parsed = json::parse(body, nullptr, false);
    if (parsed.is_discarded() || !parsed.is_object())
      return Error(400, "body is not a JSON object");
  }
  return Post(path, parsed);
}

ApiReply ConsoleApi::Get(std::string_view path, std::string_view query) {
  if (path == "streams") return Reply(200, json{{"streams", StreamsJson(model_.Streams())}});
  if (path == "lists") return Reply(200, json{{"lists", model_.ListNames()}});
  if (path.starts_with("lists/")) {
    std::string name;
    if (!PercentDecode(path.substr(6), name, false)) return Error(400, "bad list name");
    const auto items = model_.ListItems(name);
    if (!items) return Error(404, "no such list");
    // Exit lists run to thousands of lines: the search is done here, and a page shows at most
    // kMaxListItems of the matches.
    constexpr size_t kMaxListItems = 2000;
    std::vector<std::string> shown = FilterEntries(*items, QueryValue(query, "q"));
    const size_t matching = shown.size();
    if (shown.size() > kMaxListItems) shown.resize(kMaxListItems);
    return Reply(200, json{{"name", name},
                           {"items", shown},
                           {"total", items->size()},
                           {"matching", matching},
                           {"fetchable", model_.ListFetchable(name)},
                           {"note", model_.ListNote(name)}});
  }
  if (path == "passwords") {
    json calls = json::array();
    for (const ConsolePassword& p : model_.PasswordCalls()) {
      calls.push_back({{"call", p.call}, {"level", p.level}, {"password", "set"}});
    }
    return Reply(200, json{{"calls", calls}});
  }
  if (path == "users") {
    const size_t offset = size_t(std::max(0, ParseIntOr(QueryValue(query, "offset"), 0)));
    const size_t limit = size_t(std::clamp(ParseIntOr(QueryValue(query, "limit"), 50), 1, 500));
    const ConsoleUserPage page = model_.Users(QueryValue(query, "q"), offset, limit);
    json users = json::array();
    for (const ConsoleUser& u : page.users) users.push_back(UserJson(u));
    return Reply(200, json{{"total", page.total}, {"offset", page.offset}, {"users", users}});
  }
  if (path.starts_with("users/")) {
    std::string call;
    if (!PercentDecode(path.substr(6), call, false)) return Error(400, "bad call");
    const auto detail = model_.User(call);
    if (!detail) return Error(404, "no such user");
    json settings = json::array();
    for (const auto& [label, value] : detail->settings) settings.push_back({label, value});
    return Reply(200, json{{"user", UserJson(detail->user)},
                           {"settings", settings},
                           {"filters", detail->filters}});
  }
  if (path == "settings") {
    json groups = json::array();
    for (const ConsoleSettingsGroup& g : model_.Settings()) {
      json keys = json::array();
      for (const ConsoleSetting& k : g.keys) {
        keys.push_back({{"key", k.key},
                        {"value", k.value},
                        {"help", k.help},
                        {"readOnly", k.read_only},
                        {"kind", k.kind},
                        {"restart", k.restart}});
      }
      groups.push_back({{"name", g.name}, {"keys", keys}});
    }
    return Reply(200, json{{"groups", groups}});
  }
  if (path == "logon") {
    json sections = json::array();
    for (const std::string& s : model_.LogonSections()) {
      sections.push_back({{"section", s}, {"text", model_.LogonMessage(s).value_or("")}});
    }
    return Reply(200, json{{"sections", sections}});
  }
  if (path == "links") {
    json nodes = json::array();
    for (const ConsoleNode& n : model_.DefinedNodes()) {
      nodes.push_back({{"call", n.call},
                       {"type", n.type},
                       {"local", n.local},
                       {"addresses", n.addresses},
                       {"password", n.has_password ? "set" : ""}});
    }
    json links = json::array();
    for (const ConsoleLink& l : model_.Links()) {
      links.push_back({{"name", l.name},
                       {"remoteKind", l.remote_kind},
                       {"address", l.address},
                       {"port", l.port},
                       {"active", l.active},
                       {"state", l.state},
                       {"stream", l.stream},
                       {"lastError", l.last_error}});
    }
    return Reply(200, json{{"nodes", nodes}, {"links", links}});
  }
  if (path == "stats") {
    const ConsoleStats s = model_.Statistics();
    json feeds = json::array();
    for (const ConsoleFeed& f : s.feeds) {
      feeds.push_back(json{{"name", f.name},
                           {"type", f.type},
                           {"state", f.state},
                           {"linesPerMinute", f.lines_per_minute},
                           {"spotsPerMinute", f.spots_per_minute},
                           {"counts", f.counts}});
    }
    return Reply(200, json{{"feeds", feeds},
                           {"users", s.users},
                           {"nodes", s.nodes},
                           {"spotsPerMinute", s.spots_per_minute},
                           {"highestSpotsPerMinute", s.highest_spots_per_minute},
                           {"refusals", s.refusals},
                           {"pc41", s.pc41_counts},
                           {"linkPeakPending", s.link_peak_pending},
                           {"linkSpotsShed", s.link_spots_shed},
                           {"linkSpotsWaiting", s.link_spots_waiting},
                           {"uptimeSeconds", s.uptime_seconds},
                           {"uptime", UptimeText(std::chrono::seconds(s.uptime_seconds))},
                           {"history", s.spots_per_minute_history}});
  }
  if (path == "downloads") {
    json files = json::array();
    for (const ConsoleDownload& d : model_.Downloads()) {
      files.push_back({{"file", d.file},
                       {"url", d.url},
                       {"busy", d.busy},
                       {"outcome", d.outcome},
                       {"lastSuccess", UnixSeconds(d.last_success)},
                       {"next", d.next ? json(UnixSeconds(*d.next)) : json(nullptr)}});
    }
    return Reply(200, json{{"files", files}, {"program", model_.UpdateCheckOutcome()}});
  }
  if (path == "mail") {
    json list = json::array();
    for (const ConsoleMail& m : model_.MailList()) list.push_back(MailJson(m));
    return Reply(200, json{{"messages", list}});
  }
  if (path == "mail/read") {
    const std::optional<int> number = MailNumber(QueryValue(query, "number"));
    if (!number) return Error(400, "message number needed");
    const std::optional<ConsoleMail> m = model_.MailRead(*number);
    if (!m) return Error(404, "no message " + std::to_string(*number));
    json j = MailJson(*m);
    j["text"] = m->text;  // present even when empty
    return Reply(200, j);
  }
  if (path == "monitor/view") return Reply(200, json{{"view", model_.MonitorView()}});
  if (path == "monitor/history") return MonitorHistory(query);
  if (path == "spots") return Spots(query);
  if (path == "logs") return Reply(200, json{{"files", model_.LogFiles()}});
  if (path == "logs/tail") {
    const int lines = std::clamp(ParseIntOr(QueryValue(query, "lines"), 200), 1, 5000);
    const auto text = model_.TailLog(QueryValue(query, "name"), size_t(lines));
    if (!text) return Error(404, "no such log");
    return Reply(200, json{{"lines", *text}});
  }
  if (path == "logs/search") {
    const auto hits = model_.SearchLog(QueryValue(query, "name"), QueryValue(query, "q"), 500);
    if (!hits) return Error(404, "no such log");
    return Reply(200, json{{"lines", *hits}});
  }
  return Error(404, "not found");
}

// The Spots page: one UTC day's spots from its file, with the refusals of that day still
// remembered among them, newest first.  q looks in every text column; band is a band name;
// refused is "include" (the default), "only" or "hide".
ApiReply ConsoleApi::Spots(std::string_view query) {
  SysTime day{};
  const std::string day_text = QueryValue(query, "day");
  if (day_text.empty()) {
    day = std::chrono::floor<std::chrono::days>(std::chrono::system_clock::now());
  } else if (!ParseDay(day_text, day)) {
    return Error(400, "day must be a date like 2026-11-24");
  }
  const std::string refused = QueryValue(query, "refused");
  if (!refused.empty() && refused != "include" && refused != "only" && refused != "hide") {
    return Error(400, "refused is include, only or hide");
  }
  const std::string q(Trim(QueryValue(query, "q")));
  const std::string band(Trim(QueryValue(query, "band")));
  const int limit = std::clamp(ParseIntOr(QueryValue(query, "limit"), kDefaultRows), 1, kMaxRows);

  std::vector<ConsoleSpot> rows;
  if (refused != "only") rows = model_.SpotsOfDay(day);
  if (refused != "hide") {
    const SysTime end = day + std::chrono::days(1);
    for (ConsoleSpot& r : model_.RecentRefusals()) {
      if (r.time >= day && r.time < end) rows.push_back(std::move(r));
    }
  }
  // Both come oldest first; the page wants the newest first, refusals in their place.
  std::stable_sort(rows.begin(), rows.end(),
                   [](const ConsoleSpot& a, const ConsoleSpot& b) { return a.time > b.time; });
  json list = json::array();
  size_t matched = 0;
  for (const ConsoleSpot& r : rows) {
    if (!band.empty() && !EqualsIgnoreCase(r.band, band)) continue;
    if (!SpotMatches(r, q)) continue;
    if (++matched <= size_t(limit)) list.push_back(SpotJson(r));
  }
  return Reply(200, json{{"day", DayText(day)}, {"matched", matched}, {"spots", list}});
}

// What the monitor showed lately, oldest first: the last `limit` lines that hold q (case
// ignored), of one stream when stream is given, of one channel when ch is given.
ApiReply ConsoleApi::MonitorHistory(std::string_view query) {
  const std::string q = QueryValue(query, "q");
  const std::string ch = QueryValue(query, "ch");
  const std::string stream_text = QueryValue(query, "stream");
  long long stream = 0;
  if (!stream_text.empty() && (!ParseInt(stream_text, stream) || stream < 0)) {
    return Error(400, "stream must be a stream number");
  }
  const int limit = std::clamp(ParseIntOr(QueryValue(query, "limit"), 2000), 1, kMaxRows);
  const std::vector<MonitorRecord> history = model_.monitor().History();
  std::vector<const MonitorRecord*> hits;
  for (auto it = history.rbegin(); it != history.rend() && hits.size() < size_t(limit); ++it) {
    if (stream != 0 && it->stream != stream) continue;
    if (!ch.empty() && MonitorChannelName(it->channel) != ch) continue;
    if (!q.empty() && !ContainsIgnoreCase(it->text, q)) continue;
    hits.push_back(&*it);
  }
  json lines = json::array();
  for (auto it = hits.rbegin(); it != hits.rend(); ++it) {
    const MonitorRecord& r = **it;
    lines.push_back(
        MonitorLineJson(MonitorLine{r.channel, r.stream, r.colour, r.text, r.direction, r.time}));
  }
  return Reply(200, json{{"lines", lines}});
}

ApiReply ConsoleApi::Post(std::string_view path, const json& body) {
  if (path == "streams/disconnect") {
    const auto it = body.find("stream");
    if (it == body.end() || !it->is_number_integer()) return Error(400, "stream number needed");
    return FromResult(model_.DisconnectStream(it->get<int>()));
  }
  if (path.starts_with("lists/")) {
    const std::string_view rest = path.substr(6);
    const size_t slash = rest.rfind('/');
    if (slash == std::string_view::npos) return Error(404, "not found");
    std::string name;
    if (!PercentDecode(rest.substr(0, slash), name, false)) return Error(400, "bad list name");
    const std::string_view action = rest.substr(slash + 1);
    if (!model_.ListItems(name)) return Error(404, "no such list");
    if (action == "import") {
      const auto text = body.find("text");
      if (text == body.end() || !text->is_string()) return Error(400, "text needed");
      const ConsoleImport r = model_.ListImport(name, text->get<std::string>());
      if (!r.error.empty()) return Error(400, r.error);
      return Reply(
          200,
          json{{"ok", true}, {"added", r.added}, {"already", r.already}, {"refused", r.refused}});
    }
    if (action == "fetch") {
      const std::string url(Trim(StringField(body, "url")));
      if (url.empty() || !CleanValue(url)) return Error(400, "an address (http:// or https://)");
      return FromResult(model_.ListFetch(name, url));
    }
    const std::string item(Trim(StringField(body, "item")));
    if (item.empty() || !CleanValue(item)) return Error(400, "item must be one line of text");
    if (action == "add") return FromResult(model_.ListAdd(name, item));
    if (action == "remove") return FromResult(model_.ListRemove(name, item));
    return Error(404, "not found");
  }
  if (path == "settings") {
    const auto it = body.find("changes");
    if (it == body.end() || !it->is_object()) return Error(400, "changes needed");
    std::vector<std::pair<std::string, std::string>> changes;
    for (const auto& [key, value] : it->items()) {
      if (!value.is_string()) return Error(400, "value of " + key + " must be text");
      const std::string v = value.get<std::string>();
      if (!CleanValue(key) || !CleanValue(v)) {
        return Error(400, "value of " + key + " must be one line without ^");
      }
      changes.emplace_back(key, v);
    }
    return FromResult(model_.SaveSettings(changes));
  }
  if (path == "logon") {
    const std::string section = StringField(body, "section");
    const auto it = body.find("text");
    if (it == body.end() || !it->is_string()) return Error(400, "text needed");
    if (!model_.LogonMessage(section)) return Error(404, "no such section");
    return FromResult(model_.SetLogonMessage(section, it->get<std::string>()));
  }
  if (path == "links/save") {
    ConsoleLink link;
    link.name = std::string(Trim(StringField(body, "name")));
    link.remote_kind = std::string(Trim(StringField(body, "remoteKind")));
    link.address = std::string(Trim(StringField(body, "address")));
    long long port = 0;
    if (link.name.empty() || link.address.empty()) return Error(400, "name and address needed");
    if (!ParseInt(StringField(body, "port"), port) || port < 1 || port > 65535) {
      return Error(400, "port must be a number from 1 to 65535");
    }
    link.port = int(port);
    const auto active = body.find("active");
    link.active = active != body.end() && active->is_boolean() && active->get<bool>();
    if (!CleanValue(link.name) || !CleanValue(link.remote_kind) || !CleanValue(link.address)) {
      return Error(400, "values must be one line without ^");
    }
    return FromResult(model_.SaveLink(link));
  }
  if (path == "passwords/set") {
    const std::string call(Trim(StringField(body, "call")));
    const std::string password = StringField(body, "password");
    long long level = 0;
    const std::string level_text = StringField(body, "level");
    if (!level_text.empty() && (!ParseInt(level_text, level) || level < 0 || level > 9)) {
      return Error(400, "the level is a number from 0 to 9");
    }
    if (call.empty() || !CleanValue(call)) return Error(400, "a call is needed");
    if (password.empty() || !CleanValue(password) || Trim(password) != password) {
      return Error(400, "a password is one line without ^ and without blanks at either end");
    }
    return FromResult(model_.SetPassword(call, password, int(level)));
  }
  if (path == "passwords/remove")
    return FromResult(model_.RemovePassword(StringField(body, "call")));
  if (path == "nodes/save") {
    ConsoleNode node;
    node.call = std::string(Trim(StringField(body, "call")));
    node.type = std::string(Trim(StringField(body, "type")));
    node.addresses = std::string(Trim(StringField(body, "addresses")));
    const auto local = body.find("local");
    node.local = local != body.end() && local->is_boolean() && local->get<bool>();
    const std::string password = StringField(body, "password");
    if (node.call.empty()) return Error(400, "the node's call is needed");
    if (!CleanValue(node.call) || !CleanValue(node.type) || !CleanValue(node.addresses) ||
        !CleanValue(password) || Trim(password) != password) {
      return Error(400, "values must be one line without ^");
    }
    return FromResult(model_.SaveNode(node, password));
  }
  if (path == "nodes/remove") return FromResult(model_.RemoveNode(StringField(body, "call")));
  if (path == "users/lockout") {
    const std::string call(Trim(StringField(body, "call")));
    const auto locked = body.find("locked");
    if (call.empty() || !CleanValue(call)) return Error(400, "a call is needed");
    if (locked == body.end() || !locked->is_boolean()) return Error(400, "locked: true or false");
    return FromResult(model_.SetUserLockedOut(call, locked->get<bool>()));
  }
  if (path == "links/remove") return FromResult(model_.RemoveLink(StringField(body, "name")));
  if (path == "links/connect") return FromResult(model_.ConnectLink(StringField(body, "name")));
  if (path == "links/disconnect") {
    return FromResult(model_.DisconnectLink(StringField(body, "name")));
  }
  // The monitor view is a setting of the running console, like the selector beside the
  // desktop monitor: it changes what the node shows from now on and is not saved anywhere,
  // so a restarted node shows all traffic again.
  if (path == "monitor/view") {
    const auto it = body.find("view");
    if (it == body.end() || !it->is_number_integer()) {
      return Error(400, "view needed: 0 (all traffic) or 1 (node traffic)");
    }
    const long long view = it->get<long long>();
    if (view < INT_MIN || view > INT_MAX) {
      return Error(400, "the monitor view is 0 (all traffic) or 1 (node traffic)");
    }
    const ConsoleResult r = model_.SetMonitorView(int(view));
    if (!r.ok) return Error(400, r.error);
    return Reply(200, json{{"ok", true}, {"view", model_.MonitorView()}});
  }
  if (path == "mail/delete" || path == "mail/requeue") {
    const std::optional<int> number = MailNumber(StringField(body, "number"));
    if (!number) return Error(400, "message number needed");
    return FromResult(path == "mail/delete" ? model_.MailDelete(*number)
                                            : model_.MailRequeue(*number));
  }
  if (path == "downloads/update") return FromResult(model_.UpdateReferenceData());
  if (path == "restart") {
    const auto it = body.find("confirm");
    if (it == body.end() || !it->is_boolean() || !it->get<bool>()) {
      return Error(400, "restart needs confirm: true");
    }
    return FromResult(model_.Restart());
  }
  if (path == "shutdown") {
    const auto it = body.find("confirm");
    if (it == body.end() || !it->is_boolean() || !it->get<bool>()) {
      return Error(400, "shut-down needs confirm: true");
    }
    shutdown_requested_ = true;
    return Reply(200, json{{"ok", true}});
  }
  return Error(404, "not found");
}

}  // namespace qx
