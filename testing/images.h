#pragma once
// Small files for the image code: encoded by libvips, or a PDF written out.

#include <string>

namespace gab::testing {

// A grey ramp of the given size, encoded for `suffix` (".png", ".jpg", ...).
std::string EncodedImage(int width, int height, const char* suffix = ".png");

// A one-page PDF whose page is `width` x `height` points.
std::string PdfDocument(int width, int height);

}  // namespace gab::testing
