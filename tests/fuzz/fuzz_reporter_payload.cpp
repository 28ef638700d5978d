// Reporter payloads from arbitrary bytes: no exception may escape the parse, and a spot made
// of a report reads back through intake's sentence reader as the sender spotted by the
// receiver at the reporter's pseudo-node.  The first byte chooses a hold and a clock step.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "feeds/reporter_feed.h"
#include "spots/bands.h"
#include "spots/intake.h"

namespace {

using namespace qx;

void Require(bool condition) {
  if (!condition) std::abort();
}

void CheckSentence(std::string_view sentence) {
  Spot spot;
  Require(SpotFromSentence(sentence, spot));
  Require(spot.type() == "PC11" && spot.origin_node() == kReporterOriginNode);
  Require(!spot.dx_call().empty() && !spot.spotter().empty() && spot.FrequencyKHz > 0);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const BandTable* bands = new BandTable(BandTable::SetupFreqRanges());
  if (size == 0) return 0;
  ReporterSettings settings;
  settings.hold = std::chrono::seconds(data[0] & 1 ? 0 : 30);
  settings.max_entries = 8;
  ReporterFeed feed(*bands, settings);
  SysTime now = MakeUtc(2022, 9, 5, 19, 55, 0);
  std::string_view rest(reinterpret_cast<const char*>(data) + 1, size - 1);
  // Payloads are separated by newlines so that one input can fill the collapse table.
  while (!rest.empty()) {
    const size_t end = rest.find('\n');
    const std::string_view payload = rest.substr(0, end);
    rest = end == std::string_view::npos ? std::string_view() : rest.substr(end + 1);
    const ReporterResult& r = feed.Offer(payload, now);
    Require((r.outcome == ReporterOutcome::kRejected) == (r.error != ReporterError::kNone));
    if (r.outcome == ReporterOutcome::kSpot) CheckSentence(r.sentence);
    Require(feed.entries() <= 8);
    now += std::chrono::seconds(data[0] >> 1);
    feed.TakeDue(now, CheckSentence);
  }
  return 0;
}
