// The library pages at the size of a heavy, long-time user: 100,000 links
// and 20,000 images over years of chats.
#include <benchmark/benchmark.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>

#include "library/log_generator.h"
#include "library/stores.h"
#include "platform/dates.h"
#include "platform/files.h"
#include "testing/transcripts.h"

namespace gab {
namespace {

constexpr int kSpeakers = 60;
constexpr int kImages = 20000;
int kLinks = 100000;  // the store built for the next home

std::string Head() {
  return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n<array>\n";
}

// Records spread over six years, newest first within each speaker.
std::string LinkStore() {
  std::ostringstream x;
  x << Head();
  for (int s = 0; s < kSpeakers; ++s) {
    x << "<dict><key>speaker</key><string>Friend " << s << "</string><key>urls</key><array>\n";
    for (int i = 0; i < kLinks / kSpeakers; ++i) {
      long t = 1262300000L - long(i) * 1890 - s * 7;  // seconds since 2001
      Date d{double(t)};
      x << "<dict><key>date</key><date>" << FormatDate(Date{d.time}, "%Y-%m-%dT%H:%M:%SZ")
        << "</date><key>linkurl</key><string>http://www.example.com/articles/" << s << "/" << i
        << "/a-fairly-long-path-that-gets-shortened.html</string></dict>\n";
    }
    x << "</array></dict>\n";
  }
  x << "</array>\n</plist>\n";
  return x.str();
}

std::string ImageStore() {
  std::ostringstream x;
  x << Head();
  for (int s = 0; s < kSpeakers; ++s) {
    x << "<dict><key>speaker</key><string>Friend " << s << "</string><key>filenames</key><array>\n";
    for (int i = 0; i < kImages / kSpeakers; ++i) {
      long t = 1262300000L - long(i) * 9450 - s * 7;
      x << "<dict><key>date</key><date>" << FormatDate(Date{double(t)}, "%Y-%m-%dT%H:%M:%SZ")
        << "</date><key>filename</key><string>Images/photo" << i << "-Friend " << s
        << "-2009-12-31 12:00:00 -0500.jpg</string><key>width</key><integer>" << 640 - i % 3 * 200
        << "</integer><key>height</key><integer>480</integer></dict>\n";
    }
    x << "</array></dict>\n";
  }
  x << "</array>\n</plist>\n";
  return x.str();
}

// One home for the whole run; the zone is UTC so that the store dates above
// (formatted in the local zone) are the real UTC times.
struct BenchHome {
  BenchHome() {
    char tmpl[] = "/tmp/gabfolio-bench-XXXXXX";
    home = mkdtemp(tmpl);
    setenv("HOME", home.c_str(), 1);
    setenv("TZ", "UTC", 1);
    tzset();
    data = home + "/Library/Gabfolio";
    std::filesystem::create_directories(data + "/Images");
    for (const char* t : {"linktemplate.html", "imagetemplate.html"})
      std::filesystem::copy_file(std::string(GABFOLIO_SOURCE_DIR) + "/data/" + t, data + "/" + t);
    links = LinkStore();
    images = ImageStore();
    WriteFileAtomically(data + "/gatheredURLs.plist", links);
    WriteFileAtomically(data + "/gatheredImages.plist", images);
  }
  ~BenchHome() { std::filesystem::remove_all(home); }
  BenchHome(const BenchHome&) = delete;
  std::string home, data, links, images;
};

BenchHome& Home() {
  static BenchHome home;
  return home;
}

// A second, quarter-size link store, to see that the time grows linearly.
BenchHome& QuarterHome() {
  static std::unique_ptr<BenchHome> home = [] {
    Home();
    int full = kLinks;
    kLinks = full / 4;
    auto h = std::make_unique<BenchHome>();
    kLinks = full;
    return h;
  }();
  return *home;
}

void BM_RegenerateLinkPages(benchmark::State& state) {
  BenchHome& home = state.range(0) == kLinks ? Home() : QuarterHome();
  setenv("HOME", home.home.c_str(), 1);
  for (auto _ : state) GenerateLinkFiles(nullptr);
  state.SetItemsProcessed(state.iterations() * state.range(0));
  setenv("HOME", Home().home.c_str(), 1);
}
BENCHMARK(BM_RegenerateLinkPages)
    ->Arg(25000)
    ->Arg(100000)
    ->Unit(benchmark::kMillisecond)
    ->MeasureProcessCPUTime()
    ->UseRealTime();

void BM_RegenerateGallery(benchmark::State& state) {
  Home();
  for (auto _ : state) GenerateImageFiles(nullptr);
  state.SetItemsProcessed(state.iterations() * kImages);
}
BENCHMARK(BM_RegenerateGallery)
    ->Unit(benchmark::kMillisecond)
    ->MeasureProcessCPUTime()
    ->UseRealTime();

// A chat of 40 messages with 60 links merged into the 100,000-link store:
// read, merge, sort every list, save, and rebuild the pages.
void BM_MergeChatIntoLinkStore(benchmark::State& state) {
  BenchHome& home = Home();
  std::vector<std::shared_ptr<ICLPInstantMessage>> messages;
  for (int i = 0; i < 40; ++i) {
    std::vector<testing::Piece> pieces = {{u"have a look "},
                                          {u"here", testing::LinkString(u"http://example.org/x")}};
    if (i % 2) pieces.push_back({u" and there", testing::LinkString(u"http://example.net/y")});
    messages.push_back(
        testing::Said(i % 3 ? u"Friend 7" : u"New Friend", testing::March8(i), pieces));
  }
  auto chat = ICLPChatLog::FromParts(u"Friend 7", messages);
  for (auto _ : state) {
    state.PauseTiming();
    WriteFileAtomically(home.data + "/gatheredURLs.plist", home.links);
    state.ResumeTiming();
    GenerateLinkFiles(chat.get());
  }
}
BENCHMARK(BM_MergeChatIntoLinkStore)->Unit(benchmark::kMillisecond)->UseRealTime();

// The store side of that merge alone: load, merge, sort, serialise, write.
void BM_MergeOnlyIntoLinkStore(benchmark::State& state) {
  BenchHome& home = Home();
  std::vector<LinkEntry> entries;
  for (int i = 0; i < 40; ++i)
    entries.push_back(
        {i % 3 ? u"Friend 7" : u"New Friend", testing::March8(i), {u"http://example.org/x"}});
  for (auto _ : state) {
    state.PauseTiming();
    WriteFileAtomically(home.data + "/gatheredURLs.plist", home.links);
    state.ResumeTiming();
    PlistPtr store = LoadStore(LinkStorePath());
    MergeLinkEntries(store.get(), entries);
    SortEveryList(store.get(), "urls");
    WriteFileAtomically(LinkStorePath(), PlistToXml(store.get()));
  }
}
BENCHMARK(BM_MergeOnlyIntoLinkStore)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
}  // namespace gab
