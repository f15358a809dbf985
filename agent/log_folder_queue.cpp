#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "agent/agent.h"
#include "platform/folder_watch.h"
#include "platform/home.h"
#include "platform/preferences.h"
#include "transcript/process_flags.h"

namespace gab {

namespace internal {

void WatchLoop(FolderEventSource& source, int folderFd, const std::function<void()>& pass) {
  KEvent change;
  change.ident = uintptr_t(folderFd);
  change.filter = kEvFiltVnode;
  change.flags = kEvAdd | kEvClear;
  change.fflags = kNoteWrite | kNoteExtend;
  // Not cleared between calls: a cycle without an event still sees the last
  // record received.
  KEvent event;
  const timespec timeout{1, 0};
  while (keepRunning) {
    int n = source.Wait(change, &event, timeout);
    int err = errno;
    Preferences::Shared().AppSynchronize();
    if (n == -1) {
      if (err == EINTR)
        std::puts("Signal interruption- shutting down service.");
      else
        std::printf("An error occurred: %d\n", err);
    }
    if (event.flags == kEvError) {
      std::printf("Event error:%d\n", int(event.data));
      continue;
    }
    // Exact comparisons: a record carrying both bits starts no pass.
    if (n == 1 && (event.fflags == kNoteExtend || event.fflags == kNoteWrite)) pass();
  }
}

}  // namespace internal

void RunLogFolderQueue() {
  std::string folder = TranscriptFolder();
  int fd = ::open(folder.c_str(), O_RDONLY | O_CLOEXEC, 0);
  if (fd == -1) {
    std::puts("Unable to attach to log folder.");
    return;
  }
  auto source = InotifyFolderSource::Create(fd, folder);
  if (!source) {
    std::puts("Unable to initialize kqueue.");
    return;
  }
  internal::WatchLoop(*source, fd, [] { ExtractChatLogs(); });
}

}  // namespace gab
