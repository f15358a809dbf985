#include "transcript/end_of_chat.h"

#include <gtest/gtest.h>

#include "platform/chat_windows.h"
#include "testing/transcripts.h"
#include "transcript/process_flags.h"

namespace gab {
namespace {

class FakeChatWindows : public ChatWindows {
 public:
  std::optional<std::vector<std::u16string>> WindowTitles() override {
    ++queries;
    return titles;
  }
  std::optional<std::vector<std::u16string>> titles;
  int queries = 0;
};

using W = std::vector<std::u16string>;
const std::optional<W> kFailed;

TEST(EndOfChat, JudgesByTheChatClientsWindows) {
  struct Case {
    const char* name;
    bool running;
    std::u16string party;
    int others;  // participants besides the user
    std::optional<W> windows;
    bool ended;
  };
  const Case cases[] = {
      {"client not running", false, u"Anna", 1, W{u"Chat with Anna"}, true},
      {"no windows", true, u"Anna", 1, W{}, true},
      {"other windows only", true, u"Anna", 1, W{u"Buddy List", u"Chat with Bob"}, true},
      {"Chat with", true, u"Anna", 1, W{u"Buddy List", u"Chat with Anna"}, false},
      {"Chatting with", true, u"Anna", 1, W{u"Chatting with Anna"}, false},
      {"Instant Messages with", true, u"Anna", 1, W{u"Instant Messages with Anna"}, false},
      {"et al.", true, u"Anna", 1, W{u"Chatting with Anna et al."}, false},
      {"case ignored", true, u"Anna", 1, W{u"CHAT WITH anna"}, false},
      {"longer name is another chat", true, u"Anna", 1, W{u"Chat with Annabel"}, true},
      {"whole title only", true, u"Anna", 1, W{u"Chat with Anna (idle)", u"Re: Chat with Anna"},
       true},
      {"no script escaping leaks into titles", true, u"Dr \"Who\"", 1,
       W{u"Chat with Dr \\\"Who\\\""}, true},
      {"no other participants is not a group", true, u"Anna", 0, W{u"Buddy List"}, true},
      {"failed query keeps the chat", true, u"Anna", 1, kFailed, false},
      {"group without windows", true, u"Anna", 2, W{}, true},
      {"group with any window", true, u"Anna", 3, W{u"Buddy List"}, false},
      {"group with failed query", true, u"Anna", 2, kFailed, false},
  };
  FakeChatWindows fake;
  SetChatWindows(&fake);
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    iChatRunning = c.running;
    fake.titles = c.windows;
    fake.queries = 0;
    ::testing::internal::CaptureStderr();
    EXPECT_EQ(isLikelyEndOfChat(*testing::Chat(c.party, {}, c.others)), c.ended);
    std::string err = ::testing::internal::GetCapturedStderr();
    EXPECT_EQ(fake.queries, c.running ? 1 : 0);
    EXPECT_EQ(err.find("multiparty chat, checking documents") != std::string::npos,
              c.running && c.others >= 2);
  }
  SetChatWindows(nullptr);
  iChatRunning = false;
}

}  // namespace
}  // namespace gab
