#include "console/console_api.h"

#include <chrono>
#include <climits>

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
    return Reply(200, json{{"name", name}, {"items", *items}});
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
      nodes.push_back({{"call", n.call}, {"type", n.type}, {"local", n.local}});
    }
    json links = json::array();
    for (const ConsoleLink& l : model_.Links()) {
      links.push_back({{"name", l.name},
                       {"remoteKind", l.remote_kind},
                       {"address", l.address},
                       {"port", l.port},
                       {"active", l.active},
                       {"state", l.state},
                       {"stream", l.stream}});
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
    const std::string item(Trim(StringField(body, "item")));
    if (item.empty() || !CleanValue(item)) return Error(400, "item must be one line of text");
    if (!model_.ListItems(name)) return Error(404, "no such list");
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
