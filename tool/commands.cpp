#include "tool/commands.h"

namespace gab::tool {

// Declarations of the subcommands (one file each).
// int RunDefaults(int, char**);
int RunDump(int, char**);

const std::vector<Command>& Commands() {
  static const std::vector<Command> commands = {
      // {"defaults", "read, write or delete preferences", RunDefaults},
      {"dump", "print a decoded transcript", RunDump},
  };
  return commands;
}

}  // namespace gab::tool
