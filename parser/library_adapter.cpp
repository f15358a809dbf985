#include "parser/library_adapter.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>

#include "library/log_generator.h"
#include "parser/transcript_mail.h"
#if __has_include("platform/chat_windows.h")
#include "platform/chat_windows.h"
#define GAB_HAVE_CHAT_WINDOWS 1
#endif
#include "platform/files.h"
#include "platform/preferences.h"
#include "transcript/chat_log.h"
#include "transcript/process_flags.h"

namespace gab::parser {

std::string LoadFailureReason(const std::string& path) {
  auto slash = path.rfind('/');
  std::string name = slash == std::string::npos ? path : path.substr(slash + 1);
  auto dot = name.rfind('.');
  std::string ext = dot == std::string::npos ? "" : name.substr(dot + 1);
  if (ext != "chat" && ext != "ichat") return "not a transcript file name";
  if (name.find(" on ") == std::string::npos) return "the file name names no party (no \" on \")";
  auto data = ReadWholeFile(path);
  if (!data) return "cannot be read";
  // The loader has logged the failure already; this second decode only
  // learns its reason, so its own log line is dropped.
  ICLPChatLog probe;
  std::fflush(stderr);
  int saved = dup(STDERR_FILENO);
  int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
  if (saved >= 0 && null >= 0) dup2(null, STDERR_FILENO);
  bool ok = ext == "chat" ? probe.LoadiChat2Data(*data) : probe.LoadiChat3Data(*data);
  std::fflush(stderr);
  if (saved >= 0) {
    dup2(saved, STDERR_FILENO);
    close(saved);
  }
  if (null >= 0) close(null);
  if (ok) return "not a transcript";
  return probe.loadError().empty() ? "does not decode" : probe.loadError();
}

std::unique_ptr<ICLPChatLog> TranscriptLibrary::Load(const std::string& path, std::string* reason) {
  auto log = ICLPChatLog::InitWithFilePath(path);
  if (!log && reason) *reason = LoadFailureReason(path);
  return log;
}

bool TranscriptLibrary::ChatHasEnded(const ICLPChatLog& transcript) {
  // The window query is made once per run and only when a transcript needs
  // the judgement, so an unchanged folder never talks to the X server.
  if (!askedChatClient_) {
#ifdef GAB_HAVE_CHAT_WINDOWS
    iChatRunning = ChatClientHasWindows();
#else
    iChatRunning = false;
#endif
    askedChatClient_ = true;
  }
  return transcript.isLikelyEndOfChat();
}

bool TranscriptLibrary::Mail(ICLPChatLog& transcript, std::string* error) {
  bool sent = MailTranscript(prefs_, transcript, error);
  NoteMailOutcome(prefs_, sent);
  return sent;
}

// A batch without links (images) leaves the stores, pages and text log as
// they are: nothing would change but the files' times.
int64_t TranscriptLibrary::GatherLinks(const ICLPChatLog& messages, const std::string& textLog) {
  int64_t n = 0;
  for (const auto& entry : messages.GatheredURLs()) n += int64_t(entry.urls.size());
  if (n == 0) return 0;
  ICLPLogGenerator::GenerateLinkFiles(&messages);
  messages.ExtendURLLog(textLog);
  return n;
}

int64_t TranscriptLibrary::GatherImages(const ICLPChatLog& messages, const std::string& textLog) {
  int64_t n = 0;
  for (const auto& entry : messages.GatheredImages()) n += int64_t(entry.images.size());
  if (n == 0) return 0;
  ICLPLogGenerator::GenerateImageFiles(&messages);
  messages.ExtendImageLog(textLog);
  return n;
}

void TranscriptLibrary::CountStatistics(const ICLPChatLog& messages) {
  ICLPLogGenerator::UpdateStatistics(&messages);
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
