#pragma once
// One mail transfer: hands the client's message to the server and waits,
// running the thread's run loop, until a callback of the client ends it.

#include <memory>
#include <string>

#include "delivery/cw_smtp.h"
#include "transcript/chat_log.h"

namespace gab {

class MailSession {
 public:
  // Sends the client's message; false when the transfer ended through a
  // callback, true when it could not start or was stopped.
  bool HandleEmailSending(CWSMTP& smtp);
  // True when the last transfer ended with the server accepting the message.
  bool mailDelivered() const { return delivered_; }

  // The client's callbacks.
  void emailReady(CWSMTP& smtp);
  void authenticationCompleted();
  void authenticationFailed();
  void messageSent();
  void messageNotSent();
  void connectionTimedOut();

 private:
  CWSMTP* smtp_ = nullptr;  // the client of the transfer under way; not owned
  bool done_ = false;
  bool result_ = false;
  bool delivered_ = false;
};

// The client for the server the preferences name, holding the message.
std::unique_ptr<CWSMTP> SMTPClientFor(CWMessage message);

// Mails the transcript (its mail layout, to the server of the preferences):
// true when the server accepted it; otherwise false, and `err` holds the
// short reason the error reporting stored in "reportThis" ("interrupted"
// when a termination signal stopped the transfer).
bool MailTranscript(const ICLPChatLog& transcript, std::string* err);

}  // namespace gab
