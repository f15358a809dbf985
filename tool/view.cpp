// gabfolio view: serves the library pages of ~/Library/Gabfolio on
// 127.0.0.1, so that every link and image of the pages resolves in a browser,
// and beside them the chats themselves: people, chats and search.
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "library/reading_pages.h"
#include "library/viewer.h"
#include "platform/home.h"
#include "tool/commands.h"
#include "tool/index_access.h"

extern char** environ;

namespace gab::tool {
namespace {

void Usage(FILE* out) {
  std::fprintf(out,
               "usage: gabfolio view [--port N] [--no-open]\n\n"
               "Serves the links pages and the image gallery of ~/Library/Gabfolio, read-only,\n"
               "at http://127.0.0.1:PORT/ until interrupted (Ctrl-C), and beside them your\n"
               "chats: everyone you chatted with, each chat in full, and a search over all\n"
               "of them.  The search index is brought up to date first.  The addresses are\n"
               "printed; with a desktop session the people page opens in the default browser.\n\n"
               "  --port N    listen on port N (default: a free port)\n"
               "  --no-open   do not start a browser\n");
}

void OpenInBrowser(const std::string& url) {
  if (!std::getenv("DISPLAY") && !std::getenv("WAYLAND_DISPLAY")) return;
  pid_t pid = 0;
  const char* argv[] = {"xdg-open", url.c_str(), nullptr};
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
  posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
  if (posix_spawnp(&pid, "xdg-open", &actions, nullptr, const_cast<char**>(argv), environ) != 0)
    std::fprintf(stderr, "gabfolio view: could not run xdg-open; open the address yourself\n");
  posix_spawn_file_actions_destroy(&actions);
}

}  // namespace

int RunView(int argc, char** argv) {
  long port = 0;
  bool open = true;
  for (int i = 1; i < argc; ++i) {
    std::string a = argv[i];
    if (a == "--help" || a == "-h") {
      Usage(stdout);
      return kOk;
    } else if (a == "--no-open") {
      open = false;
    } else if (a == "--port" && i + 1 < argc) {
      char* end = nullptr;
      port = std::strtol(argv[++i], &end, 10);
      if (*end || port < 0 || port > 65535) {
        return UsageError("view", std::string("bad port '") + argv[i] + "'");
      }
    } else {
      return UsageError("view", "unknown option '" + a + "'");
    }
  }
  std::string folder = DataFolder();
  struct stat st {};
  if (stat(folder.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
    std::fprintf(stderr, "gabfolio view: %s does not exist; nothing to serve yet\n",
                 folder.c_str());
    return kFailure;
  }
  // Indexing can be interrupted; serving starts only after it.
  auto index = OpenCurrentIndex("view");
  if (!index) return kFailure;

  // Block the stop signals before the server threads start, then wait here.
  sigset_t stop;
  sigemptyset(&stop);
  sigaddset(&stop, SIGINT);
  sigaddset(&stop, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &stop, nullptr);
  auto pages = std::make_shared<ReadingPages>(TranscriptFolder(), std::move(index), folder);
  LibraryViewer viewer(folder, uint16_t(port), pages);
  if (!viewer.ok()) {
    std::fprintf(stderr, "gabfolio view: cannot listen on 127.0.0.1:%ld: %s\n", port,
                 viewer.error().c_str());
    return kFailure;
  }
  std::string origin = "http://127.0.0.1:" + std::to_string(viewer.port());
  std::printf("Serving %s\n", folder.c_str());
  for (auto [label, path] : {std::pair{"People:", "/people"}, std::pair{"Links:", "/Links.html"},
                             std::pair{"Gallery:", "/Images.html"},
                             std::pair{"Stats:", "/stats.html"}, std::pair{"Search:", "/search"}})
    std::printf("  %-9s%s%s\n", label, origin.c_str(), path);
  std::printf("Press Ctrl-C to stop.\n");
  std::fflush(stdout);
  if (open) OpenInBrowser(origin + "/people");
  int sig = 0;
  sigwait(&stop, &sig);
  // Reap an xdg-open that has finished meanwhile.
  while (waitpid(-1, nullptr, WNOHANG) > 0) {
  }
  return kOk;
}

}  // namespace gab::tool
