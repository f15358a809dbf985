#include "transcript/process_flags.h"

namespace gab {

volatile sig_atomic_t keepRunning = 1;
bool debugMode = false;
bool iChatRunning = false;
bool diagnosticLogging = false;

}  // namespace gab
