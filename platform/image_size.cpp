#include "platform/image_size.h"

#include <string>

#include "platform/image_size_module.h"
#include "platform/log.h"
#include "platform/module.h"

namespace gab {

PixelSize ImagePixelSize(std::string_view bytes) {
  static const ImageModule* module = [] {
    std::string err;
    auto* m = LoadModule<ImageModule>(kImageModuleFile, kImageModuleEntry, &err);
    if (!m) NSLog("Image sizes are not available: " + err);
    return m;
  }();
  return module ? module->pixelSize(bytes) : PixelSize{};
}

}  // namespace gab
