#pragma once
#include <sys/types.h>

#include <optional>
#include <string>
#include <string_view>

namespace gab {

// Reads a whole file; nothing when it cannot be opened or read.
std::optional<std::string> ReadWholeFile(const std::string& path);

// Reads a regular file (following links) of at most `limit` bytes; anything
// else (a FIFO, a device, a folder, a larger file) is not read, and `err`
// says why.  Never blocks on a FIFO.
std::optional<std::string> ReadRegularFile(const std::string& path, size_t limit, std::string* err);
// The size limit for files read whole from untrusted places: far above any
// real transcript, and at most a quarter of the memory.
size_t UntrustedFileLimit();

// Replaces a file whole: a temporary file in the same folder, fsync, rename.
// A reader sees the old or the new contents, never a mix.  A path that names
// a device, FIFO or socket is refused, never replaced.
bool WriteFileAtomically(const std::string& path, std::string_view bytes, mode_t mode = 0644,
                         std::string* error = nullptr);

// Writes a command's output file named by the user: a device or FIFO there
// (/dev/null, /dev/stdout, a pipe) is written into, anything else replaced
// atomically.
bool WriteOutputFile(const std::string& path, std::string_view bytes, std::string* error = nullptr);

bool FileExists(const std::string& path);

}  // namespace gab
