#include "platform/transcript_files.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>

namespace gab {
namespace {

constexpr int kMaxDepth = 32;

bool HasMiscasedExtension(std::string_view name) {
  auto dot = name.rfind('.');
  if (dot == std::string_view::npos || dot == 0 || HasTranscriptExtension(name)) return false;
  std::string ext(name.substr(dot + 1));
  for (char& c : ext) c = char(std::tolower(static_cast<unsigned char>(c)));
  return ext == "chat" || ext == "ichat";
}

void Walk(int dirfd, const std::string& prefix, int depth, std::vector<FoundTranscript>& out,
          std::vector<std::string>* miscased) {
  DIR* dir = fdopendir(dirfd);
  if (!dir) {
    ::close(dirfd);
    return;
  }
  while (dirent* ent = readdir(dir)) {
    std::string_view name = ent->d_name;
    if (name == "." || name == "..") continue;
    struct stat st {};
    if (fstatat(dirfd, ent->d_name, &st, AT_SYMLINK_NOFOLLOW) != 0) continue;
    std::string rel = prefix.empty() ? std::string(name) : prefix + "/" + std::string(name);
    if (S_ISDIR(st.st_mode)) {
      if (depth >= kMaxDepth) continue;
      int sub = openat(dirfd, ent->d_name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
      if (sub >= 0) Walk(sub, rel, depth + 1, out, miscased);
    } else if (S_ISREG(st.st_mode) && HasTranscriptExtension(name)) {
      out.push_back({std::move(rel), int64_t(st.st_size),
                     int64_t(st.st_mtim.tv_sec) * 1000000000 + st.st_mtim.tv_nsec});
    } else if (miscased && S_ISREG(st.st_mode) && HasMiscasedExtension(name)) {
      miscased->push_back(std::move(rel));
    }
  }
  closedir(dir);  // closes dirfd too
}

}  // namespace

bool HasTranscriptExtension(std::string_view name) {
  auto dot = name.rfind('.');
  if (dot == std::string_view::npos || dot == 0) return false;
  auto ext = name.substr(dot + 1);
  return ext == "chat" || ext == "ichat";
}

std::vector<FoundTranscript> FindTranscripts(const std::string& folder,
                                             std::vector<std::string>* miscased) {
  std::vector<FoundTranscript> out;
  int fd = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd >= 0) Walk(fd, "", 0, out, miscased);
  if (miscased) std::sort(miscased->begin(), miscased->end());
  std::sort(out.begin(), out.end(),
            [](const auto& a, const auto& b) { return a.relativePath < b.relativePath; });
  return out;
}

}  // namespace gab
