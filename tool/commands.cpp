#include "tool/commands.h"

namespace gab::tool {

// Declarations of the subcommands (one file each).
// int RunDefaults(int, char**);

const std::vector<Command>& Commands() {
  static const std::vector<Command> commands = {
      // {"defaults", "read, write or delete preferences", RunDefaults},
  };
  return commands;
}

}  // namespace gab::tool
