// Reading a zip archive held in memory (libarchive): every regular member, by the last
// segment of its name, with a bound on what is unpacked in all, so that an archive that
// expands to gigabytes costs nothing but an error.  Pure: no files are written here.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace qx {

struct ArchiveMember {
  std::string name;  // the last segment of the member's path; always a SafeFileName
  std::string data;
};

struct UnpackResult {
  std::vector<ArchiveMember> members;
  std::vector<std::string> skipped;  // members left out, with why
  std::string error;                 // not empty: the archive could not be read
};

// A zip archive starts with a local file header ("PK" 3 4) or, when empty, the end record.
bool LooksLikeZip(std::string_view data);

UnpackResult UnpackZip(std::string_view data, size_t max_total_bytes);

}  // namespace qx
