#pragma once
// The parser's Library on the real transcript library: loading, the
// end-of-chat judgement, the mail, the stores, pages and statistics.

#include "parser/processor.h"

namespace gab {
class Preferences;
}

namespace gab::parser {

class TranscriptLibrary : public Library {
 public:
  explicit TranscriptLibrary(Preferences& prefs) : prefs_(prefs) {}

  std::unique_ptr<ICLPChatLog> Load(const std::string& path, std::string* reason) override;
  bool ChatHasEnded(const ICLPChatLog& transcript) override;
  bool Mail(ICLPChatLog& transcript, std::string* error) override;
  int64_t GatherLinks(const ICLPChatLog& messages, const std::string& textLog) override;
  int64_t GatherImages(const ICLPChatLog& messages, const std::string& textLog) override;
  void CountStatistics(const ICLPChatLog& messages) override;
  void BackdateStatistics(Date earliest) override;

 private:
  Preferences& prefs_;
  bool askedChatClient_ = false;
};

// The error-chances counter: "emailFails" + 1 after a failed mail, 0 after a
// sent one, synchronised at once so that the agent sees it.
void NoteMailOutcome(Preferences& prefs, bool sent);

}  // namespace gab::parser
