#include "mail/mail_draft.h"

#include <fmt/format.h>

#include "core/text_util.h"

namespace qx {

std::string FormatMailDraft(const MailDraft& d) {
  std::string out;
  out += fmt::format("Call: {}\r\n", d.call);
  out += fmt::format("To: {}\r\n", Join(d.to, " "));
  out += fmt::format("Private: {}\r\n", d.is_private ? 1 : 0);
  out += fmt::format("HaveSubject: {}\r\n", d.have_subject ? 1 : 0);
  out += fmt::format("Subject: {}\r\n", d.subject);
  out += fmt::format("Full: {}\r\n", d.over_long ? 1 : 0);
  out += "\r\n";
  for (const std::string& line : d.lines) out += line + "\r\n";
  return out;
}

std::optional<MailDraft> ParseMailDraft(std::string_view text, std::string* why) {
  auto fail = [&](std::string_view reason) -> std::optional<MailDraft> {
    if (why) *why = std::string(reason);
    return std::nullopt;
  };
  MailDraft d;
  bool in_header = true;
  bool complete = false;  // the blank line after the header was seen
  size_t pos = 0;
  while (pos < text.size()) {
    size_t end = text.find('\n', pos);
    if (end == std::string_view::npos) return fail("last line not ended");
    std::string_view line = text.substr(pos, end - pos);
    if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
    pos = end + 1;
    if (!in_header) {
      d.lines.emplace_back(line);
      continue;
    }
    if (line.empty()) {
      in_header = false;
      complete = true;
      continue;
    }
    const size_t colon = line.find(':');
    if (colon == std::string_view::npos) return fail("header line without a colon");
    const std::string_view key = line.substr(0, colon);
    // Only the first blank after the colon is the separator: a subject may start with one.
    std::string_view value = line.substr(colon + 1);
    if (value.starts_with(' ')) value.remove_prefix(1);
    if (key == "Call") {
      d.call = ToUpper(Trim(value));
    } else if (key == "To") {
      for (std::string_view t : Split(value, ' ')) {
        if (!Trim(t).empty()) d.to.emplace_back(Trim(t));
      }
    } else if (key == "Private") {
      d.is_private = value == "1";
    } else if (key == "HaveSubject") {
      d.have_subject = value == "1";
    } else if (key == "Subject") {
      d.subject = std::string(value);
    } else if (key == "Full") {
      d.over_long = value == "1";
    }
  }
  if (!complete) return fail("header not complete");
  if (d.call.empty() || d.to.empty()) return fail("writer or addressee missing");
  return d;
}

}  // namespace qx
