#pragma once
// The search index as the tool's commands use it: opened in the data folder
// and, unless the running agent keeps it current, brought up to date with
// the transcript folder first, with a progress bar while transcripts are
// loaded.

#include <memory>
#include <string>

#include "library/search_index.h"

namespace gab::tool {

// Nothing (after a message on standard error naming `command`) when the data
// folder is missing or the index cannot be made.  `clear` starts afresh.
std::unique_ptr<SearchIndex> OpenCurrentIndex(const char* command, bool clear = false);

}  // namespace gab::tool
