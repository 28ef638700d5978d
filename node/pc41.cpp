#include "node/pc41.h"

#include <exception>

#include "core/monitor.h"
#include "spots/call_sign.h"

namespace qx {

Pc41Lists::StoreResult Pc41Lists::Store(int type, std::string_view base_call,
                                        std::string_view entry) {
  if (type < 1 || type > 5) return StoreResult::kBadType;
  auto& list = lists_[size_t(type - 1)];
  auto [it, added] = list.try_emplace(std::string(base_call), entry);
  if (added) return StoreResult::kAdded;
  if (it->second == entry) return StoreResult::kRepeat;
  it->second.assign(entry);
  return StoreResult::kReplaced;
}

size_t Pc41Lists::Count(int type) const {
  if (type < 1 || type > 5) return 0;
  return lists_[size_t(type - 1)].size();
}

const std::string* Pc41Lists::Find(int type, std::string_view base_call) const {
  if (type < 1 || type > 5) return nullptr;
  const auto& list = lists_[size_t(type - 1)];
  auto it = list.find(std::string(base_call));
  return it == list.end() ? nullptr : &it->second;
}

namespace {

void Show(const Pc41Deps& deps, int stream, std::string_view text) {
  if (deps.monitor) deps.monitor->Write(MonitorChannel::kRaw, text, {}, stream);
}

}  // namespace

namespace {

Pc41Result HandlePc41(PcSentence& s, Pc41Lists& lists, NodeNetState& state, const Pc41Deps& deps,
                      int& step) {
  Pc41Result result;
  step = 1;
  // Exactly six fields, the last one the terminator.
  if (s.last() != 5 || s.fields[5].empty() || s.fields[5][0] != '~') return result;

  step = 2;
  const std::string& value = s.fields[3];
  if (deps.bad_word && deps.bad_word(value)) {
    if (deps.bad_data_log) deps.bad_data_log("Bad Word PC41 = " + value + "^", s.line);
    return result;
  }
  if (deps.valid_call && !deps.valid_call(s.fields[1])) return result;

  const int type = LeadingNumber(s.fields[2]);
  if (type == 4 && deps.valid_call && !deps.valid_call(value)) {
    Show(deps, s.stream, " BAD home node");
    return result;
  }
  if (value.find('?') != std::string::npos) {
    Show(deps, s.stream, " BAD Data ");
    return result;
  }
  if (value.empty()) return result;

  step = 7;
  const std::string base(BaseCall(s.fields[1]));
  std::string entry = base;
  entry += ' ';
  entry += value;
  const Pc41Lists::StoreResult stored = lists.Store(type, base, entry);
  if (stored == Pc41Lists::StoreResult::kBadType) return result;
  if (stored == Pc41Lists::StoreResult::kAdded && deps.count_changed) deps.count_changed(type);
  if (stored == Pc41Lists::StoreResult::kRepeat) return result;

  step = 10;
  // Calls such as K1ABC/P are filed under a name usable as a file name.
  const size_t slash = s.fields[1].find('/');
  std::string file_call = base;
  if (slash != std::string::npos && slash >= 1) {
    for (char& c : file_call) {
      if (c == '/') c = 'p';
    }
    s.fields[1] = file_call;
  }
  if (deps.store) {
    std::string record = "PC41^^";
    record += s.Join();
    deps.store(s.fields[1], record);
  }
  s.fields[1] = base;
  result.processed = true;

  step = 13;
  // PC41 information never travels on with more than 11 hops left.
  std::string& hop = s.fields[4];
  if (!state.HopsOk(hop)) return result;
  result.relay = true;
  if (state.last_hop() || state.last_hop_count() - 1 < 12) return result;
  hop = "H11";
  return result;
}

}  // namespace

Pc41Result ProcessPC41(PcSentence& s, Pc41Lists& lists, NodeNetState& state, const Pc41Deps& deps) {
  int step = 0;
  try {
    return HandlePc41(s, lists, state, deps, step);
  } catch (const std::exception& ex) {
    // The injected store or checks failed: this one sentence is lost, nothing else.
    std::string text = ex.what();
    text += " step ";
    text += std::to_string(step);
    text += ' ';
    text += s.line;
    state.Error(0, "ProcessPC41 ", text);
    return Pc41Result{};
  }
}

}  // namespace qx
