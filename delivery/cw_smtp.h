#pragma once
// CWSMTP: an SMTP client in the shape of the mail library the product was
// built on.  connect() opens the TCP connection (with a time-out); the
// greeting, EHLO and STARTTLS follow on the calling thread's run loop; then
// authenticate() and sendMessage() run their exchanges and report through
// the delegate callbacks, which the run loop delivers on the same thread.
//
// TLS: STARTTLS whenever the server offers it, TLS from the first byte on
// port 465; certificates are verified against the system store (OpenSSL's
// default paths, so SSL_CERT_FILE and SSL_CERT_DIR apply) and the host name.
// Every read and write waits at most the time-out (60 s unless changed);
// running over it ends the transfer with connectionTimedOut.

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "delivery/cw_message.h"

namespace gab {

class RunLoop;

class CWSMTP {
 public:
  // The five notifications of the mail library.
  struct Delegate {
    std::function<void()> authenticationCompleted;
    std::function<void()> authenticationFailed;
    std::function<void()> messageSent;
    std::function<void()> messageNotSent;
    std::function<void()> connectionTimedOut;
  };

  // initWithName:port:.
  CWSMTP(std::string name, int port);
  ~CWSMTP();
  CWSMTP(const CWSMTP&) = delete;
  CWSMTP& operator=(const CWSMTP&) = delete;

  void setDelegate(Delegate delegate) { delegate_ = std::move(delegate); }
  void setMessage(CWMessage message) { message_ = std::move(message); }
  const std::optional<CWMessage>& message() const { return message_; }

  // Opens the connection (the greeting is read on the run loop); false with
  // the reason in `err` when the server cannot be reached.
  bool connect(std::string* err = nullptr);
  // Only the "LOGIN" mechanism is known; any other fails.
  void authenticate(std::string_view username, std::string_view password,
                    std::string_view mechanism);
  void sendMessage();
  // The last line of the server's last reply, without its CR LF.
  const std::string& lastResponse() const { return lastResponse_; }

  // Read, write and connect time-out in seconds (60 unless changed).
  void setTimeout(double seconds) { timeout_ = seconds; }
  // The time-out new clients start with (tests shorten it).
  static void SetDefaultTimeout(double seconds);
  // TLS from the first byte instead of STARTTLS; on by default for port 465.
  void setImplicitTLS(bool on) { implicitTLS_ = on; }
  bool isEncrypted() const;

 private:
  enum class State { kIdle, kConnected, kReady, kDone };
  struct Connection;
  class Failure;

  void Handshake();
  bool EnsureReady();
  void Finish(std::function<void()> Delegate::*callback);
  void Notify(std::function<void()> Delegate::*callback);
  void Close(bool sayQuit);

  // One exchange: send a command (unless empty), read the reply, return its
  // code (0 when the reply is malformed).
  int Command(std::string_view line);
  int ReadReply();
  void Send(std::string_view bytes);
  void StartTLS();
  bool Ehlo();

  std::string name_;
  int port_;
  double timeout_;
  bool implicitTLS_;
  State state_ = State::kIdle;
  Delegate delegate_;
  std::optional<CWMessage> message_;
  std::string lastResponse_;
  std::vector<std::string> replyLines_;  // every line of the reply being read
  std::vector<std::string> extensions_;  // EHLO keywords, upper case
  std::unique_ptr<Connection> connection_;
  RunLoop* loop_;
};

// The DATA stream of a message: line ends made CR LF, a leading "." doubled,
// and the terminating "CR LF . CR LF" appended.
std::string SMTPDataStream(std::string_view message);

}  // namespace gab
