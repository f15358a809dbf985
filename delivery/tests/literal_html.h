#pragma once
// The HTML rendering done the literal way: copy the text into the page, then
// insert every tag at the position the index table tracks.  Quadratic; kept
// as the reference the one-pass rendering must match byte for byte.

#include <string>
#include <vector>

#include "delivery/rendering.h"

namespace gab::testing {

inline std::u16string LiteralHTMLDocument(const AttributedString& rich) {
  using namespace rendering;
  const std::u16string& source = rich.text;
  const int32_t n = int32_t(source.size());
  std::u16string doc(kHTMLHead);
  std::vector<int32_t> table(size_t(n) + 1);
  for (int32_t i = 0; i <= n; ++i) table[size_t(i)] = int32_t(kHTMLHead.size()) + i;
  doc += source;

  std::vector<EffectiveRun> runs = EffectiveRuns(rich);
  size_t location = 0, length = 0, next = 0;
  while (location + length < size_t(n)) {
    // The attributes at (location + length) and their effective range.
    while (next < runs.size() && runs[next].location + runs[next].length <= location + length)
      ++next;
    const EffectiveRun& run = runs[next];
    location = run.location;
    length = run.length;
    RunMarkup markup = MarkupFor(run.attributes);
    for (const auto& [open, close] : markup.tags) {
      InsertStringAndTrackIndices(doc, table, open, int32_t(location), n + 1);
      InsertStringAndTrackIndices(doc, table, close, int32_t(location + length), n + 1);
    }
    if (markup.attachmentLabel) {
      doc[size_t(table[location])] = u' ';
      InsertStringAndTrackIndices(doc, table, *markup.attachmentLabel, int32_t(location), n + 1);
    }
  }
  doc += kHTMLTail;
  return doc;
}

}  // namespace gab::testing
