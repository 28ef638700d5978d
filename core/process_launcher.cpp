#include "core/process_launcher.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace qx {

namespace {

// What the child reports through the status pipe when a step fails.
struct ChildFailure {
  int step;
  int error;
};

const char* StepName(int step) {
  switch (step) {
    case 1:
      return "setsid";
    case 2:
      return "fork";
    case 3:
      return "open";
    case 4:
      return "exec";
    default:
      return "start";
  }
}

[[noreturn]] void Fail(int fd, int step) {
  const ChildFailure failure{step, errno};
  [[maybe_unused]] ssize_t n = write(fd, &failure, sizeof failure);
  _exit(127);
}

void SetError(std::string* error, std::string text) {
  if (error) *error = std::move(text);
}

}  // namespace

bool LaunchDetached(const std::filesystem::path& program, const std::vector<std::string>& args,
                    std::string* error, const std::filesystem::path& log_file) {
  // Everything the child needs is prepared before the fork: after it only async-signal-safe
  // calls are allowed.
  const std::string path = program.string();
  const std::string log = log_file.empty() ? std::string("/dev/null") : log_file.string();
  std::vector<char*> argv;
  argv.reserve(args.size() + 2);
  argv.push_back(const_cast<char*>(path.c_str()));
  for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
  argv.push_back(nullptr);

  int status_pipe[2];
  if (pipe2(status_pipe, O_CLOEXEC) != 0) {
    SetError(error, std::string("pipe: ") + std::strerror(errno));
    return false;
  }
  const pid_t child = fork();
  if (child < 0) {
    const int e = errno;
    close(status_pipe[0]);
    close(status_pipe[1]);
    SetError(error, std::string("fork: ") + std::strerror(e));
    return false;
  }
  if (child == 0) {
    // A new session without a terminal, then a second fork so the program is no session
    // leader and can never acquire one; the middle process exits at once, so the program
    // is adopted by init and this process need not reap it.
    close(status_pipe[0]);
    if (setsid() < 0) Fail(status_pipe[1], 1);
    const pid_t grandchild = fork();
    if (grandchild < 0) Fail(status_pipe[1], 2);
    if (grandchild > 0) _exit(0);

    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    signal(SIGPIPE, SIG_DFL);
    signal(SIGINT, SIG_DFL);
    signal(SIGTERM, SIG_DFL);
    signal(SIGHUP, SIG_DFL);

    const int in = open("/dev/null", O_RDONLY);
    const int out = open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
    if (in < 0 || out < 0) Fail(status_pipe[1], 3);
    dup2(in, 0);
    dup2(out, 1);
    dup2(out, 2);
    // Sockets and files of this process must not stay open in the program: a link socket
    // held by the front-end would keep the node's end alive after the node is gone.
    if (close_range(3, ~0u, CLOSE_RANGE_CLOEXEC) != 0) {
      const long max_fd = sysconf(_SC_OPEN_MAX);
      for (int fd = 3; fd < (max_fd > 0 ? max_fd : 1024); ++fd) {
        if (fd != status_pipe[1]) close(fd);
      }
    }
    execv(path.c_str(), argv.data());
    Fail(status_pipe[1], 4);
  }

  close(status_pipe[1]);
  int wstatus = 0;
  while (waitpid(child, &wstatus, 0) < 0 && errno == EINTR) {
  }
  ChildFailure failure{};
  ssize_t n;
  do {
    n = read(status_pipe[0], &failure, sizeof failure);
  } while (n < 0 && errno == EINTR);
  close(status_pipe[0]);
  if (n == ssize_t(sizeof failure)) {
    SetError(error, std::string(StepName(failure.step)) + " " + path + ": " +
                        std::strerror(failure.error));
    return false;
  }
  if (n != 0) {
    SetError(error, "starting " + path + ": no report from the child");
    return false;
  }
  return true;
}

}  // namespace qx
