// A neighbour's QX11 lines, any bytes.  A line the reader takes must come out of intake's
// conversion as a spot sentence with the same calls and hop count, and must read the same
// when this node writes it out again from what it understood.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "node/pc_sentence.h"
#include "node/qx11.h"
#include "spots/intake.h"

namespace {

using namespace qx;

void Require(bool condition) {
  if (!condition) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view line(reinterpret_cast<const char*>(data), size);
  Qx11Spot q;
  std::string why;
  if (!ParseQx11(line, q, &why)) {
    Require(!why.empty());
    return 0;
  }
  Require(q.version >= 1 && IsHopCount(q.hops));
  Require(!q.dx_call.empty() && !q.spotter.empty() && !q.origin.empty());
  const std::string sentence = Qx11IntakeSentence(q);
  Spot spot;
  Require(SpotFromSentence(sentence, spot));
  Require(spot.hops() == q.hops);
  // Intake leaves control characters out (the node's reader has already done so): a call
  // made of nothing else is gone.
  if (spot.dx_call().empty() || spot.spotter().empty() || spot.origin_node().empty() ||
      spot.frequency_text().empty()) {
    return 0;
  }

  // What was understood, written again, is read back alike.
  Qx11Carried(q, spot);
  std::string again;
  BuildQx11(spot, q.hops, spot.address(), again);
  Qx11Spot back;
  Require(ParseQx11(again, back, nullptr));
  Require(back.dx_call == spot.dx_call() && back.spotter == spot.spotter());
  if (!q.mode.empty()) Require(back.mode == q.mode && back.mode_stated == q.mode_stated);
  Require(back.skimmer_verdict == q.skimmer_verdict && back.skimmer_count == q.skimmer_count);
  Require(back.origin_id == q.origin_id && back.source == q.source);
  Require(back.dx_grid == q.dx_grid && back.spotter_grid == q.spotter_grid);
  return 0;
}
