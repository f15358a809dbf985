// Queries over a loaded transcript: name resolution through the contacts,
// word counts, and the link walk.  Runs in a temporary HOME.

#include <benchmark/benchmark.h>

#include <string>

#include "archive/testing/fixture_writer.h"
#include "bench/large_transcript.h"
#include "platform/text.h"
#include "testing/temp_home.h"
#include "transcript/chat_log.h"

namespace gab {
namespace {

const std::string kBook = "Library/Application Support/AddressBook/";

// Removed again when the process exits.
testing::TempHome& Home() {
  static testing::TempHome home("bench");
  static bool written = [] {
    testing::TempHome* h = &home;
    std::string cards;
    for (int i = 0; i < 2000; ++i) {
      std::string n = std::to_string(i);
      cards += "BEGIN:VCARD\r\nVERSION:3.0\r\nN:Last" + n + ";First" + n +
               ";;;\r\nFN:First Last\r\nitem1.EMAIL;type=INTERNET:x" + n +
               "@example.org\r\nX-AIM;type=HOME;type=pref:buddy" + n + "\r\nEND:VCARD\r\n";
    }
    h->Write(kBook + "Contacts.vcf", cards);
    h->Write(kBook + "Me.vcf", "BEGIN:VCARD\nN:Lee;Anna\nX-AIM:annalee\nEND:VCARD\n");
    return true;
  }();
  (void)written;
  return home;
}

std::shared_ptr<ICLPPresentity> Participant(std::u16string protocol, std::u16string name) {
  auto p = std::make_shared<ICLPPresentity>();
  p->protocol = std::move(protocol);
  p->name = std::move(name);
  return p;
}

// A chat of `count` messages alternating between a buddy and the user, each
// with twenty words and two links in styled runs.
std::unique_ptr<ICLPChatLog> Chat(int count) {
  auto buddy = Participant(u"AIM", u"buddy1999");
  auto me = Participant(u"AIM", u"annalee");
  std::vector<std::shared_ptr<ICLPInstantMessage>> messages;
  for (int i = 0; i < count; ++i) {
    auto text = std::make_shared<AttributedString>();
    auto link = std::make_shared<Dictionary>();
    link->entries.emplace_back(
        std::make_shared<String>(u"NSLink"),
        std::make_shared<String>(u"http://example.org/" + ToUtf16(std::to_string(i))));
    text->Append(u"lol this is a line of chat text with some words ", nullptr);
    text->Append(u"http://example.org/", link);
    text->Append(u" and brb more words here  damn it\nok ", nullptr);
    text->Append(u"link", link);
    auto m = std::make_shared<ICLPInstantMessage>();
    m->speaker = i % 2 ? buddy : me;
    m->string = text;
    m->timestamp = Date{double(i)};
    messages.push_back(m);
  }
  return ICLPChatLog::FromParts(u"First1999 Last1999", std::move(messages), {buddy});
}

void BM_NameOfBuddy(benchmark::State& state) {
  Home();
  auto buddy = Participant(u"AIM", u"buddy1999");
  for (auto _ : state) benchmark::DoNotOptimize(buddy->Name());
}
BENCHMARK(BM_NameOfBuddy);

void BM_CountWordsSixSeparately(benchmark::State& state) {
  Home();
  auto chat = Chat(int(state.range(0)));
  const WordSet curses = {u"damn"}, slang = {u"lol", u"brb"};
  for (auto _ : state) {
    benchmark::DoNotOptimize(chat->CountWordsForUserInSet(nullptr));
    benchmark::DoNotOptimize(chat->CountWordsForOthersInSet(nullptr));
    benchmark::DoNotOptimize(chat->CountWordsForUserInSet(&curses));
    benchmark::DoNotOptimize(chat->CountWordsForOthersInSet(&curses));
    benchmark::DoNotOptimize(chat->CountWordsForUserInSet(&slang));
    benchmark::DoNotOptimize(chat->CountWordsForOthersInSet(&slang));
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_CountWordsSixSeparately)->Arg(5000);

void BM_CountWordsOnePass(benchmark::State& state) {
  Home();
  auto chat = Chat(int(state.range(0)));
  const WordSet curses = {u"damn"}, slang = {u"lol", u"brb"};
  for (auto _ : state) benchmark::DoNotOptimize(chat->CountWords(&curses, &slang));
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_CountWordsOnePass)->Arg(5000);

void BM_AllURLs(benchmark::State& state) {
  Home();
  auto chat = Chat(int(state.range(0)));
  for (auto _ : state)
    for (const auto& m : chat->Messages()) benchmark::DoNotOptimize(m->allURLs());
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_AllURLs)->Arg(5000);

// Whole loads from a file: read, decode, class substitution, shape check.
void LoadFile(benchmark::State& state, fixtures::Format format, const char* extension) {
  testing::TempHome& home = Home();
  const std::string name = std::string("buddy42 on 2005-03-01.") + extension;
  const std::string bytes =
      fixtures::WriteTranscript(bench::LargeTranscript(int(state.range(0))), format);
  home.Write(name, bytes);
  for (auto _ : state) {
    auto log = ICLPChatLog::InitWithFilePath(home.path() + "/" + name);
    if (!log) state.SkipWithError("the transcript did not load");
    benchmark::DoNotOptimize(log);
  }
  state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(bytes.size()));
  state.SetItemsProcessed(state.iterations() * state.range(0));
}

void BM_LoadiChat2File(benchmark::State& state) {
  LoadFile(state, fixtures::Format::kTypedstreamBigEndian, "chat");
}
BENCHMARK(BM_LoadiChat2File)->Arg(5000);

void BM_LoadiChat3File(benchmark::State& state) {
  LoadFile(state, fixtures::Format::kKeyed, "ichat");
}
BENCHMARK(BM_LoadiChat3File)->Arg(5000);

}  // namespace
}  // namespace gab
