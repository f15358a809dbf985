// gabfolio reindex: builds the search index afresh from the transcripts.
#include <cstdio>
#include <string>

#include "tool/commands.h"
#include "tool/index_access.h"

namespace gab::tool {

int RunReindex(int argc, char** argv) {
  if (argc > 1) {
    std::string a = argv[1];
    if (a != "--help" && a != "-h") return UsageError("reindex", "takes no arguments");
    std::fprintf(stdout,
                 "usage: gabfolio reindex\n\n"
                 "Builds the search index (~/Library/Gabfolio/search-index.sqlite) afresh\n"
                 "from every transcript under ~/Documents/iChats, with a progress bar.  The\n"
                 "index is a cache: the parser keeps it current, and deleting it loses\n"
                 "nothing.  Interrupt it at any time; 'gabfolio search' goes on from there.\n");
    return kOk;
  }
  auto index = OpenCurrentIndex("reindex", true);
  if (!index) return kFailure;
  std::printf("Indexed %lld messages.\n", static_cast<long long>(index->MessageCount()));
  return kOk;
}

}  // namespace gab::tool
