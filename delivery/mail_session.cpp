#include "delivery/mail_session.h"

#include <string>

#include "delivery/cw_smtp.h"
#include "delivery/mail_layout.h"
#include "delivery/run_loop.h"
#include "platform/log.h"
#include "platform/preferences.h"
#include "platform/report_error.h"
#include "platform/text.h"
#include "transcript/process_flags.h"

namespace gab {

namespace {

// The server's last reply read as 16-bit units, low byte first; an odd last
// byte is dropped.  Units that no property-list text can hold (controls
// other than tab, the two non-characters, lone surrogates) become "?" so that
// the stored report reads back exactly as logged.
std::u16string ResponseAsUnits(const std::string& bytes) {
  std::u16string text;
  text.reserve(bytes.size() / 2);
  for (size_t i = 0; i + 1 < bytes.size(); i += 2)
    text += char16_t(uint8_t(bytes[i]) | (uint16_t(uint8_t(bytes[i + 1])) << 8));
  for (size_t i = 0; i < text.size(); ++i) {
    char16_t& u = text[i];
    bool high = u >= 0xD800 && u <= 0xDBFF, low = u >= 0xDC00 && u <= 0xDFFF;
    if (high && i + 1 < text.size() && text[i + 1] >= 0xDC00 && text[i + 1] <= 0xDFFF) {
      ++i;  // a proper pair
    } else if (high || low || (u < 0x20 && u != u'\t' && u != u'\n') || u == 0xFFFE ||
               u == 0xFFFF) {
      u = u'?';
    }
  }
  return text;
}

}  // namespace

bool MailSession::HandleEmailSending(CWSMTP& smtp) {
  smtp_ = &smtp;
  done_ = false;
  result_ = false;
  delivered_ = false;
  if (diagnosticLogging) NSLog("preparing to email with pantomime");

  smtp.setDelegate(CWSMTP::Delegate{
      [this] { authenticationCompleted(); },
      [this] { authenticationFailed(); },
      [this] { messageSent(); },
      [this] { messageNotSent(); },
      [this] { connectionTimedOut(); },
  });

  if (!smtp.connect()) {
    NSLog("Unable to connect to mail server.");
    reportError(ErrorCode::kMail, u"SMTP unreachable");
    return true;
  }

  // A second's grace lets the run loop read the greeting before anything is
  // sent.
  RunLoop& loop = RunLoop::Current();
  loop.ScheduleTimer(
      1.0, [this, &smtp] { emailReady(smtp); }, &smtp);

  while (!done_) {
    if (!keepRunning) {
      loop.CancelAll(&smtp);
      return true;
    }
    if (!loop.RunOnce()) {
      NSLog("Error waiting for email transmission runloop.");
      reportError(ErrorCode::kInternal, u"runloop error");
      done_ = true;
      result_ = true;
    }
  }
  // Nothing of this transfer may fire later, in someone else's wait.
  loop.CancelAll(&smtp);
  return result_;
}

void MailSession::emailReady(CWSMTP& smtp) {
  auto& prefs = Preferences::Shared();
  bool needsUsername = prefs.Int("emailNeedsUsername") != 0;
  std::string username = prefs.String("emailUsername").value_or("");
  std::string password = prefs.String("emailPassword").value_or("");
  if (needsUsername) {
    smtp.authenticate(username, password, "LOGIN");  // continues in authenticationCompleted
  } else {
    smtp.sendMessage();
  }
}

void MailSession::authenticationCompleted() {
  if (smtp_) smtp_->sendMessage();
}

void MailSession::authenticationFailed() {
  NSLog("The SMTP server rejected the username/password.");
  reportError(ErrorCode::kLogin, u"login rejected");
  done_ = true;
}

void MailSession::messageSent() {
  done_ = true;
  delivered_ = true;
}

void MailSession::messageNotSent() {
  NSLog("An error occurred while sending email:");
  std::u16string response = ResponseAsUnits(smtp_ ? smtp_->lastResponse() : std::string());
  NSLog(ToUtf8(response));
  reportError(ErrorCode::kMail, response);
  done_ = true;
}

void MailSession::connectionTimedOut() {
  NSLog("The attempt to send email timed out.");
  reportError(ErrorCode::kMail, u"server not responding");
  done_ = true;
}

std::unique_ptr<CWSMTP> SMTPClientFor(CWMessage message) {
  auto& prefs = Preferences::Shared();
  auto smtp =
      std::make_unique<CWSMTP>(prefs.String("emailServer").value_or(""), prefs.Int("emailPort"));
  smtp->setMessage(std::move(message));
  return smtp;
}

// A refused message ends the transfer through a callback too, so success is
// what the server said, not HandleEmailSending's answer.
bool MailTranscript(const ICLPChatLog& transcript, std::string* err) {
  auto smtp = SMTPClientFor(TranscriptMail(transcript));
  MailSession session;
  bool stopped = session.HandleEmailSending(*smtp);
  if (!stopped && session.mailDelivered()) return true;
  if (err) {
    auto& prefs = Preferences::Shared();
    prefs.AppSynchronize();
    *err = stopped && !keepRunning ? "interrupted" : prefs.String("reportThis").value_or("");
  }
  return false;
}

}  // namespace gab
