#include <poll.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "agent/agent.h"
#include "library/log_generator.h"
#include "platform/home.h"
#include "platform/log.h"
#include "platform/pass_note.h"
#include "platform/preferences.h"
#include "platform/report_error.h"
#include "transcript/chat_log.h"
#include "transcript/process_flags.h"

namespace gab {
namespace {

// The "error chances" are used up when emailFails is above this.
constexpr int kErrorChances = 2;

int PidfdOpen(pid_t pid) {
  return int(::syscall(SYS_pidfd_open, pid, 0));
}

int PidfdSendSignal(int pidfd, int signal) {
  return int(::syscall(SYS_pidfd_send_signal, pidfd, signal, nullptr, 0));
}

// One second of waiting, cut short when the child exits.
void WaitOneCycle(int pidfd) {
  if (pidfd < 0) {
    ::sleep(1);
    return;
  }
  pollfd p{pidfd, POLLIN, 0};
  ::poll(&p, 1, 1000);
}

void StoreErrorStatusZero(Preferences& prefs) {
  prefs.SetAppValue("errorStatus", PrefValue(int64_t(0)));
  prefs.AppSynchronize();
}

// Runs the parser once, as its own only argument, in the environment `env`,
// and waits for it at most `cycleLimit` cycles.  A parser that cannot be
// started counts as one that ended at once.
void RunParser(const std::optional<std::string>& parserPath, char* const* env, int cycleLimit) {
  if (!parserPath) return;
  std::fflush(nullptr);
  // posix_spawn starts the child without copying the agent's address space
  // (a fork per folder entry was most of a pass); the child takes the
  // default action for the termination signals, not the agent's handler.
  posix_spawnattr_t attr;
  posix_spawnattr_init(&attr);
  sigset_t defaults;
  sigemptyset(&defaults);
  sigaddset(&defaults, SIGTERM);
  sigaddset(&defaults, SIGQUIT);
  posix_spawnattr_setsigdefault(&attr, &defaults);
  posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETSIGDEF);
  char* const argv[] = {const_cast<char*>(parserPath->c_str()), nullptr};
  pid_t pid = -1;
  int rc = posix_spawn(&pid, argv[0], nullptr, &attr, argv, env);
  posix_spawnattr_destroy(&attr);
  if (rc != 0) {
    // A missing or unrunnable parser says nothing; only a failed start of
    // any process is worth a line.
    if (rc == EAGAIN || rc == ENOMEM)
      NSLog(std::string("Unable to start the log parser: ") + std::strerror(rc));
    return;
  }

  // A pidfd lets each cycle end as soon as the parser exits, and a signal
  // sent through it can never reach a recycled process id.
  int pidfd = PidfdOpen(pid);
  errno = 0;
  int status = 0;
  pid_t result = ::waitpid(pid, &status, WNOHANG);
  int cycles = 0;
  while (result == 0) {
    result = ::waitpid(pid, &status, WNOHANG);
    if (cycles == cycleLimit) {
      if (pidfd >= 0)
        PidfdSendSignal(pidfd, SIGKILL);
      else if (result == 0)
        ::kill(pid, SIGKILL);
      NSLog("Log processing timed out after " + std::to_string(cycleLimit) + " seconds.");
      reportError(ErrorCode::kInternal, u"timeout");
      // Collect the killed child if it is gone already, so no zombie lingers.
      if (result == 0) {
        WaitOneCycle(pidfd);
        ::waitpid(pid, &status, WNOHANG);
      }
      break;
    }
    ++cycles;
    if (result == 0) WaitOneCycle(pidfd);
  }
  if (pidfd >= 0) ::close(pidfd);
}

}  // namespace

namespace internal {

bool ApplyErrorGate(GatePoint point) {
  auto& prefs = Preferences::Shared();
  prefs.AppSynchronize();
  int32_t errorStatus = prefs.Int("errorStatus");
  int32_t emailFails = prefs.Int("emailFails");
  bool chancesUsedUp = emailFails > kErrorChances;
  if (errorStatus == static_cast<int32_t>(ErrorCode::kInternal)) {
    if (chancesUsedUp) return false;
    StoreErrorStatusZero(prefs);
    return true;
  }
  if (point == GatePoint::kFinish) return prefs.Int("errorStatus") == 0;
  if (!chancesUsedUp) {
    NSLog("error chances remain, reset code");
    StoreErrorStatusZero(prefs);
  }
  return true;
}

void ExtractChatLogs(int cycleLimit) {
  namespace fs = std::filesystem;
  auto& prefs = Preferences::Shared();
  fs::path folder = fs::path(HomeDirectory()) / "Documents/iChats";

  if (!ApplyErrorGate(GatePoint::kStart)) return;
  NSLog("*****START***** Activity in log folder, scanning...");
  std::optional<std::string> parserPath = prefs.String("parserPath");
  // The parser's environment: ours, and the note its runs of this pass share
  // (made before any fork, as a child may only exec).
  PassNote note;
  std::vector<char*> env;
  for (char** e = environ; *e; ++e)
    if (std::strncmp(*e, kPassNoteVariable, std::strlen(kPassNoteVariable)) != 0 ||
        (*e)[std::strlen(kPassNoteVariable)] != '=')
      env.push_back(*e);
  std::string entry = note.environmentEntry();
  if (!entry.empty()) env.push_back(entry.data());
  env.push_back(nullptr);

  // Every entry counts, folders and the contents of subfolders included;
  // linked folders are not followed.
  std::error_code ec;
  fs::recursive_directory_iterator it(folder, fs::directory_options::skip_permission_denied, ec);
  for (; !ec && it != fs::recursive_directory_iterator(); it.increment(ec)) {
    if (!ApplyErrorGate(GatePoint::kEntry)) break;
    prefs.CopyAppValue("emailAddress");
    RunParser(parserPath, env.data(), cycleLimit);
    if (!keepRunning) return;
  }

  GenerateLinkFiles(nullptr);
  GenerateImageFiles(nullptr);

  if (!ApplyErrorGate(GatePoint::kFinish)) return;
  NSLog("*****FINISH***** All logs scanned.");
}

}  // namespace internal

void ExtractChatLogs() {
  internal::ExtractChatLogs(kParserTimeLimit);
}

}  // namespace gab
