#include "console/console_metrics.h"

#include <string_view>
#include <utility>
#include <vector>

#include <fmt/format.h>

namespace qx {
namespace {

// Label values are quoted; backslash, quote and line end must be escaped.
std::string Label(std::string_view v) {
  std::string out;
  for (char c : v) {
    if (c == '\\' || c == '"') {
      out.push_back('\\');
      out.push_back(c);
    } else if (c == '\n') {
      out += "\\n";
    } else {
      out.push_back(c);
    }
  }
  return out;
}

void Header(std::string& out, std::string_view name, std::string_view type, std::string_view help) {
  fmt::format_to(std::back_inserter(out), "# HELP {} {}\n# TYPE {} {}\n", name, help, name, type);
}

template <typename Map>
void Labelled(std::string& out, std::string_view name, std::string_view type, std::string_view help,
              std::string_view label, const Map& values) {
  Header(out, name, type, help);
  for (const auto& [k, v] : values) {
    fmt::format_to(std::back_inserter(out), "{}{{{}=\"{}\"}} {}\n", name, label, Label(k), v);
  }
}

}  // namespace

std::string FormatMetrics(const ConsoleMetrics& m) {
  std::string out;
  Header(out, "qx_link_up", "gauge", "1 while the link to the front-end (qxfront) is up.");
  fmt::format_to(std::back_inserter(out), "qx_link_up {}\n", m.link_up ? 1 : 0);
  Header(out, "qx_users", "gauge", "Users logged in.");
  fmt::format_to(std::back_inserter(out), "qx_users {}\n", m.users);
  Header(out, "qx_nodes", "gauge", "Node links up.");
  fmt::format_to(std::back_inserter(out), "qx_nodes {}\n", m.nodes);
  Labelled(out, "qx_spots_in_total", "counter", "Spots received, by source.", "source", m.spots_in);
  Labelled(out, "qx_spots_out_total", "counter", "Spot lines sent to users, by source.", "source",
           m.spots_out);
  Labelled(out, "qx_spots_filtered_total", "counter",
           "Spot lines users' filters held back (one per user and spot), by source.", "source",
           m.spots_filtered);
  Labelled(out, "qx_refusals_total", "counter", "Spots refused, by reason.", "reason", m.refusals);
  Header(out, "qx_link_queue_bytes", "gauge", "Bytes waiting on the front-end link.");
  fmt::format_to(std::back_inserter(out), "qx_link_queue_bytes {}\n", m.link_queue_depth);
  Header(out, "qx_link_peak_pending_bytes", "gauge",
         "Largest pending buffer seen on the front-end link.");
  fmt::format_to(std::back_inserter(out), "qx_link_peak_pending_bytes {}\n", m.link_peak_pending);
  Header(out, "qx_link_spots_shed_total", "counter",
         "Spot lines dropped, oldest first per user, because the front-end fell behind.");
  fmt::format_to(std::back_inserter(out), "qx_link_spots_shed_total {}\n", m.link_spots_shed);
  Header(out, "qx_link_spots_waiting", "gauge",
         "Spot lines waiting in per-user queues while the front-end is behind.");
  fmt::format_to(std::back_inserter(out), "qx_link_spots_waiting {}\n", m.link_spots_waiting);
  Header(out, "qx_link_fanout_messages_total", "counter",
         "Messages to the front-end that carried one spot line for many users.");
  fmt::format_to(std::back_inserter(out), "qx_link_fanout_messages_total {}\n",
                 m.link_fanout_messages);
  Header(out, "qx_link_fanout_lines_total", "counter",
         "Spot lines to users carried by those messages (one per user).");
  fmt::format_to(std::back_inserter(out), "qx_link_fanout_lines_total {}\n", m.link_fanout_lines);
  Labelled(out, "qx_user_output_queue_high_water", "gauge",
           "Highest output queue of each connected user, in lines.", "call",
           m.user_queue_high_water);
  Header(out, "qx_spot_delivery_delay_seconds", "histogram",
         "Time from a spot's intake to its last user write.");
  for (const auto& [bound, count] : m.delay_buckets) {
    fmt::format_to(std::back_inserter(out),
                   "qx_spot_delivery_delay_seconds_bucket{{le=\"{}\"}} {}\n", bound, count);
  }
  fmt::format_to(std::back_inserter(out),
                 "qx_spot_delivery_delay_seconds_bucket{{le=\"+Inf\"}} {}\n"
                 "qx_spot_delivery_delay_seconds_sum {}\n"
                 "qx_spot_delivery_delay_seconds_count {}\n",
                 m.delay_count, m.delay_sum_seconds, m.delay_count);
  // The front-end names its own numbers; "_total" marks a counter, anything else a gauge.
  if (!m.feeds.empty()) {
    Header(out, "qx_feed_up", "gauge", "1 while a skimmer or reporter feed is connected.");
    for (const ConsoleFeed& f : m.feeds) {
      fmt::format_to(std::back_inserter(out), "qx_feed_up{{feed=\"{}\",type=\"{}\"}} {}\n",
                     Label(f.name), Label(f.type), f.state == "connected" ? 1 : 0);
    }
    Header(out, "qx_feed_lines_per_minute", "gauge", "Lines a feed sent in the last minute.");
    for (const ConsoleFeed& f : m.feeds) {
      fmt::format_to(std::back_inserter(out), "qx_feed_lines_per_minute{{feed=\"{}\"}} {}\n",
                     Label(f.name), f.lines_per_minute);
    }
    Header(out, "qx_feed_events_total", "counter",
           "What came of a feed's lines (lines, reports, verified, busted, unverified, garbage, "
           "flooded, accepted, connects, drops).");
    for (const ConsoleFeed& f : m.feeds) {
      for (const auto& [what, n] : f.counts) {
        fmt::format_to(std::back_inserter(out),
                       "qx_feed_events_total{{feed=\"{}\",event=\"{}\"}} {}\n", Label(f.name),
                       Label(what), n);
      }
    }
  }
  for (const auto& [name, value] : m.frontend) {
    const std::string metric = "qx_frontend_" + name;
    Header(out, metric, name.ends_with("_total") ? "counter" : "gauge",
           "Reported by the front-end (qxfront).");
    fmt::format_to(std::back_inserter(out), "{} {}\n", metric, value);
  }
  return out;
}

std::string FormatConnectionMetrics(const ConsoleConnectionStats& s) {
  std::string out;
  Labelled(out, "qx_console_connections", "gauge", "Console connections open, by kind.", "kind",
           std::vector<std::pair<std::string_view, uint64_t>>{{"http", s.http},
                                                              {"websocket", s.live_views}});
  Labelled(out, "qx_console_connections_refused_total", "counter",
           "Console connections refused, by reason.", "reason",
           std::vector<std::pair<std::string_view, uint64_t>>{
               {"full", s.refused_full}, {"live_views", s.refused_live_views}});
  Labelled(out, "qx_console_connections_closed_total", "counter",
           "Console connections the server closed, by reason.", "reason",
           std::vector<std::pair<std::string_view, uint64_t>>{
               {"idle_evicted", s.closed_idle_evicted},
               {"stalled_header_evicted", s.closed_stalled_evicted},
               {"idle_timeout", s.closed_idle_timeout},
               {"header_timeout", s.closed_header_timeout},
               {"body_timeout", s.closed_body_timeout}});
  Header(out, "qx_console_logins_refused_total", "counter",
         "Console log-ins refused with 429: one from the same address under way, or too many "
         "at once.");
  fmt::format_to(std::back_inserter(out), "qx_console_logins_refused_total {}\n", s.logins_refused);
  return out;
}

}  // namespace qx
