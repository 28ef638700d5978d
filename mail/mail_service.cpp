#include "mail/mail_service.h"

#include <fmt/format.h>

#include <algorithm>

#include "core/file_util.h"
#include "core/text_util.h"
#include "spots/call_sign.h"

namespace qx {
namespace {

constexpr size_t kMaxAddressees = 10;
constexpr int kListDefault = 20;
constexpr int kListMax = 200;
constexpr std::string_view kTextPrompt =
    "Enter the message text; end with /EX on a line of its own, or /ABORT to cancel:";

bool ParseNumber(std::string_view text, int& out) {
  long long n = 0;
  if (!ParseInt(Trim(text), n) || n < 1 || n > 99999999) return false;
  out = int(n);
  return true;
}

std::string CutSubject(std::string_view s) {
  return std::string(Trim(s.substr(0, std::min(s.size(), kMailSubjectMax))));
}

}  // namespace

MailService::MailService(MailServiceDeps deps) : deps_(std::move(deps)) {
  bulletin_addresses_.insert("ALL");
}

void MailService::SetBulletinAddresses(const std::vector<std::string>& addresses) {
  bulletin_addresses_.clear();
  bulletin_addresses_.insert("ALL");
  for (const std::string& a : addresses) {
    if (!Trim(a).empty()) bulletin_addresses_.insert(ToUpper(Trim(a)));
  }
}

bool MailService::IsBulletinAddress(std::string_view to) const {
  return bulletin_addresses_.contains(ToUpper(Trim(to)));
}

void MailService::Send(int stream, std::string_view line) {
  std::string text(line);
  text += "\r\n";
  deps_.out->SendToStream(stream, text);
}

void MailService::Log(std::string_view text) const {
  if (deps_.log) deps_.log("Mail", text);
}

std::string MailService::CallOf(int stream) const {
  return ToUpper(BaseCall(deps_.streams->at(stream).call));
}

bool MailService::Sysop(int stream) const { return deps_.streams->at(stream).privilege > 0; }

bool MailService::Visible(const MailMessage& m, std::string_view call) const {
  if (m.deleted) return false;
  return !m.is_private || EqualsIgnoreCase(m.from, call) || EqualsIgnoreCase(m.to, call);
}

std::vector<std::string> MailService::Command(int stream, std::string_view verb,
                                              std::string_view args) {
  args = Trim(args);
  if (verb == "SEND" || verb == "SP") {
    Draft d;
    const std::string error = Address(args, verb == "SP", d);
    if (!error.empty()) return {error};
    const std::string to = Join(d.to, " ");
    drafts_[stream] = std::move(d);
    SaveDraft(stream);
    return {fmt::format("Sending {} to {}. Enter the subject ({} characters at most):",
                        drafts_[stream].is_private ? "a private message" : "a bulletin", to,
                        kMailSubjectMax)};
  }
  if (verb == "READ") return Read(stream, args);
  if (verb == "REPLY") return Reply(stream, args);
  if (verb == "KILL" || verb == "DELETE") return Kill(stream, args);
  if (verb == "DIRECTORY" || verb == "LIST") return List(stream, args);
  if (!Sysop(stream)) return {std::string(verb) + " - sysop command error"};
  if (verb == "PURGE") return {fmt::format("Purged {} messages.", Purge(purge_days_))};
  if (verb == "INITITIALISE") return {fmt::format("Mail index rebuilt: {} messages.", Rebuild())};
  return {std::string(verb) + " command error"};
}

std::string MailService::Address(std::string_view args, bool force_private, Draft& d) const {
  if (args.empty()) {
    return force_private ? "Usage: SP <call>"
                         : "Usage: SEND <call> [<call> ...], or SEND <bulletin address> such as "
                           "SEND ALL";
  }
  bool bulletin = false;
  for (std::string_view word : Split(args, ' ')) {
    word = Trim(word);
    if (word.empty()) continue;
    std::string call = ToUpper(word);
    if (IsBulletinAddress(call)) {
      if (force_private)
        return call + " is a bulletin address; SEND " + call + " sends a bulletin.";
      bulletin = true;
    } else if (!ValidCall(call, /*strict=*/false, CallCheckContext{})) {
      return std::string(word) + " is not a valid call.";
    } else {
      call = std::string(BaseCall(call));
    }
    if (std::find(d.to.begin(), d.to.end(), call) == d.to.end()) d.to.push_back(call);
  }
  if (d.to.empty()) return "Usage: SEND <call>";
  if (bulletin && d.to.size() > 1) return "A bulletin goes to one address alone.";
  if (d.to.size() > kMaxAddressees) {
    return fmt::format("At most {} addressees in one SEND.", kMaxAddressees);
  }
  d.is_private = !bulletin;
  return {};
}

void MailService::OnEditorLine(int stream, std::string_view raw) {
  const auto it = drafts_.find(stream);
  if (it == drafts_.end()) return;
  Draft& d = it->second;
  const std::string_view line = Trim(raw);
  // A logging program's keep-alive is no part of the text.
  if (EqualsIgnoreCase(line, "KeepAlive")) return;
  if (EqualsIgnoreCase(line, "/ABORT")) {
    Send(stream, "Message aborted; nothing was saved.");
    Close(stream);
    return;
  }
  if (!d.have_subject) {
    if (line.empty()) {
      Send(stream, "A message needs a subject: enter the subject, or /ABORT to cancel:");
      return;
    }
    d.subject = CutSubject(line);
    d.have_subject = true;
    if (line.size() > kMailSubjectMax) {
      Send(stream, fmt::format("Subject cut to {} characters: {}", kMailSubjectMax, d.subject));
    }
    SaveDraft(stream);
    Send(stream, kTextPrompt);
    return;
  }
  // Ctrl-Z ends the text too; a terminal that cannot send it may type "^Z".
  if (EqualsIgnoreCase(line, "/EX") || line == "\x1a" || line == "^Z") {
    Draft done = std::move(d);
    drafts_.erase(it);
    RemoveDraft(stream);
    Finish(stream, std::move(done));
    return;
  }
  if (d.lines.size() >= kMailLinesMax) {
    if (!d.over_long) {
      d.over_long = true;
      SaveDraft(stream);
      Send(stream, fmt::format("The message is full ({} lines); later lines are not kept. /EX "
                               "sends what there is, /ABORT cancels it.",
                               kMailLinesMax));
    }
    return;
  }
  std::string text(raw);
  while (!text.empty() && (text.back() == '\r' || text.back() == '\n')) text.pop_back();
  if (text.size() > kMailLineMax) text.resize(kMailLineMax);
  d.lines.push_back(std::move(text));
  SaveDraft(stream);
}

void MailService::Finish(int stream, Draft d) {
  const std::string from = CallOf(stream);
  for (const std::string& to : d.to) {
    MailMessage m;
    m.from = from;
    m.to = to;
    m.time = deps_.clock->Now();
    m.subject = d.subject;
    m.is_private = d.is_private;
    m.origin = deps_.node_call;
    m.text = d.lines;
    if (m.is_private && deps_.home_node) {
      const std::string home = ToUpper(Trim(deps_.home_node(to)));
      if (!home.empty() && !EqualsIgnoreCase(home, deps_.node_call)) m.bound_for = home;
    }
    if (!deps_.store->Add(m)) {
      Send(stream, "Message to " + to + " could not be saved; please try again later.");
      Log("cannot write message " + std::to_string(m.number) + " from " + from);
      continue;
    }
    Send(stream, fmt::format("Message no {} saved and directed to {}", m.number, to));
    Announce(m);
    if (deps_.stored) deps_.stored(m.number);
  }
  Close(stream);
}

void MailService::Close(int stream) {
  if (drafts_.erase(stream)) RemoveDraft(stream);
  if (deps_.prompt) deps_.prompt(stream);
}

std::vector<std::string> MailService::Read(int stream, std::string_view args) {
  const std::string call = CallOf(stream);
  int number = 0;
  if (args.empty()) {
    for (const auto& [n, m] : deps_.store->index()) {
      if (m.is_private && !m.read && !m.deleted && m.to == call) {
        number = n;
        break;
      }
    }
    if (number == 0) return {"You have no unread mail."};
  } else if (!ParseNumber(args, number)) {
    return {"Usage: READ [message number]"};
  }
  const MailMessage* h = deps_.store->Find(number);
  if (!h || h->deleted) return {fmt::format("Message {} not found.", number)};
  if (!Visible(*h, call))
    return {fmt::format("Message {} is a private message for someone else.", number)};
  MailMessage m;
  if (!deps_.store->ReadFull(number, m)) {
    Log(fmt::format("message {} is indexed but its file cannot be read", number));
    return {fmt::format("Message {} cannot be read just now.", number)};
  }
  std::vector<std::string> out;
  out.push_back(fmt::format("Msg# {} from {} to {}, {} {}, {}", m.number, m.from, m.to,
                            DateText(m.time), TimeHHnnZ(m.time),
                            m.is_private ? "private" : "bulletin"));
  out.push_back("Subject: " + m.subject);
  out.insert(out.end(), m.text.begin(), m.text.end());
  out.push_back(fmt::format("End of message {}", m.number));
  last_read_[stream] = number;
  if (m.is_private && !m.read && m.to == call) {
    deps_.store->Modify(number, [](MailMessage& x) { x.read = true; });
  }
  return out;
}

std::vector<std::string> MailService::Reply(int stream, std::string_view args) {
  int number = 0;
  if (!args.empty()) {
    if (!ParseNumber(args, number)) return {"Usage: REPLY [message number]"};
  } else if (const auto it = last_read_.find(stream); it != last_read_.end()) {
    number = it->second;
  } else {
    return {"No message to reply to: READ one first, or REPLY <message number>."};
  }
  const MailMessage* m = deps_.store->Find(number);
  if (!m || !Visible(*m, CallOf(stream))) return {fmt::format("Message {} not found.", number)};
  Draft d;
  d.to = {m->from};
  d.is_private = true;
  d.have_subject = true;
  d.subject =
      CutSubject(StartsWithIgnoreCase(m->subject, "Re:") ? m->subject : "Re: " + m->subject);
  std::vector<std::string> out{fmt::format("Replying to {}, subject \"{}\".", m->from, d.subject),
                               std::string(kTextPrompt)};
  drafts_[stream] = std::move(d);
  SaveDraft(stream);
  return out;
}

std::vector<std::string> MailService::Kill(int stream, std::string_view args) {
  if (args.empty()) return {"Usage: KILL <message number> [<message number> ...]"};
  const std::string call = CallOf(stream);
  std::vector<std::string> out;
  for (std::string_view word : Split(args, ' ')) {
    if (Trim(word).empty()) continue;
    int number = 0;
    if (!ParseNumber(word, number)) {
      out.push_back(std::string(word) + " is not a message number.");
      continue;
    }
    const MailMessage* m = deps_.store->Find(number);
    if (!m || m->deleted) {
      out.push_back(fmt::format("Message {} not found.", number));
      continue;
    }
    const bool own = m->from == call || (m->is_private && m->to == call);
    if (!own && !Sysop(stream)) {
      out.push_back(fmt::format("Message {} is not yours to delete.", number));
      continue;
    }
    if (deps_.store->Modify(number, [](MailMessage& x) { x.deleted = true; })) {
      out.push_back(fmt::format("Message {} deleted.", number));
    } else {
      out.push_back(fmt::format("Message {} could not be deleted just now.", number));
      Log(fmt::format("cannot rewrite message {}", number));
    }
  }
  return out;
}

std::vector<std::string> MailService::List(int stream, std::string_view args) {
  int count = kListDefault;
  if (!args.empty() && !ParseNumber(args, count)) return {"Usage: DIR [count]"};
  count = std::min(count, kListMax);
  const std::string call = CallOf(stream);
  std::vector<const MailMessage*> shown;
  const auto& index = deps_.store->index();
  for (auto it = index.rbegin(); it != index.rend() && int(shown.size()) < count; ++it) {
    if (Visible(it->second, call)) shown.push_back(&it->second);
  }
  if (shown.empty()) return {"No messages."};
  std::vector<std::string> out{MailListHeader()};
  for (auto it = shown.rbegin(); it != shown.rend(); ++it) out.push_back(MailListRow(**it));
  return out;
}

std::vector<std::string> MailService::LoginNotices(int stream) {
  StreamEntry& e = deps_.streams->at(stream);
  const std::string call = CallOf(stream);
  std::vector<std::string> out;
  int bulletins = 0;
  for (const auto& [n, m] : deps_.store->index()) {
    if (m.deleted) continue;
    if (m.is_private && !m.read && m.to == call) {
      out.push_back("You have mail from " + m.from + ".   Message # " + std::to_string(n) + ".");
    } else if (!m.is_private && n > e.session.mail_number) {
      ++bulletins;
    }
  }
  if (bulletins > 0) {
    out.push_back(fmt::format("{} new bulletin{} since you were last told; DIR lists them.",
                              bulletins, bulletins == 1 ? "" : "s"));
  }
  const int last = deps_.store->last_number();
  if (last != e.session.mail_number) {
    e.session.mail_number = last;
    if (deps_.save_mail_number) deps_.save_mail_number(e.call, last);
  }
  return out;
}

void MailService::Announce(const MailMessage& m) {
  StreamTable& streams = *deps_.streams;
  for (int s = 1; s <= streams.high_socket(); ++s) {
    StreamEntry& e = streams.at(s);
    if (!e.IsUser() || e.login_stage != LoginStage::kLoggedIn) continue;
    const std::string_view call = BaseCall(e.call);
    if (m.is_private) {
      if (!EqualsIgnoreCase(call, m.to)) continue;
      Send(s, fmt::format("New mail has arrived for you from {}.   Message # {}, \"{}\"; READ {} "
                          "reads it.",
                          m.from, m.number, m.subject, m.number));
    } else {
      // A bulletin is a broadcast: whoever turned announcements off does not want this line
      // either, and the author knows already.
      if (!e.session.Has(kSwAnnouncements) || EqualsIgnoreCase(call, m.from)) continue;
      Send(s, fmt::format("New bulletin {} to {} from {}: {}", m.number, m.to, m.from, m.subject));
    }
    if (m.number > e.session.mail_number) {
      e.session.mail_number = m.number;
      if (deps_.save_mail_number) deps_.save_mail_number(e.call, m.number);
    }
  }
}

int MailService::Receive(MailMessage m) {
  const std::string key = m.Key();
  if (deps_.store->FindKey(key)) {
    Log("repeat of a message already here not taken: " + key);
    return 0;
  }
  if (m.text.size() > kMailLinesMax) m.text.resize(kMailLinesMax);
  m.read = m.deleted = m.keep = false;
  m.forwarded_to.clear();
  if (m.is_private) {
    std::string target = ToUpper(Trim(m.bound_for));
    if ((target.empty() || EqualsIgnoreCase(target, deps_.node_call)) && deps_.home_node) {
      target = ToUpper(Trim(deps_.home_node(m.to)));
    }
    m.bound_for = EqualsIgnoreCase(target, deps_.node_call) ? "" : target;
  } else {
    m.bound_for.clear();
  }
  if (!deps_.store->Add(m)) {
    Log("cannot write a message received from " + m.received_from);
    return 0;
  }
  Announce(m);
  if (deps_.stored) deps_.stored(m.number);
  return m.number;
}

std::filesystem::path MailService::DraftPath(int stream) const {
  return deps_.drafts_dir / fmt::format("{}.draft", stream);
}

void MailService::SaveDraft(int stream) {
  if (deps_.drafts_dir.empty()) return;
  Draft& d = drafts_.at(stream);
  d.call = CallOf(stream);
  std::error_code ec;
  std::filesystem::create_directories(deps_.drafts_dir, ec);
  // Written whole each time, so a stop or crash of the node leaves the previous step, never
  // half a file.  Not waited onto the disk: this runs for every line typed (or pasted) on the
  // node's one thread, and a draft need not outlive a power cut.
  if (!AtomicWriteFile(DraftPath(stream), FormatMailDraft(d), FileSync::kNone)) {
    Log(fmt::format("cannot keep the draft of {} on stream {}", d.call, stream));
  }
}

void MailService::RemoveDraft(int stream) {
  if (deps_.drafts_dir.empty()) return;
  std::error_code ec;
  std::filesystem::remove(DraftPath(stream), ec);
}

bool MailService::RestoreDraft(int stream) {
  if (deps_.drafts_dir.empty()) return false;
  const std::optional<std::string> text = ReadFileText(DraftPath(stream));
  if (!text) return false;
  std::string why;
  std::optional<Draft> d = ParseMailDraft(*text, &why);
  // The stream number may have gone to someone else meanwhile: the draft is its writer's.
  if (d && d->call != CallOf(stream)) why = "written by " + d->call + ", not " + CallOf(stream);
  if (!d || !why.empty()) {
    Log(fmt::format("draft of stream {} dropped: {}", stream, why));
    RemoveDraft(stream);
    return false;
  }
  drafts_[stream] = std::move(*d);
  return true;
}

void MailService::DropUnrestoredDrafts() {
  if (deps_.drafts_dir.empty()) return;
  std::error_code ec;
  for (const auto& f : std::filesystem::directory_iterator(deps_.drafts_dir, ec)) {
    const std::string name = f.path().filename().string();
    long long stream = 0;
    if (f.path().extension() == ".draft" &&
        ParseInt(std::string_view(name).substr(0, name.size() - 6), stream) &&
        drafts_.contains(int(stream))) {
      continue;
    }
    std::error_code remove_ec;
    std::filesystem::remove(f.path(), remove_ec);
  }
}

int MailService::Purge(int days) {
  const MailStore::PurgeResult r = deps_.store->Purge(deps_.clock->Now(), days);
  for (const std::string& e : r.errors) Log("purge: " + e);
  if (r.removed > 0) Log(fmt::format("purged {} messages", r.removed));
  return r.removed;
}

int MailService::Rebuild() {
  std::vector<std::string> notes;
  const int n = deps_.store->Rebuild(&notes);
  for (const std::string& note : notes) Log("not indexed: " + note);
  return n;
}

}  // namespace qx
