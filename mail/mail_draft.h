// A message a user is still writing, and the small file that lets it outlive a restart of
// the node: the front-end keeps the user's connection, so after the restart the next line
// they type must land in the same editor, at the same step.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace qx {

struct MailDraft {
  std::string call;  // the writer, so a stream number given to someone else never matches
  std::vector<std::string> to;
  bool is_private = true;
  bool have_subject = false;
  std::string subject;
  std::vector<std::string> lines;
  bool over_long = false;  // the writer was told the text is full
};

// "Key: value" header lines, a blank line, then the text lines, each in CR LF.
std::string FormatMailDraft(const MailDraft& d);
// nullopt (with why) for a file that is not a draft.
std::optional<MailDraft> ParseMailDraft(std::string_view text, std::string* why = nullptr);

}  // namespace qx
