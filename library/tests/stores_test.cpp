#include "library/stores.h"

#include <gtest/gtest.h>

#include "library/log_generator.h"
#include "library/object_format.h"
#include "library/tests/store_pages.h"
#include "platform/text.h"

namespace gab {
namespace {

using testing::LibraryHome;
using testing::LinkStoreXml;

TEST(ObjectFormat, OnlyObjectDirectivesAndPercentAreInterpreted) {
  const std::vector<std::u16string> args = {u"u", u"v", u"Ann", u"Tue March 8, 03:07PM"};
  struct {
    std::u16string format, expected;
  } cases[] = {
      {u"<a href=\"%@\">%@</a> %@ %@\n", u"<a href=\"u\">v</a> Ann Tue March 8, 03:07PM\n"},
      {u"%3$@ on %4$@: %1$@", u"Ann on Tue March 8, 03:07PM: u"},
      {u"100%% %@", u"100% u"},
      // Anything else is text, so a stray directive cannot read memory.
      {u"%s %d %n %x %ls %@", u"%s %d %n %x %ls u"},
      {u"%5$@ %0$@ %12$@ %1$s %1$", u"%5$@ %0$@ %12$@ %1$s %1$"},
      {u"%@%@%@%@%@", u"uvAnnTue March 8, 03:07PM%@"},
      {u"%", u"%"},
      {u"", u""},
  };
  for (const auto& c : cases)
    EXPECT_EQ(FormatWithObjects(c.format, args), c.expected) << ToUtf8(c.format);
}

TEST(Stores, PathExtensionOfTheLastComponent) {
  struct {
    std::u16string path, ext, without;
  } cases[] = {
      {u"photo.jpg", u"jpg", u"photo"},
      {u"Images/a.b.PDF", u"PDF", u"Images/a.b"},
      {u"noext", u"", u"noext"},
      {u"dir.d/noext", u"", u"dir.d/noext"},
      {u".hidden", u"", u".hidden"},
      {u"", u"", u""},
      {u"x-Ann-2005-03-08 15:07:42 -0500.image", u"image", u"x-Ann-2005-03-08 15:07:42 -0500"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(PathExtension(c.path), c.ext) << ToUtf8(c.path);
    EXPECT_EQ(DeletingPathExtension(c.path), c.without) << ToUtf8(c.path);
  }
}

PlistPtr Record(int32_t sec) {
  plist_t d = plist_new_dict();
  plist_dict_set_item(d, "date", plist_new_date(sec, 0));
  return PlistPtr(d);
}

TEST(Stores, OrderingsPutNewestRecordsAndOldestMonthsFirst) {
  auto a = Record(100), b = Record(200), c = Record(200);
  PlistPtr noDate(plist_new_dict());
  EXPECT_EQ(compareLinkDictionaries(a.get(), b.get(), nullptr), kOrderedDescending);
  EXPECT_EQ(compareLinkDictionaries(b.get(), a.get(), nullptr), kOrderedAscending);
  EXPECT_EQ(compareImageDictionaries(b.get(), c.get(), nullptr), kOrderedSame);
  EXPECT_EQ(compareImageDictionaries(noDate.get(), a.get(), nullptr), kOrderedDescending);
  EXPECT_EQ(compareLinkDateString(u"March 2004", u"February 2005"), kOrderedAscending);
  EXPECT_EQ(compareImageDateString(u"December 2005", u"January 2005"), kOrderedDescending);
  EXPECT_EQ(compareLinkDateString(u"May 2005", u"May 2005"), kOrderedSame);
}

TEST(Stores, LookupsMatchTheFirstWellFormedRecordExactly) {
  LibraryHome home;
  home.Put("s.plist",
           testing::PlistHead() +
               "<string>not a record</string>\n"
               "<dict><key>speaker</key><string>Ann</string></dict>\n"
               "<dict><key>speaker</key><integer>1</integer><key>urls</key><array/></dict>\n"
               "<dict><key>speaker</key><string>Ann</string><key>urls</key><array><string>1</"
               "string></array>"
               "<key>filenames</key><array/></dict>\n"
               "<dict><key>speaker</key><string>Ann</string><key>urls</key><array/></dict>\n"
               "</array></plist>\n");
  PlistPtr store = LoadStore(home.data() + "/s.plist");
  ASSERT_TRUE(store);
  plist_t urls = FindSpeakerArray(u"Ann", store.get());
  ASSERT_TRUE(urls);
  EXPECT_EQ(plist_array_get_size(urls), 1u);
  EXPECT_TRUE(FindImagesArray(u"Ann", store.get()));
  EXPECT_FALSE(FindSpeakerArray(u"ann", store.get()));
  EXPECT_FALSE(FindImagesArray(u"Bob", store.get()));
  EXPECT_FALSE(FindSpeakerArray(u"Ann", nullptr));
}

std::vector<std::string> Urls(plist_t list) {
  std::vector<std::string> out;
  for (uint32_t i = 0; list && i < plist_array_get_size(list); ++i) {
    char* s = nullptr;
    plist_get_string_val(plist_dict_get_item(plist_array_get_item(list, i), "linkurl"), &s);
    out.push_back(s ? s : "");
    free(s);
  }
  return out;
}

TEST(Stores, LinkMergeAppendsSpeakersAndResortsEveryList) {
  LibraryHome home;
  home.Put(
      "gatheredURLs.plist",
      LinkStoreXml({{"Ann", {{"2005-01-01T00:00:00Z", "old"}, {"2005-06-01T00:00:00Z", "new"}}},
                    {"Bob", {{"2005-02-01T00:00:00Z", "b1"}}}}));
  PlistPtr store = LoadStore(LinkStorePath());
  ASSERT_TRUE(store);
  Date t = *ParseMonthYear("March 2005");
  std::vector<LinkEntry> entries = {
      {u"Bob", t, {u"b2", u"b3"}},           // two links of one message, text order
      {u"Cy", t, {}},                        // nothing to add: no record
      {u"ann", t, {u"case differs"}},        // a record of its own
      {u"Dee", std::nullopt, {u"no time"}},  // no date to store
      {u"Bob", t, {u"b2"}},                  // no duplicate detection
  };
  MergeLinkEntries(store.get(), entries);
  SortEveryList(store.get(), "urls");
  ASSERT_EQ(plist_array_get_size(store.get()), 3u);
  EXPECT_EQ(Urls(FindSpeakerArray(u"Ann", store.get())), (std::vector<std::string>{"new", "old"}));
  EXPECT_EQ(Urls(FindSpeakerArray(u"Bob", store.get())),
            (std::vector<std::string>{"b2", "b3", "b2", "b1"}));
  EXPECT_EQ(Urls(FindSpeakerArray(u"ann", store.get())),
            (std::vector<std::string>{"case differs"}));
  EXPECT_FALSE(FindSpeakerArray(u"Cy", store.get()));
  EXPECT_FALSE(FindSpeakerArray(u"Dee", store.get()));
  // Written as the stores are: sorted keys, whole-second UTC dates.
  std::string xml = PlistToXml(store.get());
  EXPECT_NE(xml.find("<key>speaker</key>\n\t\t<string>ann</string>\n\t\t<key>urls</key>"),
            std::string::npos)
      << xml;
  EXPECT_NE(xml.find("<date>2005-03-01T05:00:00Z</date>"), std::string::npos) << xml;
}

}  // namespace
}  // namespace gab
