// gabfolio dump FILE: prints what a transcript holds, as the product decodes
// it: the participants, then each message with speaker, time, text, links and
// attachments.

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include "platform/contacts.h"
#include "platform/dates.h"
#include "platform/log.h"
#include "platform/text.h"
#include "tool/commands.h"
#include "transcript/chat_log.h"

namespace gab::tool {

namespace {

const char kDumpUsage[] =
    "usage: gabfolio dump FILE\n"
    "\n"
    "Prints a decoded iChat transcript: the other party (from the file name),\n"
    "the participants, and each message with its speaker, time, text, links\n"
    "and attachments.  FILE is an iChat 2 transcript (.chat) or an iChat 3\n"
    "transcript (.ichat) named \"<party> on <date>.<extension>\".\n"
    "\n"
    "Exit status: 0 printed, 1 the file could not be read or decoded, 2 usage.\n";

// Text from a chat is shown as it is, except that control characters are
// escaped (no text can drive the terminal) and continuation lines are
// indented under the message.
std::string Printable(std::u16string_view text, const std::string& indent) {
  std::string out;
  std::string utf8 = ToUtf8(text);
  size_t start = 0;
  for (;;) {
    size_t nl = utf8.find('\n', start);
    out += EscapeControlCharacters(std::string_view(utf8).substr(start, nl - start));
    if (nl == std::string::npos) break;
    out += "\n" + indent;
    start = nl + 1;
  }
  return out;
}

std::string TimeText(const std::optional<Date>& date) {
  return date ? DefaultDescription(*date) : std::string("(no time)");
}

std::string OrNone(const std::optional<std::u16string>& s) {
  return s ? Printable(*s, "") : std::string("(none)");
}

void PrintMessage(FILE* out, size_t index, const ICLPInstantMessage& m) {
  std::fprintf(out, "#%zu [%s] ", index + 1, TimeText(m.TimeStamp()).c_str());
  if (!m.speaker) {
    std::fprintf(out, "(no sender)");
  } else {
    std::fprintf(out, "%s (%s on %s)", OrNone(m.Speaker()).c_str(), OrNone(m.rawSpeaker()).c_str(),
                 OrNone(m.speaker->Protocol()).c_str());
  }
  if (m.isStatusMessage()) std::fprintf(out, " status");
  if (m.mystery) std::fprintf(out, " flags 0x%x", m.mystery);
  std::fprintf(out, "\n");
  const std::string indent = "    ";
  if (m.string && m.string->Length() > 0)
    std::fprintf(out, "%s%s\n", indent.c_str(), Printable(m.string->text, indent).c_str());
  if (auto links = m.allURLs())
    for (const auto& url : links->urls)
      std::fprintf(out, "%slink: %s\n", indent.c_str(), Printable(url, indent).c_str());
  if (auto images = m.allImages()) {
    for (const auto& file : images->images) {
      std::fprintf(out, "%sattachment: %s (%zu bytes)\n", indent.c_str(),
                   file->preferredFilename ? Printable(*file->preferredFilename, indent).c_str()
                                           : "(no file name)",
                   file->contents.size());
    }
  }
}

}  // namespace

int RunDump(int argc, char** argv) {
  Contacts::Hold contacts;
  if (argc == 2 && (std::strcmp(argv[1], "--help") == 0 || std::strcmp(argv[1], "-h") == 0)) {
    std::fputs(kDumpUsage, stdout);
    return kOk;
  }
  if (argc < 2 || argv[1][0] == '\0') return UsageError("dump", "no FILE given");
  if (argv[1][0] == '-' && argv[1][1] != '\0')
    return UsageError("dump", std::string("unknown option '") + argv[1] + "'");
  if (argc > 2) return UsageError("dump", "one FILE at a time");
  const std::string path = argv[1];
  std::string why;
  auto log = ICLPChatLog::InitWithFilePath(path, &why);
  if (!log) {
    std::fprintf(stderr, "gabfolio dump: %s: %s\n", path.c_str(),
                 EscapeControlCharacters(why).c_str());
    return kFailure;
  }
  FILE* out = stdout;
  std::fprintf(out, "Transcript: %s\n", EscapeControlCharacters(path).c_str());
  std::fprintf(out, "Other party: %s\n", Printable(log->firstOtherPartyName(), "").c_str());
  const auto& participants = log->Participants();
  std::fprintf(out, "Participants: %zu (speakers: %d)\n", participants.size(),
               log->NumberOfSpeakers());
  for (const auto& p : participants) {
    std::fprintf(out, "  %s on %s: %s\n", OrNone(p->rawName()).c_str(),
                 OrNone(p->Protocol()).c_str(), OrNone(p->Name()).c_str());
  }
  const auto& messages = log->Messages();
  std::fprintf(out, "Messages: %zu (last: %s)\n", messages.size(),
               messages.empty() ? "none" : TimeText(log->LastMessageDate()).c_str());
  for (size_t i = 0; i < messages.size(); ++i) PrintMessage(out, i, *messages[i]);
  if (std::fflush(out) != 0 || std::ferror(out)) {
    std::fprintf(stderr, "gabfolio dump: cannot write the output: %s\n", std::strerror(errno));
    return kFailure;
  }
  return kOk;
}

}  // namespace gab::tool
