// Weak stand-ins for the message queries the transcript branch implements, so
// the library tests link before it lands; the real definitions win when present.
#include "transcript/instant_message.h"

namespace gab {

__attribute__((weak)) bool ICLPInstantMessage::isStatusMessage() const {
  return true;
}
__attribute__((weak)) std::optional<LinkEntry> ICLPInstantMessage::allURLs() const {
  return {};
}
__attribute__((weak)) std::optional<ImageEntry> ICLPInstantMessage::allImages() const {
  return {};
}

}  // namespace gab
