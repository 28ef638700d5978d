#include "mail/mail_draft.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace qx::testing {
namespace {

TEST(MailDraftTest, FileKeepsEveryStepAndRejectsWhatIsNotADraft) {
  MailDraft d;
  d.call = "K1ABC";
  d.to = {"G4XYZ", "DL1AAA"};
  d.have_subject = true;
  d.subject = " Re: ~ antenna";  // a leading blank and a peer's "~" stay as written
  d.lines = {"first", "", "  indented: yes"};
  d.over_long = true;
  const std::optional<MailDraft> back = ParseMailDraft(FormatMailDraft(d));
  ASSERT_TRUE(back);
  EXPECT_EQ(back->call, "K1ABC");
  EXPECT_EQ(back->to, d.to);
  EXPECT_TRUE(back->is_private && back->have_subject && back->over_long);
  EXPECT_EQ(back->subject, d.subject);
  EXPECT_EQ(back->lines, d.lines);

  d = MailDraft{};
  d.call = "K1ABC";
  d.to = {"ALL"};
  d.is_private = false;
  const std::string text = FormatMailDraft(d);
  ASSERT_TRUE(ParseMailDraft(text));
  EXPECT_FALSE(ParseMailDraft(text)->have_subject);
  EXPECT_FALSE(ParseMailDraft(text)->is_private);
  std::string why;
  // A file cut short by a crash of another kind, or someone else's file, is not taken.
  EXPECT_FALSE(ParseMailDraft(text.substr(0, text.size() - 2), &why));
  EXPECT_EQ(why, "header not complete");
  EXPECT_FALSE(ParseMailDraft("Call: K1ABC\r\n\r\n", &why));
  EXPECT_FALSE(ParseMailDraft("garbage\r\n\r\n", &why));
}

}  // namespace
}  // namespace qx::testing
