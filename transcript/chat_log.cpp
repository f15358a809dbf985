#include "transcript/chat_log.h"

namespace gab {

ICLPChatLog::ICLPChatLog() = default;
ICLPChatLog::~ICLPChatLog() = default;

}  // namespace gab
