#include "core/file_util.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <fstream>
#include <sstream>

namespace qx {
namespace {

bool WriteAll(int fd, std::string_view text) {
  const char* p = text.data();
  size_t left = text.size();
  while (left > 0) {
    const ssize_t n = ::write(fd, p, left);
    if (n < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    p += n;
    left -= size_t(n);
  }
  return true;
}

}  // namespace

bool AtomicWriteFile(const std::filesystem::path& path, std::string_view text, FileSync sync) {
  std::filesystem::path tmp = path;
  tmp += ".tmp";
  const int fd = ::open(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) return false;
  const bool ok = WriteAll(fd, text) && (sync == FileSync::kNone || ::fsync(fd) == 0);
  ::close(fd);
  if (!ok || std::rename(tmp.c_str(), path.c_str()) != 0) {
    std::remove(tmp.c_str());
    return false;
  }
  return true;
}

std::optional<std::string> ReadFileText(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return std::nullopt;
  std::ostringstream ss;
  ss << in.rdbuf();
  return std::move(ss).str();
}

bool AppendToFile(const std::filesystem::path& path, std::string_view text) {
  const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  if (fd < 0) return false;
  const bool ok = WriteAll(fd, text);
  ::close(fd);
  return ok;
}

}  // namespace qx
