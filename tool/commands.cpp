#include "tool/commands.h"

#include <cstdio>

#include "platform/log.h"

namespace gab::tool {

int UsageError(const char* command, const std::string& problem) {
  std::fprintf(stderr, "gabfolio %s: %s\ntry 'gabfolio %s --help'\n", command,
               EscapeControlCharacters(problem).c_str(), command);
  return kUsage;
}

// Declarations of the subcommands (one file each).
int RunSetup(int, char**);
int RunDefaults(int, char**);
int RunStatus(int, char**);
int RunImport(int, char**);
int RunDump(int, char**);
int RunConvert(int, char**);
int RunExport(int, char**);
int RunRebuild(int, char**);
int RunView(int, char**);
int RunSearch(int, char**);
int RunReindex(int, char**);
int RunService(int, char**);
int RunContacts(int, char**);

const std::vector<Command>& Commands() {
  static const std::vector<Command> commands = {
      {"setup", "prepare ~/Library/Gabfolio, the defaults and (--mail) mail", RunSetup},
      {"defaults", "read, write or delete preferences", RunDefaults},
      {"status", "error state and whether the agent runs", RunStatus},
      {"import", "add existing transcripts to the library without mailing", RunImport},
      {"dump", "print a decoded transcript", RunDump},
      {"convert", "write a transcript as plain text or HTML", RunConvert},
      {"export", "write chats as mbox, Maildir, .eml, a web site, text or TSV", RunExport},
      {"rebuild", "rebuild the links pages and the gallery from the stores", RunRebuild},
      {"view", "serve the library and the chats on 127.0.0.1 for a browser", RunView},
      {"search", "search every chat for words, phrases or prefixes", RunSearch},
      {"reindex", "build the search index afresh from the transcripts", RunReindex},
      {"contacts", "learn contact cards that link accounts to the names chats show", RunContacts},
      {"service", "install or remove the agent's systemd user service", RunService},
  };
  return commands;
}

}  // namespace gab::tool
