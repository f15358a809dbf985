// The SMTP client against a real server on loopback.
#include "delivery/cw_smtp.h"

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include "delivery/run_loop.h"
#include "platform/text.h"
#include "testing/run_process.h"
#include "testing/smtp_server.h"

namespace gab {
namespace {

using testing::SmtpServer;

CWMessage SimpleMessage(std::u16string subject = u"Hello", std::string plain = "plain text\n",
                        std::string html = "<b>html</b>\n") {
  CWMessage m;
  m.setSubject(subject);
  m.setFrom(CWInternetAddress(std::string("Sender <sender@example.org>")));
  CWInternetAddress to(std::string("rcpt@example.org"));
  to.setType(CWInternetAddress::kTo);
  m.addRecipient(to);
  CWMIMEMultipart mp;
  CWPart p1;
  p1.setContentType("text/plain");
  p1.setContent(ToUtf16(plain));
  mp.addPart(p1);
  CWPart p2;
  p2.setContentType("text/html");
  p2.setContent(html);
  p2.setCharset("utf-8");
  mp.addPart(p2);
  m.setContentType("multipart/alternative");
  m.setContentTransferEncoding(0);
  m.setCharset("utf-8");
  m.setContent(mp);
  return m;
}

// Drives one transfer the way the mail code does and returns the callbacks
// in the order they came, or "unreachable" when connect() failed.  `login`:
// "user password [mechanism]", or none.
std::string Transfer(CWSMTP& smtp, const char* login) {
  std::string events;
  bool done = false;
  auto note = [&](const char* name, bool ends) {
    if (!events.empty()) events += ",";
    events += name;
    done = done || ends;
  };
  CWSMTP::Delegate d;
  d.authenticationCompleted = [&] {
    note("authenticationCompleted", false);
    smtp.sendMessage();
  };
  d.authenticationFailed = [&] { note("authenticationFailed", true); };
  d.messageSent = [&] { note("messageSent", true); };
  d.messageNotSent = [&] { note("messageNotSent", true); };
  d.connectionTimedOut = [&] { note("connectionTimedOut", true); };
  smtp.setDelegate(d);
  if (!smtp.connect()) return "unreachable";
  // Let the greeting be read first, as the one-second timer does.
  RunLoop::Current().RunOnce(RunLoop::Clock::now());
  if (!done) {
    if (login) {
      auto w = testing::Words(std::string(login) + " LOGIN");
      smtp.authenticate(w[0], w[1], w[2]);
    } else {
      smtp.sendMessage();
    }
  }
  auto limit = RunLoop::Clock::now() + std::chrono::seconds(30);
  while (!done && RunLoop::Clock::now() < limit)
    if (!RunLoop::Current().RunOnce(limit)) break;
  return events;
}

class SmtpTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!testing::HaveAiosmtpd()) GTEST_SKIP() << "python3-aiosmtpd is not installed";
    CWSMTP::SetDefaultTimeout(3.0);
  }
  void TearDown() override { CWSMTP::SetDefaultTimeout(60.0); }
};

TEST_F(SmtpTest, ConversationOutcomes) {
  const char* const kLogin = "--user anna --password s3cret";
  const struct {
    const char* name;
    const char* serverOptions;
    const char* login;
    const char* events;
    const char* lastResponse;  // its beginning; nullptr: not checked
    int delivered;
    const char* rejectReply = nullptr;
  } cases[] = {
      {"plain send", "", nullptr, "messageSent", "250 Message accepted", 1},
      {"login accepted", kLogin, "anna s3cret", "authenticationCompleted,messageSent", nullptr, 1},
      {"login rejected", kLogin, "anna wrong", "authenticationFailed", "535 ", 0},
      {"unknown mechanism", "", "a b CRAM-MD5", "authenticationFailed", nullptr, 0},
      {"rejected at DATA", "--mode reject", nullptr, "messageNotSent", "554 5.7.1 Message", 0},
      {"rejected at RCPT with a multi-line reply", "--mode reject --reject-at rcpt", nullptr,
       "messageNotSent", "550 5.1.1 no such user", 0, "550-first line\r\n550 5.1.1 no such user"},
      {"silent server", "--mode silent", nullptr, "connectionTimedOut", nullptr, 0},
      {"hang-up after the greeting", "--mode hangup", nullptr, "messageNotSent", "220 test", 0},
      {"endless line", "--mode flood", nullptr, "messageNotSent", nullptr, 0},
      {"reply that is not SMTP", "--mode garbled", nullptr, "messageNotSent", "hello there", 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    auto options = testing::Words(c.serverOptions);
    if (c.rejectReply) options.insert(options.end(), {"--reject-reply", c.rejectReply});
    SmtpServer server(options);
    ASSERT_NE(server.port(), 0);
    CWSMTP smtp("127.0.0.1", server.port());
    smtp.setMessage(SimpleMessage());
    EXPECT_EQ(Transfer(smtp, c.login), c.events);
    if (c.lastResponse) {
      EXPECT_TRUE(smtp.lastResponse().starts_with(c.lastResponse)) << smtp.lastResponse();
    }
    EXPECT_EQ(server.MessageCount(), c.delivered);
    if (c.login && c.delivered) {
      EXPECT_EQ(server.Message(1, "auth_user"), "anna");
    }
  }
}

int UnusedPort() {
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a);
  socklen_t len = sizeof a;
  getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len);
  int port = ntohs(a.sin_port);
  close(fd);
  return port;
}

