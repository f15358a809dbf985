#include "delivery/mail_layout.h"

#include "delivery/rendering.h"
#include "platform/dates.h"
#include "platform/preferences.h"
#include "platform/text.h"
#include "transcript/chat_log.h"

namespace gab {

CWMessage BuildMail(std::u16string_view subject, const std::optional<std::string>& from,
                    const std::optional<std::string>& to, std::u16string_view plain,
                    std::string html) {
  CWMessage message;
  message.setSubject(subject);
  CWInternetAddress sender(from);
  CWInternetAddress recipient(to);
  recipient.setType(CWInternetAddress::kTo);
  message.setFrom(sender);
  message.addRecipient(recipient);
  CWMIMEMultipart content;
  CWPart plainPart;
  plainPart.setContentType("text/plain");
  plainPart.setContent(plain);
  content.addPart(plainPart);
  CWPart htmlPart;
  htmlPart.setContentType("text/html");
  htmlPart.setContent(std::move(html));
  htmlPart.setCharset("utf-8");
  content.addPart(htmlPart);
  message.setContentType("multipart/alternative");
  message.setContentTransferEncoding(kEncodingNone);
  message.setCharset("utf-8");
  message.setContent(std::move(content));
  return message;
}

std::unique_ptr<CWSMTP> SMTPClientFor(CWMessage message) {
  auto& prefs = Preferences::Shared();
  auto smtp =
      std::make_unique<CWSMTP>(prefs.String("emailServer").value_or(""), prefs.Int("emailPort"));
  smtp->setMessage(std::move(message));
  return smtp;
}

std::u16string subjectForEmail(const ICLPChatLog& transcript) {
  auto& prefs = Preferences::Shared();
  bool unique = prefs.Bool("forceUniqueSubjects");
  int64_t number = prefs.Int("subjectNumber");
  const std::u16string& party = transcript.primaryOtherParty();
  if (!unique) return u"[IM] " + party;
  // The counter only keeps count; the date and time make the subject unique.
  prefs.SetAppValue("subjectNumber", PrefValue(number + 1));
  prefs.AppSynchronize();
  return u"[IM] " + party + u" (" + ToUtf16(FormatDate(Date::Now(), "%c")) + u")";
}

CWMessage TranscriptMail(const ICLPChatLog& transcript) {
  auto& prefs = Preferences::Shared();
  std::u16string subject = subjectForEmail(transcript);
  return BuildMail(subject, prefs.String("emailOutgoing"), prefs.String("emailAddress"),
                   PlainChatLog(transcript), HTMLChatLog(transcript));
}

}  // namespace gab
