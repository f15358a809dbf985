// gabfolio status: the error state the agent reports and whether it runs.
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>

#include "library/search_index.h"
#include "platform/home.h"
#include "platform/preferences.h"
#include "tool/agent_state.h"
#include "tool/commands.h"

namespace gab::tool {
namespace {

constexpr const char* kHelp =
    "usage: gabfolio status\n"
    "\n"
    "Shows the error state the agent keeps in the preferences (errorStatus,\n"
    "reportThis, emailFails) and whether the agent runs, from its pid file\n"
    "~/Library/Gabfolio/pidfile.  Clear an error with\n"
    "'gabfolio defaults write errorStatus -int 0'.  From the search index: how\n"
    "many one-to-one chats have no speaker with the name their file gives the\n"
    "other party (see 'gabfolio contacts --help').\n";

const char* Meaning(int32_t code) {
  switch (code) {
    case 0:
      return "no error";
    case 1:
      return "a file could not be written";
    case 2:
      return "the mail server failed";
    case 3:
      return "the mail server rejected the login";
    case 4:
      return "internal failure";
    default:
      return "unknown";
  }
}

}  // namespace

int RunStatus(int argc, char** argv) {
  if (argc > 1 && (std::strcmp(argv[1], "--help") == 0 || std::strcmp(argv[1], "-h") == 0)) {
    std::fputs(kHelp, stdout);
    return kOk;
  }
  if (argc > 1) return UsageError("status", "takes no arguments");
  std::error_code ec;
  if (!std::filesystem::is_directory(DataFolder(), ec)) {
    std::fprintf(stderr, "gabfolio status: not set up yet; run 'gabfolio setup' (it creates %s)\n",
                 DataFolder().c_str());
    return kFailure;
  }
  auto& prefs = Preferences::Shared();
  prefs.AppSynchronize();
  int32_t errorStatus = prefs.Int("errorStatus");
  auto report = prefs.String("reportThis");
  std::printf("errorStatus: %d (%s)\n", errorStatus, Meaning(errorStatus));
  std::printf("reportThis:  %s\n", report ? report->c_str() : "(none)");
  std::printf("emailFails:  %d\n", prefs.Int("emailFails"));
  std::printf("agent:       %s\n", ReadAgentState().description.c_str());
  // From the search index as the last import, view or search left it.
  const std::string indexPath = SearchIndexPath(DataFolder());
  if (std::filesystem::exists(indexPath, ec)) {
    if (auto index = SearchIndex::Open(indexPath); index && index->Complete()) {
      int64_t n = index->ChatsWithoutTheirParty();
      std::printf("chats without their party: %lld%s\n", static_cast<long long>(n),
                  n ? " (their words count as yours; see 'gabfolio contacts --help')" : "");
    }
  }
  return kOk;
}

}  // namespace gab::tool
