#include "delivery/mail_layout.h"

#include "delivery/rendering.h"
#include "platform/dates.h"
#include "platform/preferences.h"
#include "platform/text.h"
#include "transcript/chat_log.h"

namespace gab {
namespace {

// The two alternatives: the plain text, then the HTML.
CWMIMEMultipart AlternativeParts(std::u16string_view plain, std::string html) {
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
  return content;
}

}  // namespace

CWMessage BuildMail(std::u16string_view subject, const std::optional<std::string>& from,
                    const std::optional<std::string>& to, std::u16string_view plain,
                    std::string html) {
  CWInternetAddress recipient(to);
  recipient.setType(CWInternetAddress::kTo);
  return BuildMail(subject, CWInternetAddress(from), {recipient}, plain, std::move(html));
}

CWMessage BuildMail(std::u16string_view subject, CWInternetAddress from,
                    std::vector<CWInternetAddress> to, std::u16string_view plain, std::string html,
                    std::vector<CWPart> attachments) {
  CWMessage message;
  message.setSubject(subject);
  message.setFrom(std::move(from));
  for (auto& recipient : to) message.addRecipient(std::move(recipient));
  CWMIMEMultipart alternatives = AlternativeParts(plain, std::move(html));
  if (attachments.empty()) {
    message.setContentType("multipart/alternative");
    message.setCharset("utf-8");
    message.setContent(std::move(alternatives));
  } else {
    CWPart text;
    text.setContentType("multipart/alternative");
    text.setCharset("utf-8");
    text.setContent(std::move(alternatives));
    CWMIMEMultipart mixed;
    mixed.addPart(std::move(text));
    for (auto& part : attachments) mixed.addPart(std::move(part));
    message.setContentType("multipart/mixed");
    message.setContent(std::move(mixed));
  }
  message.setContentTransferEncoding(kEncodingNone);
  return message;
}

std::u16string subjectForEmail(const ICLPChatLog& transcript) {
  auto& prefs = Preferences::Shared();
  bool unique = prefs.Bool("forceUniqueSubjects");
  int64_t number = prefs.Int("subjectNumber");
  if (!unique) return PlainSubject(transcript);
  // The counter only keeps count; the date and time make the subject unique.
  prefs.SetAppValue("subjectNumber", PrefValue(number + 1));
  prefs.AppSynchronize();
  return u"[IM] " + transcript.primaryOtherParty() + u" (" +
         ToUtf16(FormatDate(Date::Now(), "%c")) + u")";
}

std::u16string PlainSubject(const ICLPChatLog& transcript) {
  return u"[IM] " + transcript.primaryOtherParty();
}

CWMessage TranscriptMail(const ICLPChatLog& transcript) {
  auto& prefs = Preferences::Shared();
  std::u16string subject = subjectForEmail(transcript);
  return BuildMail(subject, prefs.String("emailOutgoing"), prefs.String("emailAddress"),
                   PlainChatLog(transcript), HTMLChatLog(transcript));
}

}  // namespace gab
