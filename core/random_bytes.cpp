#include "core/random_bytes.h"

#include <fcntl.h>
#include <sys/random.h>
#include <unistd.h>

#include <cerrno>

#include "core/sha256.h"

namespace qx {
namespace {

bool FromUrandom(std::string& out, size_t got) {
  const int fd = ::open("/dev/urandom", O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  while (got < out.size()) {
    const ssize_t r = ::read(fd, out.data() + got, out.size() - got);
    if (r < 0 && errno == EINTR) continue;
    if (r <= 0) {
      ::close(fd);
      return false;
    }
    got += size_t(r);
  }
  ::close(fd);
  return true;
}

}  // namespace

std::string RandomBytes(size_t n) {
  std::string out(n, '\0');
  size_t got = 0;
  while (got < n) {
    const ssize_t r = ::getrandom(out.data() + got, n - got, 0);
    if (r < 0 && errno == EINTR) continue;
    if (r <= 0) return FromUrandom(out, got) ? out : std::string();
    got += size_t(r);
  }
  return out;
}

std::string RandomHex(size_t n) {
  const std::string bytes = RandomBytes(n);
  return bytes.size() == n ? HexEncode(bytes) : std::string();
}

}  // namespace qx
