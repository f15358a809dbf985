#include "transcript/presentity.h"

#include <gtest/gtest.h>

#include "testing/temp_home.h"
#include "testing/transcripts.h"

namespace gab {
namespace {

using testing::Participant;

const std::string kBook = "Library/Application Support/AddressBook/";

const char kMe[] =
    "BEGIN:VCARD\r\nVERSION:3.0\r\nN:Lee;Anna;;;\r\nX-AIM;type=WORK:annawork\r\n"
    "X-AIM;type=HOME;type=pref:annalee\r\nEND:VCARD\r\n";

const char kContacts[] =
    "BEGIN:VCARD\nVERSION:3.0\nN:Stone;Bob;;;\nX-AIM:buddy1\nEND:VCARD\n"
    "BEGIN:VCARD\nVERSION:4.0\nN:Later;Rob;;;\nIMPP:aim:buddy1\nIMPP:aim:rob\nEND:VCARD\n"
    "BEGIN:VCARD\nVERSION:3.0\nN:;Priya;;;\nX-AIM:priya2005\nEND:VCARD\n"
    "BEGIN:VCARD\nVERSION:3.0\nN:Okafor;;;;\nX-AIM:okafor\nEND:VCARD\n";

TEST(PresentityName, DisplayNameByService) {
  testing::TempHome home("anna");
  home.Write(kBook + "Me.vcf", kMe);
  home.Write(kBook + "Contacts.vcf", kContacts);
  struct Case {
    const char* label;
    std::optional<std::u16string> protocol, name, expected;
  };
  const Case cases[] = {{"SubNetMyselfIsTheLoginName", u"SubNet", u" myself ", u"anna"},
                        {"SubNetCutAtFirstAt", u"SubNet", u"bob@mac@x", u"bob"},
                        {"SubNetLeadingAt", u"SubNet", u"@host", u""},
                        {"SubNetMyselfNeedsExactSpaces", u"SubNet", u"myself", u"myself"},
                        {"MyselfOnOtherServiceUnchanged", u"AIM", u" myself ", u" myself "},
                        {"OwnPrimaryHandleIsTheMeCard", u"AIM", u"annalee", u"Anna Lee"},
                        {"OwnOtherHandleIsResolvedLikeABuddy", u"AIM", u"annawork", u"annawork"},
                        {"BuddyFirstCardWins", u"AIM", u"buddy1", u"Bob Stone"},
                        {"BuddyOnlyOnLaterCard", u"AIM", u"rob", u"Rob Later"},
                        {"BuddyWithoutLastName", u"AIM", u"priya2005", u"priya2005"},
                        {"BuddyWithoutFirstName", u"AIM", u"okafor", u"okafor"},
                        {"BuddyComparedExactly", u"AIM", u"Buddy1", u"Buddy1"},
                        {"ServiceComparedExactly", u"aim", u"buddy1", u"buddy1"},
                        {"OtherServiceUnchanged", u"Jabber", u"bob@jabber.org", u"bob@jabber.org"},
                        {"NoNameIsNothing", u"SubNet", std::nullopt, std::nullopt}};
  for (const Case& c : cases)
    EXPECT_EQ(Participant(c.protocol, c.name)->Name(), c.expected) << c.label;
  EXPECT_EQ(ICLPPresentity::ResolveAIMName(u""), u"");
}

TEST(PresentityNameMeCard, IncompleteOrMissingMeCardFallsBackToTheHandle) {
  testing::TempHome home("anna");
  auto own = Participant(u"AIM", u"annalee");
  EXPECT_EQ(own->Name(), u"annalee");  // no contacts at all
  home.Write(kBook + "Me.vcf", "BEGIN:VCARD\nN:;Anna;;;\nX-AIM:annalee\nEND:VCARD\n");
  home.Write(kBook + "Contacts.vcf", "BEGIN:VCARD\nN:Lee;Anna\nX-AIM:annalee\nEND:VCARD\n");
  EXPECT_EQ(own->Name(), u"annalee");  // the me card has no last name
  home.Write(kBook + "Me.vcf", "BEGIN:VCARD\nN:Lee;Anna;;;\nX-AIM:annalee\nEND:VCARD\n");
  EXPECT_EQ(own->Name(), u"Anna Lee");
}

TEST(PresentityNameUser, MissingUserGivesNoName) {
  testing::TempHome home(nullptr);
  EXPECT_EQ(Participant(u"SubNet", u" myself ")->Name(), std::nullopt);
  testing::TempHome::SetUser("zoe");
  EXPECT_EQ(Participant(u"SubNet", u" myself ")->Name(), u"zoe");
}

TEST(Presentity, RichNameIsBoldHelveticaTwelveOverTheWholeName) {
  testing::TempHome home("anna");
  for (auto p : {Participant(u"SubNet", u"bob@host"), Participant(u"SubNet", std::nullopt)}) {
    AttributedString rich = p->RichName();
    EXPECT_EQ(rich.text, p->Name().value_or(u""));
    uint32_t covered = 0;
    for (const auto& run : rich.runs) {
      covered += run.length;
      ASSERT_TRUE(run.attributes);
      auto font = As<Font>(run.attributes->Get(kFontAttribute));
      ASSERT_TRUE(font);
      EXPECT_EQ(font->name, u"Helvetica-Bold");
      EXPECT_EQ(font->pointSize, 12.0);
    }
    EXPECT_EQ(covered, rich.Length());
  }
  EXPECT_EQ(Participant(std::nullopt, std::nullopt)->Description(), u"(null) on protocol (null)");
}

}  // namespace
}  // namespace gab
