// Decoding speed of the two archive formats on a large transcript:
// thousands of messages with styled runs, links and a few attachments.

#include <benchmark/benchmark.h>

#include <map>
#include <string>

#include "archive/keyed.h"
#include "archive/testing/fixture_writer.h"
#include "archive/typedstream.h"
#include "bench/large_transcript.h"
#include "transcript/instant_message.h"
#include "transcript/presentity.h"

namespace {

using gab::fixtures::Format;

const gab::ClassSubstitutions& Classes() {
  static const gab::ClassSubstitutions classes = {
      {"InstantMessage", gab::ICLPInstantMessage::InitWithCoder},
      {"Presentity", gab::ICLPPresentity::InitWithCoder},
      {"Person", gab::ICLPPerson::InitWithCoder},
  };
  return classes;
}

const std::string& Archive(Format f, int messages) {
  static std::map<std::pair<int, int>, std::string> cache;
  auto key = std::make_pair(static_cast<int>(f), messages);
  auto it = cache.find(key);
  if (it == cache.end()) {
    it =
        cache.emplace(key, gab::fixtures::WriteTranscript(gab::bench::LargeTranscript(messages), f))
            .first;
  }
  return it->second;
}

void Decode(benchmark::State& state, Format f) {
  const std::string& bytes = Archive(f, static_cast<int>(state.range(0)));
  for (auto _ : state) {
    gab::DecodeResult r = f == Format::kKeyed ? gab::DecodeKeyedArchive(bytes, Classes())
                                              : gab::DecodeTypedstream(bytes, Classes());
    if (!r.ok()) state.SkipWithError(r.error.c_str());
    benchmark::DoNotOptimize(r.root);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) *
                          static_cast<int64_t>(bytes.size()));
  state.counters["archive_bytes"] = static_cast<double>(bytes.size());
}

void BM_DecodeTypedstreamBigEndian(benchmark::State& state) {
  Decode(state, Format::kTypedstreamBigEndian);
}
void BM_DecodeTypedstreamLittleEndian(benchmark::State& state) {
  Decode(state, Format::kTypedstreamLittleEndian);
}
void BM_DecodeKeyed(benchmark::State& state) {
  Decode(state, Format::kKeyed);
}

BENCHMARK(BM_DecodeTypedstreamBigEndian)->Arg(5000)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_DecodeTypedstreamLittleEndian)->Arg(5000)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_DecodeKeyed)->Arg(5000)->Unit(benchmark::kMillisecond);

}  // namespace
