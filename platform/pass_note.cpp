#include "platform/pass_note.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <vector>

namespace gab {
namespace {

constexpr char kNothingToDo[] = "nothing to do\n";

// The note the environment names, opened without following links and only
// when it is a regular file of ours: never one the parser creates.
int OpenNote(int flags) {
  const char* path = std::getenv(kPassNoteVariable);
  if (!path || !*path) return -1;
  int fd = ::open(path, flags | O_NOFOLLOW | O_CLOEXEC);
  struct stat st {};
  if (fd >= 0 && (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode) || st.st_uid != geteuid())) {
    ::close(fd);
    return -1;
  }
  return fd;
}

}  // namespace

PassNote::PassNote() {
  const char* tmp = std::getenv("TMPDIR");
  std::string tmpl = std::string(tmp && *tmp ? tmp : "/tmp") + "/gabfolio-pass-XXXXXX";
  std::vector<char> name(tmpl.begin(), tmpl.end());
  name.push_back('\0');
  int fd = mkostemp(name.data(), O_CLOEXEC);
  if (fd < 0) return;
  ::close(fd);
  path_ = name.data();
  entry_ = std::string(kPassNoteVariable) + "=" + path_;
}

PassNote::~PassNote() {
  if (!path_.empty()) ::unlink(path_.c_str());
}

bool PassFoundNothingToDo() {
  int fd = OpenNote(O_RDONLY);
  if (fd < 0) return false;
  char buf[sizeof kNothingToDo] = {};
  ssize_t n = ::read(fd, buf, sizeof buf - 1);
  ::close(fd);
  return n == ssize_t(sizeof kNothingToDo - 1) && std::string_view(buf) == kNothingToDo;
}

void NotePassFoundNothingToDo() {
  int fd = OpenNote(O_WRONLY | O_TRUNC);
  if (fd < 0) return;
  [[maybe_unused]] ssize_t n = ::write(fd, kNothingToDo, sizeof kNothingToDo - 1);
  ::close(fd);
}

}  // namespace gab
