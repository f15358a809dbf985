#pragma once
// Whether a parser run has anything to do: a transcript that is new or
// changed since the record was written, a chat still open, or a mail due for
// a retry.  Needs only the record and a stat of each file.

#include <cstdint>
#include <string>

namespace gab::parser {

bool RunHasWork(const std::string& transcriptFolder, const std::string& dataFolder,
                int64_t nowSeconds);

}  // namespace gab::parser
