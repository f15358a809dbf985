#pragma once
// A real SMTP server on loopback (testing/smtp_server.py, aiosmtpd), a test
// certificate authority made with openssl, and readers for what arrived.

#include <sys/types.h>

#include <string>
#include <utility>
#include <vector>

namespace gab::testing {

bool HaveAiosmtpd();

class SmtpServer {
 public:
  // Starts the server with the script's options ("--mode", "reject", ...);
  // port() is 0 when it did not start.
  explicit SmtpServer(std::vector<std::string> args = {});
  ~SmtpServer();
  SmtpServer(const SmtpServer&) = delete;
  SmtpServer& operator=(const SmtpServer&) = delete;

  // Stop() and Start() again keep the port and the messages; SetArgs
  // changes the options the next Start() gives (a server that refused,
  // taking mail on the same port).
  bool Start();
  void SetArgs(std::vector<std::string> args) { args_ = std::move(args); }
  void Stop();
  int port() const { return port_; }

  int MessageCount() const;
  // A file the server wrote for its n-th accepted message (from 1):
  // "raw", "subject", "part-0.body", ... (see the script).
  std::string Message(int n, const std::string& file) const;
  // Connections the silent server accepted.
  int Connections() const;

 private:
  std::vector<std::string> args_;
  std::string out_;
  pid_t pid_ = -1;
  int stdin_ = -1;
  int port_ = 0;
};

// The value of a header ("Subject") of a raw message, unfolded; "" when absent.
std::string Header(const std::string& raw, const std::string& name);

// A certificate authority and a server certificate for `names` (a
// subjectAltName list), made with openssl in a temporary folder.
class TestCertificates {
 public:
  explicit TestCertificates(const std::string& names = "DNS:localhost,IP:127.0.0.1");
  ~TestCertificates();
  bool ok() const { return ok_; }
  std::string ca() const { return dir_ + "/ca.pem"; }
  std::string cert() const { return dir_ + "/server.pem"; }
  std::string key() const { return dir_ + "/server.key"; }

 private:
  std::string dir_;
  bool ok_ = false;
};

}  // namespace gab::testing
