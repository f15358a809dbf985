#include "platform/folder_watch.h"

#include <poll.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <cerrno>
#include <climits>

namespace gab {
namespace {

constexpr uint32_t kMask = IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO | IN_ONLYDIR;

uint32_t NoteFor(uint32_t mask) {
  if (mask & (IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO | IN_Q_OVERFLOW))
    return kNoteWrite;
  return 0;
}

int TimeoutMillis(const timespec& t) {
  long long ms = (long long)t.tv_sec * 1000 + (t.tv_nsec + 999'999) / 1'000'000;
  if (ms < 0) return 0;
  return ms > INT_MAX ? INT_MAX : int(ms);
}

}  // namespace

std::unique_ptr<InotifyFolderSource> InotifyFolderSource::Create(int folderFd,
                                                                 std::string folderPath) {
  int fd = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
  if (fd < 0) return nullptr;
  return std::unique_ptr<InotifyFolderSource>(
      new InotifyFolderSource(fd, folderFd, std::move(folderPath)));
}

InotifyFolderSource::InotifyFolderSource(int inotifyFd, int folderFd, std::string folderPath)
    : inotify_(inotifyFd), folder_(folderFd), path_(std::move(folderPath)) {}

InotifyFolderSource::~InotifyFolderSource() {
  ::close(inotify_);
}

// Watches the very folder that was opened, through its descriptor, so that a
// folder renamed or replaced meanwhile cannot swap in another one.
bool InotifyFolderSource::Register() {
  std::string viaFd = "/proc/self/fd/" + std::to_string(folder_);
  if (inotify_add_watch(inotify_, viaFd.c_str(), kMask) >= 0) return true;
  if (errno == ENOENT && inotify_add_watch(inotify_, path_.c_str(), kMask) >= 0) return true;
  return false;
}

int InotifyFolderSource::Wait(const KEvent& change, KEvent* event, const timespec& timeout) {
  if (!registered_ && registerError_ == 0) {
    if (Register())
      registered_ = true;
    else
      registerError_ = errno ? errno : EINVAL;
  }
  if (registerError_ != 0) {
    // The error is one event; every later cycle waits its time out with no
    // new event (the caller still holds the error record), so a watch that
    // cannot register costs one log line a second, not a busy loop.
    if (!errorDelivered_) {
      errorDelivered_ = true;
      *event = KEvent{change.ident, change.filter, kEvError, 0, registerError_, change.udata};
      return 1;
    }
    ::poll(nullptr, 0, TimeoutMillis(timeout));
    return 0;
  }

  pollfd p{inotify_, POLLIN, 0};
  int n = ::poll(&p, 1, TimeoutMillis(timeout));
  if (n < 0) return -1;
  if (n == 0) return 0;

  // Drain everything queued: a burst of changes is one record, as EV_CLEAR
  // collapses them on the Mac.
  uint32_t fflags = 0;
  bool any = false;
  alignas(inotify_event) char buf[16 * (sizeof(inotify_event) + NAME_MAX + 1)];
  for (;;) {
    ssize_t len = ::read(inotify_, buf, sizeof buf);
    if (len < 0 && errno == EINTR) continue;
    if (len <= 0) break;
    any = true;
    for (ssize_t off = 0; off + ssize_t(sizeof(inotify_event)) <= len;) {
      auto* e = reinterpret_cast<const inotify_event*>(buf + off);
      fflags |= NoteFor(e->mask);
      off += ssize_t(sizeof(inotify_event) + e->len);
    }
  }
  if (!any) return 0;
  *event = KEvent{change.ident, kEvFiltVnode, uint16_t(kEvAdd | kEvClear), fflags, 0, change.udata};
  return 1;
}

}  // namespace gab
