#include "mail/mail_service.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>

#include "core/text_util.h"
#include "tests/testlib/test_util.h"

namespace qx::testing {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

class Recorder final : public StreamOutput {
 public:
  void SendToStream(int stream, std::string_view text) override { sent[stream] += text; }
  void CloseStream(int) override {}
  void SetStreamIdentity(int, std::string_view, int) override {}
  void SetStreamAttributes(int, std::string_view) override {}
  std::map<int, std::string> sent;
};

class MailServiceTest : public ::testing::Test {
 protected:
  MailServiceTest() : clock_(MakeUtc(2026, 11, 15, 10, 30)), store_(tmp_ / "msg") {
    store_.Rebuild();
    MailServiceDeps d;
    d.streams = &streams_;
    d.out = &out_;
    d.clock = &clock_;
    d.store = &store_;
    d.node_call = "XX0QX-1";
    d.save_mail_number = [this](std::string_view call, int n) { saved_[std::string(call)] = n; };
    d.stored = [this](int n) { stored_.push_back(n); };
    d.prompt = [this](int s) { ++prompts_[s]; };
    d.home_node = [this](std::string_view call) { return homes_[std::string(call)]; };
    d.drafts_dir = tmp_ / "drafts";
    deps_ = d;
    mail_ = std::make_unique<MailService>(std::move(d));
    mail_->SetBulletinAddresses({"DX", "local"});
    User(1, "K1ABC");
    User(2, "G4XYZ-2");
    User(3, "DL1AAA");
  }
  void User(int stream, std::string call, int privilege = 0) {
    streams_.EnsureCapacity(stream);
    StreamEntry& e = streams_.at(stream);
    e.call = std::move(call);
    e.state = kStateUser;
    e.login_stage = LoginStage::kLoggedIn;
    e.privilege = privilege;
  }
  std::vector<std::string> Cmd(int stream, std::string_view verb, std::string_view args = "") {
    return mail_->Command(stream, verb, args);
  }
  // Lines typed into the editor; what the stream was sent meanwhile.
  std::string Type(int stream, std::initializer_list<std::string_view> lines) {
    out_.sent[stream].clear();
    for (std::string_view l : lines) mail_->OnEditorLine(stream, l);
    return out_.sent[stream];
  }
  // A whole SEND dialogue; the editor's replies.
  std::string SendMail(int stream, std::string_view to, std::string_view subject,
                       std::initializer_list<std::string_view> text, bool sp = false) {
    EXPECT_THAT(Cmd(stream, sp ? "SP" : "SEND", to)[0], HasSubstr("Enter the subject"));
    std::string replies = Type(stream, {subject});
    for (std::string_view l : text) replies += Type(stream, {l});
    return replies + Type(stream, {"/EX"});
  }

