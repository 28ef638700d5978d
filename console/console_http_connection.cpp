#include "console/console_http_connection.h"

#include <utility>

#include "console/console_live_view.h"

namespace qx {

HttpConnection::HttpConnection(tcp::socket socket, std::shared_ptr<ConsoleServer::Impl> server)
    : stream_(std::move(socket)), server_(std::move(server)), deadline_(stream_.get_executor()) {
  beast::error_code ec;
  const auto ep = stream_.socket().remote_endpoint(ec);
  if (!ec) peer_ = ep.address();
  peer_text_ = ec ? "?" : ep.address().to_string() + ":" + std::to_string(ep.port());
}

void HttpConnection::Start() {
  // A new connection has the header time for its first request, waiting included.
  SetPhase(Phase::kIdle);
  Arm(server_->options().header_timeout);
  WaitForRequest();
}

void HttpConnection::Close() {
  beast::error_code ec;
  deadline_.cancel();
  stream_.socket().shutdown(tcp::socket::shutdown_both, ec);
  stream_.socket().close(ec);
}

void HttpConnection::Evict() {
  if (finishing_) return Done();
  finishing_ = true;
  SetPhase(Phase::kClosing);
  Done();
}

void HttpConnection::SetPhase(Phase p) {
  phase_ = p;
  phase_since_ = Clock::now();
}

void HttpConnection::Arm(std::chrono::milliseconds limit) {
  timed_out_ = false;
  deadline_.expires_after(limit);
  const uint64_t generation = ++deadline_generation_;
  deadline_.async_wait([weak = weak_from_this(), generation](beast::error_code ec) {
    auto self = weak.lock();
    // A deadline that fired just as its read completed must not touch what came after.
    if (ec || !self || self->finishing_ || generation != self->deadline_generation_) return;
    self->timed_out_ = true;
    beast::error_code ignored;
    self->stream_.socket().cancel(ignored);
  });
}

void HttpConnection::Disarm() {
  ++deadline_generation_;
  deadline_.cancel();
}

void HttpConnection::WaitForRequest() {
  if (buffer_.size() > 0) return ReadHeader();  // pipelined after the last request
  stream_.socket().async_read_some(buffer_.prepare(4096),
                                   [self = shared_from_this()](beast::error_code ec, size_t n) {
                                     if (self->finishing_) return;
                                     self->buffer_.commit(n);
                                     if (self->server_->stopped()) return self->Finish();
                                     if (self->timed_out_) {
                                       // Bytes that came just as the time ran out are a request
                                       // that did not finish.
                                       if (self->buffer_.size() > 0) {
                                         self->server_->stats().closed_header_timeout++;
                                         return self->Refuse(http::status::request_timeout);
                                       }
                                       self->server_->stats().closed_idle_timeout++;
                                       return self->Finish();
                                     }
                                     if (ec) return self->Finish();
                                     self->ReadHeader();
                                   });
}

void HttpConnection::ReadHeader() {
  if (!fresh_) Arm(server_->options().header_timeout);
  fresh_ = false;
  SetPhase(Phase::kHeader);
  parser_.emplace();
  parser_->header_limit(uint32_t(server_->options().header_limit));
  parser_->body_limit(server_->options().body_limit);
  http::async_read_header(
      stream_, buffer_, *parser_,
      [self = shared_from_this()](beast::error_code ec, size_t) { self->OnHeader(ec); });
}

void HttpConnection::OnHeader(beast::error_code ec) {
  if (finishing_) return;
  if (server_->stopped()) return Finish();
  if (timed_out_) {
    server_->stats().closed_header_timeout++;
    return Refuse(http::status::request_timeout);
  }
  if (ec) return OnReadError(ec);
  if (parser_->is_done()) return Dispatch();
  SetPhase(Phase::kBody);
  Arm(server_->options().body_timeout);
  http::async_read(stream_, buffer_, *parser_,
                   [self = shared_from_this()](beast::error_code ec, size_t) {
                     if (self->finishing_) return;
                     if (self->server_->stopped()) return self->Finish();
                     if (self->timed_out_) {
                       self->server_->stats().closed_body_timeout++;
                       return self->Refuse(http::status::request_timeout);
                     }
                     if (ec) return self->OnReadError(ec);
                     self->Dispatch();
                   });
}

void HttpConnection::OnReadError(beast::error_code ec) {
  if (ec == http::error::end_of_stream || ec == asio::error::connection_reset ||
      ec == asio::error::eof || ec == asio::error::operation_aborted) {
    return Finish();
  }
  if (ec == http::error::body_limit) return Refuse(http::status::payload_too_large);
  if (ec == http::error::header_limit) {
    return Refuse(http::status::request_header_fields_too_large);
  }
  Refuse(http::status::bad_request);
}

void HttpConnection::Dispatch() {
  Disarm();
  SetPhase(Phase::kBusy);
  Request req = parser_->release();
  if (websocket::is_upgrade(req)) {
    if (auto refusal = server_->CheckUpgrade(req)) return Send(std::move(*refusal));
    auto ws = std::make_shared<WsConnection>(stream_.release_socket(), server_, SessionId(req));
    finishing_ = true;
    server_->WsOpening();
    server_->RemoveHttp(this);
    ws->Start(std::move(req));
    return;
  }
  server_->Handle(std::move(req), ConsolePeer{peer_, peer_text_},
                  [self = shared_from_this()](Response res) { self->Send(std::move(res)); });
}

void HttpConnection::Refuse(http::status status) {
  Response res{status, 11};
  res.set(http::field::server, "qxcluster");
  res.set(http::field::content_type, "text/plain; charset=utf-8");
  res.body() = std::string(http::obsolete_reason(status)) + "\n";
  res.keep_alive(false);
  res.prepare_payload();
  Send(std::move(res));
}

void HttpConnection::Send(Response res) {
  if (finishing_) return;
  if (server_->stopped()) return Finish();
  Disarm();
  SetPhase(Phase::kBusy);
  response_ = std::make_shared<Response>(std::move(res));
  stream_.expires_after(std::chrono::seconds(10));
  http::async_write(stream_, *response_, [self = shared_from_this()](beast::error_code ec, size_t) {
    self->stream_.expires_never();
    if (self->finishing_) return;
    if (ec || !self->response_->keep_alive()) return self->Finish();
    self->response_.reset();
    self->SetPhase(Phase::kIdle);
    self->Arm(self->server_->options().idle_timeout);
    self->WaitForRequest();
  });
}

void HttpConnection::Finish() {
  if (finishing_) return;
  finishing_ = true;
  SetPhase(Phase::kClosing);
  // Close gently: stop sending, then read and drop what the client still sends for a
  // moment.  Closing at once with unread bytes would reset the connection, and the client
  // could lose the refusal it was just sent.  The slot stays taken meanwhile, but a closing
  // connection is the first the server closes outright when it needs room.
  beast::error_code ec;
  stream_.socket().shutdown(tcp::socket::shutdown_send, ec);
  if (ec || server_->stopped()) return Done();
  ++deadline_generation_;
  deadline_.expires_after(std::chrono::seconds(2));
  deadline_.async_wait([weak = weak_from_this()](beast::error_code e) {
    auto self = weak.lock();
    if (e || !self) return;
    beast::error_code ignored;
    self->stream_.socket().cancel(ignored);
  });
  Drain();
}

void HttpConnection::Drain() {
  stream_.socket().async_read_some(asio::buffer(drain_),
                                   [self = shared_from_this()](beast::error_code ec, size_t) {
                                     if (ec || self->server_->stopped()) return self->Done();
                                     self->Drain();
                                   });
}

void HttpConnection::Done() {
  Close();
  server_->RemoveHttp(this);
}

}  // namespace qx
