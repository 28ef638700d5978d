#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <string>

#include "core/process_launcher.h"
#include "tests/testlib/test_util.h"

namespace qx {
namespace {

// Field n (1-based) of /proc/<pid>/stat, counted after the command name.
long StatField(pid_t pid, int n) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
  std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  const size_t close = text.rfind(')');
  if (close == std::string::npos) return -1;
  std::istringstream rest(text.substr(close + 2));
  std::string field;
  for (int i = 3; i <= n; ++i) rest >> field;  // fields 1 and 2 are pid and (comm)
  return std::stol(field);
}

TEST(LinkLauncherTest, ProgramRunsDetachedWithItsOutputInTheLog) {
  testing::TempDir dir;
  const auto pid_file = dir / "pid";
  const auto log = dir / "front.log";
  // A descriptor of ours that the program must not inherit.
  const int held = open((dir / "held").c_str(), O_WRONLY | O_CREAT, 0644);
  ASSERT_GE(held, 0);
  const int ours = fcntl(held, F_DUPFD, 200);  // a number the shell does not use itself
  close(held);
  ASSERT_GE(ours, 200);

  std::string error;
  const std::string script =
      "echo $$ > " + pid_file.string() + "; ls /proc/$$/fd; echo listed; exec sleep 30";
  ASSERT_TRUE(LaunchDetached("/bin/sh", {"-c", script}, &error, log)) << error;
  ASSERT_TRUE(testing::WaitFor([&] {
    return std::filesystem::exists(log) &&
           testing::ReadFile(log).find("listed") != std::string::npos;
  }));
  const pid_t pid = pid_t(std::stol(testing::ReadFile(pid_file)));
  ASSERT_GT(pid, 0);
  testing::WaitFor([&] { return StatField(pid, 4) != -1; });

  EXPECT_NE(StatField(pid, 4), long(getpid()));   // not our child
  EXPECT_NE(StatField(pid, 6), long(getsid(0)));  // in a session of its own
  EXPECT_EQ(StatField(pid, 7), 0);                // with no controlling terminal
  const std::string listing = testing::ReadFile(log);
  EXPECT_EQ(listing.find("\n" + std::to_string(ours) + "\n"), std::string::npos) << listing;

  close(ours);
  kill(pid, SIGKILL);
}

TEST(LinkLauncherTest, AProgramThatCannotBeStartedIsReported) {
  testing::TempDir dir;
  std::string error;
  EXPECT_FALSE(LaunchDetached(dir / "no-such-program", {}, &error));
  EXPECT_NE(error.find("exec"), std::string::npos) << error;
  EXPECT_NE(error.find("no-such-program"), std::string::npos) << error;

  const auto not_executable = dir / "plain.txt";
  testing::WriteFile(not_executable, "just text");
  EXPECT_FALSE(LaunchDetached(not_executable, {}, &error));
  EXPECT_NE(error.find("Permission denied"), std::string::npos) << error;
}

}  // namespace
}  // namespace qx
