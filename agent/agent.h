#pragma once
#include <functional>

namespace gab {

class FolderEventSource;

// How long one companion parser run may take, in one-second cycles.
inline constexpr int kParserTimeLimit = 180;

// The pid file ~/Library/Gabfolio/pidfile: written at start, removed at the
// end and by the termination signals.
void RecordPID();
void ClearPID();

// SIGTERM and SIGQUIT remove the pid file and end the process with status 0.
void PrepareSignals();
[[noreturn]] void HandleSignal(int signal);

// The watch of ~/Documents/iChats; returns only when it cannot be set up or
// keepRunning is cleared.
void RunLogFolderQueue();

// One processing pass: the companion parser once per entry of the
// transcript folder, then the links page and the image gallery.
void ExtractChatLogs();

namespace internal {

// The pass with a parser time limit of `cycleLimit` one-second cycles.
void ExtractChatLogs(int cycleLimit);

// The watch loop over an event source whose records name `folderFd`; `pass`
// runs for every accepted change.
void WatchLoop(FolderEventSource& source, int folderFd, const std::function<void()>& pass);

// The three points at which a pass consults the error state.
enum class GatePoint { kStart, kEntry, kFinish };
// Applies the error gate at `point` (the preferences are synchronised
// first).  False: the pass stops here (at kEntry: take no more entries; at
// kFinish: the finishing line is not logged).
bool ApplyErrorGate(GatePoint point);

// The pid file path built by RecordPID ("" before).
const char* PidFilePath();

}  // namespace internal
}  // namespace gab
