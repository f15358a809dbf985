#include "platform/home.h"

#include <pwd.h>
#include <unistd.h>

#include <cstdlib>
#include <vector>

namespace gab {

std::string HomeDirectory() {
  if (const char* home = std::getenv("HOME")) return home;
  long size = sysconf(_SC_GETPW_R_SIZE_MAX);
  std::vector<char> buf(size > 0 ? size_t(size) : 16384);
  passwd pw{};
  passwd* result = nullptr;
  if (getpwuid_r(getuid(), &pw, buf.data(), buf.size(), &result) == 0 && result && pw.pw_dir)
    return pw.pw_dir;
  return "/";
}

std::string DataFolder() {
  return HomeDirectory() + "/Library/Gabfolio";
}

std::string TranscriptFolder() {
  return HomeDirectory() + "/Documents/iChats";
}

}  // namespace gab
