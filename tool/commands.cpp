#include "tool/commands.h"

namespace gab::tool {

// Declarations of the subcommands (one file each).
// int RunDefaults(int, char**);
int RunSetup(int, char**);
int RunImport(int, char**);
int RunService(int, char**);
int RunDump(int, char**);

const std::vector<Command>& Commands() {
  static const std::vector<Command> commands = {
      {"setup", "prepare ~/Library/Gabfolio, the defaults and (--mail) mail", RunSetup},
      // {"defaults", "read, write or delete preferences", RunDefaults},
      {"import", "add existing transcripts to the library without mailing", RunImport},
      {"dump", "print a decoded transcript", RunDump},
      {"service", "install or remove the agent's systemd user service", RunService},
  };
  return commands;
}

}  // namespace gab::tool
