#include "library/gathering.h"

namespace gab {

std::vector<LinkEntry> GatheredURLs(const ICLPChatLog& transcript) {
  std::vector<LinkEntry> entries;
  entries.reserve(10);
  for (const auto& message : transcript.Messages()) {
    if (!message || message->isStatusMessage()) continue;
    if (auto entry = message->allURLs()) entries.push_back(std::move(*entry));
  }
  return entries;
}

std::vector<ImageEntry> GatheredImages(const ICLPChatLog& transcript) {
  std::vector<ImageEntry> entries;
  entries.reserve(10);
  for (const auto& message : transcript.Messages()) {
    if (!message || message->isStatusMessage()) continue;
    if (auto entry = message->allImages()) entries.push_back(std::move(*entry));
  }
  return entries;
}

}  // namespace gab
