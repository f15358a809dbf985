#pragma once
// Finds the transcripts under a folder: every regular file, at any depth,
// whose extension is "chat" or "ichat" (exact, as the loader compares it).

#include <cstdint>
#include <string>
#include <vector>

namespace gab {

struct FoundTranscript {
  std::string relativePath;  // below the scanned folder, "/"-separated
  int64_t size = 0;
  int64_t mtimeNs = 0;
};

// Sorted by relative path.  Symbolic links are not followed (a link could
// lead out of the folder or into a loop); unreadable subfolders are skipped.
// `miscased`, when given, receives the relative paths of regular files whose
// extension differs from a transcript's only in case ("CHAT"), which iChat
// never wrote and the loader does not take, sorted.
std::vector<FoundTranscript> FindTranscripts(const std::string& folder,
                                             std::vector<std::string>* miscased = nullptr);

bool HasTranscriptExtension(std::string_view name);

}  // namespace gab
