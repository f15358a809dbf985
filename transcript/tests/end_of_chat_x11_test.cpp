// The end-of-chat judgement against a real X server: a private Xvfb whose
// client list the test keeps, as a window manager would.
#include <gtest/gtest.h>

#include <memory>

#include "platform/chat_windows.h"
#include "testing/temp_home.h"
#include "testing/xvfb.h"
#include "transcript/chat_log.h"
#include "transcript/end_of_chat.h"
#include "transcript/process_flags.h"
#include "transcript/tests/builders.h"

namespace gab {
namespace {

using testing::FakeDesktop;
using testing::Xvfb;

const auto Transcript = testing::ChatWith;

class EndOfChatX11 : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { server_ = new Xvfb; }
  static void TearDownTestSuite() {
    delete server_;
    server_ = nullptr;
  }
  void SetUp() override {
    if (!server_->running())
      GTEST_SKIP() << "Xvfb is not available; install it (scripts/install-deps)";
    if (const char* d = std::getenv("DISPLAY")) savedDisplay_ = d;
    setenv("DISPLAY", server_->display().c_str(), 1);
    SetChatWindows(nullptr);
    iChatRunning = true;
    desktop_ = std::make_unique<FakeDesktop>(server_->display());
    ASSERT_TRUE(desktop_->ok());
  }
  void TearDown() override {
    iChatRunning = false;
    if (savedDisplay_)
      setenv("DISPLAY", savedDisplay_->c_str(), 1);
    else
      unsetenv("DISPLAY");
  }

  static Xvfb* server_;
  testing::TempHome home_;
  std::optional<std::string> savedDisplay_;
  std::unique_ptr<FakeDesktop> desktop_;
};
Xvfb* EndOfChatX11::server_ = nullptr;

TEST_F(EndOfChatX11, OneToOneChats) {
  struct Case {
    const char* name;
    std::u16string party;
    std::string wmClass, title;
    bool ended;
  };
  const std::vector<Case> cases = {
      {"open window", u"Anna", "iChat", "Chat with Anna", false},
      {"case ignored", u"Anna", "iChat", "chat with ANNA", false},
      {"Annabel is not Anna", u"Anna", "iChat", "Chat with Annabel", true},
      {"another client's window", u"Anna", "Pidgin", "Chat with Anna", true},
      {"double quotes and backslashes", u"Dr \"Who\" \\o/", "iChat",
       "Instant Messages with Dr \"Who\" \\o/", false},
      {"escaped form is another title", u"Dr \"Who\"", "iChat", "Chat with Dr \\\"Who\\\"", true},
      {"non-ASCII name", u"Zo\u00eb", "iChat", "Chatting with ZO\xc3\x8b", false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    xcb_window_t w = desktop_->AddWindow(c.wmClass, c.title);
    EXPECT_EQ(isLikelyEndOfChat(*Transcript(c.party, 1)), c.ended);
    desktop_->RemoveWindow(w);
    EXPECT_TRUE(isLikelyEndOfChat(*Transcript(c.party, 1))) << "window closed";
  }
}

TEST_F(EndOfChatX11, GroupChats) {
  ::testing::internal::CaptureStderr();
  EXPECT_TRUE(isLikelyEndOfChat(*Transcript(u"Anna", 2)));
  xcb_window_t other = desktop_->AddWindow("Firefox", "Chat with Anna");
  EXPECT_TRUE(isLikelyEndOfChat(*Transcript(u"Anna", 2))) << "only the chat client's windows count";
  xcb_window_t list = desktop_->AddWindow("iChat", "Buddy List");
  EXPECT_FALSE(isLikelyEndOfChat(*Transcript(u"Anna", 2)));
  desktop_->RemoveWindow(list);
  desktop_->RemoveWindow(other);
  EXPECT_TRUE(isLikelyEndOfChat(*Transcript(u"Anna", 3)));
  std::string err = ::testing::internal::GetCapturedStderr();
  size_t lines = 0;
  for (size_t at = 0;
       (at = err.find("multiparty chat, checking documents", at)) != std::string::npos; ++at)
    ++lines;
  EXPECT_EQ(lines, 4u);
}

TEST_F(EndOfChatX11, NoDisplayMeansNotEnded) {
  unsetenv("DISPLAY");
  ::testing::internal::CaptureStderr();
  EXPECT_FALSE(isLikelyEndOfChat(*Transcript(u"Anna", 1)));
  EXPECT_FALSE(isLikelyEndOfChat(*Transcript(u"Anna", 2)));
  ::testing::internal::GetCapturedStderr();
  iChatRunning = false;
  EXPECT_TRUE(isLikelyEndOfChat(*Transcript(u"Anna", 2)));
}

}  // namespace
}  // namespace gab
