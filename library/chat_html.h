#pragma once
// Safe HTML for the viewer's reading pages: every text and attribute is
// escaped, styles come only from the archive's font and colour attributes,
// and only http, https and mailto links are made clickable.  Chat text that
// looks like HTML stays text.

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "archive/object.h"
#include "platform/dates.h"

namespace gab {

class ICLPInstantMessage;

// Appends `text` (UTF-8) with & < > " ' escaped: safe in text and in quoted
// attribute values.
void AppendEscaped(std::string& out, std::string_view text);
std::string Escaped(std::string_view text);

// Percent-encodes everything but unreserved characters: safe as a query value.
std::string QueryValue(std::string_view text);

// True for an absolute http, https or mailto URL.
bool IsSafeLink(std::u16string_view url);

// The attachments of a message's text in order: the k-th is what the page's
// attachment number k names.  Entries may be null (an attachment without a
// file).
std::vector<std::shared_ptr<FileWrapper>> Attachments(const AttributedString& text);

// The MIME type of an attachment that a browser shows inline as an image
// (PNG, JPEG, GIF, WebP, BMP, judged by the bytes), or "".
std::string InlineImageType(std::string_view bytes);

// Plain text (UTF-8) as a page shows it: escaped, line ends as <br>.
void AppendTextHtml(std::string& out, std::string_view utf8);

// The body of a message as the chat page shows it: runs with bold, italics,
// colour and size as inline CSS, safe links as <a>, line ends as <br>, images
// inline and other attachments as downloads, each at `attachmentHref` plus
// its number.  "" when the body is just its text (AppendTextHtml of it).
std::string MessageBodyHtml(const AttributedString& text, std::string_view attachmentHref);
// The same, with the link to attachment number k (a regular file) made by
// `href` (a URL, not yet escaped for HTML).
using AttachmentHref = std::function<std::string(size_t k, const FileWrapper& file)>;
std::string MessageBodyHtml(const AttributedString& text, const AttachmentHref& href);

// The searchable text of a message: its characters with each attachment
// replaced by the attachment's file name and control characters but line
// ends by spaces.
std::u16string SearchableText(const ICLPInstantMessage& message);

// At most `units` UTF-16 units of a text's first line (an ellipsis marks a
// cut), as UTF-8.
std::string FirstLine(const std::u16string& text, size_t units);

// A message as the chat page shows it.
struct ChatMessage {
  enum Side { kUser = 0, kOther = 1, kStatus = 2 };
  int64_t position = 0;
  Date time;
  std::string speaker;
  Side side = kUser;
  std::string html;  // the body, safe to insert into a page
};

// The messages of a chat page: a heading for each day, then each message
// (anchor "m" and its position) with its time, speaker and body.
void AppendChatMessages(std::string& out, const std::vector<ChatMessage>& messages);

// The style sheet of the reading pages.
extern const char* const kReadingStyle;

}  // namespace gab
