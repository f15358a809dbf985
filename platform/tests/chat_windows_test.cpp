#include "platform/chat_windows.h"

#include <gtest/gtest.h>

#include <memory>

#include "testing/temp_home.h"
#include "testing/xvfb.h"

namespace gab {
namespace {

using testing::FakeDesktop;
using testing::Xvfb;
using Kind = FakeDesktop::TitleKind;

// Sets DISPLAY (null: unsets it) for the life of the object.
class ScopedDisplay {
 public:
  explicit ScopedDisplay(const char* value) {
    if (const char* old = std::getenv("DISPLAY")) saved_ = old;
    value ? setenv("DISPLAY", value, 1) : unsetenv("DISPLAY");
  }
  ~ScopedDisplay() { saved_ ? setenv("DISPLAY", saved_->c_str(), 1) : unsetenv("DISPLAY"); }

 private:
  std::optional<std::string> saved_;
};

class ChatWindowsX11 : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { server_ = new Xvfb; }
  static void TearDownTestSuite() {
    delete server_;
    server_ = nullptr;
  }
  void SetUp() override {
    if (!server_->running())
      GTEST_SKIP() << "Xvfb is not available; install it (scripts/install-deps)";
    desktop_ = std::make_unique<FakeDesktop>(server_->display());
    ASSERT_TRUE(desktop_->ok());
  }
  std::optional<std::vector<std::u16string>> Query() {
    return QueryX11WindowTitles(server_->display().c_str());
  }

  static Xvfb* server_;
  testing::TempHome home_;
  std::unique_ptr<FakeDesktop> desktop_;
};
Xvfb* ChatWindowsX11::server_ = nullptr;

TEST_F(ChatWindowsX11, ListsOnlyChatClientWindowsWithTheirTitles) {
  struct Window {
    std::string wmClass, title;
    Kind kind;
  };
  struct Case {
    const char* name;
    std::vector<Window> windows;
    std::vector<std::u16string> expected;
  };
  const std::vector<Case> cases = {
      {"one chat window", {{"iChat", "Chat with Anna", Kind::kNetWmName}}, {u"Chat with Anna"}},
      {"other clients ignored",
       {{"Firefox", "Chat with Anna", Kind::kNetWmName}, {"iChat", "Buddy List", Kind::kNetWmName}},
       {u"Buddy List"}},
      {"class compared exactly", {{"ichat", "Chat with Anna", Kind::kNetWmName}}, {}},
      {"UTF-8 title",
       {{"iChat", "Chat with Zo\xc3\xab \xe2\x98\x83", Kind::kNetWmName}},
       {u"Chat with Zo\u00eb \u2603"}},
      {"WM_NAME is Latin-1",
       {{"iChat", "Chat with Zo\xeb", Kind::kWmNameLatin1}},
       {u"Chat with Zo\u00eb"}},
      {"_NET_WM_NAME preferred", {{"iChat", "Chat with Anna", Kind::kBoth}}, {u"Chat with Anna"}},
      {"untitled window still counts", {{"iChat", "", Kind::kNone}}, {u""}},
      {"order of the client list",
       {{"iChat", "B", Kind::kNetWmName}, {"iChat", "A", Kind::kWmNameLatin1}},
       {u"B", u"A"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    std::vector<xcb_window_t> made;
    for (const Window& w : c.windows)
      made.push_back(desktop_->AddWindow(w.wmClass, w.title, w.kind));
    auto titles = Query();
    ASSERT_TRUE(titles.has_value());
    EXPECT_EQ(*titles, c.expected);
    for (xcb_window_t w : made) desktop_->RemoveWindow(w);
  }
}

TEST_F(ChatWindowsX11, VanishedWindowIsSkippedNotAFailure) {
  desktop_->AddWindow("iChat", "Chat with Anna");
  xcb_window_t gone = desktop_->AddWindow("iChat", "Chat with Bob");
  desktop_->DestroyWithoutUnlisting(gone);
  auto titles = Query();
  ASSERT_TRUE(titles.has_value());
  EXPECT_EQ(*titles, std::vector<std::u16string>{u"Chat with Anna"});
}

TEST_F(ChatWindowsX11, MissingClientListFailsTheQuery) {
  desktop_->AddWindow("iChat", "Chat with Anna");
  desktop_->RemoveClientList();
  EXPECT_FALSE(Query().has_value());
}

TEST_F(ChatWindowsX11, CurrentSourceUsesTheDisplayVariable) {
  ScopedDisplay display(server_->display().c_str());
  SetChatWindows(nullptr);
  EXPECT_FALSE(ChatClientHasWindows());
  desktop_->AddWindow("iChat", "Chat with Anna");
  EXPECT_TRUE(ChatClientHasWindows());
  auto titles = CurrentChatWindows().WindowTitles();
  ASSERT_TRUE(titles.has_value());
  EXPECT_EQ(titles->size(), 1u);
}

TEST(ChatWindowsNoDisplay, QueryFails) {
  testing::TempHome home;
  ScopedDisplay display(nullptr);
  EXPECT_FALSE(QueryX11WindowTitles(nullptr).has_value());
  EXPECT_FALSE(ChatClientHasWindows());
  EXPECT_FALSE(QueryX11WindowTitles("no display here").has_value());
  EXPECT_FALSE(QueryX11WindowTitles("unix:/nonexistent/socket").has_value());
}

TEST(TitlesEqualIgnoringCase, WholeTitleWithCaseFolded) {
  testing::TempHome home;
  struct Case {
    std::u16string a, b;
    bool equal;
  };
  const std::vector<Case> cases = {
      {u"Chat with Anna", u"Chat with Anna", true},
      {u"CHAT WITH ZO\u00cb", u"chat with zo\u00eb", true},
      {u"\u0427\u0430\u0442", u"\u0447\u0430\u0442", true},
      {u"Chat with Annabel", u"Chat with Anna", false},
      {u"Chat with Anna ", u"Chat with Anna", false},
      {u"Chat with Ann\u00e4", u"Chat with Anna", false},
      {u"\U0001F600", u"\U0001F601", false},
      {u"\xD800", u"\xD800", true},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(TitlesEqualIgnoringCase(c.a, c.b), c.equal);
  }
}

}  // namespace
}  // namespace gab
