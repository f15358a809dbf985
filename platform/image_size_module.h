#pragma once
// The interface of the image module (libvips), loaded by ImagePixelSize.
#include <string_view>

#include "platform/image_size.h"

namespace gab {

struct ImageModule {
  PixelSize (*pixelSize)(std::string_view bytes);
};
inline constexpr const char* kImageModuleFile = "gabfolio-images.so";
inline constexpr const char* kImageModuleEntry = "gabfolio_image_module";

}  // namespace gab
