// The program update check: now and then (daily while "Auto Update" is on, and whenever the
// sysop asks) the node reads the newest version from a configured address and says so when
// it is newer than the one running, once per version.  It only tells; it never fetches or
// installs a program.
#pragma once

#include <boost/asio/io_context.hpp>
#include <functional>
#include <memory>
#include <string>

#include "core/time_text.h"
#include "downloads/download_plan.h"

namespace qx {

struct UpdateCheckOptions {
  std::string url;         // "" switches the check off
  std::string running;     // this program's version
  bool automatic = false;  // "Auto Update": check daily without being asked
  DownloadTiming timing;
};

struct UpdateResult {
  bool ok = false;         // an answer with a version came
  bool requested = false;  // the sysop asked for this check
  UpdateVerdict verdict;
  std::string newest;
  std::string text;  // one line for the sysop
};

class UpdateCheck {
 public:
  // last_reported: the newest version the sysop was already told of ("Last Version Reported").
  UpdateCheck(boost::asio::io_context& io, const Clock& clock, UpdateCheckOptions options,
              std::string last_reported, std::function<void(const UpdateResult&)> done);
  ~UpdateCheck();

  void Tick();
  // False when no address is configured.
  bool Request();
  const std::string& outcome() const { return outcome_; }

 private:
  void Start();

  boost::asio::io_context& io_;
  const Clock& clock_;
  UpdateCheckOptions options_;
  std::string last_reported_;
  std::function<void(const UpdateResult&)> done_;
  DownloadSchedule schedule_;
  std::string outcome_ = "not checked yet";
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

}  // namespace qx
