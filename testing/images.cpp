#include "testing/images.h"

#include <vips/vips.h>

#include <cstdio>
#include <mutex>
#include <vector>

namespace gab::testing {

std::string EncodedImage(int width, int height, const char* suffix) {
  static std::once_flag once;
  std::call_once(once, [] { VIPS_INIT("gabfolio-tests"); });
  VipsImage* image = nullptr;
  std::string out;
  if (vips_grey(&image, width, height, "uchar", TRUE, nullptr) != 0) return out;
  void* buf = nullptr;
  size_t len = 0;
  if (vips_image_write_to_buffer(image, suffix, &buf, &len, nullptr) == 0) {
    out.assign(static_cast<const char*>(buf), len);
    g_free(buf);
  }
  g_object_unref(image);
  return out;
}

std::string PdfDocument(int width, int height) {
  // Catalog, page tree, one empty page, and a cross-reference table whose
  // offsets are computed as it is written.
  std::string objects[] = {"<< /Type /Catalog /Pages 2 0 R >>",
                           "<< /Type /Pages /Kids [3 0 R] /Count 1 >>",
                           "<< /Type /Page /Parent 2 0 R /MediaBox [0 0 " + std::to_string(width) +
                               " " + std::to_string(height) + "] >>"};
  std::string pdf = "%PDF-1.4\n";
  std::vector<size_t> offsets;
  for (size_t i = 0; i < 3; ++i) {
    offsets.push_back(pdf.size());
    pdf += std::to_string(i + 1) + " 0 obj\n" + objects[i] + "\nendobj\n";
  }
  size_t xref = pdf.size();
  pdf += "xref\n0 4\n0000000000 65535 f \n";
  for (size_t off : offsets) {
    char line[32];
    std::snprintf(line, sizeof line, "%010zu 00000 n \n", off);
    pdf += line;
  }
  return pdf + "trailer\n<< /Size 4 /Root 1 0 R >>\nstartxref\n" + std::to_string(xref) +
         "\n%%EOF\n";
}

}  // namespace gab::testing
