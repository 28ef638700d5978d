// Shared fixtures of the node tests: a recording output, error sink and monitor.
#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "core/monitor.h"
#include "node/node_data.h"
#include "node/pc_sentence.h"

namespace qx::test {

struct SentLine {
  int stream;
  std::string text;
};

class RecordingOutput : public NodeOutput {
 public:
  void Send(int stream, std::string_view text) override {
    sent.push_back({stream, std::string(text)});
  }
  std::vector<SentLine> sent;
};

struct ErrorEntry {
  int code;
  std::string tag;
  std::string text;
};

struct ShownLine {
  std::string text;
  std::string colour;
};

// Whether text holds what; a failure shows the whole text.
inline ::testing::AssertionResult Has(std::string_view text, std::string_view what) {
  if (text.find(what) != std::string_view::npos) return ::testing::AssertionSuccess();
  return ::testing::AssertionFailure() << "no \"" << what << "\" in:\n" << text;
}

inline PcSentence MakeSentence(std::string_view line, int stream = 1) {
  PcSentence s;
  s.stream = stream;
  s.line = std::string(line);
  SplitFields(s.line, s.fields);
  s.number = s.fields[0].size() > 2 ? LeadingNumber(std::string_view(s.fields[0]).substr(2)) : 0;
  return s;
}

}  // namespace qx::test
