#include "transcript/end_of_chat.h"

#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <vector>

#include "platform/chat_windows.h"
#include "testing/temp_home.h"
#include "transcript/chat_log.h"
#include "transcript/process_flags.h"
#include "transcript/tests/builders.h"

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

const auto Transcript = testing::ChatWith;

using W = std::vector<std::u16string>;
using Titles = std::optional<W>;
const Titles kFailed = std::nullopt;

struct Case {
  const char* name;
  bool running;
  std::u16string party;
  int others;  // participants besides the user
  Titles windows;
  bool ended;
};

class EndOfChat : public ::testing::Test {
 protected:
  void SetUp() override { SetChatWindows(&fake_); }
  void TearDown() override {
    SetChatWindows(nullptr);
    iChatRunning = false;
  }
  testing::TempHome home_;
  FakeChatWindows fake_;
};

TEST_F(EndOfChat, JudgesByTheChatClientsWindows) {
  const std::vector<Case> cases = {
      {"client not running", false, u"Anna", 1, W{u"Chat with Anna"}, true},
      {"client not running, failed query", false, u"Anna", 1, kFailed, true},
      {"no windows", true, u"Anna", 1, W{}, true},
      {"other windows only", true, u"Anna", 1, W{u"Buddy List", u"Chat with Bob"}, true},
      {"Chat with", true, u"Anna", 1, W{u"Chat with Anna"}, false},
      {"Chatting with", true, u"Anna", 1, W{u"Chatting with Anna"}, false},
      {"Instant Messages with", true, u"Anna", 1, W{u"Instant Messages with Anna"}, false},
      {"et al.", true, u"Anna", 1, W{u"Chatting with Anna et al."}, false},
      {"case ignored", true, u"Anna", 1, W{u"CHAT WITH anna"}, false},
      {"longer name is another chat", true, u"Anna", 1, W{u"Chat with Annabel"}, true},
      {"shorter name is another chat", true, u"Annabel", 1, W{u"Chat with Anna"}, true},
      {"whole title only", true, u"Anna", 1, W{u"Chat with Anna (idle)", u"Re: Chat with Anna"},
       true},
      {"title among others", true, u"Anna", 1, W{u"Buddy List", u"Instant Messages with Anna"},
       false},
      {"quotes in the name match as they are", true, u"Dr \"Who\"", 1, W{u"Chat with Dr \"Who\""},
       false},
      {"no script escaping leaks into titles", true, u"Dr \"Who\"", 1,
       W{u"Chat with Dr \\\"Who\\\""}, true},
      {"backslash in the name", true, u"back\\slash", 1, W{u"Chatting with back\\slash"}, false},
      {"no other participants is not a group", true, u"Anna", 0, W{u"Buddy List"}, true},
      {"failed query keeps the chat", true, u"Anna", 1, kFailed, false},
      {"group without windows", true, u"Anna", 2, W{}, true},
      {"group with any window", true, u"Anna", 2, W{u"Buddy List"}, false},
      {"group ignores titles", true, u"Anna", 3, W{u"Chat with Zed"}, false},
      {"group with failed query", true, u"Anna", 2, kFailed, false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    iChatRunning = c.running;
    fake_.titles = c.windows;
    fake_.queries = 0;
    auto log = Transcript(c.party, c.others);
    ::testing::internal::CaptureStderr();
    bool ended = isLikelyEndOfChat(*log);
    std::string err = ::testing::internal::GetCapturedStderr();
    EXPECT_EQ(ended, c.ended);
    EXPECT_EQ(fake_.queries, c.running ? 1 : 0);
    bool group = c.running && c.others >= 2;
    EXPECT_EQ(err.find("multiparty chat, checking documents") != std::string::npos, group) << err;
    if (!group) {
      EXPECT_EQ(err, "");
    }
  }
}

}  // namespace
}  // namespace gab
