// gabfolio view: serves the library pages of ~/Library/Gabfolio on
// 127.0.0.1, so that every link and image of the pages resolves in a browser.
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

#include "library/viewer.h"
#include "platform/home.h"
#include "tool/commands.h"

extern char** environ;

namespace gab::tool {
namespace {

void Usage(FILE* out) {
  std::fprintf(out,
               "usage: gabfolio view [--port N] [--no-open]\n\n"
               "Serves the links pages and the image gallery of ~/Library/Gabfolio, read-only,\n"
               "at http://127.0.0.1:PORT/ until interrupted (Ctrl-C).  The address is printed;\n"
               "with a desktop session it is opened in the default browser.\n\n"
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
        std::fprintf(stderr, "gabfolio view: bad port '%s'\n", argv[i]);
        return kUsage;
      }
    } else {
      Usage(stderr);
      return kUsage;
    }
  }
  // Block the stop signals before the server threads start, then wait here.
  sigset_t stop;
  sigemptyset(&stop);
  sigaddset(&stop, SIGINT);
  sigaddset(&stop, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &stop, nullptr);

  std::string folder = DataFolder();
  struct stat st {};
  if (stat(folder.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
    std::fprintf(stderr, "gabfolio view: %s does not exist; nothing to serve yet\n",
                 folder.c_str());
    return kFailure;
  }
  LibraryViewer viewer(folder, uint16_t(port));
  if (!viewer.ok()) {
    std::fprintf(stderr, "gabfolio view: cannot listen on 127.0.0.1:%ld: %s\n", port,
                 viewer.error().c_str());
    return kFailure;
  }
  std::string url = "http://127.0.0.1:" + std::to_string(viewer.port()) + "/Links.html";
  std::printf(
      "Serving %s\n  Links:   %s\n  Gallery: http://127.0.0.1:%u/Images.html\n"
      "Press Ctrl-C to stop.\n",
      folder.c_str(), url.c_str(), unsigned(viewer.port()));
  std::fflush(stdout);
  if (open) OpenInBrowser(url);
  int sig = 0;
  sigwait(&stop, &sig);
  // Reap an xdg-open that has finished meanwhile.
  while (waitpid(-1, nullptr, WNOHANG) > 0) {
  }
  return kOk;
}

}  // namespace gab::tool
