#include "downloads/update_check.h"

#include "downloads/http_get.h"

namespace qx {

UpdateCheck::UpdateCheck(boost::asio::io_context& io, const Clock& clock,
                         UpdateCheckOptions options, std::string last_reported,
                         std::function<void(const UpdateResult&)> done)
    : io_(io),
      clock_(clock),
      options_(std::move(options)),
      last_reported_(std::move(last_reported)),
      done_(std::move(done)),
      schedule_(options_.timing) {}

UpdateCheck::~UpdateCheck() { *alive_ = false; }

void UpdateCheck::Tick() {
  if (options_.url.empty() || !schedule_.Due(clock_.Now())) return;
  if (options_.automatic || schedule_.requested()) Start();
}

bool UpdateCheck::Request() {
  if (options_.url.empty()) return false;
  schedule_.Request();
  return true;
}

void UpdateCheck::Start() {
  const bool requested = schedule_.requested();
  schedule_.Started();
  outcome_ = "checking";
  HttpGetRequest request;
  request.url = options_.url;
  request.max_body = 64 * 1024;  // a version number, perhaps with a few lines of notes
  request.timeout = std::chrono::seconds(60);
  HttpGet(io_, std::move(request), [this, alive = alive_, requested](HttpGetResult r) {
    if (!*alive) return;
    UpdateResult result;
    result.requested = requested;
    const auto version = r.status == 200 ? ReadVersionText(r.body) : std::nullopt;
    if (!version) {
      schedule_.Failed(clock_.Now());
      result.text = "Update check failed: " +
                    (r.status == 0     ? r.error
                     : r.status == 200 ? std::string("the answer names no version")
                                       : "the server answered " + std::to_string(r.status));
    } else {
      schedule_.Succeeded(clock_.Now());
      result.ok = true;
      result.newest = *version;
      result.verdict = DecideUpdate(options_.running, *version, last_reported_);
      if (result.verdict.tell) last_reported_ = *version;
      result.text =
          result.verdict.newer
              ? "A newer QX Cluster is available: " + *version + " (this node runs " +
                    options_.running + "); install it when convenient"
              : "QX Cluster " + options_.running + " is up to date (newest " + *version + ")";
    }
    outcome_ = result.text;
    if (done_) done_(result);
  });
}

}  // namespace qx
