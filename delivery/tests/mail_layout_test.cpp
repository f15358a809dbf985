// What arrives at the server: the welcome mail and a transcript's mail.
#include "delivery/mail_layout.h"

#include <gtest/gtest.h>

#include <regex>

#include "delivery/cw_smtp.h"
#include "delivery/mail_session.h"
#include "delivery/welcome_email.h"
#include "platform/text.h"
#include "testing/run_process.h"
#include "testing/smtp_server.h"
#include "testing/temp_home.h"
#include "testing/transcripts.h"
#include "transcript/chat_log.h"

namespace gab {
namespace {

using testing::Header;
using testing::ReadPref;
using testing::ResetPrefs;
using testing::SmtpServer;

class MailLayoutTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!testing::HaveAiosmtpd()) GTEST_SKIP() << "python3-aiosmtpd is not installed";
    CWSMTP::SetDefaultTimeout(3.0);
  }
  void TearDown() override { CWSMTP::SetDefaultTimeout(60.0); }
};

std::map<std::string, PrefValue> MailPrefs(int port) {
  return {{"sendEmails", true},
          {"emailServer", std::string("127.0.0.1")},
          {"emailPort", int64_t(port)},
          {"emailAddress", std::string("Zoë Example <zoe@example.org>")},
          {"emailOutgoing", std::string("gabfolio@example.org")}};
}

