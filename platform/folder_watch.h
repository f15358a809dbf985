#pragma once
#include <cstdint>
#include <ctime>
#include <memory>
#include <string>

namespace gab {

// The change and event records of a BSD kernel event queue, kept so that the
// watch loop reads as it was designed around kevent.
struct KEvent {
  uintptr_t ident = 0;
  int16_t filter = 0;
  uint16_t flags = 0;
  uint32_t fflags = 0;
  intptr_t data = 0;
  void* udata = nullptr;
};

inline constexpr int16_t kEvFiltVnode = -4;
inline constexpr uint16_t kEvAdd = 0x1;
inline constexpr uint16_t kEvClear = 0x20;
inline constexpr uint16_t kEvError = 0x4000;
inline constexpr uint32_t kNoteWrite = 0x2;
inline constexpr uint32_t kNoteExtend = 0x4;

// A queue of folder events with the shape of kevent(2): each call submits
// the change record, waits up to `timeout` and fills `event` with at most one
// record.  Returns 1 when a record was delivered, 0 on time-out, -1 with errno
// set on failure.  `event` is left as it was unless a record is delivered.
class FolderEventSource {
 public:
  virtual ~FolderEventSource() = default;
  virtual int Wait(const KEvent& change, KEvent* event, const timespec& timeout) = 0;
};

// The Linux queue: inotify on the folder itself (not its subfolders).  A
// change of the folder's entries (created, deleted, renamed in or out) and a
// queue overflow are reported as NOTE_WRITE, as the Mac reports them for a
// folder; writes into a file inside the folder are not folder changes.  If the
// watch cannot be registered, every call delivers an EV_ERROR record with the
// errno in its data.
class InotifyFolderSource : public FolderEventSource {
 public:
  // The queue for the folder opened as `folderFd` at `folderPath`; null when
  // no inotify instance can be created (errno set).
  static std::unique_ptr<InotifyFolderSource> Create(int folderFd, std::string folderPath);
  ~InotifyFolderSource() override;
  int Wait(const KEvent& change, KEvent* event, const timespec& timeout) override;

 private:
  InotifyFolderSource(int inotifyFd, int folderFd, std::string folderPath);
  bool Register();
  int inotify_;
  int folder_;
  std::string path_;
  bool registered_ = false;
  int registerError_ = 0;
  bool errorDelivered_ = false;
};

}  // namespace gab
