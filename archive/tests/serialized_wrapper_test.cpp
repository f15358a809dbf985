#include "archive/serialized_wrapper.h"

#include <gtest/gtest.h>

#include "archive/testing/fixture_writer.h"

namespace gab {
namespace {

TEST(SerializedWrapper, FontNameBlobsInApplesLayouts) {
  // From an Apple NSFont (v30, little-endian text) and a PowerPC-written nib
  // (v21, big-endian text, padded).
  std::string timesLE("\x06\0\0\0\x18\0\0\0\xFF\xFE", 10);
  for (char c : std::string("Times-Roman")) timesLE += std::string{c, '\0'};
  std::string lucidaBE("\x06\0\0\0\x1A\0\0\0\xFE\xFF", 10);
  for (char c : std::string("LucidaGrande")) lucidaBE += std::string{'\0', c};
  lucidaBE += std::string(2, '\0');
  EXPECT_EQ(ParseNeXTSerializedString(timesLE), u"Times-Roman");
  EXPECT_EQ(ParseNeXTSerializedString(lucidaBE), u"LucidaGrande");
  EXPECT_EQ(ParseNeXTSerializedString(std::string(4, '\0') + lucidaBE), u"LucidaGrande");
  EXPECT_EQ(ParseNeXTSerializedString(lucidaBE.substr(0, 20)), std::nullopt);
  EXPECT_EQ(ParseNeXTSerializedString(std::string("\x05\0\0\0\x03\0\0\0abc\0", 12)), u"abc");
}

TEST(SerializedWrapper, RegularFileAndEveryDamage) {
  std::string rtfd = fixtures::SerializeRegularFile(u"r\u00e9sum\u00e9.txt", "contents");
  auto w = ParseSerializedFileWrapper(rtfd);
  ASSERT_TRUE(w);
  EXPECT_TRUE(w->IsRegularFile());
  EXPECT_EQ(w->preferredFilename, u"r\u00e9sum\u00e9.txt");
  EXPECT_EQ(w->contents, "contents");
  // Without the UTF-8 entry the 8-bit name is used.
  auto old =
      ParseSerializedFileWrapper(fixtures::SerializeRegularFile(u"a\u00e9.gif", "GIF", false));
  ASSERT_TRUE(old);
  EXPECT_EQ(old->preferredFilename, u"a\u00e9.gif");
  for (size_t n = 0; n < rtfd.size(); ++n)
    EXPECT_FALSE(ParseSerializedFileWrapper(rtfd.substr(0, n))) << n;
  for (size_t at : {0, 4, 8, 12, 16}) {
    std::string bad = rtfd;
    bad[at] ^= 0x40;
    EXPECT_FALSE(ParseSerializedFileWrapper(bad)) << at;
  }
  EXPECT_FALSE(ParseSerializedFileWrapper(rtfd + "x"));
}

}  // namespace
}  // namespace gab
