#pragma once
// Helpers for the whole-product tests: the built programs run as real
// processes in a temporary home, a real SMTP server on loopback, and waits
// on conditions with a deadline.

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

extern char** environ;

namespace gab::product {

namespace fs = std::filesystem;

inline const std::string kTool = GABFOLIO_BINARY_DIR "/tool/gabfolio";
inline const std::string kAgent = GABFOLIO_BINARY_DIR "/agent/gabfolio-agent";
inline const std::string kParser = GABFOLIO_BINARY_DIR "/parser/gabfolio-parser";
inline const std::string kPython = "/usr/bin/python3";
inline const std::string kSink = GABFOLIO_SOURCE_DIR "/tests/smtp_sink.py";

inline std::string ReadFile(const fs::path& p) {
  std::ifstream in(p, std::ios::binary);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

inline bool WaitFor(const std::function<bool()>& condition, double seconds = 20) {
  auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(int(seconds * 1000));
  while (std::chrono::steady_clock::now() < deadline) {
    if (condition()) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  return condition();
}

inline size_t CountOf(const std::string& text, const std::string& needle) {
  size_t n = 0;
  for (size_t pos = text.find(needle); pos != std::string::npos; pos = text.find(needle, pos + 1))
    ++n;
  return n;
}

// The environment of the programs: this process's, without a display (so
// every chat counts as ended), plus `extra` ("NAME=value").
inline std::vector<std::string> ChildEnvironment(const std::vector<std::string>& extra) {
  std::vector<std::string> env;
  for (char** e = environ; *e; ++e) {
    std::string v = *e;
    if (v.rfind("DISPLAY=", 0) == 0 || v.rfind("WAYLAND_DISPLAY=", 0) == 0 ||
        v.rfind("DBUS_SESSION_BUS_ADDRESS=", 0) == 0)
      continue;
    bool replaced = false;
    for (const auto& x : extra)
      replaced |= v.substr(0, v.find('=') + 1) == x.substr(0, x.find('=') + 1);
    if (replaced) continue;
    env.push_back(v);
  }
  env.push_back("DBUS_SESSION_BUS_ADDRESS=unix:path=/nonexistent");
  for (const auto& x : extra) env.push_back(x);
  return env;
}

// A process whose output goes to files; started by the constructor.
class Process {
 public:
  Process(std::vector<std::string> argv, const fs::path& logDir, const std::string& name,
          std::vector<std::string> extraEnv = {}, std::optional<std::string> input = {}) {
    fs::create_directories(logDir);
    outPath_ = logDir / (name + ".out");
    errPath_ = logDir / (name + ".err");
    posix_spawn_file_actions_t fa;
    posix_spawn_file_actions_init(&fa);
    int in[2] = {-1, -1};
    if (input) {
      if (pipe2(in, O_CLOEXEC) != 0) std::abort();
      posix_spawn_file_actions_adddup2(&fa, in[0], 0);
    } else {
      posix_spawn_file_actions_addopen(&fa, 0, "/dev/null", O_RDONLY, 0);
    }
    posix_spawn_file_actions_addopen(&fa, 1, outPath_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    posix_spawn_file_actions_addopen(&fa, 2, errPath_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    std::vector<char*> args;
    for (auto& a : argv) args.push_back(a.data());
    args.push_back(nullptr);
    auto env = ChildEnvironment(extraEnv);
    std::vector<char*> envp;
    for (auto& e : env) envp.push_back(e.data());
    envp.push_back(nullptr);
    if (posix_spawn(&pid_, args[0], &fa, nullptr, args.data(), envp.data()) != 0) pid_ = -1;
    posix_spawn_file_actions_destroy(&fa);
    if (input) {
      close(in[0]);
      if (!input->empty() && write(in[1], input->data(), input->size()) < 0) {
      }
      close(in[1]);
    }
  }
  ~Process() {
    if (pid_ > 0 && !status_) {
      kill(pid_, SIGKILL);
      Wait(10);
    }
  }
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;

  pid_t pid() const { return pid_; }
  void Signal(int sig) {
    if (pid_ > 0 && !status_) kill(pid_, sig);
  }
  // The exit status (128 + signal when killed); nothing on time-out.
  std::optional<int> Wait(double seconds) {
    if (status_) return status_;
    if (pid_ <= 0) return status_ = 127;
    WaitFor(
        [&] {
          int st = 0;
          pid_t r = waitpid(pid_, &st, WNOHANG);
          if (r == pid_) status_ = WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
          return status_.has_value();
        },
        seconds);
    return status_;
  }
  std::string out() const { return ReadFile(outPath_); }
  std::string err() const { return ReadFile(errPath_); }

 private:
  pid_t pid_ = -1;
  std::optional<int> status_;
  fs::path outPath_, errPath_;
};

struct Result {
  int status = -1;
  std::string out, err;
};

// Runs a program to its end (at most `seconds`).
inline Result RunProgram(std::vector<std::string> argv, const fs::path& logDir,
                         std::vector<std::string> extraEnv = {},
                         std::optional<std::string> input = {}, double seconds = 120) {
  static int serial = 0;
  Process p(std::move(argv), logDir, "run" + std::to_string(++serial), std::move(extraEnv),
            std::move(input));
  Result r;
  auto st = p.Wait(seconds);
  if (!st) p.Signal(SIGKILL), st = p.Wait(5);
  r.status = st.value_or(-1);
  r.out = p.out();
  r.err = p.err();
  return r;
}

inline bool HaveAiosmtpd() {
  return std::system((kPython + " -c 'import aiosmtpd' >/dev/null 2>&1").c_str()) == 0;
}

// The SMTP sink on 127.0.0.1; Stop() and Start() again keep the port.
class SmtpSink {
 public:
  explicit SmtpSink(fs::path dir) : dir_(std::move(dir)) { fs::create_directories(dir_ / "mail"); }
  // Options of the sink for the next Start() ("--reject-rcpt", "--user", ...).
  void SetOptions(std::vector<std::string> options) { options_ = std::move(options); }
  ~SmtpSink() { Stop(); }

  bool Start() {
    int out[2], in[2];
    if (pipe2(out, O_CLOEXEC) != 0 || pipe2(in, O_CLOEXEC) != 0) return false;
    std::vector<std::string> argv = {
        kPython, kSink, "--out", (dir_ / "mail").string(), "--port", std::to_string(port_)};
    argv.insert(argv.end(), options_.begin(), options_.end());
    posix_spawn_file_actions_t fa;
    posix_spawn_file_actions_init(&fa);
    posix_spawn_file_actions_adddup2(&fa, in[0], 0);
    posix_spawn_file_actions_adddup2(&fa, out[1], 1);
    std::vector<char*> args;
    for (auto& a : argv) args.push_back(a.data());
    args.push_back(nullptr);
    int rc = posix_spawn(&pid_, args[0], &fa, nullptr, args.data(), environ);
    posix_spawn_file_actions_destroy(&fa);
    close(in[0]);
    close(out[1]);
    stdin_ = in[1];
    if (rc != 0) {
      close(out[0]);
      return false;
    }
    std::string line;
    char c;
    pollfd pfd{out[0], POLLIN, 0};
    while (poll(&pfd, 1, 15000) > 0 && read(out[0], &c, 1) == 1 && c != '\n') line += c;
    close(out[0]);
    if (line.rfind("PORT ", 0) != 0) return false;
    port_ = std::atoi(line.c_str() + 5);
    return true;
  }
  void Stop() {
    if (pid_ <= 0) return;
    close(stdin_);
    int st;
    waitpid(pid_, &st, 0);
    pid_ = -1;
  }
  int port() const { return port_; }
  // The messages received so far, in order of arrival.
  std::vector<std::string> Messages() const {
    std::vector<std::string> out;
    for (int n = 1;; ++n) {
      fs::path p = dir_ / "mail" / ("msg-" + std::to_string(n) + ".eml");
      if (!fs::exists(p)) break;
      out.push_back(ReadFile(p));
    }
    return out;
  }

 private:
  fs::path dir_;
  std::vector<std::string> options_;
  pid_t pid_ = -1;
  int stdin_ = -1;
  int port_ = 0;
};

// The value of a header line ("Subject") of a raw message, unfolded.
inline std::string Header(const std::string& message, const std::string& name) {
  std::string key = "\n" + name + ": ";
  std::string text = "\n" + message;
  auto pos = text.find(key);
  if (pos == std::string::npos) return "";
  pos += key.size();
  std::string value;
  while (pos < text.size()) {
    auto end = text.find('\n', pos);
    std::string line = text.substr(pos, end - pos);
    if (!line.empty() && line.back() == '\r') line.pop_back();
    value += line;
    if (end == std::string::npos || end + 1 >= text.size() ||
        (text[end + 1] != ' ' && text[end + 1] != '\t'))
      break;
    pos = end + 1;
  }
  return value;
}

}  // namespace gab::product
