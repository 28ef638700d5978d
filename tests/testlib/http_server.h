// A small HTTP server on a loopback port for the code that downloads: files by path, each
// answered 200 with its text, 304 when the request brings back the file's validator, 302 when
// it has moved, and 404 for anything else.  It runs on the caller's io_context, or, built without
// one, on a thread of its own so that the real programs can fetch from it.
#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/read_until.hpp>
#include <boost/asio/write.hpp>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

namespace qx::testing {

// `short_by` promises more bytes than are sent and closes; `silent` never answers.
struct ServedFile {
  ServedFile(std::string b = "", std::string e = "", size_t s = 0, bool quiet = false)
      : body(std::move(b)), etag(std::move(e)), short_by(s), silent(quiet) {}
  std::string body;
  std::string etag;           // sent as ETag; If-None-Match with it gets 304
  std::string last_modified;  // sent as Last-Modified; If-Modified-Since with it gets 304
  size_t short_by = 0;
  bool silent = false;
  std::string location;  // when set, the answer is a 302 to it
};

class HttpTestServer {
 public:
  explicit HttpTestServer(boost::asio::io_context& io) : acceptor_(io, Loopback()) { Accept(); }
  HttpTestServer()
      : own_io_(std::make_unique<boost::asio::io_context>()), acceptor_(*own_io_, Loopback()) {
    Accept();
    thread_ = std::thread([this] { own_io_->run(); });
  }
  ~HttpTestServer() {
    if (own_io_) {
      own_io_->stop();
      thread_.join();
    }
  }
  HttpTestServer(const HttpTestServer&) = delete;
  HttpTestServer& operator=(const HttpTestServer&) = delete;

  int port() const { return acceptor_.local_endpoint().port(); }
  std::string Url(std::string_view path) const {
    return "http://127.0.0.1:" + std::to_string(port()) + std::string(path);
  }
  void Serve(const std::string& path, ServedFile file) {
    std::lock_guard lock(mutex_);
    files_[path] = std::move(file);
  }
  void Remove(const std::string& path) {
    std::lock_guard lock(mutex_);
    files_.erase(path);
  }
  // Every request head received so far.
  std::vector<std::string> requests() const {
    std::lock_guard lock(mutex_);
    return requests_;
  }

 private:
  using Socket = boost::asio::ip::tcp::socket;

  static boost::asio::ip::tcp::endpoint Loopback() {
    return {boost::asio::ip::make_address("127.0.0.1"), 0};
  }
  void Accept() {
    acceptor_.async_accept([this](boost::system::error_code ec, Socket socket) {
      if (ec) return;
      auto s = std::make_shared<Socket>(std::move(socket));
      auto in = std::make_shared<std::string>();
      boost::asio::async_read_until(*s, boost::asio::dynamic_buffer(*in), "\r\n\r\n",
                                    [this, s, in](boost::system::error_code ec, size_t n) {
                                      if (!ec) Answer(s, in->substr(0, n));
                                    });
      Accept();
    });
  }
  void Answer(const std::shared_ptr<Socket>& s, const std::string& request) {
    std::lock_guard lock(mutex_);
    requests_.push_back(request);
    const size_t path_end = request.find(' ', 4);
    const auto it =
        files_.find(request.substr(4, path_end == std::string::npos ? 0 : path_end - 4));
    auto reply =
        std::make_shared<std::string>("HTTP/1.1 404 Not Found\r\nContent-Length: 0\r\n\r\n");
    if (it != files_.end()) {
      const ServedFile& f = it->second;
      if (f.silent) {
        held_.push_back(s);
        return;
      }
      const auto carries = [&](std::string_view header, const std::string& value) {
        return !value.empty() &&
               request.find(std::string(header) + ": " + value + "\r\n") != std::string::npos;
      };
      if (!f.location.empty()) {
        *reply = "HTTP/1.1 302 Found\r\nLocation: " + f.location + "\r\nContent-Length: 0\r\n\r\n";
      } else if (carries("If-None-Match", f.etag) ||
                 carries("If-Modified-Since", f.last_modified)) {
        *reply = "HTTP/1.1 304 Not Modified\r\nContent-Length: 0\r\n\r\n";
      } else {
        *reply = "HTTP/1.1 200 OK\r\n" + (f.etag.empty() ? "" : "ETag: " + f.etag + "\r\n") +
                 (f.last_modified.empty() ? "" : "Last-Modified: " + f.last_modified + "\r\n") +
                 "Content-Length: " + std::to_string(f.body.size() + f.short_by) +
                 "\r\nConnection: close\r\n\r\n" + f.body;
      }
    }
    boost::asio::async_write(*s, boost::asio::buffer(*reply),
                             [s, reply](boost::system::error_code, size_t) {
                               boost::system::error_code ignored;
                               s->shutdown(Socket::shutdown_both, ignored);
                             });
  }

  std::unique_ptr<boost::asio::io_context> own_io_;  // set when it runs on its own thread
  boost::asio::ip::tcp::acceptor acceptor_;
  mutable std::mutex mutex_;
  std::map<std::string, ServedFile> files_;
  std::vector<std::string> requests_;
  std::vector<std::shared_ptr<Socket>> held_;
  std::thread thread_;
};

}  // namespace qx::testing
