// Statistics: the one-pass word count, the page fill and a whole update.
#include <benchmark/benchmark.h>

#include <filesystem>

#include "library/log_generator.h"
#include "library/statistics.h"
#include "platform/files.h"
#include "testing/temp_home.h"
#include "testing/transcripts.h"

namespace gab {
namespace {

std::unique_ptr<ICLPChatLog> LongChat(int messages) {
  std::vector<testing::Line> lines;
  for (int i = 0; i < messages; ++i)
    lines.push_back({i % 2 ? u"Anna" : u"me",
                     u"well lol I think damn that we should brb meet again omg tomorrow at the "
                     u"usual place ttyl",
                     double(i)});
  return testing::Chat(u"Anna", lines);
}

void BM_CountWords(benchmark::State& state) {
  auto chat = LongChat(int(state.range(0)));
  auto curses = LoadWordList(GABFOLIO_SOURCE_DIR "/data/curses.plist");
  auto slang = LoadWordList(GABFOLIO_SOURCE_DIR "/data/netspeak.plist");
  for (auto _ : state) benchmark::DoNotOptimize(chat->CountWords(&*curses, &*slang));
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_CountWords)->Arg(100)->Arg(10000);

void BM_FillStatisticsTemplate(benchmark::State& state) {
  const std::string page =
      ReadWholeFile(GABFOLIO_SOURCE_DIR "/data/statstemplate.html").value_or("");
  StatisticsTotals t;
  t.userWords = 18241;
  t.otherWords = 11874;
  t.chats = 127;
  t.start = Date{8e8};
  t.end = Date{8.1e8};
  for (auto _ : state) benchmark::DoNotOptimize(FillStatisticsTemplate(page, t));
  state.SetBytesProcessed(int64_t(state.iterations() * page.size()));
}
BENCHMARK(BM_FillStatisticsTemplate);

// Reads the store and lists, counts, writes store and page (two fsyncs).
void BM_UpdateStatistics(benchmark::State& state) {
  testing::TempHome home;
  const std::string folder = home.path() + "/Library/Gabfolio";
  std::filesystem::create_directories(folder);
  for (const char* f : {"statstemplate.html", "curses.plist", "netspeak.plist"})
    std::filesystem::copy_file(std::string(GABFOLIO_SOURCE_DIR "/data/") + f, folder + "/" + f);
  auto chat = LongChat(200);
  for (auto _ : state) UpdateStatistics(chat.get());
}
BENCHMARK(BM_UpdateStatistics)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace gab
