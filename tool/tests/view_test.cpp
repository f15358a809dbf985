#include <Poco/Net/HTTPClientSession.h>
#include <Poco/Net/HTTPRequest.h>
#include <Poco/Net/HTTPResponse.h>
#include <Poco/StreamCopier.h>
#include <gtest/gtest.h>
#include <signal.h>

#include "library/tests/store_pages.h"
#include "testing/run_process.h"

namespace gab {
namespace {

TEST(ViewCommand, RebuildsThenServesTheLibraryUntilStopped) {
  testing::LibraryHome home;
  home.Put("linktemplate.html", "<h1>____NAME</h1><ul>____CONTENTS</ul>____LINKS");
  home.Put("gatheredURLs.plist",
           testing::LinkStoreXml({{"bob smith", {{"2005-03-08T20:07:42Z", "http://a/"}}}}));
  ASSERT_EQ(testing::RunProgram({testing::kTool, "rebuild"}).status, 0);
  ASSERT_TRUE(home.Has("bob smith.html"));

  testing::Process view({testing::kTool, "view", "--port", "0"});
  testing::WaitFor([&] { return view.out().find("Ctrl-C") != std::string::npos; });
  std::string text = view.out();
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

  view.Signal(SIGTERM);
  EXPECT_EQ(view.Wait(), 0);
}

}  // namespace
}  // namespace gab