  TempDir tmp_;
  ManualClock clock_;
  StreamTable streams_;
  Recorder out_;
  MailStore store_;
  MailServiceDeps deps_;
  std::unique_ptr<MailService> mail_;
  std::map<std::string, int> saved_;
  std::vector<int> stored_;
  std::map<int, int> prompts_;
  std::map<std::string, std::string> homes_;
};

TEST_F(MailServiceTest, SendListReadReplyKill) {
  EXPECT_THAT(Cmd(1, "SEND", "g4xyz-5")[0],
              "Sending a private message to G4XYZ. Enter the subject (30 characters at most):");
  EXPECT_TRUE(mail_->Composing(1));
  EXPECT_EQ(Type(1, {"Antenna"}),
            "Enter the message text; end with /EX on a line of its own, or /ABORT to cancel:\r\n");
  // Text lines (even ones that look like commands) are the editor's, without an answer.
  EXPECT_EQ(Type(1, {"Hello Bob,", "SH/DX", "KeepAlive", "73"}), "");
  EXPECT_EQ(Type(1, {"/ex"}), "Message no 1 saved and directed to G4XYZ\r\n");
  EXPECT_FALSE(mail_->Composing(1));
  EXPECT_EQ(prompts_[1], 1);
  EXPECT_THAT(stored_, ElementsAre(1));
  // The addressee is logged in (with another SSID) and hears of it at once.
  EXPECT_THAT(out_.sent[2], HasSubstr("New mail has arrived for you from K1ABC.   Message # 1"));
  EXPECT_EQ(saved_["G4XYZ-2"], 1);

  const auto dir = Cmd(2, "DIRECTORY");
  ASSERT_EQ(dir.size(), 2u);
  EXPECT_THAT(dir[1], HasSubstr("1 PN    K1ABC      G4XYZ      15-Nov-2026 1030Z Antenna"));
  EXPECT_THAT(Cmd(2, "READ"),
              ElementsAre("Msg# 1 from K1ABC to G4XYZ, 15-Nov-2026 1030Z, private",
                          "Subject: Antenna", "Hello Bob,", "SH/DX", "73", "End of message 1"));
  EXPECT_TRUE(store_.Find(1)->read);
  EXPECT_THAT(Cmd(2, "READ"), ElementsAre("You have no unread mail."));

  EXPECT_THAT(Cmd(2, "REPLY"),
              ElementsAre("Replying to K1ABC, subject \"Re: Antenna\".", HasSubstr("/EX")));
  EXPECT_EQ(Type(2, {"Thanks", "/EX"}), "Message no 2 saved and directed to K1ABC\r\n");
  MailMessage reply;
  ASSERT_TRUE(store_.ReadFull(2, reply));
  EXPECT_EQ(reply.from, "G4XYZ");
  EXPECT_TRUE(reply.is_private);
  EXPECT_THAT(reply.text, ElementsAre("Thanks"));

  // Private mail is the sender's and the addressee's alone.
  EXPECT_THAT(Cmd(3, "LIST"), ElementsAre("No messages."));
  EXPECT_THAT(Cmd(3, "READ", "1"), ElementsAre("Message 1 is a private message for someone else."));
  EXPECT_THAT(Cmd(3, "KILL", "1"), ElementsAre("Message 1 is not yours to delete."));
  EXPECT_THAT(Cmd(3, "REPLY", "1"), ElementsAre("Message 1 not found."));
  EXPECT_THAT(Cmd(2, "DELETE", "1 99 x"), ElementsAre("Message 1 deleted.", "Message 99 not found.",
                                                      "x is not a message number."));
  EXPECT_THAT(Cmd(1, "READ", "1"), ElementsAre("Message 1 not found."));
  EXPECT_THAT(Cmd(1, "KILL"), ElementsAre(HasSubstr("Usage")));
  // A sysop may delete any message, and purge and rebuild.
  EXPECT_THAT(Cmd(3, "PURGE"), ElementsAre("PURGE - sysop command error"));
  User(3, "DL1AAA", 1);
  EXPECT_THAT(Cmd(3, "KILL", "2"), ElementsAre("Message 2 deleted."));
  EXPECT_THAT(Cmd(3, "PURGE"), ElementsAre("Purged 2 messages."));
  EXPECT_THAT(Cmd(3, "INITITIALISE"), ElementsAre("Mail index rebuilt: 0 messages."));
}

TEST_F(MailServiceTest, BulletinsAreForEveryoneAndAddressesAreChecked) {
  SendMail(3, "dx", "3B8 active", {"on 20m"});
  ASSERT_TRUE(store_.Find(1) && !store_.Find(1)->is_private);
  EXPECT_THAT(Cmd(1, "DIRECTORY"),
              ElementsAre(MailListHeader(), HasSubstr("1 BN    DL1AAA     DX")));
  EXPECT_THAT(Cmd(2, "READ", "1"), ::testing::Contains("Subject: 3B8 active"));
  EXPECT_THAT(Cmd(1, "KILL", "1"), ElementsAre("Message 1 is not yours to delete."));
  EXPECT_THAT(Cmd(1, "SP", "ALL"),
              ElementsAre("ALL is a bulletin address; SEND ALL sends a bulletin."));
  EXPECT_THAT(Cmd(1, "SEND", "ALL K1ABC"), ElementsAre("A bulletin goes to one address alone."));
  EXPECT_THAT(Cmd(1, "SEND", "12345"), ElementsAre("12345 is not a valid call."));
  EXPECT_THAT(Cmd(1, "SEND")[0], HasSubstr("Usage: SEND"));
  EXPECT_THAT(Cmd(1, "READ", "abc"), ElementsAre("Usage: READ [message number]"));
  EXPECT_THAT(Cmd(1, "REPLY"), ElementsAre(HasSubstr("READ one first")));
  EXPECT_FALSE(mail_->Composing(1));
  // One message per addressee.
  EXPECT_EQ(SendMail(1, "G4XYZ DL1AAA", "both", {"x"}),
            "Enter the message text; end with /EX on a line of its own, or /ABORT to cancel:\r\n"
            "Message no 2 saved and directed to G4XYZ\r\n"
            "Message no 3 saved and directed to DL1AAA\r\n");
}

TEST_F(MailServiceTest, EditorGuardsSubjectLengthAndAbort) {
  Cmd(1, "SP", "G4XYZ");
  EXPECT_THAT(Type(1, {""}), HasSubstr("A message needs a subject"));
  EXPECT_THAT(Type(1, {std::string(40, 's')}),
              HasSubstr("Subject cut to 30 characters: " + std::string(30, 's')));
  std::string reply;
  for (size_t i = 0; i < kMailLinesMax + 5; ++i) reply += Type(1, {"line " + std::to_string(i)});
  EXPECT_THAT(reply, HasSubstr("The message is full (300 lines)"));
  EXPECT_EQ(Type(1, {std::string(300, 'w'), "/ABORT"}), "Message aborted; nothing was saved.\r\n");
  EXPECT_FALSE(mail_->Composing(1));
  EXPECT_EQ(prompts_[1], 1);
  EXPECT_THAT(store_.index(), IsEmpty());

  Cmd(1, "SP", "G4XYZ");
  Type(1, {"long", std::string(300, 'w')});
  mail_->StreamClosed(1);  // a user who goes away mid-message leaves nothing behind
  EXPECT_FALSE(mail_->Composing(1));
  SendMail(1, "G4XYZ", "cut", {std::string(300, 'w')});
  MailMessage m;
  ASSERT_TRUE(store_.ReadFull(1, m));
  EXPECT_EQ(m.text.at(0).size(), kMailLineMax);
}

TEST_F(MailServiceTest, NoticesAtLogInAndHomeNodes) {
  homes_["G4XYZ"] = "GB7ZZZ";
  homes_["DL1AAA"] = "xx0qx-1";  // at home here
  SendMail(1, "G4XYZ", "one", {});
  SendMail(1, "DL1AAA", "two", {});
  SendMail(1, "ALL", "bull", {});
  EXPECT_EQ(store_.Find(1)->bound_for, "GB7ZZZ");
  EXPECT_EQ(store_.Find(2)->bound_for, "");
  streams_.at(3).session.mail_number = 0;
  EXPECT_THAT(mail_->LoginNotices(3),
              ElementsAre("You have mail from K1ABC.   Message # 2.",
                          "1 new bulletin since you were last told; DIR lists them."));
  EXPECT_EQ(saved_["DL1AAA"], 3);
  Cmd(3, "READ", "2");
  EXPECT_THAT(mail_->LoginNotices(3), IsEmpty());  // read, and the bulletin was told
}

TEST_F(MailServiceTest, ReceivedMessageIsStoredOnceAndAnnounced) {
  MailMessage m;
  m.from = "W1XXX";
  m.to = "K1ABC";
  m.time = MakeUtc(2026, 11, 15, 9, 0);
  m.subject = "hi";
  m.origin = "W1NODE";
  m.received_from = "DB0YYY";
  m.bound_for = "XX0QX-1";
  m.text = {"x"};
  EXPECT_EQ(mail_->Receive(m), 1);
  EXPECT_THAT(out_.sent[1], HasSubstr("New mail has arrived for you from W1XXX.   Message # 1"));
  EXPECT_EQ(store_.Find(1)->bound_for, "");
  EXPECT_EQ(mail_->Receive(m), 0);  // the same message by another route
  EXPECT_EQ(store_.index().size(), 1u);
  m.to = "G4AAA";
  homes_["G4AAA"] = "GB7ZZZ";
  m.bound_for = "";
  EXPECT_EQ(mail_->Receive(m), 2);
  EXPECT_EQ(store_.Find(2)->bound_for, "GB7ZZZ");  // passes on towards its home
  EXPECT_THAT(stored_, ElementsAre(1, 2));

  // A bulletin, received or written here, is announced to everyone who takes announcements
  // except its author.
  streams_.at(3).session.switches &= ~kSwAnnouncements;
  out_.sent.clear();
  m.to = "DX";
  m.is_private = false;
  m.subject = "3Y0 news";
  EXPECT_EQ(mail_->Receive(m), 3);
  EXPECT_EQ(out_.sent[1], "New bulletin 3 to DX from W1XXX: 3Y0 news\r\n");
  EXPECT_EQ(out_.sent[2], out_.sent[1]);
  EXPECT_EQ(out_.sent[3], "");
  out_.sent.clear();
  SendMail(2, "ALL", "Meeting", {"Friday"});
  EXPECT_EQ(out_.sent[1], "New bulletin 4 to ALL from G4XYZ: Meeting\r\n");
  EXPECT_THAT(out_.sent[2], Not(HasSubstr("New bulletin")));
  EXPECT_EQ(saved_["K1ABC"], 4);  // told, so not counted again at the next log-in
}

TEST_F(MailServiceTest, DraftOutlivesARestartOfTheNode) {
  Cmd(1, "SP", "G4XYZ");
  Type(1, {"Antenna", "first line"});
  Cmd(3, "SEND", "ALL");  // only the subject asked for yet
  Cmd(2, "SEND", "K1ABC");
  mail_->StreamClosed(2);  // gone: nothing is kept for it

  // The node restarts; streams 1 and 3 come back, stream 3 now with someone else on it.
  mail_ = std::make_unique<MailService>(deps_);
  User(3, "W9NEW");
  EXPECT_TRUE(mail_->RestoreDraft(1));
  EXPECT_FALSE(mail_->RestoreDraft(2));
  EXPECT_FALSE(mail_->RestoreDraft(3));
  EXPECT_FALSE(mail_->Composing(3));
  mail_->DropUnrestoredDrafts();
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(tmp_ / "drafts"),
                          std::filesystem::directory_iterator()),
            1);
  EXPECT_EQ(Type(1, {"second line", "/EX"}), "Message no 1 saved and directed to G4XYZ\r\n");
  MailMessage m;
  ASSERT_TRUE(store_.ReadFull(1, m));
  EXPECT_EQ(m.subject, "Antenna");
  EXPECT_THAT(m.text, ElementsAre("first line", "second line"));
  EXPECT_TRUE(std::filesystem::is_empty(tmp_ / "drafts"));  // /EX leaves nothing behind
}

}  // namespace
}  // namespace qx::testing
