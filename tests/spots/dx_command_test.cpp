#include "spots/dx_command.h"

#include <gtest/gtest.h>

#include "core/time_text.h"

namespace qx {
namespace {

const SysTime kNow = MakeUtc(2026, 11, 22, 3, 15, 42);

DxCommandResult Dx(std::string_view line) {
  return DxCommand(line, "DL1ABC", "DB0QX", "192.0.2.7", kNow);
}

TEST(DxCommandTest, BothWordOrdersGiveTheSameSentence) {
  const DxCommandResult a = Dx("DX 14025 K1ABC");
  const DxCommandResult b = Dx("DX K1ABC 14025");
  ASSERT_TRUE(a.ok);
  ASSERT_TRUE(b.ok);
  EXPECT_EQ(a.text, "PC61^14025.0^K1ABC^22-Nov-2026^0315Z^ ^DL1ABC^DB0QX^192.0.2.7^H100^~");
  EXPECT_EQ(b.text, a.text);
}

TEST(DxCommandTest, CallIsUpperCasedAndCommentTrimmedWithBlanksCollapsed) {
  const DxCommandResult r = Dx("dx   k1abc    7005.5   up   2   ");
  ASSERT_TRUE(r.ok);
  EXPECT_EQ(r.text, "PC61^7005.5^K1ABC^22-Nov-2026^0315Z^up 2^DL1ABC^DB0QX^192.0.2.7^H100^~");
}

TEST(DxCommandTest, FrequencyIsRoundedToTwoDecimals) {
  EXPECT_EQ(Dx("DX 14025.123 K1ABC test").text.substr(0, 15), "PC61^14025.12^K");
  EXPECT_EQ(Dx("DX 14025.126 K1ABC").text.substr(0, 15), "PC61^14025.13^K");
  EXPECT_EQ(Dx("DX 14025.10 K1ABC").text.substr(0, 14), "PC61^14025.1^K");
  EXPECT_EQ(Dx("DX 14025.999 K1ABC").text.substr(0, 14), "PC61^14026.0^K");
  EXPECT_EQ(Dx("DX 1296000 K1ABC").text.substr(0, 15), "PC61^1296000.0^");
}

TEST(DxCommandTest, LowestFrequencyIs130) {
  EXPECT_EQ(Dx("DX 129.9 K1ABC").text, "Error - invalid frequency\r\n");
  EXPECT_EQ(Dx("DX 0 K1ABC").text, "Error - invalid frequency\r\n");
  EXPECT_TRUE(Dx("DX 130 K1ABC").ok);
  EXPECT_TRUE(Dx("DX 129.996 K1ABC").ok);  // rounds to 130.00
  EXPECT_EQ(Dx("DX 99999999999999999999 K1ABC").text, "Error - invalid frequency\r\n");
}

TEST(DxCommandTest, CommasAreRefusedInEitherWord) {
  EXPECT_EQ(Dx("DX 14,025 K1ABC").text, "Error - Commas not allowed\r\n");
  EXPECT_EQ(Dx("DX K1ABC 14,025").text, "Error - Commas not allowed\r\n");
  EXPECT_EQ(Dx("DX K1,ABC 14025").text, "Error - Commas not allowed\r\n");
  // A comma in the comment is just text.
  EXPECT_TRUE(Dx("DX 14025 K1ABC 599, tnx").ok);
}

TEST(DxCommandTest, ShortOrNumberlessLinesEchoTheLine) {
  EXPECT_EQ(Dx("DX 14025").text, "Error - DX 14025\r\n");
  EXPECT_EQ(Dx("DX").text, "Error - DX\r\n");
  EXPECT_EQ(Dx("DX K1ABC DL1XYZ test").text, "Error - DX K1ABC DL1XYZ test\r\n");
  EXPECT_EQ(Dx("DX 14025 \r\n").text, "Error - DX 14025\r\n");
}

TEST(DxCommandTest, CaretInCommentCannotBreakTheSentence) {
  const DxCommandResult r = Dx("DX 14025 K1ABC a^b");
  ASSERT_TRUE(r.ok);
  EXPECT_NE(r.text.find("^a~b^"), std::string::npos);
}

TEST(DxCommandTest, NumericWords) {
  EXPECT_TRUE(IsReallyNumeric("14025"));
  EXPECT_TRUE(IsReallyNumeric("14025.5"));
  EXPECT_TRUE(IsReallyNumeric("14025,5"));
  EXPECT_TRUE(IsReallyNumeric(".5"));
  EXPECT_FALSE(IsReallyNumeric(""));
  EXPECT_FALSE(IsReallyNumeric("."));
  EXPECT_FALSE(IsReallyNumeric("1.2.3"));
  EXPECT_FALSE(IsReallyNumeric("K1ABC"));
  EXPECT_FALSE(IsReallyNumeric("-5"));
  EXPECT_FALSE(IsReallyNumeric("14025 "));
}

TEST(DxCommandTest, CommaToDecimalPoint) {
  EXPECT_EQ(CommaToDecimalPoint("14025,5"), "14025.5");
  EXPECT_EQ(CommaToDecimalPoint("14025.5"), "14025.5");
  EXPECT_EQ(CommaToDecimalPoint("14025"), "14025");
}

}  // namespace
}  // namespace qx
