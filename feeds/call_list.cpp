#include "feeds/call_list.h"

#include <optional>
#include <string>

#include "core/file_util.h"
#include "core/text_util.h"

namespace qx {

void CallList::Add(std::string_view call) {
  call = Trim(call);
  if (call.empty() || call.find(' ') != std::string_view::npos) return;
  calls_.insert(ToUpper(call));
}

size_t CallList::LoadText(std::string_view text) {
  const size_t before = calls_.size();
  for (std::string_view line : SplitLines(text)) {
    line = Trim(line);
    if (line.empty() || line.front() == '#') continue;
    Add(line);
  }
  return calls_.size() - before;
}

bool CallList::LoadFile(const std::filesystem::path& path) {
  const std::optional<std::string> text = ReadFileText(path);
  if (!text) return false;
  LoadText(*text);
  return true;
}

void CallList::AddCommaList(std::string_view text) {
  for (std::string_view item : Split(text, ',')) Add(item);
}

}  // namespace qx
