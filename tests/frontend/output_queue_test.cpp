#include "frontend/output_queue.h"

#include <gtest/gtest.h>

#include <string>

namespace qx {
namespace {

const std::string kNotice =
    "*** Spots are being dropped: your connection cannot keep up with them.\r\n";

std::string Line(char c, size_t length) { return std::string(length - 2, c) + "\r\n"; }

// Writes out everything that waits, as a socket that keeps up would.
std::string WriteAll(OutputQueue& q, uint64_t* lost = nullptr) {
  std::string out;
  for (std::string_view next; !(next = q.NextWrite()).empty();) {
    out.append(next);
    const uint64_t n = q.Wrote(next.size());
    if (lost != nullptr && n > 0) *lost = n;
  }
  return out;
}

TEST(OutputQueueTest, AReaderBehindIsToldThenCaughtUpWithTheCountOfLostLines) {
  OutputQueue q(100);
  EXPECT_EQ(q.Add(Line('a', 60)), OutputQueue::Added::kQueued);
  // The text that would pass the bound is the first one dropped; the notice comes instead.
  EXPECT_EQ(q.Add(Line('b', 60)), OutputQueue::Added::kBehind);
  EXPECT_TRUE(q.behind());
  EXPECT_EQ(q.Add("c1\r\nc2\r\n"), OutputQueue::Added::kDropped);
  EXPECT_EQ(q.Add("prompt >"), OutputQueue::Added::kDropped);

  // Draining to half the bound is not enough; below it the reader catches up.
  const std::string_view first = q.NextWrite();
  EXPECT_EQ(first, Line('a', 60) + kNotice);
  EXPECT_EQ(q.Wrote(first.size() - 50), 0u);
  EXPECT_TRUE(q.behind());
  EXPECT_EQ(q.Wrote(1), 4u);  // b, c1, c2 and the prompt
  EXPECT_FALSE(q.behind());
  EXPECT_EQ(WriteAll(q), std::string(kNotice).substr(kNotice.size() - 49) +
                             "*** 4 lines were dropped because your connection could not keep "
                             "up.\r\n");
  EXPECT_EQ(q.Add("d\r\n"), OutputQueue::Added::kQueued);
  EXPECT_EQ(WriteAll(q), "d\r\n");
}

TEST(OutputQueueTest, NoticesStartALineOfTheirOwn) {
  OutputQueue q(20);
  q.Add("login: ");
  EXPECT_EQ(q.Add(Line('x', 30)), OutputQueue::Added::kBehind);
  uint64_t lost = 0;
  EXPECT_EQ(WriteAll(q, &lost), "login: \r\n" + kNotice +
                                    "*** 1 line was dropped because your connection could not "
                                    "keep up.\r\n");
  EXPECT_EQ(lost, 1u);
}

TEST(OutputQueueTest, BytesOfAWriteInFlightStayPutWhileMoreIsQueued) {
  OutputQueue q(1000);
  q.Add("one\r\n");
  const std::string_view writing = q.NextWrite();
  const char* at = writing.data();
  q.Add("two\r\n");
  EXPECT_EQ(std::string_view(at, 5), "one\r\n");
  q.Wrote(2);
  EXPECT_EQ(q.pending(), 8u);
  EXPECT_EQ(q.NextWrite(), "e\r\n");  // the rest of the partly written bytes first
  q.Wrote(3);
  EXPECT_EQ(q.NextWrite(), "two\r\n");
  q.Clear();
  EXPECT_TRUE(q.empty());
  EXPECT_EQ(q.NextWrite(), "");
}

TEST(OutputQueueTest, MessageReadersGetTheirOwnNoticeAndNoLineText) {
  // A WebSocket reader: texts are whole frames that count as the lines given, nothing is
  // queued when dropping begins, and the resume notice is whatever the owner makes of it.
  OutputQueue q(100);
  q.set_resume_notice([](uint64_t lines) { return "<dropped " + std::to_string(lines) + ">"; });
  EXPECT_EQ(q.Add(std::string(60, 'a'), 1), OutputQueue::Added::kQueued);
  EXPECT_EQ(q.Add(std::string(60, 'b'), 1), OutputQueue::Added::kBehind);
  EXPECT_EQ(q.Add("\n\n\n", 1), OutputQueue::Added::kDropped);  // counted as given, not by LF
  uint64_t lost = 0;
  EXPECT_EQ(WriteAll(q, &lost), std::string(60, 'a') + "<dropped 2>");
  EXPECT_EQ(lost, 2u);
  EXPECT_EQ(q.Add("c", 1), OutputQueue::Added::kQueued);
  EXPECT_EQ(WriteAll(q), "c");
}

}  // namespace
}  // namespace qx
