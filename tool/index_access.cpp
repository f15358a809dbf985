#include "tool/index_access.h"

#include <sys/stat.h>

#include <cmath>
#include <csignal>
#include <cstdio>
#include <ctime>

#include "platform/home.h"
#include "platform/log.h"
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
    std::fprintf(stderr, "gabfolio %s: cannot open the search index: %s\n", command,
                 error.c_str());
    return nullptr;
  }
  if (clear && !index->Clear()) {
    std::fprintf(stderr, "gabfolio %s: cannot clear the search index\n", command);
    return nullptr;
  }
  // Ctrl-C stops between transcripts; what was indexed so far is kept.
  keepRunning = 1;
  struct sigaction sa {}, oldInt{}, oldTerm{};
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

std::optional<Date> ParseDay(std::string_view text, bool end) {
  int parts[3] = {0, 1, 1};
  size_t n = 0, i = 0;
  const size_t widths[3] = {4, 2, 2};
  while (n < 3) {
    size_t start = i;
    int value = 0;
    while (i < text.size() && text[i] >= '0' && text[i] <= '9' && i - start < widths[n])
      value = value * 10 + (text[i++] - '0');
    if (i - start != widths[n]) return std::nullopt;
    parts[n++] = value;
    if (i == text.size()) break;
    if (text[i++] != '-') return std::nullopt;
  }
  if (i != text.size() || parts[1] < 1 || parts[1] > 12 || parts[2] < 1 || parts[2] > 31)
    return std::nullopt;
  tm t{};
  t.tm_year = parts[0] - 1900;
  t.tm_mon = parts[1] - 1;
  t.tm_mday = parts[2];
  t.tm_isdst = -1;
  if (end) {
    // The first moment of the next period, less a millisecond.
    if (n == 1) ++t.tm_year;
    if (n == 2) ++t.tm_mon;
    if (n == 3) ++t.tm_mday;
  }
  time_t seconds = mktime(&t);
  if (seconds == time_t(-1)) return std::nullopt;
  return Date::FromUnix(double(seconds) - (end ? 0.001 : 0));
}

}  // namespace gab::tool
