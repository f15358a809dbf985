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

// The text of a message's runs, attachments left out.
std::u16string PlainText(const Message& m);

// Colour components as NSColor's keyed coder writes them: "%.10g" numbers
// separated by spaces, ended by a NUL.
std::string ComponentText(const std::vector<double>& values);

// Every distinct speaker, messages first, then participants.
std::vector<Speaker> UniqueSpeakers(const Transcript& t);

// A NeXT serialized property list holding one UTF-16 string (type 6) with
// a byte-order mark of the given order; words are little-endian.
std::string SerializeNeXTString(const std::u16string& s, bool bigEndianText);

std::string WriteTypedstreamTranscript(const Transcript& t, bool bigEndian);
std::string WriteKeyedTranscript(const Transcript& t);

}  // namespace gab::fixtures
