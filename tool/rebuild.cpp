// gabfolio rebuild: regenerates the links pages and the image gallery from
// the stores, as the agent does after each pass.
#include <cstdio>
#include <string>

#include "library/log_generator.h"
#include "tool/commands.h"

namespace gab::tool {

int RunRebuild(int argc, char** argv) {
  if (argc > 1) {
    std::string a = argv[1];
    FILE* out = a == "--help" || a == "-h" ? stdout : stderr;
    std::fprintf(out,
                 "usage: gabfolio rebuild\n\n"
                 "Regenerates Links.html, Images.html and the per-person pages in\n"
                 "~/Library/Gabfolio from gatheredURLs.plist and gatheredImages.plist.\n");
    return out == stdout ? kOk : kUsage;
  }
  GenerateLinkFiles(nullptr);
  GenerateImageFiles(nullptr);
  return kOk;
}

}  // namespace gab::tool
