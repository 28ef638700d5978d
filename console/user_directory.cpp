#include "console/user_directory.h"

#include <algorithm>

#include "core/text_util.h"

namespace qx {

std::string CallFromUserFileName(std::string_view stem) {
  std::string call(stem);
  for (char& c : call) {
    if (c == 'p') c = '/';
  }
  return call;
}

CallPage PageOfCalls(const std::vector<std::string>& calls, std::string_view query, size_t offset,
                     size_t limit) {
  CallPage page;
  const std::string_view q = Trim(query);
  std::vector<const std::string*> matching;
  for (const std::string& c : calls) {
    if (q.empty() || ContainsIgnoreCase(c, q)) matching.push_back(&c);
  }
  page.total = matching.size();
  if (limit == 0) return page;
  if (offset >= matching.size()) {
    offset = matching.empty() ? 0 : (matching.size() - 1) / limit * limit;
  }
  page.offset = offset;
  const size_t end = std::min(matching.size(), offset + limit);
  for (size_t i = offset; i < end; ++i) page.calls.push_back(*matching[i]);
  return page;
}

UserRecordView ViewUserRecord(std::string_view text) {
  static constexpr std::string_view kPc41Names[] = {"",         "Name",      "QTH",
                                                    "Location", "Home node", "Locator"};
  UserRecordView view;
  for (std::string_view line : SplitLines(text)) {
    if (Trim(line).empty()) continue;
    const auto f = SplitLimit(line, '^', 3);
    const std::string key = ToUpper(Trim(f[0]));
    const std::string_view set = f.size() > 1 ? Trim(f[1]) : std::string_view();
    const std::string_view value = f.size() > 2 ? f[2] : std::string_view();
    if (key == "PC41") {
      const auto g = SplitLimit(value, '^', 2);
      const int type = ParseIntOr(g[0], 0);
      const std::string v(g.size() > 1 ? g[1] : std::string_view());
      if (type >= 1 && type <= 5) {
        view.settings.emplace_back(kPc41Names[type], v);
      } else {
        view.settings.emplace_back("PC41 " + std::string(g[0]), v);
      }
      continue;
    }
    if (key == "FILTER") {
      // "<kind>^<id>^<rule as typed>": the rule is what the user recognises.
      const auto g = SplitLimit(value, '^', 3);
      std::string rule(g.size() > 2 ? g[2] : value);
      if (!set.empty() && set != "0") rule += " (SSID " + std::string(set) + ")";
      view.filters.push_back(std::move(rule));
      continue;
    }
    if (key == "LASTLOGIN") view.last_login = std::string(value);
    if (key == "SPOTS") view.spots = ParseIntOr(value, 0);
    std::string label = key;
    if (!set.empty() && set != "0") label += " (SSID " + std::string(set) + ")";
    view.settings.emplace_back(std::move(label), std::string(value));
  }
  return view;
}

}  // namespace qx
