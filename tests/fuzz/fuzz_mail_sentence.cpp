// The reader of mail sentences from neighbours on arbitrary bytes, and the link exchange fed
// with whatever it accepts.  No crash; what is accepted builds again into a sentence that
// reads back the same; the exchange never answers with more than a few sentences per input.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "core/text_util.h"
#include "mail/mail_link.h"
#include "mail/mail_message.h"

namespace {

void Require(bool condition) {
  if (!condition) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  const qx::SysTime now = qx::MakeUtc(2026, 11, 15, 12, 0);
  qx::MailLink link("GB7AAA", "DB0BBB");
  qx::MailLink::Output out;
  qx::MailLink::Outgoing o;
  o.id = 1;
  o.header.addressee = "ALL";
  o.header.author = "K1ABC";
  o.header.origin = "GB7AAA";
  o.header.time = now;
  o.lines = {"a", "b", "c", "d", "e", "f"};
  link.Offer(o, now, out);
  // Each input line is one sentence.
  for (std::string_view line : qx::SplitLines(input)) {
    std::string why;
    const auto s = qx::ParseMailSentence(line, &why);
    if (!s) {
      Require(!why.empty());
      continue;
    }
    const std::string built = qx::BuildMailSentence(*s);
    const auto again = qx::ParseMailSentence(built);
    Require(again && again->kind == s->kind && again->stream == s->stream &&
            again->text == s->text && again->addressee == s->addressee && again->time == s->time &&
            again->origin == s->origin);
    Require(s->text.size() <= qx::kMailLineMax);
    const size_t before = out.sentences.size();
    link.OnSentence(*s, now, out);
    Require(out.sentences.size() - before <= size_t(qx::MailLink::kLinesPerAck) + 1);
  }
  link.Tick(now + std::chrono::hours(1), out);
  Require(!link.sending() && !link.receiving());
  return 0;
}
