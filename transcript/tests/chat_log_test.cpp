#include "transcript/chat_log.h"

#include <gtest/gtest.h>

#include "testing/temp_home.h"
#include "testing/transcripts.h"

namespace gab {
namespace {

using testing::Message;
using testing::Participant;

// A group chat named for Anna: Anna, the user, a third party Carl, a status
// line and a sender without a name.
std::unique_ptr<ICLPChatLog> GroupChat() {
  auto anna = Participant(u"Jabber", u"Anna");
  auto carl = Participant(u"Jabber", u"Carl");
  auto me = Participant(u"SubNet", u" myself ");
  return ICLPChatLog::FromParts(
      u"Anna",
      {Message(anna, u"lol hi  there", Date{10}), Message(me, u"brb lol\nlol", Date{20}),
       Message(carl, u"damn lol", Date{30}), Message(nullptr, u"Anna went away lol lol", Date{40}),
       Message(Participant(u"Jabber", std::nullopt), u"nameless lol", Date{45}),
       Message(anna, u"brb damn damn", Date{50}), Message(anna, nullptr, Date{60})},
      {anna, carl});
}

TEST(ChatLog, SpeakersAndLastDate) {
  auto log = GroupChat();
  EXPECT_EQ(log->NumberOfSpeakers(), 3);
  EXPECT_EQ(log->LastMessageDate(), Date{60});  // status lines included
  auto empty = ICLPChatLog::FromParts(u"Bob", {});
  EXPECT_EQ(empty->NumberOfSpeakers(), 1);
  EXPECT_EQ(empty->LastMessageDate(), std::nullopt);
  // Raw names are compared, not display names.
  auto bob = ICLPChatLog::FromParts(u"bob", {}, {Participant(u"SubNet", u"bob@mac")});
  EXPECT_TRUE(bob->NameInSpeakerList(u"bob@mac"));
  EXPECT_FALSE(bob->NameInSpeakerList(u"bob"));
}

// The user is everyone but Anna with a name: " myself " (brb, lol\nlol) and
// Carl (damn, lol).  The status line and the nameless sender count for nobody.
TEST(ChatLog, WordCountsSplitBetweenUserAndParty) {
  struct Case {
    std::vector<std::u16string> set;
    bool noSet;
    int32_t user, others;
  };
  const Case cases[] = {{{}, true, 4, 6},
                        {{u"lol"}, false, 1, 1},
                        {{u"brb", u"there", u"damn"}, false, 2, 4},
                        {{}, false, 0, 0}};
  auto log = GroupChat();
  for (const Case& c : cases) {
    WordSet set(c.set.begin(), c.set.end());
    const WordSet* s = c.noSet ? nullptr : &set;
    EXPECT_EQ(log->CountWordsForUserInSet(s), c.user);
    EXPECT_EQ(log->CountWordsForOthersInSet(s), c.others);
    // The one-pass count the statistics use says the same.
    auto counts = log->CountWords(s, s);
    EXPECT_EQ(counts.userCurses, c.user);
    EXPECT_EQ(counts.otherSlang, c.others);
    EXPECT_EQ(counts.userWords, 4);
    EXPECT_EQ(counts.otherWords, 6);
  }
}

TEST(ChatLog, PartyIsComparedWithTheResolvedName) {
  testing::TempHome home;
  home.Write("Library/Application Support/AddressBook/Contacts.vcf",
             "BEGIN:VCARD\nN:Lee;Anna\nX-AIM:annalee\nEND:VCARD\n");
  auto anna = Participant(u"AIM", u"annalee");
  auto log = ICLPChatLog::FromParts(u"Anna Lee", {Message(anna, u"one two")}, {anna});
  EXPECT_EQ(log->CountWordsForOthersInSet(nullptr), 2);
  EXPECT_EQ(log->CountWordsForUserInSet(nullptr), 0);
}

}  // namespace
}  // namespace gab
