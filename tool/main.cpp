#include <cstdio>
#include <cstring>
#include <string>

#include "tool/commands.h"

// gabfolio COMMAND [ARGS]: the user's tool.  Each subcommand lives in its own
// file and registers itself in the table of tool/commands.h.
int main(int argc, char** argv) {
  using gab::tool::Commands;
  auto usage = [](FILE* out) {
    std::fprintf(out, "usage: gabfolio COMMAND [ARGS]\n\ncommands:\n");
    for (const auto& c : Commands()) std::fprintf(out, "  %-10s %s\n", c.name, c.summary);
    std::fprintf(out, "\nRun 'gabfolio COMMAND --help' for a command's options.\n");
  };
  if (argc < 2) {
    usage(stderr);
    return 2;
  }
  std::string cmd = argv[1];
  if (cmd == "--help" || cmd == "-h" || cmd == "help") {
    usage(stdout);
    return 0;
  }
  for (const auto& c : Commands())
    if (cmd == c.name) return c.run(argc - 1, argv + 1);
  std::fprintf(stderr, "gabfolio: unknown command '%s'\n", cmd.c_str());
  usage(stderr);
  return 2;
}
