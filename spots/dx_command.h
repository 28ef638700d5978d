// The user's DX command: a typed line becomes a "PC61" sentence that then goes through the
// same intake as spots from other nodes.  Pure: every input, the time included, is a value.
#pragma once

#include <string>
#include <string_view>

#include "core/time_text.h"

namespace qx {

// Whether a word is a number: digits with at most one decimal point or comma, and at least
// one digit.  Tells the frequency from the call in either word order.
bool IsReallyNumeric(std::string_view text);

// The text with its decimal comma turned into a point ("14025,5" -> "14025.5").  Only the
// first comma is a decimal separator; a text with a point already is returned unchanged.
std::string CommaToDecimalPoint(std::string_view text);

// The shortest decimal text of value rounded to two decimals: 14025 -> "14025",
// 14025.5 -> "14025.5", 14025.123 -> "14025.12".  Writes into out (at least 32 bytes) and
// returns the length.
size_t RoundedFrequencyText(double value, char* out);

struct DxCommandResult {
  bool ok = false;
  // ok: the "PC61" sentence for intake.  Otherwise the reply for the user, CR LF included.
  std::string text;
};

// Parses "DX <freq> <call> [comment]" or "DX <call> <freq> [comment]".  user_ip is the
// address the front-end reported for the user's stream; now is UTC.
DxCommandResult DxCommand(std::string_view line, std::string_view user_call,
                          std::string_view node_call, std::string_view user_ip, SysTime now);

}  // namespace qx
