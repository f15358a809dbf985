#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>

#include "agent/agent.h"
#include "platform/home.h"
#include "transcript/process_flags.h"

namespace gab {
namespace {

// Built before the handlers are installed, so that the signal handler needs
// nothing but these buffers.
char pidPath[4096];
char missingLine[4096 + 64];
size_t missingLineLength = 0;

void BuildPidPath() {
  if (pidPath[0]) return;
  std::string path = DataFolder() + "/pidfile";
  if (path.size() >= sizeof pidPath) return;  // left empty: nothing is written or removed
  std::memcpy(pidPath, path.c_str(), path.size() + 1);
  int n =
      std::snprintf(missingLine, sizeof missingLine, "pidfile at %s does not exist!\n", pidPath);
  missingLineLength = n > 0 ? size_t(n) : 0;
}

void WriteAll(int fd, const char* data, size_t size) {
  while (size > 0) {
    ssize_t n = ::write(fd, data, size);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return;
    data += n;
    size -= size_t(n);
  }
}

}  // namespace

namespace internal {
const char* PidFilePath() {
  return pidPath;
}
}  // namespace internal

void RecordPID() {
  BuildPidPath();
  if (!pidPath[0]) {
    std::printf("The path of the pidfile is too long; no pidfile written.\n");
    return;
  }
  char text[32];
  int n = std::snprintf(text, sizeof text, "%d", int(getpid()));
  // O_NOFOLLOW: a link planted in the data folder cannot redirect the write.
  int fd = ::open(pidPath, O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0644);
  if (fd < 0) {
    int err = errno;
    struct stat st {};
    if (::stat(DataFolder().c_str(), &st) != 0)
      std::printf("The data folder %s does not exist; no pidfile written.\n", DataFolder().c_str());
    else
      std::printf("Unable to write pidfile at %s: %s\n", pidPath, std::strerror(err));
    return;
  }
  WriteAll(fd, text, size_t(n));
  ::close(fd);
}

void ClearPID() {
  BuildPidPath();
  struct stat st {};
  if (pidPath[0] && ::lstat(pidPath, &st) == 0)
    ::unlink(pidPath);
  else
    std::printf("pidfile at %s does not exist!\n", pidPath);
}

// Async-signal-safe: only unlink, write and _exit.  A running companion
// parser is left alone.
void HandleSignal(int) {
  keepRunning = 0;
  if (pidPath[0] && ::unlink(pidPath) != 0 && errno == ENOENT) {
    WriteAll(STDOUT_FILENO, missingLine, missingLineLength);
  }
  _exit(0);
}

void PrepareSignals() {
  BuildPidPath();
  struct sigaction sa {};
  sa.sa_handler = HandleSignal;
  sigemptyset(&sa.sa_mask);
  sigaddset(&sa.sa_mask, SIGTERM);
  sigaddset(&sa.sa_mask, SIGQUIT);
  sa.sa_flags = 0;
  sigaction(SIGTERM, &sa, nullptr);
  sigaction(SIGQUIT, &sa, nullptr);
}

}  // namespace gab
