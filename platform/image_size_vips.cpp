// The image module: libvips reads the sizes of attachments.
#include <vips/vips.h>

#include <mutex>

#include "platform/image_size_module.h"

namespace gab {
namespace {

bool StartVips() {
  static bool ok = [] {
    if (VIPS_INIT("gabfolio") != 0) return false;
    // Chat attachments are untrusted: only the loaders libvips vouches for.
    vips_block_untrusted_set(TRUE);
    // libvips counts its PDF loader as untrusted, yet the gallery needs the
    // page size of PDF attachments; only the header (page size) is read.
    vips_operation_block_set("VipsForeignLoadPdf", FALSE);
    vips_cache_set_max(0);
    return true;
  }();
  return ok;
}

PixelSize PixelSizeOf(std::string_view bytes) {
  static std::mutex once;
  {
    std::lock_guard lock(once);
    if (!StartVips()) return {};
  }
  if (bytes.empty()) return {};
  // new_from_buffer reads the header only; pixels are decoded on demand, and
  // we never ask for them.
  VipsImage* image = vips_image_new_from_buffer(bytes.data(), bytes.size(), "", "access",
                                                VIPS_ACCESS_SEQUENTIAL, nullptr);
  if (!image) {
    vips_error_clear();
    return {};
  }
  PixelSize size{vips_image_get_width(image), vips_image_get_height(image)};
  g_object_unref(image);
  if (size.width < 0 || size.height < 0) return {};
  return size;
}

}  // namespace
}  // namespace gab

extern "C" __attribute__((visibility("default"))) const gab::ImageModule* gabfolio_image_module() {
  static const gab::ImageModule module{gab::PixelSizeOf};
  return &module;
}
