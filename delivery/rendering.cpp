#include "delivery/rendering.h"

#include "platform/contacts.h"
#include "platform/text.h"
#include "transcript/chat_log.h"

namespace gab {

std::u16string PlainChatLog(const ICLPChatLog& transcript) {
  // The header line has no line break of its own: the first message follows
  // on the same line, as it always has.
  Contacts::Hold contacts;
  std::u16string out = u"Sent by Gabfolio ( " + std::u16string(kProductWebPage) + u" )";
  for (const auto& message : transcript.Messages())
    if (message && !message->isStatusMessage()) out += message->PlainString();
  return out;
}

AttributedString RichChatLog(const ICLPChatLog& transcript) {
  Contacts::Hold contacts;
  AttributedString rich;
  rich.mutable_ = true;
  for (const auto& message : transcript.Messages()) {
    if (!message || message->isStatusMessage()) continue;
    rich.Append(message->LoggedString());
    rich.Append(u"<br>\n", nullptr);
  }
  rich.Append(
      u"<br><hr><i>Sent by <a href=\"" + std::u16string(kProductWebPage) + u"\">Gabfolio</a>.</i>",
      nullptr);
  return rich;
}

std::string HTMLChatLog(const ICLPChatLog& transcript) {
  return ToUtf8(rendering::HTMLDocument(RichChatLog(transcript)));
}

}  // namespace gab
