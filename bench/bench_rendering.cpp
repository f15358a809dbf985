// Rendering a long transcript: the one-pass HTML rendering against the
// literal insertion algorithm it replaces, and the plain rendering.
#include <benchmark/benchmark.h>

#include <random>

#include "delivery/rendering.h"
#include "delivery/tests/literal_html.h"
#include "delivery/tests/rendering_helpers.h"
#include "transcript/chat_log.h"

namespace gab {
namespace {

std::unique_ptr<ICLPChatLog> LongTranscript(int messages) {
  std::mt19937 rng(1);
  std::vector<std::shared_ptr<ICLPInstantMessage>> list;
  for (int i = 0; i < messages; ++i) {
    auto m = std::make_shared<ICLPInstantMessage>();
    m->speaker = std::make_shared<ICLPPresentity>();
    m->speaker->protocol = u"Jabber";
    m->speaker->name = i % 2 ? u"Anna" : u"Ben";
    m->string = std::make_shared<AttributedString>(testing::RandomAttributedString(rng, 3));
    list.push_back(m);
  }
  return ICLPChatLog::FromParts(u"Anna", std::move(list));
}

void BM_HTMLChatLog(benchmark::State& state) {
  auto log = LongTranscript(int(state.range(0)));
  size_t bytes = 0;
  for (auto _ : state) {
    std::string html = HTMLChatLog(*log);
    bytes = html.size();
    benchmark::DoNotOptimize(html);
  }
  state.counters["messages"] = double(state.range(0));
  state.counters["bytes"] = double(bytes);
}
BENCHMARK(BM_HTMLChatLog)->Arg(1000)->Arg(10000)->Unit(benchmark::kMillisecond)->Repetitions(3);

// For the record: the literal algorithm on the same text (quadratic).
void BM_HTMLLiteralInsertion(benchmark::State& state) {
  auto log = LongTranscript(int(state.range(0)));
  AttributedString rich = RichChatLog(*log);
  for (auto _ : state) benchmark::DoNotOptimize(testing::LiteralHTMLDocument(rich));
  state.counters["messages"] = double(state.range(0));
}
BENCHMARK(BM_HTMLLiteralInsertion)
    ->Arg(1000)
    ->Arg(10000)
    ->Unit(benchmark::kMillisecond)
    ->Iterations(1)
    ->Repetitions(3);

void BM_PlainChatLog(benchmark::State& state) {
  auto log = LongTranscript(int(state.range(0)));
  for (auto _ : state) benchmark::DoNotOptimize(PlainChatLog(*log));
  state.counters["messages"] = double(state.range(0));
}
BENCHMARK(BM_PlainChatLog)->Arg(10000)->Unit(benchmark::kMillisecond)->Repetitions(3);

}  // namespace
}  // namespace gab
