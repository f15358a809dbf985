// gabfolio-parser-worker: the parser's real work, started by gabfolio-parser
// when the folder holds something new.  Brings the library up to date with
// ~/Documents/iChats under the run lock.

#include <sys/stat.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "library/search_index.h"
#include "parser/library_adapter.h"
#include "parser/processor.h"
#include "parser/run_lock.h"
#include "parser/usage.h"
#include "platform/home.h"
#include "platform/log.h"
#include "platform/preferences.h"
#include "transcript/process_flags.h"

namespace {

void Stop(int) {
  gab::keepRunning = 0;
}

int64_t RetryDelay() {
  // Tests shorten the pause between mail retries.
  if (const char* s = std::getenv("GABFOLIO_MAIL_RETRY_SECONDS")) return std::atoll(s);
  return 30;
}

}  // namespace

int main(int argc, char** argv) {
  using namespace gab;
  if (argc > 1 && (!std::strcmp(argv[1], "--help") || !std::strcmp(argv[1], "-h"))) {
    std::fputs(parser::kUsage, stdout);
    return 0;
  }
  if (argc > 1 && (!std::strcmp(argv[1], "--version") || !std::strcmp(argv[1], "-V"))) {
    std::printf("%s %s\n", "gabfolio-parser-worker", GABFOLIO_VERSION);
    return 0;
  }
  keepRunning = 1;
  struct sigaction sa {};
  sa.sa_handler = Stop;
  sigaction(SIGTERM, &sa, nullptr);
  sigaction(SIGINT, &sa, nullptr);

  const std::string data = DataFolder();
  struct stat st {};
  if (stat(data.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
    NSLog("The data folder " + data + " is missing; run 'gabfolio setup'.");
    return 1;
  }

  parser::RunLock lock;
  // The agent runs parsers one after another; only a manual run or an
  // import can hold the lock, and the agent's time limit is 180 seconds.
  if (!lock.Acquire(parser::LockPath(data), 120)) {
    NSLog("Another run is busy with the transcripts; this one stops.");
    return 0;
  }

  Preferences& prefs = Preferences::Shared();
  prefs.AppSynchronize();
  parser::RunOptions options;
  options.transcriptFolder = TranscriptFolder();
  options.dataFolder = data;
  options.sendEmails = prefs.Bool("sendEmails");
  options.handleURLs = prefs.Bool("handleURLs");
  options.handleImages = prefs.Bool("handleImages");
  options.mailRetryDelaySeconds = RetryDelay();
  // Well inside the agent's 180 seconds; the next run takes up the rest.
  options.timeBudgetSeconds = 120;

  const auto started = std::chrono::steady_clock::now();
  SearchIndexKeeper index(data, options.transcriptFolder);
  options.loaded = [&](const std::string& key, int64_t size, int64_t mtimeNs,
                       const ICLPChatLog* log) { index.Loaded(key, size, mtimeNs, log); };

  parser::TranscriptLibrary library(prefs);
  parser::RunSummary summary = parser::ProcessTranscripts(library, options);

  // The rest of the index (a new one is filled over several runs) within
  // the agent's time limit.
  SyncOptions sync;
  sync.budgetSeconds = std::max(
      5.0,
      150.0 - std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count());
  sync.stop = [] { return !keepRunning; };
  index.Finish(sync);
  return summary.saveError.empty() ? 0 : 1;
}
