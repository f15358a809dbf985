#include <Poco/Net/HTTPClientSession.h>
#include <Poco/Net/HTTPRequest.h>
#include <Poco/Net/HTTPResponse.h>
#include <Poco/StreamCopier.h>
#include <gtest/gtest.h>
#include <signal.h>

#include "library/tests/test_home.h"
#include "tool/tests/run_tool.h"

namespace gab {
namespace {

TEST(ViewCommand, RebuildsThenServesTheLibraryUntilStopped) {
  testing::TestHome home;
  unsetenv("DISPLAY");
  unsetenv("WAYLAND_DISPLAY");
  home.Put("linktemplate.html", "<h1>____NAME</h1><ul>____CONTENTS</ul>____LINKS");
  home.Put("gatheredURLs.plist",
           testing::LinkStoreXml({{"bob smith", {{"2005-03-08T20:07:42Z", "http://a/"}}}}));
  ASSERT_EQ(testing::RunTool({"rebuild"}).status, 0);
  ASSERT_TRUE(home.Has("bob smith.html"));

  int out[2];
  ASSERT_EQ(pipe2(out, O_CLOEXEC), 0);
  pid_t pid = testing::SpawnTool({"view", "--port", "0"}, out);
  ASSERT_GT(pid, 0);
  std::string text;
  char buf[512];
  while (text.find("Ctrl-C") == std::string::npos) {
    ssize_t n = read(out[0], buf, sizeof buf);
    if (n <= 0) break;
    text.append(buf, size_t(n));
  }
  size_t at = text.find("http://127.0.0.1:");
  ASSERT_NE(at, std::string::npos) << text;
  int port = std::stoi(text.substr(at + 17));
  std::string origin = text.substr(at, text.find('\n', at) - at);
  origin.resize(origin.rfind('/'));
  for (const char* page : {"People:  ", "Links:   ", "Gallery: ", "Stats:   ", "Search:  "})
    EXPECT_NE(text.find(std::string("\n  ") + page + origin + "/"), std::string::npos) << text;

  Poco::Net::HTTPClientSession session("127.0.0.1", Poco::UInt16(port));
  Poco::Net::HTTPRequest request("GET", "/bob%20smith.html", Poco::Net::HTTPMessage::HTTP_1_1);
  session.sendRequest(request);
  Poco::Net::HTTPResponse response;
  std::string body;
  Poco::StreamCopier::copyToString(session.receiveResponse(response), body);
  EXPECT_EQ(response.getStatus(), Poco::Net::HTTPResponse::HTTP_OK);
  EXPECT_EQ(body, home.Get("bob smith.html"));

  kill(pid, SIGTERM);
  int status = 0;
  ASSERT_EQ(waitpid(pid, &status, 0), pid);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
  close(out[0]);
}

}  // namespace
}  // namespace gab
