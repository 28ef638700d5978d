// The mail exchange on one neighbour link, as a state machine that is fed sentences and the
// time and answers with sentences to send and events.  Each direction carries one message at
// a time:
//
//   sender                         receiver
//   PC28 header          ──▶       allocates a stream number
//                        ◀──       PC30 (header ack, the stream)
//   PC29 lines, N at a time ─▶
//                        ◀──       PC31 after every N lines
//   PC32 (end)           ──▶
//                        ◀──       PC33 (done): the message is the receiver's now
//
// PC42 from either side abandons the message; a PC29 or PC32 for a stream the receiver does
// not know is answered PC42.  A step that is not answered in time abandons the message too
// (the sender says so with PC42), and the forwarder tries again later.
#pragma once

#include <string>
#include <vector>

#include "core/time_text.h"
#include "mail/mail_message.h"

namespace qx {

class MailLink {
 public:
  static constexpr std::chrono::seconds kAnswerTimeout{120};
  static constexpr std::chrono::seconds kReceiveTimeout{300};
  static constexpr int kLinesPerAck = 5;

  struct Outgoing {
    int id = 0;  // the message number here
    MailSentence header;
    std::vector<std::string> lines;
  };
  struct Event {
    enum class Kind { kSent, kFailed, kReceived };
    Kind kind = Kind::kFailed;
    int id = 0;           // kSent, kFailed
    std::string why;      // kFailed
    MailMessage message;  // kReceived
  };
  struct Output {
    std::vector<std::string> sentences;  // CR LF included
    std::vector<Event> events;
    std::vector<std::string> notes;  // for the log: what was dropped and why
  };

  MailLink(std::string our_call, std::string peer_call);

  const std::string& peer() const { return peer_; }
  bool sending() const { return send_state_ != SendState::kIdle; }
  // The message being sent (its number here), 0 when none.
  int sending_id() const { return sending() ? out_msg_.id : 0; }
  bool receiving() const { return receiving_; }

  // Starts sending o; the link must not be sending already (false, nothing done).
  bool Offer(Outgoing o, SysTime now, Output& out);
  // A mail sentence that arrived on this link.
  void OnSentence(const MailSentence& s, SysTime now, Output& out);
  // Gives up on steps that were not answered in time.
  void Tick(SysTime now, Output& out);
  // The link went down: whatever was under way is abandoned (a send reports kFailed).
  void Reset(Output& out);

 private:
  enum class SendState { kIdle, kAwaitHeaderAck, kAwaitLinesAck, kAwaitEndAck };

  MailSentence Reply(MailSentence::Kind kind, int stream) const;
  void SendTranche(SysTime now, Output& out);
  void SendFailed(std::string why, Output& out);
  void OnSenderAck(const MailSentence& s, SysTime now, Output& out);
  void OnReceiverSentence(const MailSentence& s, SysTime now, Output& out);

  std::string our_;
  std::string peer_;

  SendState send_state_ = SendState::kIdle;
  Outgoing out_msg_;
  int remote_stream_ = 0;
  size_t next_line_ = 0;
  SysTime send_deadline_{};

  bool receiving_ = false;
  int local_stream_ = 0;
  int next_stream_ = 0;
  MailSentence in_header_;
  std::vector<std::string> in_lines_;
  int since_ack_ = 0;
  bool in_cut_ = false;
  SysTime receive_deadline_{};
};

}  // namespace qx
