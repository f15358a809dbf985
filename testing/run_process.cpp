#include "testing/run_process.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <sstream>
#include <thread>

#include "platform/files.h"

extern char** environ;

namespace gab::testing {

const std::string kTool = GABFOLIO_BINARY_DIR "/tool/gabfolio";
const std::string kAgent = GABFOLIO_BINARY_DIR "/agent/gabfolio-agent";
const std::string kParser = GABFOLIO_BINARY_DIR "/parser/gabfolio-parser";

Process::Process(std::vector<std::string> argv, std::vector<std::string> env,
                 std::optional<std::string> input) {
  std::string tmpl = (std::filesystem::temp_directory_path() / "gabfolio-run-XXXXXX").string();
  if (!mkdtemp(tmpl.data())) return;
  dir_ = tmpl;
  posix_spawn_file_actions_t fa;
  posix_spawn_file_actions_init(&fa);
  int in[2] = {-1, -1};
  if (input && pipe2(in, O_CLOEXEC) == 0) {
    posix_spawn_file_actions_adddup2(&fa, in[0], 0);
  } else {
    posix_spawn_file_actions_addopen(&fa, 0, "/dev/null", O_RDONLY, 0);
  }
  posix_spawn_file_actions_addopen(&fa, 1, (dir_ + "/out").c_str(), O_WRONLY | O_CREAT, 0600);
  posix_spawn_file_actions_addopen(&fa, 2, (dir_ + "/err").c_str(), O_WRONLY | O_CREAT, 0600);
  std::vector<std::string> vars;
  for (char** e = environ; *e; ++e) {
    std::string v = *e;
    bool replaced = false;
    for (const auto& x : env)
      replaced |= v.substr(0, v.find('=') + 1) == x.substr(0, x.find('=') + 1);
    if (!replaced) vars.push_back(v);
  }
  vars.insert(vars.end(), env.begin(), env.end());
  std::vector<char*> args, envp;
  for (auto& a : argv) args.push_back(a.data());
  for (auto& v : vars) envp.push_back(v.data());
  args.push_back(nullptr);
  envp.push_back(nullptr);
  if (posix_spawn(&pid_, args[0], &fa, nullptr, args.data(), envp.data()) != 0) pid_ = -1;
  posix_spawn_file_actions_destroy(&fa);
  if (in[0] >= 0) {
    close(in[0]);
    if (pid_ > 0 && !input->empty() && write(in[1], input->data(), input->size()) < 0) {
    }
    close(in[1]);
  }
}

Process::~Process() {
  // Asked to end first, so that it can leave its files (and coverage
  // counters) whole.
  Signal(SIGTERM);
  if (pid_ > 0 && !Wait(5)) {
    kill(pid_, SIGKILL);
    Wait(10);
  }
  std::error_code ec;
  if (!dir_.empty()) std::filesystem::remove_all(dir_, ec);
}

void Process::Signal(int sig) {
  if (pid_ > 0 && !status_) kill(pid_, sig);
}

std::optional<int> Process::Wait(double seconds) {
  if (pid_ <= 0) status_ = 127;
  WaitFor(
      [&] {
        int st = 0;
        if (!status_ && waitpid(pid_, &st, WNOHANG) == pid_)
          status_ = WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
        return status_.has_value();
      },
      seconds);
  return status_;
}

std::string Process::out() const {
  return ReadWholeFile(dir_ + "/out").value_or("");
}

std::string Process::err() const {
  return ReadWholeFile(dir_ + "/err").value_or("");
}

Result RunProgram(std::vector<std::string> argv, std::vector<std::string> env,
                  std::optional<std::string> input, double seconds) {
  Process p(std::move(argv), std::move(env), std::move(input));
  auto status = p.Wait(seconds);
  if (!status) {
    p.Signal(SIGKILL);
    status = p.Wait(5);
  }
  return {status.value_or(-1), p.out(), p.err()};
}

bool WaitFor(const std::function<bool()>& done, double seconds) {
  auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
  while (std::chrono::steady_clock::now() < deadline) {
    if (done()) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return done();
}

int CountOf(const std::string& text, const std::string& needle) {
  int n = 0;
  for (size_t at = text.find(needle); at != std::string::npos; at = text.find(needle, at + 1)) ++n;
  return n;
}

std::vector<std::string> Words(const std::string& text) {
  std::vector<std::string> out;
  std::istringstream in(text);
  for (std::string w; in >> w;) out.push_back(w);
  return out;
}

}  // namespace gab::testing
