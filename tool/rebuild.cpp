// gabfolio rebuild: regenerates the links pages and the image gallery from
// the stores, as the agent does after each pass.
#include <cstdio>
#include <string>

#include "library/log_generator.h"
#include "platform/home.h"
#include "platform/log.h"
#include "platform/text.h"
#include "platform/write_batch.h"
#include "tool/commands.h"

namespace gab::tool {

int RunRebuild(int argc, char** argv) {
  if (argc > 1) {
    std::string a = argv[1];
    if (a == "--help" || a == "-h") {
      std::printf(
          "usage: gabfolio rebuild\n\n"
          "Regenerates Links.html, Images.html and the per-person pages in\n"
          "~/Library/Gabfolio from gatheredURLs.plist and gatheredImages.plist.\n\n"
          "Exit status: 0 written, 1 a page could not be written, 2 usage.\n");
      return kOk;
    }
    return UsageError("rebuild", "takes no arguments");
  }
  const std::string data = DataFolder();
  std::string error;
  // The pages are written together, so a failure leaves the old ones whole
  // and is reported once instead of being lost among the page writes.
  if (!RecoverWriteBatch(data, &error)) {
    std::fprintf(stderr, "gabfolio rebuild: nothing written: %s\n",
                 EscapeControlCharacters(error).c_str());
    return kFailure;
  }
  WriteBatch batch(data);
  GenerateLinkFiles(nullptr);
  GenerateImageFiles(nullptr);
  const size_t files = batch.HeldFiles();
  if (!batch.Commit(&error)) {
    std::fprintf(stderr, "gabfolio rebuild: could not write the pages in %s: %s\n", data.c_str(),
                 EscapeControlCharacters(error).c_str());
    return kFailure;
  }
  std::printf("Wrote %zu files into %s: the links pages, the gallery and its newest images.\n",
              files, data.c_str());
  return kOk;
}

}  // namespace gab::tool
