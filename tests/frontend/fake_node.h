// What a test that plays the node on the front-end's link needs: node messages as the node
// writes them, and the front-end's records as they arrive.
#pragma once

#include <chrono>
#include <initializer_list>
#include <string>
#include <string_view>
#include <vector>

#include "core/text_util.h"
#include "tests/testlib/test_util.h"

namespace qx::fake_node {

inline constexpr char kEtx = '\x03';

// Elements joined with ETX and ended with EOT.
inline std::string Message(std::initializer_list<std::string_view> elements) {
  std::string out;
  for (auto e : elements) {
    if (!out.empty()) out.push_back(kEtx);
    out.append(e);
  }
  out.push_back('\x04');
  return out;
}

// The complete records received so far.
inline std::vector<std::string> Records(const std::string& received) {
  std::vector<std::string> out;
  size_t start = 0;
  for (size_t end; (end = received.find(kEtx, start)) != std::string::npos; start = end + 1) {
    out.push_back(received.substr(start, end - start));
  }
  return out;
}

// Waits for a complete record starting with prefix; returns it (empty on time-out).
inline std::string WaitRecord(testing::LineClient& link, std::string_view prefix,
                              std::chrono::milliseconds limit = std::chrono::seconds(10)) {
  const auto end = std::chrono::steady_clock::now() + limit;
  while (true) {
    for (const auto& r : Records(link.received())) {
      if (r.starts_with(prefix)) return r;
    }
    if (std::chrono::steady_clock::now() >= end) return "";
    link.Drain(std::chrono::milliseconds(20));
  }
}

// Field index of a record ("" when it has fewer).
inline std::string Field(std::string_view record, size_t index) {
  const auto fields = Split(record, '^');
  return index < fields.size() ? std::string(fields[index]) : "";
}

}  // namespace qx::fake_node
