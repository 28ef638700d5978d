#include "spots/intake.h"

#include <arpa/inet.h>

#include <array>
#include <cstring>

#include "core/error_log.h"
#include "core/file_util.h"
#include "core/invariant.h"
#include "core/monitor.h"
#include "core/program_dir.h"
#include "core/stream_table.h"
#include "core/text_util.h"
#include "spots/bad_lists.h"
#include "spots/bands.h"
#include "spots/call_sign.h"
#include "spots/dupes.h"
#include "spots/dx_command.h"
#include "spots/rate_limit.h"
#include "spots/spot_line.h"

namespace qx {

namespace {

constexpr size_t kMaxFields = 14;
// How much of an unreadable sentence the list of refusals keeps.
constexpr size_t kMaxKeptSentence = 300;
using Fields = std::array<std::string_view, kMaxFields>;

// Splits on "^" into at most kMaxFields views; a longer sentence reports kMaxFields + 1 so
// that the field-count rule refuses it.  Fields are short: a plain loop beats a library
// search per field.
size_t SplitFields(std::string_view text, Fields& out) {
  size_t n = 0;
  size_t start = 0;
  const char* p = text.data();
  for (size_t i = 0; i < text.size(); ++i) {
    if (p[i] != '^') continue;
    if (n == kMaxFields) return kMaxFields + 1;
    out[n++] = text.substr(start, i - start);
    start = i + 1;
  }
  if (n == kMaxFields) return kMaxFields + 1;
  out[n++] = text.substr(start);
  return n;
}

bool IsHopField(std::string_view f) {
  if (f.size() < 2 || f.front() != 'H') return false;
  for (size_t i = 1; i < f.size(); ++i) {
    if (f[i] < '0' || f[i] > '9') return false;
  }
  return true;
}

bool Contains(std::string_view text, std::string_view what) {
  return text.find(what) != std::string_view::npos;
}

constexpr std::string_view kInvalidDxCallReply = "Error - Invalid Dx Call\r\n";

}  // namespace

std::string_view VerdictName(SpotVerdict verdict) {
  switch (verdict) {
    case SpotVerdict::kAccepted:
      return "accepted";
    case SpotVerdict::kDoubleQuestionMark:
      return "double question mark";
    case SpotVerdict::kFieldCount:
      return "field count";
    case SpotVerdict::kBadDateTime:
      return "bad date or time";
    case SpotVerdict::kOutOfTime:
      return "too old or ahead of time";
    case SpotVerdict::kRefusedAddress:
      return "refused address";
    case SpotVerdict::kTorAddress:
      return "anonymity network address";
    case SpotVerdict::kInvalidDxCall:
      return "invalid DX call";
    case SpotVerdict::kSpotterNok:
      return "spotter refused";
    case SpotVerdict::kNodeNok:
      return "node refused";
    case SpotVerdict::kBadFrequency:
      return "bad frequency";
    case SpotVerdict::kRequest:
      return "request";
    case SpotVerdict::kBadWord:
      return "bad word";
    case SpotVerdict::kBadPhrase:
      return "bad phrase";
    case SpotVerdict::kBadWordSpotter:
      return "bad word spotter";
    case SpotVerdict::kBadWordDx:
      return "bad word DX";
    case SpotVerdict::kDxNok:
      return "DX call refused";
    case SpotVerdict::kSpotterTooLong:
      return "spotter call too long";
    case SpotVerdict::kSpotterNotIssued:
      return "spotter call not issued";
    case SpotVerdict::kSpotterCountryUnknown:
      return "spotter country unknown";
    case SpotVerdict::kDuplicate:
      return "duplicate";
    case SpotVerdict::kRateLimited:
      return "rate limited";
  }
  return "?";
}

// --- rules -------------------------------------------------------------------------------

std::string_view SkimmerModeWord(std::string_view upper_comment) {
  const std::string_view word = upper_comment.substr(0, upper_comment.find(' '));
  for (std::string_view mode : {"CW", "RTTY", "FT8", "FT4", "PSK", "MSK", "SSB"}) {
    if (word == mode) return mode;
  }
  if (word.starts_with("PSK")) return "PSK";
  if (word.starts_with("MSK")) return "MSK";
  return {};
}

bool ReadSkimmerTag(std::string_view comment, char& verdict, int& count) {
  verdict = 0;
  count = 0;
  while (!comment.empty() && comment.back() == ' ') comment.remove_suffix(1);
  const size_t blank = comment.rfind(' ');
  const std::string_view tag =
      blank == std::string_view::npos ? comment : comment.substr(blank + 1);
  if (tag.size() < 2) return false;
  if (tag[0] == 'B' && tag[1] == '(' && tag.back() == ')') {
    verdict = 'B';
    return true;
  }
  if (tag[0] != 'V' && tag[0] != 'Q' && tag[0] != '?') return false;
  int n = 0;
  for (char c : tag.substr(1)) {
    if (c < '0' || c > '9' || n > 9999) return false;
    n = n * 10 + (c - '0');
  }
  verdict = tag[0];
  count = n;
  return true;
}

uint32_t ClassifyMode(std::string_view c) {
  if (c.size() <= 2) return 0;
  if (Contains(c, "FT8")) return kModeFt8;
  if (Contains(c, "FT4")) return kModeFt4;
  if (Contains(c, "FT-8")) return kModeFt8;
  if (Contains(c, "FT-4")) return kModeFt4;
  if (Contains(c, "FOX") || Contains(c, "F/H")) return kModeFt8;
  if (Contains(c, "PSK")) return kModePsk;
  if (Contains(c, "RTTY")) return kModeRtty;
  if (Contains(c, "MSK")) return kModeMsk;
  return 0;
}

bool IsRequestComment(std::string_view c) {
  if (c.size() < 4) return false;
  if (c.front() == 'P' && Contains(c, "PLEASE ")) return true;
  if (c.starts_with("PSE ") || c.starts_with("PLS ")) return true;
  if (Contains(c, " PSE ") || Contains(c, " PLS ")) return true;
  // The first test is covered by the second; both stay as the rule was written.
  if (c.substr(0, 5) == " NIL ") return true;
  if (Contains(c, "NIL ")) return true;
  return false;
}

bool IsBeaconSpot(std::string_view dx_call, std::string_view upper_comment) {
  for (std::string_view end : {"/B", "/BC", "/BCN", "/BEACON"}) {
    if (dx_call.ends_with(end)) return true;
  }
  // "BCN" as a word of its own.
  size_t pos = 0;
  while ((pos = upper_comment.find("BCN", pos)) != std::string_view::npos) {
    const bool start_ok = pos == 0 || upper_comment[pos - 1] == ' ';
    const size_t end = pos + 3;
    const bool end_ok = end == upper_comment.size() || upper_comment[end] == ' ';
    if (start_ok && end_ok) return true;
    pos = end;
  }
  return false;
}

bool IsIpAddress(std::string_view text) {
  char buf[64];
  if (text.empty() || text.size() >= sizeof(buf)) return false;
  std::memcpy(buf, text.data(), text.size());
  buf[text.size()] = '\0';
  unsigned char addr[16];
  const int family = text.find(':') != std::string_view::npos ? AF_INET6 : AF_INET;
  return inet_pton(family, buf, addr) == 1;
}

namespace {

bool SpotFromFields(Fields& f, size_t n, Spot& spot) {
  const bool pc11 = f[0] == "PC11";
  // A peer that turns a "PC61" into a "PC11" may leave out the trailer ("...^H29"); such a
  // sentence is complete, so it counts as the ten fields it should have had.
  if (pc11 && n == 9 && IsHopField(f[8])) f[n++] = "~";
  if (n < 10 || n > 13) return false;
  for (int i = 0; i <= kSlotOriginNode; ++i) spot.slots[size_t(i)].assign(f[size_t(i)]);
  if (pc11) {
    spot.slots[kSlotAddress].clear();
    spot.slots[kSlotHops].assign(f[8]);
    spot.slots[kSlotTrailer].assign(f[9]);
  } else {
    spot.slots[kSlotAddress].assign(f[8]);
    spot.slots[kSlotHops].assign(f[9]);
    spot.slots[kSlotTrailer].assign(n > 10 ? f[10] : std::string_view("~"));
  }
  for (std::string& slot : spot.slots) StripControlChars(slot);
  // The frequency: decimal point or comma; the slot then holds the value as text again, so
  // "14025" and "14025,0" both become "14025.0".
  const std::string_view raw = f[1];
  char buf[32];
  double khz = 0;
  bool ok = false;
  if (raw.size() < sizeof(buf)) {
    std::memcpy(buf, raw.data(), raw.size());
    if (raw.find('.') == std::string_view::npos) {
      if (char* comma = static_cast<char*>(std::memchr(buf, ',', raw.size()))) *comma = '.';
    }
    ok = ParseDouble(std::string_view(buf, raw.size()), khz) && khz >= 0 && khz < 1e12;
  }
  spot.FrequencyKHz = ok ? khz : 0;
  if (ok) {
    size_t len = RoundedFrequencyText(khz, buf);
    if (std::memchr(buf, '.', len) == nullptr) {
      std::memcpy(buf + len, ".0", 2);
      len += 2;
    }
    spot.slots[kSlotFrequency].assign(buf, len);
  }
  return true;
}

}  // namespace

bool SpotFromSentence(std::string_view sentence, Spot& spot) {
  Fields f;
  const size_t n = SplitFields(sentence, f);
  return SpotFromFields(f, n, spot);
}

// --- intake ------------------------------------------------------------------------------

SpotIntake::SpotIntake(IntakeDeps deps, IntakeOptions options)
    : deps_(std::move(deps)), options_(options) {
  QX_INVARIANT(deps_.bad_lists != nullptr);
  QX_INVARIANT(deps_.bands != nullptr);
  QX_INVARIANT(deps_.clock != nullptr);
}

std::string_view SpotIntake::SourceCall() const {
  if (!deps_.streams || !deps_.streams->InRange(spot_.SourceStream)) return {};
  return deps_.streams->at(spot_.SourceStream).call;
}

void SpotIntake::Append(std::string_view folder, std::string_view file, std::string_view line) {
  if (!deps_.dir || trial_) return;
  const std::filesystem::path path = deps_.dir->Data(folder) / file;
  std::string text;
  text.reserve(line.size() + 2);
  text += line;
  text += "\r\n";
  if (!AppendToFile(path, text)) {
    std::error_code ec;
    std::filesystem::create_directories(path.parent_path(), ec);
    if (!AppendToFile(path, text) && deps_.error_log) {
      deps_.error_log->Write("SpotIntake", "cannot write " + path.string());
    }
  }
}

void SpotIntake::WriteRejection(std::string_view reason, std::string_view sentence) {
  if (!deps_.dir) return;
  const SysTime now = deps_.clock->Now();
  std::string line = TimeHHnnssZ(now);
  line += ' ';
  line += reason;
  line += sentence;
  const std::string day = DateText(now);
  if (reason == "Bad Node" || reason.starts_with("NodeNok")) {
    Append("badnodes", day + ".log", line);
  } else if (reason.substr(0, 10) == "SpotterNok") {
    Append("badspotters", day + ".log", line);
  } else {
    Append("badspots", "bad-" + day + ".txt", line);
  }
}

bool SpotIntake::BadWordCheck(std::string_view text, const Spot& spot, std::string_view label) {
  const std::string_view word = deps_.bad_lists->FindBadWord(text);
  if (word.empty()) return false;
  bad_word_.assign(word);
  if (deps_.dir) {
    const SysTime now = deps_.clock->Now();
    std::string line = Join(std::vector<std::string>(spot.slots.begin(), spot.slots.end()), "^");
    line += ' ';
    line += TimeHHnn(now + std::chrono::minutes(options_.local_offset_minutes));
    line += " BadWordCheck ";
    line += label;
    Append("badinfo", DateText(now) + ".log", line);
  }
  return true;
}

void SpotIntake::ShowInSpotList(std::string_view country_column, std::string_view marker,
                                std::string_view colour) {
  if (!deps_.monitor || trial_ || !deps_.monitor->HasSinks()) return;
  deps_.monitor->Write(MonitorChannel::kSpots, SpotListLine(spot_, country_column, marker), colour,
                       spot_.SourceStream);
}

IntakeResult SpotIntake::Refuse(SpotVerdict verdict, std::string rule, bool spot_read) {
  IntakeResult r;
  r.verdict = verdict;
  if (trial_) return r;
  // Duplicates come by the hundred on a well-connected node; they have a ring of their own,
  // so they never push the rarer refusals a sysop looks for out of sight.
  std::deque<SpotRefusal>& ring = verdict == SpotVerdict::kDuplicate ? duplicates_ : refusals_;
  if (ring.size() >= kRecentRefusals) ring.pop_front();
  SpotRefusal& kept = ring.emplace_back();
  kept.time = deps_.clock->Now();
  kept.verdict = verdict;
  kept.rule = rule.empty() ? std::string(VerdictName(verdict)) : std::move(rule);
  if (spot_read) {
    kept.spot = spot_;
  } else {
    kept.spot.slots[kSlotComment] = std::string(request_sentence_.substr(0, kMaxKeptSentence));
    kept.spot.SourceStream = spot_.SourceStream;
    kept.spot.SourceTag = spot_.SourceTag;
  }
  return r;
}

void SpotIntake::NoteOffence(std::string_view address) {
  if (!trial_) deps_.bad_lists->NoteOffence(address);
}

std::vector<const SpotRefusal*> SpotIntake::RecentRefusals() const {
  std::vector<const SpotRefusal*> out;
  out.reserve(refusals_.size() + duplicates_.size());
  auto a = refusals_.begin(), b = duplicates_.begin();
  while (a != refusals_.end() || b != duplicates_.end()) {
    if (b == duplicates_.end() || (a != refusals_.end() && a->time <= b->time)) {
      out.push_back(&*a++);
    } else {
      out.push_back(&*b++);
    }
  }
  return out;
}

IntakeResult SpotIntake::Process(const IntakeRequest& req) {
  trial_ = req.trial;
  IntakeResult r = Check(req);
  trial_ = false;
  return r;
}

IntakeResult SpotIntake::Check(const IntakeRequest& req) {
  const std::string_view sentence = req.sentence;
  const SysTime now = deps_.clock->Now();
  request_sentence_ = sentence;
  Spot& s = spot_;
  s.IsLocal = req.is_local;
  s.IsBeacon = false;
  s.SourceStream = req.source_stream;
  s.SourceTag = SourceTagText(req.source);
  s.spotter_country = nullptr;
  s.dx_country = nullptr;
  s.ModeFlags = 0;
  s.received = now;
  s.ModeStated = false;
  s.Mode.clear();
  s.SkimmerVerdict = 0;
  s.SkimmerCount = 0;
  s.SpotterGrid.clear();
  s.DxGrid.clear();
  s.OriginId = 0;
  s.Id = 0;

  // 1. "??" in the comment: a question, not a spot.
  Fields f;
  const size_t n = SplitFields(sentence, f);
  if (n > kSlotComment && Contains(f[kSlotComment], "??")) {
    return Refuse(SpotVerdict::kDoubleQuestionMark, "\"??\" in the comment: a question, not a spot",
                  /*spot_read=*/false);
  }
  // 2. Field count (and 4., the copy into the slots).
  if (!SpotFromFields(f, n, s)) {
    return Refuse(SpotVerdict::kFieldCount,
                  std::to_string(n) + " fields where a spot has 10 to 13 (unreadable sentence)",
                  /*spot_read=*/false);
  }
  const bool pc11 = s.type() == "PC11";
  // A date or time that cannot be would stand in the time column of every line the spot
  // makes; such a spot is no report of anything heard.
  if (!IsSpotDateTime(s.date(), s.time())) {
    WriteRejection("Bad Date/Time^", sentence);
    return Refuse(SpotVerdict::kBadDateTime,
                  "no such date or time: " + std::string(s.date()) + " " + std::string(s.time()));
  }
  if (std::chrono::seconds age{}; SpotAge(s.date(), s.time(), now, age) &&
                                  (age > options_.max_age || age < -options_.max_ahead)) {
    WriteRejection(age > options_.max_age ? "Too Old^" : "Ahead Of Time^", sentence);
    return Refuse(SpotVerdict::kOutOfTime,
                  age > options_.max_age
                      ? "too old: spotted " + std::to_string(age.count() / 60) + " minutes ago"
                      : "ahead of our clock by " + std::to_string(-age.count() / 60) + " minutes");
  }

  // 3. The spotter's address.
  const std::string_view address = pc11 ? req.known_address : s.address();
  const std::string_view ip_marker = pc11 ? "### Bad IP PC11 ###" : "### Bad IP ###";
  if (deps_.bad_lists->IsRefusedAddress(address)) {
    if (deps_.dir) {
      std::string line(sentence);
      line += ' ';
      line += SourceCall();
      Append("badspotsIP", "Bad-" + DateText(now), line);
    }
    ShowInSpotList({}, ip_marker, "red");
    return Refuse(SpotVerdict::kRefusedAddress,
                  "refused address: " + std::string(address) + " (ipnotok.dat)");
  }
  if (deps_.bad_lists->IsTorAddress(address)) {
    if (deps_.dir) {
      std::string line(sentence);
      line += ' ';
      line += SourceCall();
      Append("badspotsTor", "Bad-" + DateText(now), line);
      Append("badspotsTor", "BadCall-" + DateText(now), s.spotter());
    }
    ShowInSpotList({}, ip_marker, "red");
    return Refuse(SpotVerdict::kTorAddress,
                  "anonymity network address: " + std::string(address) + " (torlist.dat)");
  }
  // A "PC61" should carry the spotter's IPv4 or IPv6 address; anything else (empty, a host
  // name, the "," form of IPv6 used inside PC92) is noted so the sysop can see which nodes
  // send it.  The spot itself goes on.
  if (!pc11 && options_.log_odd_pc61_address && s.type() == "PC61" && !IsIpAddress(address)) {
    Append("badinfo", "Newpc61.log", sentence);
  }

  // 4. (continued) The verbose early notice of a refused spotter.
  if (options_.show_dropped_bad_spotter && deps_.bad_lists->IsSpotterNok(s.spotter())) {
    ShowInSpotList({}, " Dropped, Bad Spotter", "red");
  }

  // 5. The DX call.
  if (deps_.valid_call && !deps_.valid_call(s.slots[kSlotDxCall])) {
    ShowInSpotList({}, "* BAD *", "red");
    IntakeResult r =
        Refuse(SpotVerdict::kInvalidDxCall, "not a valid call: " + std::string(s.dx_call()));
    if (req.is_local) r.reply = kInvalidDxCallReply;
    return r;
  }
  // 6. The spotter.  No log-in accepts a call over 30 characters, and one would push the
  // line's columns about.
  if (s.spotter().size() > kMaxLoginCallLength) {
    WriteRejection("Bad Spotter Call^", sentence);
    return Refuse(
        SpotVerdict::kSpotterTooLong,
        "spotter call longer than " + std::to_string(kMaxLoginCallLength) + " characters");
  }
  if (deps_.bad_lists->IsSpotterNok(s.spotter())) {
    WriteRejection(req.is_local ? "SpotterNok - local spotter^" : "SpotterNok - spotter^",
                   sentence);
    ShowInSpotList({}, "### Spotter Bad ###", "red");
    return Refuse(SpotVerdict::kSpotterNok,
                  "spotter refused: " + std::string(s.spotter()) + " (SpotterNok list)");
  }
  // 7. The origin node.
  if (deps_.bad_lists->IsNodeNok(s.origin_node())) {
    WriteRejection("NodeNok", sentence);
    return Refuse(SpotVerdict::kNodeNok,
                  "origin node refused: " + std::string(s.origin_node()) + " (BadNodes list)");
  }
  // 8. The frequency must lie on a band.
  const uint32_t band = deps_.bands->BandBit(s.FrequencyKHz);
  if (band == 0) {
    ShowInSpotList({}, "*Bad*", "red");
    if (deps_.dir) {
      std::string line(sentence);
      line += ' ';
      line += SourceCall();
      Append("badinfo", "badfreq" + DateText(now) + ".txt", line);
    }
    return Refuse(SpotVerdict::kBadFrequency,
                  "bad frequency: " + std::string(s.frequency_text()) + " kHz is on no band");
  }

  upper_comment_.assign(s.comment());
  ToUpperInPlace(upper_comment_);

  // 9. Requests for QSL cards or contacts are not spots.
  if (!req.skip_request_filter && IsRequestComment(upper_comment_)) {
    return Refuse(SpotVerdict::kRequest, "request, not a spot: \"" + std::string(s.comment()) +
                                             "\" (QSL and contact requests)");
  }
  // 10. The mode.
  s.ModeFlags =
      band | (req.source == SpotSource::kReporter ? kModeFt8 : ClassifyMode(upper_comment_));
  s.IsBeacon = IsBeaconSpot(s.dx_call(), upper_comment_);
  s.ModeStated = (s.ModeFlags & kModeMask) != 0;
  if (req.source == SpotSource::kSkimmer) {
    // The skimmer feed's comment starts with the mode it decoded and ends with its tag.
    const std::string_view mode = SkimmerModeWord(upper_comment_);
    if (!mode.empty()) {
      s.Mode.assign(mode);
      s.ModeStated = true;
    }
    ReadSkimmerTag(s.comment(), s.SkimmerVerdict, s.SkimmerCount);
  }
  if (req.carried) {
    // A neighbour of this software said more than the sentence shows; its word counts.
    const Spot& c = *req.carried;
    if (!c.Mode.empty()) {
      s.Mode = c.Mode;
      s.ModeStated = c.ModeStated;
    }
    s.SkimmerVerdict = c.SkimmerVerdict;
    s.SkimmerCount = c.SkimmerCount;
    s.SpotterGrid = c.SpotterGrid;
    s.DxGrid = c.DxGrid;
    s.OriginId = c.OriginId;
    s.SourceTag = c.SourceTag;
  } else if (req.is_local && deps_.streams && deps_.streams->InRange(req.source_stream)) {
    s.SpotterGrid = deps_.streams->at(req.source_stream).session.grid;
  }

  // 11 to 13. Words.  Each hit also counts against the spotter's address.
  if (BadWordCheck(s.comment(), s, "PC11")) {
    WriteRejection("Bad Word^", sentence);
    NoteOffence(address);
    return Refuse(SpotVerdict::kBadWord, "bad word: " + bad_word_ + " (badwords.txt)");
  }
  if (deps_.bad_lists->BadPhraseCheck(s.comment())) {
    WriteRejection("Bad Phrase^", sentence);
    NoteOffence(address);
    return Refuse(SpotVerdict::kBadPhrase, "bad phrase in the comment (badwords.txt)");
  }
  if (BadWordCheck(s.spotter(), s, "PC11")) {
    WriteRejection("Bad word - spotter ", sentence);
    NoteOffence(address);
    return Refuse(SpotVerdict::kBadWordSpotter,
                  "bad word in the spotter call: " + bad_word_ + " (badwords.txt)");
  }
  if (BadWordCheck(s.dx_call(), s, "PC11")) {
    WriteRejection("Bad word dx^", sentence);
    NoteOffence(address);
    return Refuse(SpotVerdict::kBadWordDx,
                  "bad word in the DX call: " + bad_word_ + " (badwords.txt)");
  }
  // 14. Refused DX calls.
  if (deps_.bad_lists->IsDxNok(s.dx_call())) {
    WriteRejection("DxNok - ^", sentence);
    return Refuse(SpotVerdict::kDxNok,
                  "DX call refused: " + std::string(s.dx_call()) + " (DxNok list)");
  }
  // 15. Spotter calls that no country issues.
  if (CallNotIssued(s.spotter())) {
    WriteRejection(" Spotter call not issued^" + deps_.node_call, sentence);
    std::string line(s.spotter());
    line += ' ';
    line += DateText(now);
    line += ' ';
    line += TimeHHnnZ(now);
    Append("badinfo", "NotIssued.dat", line);
    NoteOffence(address);
    return Refuse(SpotVerdict::kSpotterNotIssued,
                  "spotter call not issued by any country: " + std::string(s.spotter()));
  }
  // 16. The spotter's country.
  if (deps_.country_of) {
    s.spotter_country = deps_.country_of(s.spotter());
    s.dx_country = deps_.country_of(s.dx_call());
  }
  if (!s.spotter_country) {
    WriteRejection("Bad Spotter Cty ", sentence);
    ShowInSpotList("QQ", {}, "red");
    return Refuse(SpotVerdict::kSpotterCountryUnknown,
                  "no country for the spotter " + std::string(s.spotter()) + " (country file)");
  }
  // 17. Duplicates, then the rate limits.
  if (deps_.dupes && !req.skip_dupe_check && deps_.dupes->DupeFound(s, now, /*remember=*/!trial_)) {
    return Refuse(SpotVerdict::kDuplicate, "duplicate: " + std::string(s.dx_call()) +
                                               " already spotted on this frequency lately");
  }
  // The rate limits count what reaches users; a trial reaches nobody else.
  if (deps_.rates && !trial_) {
    const RateVerdict rate = deps_.rates->Admit(s.dx_call(), s.spotter(), now);
    if (rate != RateVerdict::kAdmitted) {
      WriteRejection(rate == RateVerdict::kTooManySpots   ? "Rate limit - spots per minute^"
                     : rate == RateVerdict::kTooManyForDx ? "Rate limit - spots per DX call^"
                                                          : "Rate limit - spots per spotter^",
                     sentence);
      const SpotRates& limits = deps_.rates->limits();
      return Refuse(
          SpotVerdict::kRateLimited,
          rate == RateVerdict::kTooManySpots
              ? "rate limit: over " + std::to_string(limits.per_minute) + " spots a minute"
          : rate == RateVerdict::kTooManyForDx
              ? "rate limit: over " + std::to_string(limits.per_dx) + " spots a minute of " +
                    std::string(s.dx_call())
              : "rate limit: over " + std::to_string(limits.per_spotter) + " spots a minute from " +
                    std::string(s.spotter()));
    }
  }
  ShowInSpotList({}, {}, {});
  if (deps_.next_id && !trial_) s.Id = deps_.next_id();
  IntakeResult r;
  r.spot = &spot_;
  return r;
}

}  // namespace qx
