#include "feeds/feed_streams.h"

#include <fmt/format.h>

#include <algorithm>

#include "core/stream_table.h"
#include "core/text_util.h"

namespace qx {

bool FeedStreamKindFromText(std::string_view text, FeedStreamKind& out) {
  std::string words;
  for (std::string_view w : Split(Trim(text), ' ')) {
    if (w.empty()) continue;
    if (!words.empty()) words += ' ';
    words += ToUpper(w);
  }
  if (words == "SKIMMER" || words == "SKM") {
    out = FeedStreamKind::kSkimmer;
  } else if (words == "RBN" || words == "RBN CW") {
    out = FeedStreamKind::kRbn;
  } else if (words == "RBN FT8" || words == "RBN DIGITAL" || words == "FT8") {
    out = FeedStreamKind::kRbnDigital;
  } else {
    return false;
  }
  return true;
}

int FeedStreamState(FeedStreamKind kind) {
  switch (kind) {
    case FeedStreamKind::kSkimmer:
      return kStateFeedSkimmer;
    case FeedStreamKind::kRbn:
      return kStateFeedRbn;
    case FeedStreamKind::kRbnDigital:
      break;
  }
  return kStateFeedReporter;
}

bool FeedStreamKindOfState(int state, FeedStreamKind& out) {
  switch (state) {
    case kStateFeedSkimmer:
      out = FeedStreamKind::kSkimmer;
      return true;
    case kStateFeedRbn:
      out = FeedStreamKind::kRbn;
      return true;
    case kStateFeedReporter:
      out = FeedStreamKind::kRbnDigital;
      return true;
    default:
      return false;
  }
}

std::string_view FeedWhoType(FeedStreamKind kind) {
  switch (kind) {
    case FeedStreamKind::kSkimmer:
      return "SKIMMER";
    case FeedStreamKind::kRbn:
      return "RBN";
    case FeedStreamKind::kRbnDigital:
      break;
  }
  return "RBN FT8";
}

bool IsCallPrompt(std::string_view text) {
  const std::string_view t = Trim(text);
  if (t.empty() || t.back() != ':' || t.size() > 120) return false;
  return ContainsIgnoreCase(t, "call") || ContainsIgnoreCase(t, "login");
}

int FeedBackoff::NextDelay() {
  int delay = kFirst;
  for (int i = 0; i < failures_ && delay < kMax; ++i) delay *= 2;
  ++failures_;
  return std::min(delay, kMax);
}

void FeedCounts::Count(const SkimmerDecision& d) {
  switch (d.outcome) {
    case SkimmerOutcome::kRefusedSkimmer:
    case SkimmerOutcome::kRefusedDx:
    case SkimmerOutcome::kOffBand:
      ++refused;
      return;
    case SkimmerOutcome::kPass:
      ++passed;
      break;
    case SkimmerOutcome::kHeld:
    case SkimmerOutcome::kBustedDropped:
    case SkimmerOutcome::kDuplicate:
      break;
  }
  switch (d.verdict) {
    case SkimmerVerdict::kVerified:
    case SkimmerVerdict::kQsy:
      ++verified;
      break;
    case SkimmerVerdict::kBusted:
      ++busted;
      break;
    case SkimmerVerdict::kUnverified:
      ++unverified;
      break;
  }
}

void FeedRate::Advance(int64_t now) const {
  if (now <= last_) return;
  if (now - last_ >= int64_t(buckets_.size())) {
    buckets_.fill(0);
  } else {
    for (int64_t t = last_ + 1; t <= now; ++t) buckets_[size_t(t % 60)] = 0;
  }
  last_ = now;
}

void FeedRate::Add(int64_t now, uint32_t n) {
  Advance(now);
  // A clock that went back counts in the current second.
  buckets_[size_t(std::max(now, last_) % 60)] += n;
}

uint32_t FeedRate::PerMinute(int64_t now) const {
  Advance(now);
  uint32_t sum = 0;
  for (uint32_t b : buckets_) sum += b;
  return sum;
}

uint32_t FeedRate::InSecond(int64_t second) const {
  Advance(second);
  // Any second of the last minute, not only the newest: the flood check asks about the
  // second just past while lines of the current one are already counted.
  if (second > last_ || last_ - second >= int64_t(buckets_.size())) return 0;
  return buckets_[size_t(second % 60)];
}

void RecentReports::Add(RecentReport report) {
  if (capacity_ == 0) return;
  if (ring_.size() == capacity_) ring_.pop_front();
  ring_.push_back(std::move(report));
}

std::vector<const RecentReport*> RecentReports::Of(std::string_view call, size_t max) const {
  std::vector<const RecentReport*> out;
  for (auto it = ring_.rbegin(); it != ring_.rend() && out.size() < max; ++it) {
    if (it->dx_call == call) out.push_back(&*it);
  }
  return out;
}

std::vector<std::string> FeedStatusLines(const std::vector<FeedStatus>& feeds,
                                         std::string_view call,
                                         const std::vector<const RecentReport*>& reports) {
  std::vector<std::string> lines;
  if (feeds.empty()) {
    lines.emplace_back("No skimmer or reporter feeds are configured on this node.");
  } else {
    lines.emplace_back(
        "Feed         Type      State       Lines/min Spots/min  Verified   Busted Unverified");
    for (const FeedStatus& f : feeds) {
      lines.push_back(fmt::format("{:<12} {:<9} {:<11} {:>9} {:>9} {:>9} {:>8} {:>10}",
                                  f.name.substr(0, 12), f.type, f.state, f.lines_per_minute,
                                  f.spots_per_minute, f.counts.verified, f.counts.busted,
                                  f.counts.unverified));
    }
  }
  if (call.empty()) return lines;
  if (reports.empty()) {
    lines.push_back(fmt::format("No recent skimmer reports of {}.", call));
    return lines;
  }
  lines.push_back(fmt::format("Recent skimmer reports of {}:", call));
  for (const RecentReport* r : reports) {
    const std::string_view verdict = SkimmerVerdictName(r->verdict);
    lines.push_back(fmt::format("  {} {} {:>9} {:<12} {:<11} {} ({})", DateText(r->at),
                                TimeHHnnZ(r->at), r->freq_text, r->spotter, r->mode_column, verdict,
                                r->skimmers));
  }
  return lines;
}

bool ParseBrokerAddress(std::string_view url, std::string_view port_text, std::string& host,
                        int& port) {
  std::string_view u = Trim(url);
  for (std::string_view scheme : {"mqtt://", "tcp://"}) {
    if (u.size() >= scheme.size() && EqualsIgnoreCase(u.substr(0, scheme.size()), scheme)) {
      u.remove_prefix(scheme.size());
    }
  }
  u = u.substr(0, u.find('/'));
  port = ParseIntOr(Trim(port_text), 1883);
  // "host:port", but an IPv6 address only in brackets.
  if (!u.empty() && u.front() == '[') {
    const size_t close = u.find(']');
    if (close == std::string_view::npos) return false;
    if (close + 1 < u.size() && u[close + 1] == ':') port = ParseIntOr(u.substr(close + 2), port);
    u = u.substr(1, close - 1);
  } else if (const size_t colon = u.find(':');
             colon != std::string_view::npos && u.find(':', colon + 1) == std::string_view::npos) {
    port = ParseIntOr(u.substr(colon + 1), port);
    u = u.substr(0, colon);
  }
  host = std::string(u);
  return !host.empty() && port > 0 && port <= 65535;
}

}  // namespace qx
