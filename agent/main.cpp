#include <cstdio>
#include <cstring>

#include "agent/agent.h"
#include "delivery/welcome_email.h"
#include "platform/preferences.h"
#include "transcript/process_flags.h"

// gabfolio-agent [-debug]: watches ~/Documents/iChats and runs the companion
// parser on every change; with the single argument -debug it runs one pass.
int main(int argc, char** argv) {
  using namespace gab;
  // Asked before anything starts: neither answer may start a watch.
  if (argc == 2 && (!std::strcmp(argv[1], "--version") || !std::strcmp(argv[1], "-V"))) {
    std::printf("gabfolio-agent %s\n", GABFOLIO_VERSION);
    return 0;
  }
  if (argc == 2 && (!std::strcmp(argv[1], "--help") || !std::strcmp(argv[1], "-h"))) {
    std::printf(
        "usage: gabfolio-agent [-debug]\n\n"
        "Watches ~/Documents/iChats and runs gabfolio-parser on every change; with\n"
        "-debug it runs one pass and stops.  'gabfolio service install' runs it as a\n"
        "systemd user service.\n");
    return 0;
  }
  // Lines on standard output reach a pipe or the journal as they happen.
  std::setvbuf(stdout, nullptr, _IOLBF, 0);

  keepRunning = 1;
  debugMode = false;

  RecordPID();
  PrepareSignals();

  auto& prefs = Preferences::Shared();
  if (!prefs.Bool("sentWelcomeEmail")) {
    SendWelcomingEmail();
    // Stored whatever the welcome step did: it is never tried twice.
    prefs.SetAppValue("sentWelcomeEmail", PrefValue(true));
    prefs.AppSynchronize();
  }

  if (argc == 2 && std::strcmp(argv[1], "-debug") == 0) debugMode = true;

  if (debugMode)
    ExtractChatLogs();
  else
    RunLogFolderQueue();

  ClearPID();
  std::puts("exited");
  return 0;
}
