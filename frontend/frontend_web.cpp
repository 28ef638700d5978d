// The listener for programs: loggers, band maps and web pages get spots as JSON over a
// WebSocket (/stream) or poll for them over plain HTTP (/spots).  Each accepted request
// becomes a stream like any other, announced with the request's target in its kind, so the
// node decides what to send and a restarted node can rebuild the stream from the report.
// This file turns the node's lines into frames (or one HTTP answer) and the client's frames
// into lines; everything else is the ordinary connection code.  Frames other than the node's
// lines are queued as counting no lines, so a client told of dropped messages is told only
// of lost data.
#include "frontend/frontend_web.h"

#include <algorithm>

#include "frontend/front_log.h"

namespace qx {

namespace {

// A node text that never ends its line is not kept beyond this.
constexpr size_t kMaxPartialLine = 64 * 1024;
// A line from a client is cut here, as telnet lines are.
constexpr size_t kMaxClientLine = 2048;
constexpr std::string_view kTextType = "text/plain; charset=utf-8";
// Room kept in the output bound for the head of a poll's answer.
constexpr size_t kAnswerHeadRoom = 1024;

// The answer to a request that is refused before it became a stream.  One try, no waiting:
// the socket is new, so the short answer fits its buffer.  What the client already sent is
// read away first so that the close is orderly and the answer is not lost to a reset.
void AnswerAndClose(tcp::socket& socket, const std::string& answer) {
  error_code ec;
  socket.non_blocking(true, ec);
  socket.write_some(asio::buffer(answer), ec);
  socket.shutdown(tcp::socket::shutdown_send, ec);
  std::array<char, 512> sink;
  for (int i = 0; i < 8 && !ec; ++i) socket.read_some(asio::buffer(sink), ec);
  socket.close(ec);
}

std::string TextAnswer(int status, std::string_view body) {
  // A client that spoke the wrong WebSocket version learns the right one.
  return HttpResponse(status, kTextType, body,
                      status == 426 ? "Sec-WebSocket-Version: 13\r\nUpgrade: websocket\r\n" : "");
}

// A client's text message as one line for the node: line ends and tabs become blanks, other
// control characters go, and it is cut (on a character boundary) where a telnet line is.
std::string ClientLine(std::string_view text) {
  std::string line;
  line.reserve(text.size() + 2);
  for (char ch : text) {
    const auto c = uint8_t(ch);
    if (c == '\r' || c == '\n' || c == '\t') {
      line.push_back(' ');
    } else if (c >= 32 && c != 127) {
      line.push_back(ch);
    }
  }
  if (line.size() > kMaxClientLine) {
    size_t cut = kMaxClientLine;
    while (cut > 0 && (uint8_t(line[cut]) & 0xC0) == 0x80) --cut;
    line.resize(cut);
  }
  return line;
}

// The node's answer to a poll: "Status: <code>" CR LF, then the body.  0 when unreadable.
int AnswerStatus(std::string_view answer, std::string_view& body) {
  const size_t eol = answer.find('\n');
  if (eol == std::string_view::npos) return 0;
  std::string_view first = answer.substr(0, eol);
  if (!first.empty() && first.back() == '\r') first.remove_suffix(1);
  constexpr std::string_view kPrefix = "Status: ";
  if (!first.starts_with(kPrefix)) return 0;
  first.remove_prefix(kPrefix.size());
  int status = 0;
  for (char c : first) {
    if (c < '0' || c > '9' || status > 999) return 0;
    status = status * 10 + (c - '0');
  }
  if (status < 200 || status > 599) return 0;
  body = answer.substr(eol + 1);
  return status;
}

}  // namespace

bool FrontendServer::Impl::StartWeb() {
  const int port = options_.settings.websocket_port;
  if (port == 0) return true;
  error_code ec;
  std::unique_ptr<tcp::acceptor> acceptor = ListenDualStack(static_cast<unsigned short>(port), ec);
  if (ec) {
    FrontLogError("Cannot listen for programs on port " + std::to_string(port) + ": " +
                  ec.message());
    return false;
  }
  const bool v6 = acceptor->local_endpoint(ec).protocol() == tcp::v6();
  FrontLog("Listening for programs (WebSocket /stream, HTTP /spots) on port " +
           std::to_string(port) + " (port index " + std::to_string(kWebPortIndex) +
           (v6 ? ", IPv6 and IPv4)" : ", IPv4 only)"));
  web_acceptor_ = std::move(acceptor);
  AcceptWeb();
  return true;
}

void FrontendServer::Impl::StopWeb() {
  error_code ec;
  if (web_acceptor_) web_acceptor_->close(ec);
  for (const auto& p : web_pending_) {
    p->done = true;
    p->timer.cancel();
    p->socket.close(ec);
  }
  web_pending_.clear();
  for (const auto& c : by_stream_) {
    if (c && c->web) c->web->timer.cancel();
  }
}

void FrontendServer::Impl::AcceptWeb() {
  web_acceptor_->async_accept([this](error_code ec, tcp::socket socket) {
    if (stopped_ || ec == asio::error::operation_aborted) return;
    if (ec) {
      FrontLogError("Accepting on the programs' port failed: " + ec.message());
      RetryAcceptLater([this] { AcceptWeb(); });
      return;
    }
    OnWebAccepted(std::move(socket));
    AcceptWeb();
  });
}

void FrontendServer::Impl::OnWebAccepted(tcp::socket socket) {
  error_code ec;
  const tcp::endpoint remote = socket.remote_endpoint(ec);
  if (ec) {
    socket.close(ec);
    return;
  }
  auto p = std::make_shared<WebPending>(std::move(socket));
  p->address = PlainAddress(remote.address()).to_string();
  p->peer = PeerText(remote);
  // The limits every inbound connection meets, answered in HTTP here.
  const Refusal refusal =
      limits_.Admit(p->address, numbers_.in_use(), std::chrono::steady_clock::now());
  if (refusal != Refusal::kNone) {
    uint64_t& count = refusal == Refusal::kTotal        ? counters.refused_max_connections
                      : refusal == Refusal::kPerAddress ? counters.refused_per_address
                                                        : counters.refused_rate;
    if (ShouldLog(++count)) {
      FrontLog("Refused " + p->peer + ": " + std::string(ConnectionLimits::Name(refusal)) +
               " limit (" + std::to_string(count) + " refused so far)");
    }
    std::string line = limits_.RefusalLine(refusal);
    AnswerAndClose(p->socket, TextAnswer(refusal == Refusal::kTotal ? 503 : 429, line));
    return;
  }
  p->socket.set_option(tcp::no_delay(true), ec);
  web_pending_.push_back(p);
  p->timer.expires_after(options_.web_request_timeout);
  p->timer.async_wait([this, p](error_code ec) {
    if (ec || p->done) return;
    RejectWeb(p, 408, "No complete request in time.\n", "no complete request in time");
  });
  ReadWebHead(p);
}

void FrontendServer::Impl::ReadWebHead(const WebPendingPtr& p) {
  p->socket.async_read_some(asio::buffer(p->buf), [this, p](error_code ec, size_t n) {
    if (p->done) return;
    if (ec) {
      EndWebPending(p, false);  // gone before it asked for anything
      return;
    }
    switch (p->parser.Feed(std::string_view(p->buf.data(), n))) {
      case HttpRequestParser::Status::kNeedMore:
        ReadWebHead(p);
        return;
      case HttpRequestParser::Status::kBadRequest:
        RejectWeb(p, 400, "Bad request.\n", p->parser.error());
        return;
      case HttpRequestParser::Status::kTooLarge:
        RejectWeb(p, 431, "Request head too large.\n", p->parser.error());
        return;
      case HttpRequestParser::Status::kDone:
        OnWebHead(p);
        return;
    }
  });
}

void FrontendServer::Impl::RejectWeb(const WebPendingPtr& p, int status, std::string_view body,
                                     std::string_view why) {
  if (ShouldLog(++counters.web_rejected)) {
    FrontLog("Request from " + p->peer + " answered " + std::to_string(status) + ": " +
             std::string(why) + " (" + std::to_string(counters.web_rejected) + " so far)");
  }
  AnswerAndClose(p->socket, TextAnswer(status, body));
  EndWebPending(p, false);
}

void FrontendServer::Impl::EndWebPending(const WebPendingPtr& p, bool keep_address) {
  p->done = true;
  p->timer.cancel();
  std::erase(web_pending_, p);
  if (keep_address) return;  // the connection that follows holds the address now
  error_code ec;
  p->socket.close(ec);
  limits_.Closed(p->address);
}

void FrontendServer::Impl::OnWebHead(const WebPendingPtr& p) {
  const HttpRequest& request = p->parser.request();
  const HttpRoute route = RouteHttpRequest(request);
  if (route.kind == HttpRoute::Kind::kRefuse) {
    RejectWeb(p, route.status, route.body,
              request.method + " " + EncodeTargetForLink(request.target));
    return;
  }
  const bool stream = route.kind == HttpRoute::Kind::kStream;
  auto web = std::make_shared<WebSession>(io_.get_executor(), stream, options_.web_max_message);
  if (stream) {
    // Streams are held for long, so one address gets only a few of them.
    if (web_limits_.Admit(p->address, 0, std::chrono::steady_clock::now()) != Refusal::kNone) {
      if (ShouldLog(++counters.web_refused)) {
        FrontLog("Refused a WebSocket from " + p->peer + ": WebSocket Max Per Address (" +
                 std::to_string(counters.web_refused) + " refused so far)");
      }
      AnswerAndClose(p->socket,
                     TextAnswer(429, "Too many WebSocket streams from your address (" +
                                         std::to_string(web_limits_.settings().max_per_address) +
                                         "); try again later.\n"));
      EndWebPending(p, false);
      return;
    }
    web->web_address = p->address;
    web->opening =
        "HTTP/1.1 101 Switching Protocols\r\nUpgrade: websocket\r\n"
        "Connection: Upgrade\r\nSec-WebSocket-Accept: " +
        WebSocketAccept(request.Header("sec-websocket-key")) + "\r\n\r\n";
    web->early_input = std::string(p->parser.rest());
    ++counters.web_upgrades;
  } else {
    ++counters.web_polls;
  }
  EndWebPending(p, true);
  AddConnection(std::move(p->socket), kWebPortIndex,
                (stream ? "ws:" : "http:") + EncodeTargetForLink(request.target), p->address,
                std::move(web));
}

void FrontendServer::Impl::WebGone(WebSession& web) {
  if (!web.web_address.empty()) web_limits_.Closed(web.web_address);
  web.web_address.clear();
}

void FrontendServer::Impl::StartWebSession(const ConnectionPtr& c) {
  WebSession& web = *c->web;
  if (!web.stream) {
    // An answer is written whole or not at all: no line of text may ever get into it.
    c->out.set_resume_notice([](uint64_t) { return std::string(); });
    c->web->timer.expires_after(options_.web_answer_timeout);
    c->web->timer.async_wait([this, c](error_code ec) {
      if (ec || c->closed || c->closing) return;
      c->web->timed_out = true;
      if (ShouldLog(++counters.web_poll_timeouts)) {
        FrontLog("Stream " + std::to_string(c->stream) + ": no answer from the node in time (" +
                 c->peer + ")");
      }
      RequestClose(c, "no answer from the node in time");
    });
    return;
  }
  ++counters.web_streams_open;
  // A client that falls behind loses whole messages and is told how many in one of its own,
  // the same object (schema version 1) the node sends when it sheds spots itself.
  c->out.set_resume_notice([](uint64_t lines) {
    const std::string n = std::to_string(lines);
    return EncodeWsFrame(WsOpcode::kText,
                         "{\"v\":1,\"type\":\"dropped\",\"count\":" + n + ",\"text\":\"" + n +
                             " messages were dropped: the client read too slowly\"}");
  });
  QueueBytes(c, web.opening, 0);
  web.opening.clear();
  web.last_traffic = std::chrono::steady_clock::now();
  WebPing(c);
  if (!web.early_input.empty()) {
    const std::string early = std::move(web.early_input);
    OnWebRead(c, early);
  }
}

void FrontendServer::Impl::WebPing(const ConnectionPtr& c) {
  // Proxies drop connections that stay quiet; a ping after every silence keeps it open.
  c->web->timer.expires_at(c->web->last_traffic + options_.web_ping_every);
  c->web->timer.async_wait([this, c](error_code ec) {
    if (ec || c->closed || c->closing) return;
    const SteadyTime now = std::chrono::steady_clock::now();
    if (now >= c->web->last_traffic + options_.web_ping_every) {
      QueueBytes(c, EncodeWsFrame(WsOpcode::kPing, ""), 0);
      c->web->last_traffic = now;
    }
    WebPing(c);
  });
}

void FrontendServer::Impl::OnWebRead(const ConnectionPtr& c, std::string_view data) {
  WebSession& web = *c->web;
  if (!web.stream) return;  // a poll has asked already; more bytes mean nothing
  web.last_traffic = std::chrono::steady_clock::now();
  web.decoder.Feed(data);
  WsEvent event;
  while (!c->closed && !c->closing && web.decoder.Next(event)) {
    switch (event.kind) {
      case WsEvent::Kind::kText: {
        std::string line = ClientLine(event.payload);
        if (line.empty()) break;
        line += "\r\n";
        ForwardInput(c, line);
        break;
      }
      case WsEvent::Kind::kPing:
        QueueBytes(c, EncodeWsFrame(WsOpcode::kPong, event.payload), 0);
        break;
      case WsEvent::Kind::kPong:
        break;
      case WsEvent::Kind::kClose:
        // The handshake's answer echoes the client's code; then the stream ends.
        QueueBytes(c, EncodeWsClose(event.code == kWsNoStatus ? kWsNormalClose : event.code), 0);
        web.close_sent = true;
        RequestClose(c, "closed by peer");
        break;
      case WsEvent::Kind::kError:
        if (ShouldLog(++counters.web_protocol_errors)) {
          FrontLog("Stream " + std::to_string(c->stream) + ": WebSocket closed with " +
                   std::to_string(event.code) + ": " + event.payload + " (" + c->peer + ")");
        }
        QueueBytes(c, EncodeWsClose(event.code), 0);
        web.close_sent = true;
        RequestClose(c, "WebSocket error " + std::to_string(event.code) + ": " + event.payload);
        break;
    }
  }
}

void FrontendServer::Impl::QueueWebOutput(const ConnectionPtr& c, std::string_view text) {
  WebSession& web = *c->web;
  if (c->closed) return;
  if (!web.stream) {
    // The whole answer is written at once when the node lets the stream go.
    if (web.answered || web.answer_too_big) return;
    if (web.answer.size() + text.size() + kAnswerHeadRoom > options_.output_limit) {
      web.answer_too_big = true;
      web.answer.clear();
      return;
    }
    web.answer.append(text);
    return;
  }
  if (web.close_sent) return;
  // Each line the node sends (a JSON object) goes out as one text message.
  web.last_traffic = std::chrono::steady_clock::now();
  web.partial.append(text);
  size_t start = 0;
  for (size_t lf; (lf = web.partial.find('\n', start)) != std::string::npos; start = lf + 1) {
    std::string_view line = std::string_view(web.partial).substr(start, lf - start);
    if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
    if (!line.empty()) QueueBytes(c, EncodeWsFrame(WsOpcode::kText, line), 1);
  }
  web.partial.erase(0, start);
  if (web.partial.size() > kMaxPartialLine) {
    FrontLog("Stream " + std::to_string(c->stream) + ": a node line without an end dropped");
    web.partial.clear();
  }
}

void FrontendServer::Impl::FinishWeb(const ConnectionPtr& c) {
  WebSession& web = *c->web;
  web.timer.cancel();
  if (web.stream) {
    if (!web.close_sent) QueueBytes(c, EncodeWsClose(kWsNormalClose), 0);
    web.close_sent = true;
    return;
  }
  if (web.answered) return;
  web.answered = true;
  std::string_view body;
  const int status = web.answer_too_big ? 0 : AnswerStatus(web.answer, body);
  std::string response;
  if (web.timed_out) {
    response = TextAnswer(504, "The node did not answer in time.\n");
  } else if (status == 0) {
    response = TextAnswer(502, "The node's answer could not be read.\n");
  } else {
    response = HttpResponse(status, "application/json", body);
  }
  std::string().swap(web.answer);
  QueueBytes(c, response, 1);
}

void FrontendServer::Impl::WebClosed(const ConnectionPtr& c) {
  c->web->timer.cancel();
  if (c->web->stream && !c->web->web_address.empty()) --counters.web_streams_open;
  WebGone(*c->web);
}

}  // namespace qx
