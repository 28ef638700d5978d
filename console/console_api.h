// The console's JSON API behind the log-in: one request (method, path below /api/, query,
// body) in, one status and JSON text out.  No sockets and no sessions here; the server has
// already checked the session and the CSRF token before a request reaches this.
#pragma once

#include <functional>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

#include "console/console_model.h"

namespace qx {

struct ApiReply {
  int status = 200;
  std::string body;  // JSON
};

// JSON text of j; invalid UTF-8 (users type Latin-1) is replaced, never thrown on.
std::string JsonText(const nlohmann::json& j);
nlohmann::json StreamsJson(const std::vector<ConsoleStream>& streams);
// A monitor line as the page gets it, live or from the history: "t":"line", the channel
// "ch", stream "s", colour "c", direction "d" ("in", "out" or ""), time "ts" (Unix
// milliseconds) and text "x".
nlohmann::json MonitorLineJson(const MonitorLine& line);
std::string_view MonitorChannelName(MonitorChannel channel);

class ConsoleApi {
 public:
  explicit ConsoleApi(ConsoleModel& model) : model_(model) {}

  // path is the part after "/api/", for example "lists/LockOuts/add".
  ApiReply Handle(std::string_view method, std::string_view path, std::string_view query,
                  std::string_view body);

  // Called after the reply to a shut-down request has been sent.
  bool shutdown_requested() const { return shutdown_requested_; }

 private:
  ApiReply Get(std::string_view path, std::string_view query);
  ApiReply Post(std::string_view path, const nlohmann::json& body);
  ApiReply Spots(std::string_view query);
  ApiReply MonitorHistory(std::string_view query);

  ConsoleModel& model_;
  bool shutdown_requested_ = false;
};

// The value of key in a URL query ("a=1&b=x%20y"), percent-decoded; "" when absent.
std::string QueryValue(std::string_view query, std::string_view key);
// Percent-decoding; false on a broken escape.  '+' stands for a blank only when plus_is_space.
bool PercentDecode(std::string_view in, std::string& out, bool plus_is_space);

}  // namespace qx
