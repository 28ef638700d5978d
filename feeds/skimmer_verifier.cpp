#include "feeds/skimmer_verifier.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

#include "core/config.h"
#include "feeds/feed_spot.h"
#include "spots/bad_lists.h"

namespace qx {

namespace {

// Frequencies are compared with this much slack, so that 14025.1 and 14025.4 lie within
// 0.3 kHz of each other whatever binary fractions make of them.
constexpr double kSlack = 1e-6;
constexpr int64_t kSweepEverySeconds = 10;

int64_t Seconds(SysTime t) {
  return std::chrono::duration_cast<std::chrono::seconds>(t.time_since_epoch()).count();
}

uint64_t EntryKey(std::string_view call, uint32_t band) {
  return HashShortText(call) ^ (uint64_t(band) * 0x9E3779B97F4A7C15ull);
}

uint64_t BucketKey(uint32_t band, double khz) {
  return (uint64_t(band) << 32) | uint32_t(int64_t(std::floor(khz * 10)));
}

// International Morse code of the characters calls are made of; empty for the others.
std::string_view Morse(char c) {
  static constexpr std::string_view kLetters[26] = {
      ".-",   "-...", "-.-.", "-..",  ".",   "..-.", "--.",  "....", "..",
      ".---", "-.-",  ".-..", "--",   "-.",  "---",  ".--.", "--.-", ".-.",
      "...",  "-",    "..-",  "...-", ".--", "-..-", "-.--", "--.."};
  static constexpr std::string_view kDigits[10] = {"-----", ".----", "..---", "...--", "....-",
                                                   ".....", "-....", "--...", "---..", "----."};
  if (c >= 'A' && c <= 'Z') return kLetters[c - 'A'];
  if (c >= '0' && c <= '9') return kDigits[c - '0'];
  if (c == '/') return "-..-.";
  return {};
}

// One character changed, added or dropped.
bool OneEdit(std::string_view a, std::string_view b) {
  if (a.size() < b.size()) std::swap(a, b);
  if (a.size() - b.size() > 1) return false;
  size_t i = 0;
  while (i < b.size() && a[i] == b[i]) ++i;
  if (a.size() == b.size()) return i < a.size() && a.substr(i + 1) == b.substr(i + 1);
  return a.substr(i + 1) == b.substr(i);
}

// longer is shorter with one character read as two whose codes make its code.
bool SplitCharacter(std::string_view longer, std::string_view shorter) {
  if (longer.size() != shorter.size() + 1) return false;
  for (size_t i = 0; i < shorter.size(); ++i) {
    if (i > 0 && longer[i - 1] != shorter[i - 1]) return false;
    if (longer.substr(i + 2) != shorter.substr(i + 1)) continue;
    const std::string_view whole = Morse(shorter[i]);
    const std::string_view first = Morse(longer[i]);
    const std::string_view second = Morse(longer[i + 1]);
    if (!whole.empty() && !first.empty() && !second.empty() &&
        whole.size() == first.size() + second.size() && whole.starts_with(first) &&
        whole.ends_with(second)) {
      return true;
    }
  }
  return false;
}

bool Truthy(std::string_view value, bool fallback) {
  if (value == "True" || value == "true" || value == "TRUE") return true;
  if (value == "False" || value == "false" || value == "FALSE") return false;
  return fallback;
}

}  // namespace

std::string_view SkimmerVerdictName(SkimmerVerdict verdict) {
  switch (verdict) {
    case SkimmerVerdict::kVerified:
      return "verified";
    case SkimmerVerdict::kBusted:
      return "busted";
    case SkimmerVerdict::kQsy:
      return "qsy";
    case SkimmerVerdict::kUnverified:
      return "unverified";
  }
  return "?";
}

std::string_view SkimmerOutcomeName(SkimmerOutcome outcome) {
  switch (outcome) {
    case SkimmerOutcome::kPass:
      return "pass";
    case SkimmerOutcome::kHeld:
      return "held";
    case SkimmerOutcome::kBustedDropped:
      return "busted";
    case SkimmerOutcome::kDuplicate:
      return "duplicate";
    case SkimmerOutcome::kRefusedSkimmer:
      return "skimmer refused";
    case SkimmerOutcome::kRefusedDx:
      return "DX call refused";
    case SkimmerOutcome::kOffBand:
      return "off band";
  }
  return "?";
}

VerifierSettings VerifierSettingsFromConfig(const Config& config, VerifierSettings base) {
  base.dupes_not_allowed = Truthy(config.Get("Skimmer Dupes Not Allowed"), base.dupes_not_allowed);
  base.cw_verified = Truthy(config.Get("Skimmer CW Spots Verified"), base.cw_verified);
  base.data_verified = Truthy(config.Get("Skimmer Data Spots Verified"), base.data_verified);
  base.vhf_uhf_verified =
      Truthy(config.Get("Skimmer VHF UHF Spots Verified"), base.vhf_uhf_verified);
  return base;
}

void LoadVerifierListsFromConfig(const Config& config, VerifierLists& lists) {
  lists.skimmer_nok.Clear();
  lists.skimmer_dx_nok.Clear();
  lists.do_not_verify.Clear();
  lists.skimmer_nok.AddCommaList(config.Get("SkimmerNok"));
  lists.skimmer_dx_nok.AddCommaList(config.Get("SkimmerDxNok"));
  lists.do_not_verify.AddCommaList(config.Get("SkimmerDoNotVerify"));
}

bool IsBustOf(std::string_view reported, std::string_view verified) {
  if (reported == verified) return false;
  return OneEdit(reported, verified) || SplitCharacter(reported, verified) ||
         SplitCharacter(verified, reported);
}

SkimmerVerifier::SkimmerVerifier(const BandTable& bands, VerifierSettings settings)
    : bands_(bands), settings_(std::move(settings)) {}

void SkimmerVerifier::Unindex(const Entry& entry, uint64_t key) {
  const auto it = by_bucket_.find(entry.bucket);
  if (it == by_bucket_.end()) return;
  std::vector<uint64_t>& keys = it->second;
  const auto at = std::find(keys.begin(), keys.end(), key);
  if (at != keys.end()) {
    *at = keys.back();
    keys.pop_back();
  }
  if (keys.empty()) by_bucket_.erase(it);
}

void SkimmerVerifier::Remove(uint64_t key) {
  const auto it = entries_.find(key);
  if (it == entries_.end()) return;
  if (it->second.verified) Unindex(it->second, key);
  entries_.erase(it);
}

void SkimmerVerifier::Sweep(int64_t now) {
  const int64_t keep =
      std::max({settings_.window, settings_.verified_hold, settings_.dupe_window}).count();
  for (auto it = entries_.begin(); it != entries_.end();) {
    if (now - it->second.touched > keep) {
      if (it->second.verified) Unindex(it->second, it->first);
      it = entries_.erase(it);
    } else {
      ++it;
    }
  }
  std::erase_if(made_, [this](const std::pair<uint64_t, uint64_t>& item) {
    const auto it = entries_.find(item.first);
    return it == entries_.end() || it->second.generation != item.second;
  });
}

SkimmerVerifier::Entry& SkimmerVerifier::EntryFor(const std::string& call, uint32_t band,
                                                  int64_t now) {
  const uint64_t key = EntryKey(call, band);
  auto it = entries_.find(key);
  if (it != entries_.end()) {
    if (it->second.band == band && it->second.call == call) return it->second;
    Remove(key);  // another call with the same key: the newer one takes the place
  }
  while (entries_.size() >= std::max<size_t>(settings_.max_calls, 1) && !made_.empty()) {
    const auto [old_key, generation] = made_.front();
    made_.pop_front();
    const auto old = entries_.find(old_key);
    if (old != entries_.end() && old->second.generation == generation) Remove(old_key);
  }
  Entry& e = entries_[key];
  e.call = call;
  e.band = band;
  e.generation = next_generation_++;
  e.touched = now;
  made_.emplace_back(key, e.generation);
  return e;
}

bool SkimmerVerifier::VerifiedNow(const Entry& entry, int64_t now) const {
  return entry.verified && now - entry.verified_t <= settings_.verified_hold.count();
}

void SkimmerVerifier::SetVerifiedAt(Entry& entry, uint64_t key, double khz, int64_t now) {
  if (entry.verified) Unindex(entry, key);
  entry.verified = true;
  entry.verified_khz = khz;
  entry.verified_t = now;
  entry.bucket = BucketKey(entry.band, khz);
  by_bucket_[entry.bucket].push_back(key);
}

int SkimmerVerifier::AddReport(Entry& e, uint64_t skimmer, double khz, int64_t now,
                               double& centre) {
  // Forget reports older than the window; the same skimmer again replaces its own report.
  const int64_t oldest = now - settings_.window.count();
  int kept = 0;
  int same = -1;
  for (int i = 0; i < e.count; ++i) {
    if (e.reports[size_t(i)].t < oldest) continue;
    e.reports[size_t(kept)] = e.reports[size_t(i)];
    if (e.reports[size_t(kept)].skimmer == skimmer) same = kept;
    ++kept;
  }
  e.count = uint8_t(kept);
  if (same < 0) {
    if (e.count < kMaxReports) {
      same = e.count++;
    } else {
      same = 0;
      for (int i = 1; i < e.count; ++i) {
        if (e.reports[size_t(i)].t < e.reports[size_t(same)].t) same = i;
      }
    }
  }
  e.reports[size_t(same)] = Report{skimmer, khz, now};

  // The largest group of skimmers whose frequencies lie within agree_khz of each other
  // and that holds this report.
  const double tol = settings_.agree_khz + kSlack;
  int best = 0;
  centre = khz;
  for (int i = 0; i < e.count; ++i) {
    const double low = e.reports[size_t(i)].khz;
    if (low > khz || low < khz - tol) continue;
    int n = 0;
    double sum = 0;
    for (int j = 0; j < e.count; ++j) {
      const double f = e.reports[size_t(j)].khz;
      if (f >= low && f <= low + tol) {
        ++n;
        sum += f;
      }
    }
    if (n > best) {
      best = n;
      centre = sum / n;
    }
  }
  return best;
}

const SkimmerVerifier::Entry* SkimmerVerifier::FindBustOf(const SkimmerReport& r, uint32_t band,
                                                          int64_t now) const {
  const double tol = settings_.bust_khz + kSlack;
  const bool known = !lists_.known_calls.empty() && lists_.known_calls.Contains(r.dx_call);
  const Entry* best = nullptr;
  double best_distance = 0;
  const int64_t from = int64_t(std::floor((r.khz - tol) * 10));
  const int64_t to = int64_t(std::floor((r.khz + tol) * 10));
  for (int64_t step = from; step <= to; ++step) {
    const auto bucket = by_bucket_.find((uint64_t(band) << 32) | uint32_t(step));
    if (bucket == by_bucket_.end()) continue;
    for (uint64_t key : bucket->second) {
      const auto it = entries_.find(key);
      if (it == entries_.end()) continue;
      const Entry& v = it->second;
      const double distance = std::fabs(v.verified_khz - r.khz);
      if (!VerifiedNow(v, now) || distance > tol || v.call == r.dx_call) continue;
      if (best && distance >= best_distance) continue;
      if (!IsBustOf(r.dx_call, v.call)) continue;
      // A call the database knows is not taken for a slip of one it does not know.
      if (known && !lists_.known_calls.Contains(v.call)) continue;
      best = &v;
      best_distance = distance;
    }
  }
  return best;
}

void SkimmerVerifier::BuildComment(const SkimmerReport& r) {
  std::string& c = decision_.comment;
  char tag[32];
  switch (decision_.verdict) {
    case SkimmerVerdict::kVerified:
      std::snprintf(tag, sizeof tag, "V%d", decision_.skimmers);
      break;
    case SkimmerVerdict::kQsy:
      std::snprintf(tag, sizeof tag, "Q%d", decision_.skimmers);
      break;
    case SkimmerVerdict::kUnverified:
      std::snprintf(tag, sizeof tag, "?%d", decision_.skimmers);
      break;
    case SkimmerVerdict::kBusted:
      std::snprintf(tag, sizeof tag, "B(%.20s)", decision_.corrected_call.c_str());
      break;
  }
  char speed[16] = "";
  if (r.speed > 0) {
    std::snprintf(speed, sizeof speed, "%d %s", r.speed, r.speed_is_bps ? "BPS" : "WPM");
  }
  std::string_view kind;
  switch (r.kind) {
    case SkimmerKind::kCq:
      kind = "CQ";
      break;
    case SkimmerKind::kDx:
      kind = "DX";
      break;
    case SkimmerKind::kBeacon:
      kind = "BCN";
      break;
    case SkimmerKind::kNcdxfBeacon:
      kind = "NCDXF BCN";
      break;
    case SkimmerKind::kOther:
      break;
  }
  // What does not fit before the tag goes: the speed first, then the locator, then the kind.
  c = ModeColumn(r.mode_text, r.has_snr, r.snr_db);
  const std::string_view tag_text(tag);
  const size_t room =
      kFeedCommentWidth > tag_text.size() + 1 ? kFeedCommentWidth - tag_text.size() - 1 : 0;
  std::string_view parts[3] = {speed, r.grid, kind};
  auto length = [&] {
    size_t n = c.size();
    for (std::string_view p : parts) n += p.empty() ? 0 : p.size() + 1;
    return n;
  };
  for (std::string_view& p : parts) {
    if (length() <= room) break;
    p = {};
  }
  for (std::string_view p : parts) AppendWordWithin(c, p, room);
  if (!c.empty()) c += ' ';
  c += tag_text;
}

void SkimmerVerifier::Finish(const SkimmerReport& r, SysTime now) {
  BuildComment(r);
  BuildFeedSentence({.freq_text = r.freq_text,
                     .dx_call = r.dx_call,
                     .time = now,
                     .comment = decision_.comment,
                     .spotter = r.spotter,
                     .origin_node = settings_.origin_node,
                     .hops = settings_.hops},
                    decision_.sentence);
}

const SkimmerDecision& SkimmerVerifier::Decide(const SkimmerReport& r, SysTime now_time) {
  SkimmerDecision& d = decision_;
  d.outcome = SkimmerOutcome::kHeld;
  d.verdict = SkimmerVerdict::kUnverified;
  d.skimmers = 0;
  d.corrected_call.clear();
  d.comment.clear();
  d.sentence.clear();
  d.busted_folder = {};
  d.busted_file.clear();
  d.busted_line.clear();

  const int64_t now = Seconds(now_time);
  if (now >= next_sweep_) {
    Sweep(now);
    next_sweep_ = now + kSweepEverySeconds;
  }
  if (lists_.skimmer_nok.Contains(r.skimmer) || lists_.skimmer_nok.Contains(r.spotter)) {
    d.outcome = SkimmerOutcome::kRefusedSkimmer;
    return d;
  }
  if (lists_.skimmer_dx_nok.Contains(r.dx_call) ||
      (r.mode == SkimmerMode::kCw && lists_.bad_cw_dx.Contains(r.dx_call))) {
    d.outcome = SkimmerOutcome::kRefusedDx;
    return d;
  }
  const uint32_t band = bands_.BandBit(r.khz);
  if (band == 0) {
    d.outcome = SkimmerOutcome::kOffBand;
    return d;
  }

  const uint64_t key = EntryKey(r.dx_call, band);
  Entry& e = EntryFor(r.dx_call, band, now);
  e.touched = now;
  if (e.verified && !VerifiedNow(e, now)) {
    Unindex(e, key);
    e.verified = false;
  }
  double centre = r.khz;
  d.skimmers = AddReport(e, HashShortText(r.skimmer), r.khz, now, centre);
  const bool enough = d.skimmers >= settings_.min_skimmers;
  if (e.verified) {
    if (std::fabs(r.khz - e.verified_khz) < settings_.qsy_khz - kSlack) {
      d.verdict = SkimmerVerdict::kVerified;
      e.verified_t = now;
    } else if (enough) {
      SetVerifiedAt(e, key, centre, now);
      d.verdict = SkimmerVerdict::kVerified;
    } else {
      d.verdict = SkimmerVerdict::kQsy;
    }
  } else if (enough) {
    SetVerifiedAt(e, key, centre, now);
    d.verdict = SkimmerVerdict::kVerified;
  } else if (const Entry* bust = FindBustOf(r, band, now)) {
    d.verdict = SkimmerVerdict::kBusted;
    d.corrected_call = bust->call;
  }

  if (d.verdict == SkimmerVerdict::kBusted) {
    d.busted_folder = SkimmerModeFolder(r.mode);
    d.busted_file = DateText(now_time) + ".log";
    d.busted_line = TimeHHnnssZ(now_time);
    for (std::string_view part : {std::string_view(r.freq_text), std::string_view(r.dx_call),
                                  std::string_view("for"), std::string_view(d.corrected_call),
                                  std::string_view("de"), std::string_view(r.spotter)}) {
      d.busted_line += ' ';
      d.busted_line += part;
    }
    d.busted_line += ' ';
    d.busted_line += ModeColumn(r.mode_text, r.has_snr, r.snr_db);
  }

  const bool good = d.verdict == SkimmerVerdict::kVerified || d.verdict == SkimmerVerdict::kQsy;
  const bool required = lists_.do_not_verify.Contains(r.dx_call) ? false
                        : r.khz >= settings_.vhf_from_khz        ? settings_.vhf_uhf_verified
                        : r.mode == SkimmerMode::kCw             ? settings_.cw_verified
                                                                 : settings_.data_verified;
  // The spot as it would stand is built whatever the outcome: a user who asked for their
  // own call's raw reports, or for skimmer dupes, sees what intake does not get.
  Finish(r, now_time);
  if (!good && required) {
    d.outcome = d.verdict == SkimmerVerdict::kBusted ? SkimmerOutcome::kBustedDropped
                                                     : SkimmerOutcome::kHeld;
    return d;
  }
  if (settings_.dupes_not_allowed && e.passed && now - e.passed_t < settings_.dupe_window.count()) {
    const bool moved = d.verdict == SkimmerVerdict::kQsy &&
                       std::fabs(r.khz - e.passed_khz) >= settings_.qsy_khz - kSlack;
    const bool upgrade = good && e.passed_verdict != SkimmerVerdict::kVerified &&
                         e.passed_verdict != SkimmerVerdict::kQsy;
    if (!moved && !upgrade) {
      d.outcome = SkimmerOutcome::kDuplicate;
      return d;
    }
  }
  e.passed = true;
  e.passed_t = now;
  e.passed_khz = r.khz;
  e.passed_verdict = d.verdict;
  d.outcome = SkimmerOutcome::kPass;
  return d;
}

}  // namespace qx
