#include "platform/image_size.h"

#include <gtest/gtest.h>

#include <string>

#include "testing/images.h"

namespace gab {
namespace {

using testing::EncodedImage;

TEST(ImageSize, ReadsPixelSizesAndFailsToZero) {
  struct {
    const char* name;
    std::string bytes;
    int width, height;
  } cases[] = {
      {"png landscape", EncodedImage(64, 48, ".png"), 64, 48},
      {"jpeg portrait", EncodedImage(30, 70, ".jpg"), 30, 70},
      {"gif square", EncodedImage(9, 9, ".gif"), 9, 9},
      {"pdf letter page at 72 dpi", testing::PdfDocument(612, 792), 612, 792},
      {"empty", "", 0, 0},
      {"text", "hello, this is not an image", 0, 0},
      {"truncated png", EncodedImage(64, 48, ".png").substr(0, 20), 0, 0},
  };
  for (const auto& c : cases) {
    PixelSize s = ImagePixelSize(c.bytes);
    EXPECT_EQ(s.width, c.width) << c.name;
    EXPECT_EQ(s.height, c.height) << c.name;
  }
}

TEST(ImageSize, UntrustedLoadersAreBlocked) {
  // A 3 x 2 BMP: only ImageMagick's loader reads it, and libvips counts that
  // one untrusted, so the size is not read.
  std::string bmp = "BM";
  auto le = [&](uint32_t v, int n) {
    for (int i = 0; i < n; ++i) bmp += char((v >> (8 * i)) & 0xFF);
  };
  le(14 + 40 + 16, 4), le(0, 4), le(54, 4);
  le(40, 4), le(3, 4), le(2, 4), le(1, 2), le(24, 2), le(0, 4), le(16, 4);
  le(2835, 4), le(2835, 4), le(0, 4), le(0, 4);
  bmp += std::string(16, '\0');
  EXPECT_EQ(ImagePixelSize(bmp).width, 0);
  EXPECT_EQ(ImagePixelSize(bmp).height, 0);
}

}  // namespace
}  // namespace gab
