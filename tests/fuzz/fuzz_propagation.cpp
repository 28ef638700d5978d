// The readers of WWV/WCY input from outside on arbitrary bytes: sentences from neighbours,
// the agency's alert text and the WWV command.  No crash, and what they accept keeps its
// promises (figures in range, a report built again reads back the same).
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "core/text_util.h"
#include "propagation/propagation_report.h"
#include "propagation/wwv_text.h"

namespace {

void Require(bool condition) {
  if (!condition) std::abort();
}

std::vector<std::string> Fields(std::string_view line) {
  std::vector<std::string> out;
  for (std::string_view f : qx::Split(line, '^')) out.emplace_back(f);
  return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  const qx::SysTime now = qx::MakeUtc(2026, 11, 5, 15, 20);
  for (bool check_age : {true, false}) {
    qx::WwvReport w;
    if (qx::ReadPc23(Fields(input), now, check_age, w) == qx::ReportCheck::kOk) {
      Require(w.hour >= 0 && w.hour <= 23 && w.k >= 0 && w.k <= qx::kMaxK);
      const std::string built = qx::BuildPc23(w, 30);
      qx::WwvReport again;
      Require(qx::ReadPc23(Fields(qx::Trim(built)), now, false, again) == qx::ReportCheck::kOk);
      Require(qx::WwvUserLine(again) == qx::WwvUserLine(w));
    }
    qx::WcyReport c;
    if (qx::ReadPc73(Fields(input), now, check_age, c) == qx::ReportCheck::kOk) {
      qx::WcyReport again;
      Require(qx::ReadPc73(Fields(qx::Trim(qx::BuildPc73(c, 30))), now, false, again) ==
              qx::ReportCheck::kOk);
      Require(qx::WcyUserLine(again) == qx::WcyUserLine(c));
    }
  }
  qx::WwvText text;
  std::string error;
  if (qx::ParseWwvText(input, text, error)) {
    Require(text.sfi >= 0 && text.sfi <= qx::kMaxSfi && text.a >= 0 && text.a <= qx::kMaxA &&
            text.k >= 0 && text.k <= qx::kMaxK && text.hour >= 0 && text.hour <= 23);
  } else {
    Require(!error.empty());
  }
  qx::WwvReport command;
  if (qx::ParseWwvCommand(input, command, error)) {
    Require(command.forecast.find('^') == std::string::npos);
  }
  return 0;
}
