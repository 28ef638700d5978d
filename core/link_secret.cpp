#include "core/link_secret.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <thread>

#include "core/random_bytes.h"
#include "core/sha256.h"
#include "core/text_util.h"

namespace qx {
namespace {

constexpr size_t kKeyBytes = 32;
constexpr size_t kMaxFileBytes = 4096;
// A program that lost the race to create the file may find it still empty for a moment.
constexpr auto kWaitForWriter = std::chrono::seconds(2);

std::string ErrnoText() { return std::strerror(errno); }

bool ParseKey(std::string_view text, std::string& key) {
  text = Trim(text);
  return text.size() == 2 * kKeyBytes && HexDecode(text, key);
}

bool ReadWhole(int fd, std::string& out) {
  out.clear();
  char buf[512];
  while (out.size() < kMaxFileBytes) {
    const ssize_t r = ::pread(fd, buf, sizeof buf, off_t(out.size()));
    if (r < 0 && errno == EINTR) continue;
    if (r < 0) return false;
    if (r == 0) break;
    out.append(buf, size_t(r));
  }
  return true;
}

LinkSecret ReadExisting(const std::filesystem::path& file) {
  LinkSecret s;
  const int fd = ::open(file.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
  if (fd < 0) {
    s.error = file.string() + (errno == ELOOP ? " is a symbolic link, which is not trusted"
                                              : " cannot be read: " + ErrnoText());
    return s;
  }
  struct stat st {};
  if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
    ::close(fd);
    s.error = file.string() + " is not a regular file";
    return s;
  }
  if ((st.st_mode & 077) != 0) {
    if (::fchmod(fd, 0600) != 0) {
      s.error = file.string() + " may be read by others and cannot be made private: " + ErrnoText();
      ::close(fd);
      return s;
    }
    s.notes.push_back(file.string() + " could be read by group or others; its mode is now 0600");
  }
  const auto give_up = std::chrono::steady_clock::now() + kWaitForWriter;
  std::string text;
  while (true) {
    if (!ReadWhole(fd, text)) {
      s.error = file.string() + " cannot be read: " + ErrnoText();
      break;
    }
    if (ParseKey(text, s.key)) break;
    s.key.clear();
    // Shorter than a key: the program that created it may still be writing.
    if (text.size() >= 2 * kKeyBytes || std::chrono::steady_clock::now() >= give_up) {
      s.error = file.string() +
                " does not hold a key of 64 hex digits; delete it and start both programs "
                "again to make a new one";
      break;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  ::close(fd);
  return s;
}

void SyncDirectory(const std::filesystem::path& dir) {
  const int fd = ::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return;
  ::fsync(fd);
  ::close(fd);
}

}  // namespace

LinkSecret LoadOrCreateLinkSecret(const std::filesystem::path& dir) {
  const std::filesystem::path file = dir / kLinkSecretFile;
  // Exclusive creation decides a race between the two programs: exactly one creates the
  // file, the other sees it exist and reads it.  O_NOFOLLOW and O_EXCL refuse a symbolic
  // link planted in its place.
  const int fd = ::open(file.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
  if (fd < 0) {
    if (errno == EEXIST) return ReadExisting(file);
    LinkSecret s;
    s.error = "cannot create " + file.string() + ": " + ErrnoText();
    return s;
  }
  LinkSecret s;
  const std::string key = RandomBytes(kKeyBytes);
  const std::string line = HexEncode(key) + "\n";
  bool ok = key.size() == kKeyBytes;
  ok = ok && ::write(fd, line.data(), line.size()) == ssize_t(line.size());
  ok = ok && ::fsync(fd) == 0;
  const std::string why = ok ? std::string() : (key.empty() ? "no random bytes" : ErrnoText());
  ::close(fd);
  if (!ok) {
    ::unlink(file.c_str());
    s.error = "cannot write " + file.string() + ": " + why;
    return s;
  }
  SyncDirectory(dir);
  s.key = key;
  s.notes.push_back("Created the link secret " + file.string());
  return s;
}

std::string MakeLinkNonce() { return RandomHex(kLinkNonceDigits / 2); }

bool ValidLinkNonce(std::string_view nonce) {
  if (nonce.size() < kLinkNonceDigits || nonce.size() > 64) return false;
  for (char c : nonce) {
    if (!((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F'))) {
      return false;
    }
  }
  return true;
}

namespace {

std::string Proof(std::string_view key, std::string_view label, std::string_view first,
                  std::string_view second) {
  std::string message;
  message.reserve(label.size() + first.size() + second.size() + 2);
  message.append(label);
  message.push_back('|');
  message.append(first);
  message.push_back('|');
  message.append(second);
  const Sha256Digest d = HmacSha256(key, message);
  return HexEncode(std::string_view(reinterpret_cast<const char*>(d.data()), d.size()));
}

}  // namespace

std::string NodeLinkProof(std::string_view key, std::string_view fe_nonce,
                          std::string_view node_nonce) {
  return Proof(key, "node", fe_nonce, node_nonce);
}

std::string FrontLinkProof(std::string_view key, std::string_view node_nonce,
                           std::string_view fe_nonce) {
  return Proof(key, "front", node_nonce, fe_nonce);
}

}  // namespace qx
