#pragma once
// Internals shared by the two transcript writers.

#include <string>
#include <vector>

#include "archive/testing/fixture_writer.h"

namespace gab::fixtures {

// A message's runs after merging neighbours with equal attributes; runs
// with equal attributes share one dictionary (`dict`, numbered from 0 in
// order of first use; `fresh` on its first use).
struct PlannedRun {
  const TextRun* run;
  uint32_t length;
  size_t dict;
  bool fresh;
};
std::vector<PlannedRun> PlanRuns(const Message& m, std::u16string& text, size_t& dictCount);

// Colour components as NSColor's keyed coder writes them: "%.10g" numbers
// separated by spaces, ended by a NUL.
std::string ComponentText(const std::vector<double>& values);

// Every distinct speaker, messages first, then participants.
std::vector<Speaker> UniqueSpeakers(const Transcript& t);

std::string WriteTypedstreamTranscript(const Transcript& t, bool bigEndian);
std::string WriteKeyedTranscript(const Transcript& t);

}  // namespace gab::fixtures
