#include "feeds/reporter_feed.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

#include <nlohmann/json.hpp>

#include "feeds/feed_spot.h"
#include "feeds/skimmer_line.h"
#include "spots/bad_lists.h"

namespace qx {

namespace {

using Json = nlohmann::json;

int64_t Seconds(SysTime t) {
  return std::chrono::duration_cast<std::chrono::seconds>(t.time_since_epoch()).count();
}

bool IsDigit(char c) { return c >= '0' && c <= '9'; }
bool IsAlpha(char c) { return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z'); }
char Upper(char c) { return (c >= 'a' && c <= 'z') ? char(c - 'a' + 'A') : c; }

// The string member name, or nullptr when it is absent or not a string.
const std::string* StringField(const Json& object, const char* name) {
  const auto it = object.find(name);
  if (it == object.end() || !it->is_string()) return nullptr;
  return it->get_ptr<const std::string*>();
}

// A number member, also accepted as a string of digits (some bridges quote numbers).
enum class Field { kAbsent, kBad, kOk };
Field NumberField(const Json& object, const char* name, double& out) {
  const auto it = object.find(name);
  if (it == object.end() || it->is_null()) return Field::kAbsent;
  if (it->is_number()) {
    out = it->get<double>();
  } else if (it->is_string()) {
    const std::string& s = *it->get_ptr<const std::string*>();
    if (s.empty() || s.size() > 20) return Field::kBad;
    char* end = nullptr;
    out = std::strtod(s.c_str(), &end);
    if (end != s.c_str() + s.size()) return Field::kBad;
  } else {
    return Field::kBad;
  }
  return std::isfinite(out) ? Field::kOk : Field::kBad;
}

// Letters, digits and "/" (and "-" where allowed), with a letter and a digit, 3 to max long.
bool TakeCall(const std::string* text, bool allow_hyphen, size_t max, std::string& out) {
  if (!text || text->size() < 3 || text->size() > max) return false;
  bool digit = false;
  bool alpha = false;
  for (char c : *text) {
    if (IsDigit(c)) {
      digit = true;
    } else if (IsAlpha(c)) {
      alpha = true;
    } else if (c != '/' && !(allow_hyphen && c == '-')) {
      return false;
    }
  }
  if (!digit || !alpha) return false;
  out.assign(*text);
  for (char& c : out) c = Upper(c);
  return true;
}

// The four-character square of a locator ("FN42ab12" gives "FN42"), empty when it is none.
std::string GridSquare(const std::string* text) {
  if (!text || text->size() < 4) return {};
  const std::string& t = *text;
  const char a = Upper(t[0]);
  const char b = Upper(t[1]);
  if (a < 'A' || a > 'R' || b < 'A' || b > 'R' || !IsDigit(t[2]) || !IsDigit(t[3])) return {};
  return {a, b, t[2], t[3]};
}

uint64_t StationKey(std::string_view sender, uint32_t band, std::string_view mode) {
  return HashShortText(sender) ^ (uint64_t(band) * 0x9E3779B97F4A7C15ull) ^
         (HashShortText(mode) * 0xD6E8FEB86659FD93ull);
}

}  // namespace

std::string_view ReporterErrorName(ReporterError error) {
  switch (error) {
    case ReporterError::kNone:
      return "ok";
    case ReporterError::kTooLong:
      return "too long";
    case ReporterError::kNotJson:
      return "not JSON";
    case ReporterError::kNotObject:
      return "not an object";
    case ReporterError::kBadFrequency:
      return "bad frequency";
    case ReporterError::kBadMode:
      return "bad mode";
    case ReporterError::kBadSender:
      return "bad sender";
    case ReporterError::kBadReceiver:
      return "bad receiver";
    case ReporterError::kBadSnr:
      return "bad signal-to-noise ratio";
    case ReporterError::kBadTime:
      return "bad time";
  }
  return "?";
}

std::string_view ReporterOutcomeName(ReporterOutcome outcome) {
  switch (outcome) {
    case ReporterOutcome::kSpot:
      return "spot";
    case ReporterOutcome::kHeld:
      return "held";
    case ReporterOutcome::kCollapsed:
      return "collapsed";
    case ReporterOutcome::kRejected:
      return "rejected";
    case ReporterOutcome::kOffBand:
      return "off band";
    case ReporterOutcome::kStale:
      return "stale";
  }
  return "?";
}

ReporterError ParseReporterPayload(std::string_view payload, ReporterReport& out,
                                   size_t max_payload) {
  if (payload.size() > max_payload) return ReporterError::kTooLong;
  // The non-throwing parse: malformed text gives a discarded value, never an exception.
  const Json json = Json::parse(payload.begin(), payload.end(), nullptr, false);
  if (json.is_discarded()) return ReporterError::kNotJson;
  if (!json.is_object()) return ReporterError::kNotObject;

  double number = 0;
  if (NumberField(json, "f", number) != Field::kOk || number < 1 || number >= 1e12) {
    return ReporterError::kBadFrequency;
  }
  out.hz = int64_t(std::llround(number));

  const std::string* mode = StringField(json, "md");
  if (!mode || mode->empty() || mode->size() > 8) return ReporterError::kBadMode;
  for (char c : *mode) {
    if (!IsDigit(c) && !IsAlpha(c) && c != '-') return ReporterError::kBadMode;
  }
  out.mode.assign(*mode);
  for (char& c : out.mode) c = Upper(c);

  if (!TakeCall(StringField(json, "sc"), false, 15, out.sender)) return ReporterError::kBadSender;
  if (!TakeCall(StringField(json, "rc"), true, 20, out.receiver)) {
    return ReporterError::kBadReceiver;
  }

  out.has_snr = false;
  out.snr_db = 0;
  switch (NumberField(json, "rp", number)) {
    case Field::kAbsent:
      break;
    case Field::kBad:
      return ReporterError::kBadSnr;
    case Field::kOk:
      if (number < -99 || number > 99) return ReporterError::kBadSnr;
      out.has_snr = true;
      out.snr_db = int(std::lround(number));
      break;
  }
  out.has_time = false;
  out.unix_time = 0;
  switch (NumberField(json, "t", number)) {
    case Field::kAbsent:
      break;
    case Field::kBad:
      return ReporterError::kBadTime;
    case Field::kOk:
      if (number < 0 || number > 1e11) return ReporterError::kBadTime;
      out.has_time = true;
      out.unix_time = int64_t(number);
      break;
  }
  out.sequence = 0;
  if (NumberField(json, "sq", number) == Field::kOk && number >= 0 && number < 1.8e19) {
    out.sequence = uint64_t(number);
  }
  out.sender_grid = GridSquare(StringField(json, "sl"));
  out.receiver_grid = GridSquare(StringField(json, "rl"));
  const std::string* band = StringField(json, "b");
  out.band.clear();
  if (band && band->size() <= 8) out.band.assign(*band);
  return ReporterError::kNone;
}

ReporterFeed::ReporterFeed(const BandTable& bands, ReporterSettings settings)
    : bands_(bands), settings_(std::move(settings)) {
  settings_.window = std::max(settings_.window, settings_.hold);
}

void ReporterFeed::Count(Entry& e, std::string_view receiver) {
  const uint64_t h = HashShortText(receiver);
  const int stored = std::min(e.receivers, kMaxReceiversCounted);
  for (int i = 0; i < stored; ++i) {
    if (e.receiver_hashes[i] == h) return;
  }
  if (e.receivers < kMaxReceiversCounted) e.receiver_hashes[e.receivers] = h;
  // Past the stored hashes the count stays where it is: it says "at least".
  if (e.receivers < kMaxReceiversCounted) ++e.receivers;
}

void ReporterFeed::Release(Entry& e, std::string& out) const {
  char freq[32];
  std::snprintf(freq, sizeof freq, "%.1f", e.khz);
  char count[16];
  std::snprintf(count, sizeof count, "R%d%s", e.receivers,
                e.receivers >= kMaxReceiversCounted ? "+" : "");
  std::string comment = ModeColumn(e.mode, e.has_snr, e.snr_db);
  AppendWordWithin(comment, e.grid, kFeedCommentWidth);
  comment += ' ';
  comment += count;
  BuildFeedSentence({.freq_text = freq,
                     .dx_call = e.sender,
                     .time = SysTime(std::chrono::seconds(e.spot_time)),
                     .comment = comment,
                     .spotter = e.receiver,
                     .origin_node = kReporterOriginNode,
                     .hops = settings_.hops},
                    out);
  e.released = true;
}

void ReporterFeed::Expire(int64_t now) {
  const int64_t window = settings_.window.count();
  while (!made_.empty() && made_.front().at + window <= now) {
    const Item item = made_.front();
    made_.pop_front();
    const auto it = entries_.find(item.key);
    if (it == entries_.end() || it->second.generation != item.generation) continue;
    if (!it->second.released) ++lost_;
    entries_.erase(it);
  }
}

const ReporterResult& ReporterFeed::Offer(std::string_view payload, SysTime now_time) {
  ReporterResult& r = result_;
  r.sentence.clear();
  r.error = ParseReporterPayload(payload, report_, settings_.max_payload);
  if (r.error != ReporterError::kNone) {
    r.outcome = ReporterOutcome::kRejected;
    return r;
  }
  const double khz = double(report_.hz) / 1000.0;
  const uint32_t band = bands_.BandBit(khz);
  if (band == 0) {
    r.outcome = ReporterOutcome::kOffBand;
    return r;
  }
  const int64_t now = Seconds(now_time);
  const int64_t spot_time = report_.has_time ? report_.unix_time : now;
  if (spot_time < now - settings_.max_age.count() ||
      spot_time > now + settings_.max_ahead.count()) {
    r.outcome = ReporterOutcome::kStale;
    return r;
  }
  Expire(now);

  const uint64_t key = StationKey(report_.sender, band, report_.mode);
  auto it = entries_.find(key);
  if (it != entries_.end() && it->second.sender == report_.sender && it->second.band == band &&
      it->second.mode == report_.mode) {
    Count(it->second, report_.receiver);
    r.outcome = ReporterOutcome::kCollapsed;
    return r;
  }
  if (it != entries_.end()) {
    if (!it->second.released) ++lost_;
    entries_.erase(it);  // another station with the same key: the newer takes the place
  }
  while (entries_.size() >= std::max<size_t>(settings_.max_entries, 1) && !made_.empty()) {
    const Item item = made_.front();
    made_.pop_front();
    const auto old = entries_.find(item.key);
    if (old == entries_.end() || old->second.generation != item.generation) continue;
    if (!old->second.released) ++lost_;
    entries_.erase(old);
  }
  Entry& e = entries_[key];
  e.generation = next_generation_++;
  e.created = now;
  e.sender = report_.sender;
  e.mode = report_.mode;
  e.band = band;
  e.receiver = report_.receiver;
  e.grid = report_.sender_grid;
  e.has_snr = report_.has_snr;
  e.snr_db = report_.snr_db;
  e.khz = khz;
  e.spot_time = spot_time;
  Count(e, report_.receiver);
  made_.push_back({key, e.generation, now});
  if (settings_.hold.count() <= 0) {
    Release(e, r.sentence);
    r.outcome = ReporterOutcome::kSpot;
    return r;
  }
  pending_.push_back({key, e.generation, now_time + settings_.hold});
  // Bounded even when nobody takes the due spots: the oldest waiting items go first.
  while (pending_.size() > std::max<size_t>(settings_.max_entries, 1)) pending_.pop_front();
  r.outcome = ReporterOutcome::kHeld;
  return r;
}

size_t ReporterFeed::TakeDue(SysTime now_time,
                             const std::function<void(std::string_view sentence)>& on_spot) {
  const int64_t now = Seconds(now_time);
  size_t spots = 0;
  while (!pending_.empty() && pending_.front().at <= now_time) {
    const DueItem item = pending_.front();
    pending_.pop_front();
    const auto it = entries_.find(item.key);
    if (it == entries_.end() || it->second.generation != item.generation || it->second.released) {
      continue;
    }
    Release(it->second, due_sentence_);
    on_spot(due_sentence_);
    ++spots;
  }
  Expire(now);
  // Items of entries that left early (evicted) are dropped as they come to the front; the
  // queue holds no more items than spots were held within one hold time.
  return spots;
}

std::optional<SysTime> ReporterFeed::NextDue() const {
  if (pending_.empty()) return std::nullopt;
  return pending_.front().at;
}

}  // namespace qx
