#include "parser/transcript_mail.h"

#include "platform/preferences.h"
#include "transcript/chat_log.h"
#include "transcript/process_flags.h"

#if __has_include("delivery/transcript_mail.h")
#include "delivery/transcript_mail.h"
#define GAB_HAVE_TRANSCRIPT_MAIL 1
#endif

namespace gab::parser {

// A refused message ends the transfer through a callback too, so success is
// what the server said, not HandleEmailSending's answer.
bool MailTranscript(Preferences& prefs, ICLPChatLog& transcript, std::string* error) {
#ifdef GAB_HAVE_TRANSCRIPT_MAIL
  auto smtp = SMTPClientFor(TranscriptMail(transcript));
  bool stopped = transcript.HandleEmailSending(*smtp);
  if (!stopped && transcript.mailDelivered()) return true;
  if (error) {
    prefs.AppSynchronize();
    *error = stopped && !transcript.mailDelivered() && !keepRunning
                 ? "interrupted"
                 : prefs.String("reportThis").value_or("");
  }
  return false;
#else
  (void)prefs;
  (void)transcript;
  if (error) *error = "mail is not available in this build";
  return false;
#endif
}

}  // namespace gab::parser
