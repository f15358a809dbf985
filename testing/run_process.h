#pragma once
// Real processes for tests: the built programs (or any other) started with
// this process's environment plus a few variables, their output kept.

#include <sys/types.h>

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace gab::testing {

// The built programs.
extern const std::string kTool, kAgent, kParser;

// A process whose standard output and error go to files; started by the
// constructor, ended by the destructor if it still runs.  `env` holds
// "NAME=value" entries added to (or replacing) this process's environment;
// `input` is fed to its standard input (none: /dev/null).
class Process {
 public:
  explicit Process(std::vector<std::string> argv, std::vector<std::string> env = {},
                   std::optional<std::string> input = std::nullopt);
  ~Process();
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;

  pid_t pid() const { return pid_; }
  void Signal(int sig);
  // The exit status, 128 + the signal when one ended it; nothing while it
  // still runs after `seconds`.
  std::optional<int> Wait(double seconds = 20);
  std::string out() const;
  std::string err() const;

 private:
  pid_t pid_ = -1;
  std::optional<int> status_;
  std::string dir_;
};

struct Result {
  int status = -1;
  std::string out, err;
};

// Runs a program to its end (killed after `seconds`).
Result RunProgram(std::vector<std::string> argv, std::vector<std::string> env = {},
                  std::optional<std::string> input = std::nullopt, double seconds = 120);

// Polls `done` every 20 ms for up to `seconds`; its last answer.
bool WaitFor(const std::function<bool()>& done, double seconds = 20);

int CountOf(const std::string& text, const std::string& needle);

// The space-separated words of `text`: command lines in case tables.
std::vector<std::string> Words(const std::string& text);

}  // namespace gab::testing
