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

}  // namespace
}  // namespace qx
