#include "tool/agent_state.h"

#include <signal.h>

#include <cerrno>
#include <cstdlib>

#include "platform/files.h"
#include "platform/home.h"

namespace gab::tool {

// The process named in the pid file, when it is alive and is the agent.
AgentState ReadAgentState() {
  std::string pidPath = DataFolder() + "/pidfile";
  auto text = ReadWholeFile(pidPath);
  if (!text) return {false, "not running"};
  char* end = nullptr;
  long pid = std::strtol(text->c_str(), &end, 10);
  if (text->empty() || *end || pid <= 0 || pid > 0x3fffffff)
    return {false, "not running (unreadable pidfile " + pidPath + ")"};
  bool alive = ::kill(pid_t(pid), 0) == 0 || errno == EPERM;
  if (alive) {
    // A recycled pid belongs to some other program.
    auto comm = ReadWholeFile("/proc/" + std::to_string(pid) + "/comm");
    if (comm && comm->rfind("gabfolio-agent", 0) != 0) alive = false;
  }
  if (alive) return {true, "running (pid " + std::to_string(pid) + ")"};
  return {false, "not running (stale pidfile, pid " + std::to_string(pid) + ")"};
}

}  // namespace gab::tool
