// Processing passes over a folder of 1,000 transcripts, as the agent runs
// them (one parser run per folder entry): first with every transcript new
// (the first parser run does all the work), then with nothing changed
// (1,000 runs that only read the record and stat the files).  Also one
// unchanged parser run on its own, in process.

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include "parser/library_adapter.h"
#include "parser/processor.h"
#include "platform/preferences.h"
#include "tests/fixtures/chats.h"

extern char** environ;

namespace {

namespace fs = std::filesystem;

constexpr int kTranscripts = 1000;

fs::path BuildDir() {
  return fs::read_symlink("/proc/self/exe").parent_path().parent_path();
}

int Spawn(std::vector<std::string> argv, bool quiet = true) {
  posix_spawn_file_actions_t fa;
  posix_spawn_file_actions_init(&fa);
  if (quiet) {
    posix_spawn_file_actions_addopen(&fa, 1, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&fa, 2, "/dev/null", O_WRONLY, 0);
  }
  std::vector<char*> args;
  for (auto& a : argv) args.push_back(a.data());
  args.push_back(nullptr);
  pid_t pid;
  int rc = posix_spawn(&pid, args[0], &fa, nullptr, args.data(), environ);
  posix_spawn_file_actions_destroy(&fa);
  if (rc != 0) return -1;
  int st = 0;
  waitpid(pid, &st, 0);
  return WIFEXITED(st) ? WEXITSTATUS(st) : -1;
}

// One home for all the benchmarks of this file, made on first use.
struct BenchHome {
  fs::path home;
  BenchHome() {
    std::string tmpl = (fs::temp_directory_path() / "gabfolio-bench-XXXXXX").string();
    home = mkdtemp(tmpl.data());
    setenv("HOME", home.c_str(), 1);
    unsetenv("DISPLAY");
  }
  ~BenchHome() {
    std::error_code ec;
    fs::remove_all(home, ec);
  }
  // A fresh library and 1,000 new transcripts (20 lines each, links and
  // images among them; every tenth in a subfolder).
  void Reset() {
    std::error_code ec;
    fs::remove_all(home / "Library", ec);
    fs::remove_all(home / "Documents", ec);
    Spawn({(BuildDir() / "tool/gabfolio").string(), "setup"});
    fs::path chats = home / "Documents/iChats";
    fs::create_directories(chats / "old");
    for (int i = 0; i < kTranscripts; ++i) {
      auto chat = gab::samples::TypicalChat("friend" + std::to_string(i % 40),
                                            1110294420 + i * 3600.0, 20, i % 2 == 0);
      gab::samples::WriteChat((i % 10 ? chats : chats / "old").string(), chat);
    }
  }
  int AgentPass() { return Spawn({(BuildDir() / "agent/gabfolio-agent").string(), "-debug"}); }
};

// CPU seconds (user and system) of the programs this benchmark ran: on a
// busy machine the wall time says more about the neighbours.
double ChildrenCpuSeconds() {
  rusage r{};
  getrusage(RUSAGE_CHILDREN, &r);
  return double(r.ru_utime.tv_sec + r.ru_stime.tv_sec) +
         double(r.ru_utime.tv_usec + r.ru_stime.tv_usec) / 1e6;
}

// Reports the CPU the agent and its parsers used per iteration.
struct ChildrenCpu {
  benchmark::State& state;
  double start = ChildrenCpuSeconds();
  ~ChildrenCpu() {
    state.counters["children_cpu_s"] =
        benchmark::Counter(ChildrenCpuSeconds() - start, benchmark::Counter::kAvgIterations);
  }
};

BenchHome& Home() {
  static BenchHome h;
  return h;
}

void BM_PassAllNew(benchmark::State& state) {
  ChildrenCpu cpu{state};
  for (auto _ : state) {
    state.PauseTiming();
    Home().Reset();
    state.ResumeTiming();
    if (Home().AgentPass() != 0) state.SkipWithError("the agent pass failed");
  }
  state.counters["transcripts"] = kTranscripts;
}
BENCHMARK(BM_PassAllNew)->Iterations(1)->Unit(benchmark::kSecond)->UseRealTime();

void BM_PassUnchanged(benchmark::State& state) {
  if (!fs::exists(Home().home / "Library/Gabfolio/processed.plist")) {
    Home().Reset();
    Home().AgentPass();
  }
  ChildrenCpu cpu{state};
  for (auto _ : state)
    if (Home().AgentPass() != 0) state.SkipWithError("the agent pass failed");
  state.counters["parser_runs"] = kTranscripts;
}
BENCHMARK(BM_PassUnchanged)->Iterations(2)->Unit(benchmark::kSecond)->UseRealTime();

void BM_ParserRunUnchanged(benchmark::State& state) {
  if (!fs::exists(Home().home / "Library/Gabfolio/processed.plist")) {
    Home().Reset();
    Home().AgentPass();
  }
  gab::Preferences& prefs = gab::Preferences::Shared();
  gab::parser::TranscriptLibrary library(prefs);
  gab::parser::RunOptions options;
  options.transcriptFolder = (Home().home / "Documents/iChats").string();
  options.dataFolder = (Home().home / "Library/Gabfolio").string();
  for (auto _ : state) {
    auto summary = gab::parser::ProcessTranscripts(library, options);
    if (summary.unchanged != kTranscripts) state.SkipWithError("the folder was not unchanged");
  }
}
BENCHMARK(BM_ParserRunUnchanged)->Unit(benchmark::kMillisecond);

}  // namespace
