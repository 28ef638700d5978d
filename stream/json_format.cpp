#include "stream/json_format.h"

#include <fmt/format.h>

#include <chrono>
#include <cmath>

#include "core/text_util.h"
#include "spots/intake.h"

namespace qx {

namespace {

// Length of the UTF-8 sequence that starts text[i], 0 when it is no valid sequence.
size_t Utf8Length(std::string_view text, size_t i) {
  const auto byte = [&](size_t k) { return static_cast<unsigned char>(text[k]); };
  const unsigned char c = byte(i);
  size_t n = 0;
  unsigned min = 0;
  unsigned cp = 0;
  if (c >= 0xC2 && c <= 0xDF) {
    n = 2, cp = c & 0x1Fu, min = 0x80;
  } else if (c >= 0xE0 && c <= 0xEF) {
    n = 3, cp = c & 0x0Fu, min = 0x800;
  } else if (c >= 0xF0 && c <= 0xF4) {
    n = 4, cp = c & 0x07u, min = 0x10000;
  } else {
    return 0;
  }
  if (i + n > text.size()) return 0;
  for (size_t k = 1; k < n; ++k) {
    if ((byte(i + k) & 0xC0) != 0x80) return 0;
    cp = (cp << 6) | (byte(i + k) & 0x3Fu);
  }
  if (cp < min || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return 0;
  return n;
}

void Key(std::string& out, std::string_view key) {
  out += ",\"";
  out += key;
  out += "\":";
}

void StringKey(std::string& out, std::string_view key, std::string_view value) {
  if (value.empty()) return;
  Key(out, key);
  AppendJsonString(out, value);
}

void Begin(std::string& out, std::string_view type) {
  out += "{\"v\":";
  out += std::to_string(kJsonSchemaVersion);
  out += ",\"type\":\"";
  out += type;
  out += '"';
}

void End(std::string& out) { out += "}\r\n"; }

std::string_view SourceName(std::string_view tag) {
  if (tag == SourceTagText(SpotSource::kSkimmer)) return "skimmer";
  if (tag == SourceTagText(SpotSource::kReporter)) return "reporter";
  if (tag == SourceTagText(SpotSource::kWebGateway)) return "web";
  return "cluster";
}

void Station(std::string& out, std::string_view key, std::string_view call,
             const CountryInfo* country, std::string_view grid) {
  Key(out, key);
  out += "{\"call\":";
  AppendJsonString(out, call);
  if (country) {
    StringKey(out, "country", country->country);
    StringKey(out, "prefix", country->prefix);
    StringKey(out, "continent", country->continent);
    if (country->cq_zone > 0) out += fmt::format(",\"cq\":{}", country->cq_zone);
    if (country->itu_zone > 0) out += fmt::format(",\"itu\":{}", country->itu_zone);
  }
  StringKey(out, "grid", grid);
  out += '}';
}

// The verdict tag a feed puts last in its comment: "V3", "Q1", "?2", "B(K1ABC)" for a
// skimmer, "R5" for the reporter feed.
void FeedTag(std::string& out, const Spot& spot, std::string_view source) {
  std::string_view comment = Trim(spot.comment());
  const size_t blank = comment.rfind(' ');
  const std::string_view tag =
      blank == std::string_view::npos ? comment : comment.substr(blank + 1);
  if (tag.size() < 2) return;
  long long count = 0;
  if (source == "skimmer") {
    if (tag[0] == 'B' && tag[1] == '(' && tag.back() == ')') {
      out += ",\"skimmer\":{\"verdict\":\"B\",\"correction\":";
      AppendJsonString(out, tag.substr(2, tag.size() - 3));
      out += '}';
    } else if ((tag[0] == 'V' || tag[0] == 'Q' || tag[0] == '?') &&
               ParseInt(tag.substr(1), count) && count > 0) {
      out += fmt::format(",\"skimmer\":{{\"verdict\":\"{}\",\"count\":{}}}", tag[0], count);
    }
  } else if (source == "reporter" && tag[0] == 'R' && ParseInt(tag.substr(1), count) && count > 0) {
    out += fmt::format(",\"reporter\":{{\"count\":{}}}", count);
  }
}

// The time a spot names (its date and time slots), else when it arrived.
SysTime SpotTime(const Spot& spot) {
  SpotDate d;
  int hour = 0;
  int minute = 0;
  if (ParseSpotDate(spot.date(), d) && ParseSpotTime(spot.time(), hour, minute)) {
    return MakeUtc(d.year, d.month, d.day, hour, minute);
  }
  return spot.received;
}

}  // namespace

void AppendJsonString(std::string& out, std::string_view text) {
  out += '"';
  for (size_t i = 0; i < text.size();) {
    const unsigned char c = static_cast<unsigned char>(text[i]);
    if (c >= 0x80) {
      const size_t n = Utf8Length(text, i);
      if (n == 0) {
        out += "\\ufffd";
        ++i;
      } else {
        out.append(text, i, n);
        i += n;
      }
      continue;
    }
    switch (c) {
      case '"':
        out += "\\\"";
        break;
      case '\\':
        out += "\\\\";
        break;
      case '\n':
        out += "\\n";
        break;
      case '\r':
        out += "\\r";
        break;
      case '\t':
        out += "\\t";
        break;
      default:
        if (c < 0x20 || c == 0x7F) {
          out += fmt::format("\\u{:04x}", c);
        } else {
          out += char(c);
        }
    }
    ++i;
  }
  out += '"';
}

std::string IsoTime(SysTime t) {
  const auto secs = std::chrono::floor<std::chrono::seconds>(t);
  const auto days = std::chrono::floor<std::chrono::days>(secs);
  const std::chrono::year_month_day ymd{days};
  const std::chrono::hh_mm_ss hms{secs - days};
  return fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}Z", int(ymd.year()), unsigned(ymd.month()),
                     unsigned(ymd.day()), hms.hours().count(), hms.minutes().count(),
                     hms.seconds().count());
}

