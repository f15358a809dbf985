#pragma once
// The byte stream between the SMTP client and the server: TCP, with TLS on
// request.  It lives in the mail module (Poco's sockets and OpenSSL), loaded
// only when a mail is sent.
#include <memory>
#include <string>
#include <string_view>

namespace gab {

enum class TransportStatus { kOk, kTimedOut, kFailed };

class MailTransport {
 public:
  virtual ~MailTransport() = default;
  // Writes all of `bytes`.
  virtual TransportStatus Send(std::string_view bytes) = 0;
  // Reads what has arrived, at most `size` bytes; none read means the server
  // hung up.
  virtual TransportStatus Receive(char* buffer, size_t size, size_t* received) = 0;
  // Turns the connection into TLS, verifying the server's certificate
  // against the system store and `host`.
  virtual TransportStatus StartTLS(const std::string& host) = 0;
  virtual void SetSendTimeout(double seconds) = 0;
  virtual bool secure() const = 0;
};

struct MailModule {
  // Connects to `host`:`port`, waiting at most `timeout` seconds for this
  // and for every later read and write.  Null on failure, with `status`
  // telling a time-out from other failures (the reason in `err`).
  std::unique_ptr<MailTransport> (*connect)(const std::string& host, int port, double timeout,
                                            TransportStatus* status, std::string* err);
};
inline constexpr const char* kMailModuleFile = "gabfolio-mail.so";
inline constexpr const char* kMailModuleEntry = "gabfolio_mail_module";

}  // namespace gab
