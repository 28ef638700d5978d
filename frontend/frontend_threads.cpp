// The I/O threads: starting and stopping them, handing each new connection to the least
// loaded one, and the hand-offs between a connection's thread and the link thread.
#include <boost/asio/post.hpp>
#include <exception>
#include <string>
#include <utility>

#include "frontend/front_log.h"
#include "frontend/frontend_server_internal.h"

namespace qx {

void FrontendServer::Impl::StartWorkers() {
  const size_t n = static_cast<size_t>(std::max(1, options_.threads));
  for (size_t i = 0; i < n; ++i) {
    auto w = std::make_unique<Worker>();
    w->index = i;
    w->on_link_thread = i == 0;
    if (w->on_link_thread) {
      // The link thread's context is the caller's: shared without being owned.
      w->io = std::shared_ptr<asio::io_context>(std::shared_ptr<void>(), &io_);
    } else {
      w->io = std::make_shared<asio::io_context>(1);
      w->guard = std::make_unique<asio::executor_work_guard<asio::io_context::executor_type>>(
          w->io->get_executor());
    }
    workers_.push_back(std::move(w));
  }
  for (auto& w : workers_) {
    if (w->on_link_thread) continue;
    w->thread = std::thread([io = w->io, index = w->index] {
      // A fault in one handler is logged and the loop carries on with the others.
      while (true) {
        try {
          io->run();
          return;
        } catch (const std::exception& e) {
          FrontLogError("Unexpected error on I/O thread " + std::to_string(index) + ": " +
                        e.what());
        }
      }
    });
  }
  FrontLog("Connections are spread over " + std::to_string(n) + " I/O thread" +
           (n == 1 ? "" : "s"));
}

void FrontendServer::Impl::StopWorkers() {
  // The other threads stop first; then every socket and timer can be closed from here, and
  // the handlers that closing completes run here too, so that no context is left holding a
  // connection.
  for (auto& w : workers_) {
    if (w->on_link_thread) continue;
    w->io->stop();
    if (w->thread.joinable()) w->thread.join();
    w->guard.reset();
  }
  error_code ec;
  for (auto& c : by_stream_) {
    if (!c) continue;
    c->closed = true;
    c->gone = true;
    c->partial_timer.cancel();
    c->close_timer.cancel();
    c->stall_timer.cancel();
    c->login_timer.cancel();
    c->socket.close(ec);
  }
  by_stream_.assign(1, nullptr);
  for (auto& w : workers_) {
    if (!w->on_link_thread) {
      w->io->restart();
      w->io->poll();
    }
    w->dirty.clear();
    w->paused.clear();
    w->to_worker.Clear();
    w->to_link.Clear();
    w->inbox.Take(w->taken);
    w->taken.Clear();
    w->outbox.Take(w->taken);
    w->taken.Clear();
  }
}

Worker& FrontendServer::Impl::LeastLoaded() {
  Worker* best = workers_.front().get();
  for (auto& w : workers_) {
    if (w->connections < best->connections) best = w.get();
  }
  return *best;
}

void FrontendServer::Impl::ToWorker(const ConnectionPtr& c, HandOff op, std::string_view text) {
  Worker& w = *c->worker;
  if (w.on_link_thread) {
    ApplyOnWorker(w, c, op, text);
    return;
  }
  w.to_worker.Add(c, op, text);
  ScheduleFlush();  // the batch is published with the link thread's flush
}

void FrontendServer::Impl::FanoutToWorker(const ConnectionPtr& c, uint64_t message,
                                          std::string_view text) {
  Worker& w = *c->worker;
  if (w.on_link_thread) {
    ApplyOnWorker(w, c, HandOff::kText, text);
    return;
  }
  // Nothing else is added to the batch while one message is handled, and it is published
  // only by a later flush, so the item found here is still this message's.
  if (w.fanout_message == message && !w.to_worker.empty()) {
    w.to_worker.AddSameText(c, HandOff::kText, w.fanout_item);
    return;
  }
  w.fanout_message = message;
  w.fanout_item = w.to_worker.Add(c, HandOff::kText, text);
  ScheduleFlush();
}

void FrontendServer::Impl::ApplyOnWorker(Worker& w, const ConnectionPtr& c, HandOff op,
                                         std::string_view text) {
  switch (op) {
    case HandOff::kStart:
      StartRead(c);
      return;
    case HandOff::kText:
      QueueOutput(c, text);
      return;
    case HandOff::kClose:
      RequestClose(c, std::string(text));
      return;
    case HandOff::kResume:
      ResumePausedReads(w);
      return;
    case HandOff::kInput:
    case HandOff::kClosed:
      return;  // the link thread's
  }
}

void FrontendServer::Impl::DrainInbox(Worker& w) {
  if (stopped_) return;
  w.inbox.Take(w.taken);
  for (const auto& item : w.taken.items()) {
    ApplyOnWorker(w, item.target, item.op, w.taken.Text(item));
  }
  w.taken.Clear();
  FlushWorker(w);
}

void FrontendServer::Impl::ToLink(Worker& w, const ConnectionPtr& c, HandOff op,
                                  std::string_view text) {
  if (w.on_link_thread) {
    ApplyOnLink(c, op, text);
    return;
  }
  w.to_link.Add(c, op, text);
  ScheduleWorkerFlush(w);  // the batch is published with this thread's flush
}

void FrontendServer::Impl::ApplyOnLink(const ConnectionPtr& c, HandOff op, std::string_view text) {
  switch (op) {
    case HandOff::kInput:
      // The node let go of a connection asked to close: what it still sends goes nowhere.
      if (!c->gone && !c->close_requested) ForwardInput(c, text);
      return;
    case HandOff::kClosed:
      OnConnectionClosed(c, text);
      return;
    default:
      return;  // the I/O thread's
  }
}

void FrontendServer::Impl::DrainOutbox(Worker& w) {
  if (stopped_) return;
  w.outbox.Take(link_taken_);
  for (const auto& item : link_taken_.items()) {
    ApplyOnLink(item.target, item.op, link_taken_.Text(item));
  }
  link_taken_.Clear();
}

void FrontendServer::Impl::ScheduleWorkerFlush(Worker& w) {
  if (w.on_link_thread) {
    ScheduleFlush();
    return;
  }
  if (w.flush_scheduled) return;
  w.flush_scheduled = true;
  asio::post(*w.io, [this, &w] {
    w.flush_scheduled = false;
    FlushWorker(w);
  });
}

void FrontendServer::Impl::FlushWorker(Worker& w) {
  if (stopped_) return;
  std::vector<ConnectionPtr> dirty;
  dirty.swap(w.dirty);
  for (const auto& c : dirty) {
    c->dirty = false;
    StartWrite(c);
  }
  // Keep the list's capacity for the next round.
  dirty.clear();
  if (w.dirty.empty()) w.dirty.swap(dirty);
  if (!w.to_link.empty() && w.outbox.Publish(w.to_link)) {
    asio::post(io_, [this, &w] { DrainOutbox(w); });
  }
}

FrontendCounters FrontendServer::Impl::Counters() const {
  FrontendCounters n = counters;
  n.overflow_closes = overflow_closes_.load(std::memory_order_relaxed);
  n.slow_reader_episodes = slow_reader_episodes_.load(std::memory_order_relaxed);
  n.dropped_lines = dropped_lines_.load(std::memory_order_relaxed);
  return n;
}

}  // namespace qx
