#include "spots/distribution.h"

#include <cstdio>

#include "core/stream_table.h"
#include "spots/spot_line.h"

namespace qx {

namespace {

// Only lines wider than the standard 75 columns have room for extra columns.
constexpr int kExtraMinWidth = int(kDxDeLineWidth) + 2;
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

const std::string& SpotDistributor::LineFor(const Spot& spot, int decimals,
                                            DistributionStats& stats) {
  Variant& v = variants_[decimals - 1];
  if (!v.built) {
    char buf[kDxDeLineMax];
    const size_t n = BuildDxDeLine(spot, decimals, "", buf);
    v.line.assign(buf, n);
    v.built = true;
    ++stats.lines_built;
  }
  return v.line;
}

const std::string& SpotDistributor::ExtendedLine(const Spot& spot, int decimals, uint8_t columns,
                                                 DistributionStats& stats) {
  for (size_t i = 0; i < extended_used_; ++i) {
    if (extended_[i].decimals == decimals && extended_[i].columns == columns) {
      return extended_[i].line;
    }
  }
  if (extended_used_ == extended_.size()) extended_.emplace_back();
  Extended& x = extended_[extended_used_++];
  x.decimals = decimals;
  x.columns = columns;
  x.line = LineFor(spot, decimals, stats);
  AppendExtraColumns(x.line, columns, columns_);
  ++stats.lines_built;
  return x.line;
}

void SpotDistributor::PrepareColumns(const Spot& spot) {
  columns_ready_ = true;
  const auto put = [&](ExtraColumn bit, std::string_view text) {
    int i = 0;
    while ((1u << i) != bit) ++i;
    column_store_[i].assign(text);
    columns_.text[i] = column_store_[i];
  };
  const auto locator = [&](std::string_view call, const CountryInfo* country) {
    std::string_view known = locator_of_ ? locator_of_(call) : std::string_view();
    char buf[4];
    if (known.empty() && country) known = LocatorOf(country->latitude, country->longitude, buf);
    return std::string(known);  // copied: the lookup may reuse its buffer for the next call
  };
  put(kColSpotterGrid, locator(spot.spotter(), spot.spotter_country));
  put(kColSpotterState, state_of_ ? state_of_(spot.spotter()) : std::string_view());
  put(kColSpotterCountry, spot.spotter_country ? spot.spotter_country->prefix : "");
  char zone[16];
  const CountryInfo* dx = spot.dx_country;
  put(kColDxCq, dx && dx->cq_zone > 0
                    ? std::string_view(zone, size_t(std::snprintf(zone, sizeof zone, "CQ%02d",
                                                                  dx->cq_zone % 100)))
                    : std::string_view());
  put(kColDxItu, dx && dx->itu_zone > 0
                     ? std::string_view(zone, size_t(std::snprintf(zone, sizeof zone, "IT%02d",
                                                                   dx->itu_zone % 100)))
                     : std::string_view());
  put(kColDxGrid, locator(spot.dx_call(), dx));
  put(kColDxState, state_of_ ? state_of_(spot.dx_call()) : std::string_view());
}

size_t SpotDistributor::UserText(const Spot& spot, int decimals, uint8_t columns, int width,
                                 bool bell, DistributionStats& stats) {
  for (size_t i = 0; i < ready_used_; ++i) {
    const Ready& r = ready_[i];
    if (r.decimals == decimals && r.columns == columns && r.width == width && r.bell == bell) {
      return i;
    }
  }
  if (ready_used_ == ready_.size()) ready_.emplace_back();
  Ready& r = ready_[ready_used_++];
  r.decimals = decimals;
  r.columns = columns;
  r.width = width;
  r.bell = bell;
  // A text the sink still holds (a line waiting for a slow link) stays as it is.
  if (!r.text || r.text.use_count() > 1) r.text = std::make_shared<std::string>();
  std::string& text = *r.text;
  if (columns != 0) {
    text = ExtendedLine(spot, decimals, columns, stats);  // fits the width by its making
  } else {
    const std::string& line = LineFor(spot, decimals, stats);
    constexpr size_t kTime = 5;  // "HHnnZ", columns 71-75 of the full line
    if (size_t(width) < kDxDeLineWidth && size_t(width) >= kMinTimedWidth &&
        line.size() >= kDxDeLineWidth) {
      // A narrow screen loses the end of the comment, never the time that programs parse.
      text.assign(line, 0, size_t(width) - kTime - 1);
      text += ' ';
      text.append(line, kDxDeLineWidth - kTime, kTime);
    } else {
      text.assign(line, 0, std::min(line.size(), size_t(width)));
    }
  }
  if (bell) text += '\a';
  text += "\r\n";
  return ready_used_ - 1;
}

void SpotDistributor::SendGathered() {
  // Few texts per spot (the variants in use), so one pass per text costs little.
  for (size_t i = 0; i < ready_used_; ++i) {
    const std::shared_ptr<const std::string> text = ready_[i].text;
    for (const Gathered& g : gathered_) {
      if (g.ready == i) sink_.SendSpotToStream(g.stream, text);
    }
  }
  gathered_.clear();
}

void SpotDistributor::Begin() {
  for (Variant& v : variants_) v.built = false;
  extended_used_ = 0;
  ready_used_ = 0;
  columns_ready_ = false;
  enhanced_built_ = false;
  json_built_ = false;
}

void SpotDistributor::SendTo(int stream, const StreamEntry& user, const Spot& spot,
                             DistributionStats& stats) {
  if (user.session.Has(kSwJson)) {
    if (!json_built_) {
      json_.clear();
      if (json_of_) json_of_(spot, json_);
      json_built_ = true;
      ++stats.lines_built;
    }
    if (json_.empty()) return;
    sink_.SendToStream(stream, json_);
    ++stats.users;
    return;
  }
  if (enhanced_of_ && user.WantsEnhancedSpots()) {
    // A program reads this: no width, no bell, the same text for every such user.
    if (!enhanced_built_) {
      enhanced_of_(spot, enhanced_);
      enhanced_ += "\r\n";
      enhanced_built_ = true;
      ++stats.lines_built;
    }
    sink_.SendToStream(stream, enhanced_);
    ++stats.users;
    return;
  }
  const SessionSettings& set = user.session;
  const int width = set.width > 0 ? set.width : kDefaultWidth;
  uint8_t columns = width >= kExtraMinWidth ? ExtraColumnsOf(set) : 0;
  if (columns != 0) {
    if (!columns_ready_) PrepareColumns(spot);
    columns = FittingColumns(columns, columns_, kDxDeLineWidth, size_t(width));
  }
  const int decimals = set.resolution >= 2 ? 2 : 1;
  const size_t ready = UserText(spot, decimals, columns, width, set.Has(kSwBeep), stats);
  if (gathering_) {
    gathered_.push_back({stream, uint32_t(ready)});
  } else {
    sink_.SendSpotToStream(stream, ready_[ready].text);
  }
  ++stats.users;
}

DistributionStats SpotDistributor::OutputSpotToAll(const Spot& spot) {
  DistributionStats stats;
  Begin();
  if (filter_) filter_->Prepare(spot);
  gathering_ = true;
  gathered_.clear();

  const int high = streams_.high_socket();
  for (int stream = 1; stream <= high; ++stream) {
    const StreamEntry& e = streams_.at(stream);
    if (!e.TakesSpots()) continue;
    const SessionSettings& set = e.session;
    if (!set.Has(kSwDxSpots) || !SwitchesAllow(set, spot)) continue;
    if (filter_ && !filter_->Passes(stream, e, spot)) {
      ++stats.filtered;
      continue;
    }
    SendTo(stream, e, spot, stats);
  }
  gathering_ = false;
  SendGathered();
  return stats;
}

DistributionStats SpotDistributor::OutputSpotTo(const Spot& spot, int stream) {
  DistributionStats stats;
  if (!streams_.InRange(stream) || !streams_.at(stream).IsUser()) return stats;
  Begin();
  SendTo(stream, streams_.at(stream), spot, stats);
  return stats;
}

}  // namespace qx
