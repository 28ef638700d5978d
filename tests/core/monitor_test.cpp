#include "core/monitor.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace qx {
namespace {

TEST(Monitor, SinksMayComeAndGoWhileALineIsWritten) {
  Monitor m;
  std::vector<std::string> heard;
  int late = 0;
  int self = 0;
  self = m.Subscribe([&](const MonitorLine& l) {
    heard.push_back("self:" + std::string(l.text));
    m.Unsubscribe(self);  // hears this line, no more
    late = m.Subscribe(
        [&](const MonitorLine& l2) { heard.push_back("late:" + std::string(l2.text)); });
  });
  m.Subscribe([&](const MonitorLine& l) { heard.push_back("other:" + std::string(l.text)); });
  m.Console("one");
  m.Console("two");
  m.Unsubscribe(late);
  m.Console("three");
  EXPECT_EQ(heard, (std::vector<std::string>{"self:one", "other:one", "other:two", "late:two",
                                             "other:three"}));
}

TEST(Monitor, HistoryKeepsTheLastLinesWithinTheirAgeWithTimeAndDirection) {
  ManualClock clock(MakeUtc(2026, 11, 24, 22, 0));
  Monitor m;
  m.set_clock(&clock);
  m.Console("before");  // no history asked for yet: nothing kept
  m.KeepHistory(3, std::chrono::hours(2));
  m.Input(4, "sh/dx");
  m.Write(MonitorChannel::kRaw, "DX de K1ABC", "", 4, MonitorDirection::kOut);
  m.Write(MonitorChannel::kConnections, "4", "", 4);  // a signal, not an event
  clock.Set(clock.Now() + std::chrono::minutes(90));
  m.Console("one");
  m.Console("two");
  std::vector<MonitorRecord> h = m.History();
  ASSERT_EQ(h.size(), 3u);  // the count bound
  EXPECT_EQ(h[0].text, "DX de K1ABC");
  EXPECT_EQ(h[0].direction, MonitorDirection::kOut);
  EXPECT_EQ(h[0].stream, 4);
  EXPECT_EQ(h[0].time, MakeUtc(2026, 11, 24, 22, 0));
  EXPECT_EQ(h[2].text, "two");
  clock.Set(clock.Now() + std::chrono::minutes(40));  // the first line is now too old
  h = m.History();
  ASSERT_EQ(h.size(), 2u);
  EXPECT_EQ(h[0].text, "one");
  m.Console(std::string(10000, 'x'));  // a long answer is kept in part
  EXPECT_LT(m.History().back().text.size(), 2100u);
  EXPECT_TRUE(m.History().back().text.ends_with("x ..."));
}

TEST(Monitor, AFanOutIsOneLineWithTheCountAndLetsInputThrough) {
  Monitor m;
  std::vector<MonitorRecord> heard;
  m.Subscribe([&](const MonitorLine& l) {
    heard.push_back(
        {l.time, l.channel, l.direction, l.stream, std::string(l.colour), std::string(l.text)});
  });
  m.BeginFanOut();
  for (int stream = 1; stream <= 300; ++stream) {
    m.Write(MonitorChannel::kRaw, "DX de K1ABC: 14025.0 JA1AAA\a\r\n", "", stream,
            MonitorDirection::kOut);
    if (stream == 7) m.Input(7, "bye");
  }
  EXPECT_EQ(m.EndFanOut(), 300);
  ASSERT_EQ(heard.size(), 2u);
  EXPECT_EQ(heard[0].text, "bye");
  EXPECT_EQ(heard[1].text, "DX de K1ABC: 14025.0 JA1AAA  [sent to 300 users]");
  EXPECT_EQ(heard[1].stream, 0);
  EXPECT_NE(heard[1].time, SysTime{});

  // One user: the line is that user's; nobody: no line at all.
  m.BeginFanOut();
  m.Write(MonitorChannel::kRaw, "DX de K1ABC", "", 9, MonitorDirection::kOut);
  EXPECT_EQ(m.EndFanOut(), 1);
  EXPECT_EQ(heard.back().text, "DX de K1ABC  [sent to 1 user]");
  EXPECT_EQ(heard.back().stream, 9);
  m.BeginFanOut();
  EXPECT_EQ(m.EndFanOut(), 0);
  EXPECT_EQ(heard.size(), 3u);
}

}  // namespace
}  // namespace qx
