#pragma once
// Runs the built `gabfolio` tool as a child process and collects its exit
// status and output.

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

extern char** environ;

namespace gab::testing {

struct ToolRun {
  int status = -1;  // exit status; -1 when it did not exit normally
  std::string out, err;
};

inline std::string ToolPath() {
  return GABFOLIO_BINARY_DIR "/tool/gabfolio";
}

// Starts `gabfolio ARGS` with stdout (and, when given, stderr) on the write
// ends of the pipes; -1 when it cannot start.  Closes the write ends.
inline pid_t SpawnTool(const std::vector<std::string>& args, int outPipe[2],
                       int* errPipe = nullptr) {
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, outPipe[1], STDOUT_FILENO);
  if (errPipe) posix_spawn_file_actions_adddup2(&actions, errPipe[1], STDERR_FILENO);
  std::vector<std::string> all = {ToolPath()};
  all.insert(all.end(), args.begin(), args.end());
  std::vector<char*> argv;
  for (auto& a : all) argv.push_back(a.data());
  argv.push_back(nullptr);
  pid_t pid = -1;
  int rc = posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  close(outPipe[1]);
  if (errPipe) close(errPipe[1]);
  return rc == 0 ? pid : -1;
}

inline ToolRun RunTool(const std::vector<std::string>& args) {
  ToolRun run;
  int outPipe[2], errPipe[2];
  if (pipe2(outPipe, O_CLOEXEC) != 0) return run;
  if (pipe2(errPipe, O_CLOEXEC) != 0) {
    close(outPipe[0]);
    close(outPipe[1]);
    return run;
  }
  pid_t pid = SpawnTool(args, outPipe, errPipe);
  pollfd fds[2] = {{outPipe[0], POLLIN, 0}, {errPipe[0], POLLIN, 0}};
  std::string* sinks[2] = {&run.out, &run.err};
  int open = pid > 0 ? 2 : 0;
  while (open > 0 && poll(fds, 2, -1) > 0) {
    for (int i = 0; i < 2; ++i) {
      if (fds[i].fd < 0 || !fds[i].revents) continue;
      char buf[4096];
      ssize_t n = read(fds[i].fd, buf, sizeof buf);
      if (n > 0) {
        sinks[i]->append(buf, size_t(n));
      } else {
        fds[i].fd = -1;
        --open;
      }
    }
  }
  close(outPipe[0]);
  close(errPipe[0]);
  int wstatus = 0;
  if (pid > 0 && waitpid(pid, &wstatus, 0) == pid && WIFEXITED(wstatus))
    run.status = WEXITSTATUS(wstatus);
  return run;
}

}  // namespace gab::testing
