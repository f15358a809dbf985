#include "tool/commands.h"

namespace gab::tool {

// Declarations of the subcommands (one file each).
int RunSetup(int, char**);
int RunImport(int, char**);
int RunService(int, char**);

const std::vector<Command>& Commands() {
  static const std::vector<Command> commands = {
      {"setup", "prepare ~/Library/Gabfolio, the defaults and (--mail) mail", RunSetup},
      {"import", "add existing transcripts to the library without mailing", RunImport},
      {"service", "install or remove the agent's systemd user service", RunService},
  };
  return commands;
}

}  // namespace gab::tool
