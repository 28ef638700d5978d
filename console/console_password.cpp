#include "console/console_password.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>

#include "core/file_util.h"
#include "core/sha256.h"
#include "core/text_util.h"

namespace qx {
namespace {

constexpr std::string_view kScheme = "pbkdf2-sha256";
constexpr size_t kSaltBytes = 16;
constexpr size_t kHashBytes = 32;

}  // namespace

std::string MakeRandomPassword() {
  // 32 symbols: 5 bits each, 16 characters = 80 bits.
  static constexpr char kAlphabet[] = "abcdefghjkmnpqrstuvwxyz23456789A";
  const std::string bytes = RandomBytes(16);
  if (bytes.size() != 16) return {};
  std::string pw;
  for (unsigned char c : bytes) pw.push_back(kAlphabet[c & 31]);
  return pw;
}

PasswordHash HashPassword(std::string_view password, uint32_t iterations) {
  PasswordHash h;
  h.iterations = iterations;
  h.salt = RandomBytes(kSaltBytes);
  h.hash = Pbkdf2HmacSha256(password, h.salt, iterations, kHashBytes);
  return h;
}

std::string FormatPasswordHash(const PasswordHash& h) {
  return std::string(kScheme) + "$" + std::to_string(h.iterations) + "$" + HexEncode(h.salt) + "$" +
         HexEncode(h.hash);
}

std::optional<PasswordHash> ParsePasswordHash(std::string_view line) {
  const auto parts = Split(Trim(line), '$');
  if (parts.size() != 4 || parts[0] != kScheme) return std::nullopt;
  long long iterations = 0;
  if (!ParseInt(parts[1], iterations) || iterations < 1 || iterations > 100'000'000) {
    return std::nullopt;
  }
  PasswordHash h;
  h.iterations = uint32_t(iterations);
  if (!HexDecode(parts[2], h.salt) || h.salt.size() < 8) return std::nullopt;
  if (!HexDecode(parts[3], h.hash) || h.hash.size() != kHashBytes) return std::nullopt;
  return h;
}

bool VerifyPassword(const PasswordHash& h, std::string_view password) {
  if (h.iterations == 0 || h.hash.empty()) return false;
  return ConstantTimeEquals(Pbkdf2HmacSha256(password, h.salt, h.iterations, h.hash.size()),
                            h.hash);
}

std::optional<PasswordHash> LoadPasswordFile(const std::filesystem::path& path) {
  const auto text = ReadFileText(path);
  if (!text) return std::nullopt;
  return ParsePasswordHash(*text);
}

bool SavePasswordFile(const std::filesystem::path& path, const PasswordHash& h,
                      std::string* error) {
  std::error_code ec;
  if (path.has_parent_path()) std::filesystem::create_directories(path.parent_path(), ec);
  const std::filesystem::path temp = path.string() + ".tmp";
  std::filesystem::remove(temp, ec);
  // Created 0600 from the start, so the hash is never readable by others, not even briefly.
  const int fd = ::open(temp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  if (fd < 0) {
    if (error) *error = "cannot create " + temp.string();
    return false;
  }
  const std::string line = FormatPasswordHash(h) + "\n";
  bool ok = ::write(fd, line.data(), line.size()) == ssize_t(line.size());
  ok = ::fsync(fd) == 0 && ok;
  ::close(fd);
  if (!ok || std::rename(temp.c_str(), path.c_str()) != 0) {
    std::filesystem::remove(temp, ec);
    if (error) *error = "cannot write " + path.string();
    return false;
  }
  ::chmod(path.c_str(), 0600);
  return true;
}

}  // namespace qx
