// File helpers shared by everything that keeps state under data/.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

namespace qx {

// Whether AtomicWriteFile waits for the disk.  kNone still never leaves half a file after the
// program stops or crashes, only after the machine loses power; it is for state written very
// often that is worth little after a power cut (a message being typed).
enum class FileSync { kToDisk, kNone };

// Writes text to path so that a crash mid-write never leaves a half-written file: the text
// goes to a temporary file beside it, is flushed to disk, and is renamed over the target.
bool AtomicWriteFile(const std::filesystem::path& path, std::string_view text,
                     FileSync sync = FileSync::kToDisk);

// The whole file, or nothing when it cannot be read.
std::optional<std::string> ReadFileText(const std::filesystem::path& path);

// Appends text as it stands (the caller supplies line ends); creates the file when missing.
bool AppendToFile(const std::filesystem::path& path, std::string_view text);

}  // namespace qx
