#include "propagation/wwv_fetch.h"

#include "propagation/propagation_service.h"
#include "propagation/wwv_text.h"

namespace qx {

namespace {
constexpr std::chrono::hours kPeriod{3};
}  // namespace

WwvFetcher::WwvFetcher(WwvFetchOptions options, const Clock& clock, PropagationService& service,
                       WwvHttpGet get, std::function<void(std::string_view)> log)
    : options_(std::move(options)),
      clock_(clock),
      service_(service),
      get_(std::move(get)),
      log_(std::move(log)) {}

SysTime WwvFetcher::PeriodStart(SysTime t) {
  const auto s = std::chrono::duration_cast<std::chrono::seconds>(t.time_since_epoch());
  return SysTime(s - s % std::chrono::seconds(kPeriod));
}

void WwvFetcher::Tick() {
  if (!options_.enabled || in_flight_ || !get_) return;
  const SysTime now = clock_.Now();
  const SysTime period = PeriodStart(now);
  if (done_period_ == period || now < next_attempt_) return;
  // A WWV for this period came from the network (or a sysop): nothing to fetch.
  if (service_.history().HasWwvBetween(period, period + kPeriod)) {
    Done(period, "already carried");
    return;
  }
  in_flight_ = true;
  ++fetches_;
  next_attempt_ = now + options_.retry;
  get_(WwvFetchRequest{options_.url, last_modified_, etag_},
       [this](const WwvFetchReply& reply) { OnReply(reply); });
}

void WwvFetcher::OnReply(const WwvFetchReply& reply) {
  in_flight_ = false;
  if (reply.status == 304) return Retry("not modified");
  if (reply.status != 200) {
    return Retry(reply.status == 0 ? "failed: " + reply.error
                                   : "failed: HTTP status " + std::to_string(reply.status));
  }
  last_modified_ = reply.last_modified;
  etag_ = reply.etag;
  WwvText text;
  std::string error;
  if (!ParseWwvText(reply.body, text, error)) return Retry("unreadable text: " + error);
  const SysTime now = clock_.Now();
  const SysTime period = PeriodStart(now);
  SysTime at;
  ReportTime(text.date, text.hour, at);
  if (at < period) return Retry("not issued yet");
  // Other nodes refuse a report older than an hour; a late start sends none.
  if (now - at > std::chrono::seconds(kMaxAgeSeconds)) return Done(period, "too old to send");
  WwvReport r;
  r.date = text.date;
  r.hour = text.hour;
  r.sfi = text.sfi;
  r.a = text.a;
  r.k = text.k;
  r.forecast = text.forecast;
  Done(period, service_.OriginateWwv(r) ? "sent" : "already carried");
}

void WwvFetcher::Done(SysTime period, std::string outcome) {
  done_period_ = period;
  next_attempt_ = period + kPeriod + options_.after_issue;
  last_outcome_ = std::move(outcome);
  if (log_) log_("WWV fetch: " + last_outcome_);
}

void WwvFetcher::Retry(std::string outcome) {
  last_outcome_ = std::move(outcome);
  if (log_) log_("WWV fetch: " + last_outcome_);
}

}  // namespace qx
