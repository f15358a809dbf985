#include "delivery/welcome_email.h"

#include <string>

#include "delivery/cw_smtp.h"
#include "delivery/mail_layout.h"
#include "delivery/mail_session.h"
#include "delivery/rendering.h"
#include "platform/preferences.h"
#include "platform/text.h"

namespace gab {

namespace {

constexpr std::u16string_view kWelcomePlain =
    u"Welcome to Gabfolio!\n"
    u"\n"
    u"From now on, every instant-message conversation you hold in iChat is sent to your "
    u"e-mail in a message like this one. Images and links that people send you are gathered "
    u"in your Gabfolio library, and statistics about your chatting are gathered as well. "
    u"There is nothing else to do: Gabfolio works quietly in the background.\n"
    u"\n"
    u"To add your existing iChat logs to the library, use the separate Gabfolio archiving "
    u"tool.\n"
    u"\n"
    u"Thanks for trying Gabfolio!\n";

std::string WelcomeHTML() {
  const std::string home = ToUtf8(kProductWebPage);
  const std::string support = home + "support/";
  return "<html>\n"
         "<h3>Welcome to Gabfolio! Every chat you have, kept and easy to find.</h3>\n"
         "From now on, every instant-message conversation you hold in iChat is sent to your "
         "e-mail in a message like this one. Images and links that people send you are gathered "
         "in your Gabfolio library, and statistics about your chatting are gathered as well. "
         "There is nothing else to do: Gabfolio works quietly in the background whenever iChat "
         "saves a chat. The statistics are for your personal viewing only: no information is "
         "ever shared outside your computer.\n"
         "<h3>Tips for Using Gabfolio</h3>\n"
         "<ul>\n"
         "<li>To view your library, open System Preferences and choose the Gabfolio pane; it leads "
         "to your gathered links, your image gallery and your chat statistics.\n"
         "<li>Every mail's subject begins with \"[IM]\" followed by the other person's name, so "
         "the rules of your mail program can sort your chats into folders.\n"
         "<li>Send these mails to a web-based mail account, and you can read your chats from "
         "anywhere, even when you are away from your own computer.\n"
         "</ul>\n"
         "To add your existing iChat logs to the library, use the separate Gabfolio archiving "
         "tool. It works in the background and may take several hours, so it is best started "
         "overnight.\n"
         "<h3>Technical Support</h3>\n"
         "If a problem occurs, Gabfolio alerts you with a small window, and the full error text "
         "is shown in the Gabfolio preference pane. The usual cause is a mail server that cannot "
         "be reached; that does not stop the archiving of your chats: links, images and "
         "statistics are still gathered, and the next chats are mailed once the server can be "
         "reached again.\n"
         "If you need help, please contact us through our <a href=\"" +
         support +
         "\">support form</a>.\n"
         "When you write, please attach the text of your system's Console log (Applications "
         "&gt; Utilities &gt; Console), which tells us what happened and helps us answer you "
         "quickly.\n"
         "Thanks for trying Gabfolio!\n"
         "<a href=\"" +
         home + "\">" + home +
         "</a>\n"
         "</html>\n";
}

}  // namespace

void SendWelcomingEmail() {
  auto& prefs = Preferences::Shared();
  // Read in the order the pane's keys are documented.
  std::optional<std::string> to = prefs.String("emailAddress");
  std::optional<std::string> from = prefs.String("emailOutgoing");
  prefs.Bool("handleURLs");
  prefs.Bool("handleImages");
  if (!prefs.Bool("sendEmails")) return;
  std::optional<std::string> server = prefs.String("emailServer");
  int port = prefs.Int("emailPort");

  MailSession session;
  CWMessage message =
      BuildMail(u"[IM] Welcome to Gabfolio!", from, to, kWelcomePlain, WelcomeHTML());
  CWSMTP smtp(server.value_or(""), port);
  smtp.setMessage(std::move(message));
  session.HandleEmailSending(smtp);
}

}  // namespace gab
