#pragma once
#include <string>
#include <vector>

namespace gab::tool {

// Exit codes the subcommands share, so that scripts can rely on them.
enum ExitCode { kOk = 0, kFailure = 1, kUsage = 2 };

struct Command {
  const char* name;
  const char* summary;
  int (*run)(int argc, char** argv);  // argv[0] is the command's name
};

// Every subcommand, in the order `gabfolio --help` lists them.  Each file
// that defines a command adds one line here.
const std::vector<Command>& Commands();

// A usage error in the command's voice: the problem on one line and where
// the help is, then kUsage.
int UsageError(const char* command, const std::string& problem);

}  // namespace gab::tool
