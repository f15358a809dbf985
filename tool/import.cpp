// gabfolio import [FOLDER]: adds transcripts that existed before Gabfolio to
// the library and the statistics, without mailing them.  It shares the
// parser's record, so it can be stopped (Ctrl-C) and run again without
// counting anything twice, and the parser never handles them again.

#include <sys/stat.h>

#include <csignal>
#include <cstdio>
#include <filesystem>
#include <string>

#include "library/search_index.h"
#include "parser/library_adapter.h"
#include "parser/processor.h"
#include "parser/run_lock.h"
#include "platform/home.h"
#include "platform/log.h"
#include "platform/preferences.h"
#include "tool/commands.h"
#include "tool/progress.h"
#include "transcript/process_flags.h"

namespace gab::tool {
namespace {

namespace fs = std::filesystem;

const char* kHelp =
    "usage: gabfolio import [FOLDER]\n"
    "\n"
    "Adds the transcripts under FOLDER (default ~/Documents/iChats, searched\n"
    "at any depth for .chat and .ichat files) to the library pages and the\n"
    "statistics, and records them as done.  Nothing is mailed.  Links and\n"
    "images are gathered as the preferences \"handleURLs\" and \"handleImages\"\n"
    "say.  Interrupt it at any time; running it again goes on where it stopped.\n"
    "\n"
    "Exit status: 0 done, 1 failed, 2 bad usage, 130 interrupted.\n";

void Interrupt(int) {
  keepRunning = 0;
}

}  // namespace

int RunImport(int argc, char** argv) {
  std::string folder;
  for (int i = 1; i < argc; ++i) {
    std::string a = argv[i];
    if (a == "--help" || a == "-h") {
      std::fputs(kHelp, stdout);
      return kOk;
    }
    if (!a.empty() && a[0] == '-') {
      std::fprintf(stderr, "gabfolio import: unknown option '%s'\n%s", a.c_str(), kHelp);
      return kUsage;
    }
    if (!folder.empty()) {
      std::fprintf(stderr, "gabfolio import: one folder at a time\n");
      return kUsage;
    }
    folder = a;
  }

  const std::string data = DataFolder();
  std::error_code ec;
  if (!fs::is_directory(data, ec)) {
    std::fprintf(stderr, "gabfolio import: %s is missing; run 'gabfolio setup' first\n",
                 data.c_str());
    return kFailure;
  }
  parser::RunOptions options;
  options.dataFolder = data;
  const std::string transcripts = TranscriptFolder();
  if (folder.empty()) folder = transcripts;
  fs::path abs = fs::weakly_canonical(fs::absolute(folder, ec), ec);
  if (ec || !fs::is_directory(abs, ec)) {
    std::fprintf(stderr, "gabfolio import: %s is not a folder\n", folder.c_str());
    return kFailure;
  }
  options.transcriptFolder = abs.string();
  if (abs != fs::weakly_canonical(transcripts, ec)) options.recordKeyPrefix = abs.string() + "/";
  options.importing = true;

  keepRunning = 1;
  struct sigaction sa {};
  sa.sa_handler = Interrupt;
  sigaction(SIGINT, &sa, nullptr);
  sigaction(SIGTERM, &sa, nullptr);

  parser::RunLock lock;
  if (!lock.Acquire(parser::LockPath(data), 0)) {
    std::fprintf(stderr, "gabfolio import: waiting for a parser run to finish...\n");
    if (!lock.Acquire(parser::LockPath(data), 600)) {
      std::fprintf(stderr, "gabfolio import: the transcripts are still busy; try again later\n");
      return kFailure;
    }
  }

  Preferences& prefs = Preferences::Shared();
  prefs.AppSynchronize();
  options.handleURLs = prefs.Bool("handleURLs");
  options.handleImages = prefs.Bool("handleImages");

  ProgressBar bar("Importing");
  options.progress = [&](size_t done, size_t total, const std::string& item) {
    bar.Update(done, total, EscapeControlCharacters(item));
  };
  SearchIndexKeeper index(data, transcripts);
  options.loaded = [&](const std::string& key, int64_t size, int64_t mtimeNs,
                       const ICLPChatLog* log) { index.Loaded(key, size, mtimeNs, log); };
  parser::TranscriptLibrary library(prefs);
  parser::RunSummary s = parser::ProcessTranscripts(library, options);
  bar.Finish();
  if (!s.stopped) {
    ProgressBar indexing("Indexing");
    SyncOptions sync;
    sync.progress = [&](size_t done, size_t total, const std::string& item) {
      indexing.Update(done, total, EscapeControlCharacters(item));
    };
    sync.stop = [] { return !keepRunning; };
    index.Finish(sync, true);
  }

  std::printf("Transcripts found:     %lld\n", static_cast<long long>(s.found));
  std::printf("Imported now:          %lld\n", static_cast<long long>(s.processed));
  std::printf("Already in the library: %lld\n", static_cast<long long>(s.unchanged));
  std::printf("Messages added:        %lld\n", static_cast<long long>(s.messages));
  std::printf("Links added:           %lld%s\n", static_cast<long long>(s.links),
              options.handleURLs ? "" : " (gathering links is off)");
  std::printf("Images added:          %lld%s\n", static_cast<long long>(s.images),
              options.handleImages ? "" : " (gathering images is off)");
  std::printf("Unreadable files:      %zu\n", s.unreadable.size());
  for (const auto& [path, reason] : s.unreadable)
    std::printf("  %s: %s\n", EscapeControlCharacters(path).c_str(),
                EscapeControlCharacters(reason).c_str());
  if (s.stopped) {
    std::printf("Interrupted; run 'gabfolio import' again to go on.\n");
    return 130;
  }
  if (!s.saveError.empty()) {
    std::fprintf(stderr,
                 "gabfolio import: could not save the library in %s: %s\n"
                 "What was not saved is imported again on the next run.\n",
                 data.c_str(), EscapeControlCharacters(s.saveError).c_str());
    return kFailure;
  }
  if (s.processed) std::printf("See the library with 'gabfolio view'.\n");
  return kOk;
}

}  // namespace gab::tool
