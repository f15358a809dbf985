#pragma once
#include "transcript/chat_log.h"

namespace gab {

// Whether the chat of `transcript` has ended: the chat client is not running,
// or none of its windows is this chat's.  An unanswered window query counts
// as "not ended", so a chat is never released early.
bool isLikelyEndOfChat(const ICLPChatLog& transcript);

}  // namespace gab
