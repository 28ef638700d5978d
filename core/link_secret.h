// The secret that keeps the link between qxfront and qxcluster private.  Anyone on the
// machine can connect to the link port, so the two programs prove to each other, at every
// link-up, that they know a secret kept in the program directory, and a process that cannot
// read the file can neither take the node's place nor pose as the front-end.
//
// The file is "link.key" in the program directory: 64 hex digits (32 random bytes) and a line
// end, mode 0600.  Whichever program starts first creates it; the other reads it.
#pragma once

#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

namespace qx {

inline constexpr std::string_view kLinkSecretFile = "link.key";
// Nonces are 16 random bytes as 32 hex digits; proofs are HMAC-SHA256 in lowercase hex.
inline constexpr size_t kLinkNonceDigits = 32;
inline constexpr size_t kLinkProofDigits = 64;

struct LinkSecret {
  std::string key;                 // the 32 secret bytes; empty when none is usable
  std::vector<std::string> notes;  // what was done (created, made private), for the log
  std::string error;               // why there is no usable secret
  bool usable() const { return !key.empty(); }
};

// Reads DIR/link.key, creating it when it is missing.  The file is created exclusively and
// never through a symbolic link, so two programs starting at once end with one secret: the
// one that loses the race reads what the other wrote.  A file that group or others may read
// is made 0600 (noted).  A file that is not 64 hex digits, or that cannot be made private,
// gives no secret (error says why).
LinkSecret LoadOrCreateLinkSecret(const std::filesystem::path& dir);

// A fresh nonce (32 lowercase hex digits); empty when no random bytes could be had.
std::string MakeLinkNonce();
// True for a nonce as the other side may send it: 32 to 64 hex digits.
bool ValidLinkNonce(std::string_view nonce);

// The node's proof: HMAC-SHA256(secret, "node|" + fe_nonce + "|" + node_nonce).
std::string NodeLinkProof(std::string_view key, std::string_view fe_nonce,
                          std::string_view node_nonce);
// The front-end's proof: HMAC-SHA256(secret, "front|" + node_nonce + "|" + fe_nonce).  The
// label and the order differ from the node's, so neither proof can be replayed as the other.
std::string FrontLinkProof(std::string_view key, std::string_view node_nonce,
                           std::string_view fe_nonce);

}  // namespace qx