void AppendSpotJson(std::string& out, const Spot& spot, const SpotJsonFacts& facts) {
  Begin(out, "spot");
  if (spot.Id != 0) out += fmt::format(",\"id\":{}", spot.Id);
  StringKey(out, "time", IsoTime(SpotTime(spot)));
  const double khz = std::round(spot.FrequencyKHz * 100.0) / 100.0;
  out +=
      fmt::format(",\"freq_khz\":{},\"freq_hz\":{}", khz, std::llround(spot.FrequencyKHz * 1000));
  StringKey(out, "band", facts.band);
  if (!facts.mode.empty()) {
    StringKey(out, "mode", facts.mode);
    StringKey(out, "mode_source", facts.mode_source);
  }
  Station(out, "dx", spot.dx_call(), spot.dx_country, facts.dx_grid);
  Station(out, "spotter", spot.spotter(), spot.spotter_country, facts.spotter_grid);
  Key(out, "comment");
  AppendJsonString(out, spot.comment());
  StringKey(out, "origin", spot.origin_node());
  const std::string_view source = SourceName(spot.SourceTag);
  StringKey(out, "source", source);
  FeedTag(out, spot, source);
  out += spot.IsBeacon ? ",\"beacon\":true" : ",\"beacon\":false";
  End(out);
}

namespace {
// An announcement and a talk line carry the same fields; only the type differs.
std::string MessageJson(std::string_view type, SysTime time, std::string_view from,
                        std::string_view to, std::string_view text) {
  std::string out;
  Begin(out, type);
  StringKey(out, "time", IsoTime(time));
  StringKey(out, "from", from);
  StringKey(out, "to", to);
  Key(out, "text");
  AppendJsonString(out, text);
  End(out);
  return out;
}
}  // namespace

std::string AnnounceJson(SysTime time, std::string_view from, std::string_view to,
                         std::string_view text) {
  return MessageJson("announce", time, from, to, text);
}

std::string TalkJson(SysTime time, std::string_view from, std::string_view to,
                     std::string_view text) {
  return MessageJson("talk", time, from, to, text);
}

