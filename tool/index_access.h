#pragma once
// The search index as the tool's commands use it: opened in the data folder
// and brought up to date with the transcript folder first, with a progress
// bar while transcripts are loaded.

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "library/search_index.h"

namespace gab::tool {

// Nothing (after a message on standard error naming `command`) when the data
// folder is missing or the index cannot be made.  `clear` starts afresh.
std::unique_ptr<SearchIndex> OpenCurrentIndex(const char* command, bool clear = false);

// "YYYY", "YYYY-MM" or "YYYY-MM-DD" in local time: the first moment of that
// period, or (with `end`) its last.  Nothing for any other text.
std::optional<Date> ParseDay(std::string_view text, bool end);

}  // namespace gab::tool
