#include "tool/index_access.h"

#include <sys/stat.h>

#include <csignal>
#include <cstdio>

#include "platform/home.h"
#include "platform/log.h"
#include "tool/agent_state.h"
#include "tool/progress.h"
#include "transcript/process_flags.h"

namespace gab::tool {
namespace {

void Interrupt(int) {
  keepRunning = 0;
}

}  // namespace

std::unique_ptr<SearchIndex> OpenCurrentIndex(const char* command, bool clear) {
  const std::string data = DataFolder();
  struct stat st {};
  if (stat(data.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
    std::fprintf(stderr, "gabfolio %s: %s is missing; run 'gabfolio setup' first\n", command,
                 data.c_str());
    return nullptr;
  }
  std::string error;
  auto index = SearchIndex::Open(SearchIndexPath(data), &error);
  if (!index) {
    std::fprintf(stderr, "gabfolio %s: cannot open the search index: %s\n", command, error.c_str());
    return nullptr;
  }
  if (clear && !index->Clear()) {
    std::fprintf(stderr, "gabfolio %s: cannot clear the search index\n", command);
    return nullptr;
  }
  // A running agent keeps a complete index current (its parser adds what it
  // reads and drops what vanished): searching then need not look at every
  // transcript's size and time first, which costs more than the search.
  if (!clear && index->Complete() && ReadAgentState().running) return index;
  // Ctrl-C stops between transcripts; what was indexed so far is kept.
  keepRunning = 1;
  struct sigaction sa {
  }, oldInt{}, oldTerm{};
  sa.sa_handler = Interrupt;
  sigaction(SIGINT, &sa, &oldInt);
  sigaction(SIGTERM, &sa, &oldTerm);
  ProgressBar bar("Indexing");
  SyncOptions options;
  options.progress = [&](size_t done, size_t total, const std::string& item) {
    bar.Update(done, total, EscapeControlCharacters(item));
  };
  options.stop = [] { return !keepRunning; };
  index->Sync(TranscriptFolder(), options);
  bar.Finish();
  sigaction(SIGINT, &oldInt, nullptr);
  sigaction(SIGTERM, &oldTerm, nullptr);
  if (!keepRunning) {
    std::fprintf(stderr, "gabfolio %s: interrupted\n", command);
    return nullptr;
  }
  return index;
}

}  // namespace gab::tool
