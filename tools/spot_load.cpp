// spot_load: drives spot intake and distribution with a load and reports what happened.
//
//   spot_load [--count N] [--users U] [--file sentences.txt]
//
// Without --file, N synthetic "PC61" sentences (distinct calls on every HF band, with a
// sprinkling of duplicates, requests and bad frequencies) are fed; with --file, each line of
// the file (a daily spot file of data/dx/, for example) is one sentence.  Every accepted
// spot goes to U logged-in users through a counting sink.  Prints the verdicts, spots per
// second and user lines per second.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "core/file_util.h"
#include "core/stream_table.h"
#include "core/text_util.h"
#include "spots/bad_lists.h"
#include "spots/bands.h"
#include "spots/distribution.h"
#include "spots/dupes.h"
#include "spots/intake.h"
#include "spots/rate_limit.h"

namespace {

using namespace qx;

class CountingSink : public SpotSink {
 public:
  void SendToStream(int, std::string_view text) override {
    ++lines;
    bytes += text.size();
  }
  size_t lines = 0;
  size_t bytes = 0;
};

std::vector<std::string> Synthetic(size_t count) {
  static const char* kPrefixes[] = {"K", "DL", "JA", "VK", "G", "PY", "UA", "OH", "EA", "I"};
  static const double kBands[] = {1825, 3525, 7012, 10115, 14025, 18080, 21020, 24900, 28020};
  static const char* kComments[] = {"CQ up 2", "FT8 -12dB", "599 tnx", "PSE QSL",
                                    "RTTY",    "loud",      " "};
  std::vector<std::string> out;
  out.reserve(count);
  char buf[256];
  for (size_t i = 0; i < count; ++i) {
    // Every 50th spot repeats its predecessor (a duplicate), every 97th is off the bands.
    const size_t k = (i % 50 == 49) ? i - 1 : i;
    const double khz = (i % 97 == 96) ? 14500.0 : kBands[k % 9] + double(k % 20) * 0.5;
    const int n = std::snprintf(
        buf, sizeof buf,
        "PC61^%.1f^%s%zu%c%c%c^22-Nov-2026^0315Z^%s^%s%zuXY^DB0SUE^192.0.2.%zu^H30^~", khz,
        kPrefixes[k % 10], k % 10, char('A' + k % 26), char('A' + (k / 26) % 26),
        char('A' + (k / 676) % 26), kComments[k % 7], kPrefixes[(k + 3) % 10], k % 9, k % 250);
    out.emplace_back(buf, size_t(n));
  }
  return out;
}

}  // namespace

int main(int argc, char** argv) {
  size_t count = 200000;
  int users = 1000;
  const char* file = nullptr;
  for (int i = 1; i < argc; ++i) {
    if (!std::strcmp(argv[i], "--count") && i + 1 < argc) {
      count = std::strtoul(argv[++i], nullptr, 10);
    } else if (!std::strcmp(argv[i], "--users") && i + 1 < argc) {
      users = std::atoi(argv[++i]);
    } else if (!std::strcmp(argv[i], "--file") && i + 1 < argc) {
      file = argv[++i];
    } else {
      std::fprintf(stderr, "usage: spot_load [--count N] [--users U] [--file sentences.txt]\n");
      return 2;
    }
  }

  std::vector<std::string> sentences;
  if (file) {
    const std::optional<std::string> text = ReadFileText(file);
    if (!text) {
      std::fprintf(stderr, "cannot read %s\n", file);
      return 1;
    }
    for (std::string_view line : SplitLines(*text)) {
      if (!Trim(line).empty()) sentences.emplace_back(Trim(line));
    }
  } else {
    sentences = Synthetic(count);
  }

  BadLists lists;
  const BandTable bands = BandTable::SetupFreqRanges();
  DupeDetector dupes;
  SpotRateLimiter rates;
  CountryInfo somewhere{"Somewhere", "S", 14, 28, "EU", 50, 10};
  SystemClock clock;
  IntakeDeps deps;
  deps.bad_lists = &lists;
  deps.bands = &bands;
  deps.dupes = &dupes;
  deps.rates = &rates;
  deps.valid_call = [](std::string& call) {
    ToUpperInPlace(call);
    return !call.empty() && call[0] != 'Q' && call[0] >= '1';
  };
  // Every spotter has a country here: the load is about throughput, not about the country
  // file (which the node loads from data/files/).
  deps.country_of = [&somewhere](std::string_view) { return &somewhere; };
  deps.clock = &clock;
  deps.node_call = "DB0QX";
  // The sentences carry one fixed time, replayed pass after pass: no spot is too old here.
  IntakeOptions options;
  options.max_age = std::chrono::hours(24 * 365 * 100);
  options.max_ahead = options.max_age;
  SpotIntake intake(std::move(deps), options);

  StreamTable streams;
  streams.EnsureCapacity(users);
  for (int i = 1; i <= users; ++i) {
    streams.at(i).state = kStateUser;
    if (i % 5 == 0) streams.at(i).session.resolution = 2;
  }
  CountingSink sink;
  SpotDistributor dist(streams, sink);

  std::map<std::string_view, size_t> verdicts;
  const auto start = std::chrono::steady_clock::now();
  for (const std::string& s : sentences) {
    IntakeRequest req;
    req.sentence = s;
    const IntakeResult r = intake.Process(req);
    ++verdicts[VerdictName(r.verdict)];
    if (r.accepted()) dist.OutputSpotToAll(*r.spot);
  }
  const double secs =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();

  std::printf("sentences: %zu in %.3f s\n", sentences.size(), secs);
  for (const auto& [name, n] : verdicts) std::printf("  %-26s %zu\n", std::string(name).c_str(), n);
  std::printf("spots per second: %.0f\n", double(sentences.size()) / secs);
  std::printf("user lines: %zu (%.0f per second), %zu bytes\n", sink.lines,
              double(sink.lines) / secs, sink.bytes);
  return 0;
}
