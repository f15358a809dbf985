// gabfolio-parser: the companion parser the agent runs once per entry of the
// transcript folder (with its own path as its only argument).  The agent
// starts it for every entry, so most runs find nothing new: this front only
// compares the folder with the parser's record, which needs none of the big
// libraries the real work links (loading them cost more than the check), and
// hands over to gabfolio-parser-worker only when there is work.

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>

#include "parser/quick_check.h"
#include "parser/usage.h"
#include "platform/home.h"
#include "platform/log.h"
#include "platform/pass_note.h"

namespace {

constexpr const char* kWorker = "gabfolio-parser-worker";

// Beside this program (build tree, or everything in one folder), else in
// <prefix>/libexec/gabfolio.
std::string WorkerPath() {
  std::error_code ec;
  std::filesystem::path exe = std::filesystem::read_symlink("/proc/self/exe", ec);
  if (ec) return "";
  for (const auto& p : {exe.parent_path() / kWorker,
                        exe.parent_path().parent_path() / "libexec" / "gabfolio" / kWorker})
    if (access(p.c_str(), X_OK) == 0) return p.string();
  return "";
}

}  // namespace

int main(int argc, char** argv) {
  using namespace gab;
  if (argc > 1 && (!std::strcmp(argv[1], "--help") || !std::strcmp(argv[1], "-h"))) {
    std::fputs(parser::kUsage, stdout);
    return 0;
  }
  if (argc > 1 && (!std::strcmp(argv[1], "--version") || !std::strcmp(argv[1], "-V"))) {
    std::printf("%s %s\n", "gabfolio-parser", GABFOLIO_VERSION);
    return 0;
  }
  const std::string data = DataFolder();
  struct stat st {};
  if (stat(data.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
    NSLog("The data folder " + data + " is missing; run 'gabfolio setup'.");
    return 1;
  }
  int64_t now = std::chrono::duration_cast<std::chrono::seconds>(
                    std::chrono::system_clock::now().time_since_epoch())
                    .count();
  // An earlier run of this agent pass found nothing to do: neither will this.
  if (PassFoundNothingToDo()) return 0;
  if (!parser::RunHasWork(TranscriptFolder(), data, now)) {
    NotePassFoundNothingToDo();
    return 0;
  }

  std::string worker = WorkerPath();
  if (worker.empty()) {
    NSLog(std::string(kWorker) + " is missing beside " + argv[0]);
    return 1;
  }
  execv(worker.c_str(), argv);
  NSLog("Cannot run " + worker + ": " + std::strerror(errno));
  return 1;
}
