#include "core/sha256.h"

#include <cstring>

namespace qx {
namespace {

constexpr std::array<uint32_t, 64> kRound = {
    0x428a2f98, 0x71374491, 0xb5c0fbcf, 0xe9b5dba5, 0x3956c25b, 0x59f111f1, 0x923f82a4, 0xab1c5ed5,
    0xd807aa98, 0x12835b01, 0x243185be, 0x550c7dc3, 0x72be5d74, 0x80deb1fe, 0x9bdc06a7, 0xc19bf174,
    0xe49b69c1, 0xefbe4786, 0x0fc19dc6, 0x240ca1cc, 0x2de92c6f, 0x4a7484aa, 0x5cb0a9dc, 0x76f988da,
    0x983e5152, 0xa831c66d, 0xb00327c8, 0xbf597fc7, 0xc6e00bf3, 0xd5a79147, 0x06ca6351, 0x14292967,
    0x27b70a85, 0x2e1b2138, 0x4d2c6dfc, 0x53380d13, 0x650a7354, 0x766a0abb, 0x81c2c92e, 0x92722c85,
    0xa2bfe8a1, 0xa81a664b, 0xc24b8b70, 0xc76c51a3, 0xd192e819, 0xd6990624, 0xf40e3585, 0x106aa070,
    0x19a4c116, 0x1e376c08, 0x2748774c, 0x34b0bcb5, 0x391c0cb3, 0x4ed8aa4a, 0x5b9cca4f, 0x682e6ff3,
    0x748f82ee, 0x78a5636f, 0x84c87814, 0x8cc70208, 0x90befffa, 0xa4506ceb, 0xbef9a3f7, 0xc67178f2};

constexpr std::array<uint32_t, 8> kInitial = {0x6a09e667, 0xbb67ae85, 0x3c6ef372, 0xa54ff53a,
                                              0x510e527f, 0x9b05688c, 0x1f83d9ab, 0x5be0cd19};

inline uint32_t Rotr(uint32_t x, int n) { return (x >> n) | (x << (32 - n)); }

}  // namespace

Sha256::Sha256() : state_(kInitial) {}

void Sha256::Block(const uint8_t* p) {
  uint32_t w[64];
  for (int i = 0; i < 16; ++i) {
    w[i] = (uint32_t(p[4 * i]) << 24) | (uint32_t(p[4 * i + 1]) << 16) |
           (uint32_t(p[4 * i + 2]) << 8) | uint32_t(p[4 * i + 3]);
  }
  for (int i = 16; i < 64; ++i) {
    const uint32_t s0 = Rotr(w[i - 15], 7) ^ Rotr(w[i - 15], 18) ^ (w[i - 15] >> 3);
    const uint32_t s1 = Rotr(w[i - 2], 17) ^ Rotr(w[i - 2], 19) ^ (w[i - 2] >> 10);
    w[i] = w[i - 16] + s0 + w[i - 7] + s1;
  }
  uint32_t a = state_[0], b = state_[1], c = state_[2], d = state_[3];
  uint32_t e = state_[4], f = state_[5], g = state_[6], h = state_[7];
  for (int i = 0; i < 64; ++i) {
    const uint32_t s1 = Rotr(e, 6) ^ Rotr(e, 11) ^ Rotr(e, 25);
    const uint32_t ch = (e & f) ^ (~e & g);
    const uint32_t t1 = h + s1 + ch + kRound[size_t(i)] + w[i];
    const uint32_t s0 = Rotr(a, 2) ^ Rotr(a, 13) ^ Rotr(a, 22);
    const uint32_t maj = (a & b) ^ (a & c) ^ (b & c);
    const uint32_t t2 = s0 + maj;
    h = g;
    g = f;
    f = e;
    e = d + t1;
    d = c;
    c = b;
    b = a;
    a = t1 + t2;
  }
  state_[0] += a;
  state_[1] += b;
  state_[2] += c;
  state_[3] += d;
  state_[4] += e;
  state_[5] += f;
  state_[6] += g;
  state_[7] += h;
}

void Sha256::Update(const void* data, size_t size) {
  const auto* p = static_cast<const uint8_t*>(data);
  total_bytes_ += size;
  if (buffered_ > 0) {
    const size_t take = std::min(size, 64 - buffered_);
    std::memcpy(buffer_.data() + buffered_, p, take);
    buffered_ += take;
    p += take;
    size -= take;
    if (buffered_ < 64) return;
    Block(buffer_.data());
    buffered_ = 0;
  }
  while (size >= 64) {
    Block(p);
    p += 64;
    size -= 64;
  }
  if (size > 0) {
    std::memcpy(buffer_.data(), p, size);
    buffered_ = size;
  }
}

Sha256Digest Sha256::Final() {
  const uint64_t bits = total_bytes_ * 8;
  const uint8_t pad = 0x80;
  Update(&pad, 1);
  const uint8_t zero = 0;
  while (buffered_ != 56) Update(&zero, 1);
  uint8_t len[8];
  for (int i = 0; i < 8; ++i) len[i] = uint8_t(bits >> (56 - 8 * i));
  Update(len, 8);
  Sha256Digest out;
  for (int i = 0; i < 8; ++i) {
    out[size_t(4 * i)] = uint8_t(state_[size_t(i)] >> 24);
    out[size_t(4 * i + 1)] = uint8_t(state_[size_t(i)] >> 16);
    out[size_t(4 * i + 2)] = uint8_t(state_[size_t(i)] >> 8);
    out[size_t(4 * i + 3)] = uint8_t(state_[size_t(i)]);
  }
  return out;
}

Sha256Digest Sha256::Hash(std::string_view data) {
  Sha256 h;
  h.Update(data);
  return h.Final();
}

namespace {

// HMAC with the key's inner and outer pads hashed once, so that PBKDF2's many rounds only
// pay for the message blocks.
class HmacSha256Keyed {
 public:
  explicit HmacSha256Keyed(std::string_view key) {
    uint8_t k[64] = {};
    if (key.size() > 64) {
      const Sha256Digest d = Sha256::Hash(key);
      std::memcpy(k, d.data(), d.size());
    } else {
      std::memcpy(k, key.data(), key.size());
    }
    uint8_t ipad[64], opad[64];
    for (int i = 0; i < 64; ++i) {
      ipad[i] = k[i] ^ 0x36;
      opad[i] = k[i] ^ 0x5c;
    }
    inner_.Update(ipad, 64);
    outer_.Update(opad, 64);
  }

