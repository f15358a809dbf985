#include "delivery/rendering.h"

#include "platform/text.h"
#include "transcript/chat_log.h"

namespace gab {

std::u16string ICLPChatLog::PlainChatLog() const {
  // The header line has no line break of its own: the first message follows
  // on the same line, as it always has.
  std::u16string out = u"Sent by Gabfolio ( " + std::u16string(kProductWebPage) + u" )";
  for (const auto& message : messages_)
    if (message && !message->isStatusMessage()) out += message->PlainString();
  return out;
}

AttributedString ICLPChatLog::RichChatLog() const {
  AttributedString rich;
  rich.mutable_ = true;
  for (const auto& message : messages_) {
    if (!message || message->isStatusMessage()) continue;
    rich.Append(message->LoggedString());
    rich.Append(u"<br>\n", nullptr);
  }
  rich.Append(
      u"<br><hr><i>Sent by <a href=\"" + std::u16string(kProductWebPage) + u"\">Gabfolio</a>.</i>",
      nullptr);
  return rich;
}

std::string ICLPChatLog::HTMLChatLog() const {
  return ToUtf8(rendering::HTMLDocument(RichChatLog()));
}

}  // namespace gab
