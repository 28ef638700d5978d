#include "mail/mail_link.h"

#include <fmt/format.h>

#include "core/text_util.h"

namespace qx {

using Kind = MailSentence::Kind;

MailLink::MailLink(std::string our_call, std::string peer_call)
    : our_(ToUpper(our_call)), peer_(ToUpper(peer_call)) {}

MailSentence MailLink::Reply(Kind kind, int stream) const {
  MailSentence s;
  s.kind = kind;
  s.to_node = peer_;
  s.from_node = our_;
  s.stream = stream;
  return s;
}

bool MailLink::Offer(Outgoing o, SysTime now, Output& out) {
  if (sending()) return false;
  out_msg_ = std::move(o);
  out_msg_.header.kind = Kind::kHeader;
  out_msg_.header.from_node = our_;
  out_msg_.header.lines_per_ack = kLinesPerAck;
  remote_stream_ = 0;
  next_line_ = 0;
  send_state_ = SendState::kAwaitHeaderAck;
  send_deadline_ = now + kAnswerTimeout;
  out.sentences.push_back(BuildMailSentence(out_msg_.header));
  return true;
}

void MailLink::SendTranche(SysTime now, Output& out) {
  const size_t end = std::min(out_msg_.lines.size(), next_line_ + size_t(kLinesPerAck));
  const bool full = end - next_line_ == size_t(kLinesPerAck);
  for (; next_line_ < end; ++next_line_) {
    MailSentence line = Reply(Kind::kLine, remote_stream_);
    line.text = out_msg_.lines[next_line_];
    out.sentences.push_back(BuildMailSentence(line));
  }
  send_deadline_ = now + kAnswerTimeout;
  if (full) {
    // The receiver acknowledges every full tranche; the end follows its ack.
    send_state_ = SendState::kAwaitLinesAck;
  } else {
    out.sentences.push_back(BuildMailSentence(Reply(Kind::kEnd, remote_stream_)));
    send_state_ = SendState::kAwaitEndAck;
  }
}

void MailLink::SendFailed(std::string why, Output& out) {
  Event e;
  e.kind = Event::Kind::kFailed;
  e.id = out_msg_.id;
  e.why = std::move(why);
  out.events.push_back(std::move(e));
  send_state_ = SendState::kIdle;
  remote_stream_ = 0;
}

void MailLink::OnSentence(const MailSentence& s, SysTime now, Output& out) {
  if (!EqualsIgnoreCase(s.from_node, peer_)) {
    out.notes.push_back(
        fmt::format("mail sentence from {} on the link to {} dropped", s.from_node, peer_));
    return;
  }
  switch (s.kind) {
    case Kind::kHeaderAck:
    case Kind::kLinesAck:
    case Kind::kEndAck:
      OnSenderAck(s, now, out);
      return;
    case Kind::kAbort:
      // An abort names the stream of whichever side it concerns.
      if (sending() && (s.stream == remote_stream_ || remote_stream_ == 0)) {
        SendFailed("aborted by " + peer_, out);
      } else if (receiving_ && s.stream == local_stream_) {
        receiving_ = false;
        out.notes.push_back(fmt::format("{} abandoned the message it was sending", peer_));
      } else {
        out.notes.push_back(fmt::format("PC42 for unknown stream {} from {}", s.stream, peer_));
      }
      return;
    default:
      OnReceiverSentence(s, now, out);
  }
}

void MailLink::OnSenderAck(const MailSentence& s, SysTime now, Output& out) {
  const bool matches = s.stream == remote_stream_;
  if (s.kind == Kind::kHeaderAck && send_state_ == SendState::kAwaitHeaderAck) {
    remote_stream_ = s.stream;
    SendTranche(now, out);
  } else if (s.kind == Kind::kLinesAck && send_state_ == SendState::kAwaitLinesAck && matches) {
    if (next_line_ < out_msg_.lines.size()) {
      SendTranche(now, out);
    } else {
      out.sentences.push_back(BuildMailSentence(Reply(Kind::kEnd, remote_stream_)));
      send_state_ = SendState::kAwaitEndAck;
      send_deadline_ = now + kAnswerTimeout;
    }
  } else if (s.kind == Kind::kEndAck && send_state_ == SendState::kAwaitEndAck && matches) {
    Event e;
    e.kind = Event::Kind::kSent;
    e.id = out_msg_.id;
    out.events.push_back(std::move(e));
    send_state_ = SendState::kIdle;
    remote_stream_ = 0;
  } else {
    out.notes.push_back(
        fmt::format("unexpected acknowledgement for stream {} from {} dropped", s.stream, peer_));
  }
}

void MailLink::OnReceiverSentence(const MailSentence& s, SysTime now, Output& out) {
  if (s.kind == Kind::kHeader) {
    if (receiving_) {
      // The sender holds one message at a time: a new header means it gave up the last one.
      out.notes.push_back(
          fmt::format("{} started a new message; the unfinished one is dropped", peer_));
    }
    receiving_ = true;
    in_header_ = s;
    in_lines_.clear();
    since_ack_ = 0;
    in_cut_ = false;
    local_stream_ = ++next_stream_;
    if (next_stream_ >= 999999) next_stream_ = 0;
    receive_deadline_ = now + kReceiveTimeout;
    out.sentences.push_back(BuildMailSentence(Reply(Kind::kHeaderAck, local_stream_)));
    return;
  }
  if (!receiving_ || s.stream != local_stream_) {
    out.notes.push_back(fmt::format("{} for unknown stream {} from {} answered PC42",
                                    s.kind == Kind::kLine ? "PC29" : "PC32", s.stream, peer_));
    out.sentences.push_back(BuildMailSentence(Reply(Kind::kAbort, s.stream)));
    return;
  }
  receive_deadline_ = now + kReceiveTimeout;
  if (s.kind == Kind::kLine) {
    if (in_lines_.size() < kMailLinesMax) {
      in_lines_.push_back(s.text);
    } else if (!in_cut_) {
      in_cut_ = true;
      out.notes.push_back(
          fmt::format("message from {} cut at {} lines", in_header_.author, kMailLinesMax));
    }
    if (++since_ack_ >= in_header_.lines_per_ack) {
      since_ack_ = 0;
      out.sentences.push_back(BuildMailSentence(Reply(Kind::kLinesAck, local_stream_)));
    }
    return;
  }
  // kEnd
  out.sentences.push_back(BuildMailSentence(Reply(Kind::kEndAck, local_stream_)));
  receiving_ = false;
  Event e;
  e.kind = Event::Kind::kReceived;
  MailMessage& m = e.message;
  m.from = in_header_.author;
  m.to = in_header_.addressee;
  m.time = in_header_.time;
  m.subject = in_header_.subject;
  m.is_private = in_header_.is_private;
  m.origin = in_header_.origin;
  m.received_from = peer_;
  if (!EqualsIgnoreCase(in_header_.to_node, our_)) m.bound_for = in_header_.to_node;
  m.text = std::move(in_lines_);
  in_lines_.clear();
  out.events.push_back(std::move(e));
}

void MailLink::Tick(SysTime now, Output& out) {
  if (sending() && now >= send_deadline_) {
    if (remote_stream_ != 0) {
      out.sentences.push_back(BuildMailSentence(Reply(Kind::kAbort, remote_stream_)));
    }
    SendFailed("no answer from " + peer_, out);
  }
  if (receiving_ && now >= receive_deadline_) {
    receiving_ = false;
    out.sentences.push_back(BuildMailSentence(Reply(Kind::kAbort, local_stream_)));
    out.notes.push_back(
        fmt::format("message from {} abandoned: {} stopped sending", in_header_.author, peer_));
  }
}

void MailLink::Reset(Output& out) {
  if (sending()) SendFailed("the link to " + peer_ + " went down", out);
  receiving_ = false;
}

}  // namespace qx
