#include "transcript/end_of_chat.h"

#include <array>
#include <string>

#include "platform/chat_windows.h"
#include "platform/log.h"
#include "transcript/process_flags.h"

namespace gab {

// A chat counts as going on while the chat client shows a window for it.
// Nothing here looks at times: iChat keeps rewriting the transcript while the
// window stays open, and a closed window is the only sure sign of the end.
bool isLikelyEndOfChat(const ICLPChatLog& transcript) {
  if (!iChatRunning) return true;

  if (transcript.NumberOfSpeakers() > 2) {
    // A group chat's window title names no single party; any open window
    // keeps it counted as running.
    NSLog("multiparty chat, checking documents");
    auto titles = CurrentChatWindows().WindowTitles();
    if (!titles) return false;  // unanswered: never release a chat early
    return titles->empty();
  }

  auto titles = CurrentChatWindows().WindowTitles();
  if (!titles) return false;
  const std::u16string& party = transcript.primaryOtherParty();
  const std::array<std::u16string, 4> ongoing = {
      u"Chatting with " + party + u" et al.",
      u"Instant Messages with " + party,
      u"Chatting with " + party,
      u"Chat with " + party,
  };
  for (const std::u16string& title : *titles)
    for (const std::u16string& candidate : ongoing)
      if (TitlesEqualIgnoringCase(title, candidate)) return false;
  return true;
}

}  // namespace gab
