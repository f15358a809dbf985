// The agent's steady costs: one idle watch cycle's preference
// synchronisation, a synchronisation that writes, and a processing pass per
// folder entry with a parser that exits at once.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "agent/agent.h"
#include "platform/preferences.h"

namespace {

namespace fs = std::filesystem;

// A private home for the whole benchmark process, set before anything binds
// the shared preferences.
const std::string& BenchHome() {
  static const std::string home = [] {
    char tmpl[] = "/tmp/gabfolio-bench-agent-XXXXXX";
    std::string h = mkdtemp(tmpl) ? tmpl : "";
    if (!h.empty()) {
      setenv("HOME", h.c_str(), 1);
      setenv("DBUS_SESSION_BUS_ADDRESS", "unix:path=/nonexistent", 1);
      std::atexit([] { fs::remove_all(BenchHome()); });
    }
    return h;
  }();
  return home;
}

std::string PrefsPath() {
  return BenchHome() + "/Library/Preferences/com.tidewrack.gabfolio.plist";
}

void BM_PreferencesSynchroniseIdle(benchmark::State& state) {
  gab::Preferences prefs(PrefsPath());
  prefs.SetAppValue("emailFails", gab::PrefValue(int64_t(1)));
  prefs.AppSynchronize();
  for (auto _ : state) benchmark::DoNotOptimize(prefs.AppSynchronize());
}
BENCHMARK(BM_PreferencesSynchroniseIdle);

void BM_PreferencesSynchroniseWrite(benchmark::State& state) {
  gab::Preferences prefs(PrefsPath());
  int64_t i = 0;
  for (auto _ : state) {
    prefs.SetAppValue("errorStatus", gab::PrefValue(i++ % 2));
    benchmark::DoNotOptimize(prefs.AppSynchronize());
  }
}
BENCHMARK(BM_PreferencesSynchroniseWrite);

void BM_ProcessingPass(benchmark::State& state) {
  std::string home = BenchHome();
  if (home.empty() || gab::Preferences::Shared().path() != PrefsPath()) {
    state.SkipWithError("the shared preferences are not bound to the benchmark's home");
    return;
  }
  std::string folder = home + "/Documents/iChats";
  fs::remove_all(folder);
  fs::create_directories(folder);
  for (int i = 0; i < state.range(0); ++i) std::ofstream(folder + "/" + std::to_string(i));
  gab::Preferences prefs(PrefsPath());
  prefs.SetAppValue("parserPath", gab::PrefValue(std::string("/bin/true")));
  prefs.SetAppValue("emailFails", gab::PrefValue(int64_t(3)));  // no resets to write
  prefs.SetAppValue("errorStatus", gab::PrefValue(int64_t(0)));
  prefs.AppSynchronize();

  int savedStderr = dup(STDERR_FILENO);
  int devnull = open("/dev/null", O_WRONLY | O_CLOEXEC);
  dup2(devnull, STDERR_FILENO);
  for (auto _ : state) gab::ExtractChatLogs();
  dup2(savedStderr, STDERR_FILENO);
  close(savedStderr);
  close(devnull);
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_ProcessingPass)->Arg(1)->Arg(20)->Unit(benchmark::kMillisecond);

}  // namespace
