#include "parser/library_adapter.h"

#include "delivery/mail_session.h"
#include "library/gathering.h"
#include "library/log_generator.h"
#include "platform/chat_windows.h"
#include "platform/preferences.h"
#include "transcript/chat_log.h"
#include "transcript/end_of_chat.h"
#include "transcript/process_flags.h"

namespace gab::parser {

std::unique_ptr<ICLPChatLog> TranscriptLibrary::Load(const std::string& path, std::string* reason) {
  return ICLPChatLog::InitWithFilePath(path, reason);
}

bool TranscriptLibrary::ChatHasEnded(const ICLPChatLog& transcript) {
  // The window query is made once per run and only when a transcript needs
  // the judgement, so an unchanged folder never talks to the X server.
  if (!askedChatClient_) {
    iChatRunning = ChatClientHasWindows();
    askedChatClient_ = true;
  }
  return isLikelyEndOfChat(transcript);
}

bool TranscriptLibrary::Mail(ICLPChatLog& transcript, std::string* error) {
  bool sent = MailTranscript(transcript, error);
  NoteMailOutcome(prefs_, sent);
  return sent;
}

// A batch without links (images) leaves the stores, pages and text log as
// they are: nothing would change but the files' times.
int64_t TranscriptLibrary::GatherLinks(const ICLPChatLog& messages, const std::string& textLog) {
  int64_t n = 0;
  for (const auto& entry : GatheredURLs(messages)) n += int64_t(entry.urls.size());
  if (n == 0) return 0;
  GenerateLinkFiles(&messages);
  ExtendURLLog(messages, textLog);
  return n;
}

int64_t TranscriptLibrary::GatherImages(const ICLPChatLog& messages, const std::string& textLog) {
  int64_t n = 0;
  for (const auto& entry : GatheredImages(messages)) n += int64_t(entry.images.size());
  if (n == 0) return 0;
  GenerateImageFiles(&messages);
  ExtendImageLog(messages, textLog);
  return n;
}

void TranscriptLibrary::CountStatistics(const ICLPChatLog& messages) {
  UpdateStatistics(&messages);
}

void TranscriptLibrary::BackdateStatistics(Date earliest) {
  gab::BackdateStatistics(earliest);
}

void NoteMailOutcome(Preferences& prefs, bool sent) {
  prefs.AppSynchronize();
  int32_t fails = prefs.Int("emailFails");
  int32_t next = sent ? 0 : (fails < INT32_MAX ? fails + 1 : fails);
  if (next != fails || !prefs.CopyAppValue("emailFails"))
    prefs.SetAppValue("emailFails", int64_t(next));
  prefs.AppSynchronize();
}

}  // namespace gab::parser
