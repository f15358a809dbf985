#include <string>

#include "delivery/cw_smtp.h"
#include "delivery/run_loop.h"
#include "platform/dates.h"
#include "platform/log.h"
#include "platform/preferences.h"
#include "platform/text.h"
#include "transcript/chat_log.h"
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

bool ICLPChatLog::HandleEmailSending(CWSMTP& smtp) {
  smtp_ = &smtp;
  mailTransmissionDone_ = false;
  mailResult_ = false;
  mailDelivered_ = false;
  if (diagnosticLogging) NSLog("preparing to email with pantomime");

  smtp.setDelegate(CWSMTP::Delegate{
      [this] { authenticationCompleted(); },
      [this] { authenticationFailed(); },
      [this] { messageSent(); },
      [this] { messageNotSent(); },
      [this] { connectionTimedOut(); },
  });

  if (smtp.connect() != 0) {
    NSLog("Unable to connect to mail server.");
    reportError(2, u"SMTP unreachable");
    return true;
  }

  // A second's grace lets the run loop read the greeting before anything is
  // sent.
  RunLoop& loop = RunLoop::Current();
  loop.ScheduleTimer(
      1.0, [this, &smtp] { emailReady(smtp); }, &smtp);

  while (!mailTransmissionDone_) {
    if (!keepRunning) {
      loop.CancelAll(&smtp);
      return true;
    }
    if (!loop.RunOnce()) {
      NSLog("Error waiting for email transmission runloop.");
      reportError(4, u"runloop error");
      mailTransmissionDone_ = true;
      mailResult_ = true;
    }
  }
  // Nothing of this transfer may fire later, in someone else's wait.
  loop.CancelAll(&smtp);
  return mailResult_;
}

void ICLPChatLog::emailReady(CWSMTP& smtp) {
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

void ICLPChatLog::authenticationCompleted() {
  if (smtp_) smtp_->sendMessage();
}

void ICLPChatLog::authenticationFailed() {
  NSLog("The SMTP server rejected the username/password.");
  reportError(3, u"login rejected");
  mailTransmissionDone_ = true;
}

void ICLPChatLog::messageSent() {
  mailTransmissionDone_ = true;
  mailDelivered_ = true;
}

void ICLPChatLog::messageNotSent() {
  NSLog("An error occurred while sending email:");
  std::u16string response = ResponseAsUnits(smtp_ ? smtp_->lastResponse() : std::string());
  NSLog(ToUtf8(response));
  reportError(2, response);
  mailTransmissionDone_ = true;
}

void ICLPChatLog::connectionTimedOut() {
  NSLog("The attempt to send email timed out.");
  reportError(2, u"server not responding");
  mailTransmissionDone_ = true;
}

std::u16string ICLPChatLog::subjectForEmail() {
  auto& prefs = Preferences::Shared();
  bool unique = prefs.Bool("forceUniqueSubjects");
  int64_t number = prefs.Int("subjectNumber");
  if (!unique) return u"[IM] " + primaryOtherParty_;
  // The counter only keeps count; the date and time make the subject unique.
  prefs.SetAppValue("subjectNumber", PrefValue(number + 1));
  prefs.AppSynchronize();
  return u"[IM] " + primaryOtherParty_ + u" (" + ToUtf16(FormatDate(Date::Now(), "%c")) + u")";
}

}  // namespace gab
