#include "frontend/input_filter.h"

#include <gtest/gtest.h>

#include <string>

namespace qx {
namespace {

struct Fed {
  std::string lines;
  std::string reply;
};

Fed FeedInPieces(InputAssembler& a, std::string_view bytes, size_t piece) {
  Fed out;
  for (size_t i = 0; i < bytes.size(); i += piece) {
    a.Feed(bytes.substr(i, piece), out.lines, out.reply);
  }
  return out;
}

// A CR LF whose halves arrive in different reads goes on as CR alone; this makes the lines of
// any cut comparable.
std::string CrLfAsCr(std::string text) {
  for (size_t at; (at = text.find("\r\n")) != std::string::npos;) text.erase(at + 1, 1);
  return text;
}

const std::string kIac = "\xff";
const std::string kWill = "\xfb";
const std::string kWont = "\xfc";
const std::string kDo = "\xfd";
const std::string kDont = "\xfe";

TEST(InputAssemblerTest, CompleteLinesGoOnWithTheirOwnLineEnds) {
  for (size_t piece : {1, 2, 3, 100}) {
    InputAssembler a;
    const Fed f = FeedInPieces(a, "sh/dx\r\nset/name Al\rbye\nhalf", piece);
    if (piece < 100) {
      // The CR and the LF of the first line arrive apart: the line went on with its CR, and
      // the late LF is dropped rather than making an empty line.
      EXPECT_EQ(f.lines, "sh/dx\rset/name Al\rbye\n") << piece;
    } else {
      EXPECT_EQ(f.lines, "sh/dx\r\nset/name Al\rbye\n");
    }
    EXPECT_TRUE(f.reply.empty());
    EXPECT_TRUE(a.has_partial());
    std::string rest;
    a.FlushPartial(rest);
    EXPECT_EQ(rest, "half");
    EXPECT_FALSE(a.has_partial());
  }
}

TEST(InputAssemblerTest, TelnetOptionsAreRefusedAndTakenOut) {
  const std::string in = kIac + kDo + "\x01" + "a" + kIac + kWill + "\x1f" + "b" + kIac + kWont +
                         "\x03" + kIac + kDont + "\x18" + "c\n";
  for (size_t piece : {1, 2, 5, 100}) {
    InputAssembler a;
    const Fed f = FeedInPieces(a, in, piece);
    EXPECT_EQ(f.lines, "abc\n") << piece;
    // DO ECHO -> WONT ECHO, WILL NAWS -> DONT NAWS; withdrawals get no answer.
    EXPECT_EQ(f.reply, kIac + kWont + "\x01" + kIac + kDont + "\x1f") << piece;
  }
}

TEST(InputAssemblerTest, SubnegotiationCommandsAndEscapedIacAreHandled) {
  // Terminal type subnegotiation holding an escaped IAC, a NOP, then an escaped 255 in data.
  const std::string in = "x" + kIac + std::string("\xfa\x18\x00VT", 5) + kIac + kIac + "100" +
                         kIac +
                         "\xf0"
                         "y" +
                         kIac +
                         "\xf1"
                         "z" +
                         kIac + kIac + "\n";
  for (size_t piece : {1, 3, 100}) {
    InputAssembler a;
    const Fed f = FeedInPieces(a, in, piece);
    EXPECT_EQ(f.lines, "xyz\xff\n") << piece;
    EXPECT_TRUE(f.reply.empty());
  }
}

TEST(InputAssemblerTest, ControlCharactersNeverReachTheNode) {
  // Every control character but the line ends goes; TAB is a blank; bytes from 128 up stay.
  std::string in(
      "a\0b\x03"
      "c\x04"
      "d\x01\x07\x1a\x1f"
      "e\tf\r\0\n",
      17);
  in += "DL1\xc3\xa4\xe9\x80\xff\xff\n";  // UTF-8, Latin-1, an escaped 255
  for (size_t piece : {1, 2, 100}) {
    InputAssembler a;
    const Fed f = FeedInPieces(a, in, piece);
    EXPECT_EQ(CrLfAsCr(f.lines), "abcde f\rDL1\xc3\xa4\xe9\x80\xff\n") << piece;
  }
}

TEST(InputAssemblerTest, BackspaceAndDelEditTheCurrentLine) {
  for (size_t piece : {1, 2, 100}) {
    InputAssembler a;
    // Typed character by character: mistakes corrected, a backspace at the start of a line
    // does nothing, and a line end is never taken back.
    const Fed f = FeedInPieces(a,
                               "dx 14025 K1ABX\bC\r\n\b\bsh/dxx\x7f\r\nJos\xc3\xa9\x7f"
                               "e \xe9\x08!\n",
                               piece);
    EXPECT_EQ(CrLfAsCr(f.lines), "dx 14025 K1ABC\rsh/dx\rJose !\n") << piece;
  }
  // What already went on as a prompt cannot be taken back.
  InputAssembler a;
  std::string lines, reply;
  a.Feed("login: ", lines, reply);
  a.FlushPartial(lines);
  a.Feed("\b\bG4AB\bC\r\n", lines, reply);
  EXPECT_EQ(lines, "login: G4AC\r\n");
}

TEST(InputAssemblerTest, EscapeSequencesGoWholeEvenSplitAcrossReads) {
  const std::string in =
      "\x1b[1;31mred\x1b[0m text\r\n"  // colour
      "a\x1b"
      "b\x1b\x1b[Ac\r\n"  // lone ESCs, then an arrow key
      "x\x1b[12\ry\n";    // a sequence broken off by a line end
  for (size_t piece : {1, 2, 3, 100}) {
    InputAssembler a;
    const Fed f = FeedInPieces(a, in, piece);
    EXPECT_EQ(CrLfAsCr(f.lines), "red text\rabc\rx\ry\n") << piece;
    EXPECT_FALSE(a.has_partial()) << piece;
  }
}

TEST(InputAssemblerTest, LfCrIsOneLineEndAndEmptyLinesAreKept) {
  InputAssembler whole;
  std::string lines, reply;
  whole.Feed("one\n\rtwo\n\r\n\rthree\n\n\r\n \n", lines, reply);
  EXPECT_EQ(lines, "one\n\rtwo\n\r\n\rthree\n\n\r\n \n");
  InputAssembler bytewise;
  const Fed f = FeedInPieces(bytewise, "one\n\rtwo\n\r\n\rthree\n\n", 1);
  EXPECT_EQ(f.lines, "one\ntwo\n\nthree\n\n");  // the late CRs are dropped, no empty lines
}

TEST(InputAssemblerTest, LongLinesAreCutButKeepTheirLineEnd) {
  InputAssembler a;
  std::string lines, reply;
  a.Feed(std::string(3000, 'x') + "\r\nok\r\n", lines, reply);
  EXPECT_EQ(lines, std::string(InputAssembler::kMaxLine, 'x') + "\r\nok\r\n");

  // Bytes already flushed as a partial line count towards the cut.
  lines.clear();
  a.Feed(std::string(2000, 'y'), lines, reply);
  a.FlushPartial(lines);
  a.Feed(std::string(100, 'y') + "\n", lines, reply);
  EXPECT_EQ(lines, std::string(InputAssembler::kMaxLine, 'y') + "\n");
}

TEST(HeldInputTest, DropsTheOldestWholeLinesOverTheLimit) {
  HeldInput h(20);
  h.Append("abc\r\n");
  h.Append("def\r\n");
  EXPECT_EQ(h.text(), "abc\r\ndef\r\n");
  EXPECT_EQ(h.dropped_bytes(), 0u);
  h.Clear();
  EXPECT_TRUE(h.empty());
  h.Append("line1\r\nline2\r\nline3\r\n");  // 21 bytes
  EXPECT_EQ(h.text(), "line2\r\nline3\r\n");
  EXPECT_EQ(h.dropped_bytes(), 7u);
  h.Append("line4\r\n");
  EXPECT_EQ(h.text(), "line3\r\nline4\r\n");
  // Input without line ends is cut to the limit.
  HeldInput unbroken(10);
  unbroken.Append(std::string(25, 'a') + "0123456789");
  EXPECT_EQ(unbroken.text(), "0123456789");
}

TEST(StreamNumbersTest, TheLowestFreeNumberIsGivenAndOnlyNumbersInUseAreReleased) {
  StreamNumbers n;
  EXPECT_FALSE(n.Release(1));
  for (int i = 1; i <= 5; ++i) EXPECT_EQ(n.Allocate(), i);
  for (int i : {2, 5, 4}) EXPECT_TRUE(n.Release(i));
  EXPECT_FALSE(n.Release(4));
  EXPECT_FALSE(n.Release(0));
  EXPECT_FALSE(n.Release(99));
  EXPECT_FALSE(n.InUse(4));
  EXPECT_TRUE(n.InUse(3));
  EXPECT_EQ(n.in_use(), 2u);
  for (int i : {2, 4, 5, 6}) EXPECT_EQ(n.Allocate(), i);
  EXPECT_EQ(n.in_use(), 6u);
}

}  // namespace
}  // namespace qx
