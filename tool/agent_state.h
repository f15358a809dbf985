#pragma once
// Whether the agent runs, from its pid file in the data folder.
#include <string>

namespace gab::tool {

struct AgentState {
  bool running = false;
  std::string description;  // "running (pid 12)", "not running (stale pidfile, pid 12)", ...
};

AgentState ReadAgentState();

}  // namespace gab::tool
