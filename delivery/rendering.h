#pragma once
// The three renderings of a transcript (rendering.cpp) and their building
// blocks (html_document.cpp).

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "archive/object.h"
#include "transcript/chat_log.h"

namespace gab {

// The transcript as plain text: a header, then every non-status message.
std::u16string PlainChatLog(const ICLPChatLog& transcript);
// The transcript as styled text, each message followed by "<br>\n", with
// the product's footer.
AttributedString RichChatLog(const ICLPChatLog& transcript);
// RichChatLog as an HTML document, UTF-8.
std::string HTMLChatLog(const ICLPChatLog& transcript);

// The product's web page, named in every rendering's header or footer.
inline constexpr std::u16string_view kProductWebPage = u"https://gabfolio.example.org/";

// Inserts `text` into `document` at the position held in indices[which] and
// adds its length to entries which .. count-1, the entry itself included:
// repeated insertions at one entry come out in call order.  Out-of-range
// arguments insert nothing.
void InsertStringAndTrackIndices(std::u16string& document, std::vector<int32_t>& indices,
                                 std::u16string_view text, int32_t which, int32_t count);

namespace rendering {

inline constexpr std::u16string_view kHTMLHead =
    u"<html><head><title>Gabfolio log</title></head><body>";
inline constexpr std::u16string_view kHTMLTail = u"</body></html>";

// An attribute run as the attributed string reports it: adjacent runs with
// equal dictionaries form one run; text past the stored runs has none.
struct EffectiveRun {
  size_t location = 0;
  size_t length = 0;
  const Dictionary* attributes = nullptr;  // null: no attributes
};
std::vector<EffectiveRun> EffectiveRuns(const AttributedString& text);

// What a run contributes to the HTML: opening and closing tags in the order
// the keys are visited (link, font, colour), and for an attachment the
// bracketed label that stands before the space replacing its character.
struct RunMarkup {
  std::vector<std::pair<std::u16string, std::u16string>> tags;
  std::optional<std::u16string> attachmentLabel;
};
RunMarkup MarkupFor(const Dictionary* attributes);

// The HTML document for an attributed text, in one pass: each run's closing
// tags, then the next run's opening tags and label, then its characters.
std::u16string HTMLDocument(const AttributedString& rich);

}  // namespace rendering
}  // namespace gab
