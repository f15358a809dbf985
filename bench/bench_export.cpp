// `gabfolio export --format mbox` over 2,000 transcripts of 100 lines each
// (200,000 messages, an image every fifth line), as a user runs it: the
// tool's whole process, from reading the folder to the mailbox in place.

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include "tests/fixtures/chats.h"

extern char** environ;

namespace {

namespace fs = std::filesystem;

constexpr int kTranscripts = 2000;
constexpr int kLines = 100;

// The folder of transcripts, written on first use (every tenth in a
// subfolder, the two formats alternating).
struct ExportHome {
  fs::path home;
  ExportHome() {
    std::string tmpl = (fs::temp_directory_path() / "gabfolio-bench-export-XXXXXX").string();
    home = mkdtemp(tmpl.data());
    fs::path chats = home / "chats";
    fs::create_directories(chats / "old");
    for (int i = 0; i < kTranscripts; ++i) {
      auto chat = gab::samples::TypicalChat("friend" + std::to_string(i % 60),
                                            1110294420 + i * 3600.0, kLines, i % 2 == 0);
      gab::samples::WriteChat((i % 10 ? chats : chats / "old").string(), chat);
    }
  }
  ~ExportHome() {
    std::error_code ec;
    fs::remove_all(home, ec);
  }
};

int Export(const fs::path& home, const char* format, const fs::path& out) {
  std::string tool =
      (fs::read_symlink("/proc/self/exe").parent_path().parent_path() / "tool/gabfolio").string();
  std::string homeVar = "HOME=" + home.string();
  std::vector<std::string> argv = {tool, "export",    "--format", format, (home / "chats").string(),
                                   "-o", out.string()};
  std::vector<char*> args, env;
  for (auto& a : argv) args.push_back(a.data());
  args.push_back(nullptr);
  // The child's own home, so no preference of the user's is read.
  for (char** e = environ; *e; ++e)
    if (std::string_view(*e).rfind("HOME=", 0) != 0) env.push_back(*e);
  env.push_back(homeVar.data());
  env.push_back(nullptr);
  posix_spawn_file_actions_t fa;
  posix_spawn_file_actions_init(&fa);
  posix_spawn_file_actions_addopen(&fa, 1, "/dev/null", O_WRONLY, 0);
  pid_t pid;
  int rc = posix_spawn(&pid, args[0], &fa, nullptr, args.data(), env.data());
  posix_spawn_file_actions_destroy(&fa);
  if (rc != 0) return -1;
  int st = 0;
  waitpid(pid, &st, 0);
  return WIFEXITED(st) ? WEXITSTATUS(st) : -1;
}

void BM_ExportMbox(benchmark::State& state) {
  static ExportHome h;
  fs::path out = h.home / "chats.mbox";
  for (auto _ : state)
    if (Export(h.home, "mbox", out) != 0) state.SkipWithError("the export failed");
  state.counters["transcripts"] = kTranscripts;
  state.counters["messages"] = kTranscripts * kLines;
  state.counters["mbox_MB"] = double(fs::file_size(out)) / 1e6;
}
BENCHMARK(BM_ExportMbox)->Iterations(3)->Unit(benchmark::kSecond)->UseRealTime();

}  // namespace
