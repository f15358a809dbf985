#include "parser/quick_check.h"

#include "parser/record.h"
#include "platform/transcript_files.h"
#include "platform/write_batch.h"

namespace gab::parser {

bool RunHasWork(const std::string& transcriptFolder, const std::string& dataFolder,
                int64_t nowSeconds) {
  // A save the last run could not finish is finished by the worker.
  if (HasPendingWriteBatch(dataFolder)) return true;
  bool damaged = false;
  Record record = LoadRecord(dataFolder + "/processed.plist", &damaged);
  if (damaged) return true;
  for (const auto& [path, e] : record.transcripts) {
    if (e.state == State::kWaiting) return true;
    if (e.state == State::kMailPending && nowSeconds >= record.mailRetryAfter) return true;
  }
  for (const auto& f : FindTranscripts(transcriptFolder)) {
    auto it = record.transcripts.find(f.relativePath);
    if (it == record.transcripts.end() || it->second.size != f.size ||
        it->second.mtimeNs != f.mtimeNs)
      return true;
  }
  return false;
}

}  // namespace gab::parser
