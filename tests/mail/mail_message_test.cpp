#include "mail/mail_message.h"

#include <gtest/gtest.h>

#include "mail/mail_store.h"
#include "tests/testlib/test_util.h"

namespace qx::testing {
namespace {

MailMessage Sample() {
  MailMessage m;
  m.number = 42;
  m.from = "K1ABC";
  m.to = "G4XYZ";
  m.time = MakeUtc(2026, 11, 5, 14, 23);
  m.subject = "antenna^test";
  m.is_private = true;
  m.read = true;
  m.keep = true;
  m.origin = "XX0QX-1";
  m.received_from = "DB0YYY";
  m.bound_for = "GB7ZZZ-2";
  m.forwarded_to = {"W1XXX", "VE3WWW"};
  m.text = {"first line", "", "third: a^b"};
  return m;
}

TEST(MailFileTest, RoundTripKeepsEveryFieldAndBlankLines) {
  const MailMessage m = Sample();
  MailMessage back;
  std::string why;
  ASSERT_TRUE(ParseMailFile(FormatMailFile(m), back, &why)) << why;
  EXPECT_EQ(back.number, 42);
  EXPECT_EQ(back.from, "K1ABC");
  EXPECT_EQ(back.to, "G4XYZ");
  EXPECT_EQ(back.time, m.time);
  EXPECT_EQ(back.subject, "antenna~test");  // a caret never reaches a file line
  EXPECT_TRUE(back.is_private && back.read && back.keep && !back.deleted);
  EXPECT_EQ(back.origin, "XX0QX-1");
  EXPECT_EQ(back.received_from, "DB0YYY");
  EXPECT_EQ(back.bound_for, "GB7ZZZ-2");
  EXPECT_EQ(back.forwarded_to, m.forwarded_to);
  EXPECT_EQ(back.text, m.text);
  EXPECT_EQ(back.Key(), m.Key());

  MailMessage head;
  ASSERT_TRUE(ParseMailFile(FormatMailFile(m), head, nullptr, /*with_text=*/false));
  EXPECT_TRUE(head.text.empty());
  EXPECT_FALSE(ParseMailFile("From: K1ABC\r\nTo: ALL\r\n\r\n", head, &why));  // no number
  EXPECT_FALSE(ParseMailFile("garbage", head, &why));
  EXPECT_FALSE(
      ParseMailFile("Number: 1\r\nFrom: A\r\nTo: B\r\nTime: 99999999999999\r\n", head, &why));
}

TEST(MailSentenceTest, HeaderBuildsAndReadsBack) {
  MailSentence h;
  h.kind = MailSentence::Kind::kHeader;
  h.to_node = "DB0YYY";
  h.from_node = "XX0QX-1";
  h.addressee = "ALL";
  h.author = "K1ABC";
  h.time = MakeUtc(2026, 11, 5, 9, 7);
  h.is_private = false;
  h.subject = "club^meeting";
  h.origin = "XX0QX-1";
  const std::string line = BuildMailSentence(h);
  EXPECT_EQ(line,
            "PC28^DB0YYY^XX0QX-1^ALL^K1ABC^ 5-Nov-2026^0907Z^0^club~meeting^ ^5^0^ ^XX0QX-1^~\r\n");
  std::string why;
  const auto back = ParseMailSentence(line, &why);
  ASSERT_TRUE(back) << why;
  EXPECT_EQ(back->kind, MailSentence::Kind::kHeader);
  EXPECT_EQ(back->addressee, "ALL");
  EXPECT_EQ(back->author, "K1ABC");
  EXPECT_EQ(back->time, h.time);
  EXPECT_FALSE(back->is_private);
  EXPECT_EQ(back->subject, "club~meeting");
  EXPECT_EQ(back->origin, "XX0QX-1");
  EXPECT_EQ(back->lines_per_ack, 5);
}

TEST(MailSentenceTest, LinesAndAcksAndMalformedInput) {
  auto line = ParseMailSentence("PC29^XX0QX-1^DB0YYY^7^text with ~ caret^~");
  ASSERT_TRUE(line);
  EXPECT_EQ(line->kind, MailSentence::Kind::kLine);
  EXPECT_EQ(line->stream, 7);
  EXPECT_EQ(line->text, "text with ~ caret");
  EXPECT_EQ(ParseMailSentence("PC29^XX0QX-1^DB0YYY^7^^~")->text, "");
  EXPECT_EQ(ParseMailSentence("PC29^XX0QX-1^DB0YYY^7^a^b^~")->text, "a~b");
  const struct {
    const char* line;
    MailSentence::Kind kind;
  } acks[] = {{"PC30^A1AA^B1BB^3^", MailSentence::Kind::kHeaderAck},
              {"PC31^A1AA^B1BB^3^", MailSentence::Kind::kLinesAck},
              {"PC32^A1AA^B1BB^3^", MailSentence::Kind::kEnd},
              {"PC33^A1AA^B1BB^3^", MailSentence::Kind::kEndAck},
              {"PC42^A1AA^B1BB^3^", MailSentence::Kind::kAbort}};
  for (const auto& a : acks) {
    const auto s = ParseMailSentence(a.line);
    ASSERT_TRUE(s) << a.line;
    EXPECT_EQ(s->kind, a.kind);
    EXPECT_EQ(s->stream, 3);
    EXPECT_EQ(BuildMailSentence(*s), std::string(a.line) + "\r\n");
  }
  for (const char* bad : {"PC30^A1AA^B1BB^x^", "PC30^A1AA^B1BB^0^", "PC30^A1AA^^3^",
                          "PC30^A1AA^B1BB", "PC34^A1AA^B1BB^3^", "PC28^A1AA^B1BB^ALL^K1ABC^",
                          "PC28^A1AA^B1BB^ALL^K1ABC^31-Feb-2026^0907Z^0^s^ ^5^0^ ^B1BB^~",
                          "PC28^A1AA^B1BB^ALL^K1ABC^ 5-Nov-8026^0907Z^0^s^ ^5^0^ ^B1BB^~",
                          "PC28^A1AA^B1BB^ALL^K1ABC^ 5-Nov-2026^0907Z^2^s^ ^5^0^ ^B1BB^~",
                          "PC28^A1AA^B1BB^ALL^!!^ 5-Nov-2026^0907Z^0^s^ ^5^0^ ^B1BB^~", ""}) {
    std::string why;
    EXPECT_FALSE(ParseMailSentence(bad, &why)) << bad;
    EXPECT_FALSE(why.empty()) << bad;
  }
}

TEST(MailStoreTest, NumbersGrowAcrossPurgeAndRebuild) {
  TempDir tmp;
  MailStore store(tmp / "msg");
  store.Rebuild();
  const SysTime now = MakeUtc(2026, 11, 20);
  MailMessage a = Sample(), b = Sample(), c = Sample();
  a.keep = false;
  a.time = now - std::chrono::hours(24 * 40);  // old
  b.time = now - std::chrono::hours(24 * 40);
  b.keep = true;  // old but kept
  c.keep = false;
  c.time = now;
  c.subject = "fresh";
  ASSERT_TRUE(store.Add(a) && store.Add(b) && store.Add(c));
  EXPECT_EQ(a.number, 1);
  EXPECT_EQ(c.number, 3);
  ASSERT_TRUE(store.Modify(3, [](MailMessage& m) { m.deleted = true; }));
  WriteFile(tmp / "msg/000009.msg", "not a message");
  WriteFile(tmp / "msg/000010.msg", FormatMailFile(Sample()));  // says it is number 42

  MailStore again(tmp / "msg");
  std::vector<std::string> notes;
  EXPECT_EQ(again.Rebuild(&notes), 3);
  EXPECT_EQ(notes.size(), 2u);
  EXPECT_TRUE(again.Find(3)->deleted);
  EXPECT_EQ(again.FindKey(c.Key())->number, 3);

  EXPECT_EQ(again.Purge(now, 30).removed, 2);  // the old one and the deleted one
  ASSERT_NE(again.Find(2), nullptr);
  EXPECT_EQ(again.Find(1), nullptr);
  MailMessage d = Sample();
  ASSERT_TRUE(again.Add(d));
  EXPECT_EQ(d.number, 4);  // 3 is gone but never given again
  MailMessage full;
  ASSERT_TRUE(again.ReadFull(4, full));
  EXPECT_EQ(full.text, Sample().text);
}

}  // namespace
}  // namespace qx::testing
