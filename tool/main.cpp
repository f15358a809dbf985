#include <csignal>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "platform/log.h"
#include "tool/commands.h"

// gabfolio COMMAND [ARGS]: the user's tool.  Each subcommand lives in its own
// file and registers itself in the table of tool/commands.h.
int main(int argc, char** argv) {
  using gab::tool::Commands;
  // Output into a closed pipe ends the tool quietly, as `git log | head`
  // does, whatever the parent left the signal set to.
  std::signal(SIGPIPE, SIG_DFL);
  // Errors are said once, by the command; the log's timestamped lines only
  // with --verbose (anywhere on the command line).
  std::vector<char*> args;
  bool verbose = false;
  for (int i = 0; i < argc; ++i) {
    if (i > 0 && std::strcmp(argv[i], "--verbose") == 0)
      verbose = true;
    else
      args.push_back(argv[i]);
  }
  args.push_back(nullptr);
  argc = int(args.size()) - 1;
  argv = args.data();
  gab::SetLogEnabled(verbose);
  auto usage = [](FILE* out) {
    std::fprintf(out, "usage: gabfolio COMMAND [ARGS]\n\ncommands:\n");
    for (const auto& c : Commands()) std::fprintf(out, "  %-10s %s\n", c.name, c.summary);
    std::fprintf(out,
                 "\nRun 'gabfolio COMMAND --help' for a command's options; add --verbose to any\n"
                 "command to see its log lines.\n");
  };
  if (argc < 2) {
    usage(stderr);
    return 2;
  }
  std::string cmd = argv[1];
  if (cmd == "--version" || cmd == "-V") {
    std::printf("gabfolio %s\n", GABFOLIO_VERSION);
    return 0;
  }
  if (cmd == "--help" || cmd == "-h" || cmd == "help") {
    usage(stdout);
    return 0;
  }
  for (const auto& c : Commands())
    if (cmd == c.name) return c.run(argc - 1, argv + 1);
  std::fprintf(stderr, "gabfolio: unknown command '%s'\ntry 'gabfolio --help'\n",
               gab::EscapeControlCharacters(cmd).c_str());
  return 2;
}
