#pragma once
// What a chat brought: its links and images, and the text logs they extend.

#include <string>
#include <vector>

#include "transcript/chat_log.h"

namespace gab {

// One entry per non-status message that holds links (images); messages whose
// sender has no name give nothing.
std::vector<LinkEntry> GatheredURLs(const ICLPChatLog& transcript);
std::vector<ImageEntry> GatheredImages(const ICLPChatLog& transcript);

// Appends one line per link (image) to the text log at `path`, in the line
// format of the preferences ("bookmarkEntry", "imageEntry").  Only logs in
// the data folder are extended.
void ExtendURLLog(const ICLPChatLog& transcript, const std::string& path);
void ExtendImageLog(const ICLPChatLog& transcript, const std::string& path);

}  // namespace gab
