// The one-pass count of a chat's words, which the statistics add up, gives
// the six separate counts.
#include <gtest/gtest.h>

#include "library/tests/statistics_test_support.h"

namespace gab {
namespace {

using testing::Chat;
using testing::Line;

TEST(StatisticsCounts, OnePassEqualsTheSixSeparateCounts) {
  testing::TempHome home;
  const WordSet curses = {u"damn", u"Damn", u"hell"};
  const WordSet slang = {u"lol", u"brb", u"LOL", u"omg"};
  const WordSet empty;
  struct Case {
    const char* name;
    std::u16string party;
    std::vector<Line> lines;
  };
  const std::vector<Case> cases = {
      {"empty chat", u"Anna", {}},
      {"one to one",
       u"Anna",
       {{u"me", u"damn it lol", 1}, {u"Anna", u"LOL  lol\nlol brb", 2}, {u"me", u"   ", 3}}},
      {"group chat: third parties are the user",
       u"Anna",
       {{u"Bob", u"hell yes omg", 1}, {u"Anna", u"Damn, lol.", 2}, {u"Annabel", u"lol", 3}}},
      {"status lines count for nobody",
       u"Anna",
       {{std::nullopt, u"Anna is away lol", 1}, {u"Anna", u"", 2}, {u"me", u"\t lol \n", 3}}},
      {"party named like nobody", u"Zed", {{u"me", u"a b c", 1}, {u"Anna", u"d e", 2}}},
      {"non-breaking and odd spaces",
       u"Anna",
       {{u"me", u"\u00a0lol\u00a0lol \u2003damn\u2028", 1}, {u"Anna", u"omg\u3000 brb", 2}}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    auto chat = Chat(c.party, c.lines);
    for (const WordSet* cs : {&curses, &empty, static_cast<const WordSet*>(nullptr)}) {
      for (const WordSet* ss : {&slang, static_cast<const WordSet*>(nullptr)}) {
        const ICLPChatLog::WordCounts one = chat->CountWords(cs, ss);
        EXPECT_EQ(one.userWords, chat->CountWordsForUserInSet(nullptr));
        EXPECT_EQ(one.otherWords, chat->CountWordsForOthersInSet(nullptr));
        EXPECT_EQ(one.userCurses, chat->CountWordsForUserInSet(cs));
        EXPECT_EQ(one.otherCurses, chat->CountWordsForOthersInSet(cs));
        EXPECT_EQ(one.userSlang, chat->CountWordsForUserInSet(ss));
        EXPECT_EQ(one.otherSlang, chat->CountWordsForOthersInSet(ss));
      }
    }
  }
  // A sanity anchor, so the comparison above cannot pass on all zeros.
  auto chat = Chat(u"Anna", cases[1].lines);
  const ICLPChatLog::WordCounts f = chat->CountWords(&curses, &slang);
  EXPECT_EQ(f.userWords, 3);
  EXPECT_EQ(f.userCurses, 1);
  EXPECT_EQ(f.otherSlang, 2);
}

}  // namespace
}  // namespace gab
