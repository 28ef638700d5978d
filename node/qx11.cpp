#include "node/qx11.h"

#include <array>
#include <charconv>

#include "core/text_util.h"
#include "filters/spot_facts.h"
#include "node/pc_sentence.h"

namespace qx {
namespace {

char SourceLetter(std::string_view source_tag) {
  if (source_tag == SourceTagText(SpotSource::kSkimmer)) return 'S';
  if (source_tag == SourceTagText(SpotSource::kReporter)) return 'R';
  if (source_tag == SourceTagText(SpotSource::kWebGateway)) return 'W';
  return 'C';
}

SpotSource SourceOfLetter(std::string_view letter) {
  if (letter == "S") return SpotSource::kSkimmer;
  if (letter == "R") return SpotSource::kReporter;
  if (letter == "W") return SpotSource::kWebGateway;
  return SpotSource::kCluster;
}

void AppendNumber(std::string& out, uint64_t value) {
  char buf[24];
  const auto r = std::to_chars(buf, buf + sizeof buf, value);
  out.append(buf, r.ptr);
}

// A zone or count: blank when 0 (unknown).
void AppendIfKnown(std::string& out, int value) {
  if (value > 0) AppendNumber(out, uint64_t(value));
}

// Digits only, no sign, at most max; "" reads as 0.
bool ReadNumber(std::string_view text, uint64_t max, uint64_t& value) {
  value = 0;
  if (text.empty()) return true;
  const auto r = std::from_chars(text.data(), text.data() + text.size(), value);
  return r.ec == std::errc() && r.ptr == text.data() + text.size() && text[0] != '-' &&
         value <= max;
}

bool ReadSmall(std::string_view text, int max, int& value) {
  uint64_t v = 0;
  if (!ReadNumber(text, uint64_t(max), v)) return false;
  value = int(v);
  return true;
}

bool Fail(std::string* error, std::string_view why) {
  if (error) error->assign(why);
  return false;
}

}  // namespace

void BuildQx11(const Spot& spot, std::string_view hops, std::string_view address,
               std::string& out) {
  std::string_view mode = spot.Mode;
  bool stated = spot.ModeStated;
  if (mode.empty()) {
    std::string upper(spot.comment());
    ToUpperInPlace(upper);
    SpotMode m = SpotMode::kUnknown;
    stated = StatedMode(spot.ModeFlags, upper, m);
    if (!stated) m = InferMode(spot.FrequencyKHz);
    if (m != SpotMode::kUnknown) mode = SpotModeName(m);
  }
  const CountryInfo* sc = spot.spotter_country;
  const CountryInfo* dc = spot.dx_country;
  const uint64_t id = spot.OriginId != 0 ? spot.OriginId : (spot.IsLocal ? spot.Id : 0);

  out.assign(kQx11Header);
  const auto field = [&out](std::string_view text) {
    out += '^';
    out += text;
  };
  out += '^';
  AppendNumber(out, kQx11Version);
  for (int i = kSlotFrequency; i <= kSlotOriginNode; ++i) field(spot.slots[size_t(i)]);
  field(address);
  field(mode);
  field(mode.empty() ? "" : stated ? "S" : "I");
  out += '^';
  out += SourceLetter(spot.SourceTag);
  out += '^';
  if (spot.SkimmerVerdict != 0) out += spot.SkimmerVerdict;
  out += '^';
  AppendIfKnown(out, spot.SkimmerCount);
  field(sc ? std::string_view(sc->prefix) : std::string_view());
  out += '^';
  AppendIfKnown(out, sc ? sc->cq_zone : 0);
  out += '^';
  AppendIfKnown(out, sc ? sc->itu_zone : 0);
  field(spot.SpotterGrid);
  field(dc ? std::string_view(dc->prefix) : std::string_view());
  out += '^';
  AppendIfKnown(out, dc ? dc->cq_zone : 0);
  out += '^';
  AppendIfKnown(out, dc ? dc->itu_zone : 0);
  field(spot.DxGrid);
  out += '^';
  if (id != 0) AppendNumber(out, id);
  field(hops);
  out += "^~";
}

bool ParseQx11(std::string_view line, Qx11Spot& q, std::string* error) {
  q = Qx11Spot{};
  std::array<std::string_view, kQxKnownFields> f;
  size_t count = 0;
  std::string_view hops, last;
  // Walk the fields once: keep the known ones, and the two last seen (hops, "~").
  size_t start = 0;
  std::string_view before_last;
  while (true) {
    const size_t caret = line.find('^', start);
    const std::string_view field = line.substr(
        start, caret == std::string_view::npos ? std::string_view::npos : caret - start);
    if (count < f.size()) f[count] = field;
    ++count;
    before_last = last;
    last = field;
    if (caret == std::string_view::npos) break;
    start = caret + 1;
  }
  hops = before_last;
  if (count < size_t(kQx11MinFields)) return Fail(error, "too few fields");
  if (f[kQxHeader] != kQx11Header) return Fail(error, "not a QX11");
  if (last != "~") return Fail(error, "no terminator");
  if (!IsHopCount(hops)) return Fail(error, "no hop count");
  uint64_t number = 0;
  if (!ReadNumber(f[kQxVersion], 9999, number) || number == 0) return Fail(error, "bad version");
  q.version = int(number);
  q.frequency = f[kQxFrequency];
  q.dx_call = f[kQxDxCall];
  q.date = f[kQxDate];
  q.time = f[kQxTime];
  q.comment = f[kQxComment];
  q.spotter = f[kQxSpotter];
  q.origin = f[kQxOrigin];
  q.address = f[kQxAddress];
  if (q.frequency.empty() || q.dx_call.empty() || q.spotter.empty() || q.origin.empty()) {
    return Fail(error, "empty frequency or call");
  }
  q.mode = f[kQxMode];
  if (q.mode.size() > 8) return Fail(error, "bad mode");
  const std::string_view how = f[kQxModeHow];
  if (how != "" && how != "S" && how != "I") return Fail(error, "bad mode source");
  q.mode_stated = how == "S" && !q.mode.empty();
  q.source = SourceOfLetter(f[kQxSource]);
  const std::string_view verdict = f[kQxSkimmerVerdict];
  if (verdict.size() > 1 || (verdict.size() == 1 &&
                             std::string_view("VQ?B").find(verdict[0]) == std::string_view::npos)) {
    return Fail(error, "bad skimmer verdict");
  }
  q.skimmer_verdict = verdict.empty() ? 0 : verdict[0];
  if (!ReadSmall(f[kQxSkimmerCount], 9999, q.skimmer_count) ||
      !ReadSmall(f[kQxSpotterCq], 99, q.spotter_cq) ||
      !ReadSmall(f[kQxSpotterItu], 99, q.spotter_itu) || !ReadSmall(f[kQxDxCq], 99, q.dx_cq) ||
      !ReadSmall(f[kQxDxItu], 99, q.dx_itu)) {
    return Fail(error, "bad count or zone");
  }
  if (!ReadNumber(f[kQxOriginId], UINT64_MAX, q.origin_id)) return Fail(error, "bad spot id");
  q.spotter_prefix = f[kQxSpotterPrefix];
  q.spotter_grid = f[kQxSpotterGrid];
  q.dx_prefix = f[kQxDxPrefix];
  q.dx_grid = f[kQxDxGrid];
  if (q.spotter_grid.size() > 10 || q.dx_grid.size() > 10) return Fail(error, "bad locator");
  q.hops = hops;
  return true;
}

std::string Qx11IntakeSentence(const Qx11Spot& q) {
  const bool pc61 = !q.address.empty();
  std::string s(pc61 ? "PC61" : "PC11");
  for (std::string_view field :
       {q.frequency, q.dx_call, q.date, q.time, q.comment, q.spotter, q.origin}) {
    s += '^';
    s += field;
  }
  if (pc61) {
    s += '^';
    s += q.address;
  }
  s += '^';
  s += q.hops;
  s += "^~";
  return s;
}

void Qx11Carried(const Qx11Spot& q, Spot& c) {
  c.Mode.assign(q.mode);
  c.ModeStated = q.mode_stated;
  c.SourceTag = SourceTagText(q.source);
  c.SkimmerVerdict = q.skimmer_verdict;
  c.SkimmerCount = q.skimmer_count;
  c.SpotterGrid.assign(q.spotter_grid);
  c.DxGrid.assign(q.dx_grid);
  c.OriginId = q.origin_id;
}

}  // namespace qx
