#pragma once
// Safe HTML for the viewer's reading pages: every text and attribute is
// escaped, styles come only from the archive's font and colour attributes,
// and only http, https and mailto links are made clickable.  Chat text that
// looks like HTML stays text.

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "archive/object.h"

namespace gab {

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

}  // namespace gab
