#include "parser/transcript_mail.h"

#include "platform/preferences.h"
#include "transcript/chat_log.h"

namespace gab::parser {

bool MailTranscript(Preferences&, ICLPChatLog&, std::string* error) {
  if (error) *error = "mail is not available in this build";
  return false;
}

}  // namespace gab::parser
