#pragma once
// Safe HTML for the viewer's reading pages: every text and attribute is
// escaped, styles come only from the archive's font and colour attributes,
// and only http, https and mailto links are made clickable.  Chat text that
// looks like HTML stays text.

#include <functional>
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

// The message text as HTML: runs with bold, italics, colour and size as
// inline CSS, safe links as <a>, line ends as <br>, and each attachment as
// whatever `attachment(k, file)` makes of it.
using AttachmentHtml = std::function<void(std::string& out, size_t k, const FileWrapper* file)>;
void AppendMessageHtml(std::string& out, const AttributedString& text,
                       const AttachmentHtml& attachment);

}  // namespace gab
