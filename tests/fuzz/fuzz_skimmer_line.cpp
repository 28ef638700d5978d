// Skimmer feed bytes, cut into pieces of a size the first byte chooses: every line is read,
// and every report read goes through the verification stage with a clock the reports move.
// A spot that goes on must be a sentence intake reads back to the same call, spotter and
// frequency, with no field more or less.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "feeds/feed_spot.h"
#include "feeds/skimmer_line.h"
#include "feeds/skimmer_verifier.h"
#include "spots/bands.h"
#include "spots/intake.h"

namespace {

using namespace qx;

void Require(bool condition) {
  if (!condition) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const BandTable* bands = new BandTable(BandTable::SetupFreqRanges());
  if (size == 0) return 0;
  const size_t piece = 1 + data[0] % 64;
  std::string_view bytes(reinterpret_cast<const char*>(data) + 1, size - 1);

  VerifierSettings settings;
  settings.origin_node = "XX0QX";
  settings.max_calls = 64;
  settings.cw_verified = (data[0] & 64) != 0;
  settings.data_verified = (data[0] & 128) != 0;
  SkimmerVerifier verifier(*bands, settings);
  verifier.lists().known_calls.LoadText("K1ABC\nK1ABD\n");
  SysTime now = MakeUtc(2026, 3, 14, 18, 54, 0);
  FeedLineSplitter splitter(256);
  SkimmerReport report;
  Spot spot;

  auto on_line = [&](std::string_view line) {
    Require(!line.empty() && line.size() <= 256);
    if (ParseSkimmerLine(line, report) != SkimmerLineError::kNone) return;
    Require(report.dx_call.find('^') == std::string::npos);
    Require(report.spotter.find('^') == std::string::npos);
    now += std::chrono::seconds(report.hhmm > 0 ? report.hhmm % 97 : 1);
    const SkimmerDecision& d = verifier.Decide(report, now);
    Require(verifier.calls_held() <= 64);
    if (d.verdict == SkimmerVerdict::kBusted) {
      Require(!d.corrected_call.empty() && IsBustOf(report.dx_call, d.corrected_call));
      Require(!d.busted_line.empty() && !d.busted_folder.empty());
    }
    if (d.outcome != SkimmerOutcome::kPass) return;
    Require(SpotFromSentence(d.sentence, spot));
    Require(spot.type() == "PC11" && spot.hops() == "H30");
    Require(spot.dx_call() == report.dx_call);
    Require(spot.spotter() == report.spotter);
    Require(spot.comment() == d.comment);
    Require(spot.FrequencyKHz > 0 && std::abs(spot.FrequencyKHz - report.khz) < 0.01);
  };
  for (size_t at = 0; at < bytes.size(); at += piece) {
    splitter.Feed(bytes.substr(at, piece), on_line);
  }
  return 0;
}
