#include "delivery/transcript_mail.h"
#include "platform/preferences.h"

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

}  // namespace gab
