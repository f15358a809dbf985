// The search index: indexing a folder of 2,000 transcripts (200,000
// messages) from scratch, searches over 1,000,000 indexed messages, and the
// viewer's chat page of a 10,000-message transcript.
//
// The transcripts (10,000 of 100 messages, words drawn Zipf-like from a
// vocabulary of 30,000, a few accented) and the big index are made once in
// $TMPDIR/gabfolio-bench-search-1 and kept for later runs; its
// Documents/iChats and Library/Gabfolio make a home that `gabfolio search`
// can be timed on too:
//   HOME=/tmp/gabfolio-bench-search-1 gabfolio search WORD

#include <benchmark/benchmark.h>

#include <filesystem>
#include <fstream>
#include <random>
#include <string>

#include "archive/testing/fixture_writer.h"
#include "bench/large_transcript.h"
#include "library/chat_html.h"
#include "library/reading_pages.h"
#include "library/search_index.h"
#include "platform/text.h"
#include "tests/fixtures/chats.h"

namespace {

namespace fs = std::filesystem;

constexpr int kTranscripts = 10000;
constexpr int kMessagesEach = 100;
constexpr int kSmallFolder = 2000;  // the indexing benchmark's share

fs::path Root() {
  return fs::temp_directory_path() / "gabfolio-bench-search-1";
}

// Made-up words: syllables in a fixed order, rank 0 the most frequent.
std::vector<std::string> Vocabulary() {
  static const char* syllables[] = {"ka", "lo", "mi", "ra", "ten", "sho", "vu",  "bel", "dor",
                                    "an", "fi", "gu", "pe", "zo",  "ri",  "mun", "sa",  "te"};
  std::vector<std::string> words;
  for (int i = 0; words.size() < 30000; ++i) {
    std::string w;
    for (int n = i + 1; n > 0; n /= 18) w += syllables[n % 18];
    words.push_back(w);
  }
  // A few accented words among the frequent ones.
  words[40] = "caf\xC3\xA9";
  words[41] = "na\xC3\xAFve";
  words[42] =
      "\xC3\xBC"
      "ber";
  return words;
}

struct Corpus {
  std::vector<std::string> words;
  std::discrete_distribution<int> zipf;
  Corpus() : words(Vocabulary()) {
    std::vector<double> weights;
    for (size_t r = 0; r < words.size(); ++r) weights.push_back(1.0 / double(r + 1));
    zipf = std::discrete_distribution<int>(weights.begin(), weights.end());
  }
};

gab::samples::Chat MakeChat(Corpus& corpus, int n) {
  std::mt19937 rng(uint32_t(n) * 7919u + 1);
  gab::samples::Chat chat;
  chat.party = "person" + std::to_string(n % 300);
  chat.start = 1010000000.0 + n * 21600.0;  // 2002 onwards, four chats a day
  chat.iChat3 = n % 3 != 0;
  chat.others = {chat.party};
  for (int i = 0; i < kMessagesEach; ++i) {
    gab::samples::ChatLine line;
    line.account = i % 2 ? "me" : chat.party;
    line.minute = i * 0.5;
    int count = 4 + int(rng() % 13);
    for (int w = 0; w < count; ++w) {
      if (w) line.text += ' ';
      line.text += corpus.words[size_t(corpus.zipf(rng))];
    }
    chat.lines.push_back(std::move(line));
  }
  return chat;
}

fs::path Folder() {
  return Root() / "Documents/iChats";
}
fs::path SmallFolder() {
  return Root() / "small/Documents/iChats";
}

// The transcripts, written once (plain writes: nothing here needs fsync).
void EnsureTranscripts() {
  if (fs::exists(Root() / "transcripts-done")) return;
  fs::create_directories(Folder());
  fs::create_directories(SmallFolder());
  Corpus corpus;
  for (int n = 0; n < kTranscripts; ++n) {
    auto chat = MakeChat(corpus, n);
    std::string bytes = gab::samples::Archive(chat);
    std::string name = gab::samples::FileName(chat);
    std::ofstream(Folder() / name, std::ios::binary) << bytes;
    if (n < kSmallFolder) std::ofstream(SmallFolder() / name, std::ios::binary) << bytes;
  }
  std::ofstream(Root() / "transcripts-done") << "ok\n";
}

gab::SearchIndex& BigIndex() {
  static std::unique_ptr<gab::SearchIndex> index = [] {
    EnsureTranscripts();
    fs::create_directories(Root() / "Library/Gabfolio");
    auto idx = gab::SearchIndex::Open(gab::SearchIndexPath((Root() / "Library/Gabfolio").string()));
    idx->Sync(Folder().string());
    return idx;
  }();
  return *index;
}

void BM_IndexFolder2000(benchmark::State& state) {
  EnsureTranscripts();
  fs::path db = Root() / "small/index.sqlite";
  gab::SyncSummary s;
  for (auto _ : state) {
    state.PauseTiming();
    for (const char* suffix : {"", "-wal", "-shm"}) fs::remove(db.string() + suffix);
    state.ResumeTiming();
    auto index = gab::SearchIndex::Open(db.string());
    s = index->Sync(SmallFolder().string());
  }
  state.counters["transcripts"] = double(s.indexed);
  state.counters["messages"] = double(s.indexed * kMessagesEach);
}
BENCHMARK(BM_IndexFolder2000)->Unit(benchmark::kSecond)->Iterations(1);

// Nothing changed: the check a parser run or a search makes first.
void BM_SyncUnchanged10000(benchmark::State& state) {
  gab::SearchIndex& index = BigIndex();
  for (auto _ : state) benchmark::DoNotOptimize(index.Sync(Folder().string()));
}
BENCHMARK(BM_SyncUnchanged10000)->Unit(benchmark::kMillisecond);

struct QueryCase {
  const char* name;
  std::string text;
  std::string person;
  bool byRelevance = false;
  bool range = false;
};

const std::vector<QueryCase>& Queries() {
  static const std::vector<QueryCase> cases = [] {
    auto w = Vocabulary();
    return std::vector<QueryCase>{
        {"most_common_word", w[0], ""},
        {"common_word", w[20], ""},
        {"mid_word", w[500], ""},
        {"rare_word", w[20000], ""},
        {"two_words", w[30] + " " + w[300], ""},
        {"phrase", "\"" + w[0] + " " + w[1] + "\"", ""},
        {"prefix", w[7].substr(0, 3) + "*", ""},
        {"accent_folded", "cafe", ""},
        {"with_person", w[100], "person7"},
        {"date_range", w[100], "", false, true},
        {"relevance_mid_word", w[500], "", true},
        {"relevance_common_word", w[20], "", true},
    };
  }();
  return cases;
}

void BM_Search1M(benchmark::State& state) {
  gab::SearchIndex& index = BigIndex();
  const QueryCase& c = Queries()[size_t(state.range(0))];
  state.SetLabel(c.name);
  gab::SearchQuery q;
  q.text = c.text;
  q.person = c.person;
  q.byRelevance = c.byRelevance;
  if (c.range) {
    q.since = gab::ParseSearchDate("2003-06", false);
    q.until = gab::ParseSearchDate("2003-08", true);
  }
  size_t hits = 0;
  for (auto _ : state) hits = index.Search(q).size();
  state.counters["hits"] = double(hits);
  state.counters["indexed_messages"] = double(index.MessageCount());
}
BENCHMARK(BM_Search1M)->DenseRange(0, 11)->Unit(benchmark::kMillisecond);

// The chat page as the viewer serves it, transcript loading included (a new
// page set each time, so nothing is cached).
void BM_ChatPage10000(benchmark::State& state) {
  fs::path home = Root() / "large";
  fs::path folder = home / "iChats";
  std::string key = "Buddy on 2005-03-08 at 15.07.ichat";
  if (!fs::exists(folder / key)) {
    fs::create_directories(folder);
    std::ofstream(folder / key, std::ios::binary) << gab::fixtures::WriteTranscript(
        gab::bench::LargeTranscript(10000), gab::fixtures::Format::kKeyed);
  }
  std::string db = (home / "index.sqlite").string();
  gab::SearchIndex::Open(db)->Sync(folder.string());
  size_t bytes = 0;
  int status = 0;
  for (auto _ : state) {
    state.PauseTiming();
    auto pages = std::make_unique<gab::ReadingPages>(folder.string(), gab::SearchIndex::Open(db));
    state.ResumeTiming();
    gab::ViewerReply reply;
    pages->Serve("/chat", "t=" + gab::QueryValue(key), reply);
    bytes = reply.body.size();
    status = reply.status;
  }
  state.counters["page_bytes"] = double(bytes);
  if (status != 200) state.SkipWithError("the chat page was not served");
}
BENCHMARK(BM_ChatPage10000)->Unit(benchmark::kMillisecond);

}  // namespace
