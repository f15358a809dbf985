#pragma once
#include <sys/types.h>

#include <optional>
#include <string>
#include <string_view>

namespace gab {

// Reads a whole file; nothing when it cannot be opened or read.
std::optional<std::string> ReadWholeFile(const std::string& path);

// Replaces a file whole: a temporary file in the same folder, fsync, rename.
// A reader sees the old or the new contents, never a mix.
bool WriteFileAtomically(const std::string& path, std::string_view bytes, mode_t mode = 0644,
                         std::string* error = nullptr);

bool FileExists(const std::string& path);

}  // namespace gab
