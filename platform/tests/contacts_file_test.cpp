#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <string>

#include "platform/contacts.h"
#include "testing/temp_home.h"

namespace gab {
namespace {

const std::string kBook = "Library/Application Support/AddressBook/";

std::string Card(const std::string& n, const std::string& aim) {
  return "BEGIN:VCARD\r\nVERSION:3.0\r\nN:" + n + "\r\nX-AIM:" + aim + "\r\nEND:VCARD\r\n";
}

std::optional<std::u16string> FoundName(const std::u16string& handle) {
  auto card = Contacts::Shared().FindByAIMHandle(handle);
  if (!card) return std::u16string(u"<none>");
  return card->FullName();
}

TEST(ContactsFile, BothFilesMayBeAbsent) {
  testing::TempHome home;
  EXPECT_EQ(Contacts::Shared().Me(), nullptr);
  EXPECT_EQ(Contacts::Shared().FindByAIMHandle(u"anyone"), nullptr);
  home.Write(kBook + "Contacts.vcf", Card("Stone;Bob", "bob"));
  EXPECT_EQ(Contacts::Shared().Me(), nullptr);
  EXPECT_EQ(FoundName(u"bob"), u"Bob Stone");
}

TEST(ContactsFile, SearchTakesTheFirstCardInFileOrder) {
  testing::TempHome home;
  home.Write(kBook + "Contacts.vcf", Card("Stone;Bob", "other") + Card("First;Found", "twice") +
                                         Card("Second;Found", "twice") + Card("Only;", "solo"));
  EXPECT_EQ(FoundName(u"twice"), u"Found First");
  EXPECT_EQ(FoundName(u"Twice"), u"<none>");  // exact comparison
  EXPECT_EQ(FoundName(u"solo"), std::nullopt);
  // The me card lives in its own file; it is not searched.
  home.Write(kBook + "Me.vcf", Card("Lee;Anna", "annalee"));
  EXPECT_EQ(FoundName(u"annalee"), u"<none>");
  auto me = Contacts::Shared().Me();
  ASSERT_NE(me, nullptr);
  EXPECT_EQ(me->PrimaryAIMHandle(), u"annalee");
}

TEST(ContactsFile, ChangesAreSeenAndHomeIsFollowed) {
  testing::TempHome home;
  home.Write(kBook + "Contacts.vcf", Card("Stone;Bob", "bob"));
  EXPECT_EQ(FoundName(u"bob"), u"Bob Stone");
  auto held = Contacts::Shared().FindByAIMHandle(u"bob");

  // Same size, other contents, other modification time.
  home.Write(kBook + "Contacts.vcf", Card("Stone;Rob", "bob"));
  struct timespec times[2] = {{0, UTIME_OMIT}, {1000000000, 0}};
  utimensat(AT_FDCWD, (home.path() + "/" + kBook + "Contacts.vcf").c_str(), times, 0);
  EXPECT_EQ(FoundName(u"bob"), u"Rob Stone");
  EXPECT_EQ(held->FullName(), u"Bob Stone");  // a card already handed out stays valid

  home.Write(kBook + "Contacts.vcf", Card("Stone;Bob", "bobby"));
  EXPECT_EQ(FoundName(u"bob"), u"<none>");
  EXPECT_EQ(FoundName(u"bobby"), u"Bob Stone");

  std::filesystem::remove(home.path() + "/" + kBook + "Contacts.vcf");
  EXPECT_EQ(FoundName(u"bobby"), u"<none>");

  {
    testing::TempHome other;
    other.Write(kBook + "Contacts.vcf", Card("Else;Someone", "bobby"));
    EXPECT_EQ(FoundName(u"bobby"), u"Someone Else");
  }
}

}  // namespace
}  // namespace gab
