#include "transcript/chat_log.h"

#include <gtest/gtest.h>

#include "testing/temp_home.h"
#include "transcript/tests/builders.h"

namespace gab {
namespace {

using testing::Message;
using testing::Participant;

// A group chat named for Anna: Anna, the user, a third party Carl, and a
// status line without a sender.
std::unique_ptr<ICLPChatLog> GroupChat() {
  auto anna = Participant(u"Jabber", u"Anna");
  auto carl = Participant(u"Jabber", u"Carl");
  auto me = Participant(u"SubNet", u" myself ");
  return ICLPChatLog::FromParts(
      u"Anna",
      {
          Message(anna, u"lol hi  there", Date{10}),
          Message(me, u"brb lol\nlol", Date{20}),
          Message(carl, u"damn lol", Date{30}),
          Message(nullptr, u"Anna went away lol lol", Date{40}),
          Message(Participant(u"Jabber", std::nullopt), u"nameless lol", Date{45}),
          Message(anna, u"brb damn damn", Date{50}),
          Message(anna, nullptr, Date{60}),
      },
      {anna, carl});
}

TEST(ChatLog, SpeakersAndLastDate) {
  testing::TempHome home("tester");
  auto log = GroupChat();
  EXPECT_EQ(log->NumberOfSpeakers(), 3);
  EXPECT_EQ(log->LastMessageDate(), Date{60});  // status lines included
  EXPECT_EQ(log->firstOtherPartyName(), u"Anna");

  auto empty = ICLPChatLog::FromParts(u"Bob", {});
  EXPECT_EQ(empty->NumberOfSpeakers(), 1);
  EXPECT_EQ(empty->LastMessageDate(), std::nullopt);
  EXPECT_FALSE(empty->NameInSpeakerList(u""));
  EXPECT_EQ(empty->description(), u"");
}

TEST(ChatLog, NameInSpeakerListComparesRawNames) {
  testing::TempHome home("tester");
  auto bob = Participant(u"SubNet", u"bob@mac");
  auto log = ICLPChatLog::FromParts(u"bob", {}, {Participant(u"AIM", std::nullopt), bob});
  EXPECT_TRUE(log->NameInSpeakerList(u"bob@mac"));
  EXPECT_FALSE(log->NameInSpeakerList(u"bob"));  // the display name is not the raw name
  EXPECT_FALSE(log->NameInSpeakerList(u"Bob@mac"));
}

// The user is everyone but Anna with a name: " myself " (brb, lol\nlol) and
// Carl (damn, lol).  The status line and the nameless sender count for nobody.
TEST(ChatLog, WordCountsSplitBetweenUserAndParty) {
  testing::TempHome home("tester");
  struct Case {
    std::vector<std::u16string> set;
    bool noSet;
    int32_t user, others;
  };
  const Case cases[] = {{{}, true, 4, 6},
                        {{u"lol"}, false, 1, 1},
                        {{u"damn"}, false, 1, 2},
                        {{u"brb", u"there"}, false, 1, 2},
                        {{}, false, 0, 0}};
  auto log = GroupChat();
  for (const Case& c : cases) {
    SCOPED_TRACE(::testing::PrintToString(c.set));
    WordSet set(c.set.begin(), c.set.end());
    const WordSet* s = c.noSet ? nullptr : &set;
    EXPECT_EQ(log->CountWordsForUserInSet(s), c.user);
    EXPECT_EQ(log->CountWordsForOthersInSet(s), c.others);
  }
}

TEST(ChatLog, OnePassCountsEqualTheSeparateCounts) {
  testing::TempHome home("tester");
  auto log = GroupChat();
  const WordSet curses = {u"damn"}, slang = {u"lol", u"brb"}, none;
  for (const WordSet* c : {&curses, &none, static_cast<const WordSet*>(nullptr)}) {
    for (const WordSet* s : {&slang, &curses, static_cast<const WordSet*>(nullptr)}) {
      auto counts = log->CountWords(c, s);
      EXPECT_EQ(counts.userWords, log->CountWordsForUserInSet(nullptr));
      EXPECT_EQ(counts.otherWords, log->CountWordsForOthersInSet(nullptr));
      EXPECT_EQ(counts.userCurses, log->CountWordsForUserInSet(c));
      EXPECT_EQ(counts.otherCurses, log->CountWordsForOthersInSet(c));
      EXPECT_EQ(counts.userSlang, log->CountWordsForUserInSet(s));
      EXPECT_EQ(counts.otherSlang, log->CountWordsForOthersInSet(s));
    }
  }
}

TEST(ChatLog, PartyIsComparedWithTheResolvedName) {
  testing::TempHome home("tester");
  home.Write("Library/Application Support/AddressBook/Contacts.vcf",
             "BEGIN:VCARD\nN:Lee;Anna\nX-AIM:annalee\nEND:VCARD\n");
  auto anna = Participant(u"AIM", u"annalee");
  auto log = ICLPChatLog::FromParts(u"Anna Lee", {Message(anna, u"one two")}, {anna});
  EXPECT_EQ(log->CountWordsForOthersInSet(nullptr), 2);
  EXPECT_EQ(log->CountWordsForUserInSet(nullptr), 0);
}

}  // namespace
}  // namespace gab
