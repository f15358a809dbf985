#include "platform/image_size.h"

#include "platform/image_size_module.h"
#include "platform/module.h"

namespace gab {

PixelSize ImagePixelSize(std::string_view bytes) {
  static const ImageModule* module = LoadModuleOrSay<ImageModule>(
      kImageModuleFile, kImageModuleEntry, "Image sizes are not available");
  return module ? module->pixelSize(bytes) : PixelSize{};
}

}  // namespace gab
