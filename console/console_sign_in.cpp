// Log-ins and what they lead to: the password check on the helper thread with its slow-down
// per client address, the sessions with their cookies and CSRF tokens, log-out and the
// password change.
#include <algorithm>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "console/console_live_view.h"
#include "core/sha256.h"
#include "core/text_util.h"

namespace qx {

using nlohmann::json;

namespace {

constexpr int kMaxLoginsInFlight = 4;
constexpr size_t kMaxSessions = 16;

std::string CookieValue(std::string_view header, std::string_view name) {
  for (std::string_view part : Split(header, ';')) {
    part = Trim(part);
    if (part.size() > name.size() && part.starts_with(name) && part[name.size()] == '=') {
      return std::string(part.substr(name.size() + 1));
    }
  }
  return {};
}

}  // namespace

std::string SessionId(const Request& req) {
  const auto it = req.find(http::field::cookie);
  return it == req.end() ? std::string() : CookieValue(it->value(), kCookieName);
}

ConsoleServer::Impl::AuthSession* ConsoleServer::Impl::FindSession(const Request& req) {
  const std::string id = SessionId(req);
  if (id.size() != 32) return nullptr;
  const auto found = sessions_.find(id);
  if (found == sessions_.end()) return nullptr;
  const auto now = std::chrono::steady_clock::now();
  if (now - found->second.last_used > options_.session_lifetime) {
    sessions_.erase(found);
    return nullptr;
  }
  found->second.last_used = now;
  return &found->second;
}

void ConsoleServer::Impl::Login(Request req, const ConsolePeer& peer,
                                std::function<void(Response)> done) {
  // A form on another site cannot send JSON without the browser asking first, so insisting
  // on it keeps log-in requests to this page.
  const auto type = req.find(http::field::content_type);
  if (type == req.end() || !type->value().starts_with("application/json")) {
    return done(Json(req, http::status::unsupported_media_type, json{{"error", "send JSON"}}));
  }
  const json body = json::parse(req.body(), nullptr, false);
  if (!body.is_object() || !body.contains("password") || !body["password"].is_string()) {
    return done(Json(req, http::status::bad_request, json{{"error", "password needed"}}));
  }
  const auto forwarded = req.find("X-Forwarded-For");
  const asio::ip::address client = ClientAddress(
      peer.address, forwarded == req.end() ? "" : forwarded->value(), options_.trust_forwarded_for);
  const std::string who =
      client == peer.address ? peer.text : client.to_string() + " via " + peer.text;
  if (logins_in_flight_ >= kMaxLoginsInFlight) {
    ++stats_.logins_refused;
    model_.LogEvent("Console", "too many log-in attempts at once, refused from " + who);
    return done(Json(req, http::status::too_many_requests, json{{"error", "try again later"}}));
  }
  // One log-in at a time per address, its slow-down included: guesses from one place cannot
  // run side by side, and they take no turn from anybody else.
  const std::string key = ThrottleKey(client);
  if (!throttle_.Begin(key, std::chrono::steady_clock::now())) {
    ++stats_.logins_refused;
    model_.LogEvent("Console", "log-in while another is under way, refused from " + who);
    return done(Json(req, http::status::too_many_requests, json{{"error", "try again later"}}));
  }
  ++logins_in_flight_;
  const std::string password = body["password"];
  const PasswordHash hash = *password_;
  asio::post(*kdf_pool_, [self = shared_from_this(), req = std::move(req), who, key, password, hash,
                          done = std::move(done)]() mutable {
    const bool ok = VerifyPassword(hash, password);
    asio::post(self->io_,
               [self, req = std::move(req), who, key, ok, done = std::move(done)]() mutable {
                 if (self->stopped_) return;
                 --self->logins_in_flight_;
                 self->FinishLogin(req, who, key, ok, std::move(done));
               });
  });
}

void ConsoleServer::Impl::FinishLogin(const Request& req, const std::string& who,
                                      const std::string& key, bool ok,
                                      std::function<void(Response)> done) {
  const auto delay = throttle_.Result(key, ok, std::chrono::steady_clock::now());
  if (ok) {
    throttle_.End(key);
    const std::string id = HexEncode(RandomBytes(16));
    const std::string csrf = HexEncode(RandomBytes(16));
    if (id.size() != 32 || csrf.size() != 32) {
      return done(Json(req, http::status::internal_server_error, json{{"error", "no random"}}));
    }
    const auto now = std::chrono::steady_clock::now();
    std::erase_if(sessions_, [&](const auto& kv) {
      return now - kv.second.last_used > options_.session_lifetime;
    });
    // A handful of browsers at most; the oldest log-in makes room for a new one.
    if (sessions_.size() >= kMaxSessions) {
      auto oldest = std::min_element(
          sessions_.begin(), sessions_.end(),
          [](const auto& a, const auto& b) { return a.second.last_used < b.second.last_used; });
      sessions_.erase(oldest);
    }
    sessions_[id] = AuthSession{csrf, now};
    model_.LogEvent("Console", "sysop logged in from " + who);
    Response res = Json(req, http::status::ok, json{{"ok", true}, {"csrf", csrf}});
    res.set(http::field::set_cookie,
            std::string(kCookieName) + "=" + id + "; Path=/; HttpOnly; SameSite=Strict");
    return done(std::move(res));
  }
  model_.LogEvent("Console", "wrong console password from " + who);
  auto timer = std::make_shared<asio::steady_timer>(io_);
  timer->expires_after(delay);
  timer->async_wait([self = shared_from_this(), timer, req, key,
                     done = std::move(done)](beast::error_code) mutable {
    if (self->stopped_) return;
    self->throttle_.End(key);
    done(self->Json(req, http::status::unauthorized, json{{"error", "wrong password"}}));
  });
}

Response ConsoleServer::Impl::Logout(const Request& req) {
  const std::string id = SessionId(req);
  sessions_.erase(id);
  // The live lines of this log-in stop with it.
  std::vector<std::shared_ptr<WsConnection>> open;
  for (auto& [p, weak] : ws_) {
    if (auto c = weak.lock(); c && c->session_id() == id) open.push_back(std::move(c));
  }
  for (auto& c : open) c->Close();
  Response res = Json(req, http::status::ok, json{{"ok", true}});
  res.set(http::field::set_cookie,
          std::string(kCookieName) + "=; Path=/; HttpOnly; SameSite=Strict; Max-Age=0");
  return res;
}

void ConsoleServer::Impl::ChangePassword(Request req, std::function<void(Response)> done) {
  const json body = json::parse(req.body(), nullptr, false);
  if (!body.is_object() || !body.contains("old") || !body.contains("new") ||
      !body["old"].is_string() || !body["new"].is_string()) {
    return done(Json(req, http::status::bad_request, json{{"error", "old and new needed"}}));
  }
  const std::string old_pw = body["old"], new_pw = body["new"];
  if (new_pw.size() < 8) {
    return done(Json(req, http::status::bad_request,
                     json{{"error", "the new password needs at least 8 characters"}}));
  }
  const PasswordHash current = *password_;
  const uint32_t iterations = std::max(current.iterations, options_.kdf_iterations);
  asio::post(*kdf_pool_, [self = shared_from_this(), req = std::move(req), current, old_pw, new_pw,
                          iterations, done = std::move(done)]() mutable {
    const bool ok = VerifyPassword(current, old_pw);
    std::optional<PasswordHash> fresh;
    if (ok) fresh = HashPassword(new_pw, iterations);
    asio::post(self->io_, [self, req = std::move(req), fresh = std::move(fresh),
                           done = std::move(done)]() mutable {
      if (self->stopped_) return;
      if (!fresh) {
        return done(
            self->Json(req, http::status::forbidden, json{{"error", "the old password is wrong"}}));
      }
      std::string error;
      if (!SavePasswordFile(self->options_.password_file, *fresh, &error)) {
        return done(self->Json(req, http::status::internal_server_error, json{{"error", error}}));
      }
      self->password_ = std::move(*fresh);
      self->model_.LogEvent("Console", "console password changed");
      done(self->Json(req, http::status::ok, json{{"ok", true}}));
    });
  });
}

}  // namespace qx
