#include "library/viewer.h"

#include <Poco/Net/HTTPClientSession.h>
#include <Poco/Net/HTTPRequest.h>
#include <Poco/Net/HTTPResponse.h>
#include <Poco/StreamCopier.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "library/log_generator.h"
#include "library/tests/store_pages.h"
#include "platform/text.h"

namespace gab {
namespace {

using testing::LibraryHome;

// What a browser puts on the wire for an href: non-ASCII characters as
// percent-encoded UTF-8, and the few ASCII ones a path may not hold.
std::string AsBrowserSends(std::u16string_view href) {
  std::string out;
  for (unsigned char c : ToUtf8(href)) {
    if (c >= 0x80 || c <= 0x20 ||
        std::string_view("\"#<>?`{}").find(char(c)) != std::string_view::npos || c == 0x7F) {
      char buf[4];
      snprintf(buf, sizeof buf, "%%%02X", c);
      out += buf;
    } else {
      out += char(c);
    }
  }
  return out;
}

TEST(Viewer, DecodesTheProductsOwnEscaping) {
  struct {
    std::string raw;
    std::optional<std::u16string> decoded;
  } cases[] = {
      {"Links.html", u"Links.html"},
      {"bob%20smith.html", u"bob smith.html"},
      {"Images%2Fphoto%2Ejpg", u"Images/photo.jpg"},
      {"%q9.html", u"\u03a9.html"},  // the first digit of a unit above 0xFF
      {"%%C9%81C", u"\u20ac"},       // ... which the browser sent as UTF-8
      {"%%600", u"\u0290"},          // ... or percent-encoded ASCII
      {"%25", u"%"},
      {"%", std::nullopt},
      {"%4g", std::nullopt},  // our digits are upper case
      {"%%ZZ0", std::nullopt},
  };
  for (const auto& c : cases) EXPECT_EQ(DecodeLibraryPath(c.raw), c.decoded) << c.raw;
}

TEST(Viewer, EveryEscapedNameComesBackWhole) {
  std::vector<std::u16string> names = {
      u"bob smith",        u"../x",     u"a/b", u"J\u00fcrgen M\u00fcller", u"\u674e\u96f7",
      u"emoji \U0001F600", u"100% `{}`"};
  std::u16string all;
  for (char16_t c = 1; c < 0x600; ++c) all += c;
  names.push_back(all);
  names.push_back(u"\uFFFF\uE000\u0800\u1000");
  for (const auto& name : names) {
    std::u16string href = stringWithFunkyURLStuffInserted(name);
    EXPECT_EQ(DecodeLibraryPath(AsBrowserSends(href)), name) << ToUtf8(name);
  }
}

class ViewerFolder : public ::testing::Test {
 protected:
  void SetUp() override {
    home.Put("Links.html", "<p>links</p>");
    home.Put("bob smith.html", "bob");
    home.Put("Images/photo-Ann-2005-03-08 15:07:42 -0500.jpg", "\xFF\xD8\xFFjpeg");
    home.Put("Images/Ann-T.image", "\x89PNG....");
    home.Put("Images/topimages/01.png", "\x89PNG....");
    std::ofstream(home.path() + "/secret.txt") << "secret";
    symlink((home.path() + "/secret.txt").c_str(), (home.data() + "/link.html").c_str());
    symlink(home.path().c_str(), (home.data() + "/Images/up").c_str());
  }
  LibraryHome home;
};

TEST_F(ViewerFolder, ServesOnlyRegularFilesInsideTheFolder) {
  struct {
    std::string target;
    int status;
    std::string type;
  } cases[] = {
      {"/", 301, ""},
      {"/Links.html", 200, "text/html; charset=utf-8"},
      {"/bob%20smith.html", 200, "text/html; charset=utf-8"},
      {"/Images%2Fphoto%2DAnn%2D2005%2D03%2D08%2015%3A07%3A42%20%2D0500%2Ejpg", 200, "image/jpeg"},
      {"/Images%2FAnn%2DT%2Eimage", 200, "image/png"},
      {"/Images/topimages/01.png", 200, "image/png"},
      {"/Images", 403, ""},
      {"/%2E%2E%2Fsecret%2Etxt", 403, ""},
      {"/../secret.txt", 403, ""},
      {"/Images//topimages/01.png", 403, ""},
      {"/link.html", 404, ""},
      {"/Images/up/secret.txt", 404, ""},
      {"/%00", 403, ""},
      {"relative", 404, ""},
  };
  for (const auto& c : cases) {
    LibraryFile f = ResolveLibraryRequest(home.data(), c.target);
    EXPECT_EQ(f.status, c.status) << c.target;
    if (c.status == 200) {
      EXPECT_EQ(f.contentType, c.type) << c.target;
    }
  }
  EXPECT_EQ(ResolveLibraryRequest(home.data(), "/bob%20smith.html").body, "bob");
}

TEST_F(ViewerFolder, AnswersOverHttpOnLoopbackReadOnly) {
  LibraryViewer viewer(home.data(), 0);
  ASSERT_TRUE(viewer.ok()) << viewer.error();
  ASSERT_GT(viewer.port(), 0);
  auto request = [&](const std::string& method, const std::string& path,
                     std::string* body = nullptr) {
    Poco::Net::HTTPClientSession session("127.0.0.1", viewer.port());
    Poco::Net::HTTPRequest req(method, path, Poco::Net::HTTPMessage::HTTP_1_1);
    session.sendRequest(req);
    Poco::Net::HTTPResponse res;
    std::istream& in = session.receiveResponse(res);
    std::string text;
    Poco::StreamCopier::copyToString(in, text);
    if (body) *body = text;
    EXPECT_EQ(res.get("Content-Security-Policy", ""), "script-src 'none'");
    return int(res.getStatus());
  };
  std::string body;
  EXPECT_EQ(request("GET", "/bob%20smith.html", &body), 200);
  EXPECT_EQ(body, "bob");
  EXPECT_EQ(request("HEAD", "/Links.html", &body), 200);
  EXPECT_EQ(body, "");
  EXPECT_EQ(request("GET", "/%2E%2E%2Fsecret%2Etxt"), 403);
  EXPECT_EQ(request("PUT", "/Links.html"), 405);
  EXPECT_EQ(request("DELETE", "/Links.html"), 405);
  EXPECT_EQ(home.Get("Links.html"), "<p>links</p>");
}

}  // namespace
}  // namespace gab
