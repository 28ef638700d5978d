#include "spots/distribution.h"

#include "core/stream_table.h"
#include "spots/spot_line.h"

namespace qx {

namespace {

// Users whose lines are wider than the standard 75 columns may have the spotter's locator.
constexpr int kLocatorMinWidth = int(kDxDeLineWidth) + 1;
// Below this a line keeps its start only: the call and frequency matter more than the time.
constexpr size_t kMinTimedWidth = 40;

}  // namespace

bool SwitchesAllow(const SessionSettings& session, const Spot& spot) {
  if (spot.IsBeacon && !session.Has(kSwBeaconSpots)) return false;
  const uint32_t mode = spot.ModeFlags & kModeMask;
  if ((mode & kModeFt8) && !session.Has(kSwFt8Spots)) return false;
  if ((mode & kModeFt4) && !session.Has(kSwFt4Spots)) return false;
  if ((mode & kModeRtty) && !session.Has(kSwRttySpots)) return false;
  if ((mode & kModePsk) && !session.Has(kSwPskSpots)) return false;
  if ((mode & kModeMsk) && !session.Has(kSwMskSpots)) return false;
  if (spot.SourceTag == SourceTagText(SpotSource::kReporter) && !session.Has(kSwPskReporter)) {
    return false;
  }
  if (spot.SourceTag == SourceTagText(SpotSource::kSkimmer)) {
    if (!session.Has(kSwSkimmerSpots)) return false;
    if (spot.SkimmerDupe && !session.Has(kSwSkimmerDupes)) return false;
    // CW has no mode bit (people's spots rarely say so); a skimmer's comment starts with
    // its mode column.
    if (!session.Has(kSwCwSpots) && spot.comment().starts_with("CW ")) return false;
  }
  return true;
}

SpotDistributor::SpotDistributor(const StreamTable& streams, SpotSink& sink)
    : streams_(streams), sink_(sink) {}

const std::string& SpotDistributor::LineFor(const Spot& spot, int variant,
                                            DistributionStats& stats) {
  Variant& v = variants_[variant];
  if (!v.built) {
    char buf[kDxDeLineMax];
    const int decimals = (variant >> 1) + 1;
    const bool with_locator = (variant & 1) != 0;
    const size_t n = BuildDxDeLine(spot, decimals, with_locator ? locator_ : "", buf);
    v.line.assign(buf, n);
    v.built = true;
    ++stats.lines_built;
  }
  return v.line;
}

std::string_view SpotDistributor::UserText(const Spot& spot, int variant, int width, bool bell,
                                           DistributionStats& stats) {
  for (size_t i = 0; i < ready_used_; ++i) {
    const Ready& r = ready_[i];
    if (r.variant == variant && r.width == width && r.bell == bell) return r.text;
  }
  if (ready_used_ == ready_.size()) ready_.emplace_back();
  Ready& r = ready_[ready_used_++];
  r.variant = variant;
  r.width = width;
  r.bell = bell;
  const std::string& line = LineFor(spot, variant, stats);
  constexpr size_t kTime = 5;  // "HHnnZ", columns 71-75 of the full line
  if (size_t(width) < kDxDeLineWidth && size_t(width) >= kMinTimedWidth &&
      line.size() >= kDxDeLineWidth) {
    // A narrow screen loses the end of the comment, never the time that programs parse.
    r.text.assign(line, 0, size_t(width) - kTime - 1);
    r.text += ' ';
    r.text.append(line, kDxDeLineWidth - kTime, kTime);
  } else {
    r.text.assign(line, 0, std::min(line.size(), size_t(width)));
  }
  if (bell) r.text += '\a';
  r.text += "\r\n";
  return r.text;
}

DistributionStats SpotDistributor::OutputSpotToAll(const Spot& spot) {
  DistributionStats stats;
  for (Variant& v : variants_) v.built = false;
  ready_used_ = 0;
  locator_ = {};
  bool locator_known = false;
  if (filter_) filter_->Prepare(spot);

  const int high = streams_.high_socket();
  for (int stream = 1; stream <= high; ++stream) {
    const StreamEntry& e = streams_.at(stream);
    if (!e.IsUser()) continue;
    const SessionSettings& set = e.session;
    if (!set.Has(kSwDxSpots) || !SwitchesAllow(set, spot)) continue;
    if (filter_ && !filter_->Passes(stream, e, spot)) {
      ++stats.filtered;
      continue;
    }
    const int width = set.width > 0 ? set.width : kDefaultWidth;
    bool with_locator = width >= kLocatorMinWidth && set.Has(kSwGridSquare);
    if (with_locator && !locator_known) {
      locator_known = true;
      if (locator_of_) locator_ = locator_of_(spot.spotter());
      if (locator_.empty() && spot.spotter_country) {
        locator_ = LocatorOf(spot.spotter_country->latitude, spot.spotter_country->longitude,
                             locator_buf_);
      }
    }
    if (locator_.empty()) with_locator = false;
    const int variant = ((set.resolution >= 2 ? 1 : 0) << 1) | (with_locator ? 1 : 0);
    sink_.SendToStream(stream, UserText(spot, variant, width, set.Has(kSwBeep), stats));
    ++stats.users;
  }
  return stats;
}

}  // namespace qx
