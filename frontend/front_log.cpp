#include "frontend/front_log.h"

#include <chrono>
#include <cstdio>
#include <string>

#include "core/time_text.h"

namespace qx {
namespace {

void WriteLine(std::FILE* to, std::string_view text) {
  const SysTime now = std::chrono::system_clock::now();
  std::string line = DateText(now);
  line.push_back(' ');
  line.append(TimeHHnnssZ(now));
  line.push_back(' ');
  line.append(text);
  line.push_back('\n');
  std::fwrite(line.data(), 1, line.size(), to);
  std::fflush(to);
}

}  // namespace

void FrontLog(std::string_view text) { WriteLine(stdout, text); }
void FrontLogError(std::string_view text) { WriteLine(stderr, text); }

}  // namespace qx