TEST(SmtpConnect, UnreachableServersFailAtConnect) {
  struct Case {
    std::string host;
    int port;
  } cases[] = {{"127.0.0.1", UnusedPort()},
               {"", 25},
               {"127.0.0.1", 0},
               {"127.0.0.1", 70000},
               {"no-such-host.invalid", 25}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.host + ":" + std::to_string(c.port));
    CWSMTP smtp(c.host, c.port);
    EXPECT_FALSE(smtp.connect());
    EXPECT_FALSE(RunLoop::Current().HasSources());  // nothing will ever be reported
  }
}

TEST_F(SmtpTest, TLS) {
  const char* kLocal = "DNS:localhost,IP:127.0.0.1";
  const struct {
    const char* name;
    const char* subjectAltName;  // of the server's certificate
    bool trustTheTestAuthority, implicitTLS;
    const char* login;
    const char* events;
  } cases[] = {
      {"STARTTLS with the test authority", kLocal, true, false, "anna s3cret",
       "authenticationCompleted,messageSent"},
      // Untrusted: nothing is sent, and above all not the password.
      {"STARTTLS without the test authority", kLocal, false, false, "anna s3cret",
       "messageNotSent"},
      {"STARTTLS to a certificate for another host", "DNS:mail.example.org", true, false, nullptr,
       "messageNotSent"},
      {"implicit TLS", kLocal, true, true, nullptr, "messageSent"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    testing::TestCertificates certs(c.subjectAltName);
    ASSERT_TRUE(certs.ok()) << "openssl could not make the test certificates";
    std::vector<std::string> args = {"--cert", certs.cert(), "--key", certs.key()};
    if (c.login) args.insert(args.end(), {"--user", "anna", "--password", "s3cret"});
    if (c.implicitTLS) args.push_back("--implicit-tls");
    SmtpServer server(args);
    ASSERT_NE(server.port(), 0);
    // OpenSSL's default verify paths.
    if (c.trustTheTestAuthority) setenv("SSL_CERT_FILE", certs.ca().c_str(), 1);
    CWSMTP smtp("localhost", server.port());
    smtp.setImplicitTLS(c.implicitTLS);
    smtp.setMessage(SimpleMessage());
    EXPECT_EQ(Transfer(smtp, c.login), c.events);
    unsetenv("SSL_CERT_FILE");
    bool sent = std::string(c.events).ends_with("messageSent");
    EXPECT_EQ(server.MessageCount(), sent ? 1 : 0);
    if (sent) {
      EXPECT_EQ(server.Message(1, "tls"), "yes");
    }
  }
}

TEST_F(SmtpTest, BodiesArriveIntactWhateverTheirLines) {
  // Lines starting with dots, bare CRs and LFs, a line far past 998 octets,
  // non-ASCII text and "=" signs.
  std::string longLine(5000, 'x');
  std::string plain = ".\n..leading dots\r\nbare\rCR\n" + longLine + "\nend = é\n";
  std::string html = "<p>" + longLine + "</p>\n.<br>\n=3D \xe2\x82\xac\n";
  SmtpServer server;
  ASSERT_NE(server.port(), 0);
  CWSMTP smtp("127.0.0.1", server.port());
  smtp.setMessage(SimpleMessage(u"Dots", plain, html));
  ASSERT_EQ(Transfer(smtp, nullptr), "messageSent");
  std::string raw = server.Message(1, "raw");
  size_t start = 0;
  while (start < raw.size()) {
    size_t end = raw.find("\r\n", start);
    if (end == std::string::npos) end = raw.size();
    EXPECT_LE(end - start, 998u);
    start = end + 2;
  }
  // Text parts come out with CR LF line ends, whatever went in.
  EXPECT_EQ(server.Message(1, "part-0.body"),
            ".\r\n..leading dots\r\nbare\r\nCR\r\n" + longLine + "\r\nend = \xc3\xa9\r\n");
  EXPECT_EQ(server.Message(1, "part-1.body"),
            "<p>" + longLine + "</p>\r\n.<br>\r\n=3D \xe2\x82\xac\r\n");
}

TEST(SmtpData, StuffingAndLineEnds) {
  struct Case {
    std::string in, out;
  } cases[] = {
      {"", ".\r\n"},
      {"a", "a\r\n.\r\n"},
      {"a\r\n", "a\r\n.\r\n"},
      {".", "..\r\n.\r\n"},
      {"a\n.b\n..c\r\n.", "a\r\n..b\r\n...c\r\n..\r\n.\r\n"},
      {"a\rb\n\nc", "a\r\nb\r\n\r\nc\r\n.\r\n"},
      {"x.y\n", "x.y\r\n.\r\n"},
  };
  for (const auto& c : cases) EXPECT_EQ(SMTPDataStream(c.in), c.out) << c.in;
}

}  // namespace
}  // namespace gab
