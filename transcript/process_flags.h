#pragma once
#include <csignal>

namespace gab {

// Process-wide flags shared by the agent, the parser and the library.
extern volatile sig_atomic_t keepRunning;  // cleared by the termination signal handler
extern bool debugMode;                     // the agent runs one pass and stops
extern bool iChatRunning;                  // set by the parser: the chat client has a window
extern bool diagnosticLogging;             // extra log lines ("preparing to email ...")

}  // namespace gab
