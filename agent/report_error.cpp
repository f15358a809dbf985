#include "transcript/chat_log.h"

namespace gab {

void ICLPChatLog::reportError(int, std::u16string_view) {}

}  // namespace gab
