// Fuzzes the DX command and spot intake: the first byte chooses the road (a typed DX line
// or a node sentence, local or remote, reporter feed or not); accepted spots are then
// formatted for users and for SH/DX, so the line layout meets the same input.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "core/stream_table.h"
#include "core/text_util.h"
#include "core/time_text.h"
#include "spots/bad_lists.h"
#include "spots/bands.h"
#include "spots/distribution.h"
#include "spots/dupes.h"
#include "spots/dx_command.h"
#include "spots/intake.h"
#include "spots/rate_limit.h"
#include "spots/spot_line.h"

namespace {

using namespace qx;

class NullSink : public SpotSink {
 public:
  void SendToStream(int stream, std::string_view text) override { bytes += text.size() + stream; }
  size_t bytes = 0;
};

bool FuzzValidCall(std::string& call) {
  ToUpperInPlace(call);
  return !call.empty() && call[0] != 'Q' && call[0] >= '1';
}

struct World {
  BadLists lists;
  BandTable bands = BandTable::SetupFreqRanges();
  DupeDetector dupes{DupeOptions{3.0, std::chrono::seconds(600), std::chrono::seconds(3600), 256}};
  SpotRateLimiter rates{SpotRates{0, 50, 50}};
  ManualClock clock{MakeUtc(2026, 11, 22, 3, 15)};
  CountryInfo info{"Somewhere", "S", 1, 1, "EU", 50, 10};
  StreamTable streams;
  NullSink sink;
  std::unique_ptr<SpotIntake> intake;
  std::unique_ptr<SpotDistributor> dist;

  World() {
    lists.SetBadWordsText("SPAM\r\nBAD PHRASE\r\nIDIOT\r\n");
    lists.SetDxNok({"K1BAD", "VP8*"});
    lists.SetSpotterNok({"DL1BAD"});
    lists.SetNodeNok({"DB0BAD"});
    lists.AddRefusedAddress("203.0.113.1");
    lists.AddTorAddress("198.51.100.1");
    streams.EnsureCapacity(3);
    for (int i = 1; i <= 3; ++i) {
      streams.at(i).state = kStateUser;
      streams.at(i).call = "G" + std::to_string(i) + "ABC";
    }
    streams.at(2).session.resolution = 2;
    streams.at(3).session.width = 90;
    streams.at(3).session.Set(kSwGridSquare, true);
    IntakeDeps deps;
    deps.bad_lists = &lists;
    deps.bands = &bands;
    deps.dupes = &dupes;
    deps.rates = &rates;
    deps.valid_call = FuzzValidCall;
    deps.country_of = [this](std::string_view call) -> const CountryInfo* {
      return call.size() > 2 && call[0] != 'Z' ? &info : nullptr;
    };
    deps.streams = &streams;
    deps.clock = &clock;
    deps.node_call = "DB0QX";
    intake = std::make_unique<SpotIntake>(std::move(deps));
    dist = std::make_unique<SpotDistributor>(streams, sink);
  }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static World w;
  if (size == 0) return 0;
  const uint8_t mode = data[0];
  const std::string_view input(reinterpret_cast<const char*>(data + 1), size - 1);
  w.clock.Advance(std::chrono::seconds(7));

  std::string sentence;
  IntakeRequest req;
  req.source_stream = 1 + mode % 3;
  if (mode & 1) {
    const DxCommandResult r = DxCommand(input, "G1ABC", "DB0QX", "192.0.2.7", w.clock.Now());
    if (!r.ok) return 0;
    sentence = r.text;
    req.is_local = true;
  } else {
    sentence.assign(input);
    req.source = (mode & 2) ? SpotSource::kReporter : SpotSource::kCluster;
    req.skip_request_filter = (mode & 4) != 0;
    if (mode & 8) req.known_address = "203.0.113.1";
  }
  req.sentence = sentence;
  const IntakeResult r = w.intake->Process(req);
  if (r.accepted()) {
    w.dist->OutputSpotToAll(*r.spot);
    const std::string line = ShowDxLine(*r.spot, 1 + (mode >> 7));
    const std::string sent = r.spot->Sentence();
    Spot again;
    if (!SpotFromSentence(sent, again)) __builtin_trap();  // what intake accepts reloads
    // Nothing accepted shows an impossible time or carries a control character to a user.
    if (!IsSpotDateTime(r.spot->date(), r.spot->time())) __builtin_trap();
    for (char c : sent) {
      if (IsControlChar(c)) __builtin_trap();
    }
  }
  return 0;
}
