#include "parser/run_lock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <thread>

namespace gab::parser {

RunLock::~RunLock() {
  Release();
}

bool RunLock::Acquire(const std::string& lockPath, double waitSeconds, std::string* error) {
  Release();
  int fd = ::open(lockPath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  if (fd < 0) {
    if (error) *error = "cannot open " + lockPath + ": " + std::strerror(errno);
    return false;
  }
  auto deadline =
      std::chrono::steady_clock::now() + std::chrono::milliseconds(int64_t(waitSeconds * 1000));
  for (;;) {
    if (::flock(fd, LOCK_EX | LOCK_NB) == 0) {
      fd_ = fd;
      return true;
    }
    if (errno != EWOULDBLOCK && errno != EINTR) break;
    if (std::chrono::steady_clock::now() >= deadline) break;
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  ::close(fd);
  return false;
}

void RunLock::Release() {
  if (fd_ < 0) return;
  ::close(fd_);  // closing drops the flock
  fd_ = -1;
}

}  // namespace gab::parser
