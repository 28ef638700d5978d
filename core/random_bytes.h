// Random bytes from the kernel, for salts, session identifiers, link nonces and the link
// secret.  Never a seeded generator: everything drawn here must be unguessable.
#pragma once

#include <cstddef>
#include <string>

namespace qx {

// n bytes from getrandom() (or /dev/urandom where that is missing); empty when neither works.
std::string RandomBytes(size_t n);
// n random bytes as 2n lowercase hex digits; empty when no random bytes could be had.
std::string RandomHex(size_t n);

}  // namespace qx
