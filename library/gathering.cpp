#include "transcript/chat_log.h"

namespace gab {

std::vector<LinkEntry> ICLPChatLog::GatheredURLs() const {
  std::vector<LinkEntry> entries;
  entries.reserve(10);
  for (const auto& message : messages_) {
    if (!message || message->isStatusMessage()) continue;
    if (auto entry = message->allURLs()) entries.push_back(std::move(*entry));
  }
  return entries;
}

std::vector<ImageEntry> ICLPChatLog::GatheredImages() const {
  std::vector<ImageEntry> entries;
  entries.reserve(10);
  for (const auto& message : messages_) {
    if (!message || message->isStatusMessage()) continue;
    if (auto entry = message->allImages()) entries.push_back(std::move(*entry));
  }
  return entries;
}

}  // namespace gab
