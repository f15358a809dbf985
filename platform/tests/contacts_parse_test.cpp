#include <gtest/gtest.h>

#include <cstdlib>
#include <optional>
#include <string>
#include <vector>

#include "platform/contacts.h"
#include "platform/files.h"

namespace gab {
namespace {

struct Expected {
  std::optional<std::u16string> first, last;
  std::vector<std::u16string> handles;
  std::optional<std::u16string> primary;
};

std::string Utf16(std::u16string_view text, bool bigEndian) {
  std::string out = bigEndian ? "\xFE\xFF" : "\xFF\xFE";
  for (char16_t c : text) {
    char hi = char(c >> 8), lo = char(c & 0xFF);
    out += bigEndian ? hi : lo;
    out += bigEndian ? lo : hi;
  }
  return out;
}

const std::optional<std::u16string> kNone;

TEST(ContactsParse, Cards) {
  struct Case {
    const char* name;
    std::string text;
    std::vector<Expected> cards;
  };
  const Case cases[] = {
      {"AddressBookExport",
       "BEGIN:VCARD\r\nVERSION:3.0\r\nN:Lindqvist;Maren;;;\r\nFN:Maren Lindqvist\r\n"
       "item1.EMAIL;type=INTERNET;type=pref:maren@example.org\r\n"
       "X-AIM;type=WORK:mlindqvist\r\nX-AIM;type=HOME;type=pref:marenrows\r\n"
       "PHOTO;BASE64:\r\n  TU0AKgAAAAgAAQEAAAMAAAABAAEAAAAAAAA=\r\n"
       "X-ABUID:5D1C\\:ABPerson\r\nEND:VCARD\r\n",
       {{u"Maren", u"Lindqvist", {u"mlindqvist", u"marenrows"}, u"marenrows"}}},
      {"VCard4ImppWithPrefParameter",
       "BEGIN:VCARD\nVERSION:4.0\nN:Lee;Anna;;;\nIMPP:xmpp:anna@example.org\n"
       "IMPP:aim:first\nIMPP;PREF=1:aim:preferred\nEND:VCARD\n",
       {{u"Anna", u"Lee", {u"first", u"preferred"}, u"preferred"}}},
      {"ImppForms",
       "BEGIN:VCARD\nN:A;B\nIMPP;X-SERVICE-TYPE=AIM;type=HOME:AIM:Caps\n"
       "IMPP:aim:goim?message=hi&screenname=tobi%20o\nIMPP:aim:\nIMPP:aimx:no\n"
       "END:VCARD\n",
       {{u"B", u"A", {u"Caps", u"tobi o"}, u"Caps"}}},
      {"FoldedLinesAndTabs",
       "BEGIN:VCARD\r\nN:Lee;An\r\n na;;;\r\nX-AIM;TYPE=pref:hand\r\n\tle\r\nEND:VCARD\r\n",
       {{u"Anna", u"Lee", {u"handle"}, u"handle"}}},
      {"EscapesInNames",
       "BEGIN:VCARD\nN:O\\;Brien;Mary\\, Jo\\nX;;;\nX-AIM:a\\,b\\\\c\nEND:VCARD\n",
       {{u"Mary, Jo\nX", u"O;Brien", {u"a,b\\c"}, u"a,b\\c"}}},
      {"QuotedParameterHoldsColonAndSemicolon",
       "BEGIN:VCARD\nN:Z;Y\nX-AIM;X-LABEL=\"a:b;c\":plain\n"
       "X-AIM;TYPE=\"HOME,PREF\":quoted\nEND:VCARD\n",
       {{u"Y", u"Z", {u"plain", u"quoted"}, u"quoted"}}},
      {"MissingNamesAndHandles",
       "BEGIN:VCARD\nN:;Priya;;;\nEND:VCARD\nBEGIN:VCARD\nN:Solo\nEND:VCARD\n"
       "BEGIN:VCARD\nFN:No N at all\nEND:VCARD\n",
       {{u"Priya", kNone, {}, kNone}, {kNone, u"Solo", {}, kNone}, {}}},
      {"Utf8ByteOrderMark",
       "\xEF\xBB\xBF"
       "BEGIN:VCARD\nN:L;F\nEND:VCARD\n",
       {{u"F", u"L", {}, kNone}}},
      {"Utf16BigEndian",
       Utf16(u"BEGIN:VCARD\r\nN:M\u00FCller;J\u00F6rg\r\nX-AIM:jm\r\nEND:VCARD\r\n", true),
       {{u"J\u00F6rg", u"M\u00FCller", {u"jm"}, u"jm"}}},
      {"Utf16LittleEndian",
       Utf16(u"BEGIN:VCARD\nN:L;F\nX-AIM:h\nEND:VCARD\n", false),
       {{u"F", u"L", {u"h"}, u"h"}}},
      {"GarbageAndCutOffCard",
       "junk line\nX-AIM:outside\n:\n;;;\nBEGIN:VCARD\nN:Cut;Off\nnot a property\n"
       "X-AIM:kept",
       {{u"Off", u"Cut", {u"kept"}, u"kept"}}},
      {"Empty", "", {}}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    auto cards = ParseVCards(c.text);
    ASSERT_EQ(cards.size(), c.cards.size());
    for (size_t i = 0; i < cards.size(); ++i) {
      SCOPED_TRACE(i);
      EXPECT_EQ(cards[i].firstName, c.cards[i].first);
      EXPECT_EQ(cards[i].lastName, c.cards[i].last);
      EXPECT_EQ(cards[i].aimHandles, c.cards[i].handles);
      EXPECT_EQ(cards[i].PrimaryAIMHandle(), c.cards[i].primary);
    }
  }
}

TEST(ContactsParse, SampleExportOfTheAddressBook) {
  const char* corpus = std::getenv("GABFOLIO_CORPUS");
  auto bytes =
      ReadWholeFile(std::string(corpus ? corpus : GABFOLIO_SOURCE_DIR "/../shared/corpus") +
                    "/synthetic/vcard/AddressBook-export-shape.vcf");
  if (!bytes) GTEST_SKIP() << "shared corpus not found next to the source tree";
  auto cards = ParseVCards(*bytes);
  ASSERT_EQ(cards.size(), 3u);
  EXPECT_EQ(cards[0].FullName(), u"Maren Lindqvist");
  EXPECT_EQ(cards[0].PrimaryAIMHandle(), u"marenrows");
  EXPECT_EQ(cards[1].PrimaryAIMHandle(), u"tobi o");
  EXPECT_EQ(cards[1].FullName(), u"Tobi Okafor");
  EXPECT_EQ(cards[2].FullName(), std::nullopt);  // no family name
  EXPECT_EQ(cards[2].PrimaryAIMHandle(), u"priya2005");
}

}  // namespace
}  // namespace gab
