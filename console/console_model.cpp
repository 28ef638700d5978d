#include "console/console_model.h"

#include "console/sysop_files.h"

namespace qx {

// A model that has nothing quicker adds the items one by one.
ConsoleImport ConsoleModel::ListImport(std::string_view list, std::string_view pasted) {
  ConsoleImport out;
  for (const std::string& item : SplitListItems(pasted)) {
    const ConsoleResult r = ListAdd(list, item);
    if (r.ok) {
      ++out.added;
    } else if (r.error.find("already") != std::string::npos) {
      ++out.already;
    } else {
      out.refused.push_back(item + ": " + r.error);
    }
  }
  return out;
}

}  // namespace qx
