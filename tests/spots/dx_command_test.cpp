#include "spots/dx_command.h"

#include <gtest/gtest.h>

#include <utility>

#include "core/time_text.h"

namespace qx {
namespace {

// What a user's DX line becomes: the sentence to send, or the error text they see.  Either
// word order works; the call is upper-cased, the comment trimmed with its blanks collapsed
// and a caret in it cannot break the sentence; the frequency is rounded to two decimals and
// starts at 130 kHz; commas are refused in the frequency or call, not in the comment.
TEST(DxCommandTest, EachLineGivesItsSentenceOrError) {
  const std::string tail = "^22-Nov-2026^0315Z^";
  const std::string from = "^DL1ABC^DB0QX^192.0.2.7^H100^~";
  const std::pair<const char*, std::string> kCases[] = {
      {"DX 14025 K1ABC", "PC61^14025.0^K1ABC" + tail + " " + from},
      {"DX K1ABC 14025", "PC61^14025.0^K1ABC" + tail + " " + from},
      {"dx   k1abc    7005.5   up   2   ", "PC61^7005.5^K1ABC" + tail + "up 2" + from},
      {"DX 14025 K1ABC a^b", "PC61^14025.0^K1ABC" + tail + "a~b" + from},
      {"DX 14025.123 K1ABC x", "PC61^14025.12^K1ABC" + tail + "x" + from},
      {"DX 14025.126 K1ABC", "PC61^14025.13^K1ABC" + tail + " " + from},
      {"DX 14025.10 K1ABC", "PC61^14025.1^K1ABC" + tail + " " + from},
      {"DX 14025.999 K1ABC", "PC61^14026.0^K1ABC" + tail + " " + from},
      {"DX 1296000 K1ABC", "PC61^1296000.0^K1ABC" + tail + " " + from},
      {"DX 130 K1ABC", "PC61^130.0^K1ABC" + tail + " " + from},
      {"DX 129.996 K1ABC", "PC61^130.0^K1ABC" + tail + " " + from},
      {"DX 14025 K1ABC 599, tnx", "PC61^14025.0^K1ABC" + tail + "599, tnx" + from},
      {"DX 129.9 K1ABC", "Error - invalid frequency\r\n"},
      {"DX 0 K1ABC", "Error - invalid frequency\r\n"},
      {"DX 99999999999999999999 K1ABC", "Error - invalid frequency\r\n"},
      {"DX 14,025 K1ABC", "Error - Commas not allowed\r\n"},
      {"DX K1ABC 14,025", "Error - Commas not allowed\r\n"},
      {"DX K1,ABC 14025", "Error - Commas not allowed\r\n"},
      // Short or numberless lines echo the line.
      {"DX 14025", "Error - DX 14025\r\n"},
      {"DX", "Error - DX\r\n"},
      {"DX K1ABC DL1XYZ test", "Error - DX K1ABC DL1XYZ test\r\n"},
      {"DX 14025 \r\n", "Error - DX 14025\r\n"},
  };
  for (const auto& [line, text] : kCases) {
    const DxCommandResult r =
        DxCommand(line, "DL1ABC", "DB0QX", "192.0.2.7", MakeUtc(2026, 11, 22, 3, 15, 42));
    EXPECT_EQ(r.text, text) << line;
    EXPECT_EQ(r.ok, text.starts_with("PC61")) << line;
  }
}

TEST(DxCommandTest, NumericWordsAndDecimalCommas) {
  const std::pair<const char*, bool> kWords[] = {
      {"14025", true}, {"14025.5", true}, {"14025,5", true}, {".5", true},  {"", false},
      {".", false},    {"1.2.3", false},  {"K1ABC", false},  {"-5", false}, {"14025 ", false},
  };
  for (const auto& [word, numeric] : kWords) EXPECT_EQ(IsReallyNumeric(word), numeric) << word;
  EXPECT_EQ(CommaToDecimalPoint("14025,5"), "14025.5");
  EXPECT_EQ(CommaToDecimalPoint("14025.5"), "14025.5");
  EXPECT_EQ(CommaToDecimalPoint("14025"), "14025");
}

}  // namespace
}  // namespace qx
