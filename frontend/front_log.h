// The front-end's log: one line per event on standard output (errors on standard error),
// each starting with the UTC date text and time, so a sysop can follow connections as they
// come and go.
#pragma once

#include <string_view>

namespace qx {

void FrontLog(std::string_view text);
void FrontLogError(std::string_view text);

}  // namespace qx
