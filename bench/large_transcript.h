#pragma once
// A large transcript for the benchmarks: `count` messages between two people
// with styled runs, links of both kinds and a few attachments.

#include <string>

#include "archive/testing/fixture_writer.h"
#include "platform/text.h"

namespace gab::bench {

inline fixtures::Transcript LargeTranscript(int count) {
  using namespace fixtures;

  Transcript t;
  Speaker me{u"AIM", u"myhandle"}, other{u"AIM", u"buddy42"};
  t.participants = {other};
  const std::u16string words[] = {u"hello ", u"how are you ", u"see this ", u"lol ", u"ok then "};
  for (int i = 0; i < count; ++i) {
    Message m;
    m.speaker = (i % 2) ? me : other;
    m.time = Date{130000000.0 + 30.0 * i};
    TextRun plain;
    plain.text = words[i % 5] + words[(i + 2) % 5] + words[(i + 3) % 5];
    plain.fontName = u"Helvetica";
    plain.fontSize = 12;
    plain.rgb = std::array<double, 3>{0.1960784346, 0.3098039329, 0.521568656};
    m.runs.push_back(plain);
    if (i % 3 == 0) {
      TextRun link;
      link.text = u"http://example.com/page/" + ToUtf16(std::to_string(i));
      link.fontName = u"Helvetica";
      link.link.emplace(link.text, (i % 2) == 0);
      m.runs.push_back(link);
    }
    TextRun bold;
    bold.text = u" and more words in bold";
    bold.fontName = u"Helvetica-Bold";
    bold.white = 0;
    m.runs.push_back(bold);
    if (i % 100 == 99) {
      TextRun att;
      att.attachment =
          Attachment{u"photo" + ToUtf16(std::to_string(i)) + u".jpg", std::string(1024, 'x')};
      m.runs.push_back(att);
    }
    t.messages.push_back(std::move(m));
  }
  return t;
}

}  // namespace gab::bench
