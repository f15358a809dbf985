#include "platform/image_size.h"

#include <gtest/gtest.h>
#include <vips/vips.h>

#include <string>

namespace gab {
namespace {

// An image of the given size encoded by libvips with a saver such as
// ".png" or ".jpg".
std::string Encode(int width, int height, const char* suffix) {
  ImagePixelSize("");  // starts libvips
  VipsImage* black = nullptr;
  EXPECT_EQ(vips_black(&black, width, height, "bands", 3, nullptr), 0);
  void* buf = nullptr;
  size_t len = 0;
  EXPECT_EQ(vips_image_write_to_buffer(black, suffix, &buf, &len, nullptr), 0);
  g_object_unref(black);
  std::string out(static_cast<char*>(buf), len);
  g_free(buf);
  return out;
}

// A one-page PDF whose page is `w` x `h` points.
std::string Pdf(int w, int h) {
  std::string objs[] = {
      "<< /Type /Catalog /Pages 2 0 R >>",
      "<< /Type /Pages /Kids [3 0 R] /Count 1 >>",
      "<< /Type /Page /Parent 2 0 R /MediaBox [0 0 " + std::to_string(w) + " " + std::to_string(h) +
          "] >>",
  };
  std::string pdf = "%PDF-1.4\n";
  std::vector<size_t> offsets;
  for (int i = 0; i < 3; ++i) {
    offsets.push_back(pdf.size());
    pdf += std::to_string(i + 1) + " 0 obj\n" + objs[i] + "\nendobj\n";
  }
  size_t xref = pdf.size();
  pdf += "xref\n0 4\n0000000000 65535 f \n";
  for (size_t o : offsets) {
    char line[32];
    snprintf(line, sizeof line, "%010zu 00000 n \n", o);
    pdf += line;
  }
  pdf += "trailer\n<< /Size 4 /Root 1 0 R >>\nstartxref\n" + std::to_string(xref) + "\n%%EOF\n";
  return pdf;
}

TEST(ImageSize, ReadsPixelSizesAndFailsToZero) {
  struct {
    const char* name;
    std::string bytes;
    int width, height;
  } cases[] = {
      {"png landscape", Encode(64, 48, ".png"), 64, 48},
      {"jpeg portrait", Encode(30, 70, ".jpg"), 30, 70},
      {"gif square", Encode(9, 9, ".gif"), 9, 9},
      {"pdf letter page at 72 dpi", Pdf(612, 792), 612, 792},
      {"empty", "", 0, 0},
      {"text", "hello, this is not an image", 0, 0},
      {"truncated png", Encode(64, 48, ".png").substr(0, 20), 0, 0},
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
