#include "parser/transcript_mail.h"

#include <variant>

#include "platform/preferences.h"
#include "transcript/chat_log.h"

#if __has_include("delivery/transcript_mail.h")
#include "delivery/transcript_mail.h"
#define GAB_HAVE_TRANSCRIPT_MAIL 1
#endif

namespace gab::parser {

// HandleEmailSending answers only whether the transfer ran to a callback, and
// a refused message ends in a callback as well.  Every failure, though, is
// reported, and a report stores "emailFails" back as the integer it read.  So
// before sending, this process's copy of "emailFails" is given the same
// count as a real number: every reader sees the same count (values are read
// as integers), a report turns it back into an integer, a sent message
// leaves the real in place.
bool MailTranscript(Preferences& prefs, ICLPChatLog& transcript, std::string* error) {
#ifdef GAB_HAVE_TRANSCRIPT_MAIL
  auto smtp = SMTPClientFor(TranscriptMail(transcript));
  prefs.SetAppValue("emailFails", double(prefs.Int("emailFails")));
  bool stopped = transcript.HandleEmailSending(*smtp);
  auto marker = prefs.CopyAppValue("emailFails");
  bool reported = !marker || !std::holds_alternative<double>(*marker);
  if (!reported) prefs.SetAppValue("emailFails", int64_t(prefs.Int("emailFails")));
  if (!stopped && !reported) return true;
  if (error) *error = reported ? prefs.String("reportThis").value_or("") : "interrupted";
  return false;
#else
  (void)prefs;
  (void)transcript;
  if (error) *error = "mail is not available in this build";
  return false;
#endif
}

}  // namespace gab::parser