// Checks the parts of a stored message: multipart/alternative, plain then
// HTML, the HTML in UTF-8.
void ExpectLayout(const SmtpServer& server, const std::string& plainCharset) {
  std::string raw = server.Message(1, "raw");
  EXPECT_EQ(Header(raw, "MIME-Version"), "1.0");
  std::smatch m;
  std::string type = Header(raw, "Content-Type");
  ASSERT_TRUE(std::regex_match(
      type, m, std::regex(R"re(multipart/alternative; charset="utf-8";\tboundary="([^"]+)")re")))
      << type;
  std::string boundary = m[1];
  // Exactly two parts and the closing delimiter.
  EXPECT_EQ(testing::CountOf(raw, "\r\n--" + boundary + "\r\n"), 2);
  EXPECT_NE(raw.find("\r\n--" + boundary + "--\r\n"), std::string::npos);
  EXPECT_EQ(server.Message(1, "part-0.type"), "text/plain");
  EXPECT_EQ(server.Message(1, "part-0.charset"), plainCharset);
  EXPECT_EQ(server.Message(1, "part-1.type"), "text/html");
  EXPECT_EQ(server.Message(1, "part-1.charset"), "utf-8");
  EXPECT_EQ(server.Message(1, "mail_from"), "gabfolio@example.org");
  EXPECT_EQ(server.Message(1, "rcpt_tos"), "zoe@example.org");
  EXPECT_EQ(Header(raw, "From"), "<gabfolio@example.org>");
  EXPECT_EQ(Header(raw, "To"), "=?utf-8?B?Wm/DqyBFeGFtcGxl?= <zoe@example.org>");
}

TEST_F(MailLayoutTest, WelcomeMail) {
  SmtpServer server;
  ASSERT_NE(server.port(), 0);
  ResetPrefs(MailPrefs(server.port()));
  SendWelcomingEmail();
  ASSERT_EQ(server.MessageCount(), 1);
  ExpectLayout(server, "us-ascii");
  EXPECT_EQ(Header(server.Message(1, "raw"), "Subject"), "[IM] Welcome to Gabfolio!");

  // Plain paragraphs; HTML without head, body or paragraph tags, its text
  // escaped.
  EXPECT_TRUE(server.Message(1, "part-0.body").starts_with("Welcome to Gabfolio!\r\n\r\n"));
  std::string html = server.Message(1, "part-1.body");
  EXPECT_TRUE(html.starts_with("<html>\r\n<h3>") && html.ends_with("</a>\r\n</html>\r\n"));
  for (const char* absent : {"<head", "<body", "<p>", "<br", "</li>"})
    EXPECT_EQ(html.find(absent), std::string::npos) << absent;
  EXPECT_NE(html.find("Applications &gt; Utilities &gt; Console"), std::string::npos);
}

TEST_F(MailLayoutTest, NoWelcomeMailWhenMailIsOff) {
  // A server that counts connections: none may be made.
  SmtpServer server({"--mode", "silent"});
  ASSERT_NE(server.port(), 0);
  for (auto off : {PrefValue(false), PrefValue(std::string("NO")), PrefValue(int64_t(0))}) {
    auto prefs = MailPrefs(server.port());
    prefs["sendEmails"] = off;
    ResetPrefs(prefs);
    ::testing::internal::CaptureStderr();
    SendWelcomingEmail();
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
  }
  auto prefs = MailPrefs(server.port());
  prefs.erase("sendEmails");
  ResetPrefs(prefs);
  SendWelcomingEmail();
  usleep(200000);
  EXPECT_EQ(server.Connections(), 0);
  EXPECT_FALSE(ReadPref("reportThis").has_value());
}

TEST_F(MailLayoutTest, TranscriptMail) {
  SmtpServer server;
  ASSERT_NE(server.port(), 0);
  ResetPrefs(MailPrefs(server.port()));
  auto log =
      ICLPChatLog::FromParts(u"Zoë", {testing::Said(u"Zoë", Date{0}, {{u".hi ☃ <i>there</i>"}})});
  EXPECT_TRUE(MailTranscript(*log, nullptr));
  ASSERT_EQ(server.MessageCount(), 1);
  ExpectLayout(server, "utf-8");
  EXPECT_EQ(Header(server.Message(1, "raw"), "Subject"), "=?utf-8?B?W0lNXSBab8Or?=");
  EXPECT_EQ(server.Message(1, "subject"), "[IM] Zoë");
  EXPECT_EQ(server.Message(1, "part-0.body"),
            "Sent by Gabfolio ( https://gabfolio.example.org/ )Zoë: .hi ☃ <i>there</i>\r\n");
  EXPECT_EQ(server.Message(1, "part-1.body"),
            "<html><head><title>Gabfolio log</title></head><body>"
            "<font face=\"Helvetica-Bold\" point-size=\"12\">Zoë</font>: .hi ☃ <i>there</i>\r\n"
            "\r\n<br>\r\n<br><hr><i>Sent by <a href=\"https://gabfolio.example.org/\">Gabfolio"
            "</a>.</i></body></html>");
}

TEST_F(MailLayoutTest, HeaderValuesAreEncodedWhenNeeded) {
  struct Case {
    std::u16string subject;
    std::string header;
  } cases[] = {
      {u"[IM] Anna", "[IM] Anna"},
      {u"[IM] Anna\r\nBcc: x@example.org", "=?utf-8?B?W0lNXSBBbm5hDQpCY2M6IHhAZXhhbXBsZS5vcmc=?="},
      {u"[IM] \U0001F600", "=?utf-8?B?W0lNXSDwn5iA?="},
  };
  for (const auto& c : cases)
    EXPECT_EQ(mime::EncodeHeaderValue(ToUtf8(c.subject)), c.header) << ToUtf8(c.subject);
  // Long values are split into words of at most 75 characters, never inside
  // a character.
  std::string longSubject;
  for (int i = 0; i < 100; ++i) longSubject += "é";
  std::string encoded = mime::EncodeHeaderValue(longSubject);
  size_t start = 0;
  int words = 0;
  while (start <= encoded.size()) {
    size_t end = encoded.find("\r\n ", start);
    std::string word = encoded.substr(start, end == std::string::npos ? end : end - start);
    EXPECT_LE(word.size(), 75u);
    EXPECT_TRUE(word.starts_with("=?utf-8?B?") && word.ends_with("?="));
    ++words;
    if (end == std::string::npos) break;
    start = end + 3;
  }
  EXPECT_EQ(words, 5);  // 200 bytes in pieces of at most 44
}

}  // namespace
}  // namespace gab
