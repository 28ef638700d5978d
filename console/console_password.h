// The sysop's console password, kept as one line "pbkdf2-sha256$<iterations>$<salt>$<hash>"
// (salt and hash in hex) in a file only the node's user may read.  Nothing here touches the
// network; checking a password is slow on purpose, so the server runs it off its thread.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

#include "core/random_bytes.h"

namespace qx {

struct PasswordHash {
  uint32_t iterations = 0;
  std::string salt;  // raw bytes
  std::string hash;  // raw bytes
};

constexpr uint32_t kDefaultKdfIterations = 200'000;

// A password a sysop can type: 16 characters from an alphabet without look-alikes.
std::string MakeRandomPassword();

PasswordHash HashPassword(std::string_view password, uint32_t iterations);
std::string FormatPasswordHash(const PasswordHash& h);
std::optional<PasswordHash> ParsePasswordHash(std::string_view line);
bool VerifyPassword(const PasswordHash& h, std::string_view password);

// Reads the stored hash; nullopt when the file is missing or not a valid hash line.
std::optional<PasswordHash> LoadPasswordFile(const std::filesystem::path& path);
// Writes the hash with mode 0600 (temporary file, then rename).  False with a reason.
bool SavePasswordFile(const std::filesystem::path& path, const PasswordHash& h, std::string* error);

}  // namespace qx
