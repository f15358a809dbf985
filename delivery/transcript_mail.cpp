#include "delivery/transcript_mail.h"

#include "platform/preferences.h"
#include "transcript/chat_log.h"

namespace gab {

CWMessage TranscriptMail(ICLPChatLog& log) {
  auto& prefs = Preferences::Shared();
  std::u16string subject = log.subjectForEmail();
  return BuildMail(subject, prefs.String("emailOutgoing"), prefs.String("emailAddress"),
                   log.PlainChatLog(), log.HTMLChatLog());
}

bool SendTranscriptMail(ICLPChatLog& log) {
  auto smtp = SMTPClientFor(TranscriptMail(log));
  return log.HandleEmailSending(*smtp);
}

}  // namespace gab
