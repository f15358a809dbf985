#pragma once
#include <string_view>

namespace gab {

struct PixelSize {
  int width = 0;
  int height = 0;
};

// The pixel size of an image held in memory, from its header only (libvips,
// with the loaders that are not fuzzed against hostile input blocked).  A PDF
// gives its first page at 72 dpi.  Anything that fails gives 0 x 0.
PixelSize ImagePixelSize(std::string_view bytes);

}  // namespace gab
