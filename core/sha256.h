// SHA-256, HMAC-SHA256 and PBKDF2-HMAC-SHA256: enough to keep the console password as a
// salted, slow hash and to let the node and its front-end prove to each other that they share
// the link secret, without pulling in a crypto library.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace qx {

using Sha256Digest = std::array<uint8_t, 32>;

class Sha256 {
 public:
  Sha256();
  void Update(const void* data, size_t size);
  void Update(std::string_view text) { Update(text.data(), text.size()); }
  Sha256Digest Final();

  static Sha256Digest Hash(std::string_view data);

 private:
  void Block(const uint8_t* block);

  std::array<uint32_t, 8> state_;
  std::array<uint8_t, 64> buffer_{};
  size_t buffered_ = 0;
  uint64_t total_bytes_ = 0;
};

Sha256Digest HmacSha256(std::string_view key, std::string_view message);

// Derives out_size bytes from password and salt with the given iteration count.
std::string Pbkdf2HmacSha256(std::string_view password, std::string_view salt, uint32_t iterations,
                             size_t out_size);

std::string HexEncode(std::string_view bytes);
// False on odd length or a character that is not a hex digit.
bool HexDecode(std::string_view hex, std::string& out);

// Compares without an early exit, so the time taken does not tell where two texts differ.
bool ConstantTimeEquals(std::string_view a, std::string_view b);

}  // namespace qx
