// Live views: each WebSocket's bounded queue, and what the server pushes to all of them
// (monitor lines as they come, and snapshots of the streams after connections change).
#include "console/console_live_view.h"

#include <utility>
#include <vector>

namespace qx {

using nlohmann::json;

void WsConnection::Start(Request req) {
  auto timeouts = websocket::stream_base::timeout::suggested(beast::role_type::server);
  timeouts.handshake_timeout = std::chrono::seconds(10);
  ws_.set_option(timeouts);
  ws_.read_message_max(4096);
  ws_.set_option(websocket::stream_base::decorator(
      [](websocket::response_type& res) { res.set(http::field::server, "qxcluster"); }));
  ws_.async_accept(req, [self = shared_from_this()](beast::error_code ec) {
    if (self->server_->stopped()) return;
    self->server_->WsOpened();
    if (ec) return;
    self->server_->AddWs(self);
    self->Read();
  });
}

void WsConnection::Push(std::shared_ptr<const std::string> msg) {
  if (closed_) return;
  if (dropping_) {
    ++dropped_;
    return;
  }
  if (queue_.size() >= server_->options().ws_queue_limit) {
    dropping_ = true;
    ++dropped_;
    return;
  }
  queue_.push_back(std::move(msg));
  if (!writing_) Write();
}

void WsConnection::Close() {
  if (closed_) return;
  closed_ = true;
  beast::error_code ec;
  beast::get_lowest_layer(ws_).socket().close(ec);
}

void WsConnection::Read() {
  ws_.async_read(in_, [self = shared_from_this()](beast::error_code ec, size_t) {
    if (ec) {
      self->closed_ = true;
      self->server_->RemoveWs(self.get());
      return;
    }
    // The browser sends nothing the node acts on; pause and follow are done in the page.
    self->in_.consume(self->in_.size());
    self->Read();
  });
}

void WsConnection::Write() {
  writing_ = true;
  ws_.text(true);
  ws_.async_write(asio::buffer(*queue_.front()),
                  [self = shared_from_this()](beast::error_code ec, size_t) { self->OnWrite(ec); });
}

void WsConnection::OnWrite(beast::error_code ec) {
  writing_ = false;
  if (ec) {
    closed_ = true;
    queue_.clear();
    server_->RemoveWs(this);
    return;
  }
  queue_.pop_front();
  if (dropping_ && queue_.size() <= server_->options().ws_queue_limit / 2) {
    dropping_ = false;
    json marker{{"t", "dropped"},
                {"n", dropped_},
                {"x", "... " + std::to_string(dropped_) + " lines dropped ..."}};
    queue_.push_back(std::make_shared<const std::string>(JsonText(marker)));
    dropped_ = 0;
  }
  if (!queue_.empty() && !closed_) Write();
}

void ConsoleServer::Impl::AddWs(const std::shared_ptr<WsConnection>& c) {
  ws_[c.get()] = c;
  if (monitor_subscription_ == 0) {
    monitor_subscription_ =
        model_.monitor().Subscribe([weak = weak_from_this()](const MonitorLine& line) {
          if (auto self = weak.lock()) self->OnMonitorLine(line);
        });
  }
  json hello{{"t", "hello"}, {"call", model_.NodeCall()}};
  c->Push(std::make_shared<const std::string>(JsonText(hello)));
  json snapshot{{"t", "streams"}, {"streams", StreamsJson(model_.Streams())}};
  c->Push(std::make_shared<const std::string>(JsonText(snapshot)));
}

void ConsoleServer::Impl::RemoveWs(WsConnection* c) {
  ws_.erase(c);
  // With nobody watching, the monitor does not even format lines for us.
  if (ws_.empty() && monitor_subscription_ != 0) {
    model_.monitor().Unsubscribe(monitor_subscription_);
    monitor_subscription_ = 0;
  }
}

void ConsoleServer::Impl::OnMonitorLine(const MonitorLine& line) {
  if (ws_.empty()) return;
  if (line.channel == MonitorChannel::kConnections) {
    ScheduleStreamsSnapshot();
    return;
  }
  Broadcast(std::make_shared<const std::string>(JsonText(MonitorLineJson(line))));
}

void ConsoleServer::Impl::Broadcast(const std::shared_ptr<const std::string>& msg) {
  // Push may end a connection (and so change ws_): walk a copy.
  std::vector<std::shared_ptr<WsConnection>> targets;
  targets.reserve(ws_.size());
  for (auto& [p, weak] : ws_) {
    if (auto c = weak.lock()) targets.push_back(std::move(c));
  }
  for (auto& c : targets) c->Push(msg);
}

// A burst of connection changes (a node restart recovers hundreds of streams) becomes one
// snapshot per quarter second.
void ConsoleServer::Impl::ScheduleStreamsSnapshot() {
  if (snapshot_pending_) return;
  snapshot_pending_ = true;
  snapshot_timer_.expires_after(std::chrono::milliseconds(250));
  snapshot_timer_.async_wait([weak = weak_from_this()](beast::error_code ec) {
    auto self = weak.lock();
    if (!self || ec || self->stopped_) return;
    self->snapshot_pending_ = false;
    if (self->ws_.empty()) return;
    json snapshot{{"t", "streams"}, {"streams", StreamsJson(self->model_.Streams())}};
    self->Broadcast(std::make_shared<const std::string>(JsonText(snapshot)));
  });
}

}  // namespace qx
