#include "mail/mail_message.h"

#include <fmt/format.h>

#include <algorithm>
#include <chrono>

#include "core/text_util.h"
#include "spots/call_sign.h"

namespace qx {
namespace {

int64_t EpochSeconds(SysTime t) {
  return std::chrono::duration_cast<std::chrono::seconds>(t.time_since_epoch()).count();
}

// A call as a mail field holds it: upper case, and a call by the node's rules.
bool CallField(std::string_view text, std::string& out) {
  out = ToUpper(Trim(text));
  if (out.empty() || out.size() > 20) return false;
  std::string check = out;
  return ValidCall(check, /*strict=*/false, CallCheckContext{});
}

std::string_view KindName(MailSentence::Kind k) {
  switch (k) {
    case MailSentence::Kind::kHeader:
      return "PC28";
    case MailSentence::Kind::kLine:
      return "PC29";
    case MailSentence::Kind::kHeaderAck:
      return "PC30";
    case MailSentence::Kind::kLinesAck:
      return "PC31";
    case MailSentence::Kind::kEnd:
      return "PC32";
    case MailSentence::Kind::kEndAck:
      return "PC33";
    case MailSentence::Kind::kAbort:
      return "PC42";
  }
  return "PC42";
}

// Carets would split the sentence or the file line; peers write "~" for them.
std::string NoCarets(std::string_view text) {
  std::string out(text);
  std::replace(out.begin(), out.end(), '^', '~');
  return out;
}

bool Fail(std::string* why, std::string_view text) {
  if (why) *why = std::string(text);
  return false;
}

}  // namespace

std::string MailMessage::Key() const {
  return fmt::format("{}|{}|{}|{}|{}", ToUpper(origin), ToUpper(from), ToUpper(to),
                     EpochSeconds(time) / 60, NoCarets(subject));
}

bool MailMessage::ForwardedTo(std::string_view node) const {
  return std::any_of(forwarded_to.begin(), forwarded_to.end(),
                     [&](const std::string& n) { return EqualsIgnoreCase(n, node); });
}

std::string FormatMailFile(const MailMessage& m) {
  std::string out;
  out += fmt::format("Number: {}\r\n", m.number);
  out += fmt::format("From: {}\r\n", m.from);
  out += fmt::format("To: {}\r\n", m.to);
  out += fmt::format("Time: {}\r\n", EpochSeconds(m.time));
  out += fmt::format("Subject: {}\r\n", NoCarets(m.subject));
  out += fmt::format("Private: {}\r\n", m.is_private ? 1 : 0);
  out += fmt::format("Read: {}\r\n", m.read ? 1 : 0);
  out += fmt::format("Deleted: {}\r\n", m.deleted ? 1 : 0);
  out += fmt::format("Keep: {}\r\n", m.keep ? 1 : 0);
  out += fmt::format("Origin: {}\r\n", m.origin);
  out += fmt::format("ReceivedFrom: {}\r\n", m.received_from);
  out += fmt::format("BoundFor: {}\r\n", m.bound_for);
  out += fmt::format("ForwardedTo: {}\r\n", Join(m.forwarded_to, ","));
  out += "\r\n";
  for (const std::string& line : m.text) out += line + "\r\n";
  return out;
}

bool ParseMailFile(std::string_view text, MailMessage& m, std::string* why, bool with_text) {
  m = MailMessage{};
  bool in_header = true;
  bool have_number = false, have_from = false, have_to = false;
  // Lines end in CR LF; a lone LF (a file edited by hand) is taken too.
  size_t pos = 0;
  while (pos <= text.size()) {
    size_t end = text.find('\n', pos);
    if (end == std::string_view::npos) end = text.size();
    std::string_view line = text.substr(pos, end - pos);
    if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
    const bool at_end = end >= text.size();
    pos = end + 1;
    if (in_header) {
      if (line.empty()) {
        in_header = false;
        if (!with_text) break;
        continue;
      }
      const size_t colon = line.find(':');
      if (colon == std::string_view::npos) return Fail(why, "header line without a colon");
      const std::string_view key = line.substr(0, colon);
      const std::string_view value = Trim(line.substr(colon + 1));
      long long n = 0;
      if (key == "Number") {
        if (!ParseInt(value, n) || n <= 0 || n > 99999999) return Fail(why, "bad number");
        m.number = int(n);
        have_number = true;
      } else if (key == "From") {
        m.from = std::string(value);
        have_from = !value.empty();
      } else if (key == "To") {
        m.to = std::string(value);
        have_to = !value.empty();
      } else if (key == "Time") {
        if (!ParseInt(value, n) || n < 0 || n > 7'000'000'000LL) return Fail(why, "bad time");
        m.time = SysTime(std::chrono::seconds(n));
      } else if (key == "Subject") {
        m.subject = std::string(value);
      } else if (key == "Private") {
        m.is_private = value == "1";
      } else if (key == "Read") {
        m.read = value == "1";
      } else if (key == "Deleted") {
        m.deleted = value == "1";
      } else if (key == "Keep") {
        m.keep = value == "1";
      } else if (key == "Origin") {
        m.origin = std::string(value);
      } else if (key == "ReceivedFrom") {
        m.received_from = std::string(value);
      } else if (key == "BoundFor") {
        m.bound_for = std::string(value);
      } else if (key == "ForwardedTo") {
        for (std::string_view n : Split(value, ',')) {
          if (!Trim(n).empty()) m.forwarded_to.emplace_back(Trim(n));
        }
      }  // unknown keys are left for newer versions
    } else if (!(at_end && line.empty())) {
      m.text.emplace_back(line);
    }
    if (at_end) break;
  }
  if (!have_number || !have_from || !have_to) return Fail(why, "number, From or To missing");
  return true;
}

std::string MailListHeader() {
  return "  Msg# Flags From       To         Date        Time  Subject";
}

std::string MailListRow(const MailMessage& m) {
  std::string flags;
  flags += m.is_private ? 'P' : 'B';
  flags += m.read ? ' ' : 'N';
  if (m.keep) flags += 'K';
  return fmt::format("{:>6} {:<5} {:<10} {:<10} {} {} {}", m.number, flags, m.from, m.to,
                     DateText(m.time), TimeHHnnZ(m.time), m.subject);
}

std::optional<MailSentence> ParseMailSentence(std::string_view line, std::string* why) {
  while (!line.empty() && (line.back() == '\r' || line.back() == '\n')) line.remove_suffix(1);
  const std::vector<std::string_view> f = Split(line, '^');
  auto fail = [&](std::string_view text) -> std::optional<MailSentence> {
    Fail(why, text);
    return std::nullopt;
  };
  if (f.size() < 4 || f[0].size() != 4 || !f[0].starts_with("PC"))
    return fail("not a mail sentence");
  MailSentence s;
  const std::string_view head = f[0];
  if (head == "PC28") {
    s.kind = MailSentence::Kind::kHeader;
  } else if (head == "PC29") {
    s.kind = MailSentence::Kind::kLine;
  } else if (head == "PC30") {
    s.kind = MailSentence::Kind::kHeaderAck;
  } else if (head == "PC31") {
    s.kind = MailSentence::Kind::kLinesAck;
  } else if (head == "PC32") {
    s.kind = MailSentence::Kind::kEnd;
  } else if (head == "PC33") {
    s.kind = MailSentence::Kind::kEndAck;
  } else if (head == "PC42") {
    s.kind = MailSentence::Kind::kAbort;
  } else {
    return fail("not a mail sentence");
  }
  if (!CallField(f[1], s.to_node) || !CallField(f[2], s.from_node)) {
    return fail("node field is not a call");
  }
  if (s.kind != MailSentence::Kind::kHeader) {
    long long n = 0;
    if (!ParseInt(Trim(f[3]), n) || n < 1 || n > 999999) return fail("bad stream number");
    s.stream = int(n);
    if (s.kind == MailSentence::Kind::kLine) {
      // The text is everything between the stream and the closing "~" field.  A "^" the
      // author typed arrives as "~" and stays so (a "~" typed as such cannot be told from
      // it); a stray "^" that got through unreplaced is kept as "~" too.
      size_t last = f.size();
      if (last > 5 && f[last - 1].empty()) --last;  // "...^~" then "" after a final "^"
      if (last > 4 && f[last - 1] == "~") --last;
      std::string text;
      for (size_t i = 4; i < last; ++i) {
        if (i > 4) text += '~';
        text += f[i];
      }
      if (text.size() > kMailLineMax) text.resize(kMailLineMax);
      s.text = std::move(text);
    }
    return s;
  }
  // PC28 ^ to ^ from ^ addressee ^ author ^ date ^ time ^ private ^ subject ^ blank ^
  //   lines-per-ack ^ RR ^ blank ^ origin ^ ~
  if (f.size() < 14) return fail("PC28 too short");
  if (!CallField(f[4], s.author)) return fail("PC28 author is not a call");
  s.addressee = ToUpper(Trim(f[3]));
  if (s.addressee.empty() || s.addressee.size() > 20) return fail("PC28 without addressee");
  SpotDate date;
  int hour = 0, minute = 0;
  if (!ParseSpotDate(Trim(f[5]), date) || !ParseSpotTime(Trim(f[6]), hour, minute)) {
    return fail("PC28 date or time is not real");
  }
  // Far-off years are no mail date, and would not fit the clock's range.
  if (date.year < 1980 || date.year > 2200) return fail("PC28 date is out of range");
  s.time = MakeUtc(date.year, date.month, date.day, hour, minute);
  const std::string_view priv = Trim(f[7]);
  if (priv != "1" && priv != "0") return fail("PC28 private flag is not 0 or 1");
  s.is_private = priv == "1";
  s.subject = std::string(Trim(f[8]));
  if (s.subject.size() > kMailSubjectMax * 2) {
    s.subject = std::string(Trim(std::string_view(s.subject).substr(0, kMailSubjectMax * 2)));
  }
  long long per_ack = 5;
  if (!ParseInt(Trim(f[10]), per_ack) || per_ack < 1 || per_ack > 50) per_ack = 5;
  s.lines_per_ack = int(per_ack);
  if (!CallField(f[13], s.origin)) return fail("PC28 origin is not a call");
  return s;
}

std::string BuildMailSentence(const MailSentence& s) {
  const std::string_view head = KindName(s.kind);
  switch (s.kind) {
    case MailSentence::Kind::kHeader: {
      std::string date = DateText(s.time);
      if (date.starts_with('0')) date[0] = ' ';  // peers print the day space-padded
      return fmt::format("{}^{}^{}^{}^{}^{}^{}^{}^{}^ ^{}^0^ ^{}^~\r\n", head, s.to_node,
                         s.from_node, s.addressee, s.author, date, TimeHHnnZ(s.time),
                         s.is_private ? 1 : 0, NoCarets(s.subject), s.lines_per_ack, s.origin);
    }
    case MailSentence::Kind::kLine:
      return fmt::format("{}^{}^{}^{}^{}^~\r\n", head, s.to_node, s.from_node, s.stream,
                         NoCarets(s.text));
    default:
      return fmt::format("{}^{}^{}^{}^\r\n", head, s.to_node, s.from_node, s.stream);
  }
}

}  // namespace qx