std::string PropagationJson(std::string_view kind, SysTime time, std::string_view line) {
  std::string out;
  Begin(out, kind);
  StringKey(out, "time", IsoTime(time));
  // "WWV de W1AW <18>: ..." names its sender third.
  const std::vector<std::string_view> words = Split(line, ' ');
  if (words.size() > 2 && words[1] == "de") StringKey(out, "from", words[2]);
  for (std::string_view word : words) {
    while (!word.empty() && (word.back() == ',' || word.back() == ';')) word.remove_suffix(1);
    const size_t eq = word.find('=');
    if (eq == 0 || eq == std::string_view::npos || eq + 1 >= word.size()) continue;
    const std::string key = ToUpper(word.substr(0, eq));
    bool plain = true;
    for (char c : key) plain = plain && ((c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9'));
    if (!plain) continue;
    std::string lower = key;
    for (char& c : lower) c = char(c >= 'A' && c <= 'Z' ? c + 32 : c);
    long long number = 0;
    if (ParseInt(word.substr(eq + 1), number)) {
      out += fmt::format(",\"{}\":{}", lower, number);
    } else {
      StringKey(out, lower, word.substr(eq + 1));
    }
  }
  Key(out, "text");
  AppendJsonString(out, line);
  End(out);
  return out;
}

std::string ReplyJson(const std::vector<std::string_view>& lines) {
  std::string out;
  Begin(out, "reply");
  out += ",\"text\":[";
  for (size_t i = 0; i < lines.size(); ++i) {
    if (i) out += ',';
    AppendJsonString(out, lines[i]);
  }
  out += ']';
  End(out);
  return out;
}

std::string HeartbeatJson(SysTime time, uint64_t last_id) {
  std::string out;
  Begin(out, "heartbeat");
  StringKey(out, "time", IsoTime(time));
  out += fmt::format(",\"last_id\":{}", last_id);
  End(out);
  return out;
}

std::string GapJson(uint64_t after, uint64_t next) {
  std::string out;
  Begin(out, "gap");
  out += fmt::format(",\"after\":{}", after);
  if (next != 0) out += fmt::format(",\"next\":{}", next);
  StringKey(out, "text", "spots after this number are no longer kept; some were missed");
  End(out);
  return out;
}

std::string DroppedJson(uint64_t count) {
  std::string out;
  Begin(out, "dropped");
  out += fmt::format(",\"count\":{}", count);
  StringKey(out, "text",
            fmt::format("{} {} dropped: the node could not keep up", count,
                        count == 1 ? "spot was" : "spots were"));
  End(out);
  return out;
}

std::string HelloJson(SysTime time, std::string_view node_call, std::string_view version,
                      std::string_view user, bool read_only, uint64_t last_id) {
  std::string out;
  Begin(out, "hello");
  StringKey(out, "time", IsoTime(time));
  StringKey(out, "node", node_call);
  StringKey(out, "version", version);
  StringKey(out, "user", user);
  out += read_only ? ",\"read_only\":true" : ",\"read_only\":false";
  out += fmt::format(",\"last_id\":{}", last_id);
  End(out);
  return out;
}

std::string ErrorJson(std::string_view text) {
  std::string out;
  Begin(out, "error");
  Key(out, "text");
  AppendJsonString(out, text);
  End(out);
  return out;
}

std::string TextAsJson(std::string_view text, std::string_view own_call, SysTime now) {
  std::string out;
  std::vector<std::string_view> reply;
  const auto flush = [&] {
    while (!reply.empty() && Trim(reply.back()).empty()) reply.pop_back();
    size_t first = 0;
    while (first < reply.size() && Trim(reply[first]).empty()) ++first;
    if (first < reply.size()) {
      out += ReplyJson(std::vector<std::string_view>(reply.begin() + long(first), reply.end()));
    }
    reply.clear();
  };
  // A line that names its sender: "<head><from>: <text>".
  const auto sender = [](std::string_view line, std::string_view head, std::string_view& from,
                         std::string_view& body) {
    if (!line.starts_with(head)) return false;
    const std::string_view rest = line.substr(head.size());
    const size_t colon = rest.find(": ");
    if (colon == std::string_view::npos || colon == 0) return false;
    from = rest.substr(0, colon);
    if (from.find(' ') != std::string_view::npos) return false;
    body = rest.substr(colon + 2);
    return true;
  };
  size_t start = 0;
  while (start < text.size()) {
    size_t end = text.find_first_of("\r\n", start);
    std::string_view line = text.substr(start, end == std::string_view::npos ? end : end - start);
    if (end == std::string_view::npos) {
      start = text.size();
    } else {
      start = end + 1;
      if (text[end] == '\r' && start < text.size() && text[start] == '\n') ++start;
    }
    while (!line.empty() && line.back() == '\a') line.remove_suffix(1);
    std::string_view from, body;
    std::string own_head = own_call.empty() ? std::string() : std::string(own_call) + " de ";
    if (sender(line, "To ALL de ", from, body) || sender(line, "To SYSOP de ", from, body) ||
        sender(line, "WX de ", from, body)) {
      flush();
      const std::string_view to = line.starts_with("WX")         ? "WX"
                                  : line.starts_with("To SYSOP") ? "SYSOP"
                                                                 : "ALL";
      out += AnnounceJson(now, from, to, body);
    } else if (!own_head.empty() && sender(line, own_head, from, body)) {
      flush();
      out += TalkJson(now, from, own_call, body);
    } else if (line.starts_with("WWV de ") || line.starts_with("WCY de ")) {
      flush();
      out += PropagationJson(line.starts_with("WWV") ? "wwv" : "wcy", now, line);
    } else {
      reply.push_back(line);
    }
  }
  flush();
  return out;
}

}  // namespace qx
