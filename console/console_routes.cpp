// Answers to plain HTTP requests: the pages built into the program, the JSON API behind a
// session, the metrics, and the checks every request passes first (its target, its method,
// the session and, for anything that changes state, the CSRF token).
#include <optional>
#include <string>
#include <utility>

#include "console/console_server_internal.h"
#include "console/console_web_assets.h"
#include "console/setting_check.h"
#include "core/sha256.h"
#include "core/text_util.h"

namespace qx {

using nlohmann::json;

namespace {

constexpr std::string_view kCsrfHeader = "X-CSRF-Token";

std::string_view ContentType(std::string_view path) {
  if (path.ends_with(".html")) return "text/html; charset=utf-8";
  if (path.ends_with(".js")) return "text/javascript; charset=utf-8";
  if (path.ends_with(".css")) return "text/css; charset=utf-8";
  if (path.ends_with(".svg")) return "image/svg+xml";
  return "application/octet-stream";
}

const console_web::File* FindAsset(std::string_view path) {
  for (const auto& f : console_web::kFiles) {
    if (f.path == path) return &f;
  }
  return nullptr;
}

// The request target's path, checked: absolute path form only, no dot segments (also when
// percent-encoded), no backslashes or control characters.  nullopt means 400.
std::optional<std::string> CleanPath(std::string_view target, std::string* query) {
  if (target.empty() || target.front() != '/' || target.size() > 2048) return std::nullopt;
  const size_t q = target.find('?');
  *query = q == std::string_view::npos ? "" : std::string(target.substr(q + 1));
  std::string path;
  if (!PercentDecode(target.substr(0, q), path, false)) return std::nullopt;
  if (path.empty() || path.front() != '/' || path.starts_with("//")) return std::nullopt;
  for (unsigned char c : path) {
    if (c < 0x20 || c == 0x7f || c == '\\') return std::nullopt;
  }
  for (std::string_view seg : Split(std::string_view(path).substr(1), '/')) {
    if (seg == "." || seg == "..") return std::nullopt;
  }
  return path;
}

}  // namespace

Response ConsoleServer::Impl::Basic(const Request& req, http::status status, std::string body,
                                    std::string_view content_type) {
  Response res{status, req.version()};
  res.set(http::field::server, "qxcluster");
  res.set(http::field::content_type, content_type);
  res.set(http::field::cache_control, "no-store");
  res.set("X-Content-Type-Options", "nosniff");
  res.set("X-Frame-Options", "DENY");
  res.set("Referrer-Policy", "no-referrer");
  res.set("Content-Security-Policy",
          "default-src 'self'; connect-src 'self'; img-src 'self' data:; "
          "frame-ancestors 'none'; form-action 'self'");
  res.keep_alive(req.keep_alive());
  res.body() = std::move(body);
  if (req.method() == http::verb::head) {
    res.content_length(res.body().size());
    res.body().clear();
  } else {
    res.prepare_payload();
  }
  return res;
}

std::optional<Response> ConsoleServer::Impl::CheckUpgrade(const Request& req) {
  std::string query;
  const auto path = CleanPath(req.target(), &query);
  if (!path) return Basic(req, http::status::bad_request, "bad target\n", "text/plain");
  if (*path != "/ws") return Basic(req, http::status::not_found, "not found\n", "text/plain");
  if (!FindSession(req)) {
    return Json(req, http::status::unauthorized, json{{"error", "log in first"}});
  }
  // Another site's page must not open the socket with the sysop's cookie.
  // Behind an HTTPS reverse proxy the page's origin is the public site, not the Host seen here.
  const auto origin = req.find(http::field::origin);
  const auto host = req.find(http::field::host);
  if (origin != req.end() &&
      !LiveViewOriginAllowed(origin->value().empty() ? "null" : std::string(origin->value()),
                             host == req.end() ? "" : std::string(host->value()),
                             options_.public_site)) {
    return Json(req, http::status::forbidden, json{{"error", "origin not allowed"}});
  }
  if (ws_.size() + ws_opening_ >= options_.max_live_views) {
    ++stats_.refused_live_views;
    return Json(req, http::status::service_unavailable,
                json{{"error", "too many live views open; close one"}});
  }
  return std::nullopt;
}

void ConsoleServer::Impl::Handle(Request req, const ConsolePeer& peer,
                                 std::function<void(Response)> done) {
  std::string query;
  const auto path = CleanPath(req.target(), &query);
  if (!path) return done(Basic(req, http::status::bad_request, "bad target\n", "text/plain"));
  const bool read_only = req.method() == http::verb::get || req.method() == http::verb::head;
  if (!read_only && req.method() != http::verb::post) {
    return done(Basic(req, http::status::method_not_allowed, "method not allowed\n", "text/plain"));
  }

  // Open to all: the log-in page and what it needs, the metrics and the health check.  The
  // node is healthy while its link to the front-end is up; without it no user reaches it.
  if (*path == "/health" && read_only) {
    const bool up = model_.Metrics().link_up;
    return done(Basic(req, up ? http::status::ok : http::status::service_unavailable,
                      up ? "ok\n" : "front-end link down\n", "text/plain; charset=utf-8"));
  }
  if (*path == "/metrics" && read_only) {
    stats_.http = http_.size();
    stats_.live_views = ws_.size() + ws_opening_;
    return done(Basic(req, http::status::ok,
                      FormatMetrics(model_.Metrics()) + FormatConnectionMetrics(stats_),
                      "text/plain; version=0.0.4; charset=utf-8"));
  }
  if (*path == "/login" || *path == "/login.html" || *path == "/login.js" ||
      *path == "/style.css" || *path == "/favicon.svg") {
    if (!read_only) {
      return done(
          Basic(req, http::status::method_not_allowed, "method not allowed\n", "text/plain"));
    }
    const std::string asset = *path == "/login" ? "/login.html" : *path;
    const auto* f = FindAsset(asset);
    if (!f) return done(Basic(req, http::status::not_found, "not found\n", "text/plain"));
    return done(Basic(req, http::status::ok, std::string(f->data), ContentType(asset)));
  }
  if (*path == "/api/login") {
    if (req.method() != http::verb::post) {
      return done(Json(req, http::status::method_not_allowed, json{{"error", "use POST"}}));
    }
    return Login(std::move(req), peer, std::move(done));
  }

  AuthSession* session = FindSession(req);
  const bool is_api = path->starts_with("/api/");
  if (!session) {
    if (is_api || !read_only) {
      return done(Json(req, http::status::unauthorized, json{{"error", "log in first"}}));
    }
    Response res = Basic(req, http::status::see_other, "", "text/plain");
    res.set(http::field::location, "/login");
    return done(std::move(res));
  }
  if (!read_only) {
    const auto token = req.find(kCsrfHeader);
    if (token == req.end() || !ConstantTimeEquals(token->value(), session->csrf)) {
      return done(Json(req, http::status::forbidden, json{{"error", "CSRF token missing"}}));
    }
  }

  if (*path == "/api/session") {
    return done(
        Json(req, http::status::ok, json{{"csrf", session->csrf}, {"call", model_.NodeCall()}}));
  }
  if (*path == "/api/logout" || *path == "/api/password") {
    if (read_only) {
      return done(Json(req, http::status::method_not_allowed, json{{"error", "use POST"}}));
    }
    if (*path == "/api/logout") return done(Logout(req));
    return ChangePassword(std::move(req), std::move(done));
  }
  if (is_api) {
    ApiReply reply = api_.Handle(read_only ? "GET" : "POST", std::string_view(*path).substr(5),
                                 query, req.body());
    Response res =
        Basic(req, http::status(reply.status), std::move(reply.body), "application/json");
    if (api_.shutdown_requested()) {
      model_.LogEvent("Console", "shut-down asked for from the web console");
      // Answer first; the node ends once the reply is on its way.
      asio::post(io_, [self = shared_from_this()] { self->model_.Shutdown(); });
    }
    return done(std::move(res));
  }

  if (!read_only) {
    return done(Basic(req, http::status::method_not_allowed, "method not allowed\n", "text/plain"));
  }
  const std::string asset = *path == "/" ? "/index.html" : *path;
  const auto* f = FindAsset(asset);
  if (!f) return done(Basic(req, http::status::not_found, "not found\n", "text/plain"));
  return done(Basic(req, http::status::ok, std::string(f->data), ContentType(asset)));
}

}  // namespace qx