  Sha256Digest Mac(const void* data, size_t size) const {
    Sha256 inner = inner_;
    inner.Update(data, size);
    const Sha256Digest d = inner.Final();
    Sha256 outer = outer_;
    outer.Update(d.data(), d.size());
    return outer.Final();
  }

 private:
  Sha256 inner_;
  Sha256 outer_;
};

}  // namespace

Sha256Digest HmacSha256(std::string_view key, std::string_view message) {
  return HmacSha256Keyed(key).Mac(message.data(), message.size());
}

std::string Pbkdf2HmacSha256(std::string_view password, std::string_view salt, uint32_t iterations,
                             size_t out_size) {
  const HmacSha256Keyed prf(password);
  std::string out;
  out.reserve(out_size);
  std::string first(salt);
  for (uint32_t block = 1; out.size() < out_size; ++block) {
    first.resize(salt.size());
    first.push_back(char(block >> 24));
    first.push_back(char(block >> 16));
    first.push_back(char(block >> 8));
    first.push_back(char(block));
    Sha256Digest u = prf.Mac(first.data(), first.size());
    Sha256Digest t = u;
    for (uint32_t i = 1; i < iterations; ++i) {
      u = prf.Mac(u.data(), u.size());
      for (size_t j = 0; j < t.size(); ++j) t[j] ^= u[j];
    }
    const size_t take = std::min(t.size(), out_size - out.size());
    out.append(reinterpret_cast<const char*>(t.data()), take);
  }
  return out;
}

std::string HexEncode(std::string_view bytes) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string out;
  out.reserve(bytes.size() * 2);
  for (unsigned char c : bytes) {
    out.push_back(kDigits[c >> 4]);
    out.push_back(kDigits[c & 15]);
  }
  return out;
}

bool HexDecode(std::string_view hex, std::string& out) {
  if (hex.size() % 2 != 0) return false;
  auto value = [](char c) -> int {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
  };
  out.clear();
  for (size_t i = 0; i < hex.size(); i += 2) {
    const int hi = value(hex[i]), lo = value(hex[i + 1]);
    if (hi < 0 || lo < 0) return false;
    out.push_back(char(hi * 16 + lo));
  }
  return true;
}

bool ConstantTimeEquals(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  unsigned char diff = 0;
  for (size_t i = 0; i < a.size(); ++i) diff |= uint8_t(a[i]) ^ uint8_t(b[i]);
  return diff == 0;
}

}  // namespace qx
